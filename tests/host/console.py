"""What the tests that run the console share. Needs ZELCTL, the path of the console."""

import contextlib
import os
import pathlib
import signal
import stat
import subprocess
import tempfile
import unittest

ZELCTL = os.environ["ZELCTL"]
DEADLINE = 120  # seconds; only a hang takes that long
INIT = (
    '{"cmd": 1, "sno": 1, "param": {"initParam": {"log_path": "${DATA}/log/", "logLevel": 2,'
    ' "logSize": 512, "fileCount": 1, "dbPath": "${DATA}/"}}}\n'
)


def mode_of(path):
    return stat.S_IMODE(path.stat().st_mode)


class ConsoleTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="console_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name).resolve()
        self.data = self.folder / "data"

    def run_console(self, *arguments, text=b""):
        return subprocess.run(
            [ZELCTL, *map(str, arguments)], input=text if isinstance(text, bytes) else text.encode(),
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=DEADLINE, cwd=self.folder,
            check=False)

    def succeed(self, *arguments, text=b""):
        result = self.run_console(*arguments, text=text)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout.decode()

    def refused(self, *arguments, code=2, says=()):
        """The command prints nothing but one line that holds what it says."""
        result = self.run_console(*arguments)
        self.assertEqual((result.returncode, result.stdout), (code, b""), arguments)
        self.assert_diagnostic(result, *([says] if isinstance(says, str) else says))

    def assert_diagnostic(self, result, *parts):
        """Standard error is one line of the console that holds all `parts`."""
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("zelctl: "), lines)
        for part in parts:
            self.assertIn(part, lines[0])

    @contextlib.contextmanager
    def running(self, *arguments, **variables):
        """A running console with pipes; killed if the test leaves it behind."""
        with subprocess.Popen(
                [ZELCTL, *map(str, arguments)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=subprocess.PIPE, cwd=self.folder, env={**os.environ, **variables}) as console:
            # Turns a console that never answers into an end of its output.
            previous = signal.signal(signal.SIGALRM, lambda *_: console.kill())
            signal.alarm(DEADLINE)
            try:
                yield console
            finally:
                signal.alarm(0)
                signal.signal(signal.SIGALRM, previous)
                console.kill()

    def interactive(self, *options, **variables):
        return self.running("--data", self.data, *options, "-", **variables)
