"""What the tests that run the console share. Needs ZELCTL, the path of the console."""

import contextlib
import json
import os
import pathlib
import stat
import subprocess
import tempfile
import threading
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
ZELCTL = os.environ["ZELCTL"]
DEADLINE = 120  # seconds; only a hang takes that long
INIT = (
    '{"cmd": 1, "sno": 1, "param": {"initParam": {"log_path": "${DATA}/log/", "logLevel": 2,'
    ' "logSize": 512, "fileCount": 1, "dbPath": "${DATA}/"}}}\n'
)


def mode_of(path):
    return stat.S_IMODE(path.stat().st_mode)


def json_lines(text):
    return [json.loads(line) for line in text.splitlines()]


class ConsoleTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="console_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name).resolve()
        self.data = self.folder / "data"
        for name in ("NO_COLOR", "XDG_STATE_HOME", "ZEL_PROXY_PASSWORD"):
            os.environ.pop(name, None)
        os.environ.update(HOME=folder.name, TERM="xterm", LC_ALL="C.UTF-8")

    def run_console(self, *arguments, text="", **variables):
        return subprocess.run(
            [ZELCTL, *map(str, arguments)], input=text, capture_output=True, timeout=DEADLINE,
            cwd=self.folder, env={**os.environ, **variables}, check=False, encoding="utf-8",
            errors="surrogateescape")

    def succeed(self, *arguments, **more):
        result = self.run_console(*arguments, **more)
        self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
        return result.stdout

    def refused(self, *arguments, code=2, says=""):
        """The command prints nothing but one line that matches what it says."""
        result = self.run_console(*arguments)
        self.assertEqual((result.returncode, result.stdout), (code, ""), arguments)
        self.assert_complaint(result, says)

    def assert_complaint(self, result, says):
        self.assertRegex(result.stderr, rf"\Azelctl: .*{says}.*\n\Z")

    @contextlib.contextmanager
    def running(self, *arguments, **variables):
        """A running console with pipes; killed if it hangs or the test leaves it behind."""
        with subprocess.Popen(
                [ZELCTL, *map(str, arguments)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=subprocess.PIPE, cwd=self.folder, env={**os.environ, **variables},
                encoding="utf-8", bufsize=1) as console:
            watchdog = threading.Timer(DEADLINE, console.kill)
            watchdog.start()
            try:
                yield console
            finally:
                watchdog.cancel()
                console.kill()

    def interactive(self, *options, **variables):
        return self.running("--data", self.data, *options, "-", **variables)

    def ask(self, console, request):
        """The next message after one more line."""
        console.stdin.write(request.strip() + "\n")
        return json.loads(console.stdout.readline())
