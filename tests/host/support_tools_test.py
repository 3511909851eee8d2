"""Runs the console's subcommands for support against the built library.

Needs ZELCTL, the path of the console, and ZEL_ROOT, the project's folder.
"""

import contextlib
import json
import os
import pathlib
import re
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

import yaml

ZELCTL = os.environ["ZELCTL"]
ROOT = pathlib.Path(os.environ["ZEL_ROOT"])
CODES = yaml.safe_load((ROOT / "docs/codes.yaml").read_text(encoding="ascii"))
PAGE_BYTES = 4096  # of the database
DEADLINE = 120  # seconds; only a hang takes that long


def mode_of(path):
    return stat.S_IMODE(path.stat().st_mode)


def damage(database, page):
    content = bytearray(database.read_bytes())
    content[(page - 1) * PAGE_BYTES + 100] ^= 1
    database.write_bytes(content)


class SupportTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="support_tools_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name).resolve()

    def run_console(self, *arguments, text=b""):
        return subprocess.run(
            [ZELCTL, *map(str, arguments)],
            input=text,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=DEADLINE,
            cwd=self.folder,
            check=False,
        )

    def succeed(self, *arguments, text=b""):
        result = self.run_console(*arguments, text=text)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout.decode()

    def fail_with(self, code, *arguments, says=""):
        """The command prints nothing but one line that holds `says`."""
        result = self.run_console(*arguments)
        self.assertEqual((result.returncode, result.stdout), (code, b""), arguments)
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("zelctl: "), lines)
        self.assertIn(says, lines[0])


class DataTest(SupportTest):
    """Has the data directory of a client that has run once."""

    INIT = (
        '{"cmd": 1, "sno": 1, "param": {"initParam": {"log_path": "${DATA}/log/", "logLevel": 2,'
        ' "logSize": 512, "fileCount": 1, "dbPath": "${DATA}/"}}}\n'
    )

    def setUp(self):
        super().setUp()
        self.data = self.folder / "data"
        self.temporary = self.folder / "tmp"
        self.temporary.mkdir()
        os.environ["TMPDIR"] = str(self.temporary)
        self.play_client()

    def play_client(self):
        """A run of the client; the result of its initialisation."""
        reply = self.succeed("--data", self.data, "-", text=self.INIT.encode())
        return json.loads(reply)["result"]

    def tearDown(self):
        self.assertEqual(os.listdir(self.temporary), [], "copies are left behind")

    @contextlib.contextmanager
    def running_client(self):
        with subprocess.Popen(
            [ZELCTL, "--data", str(self.data), "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        ) as client:
            previous = signal.signal(signal.SIGALRM, lambda *_: client.kill())
            signal.alarm(DEADLINE)
            try:
                client.stdin.write(self.INIT.encode())
                client.stdin.flush()
                client.stdout.readline()
                yield client
            finally:
                signal.alarm(0)
                signal.signal(signal.SIGALRM, previous)
                client.kill()

    def content(self, folder=None):
        """Every file below the data directory with its bytes and mode."""
        paths = [p for p in (folder or self.data).rglob("*") if p.is_file()]
        return {str(p.relative_to(self.data)): (p.read_bytes(), mode_of(p)) for p in paths}

    def listed(self, *options):
        entries = json.loads(self.succeed("cache", "list", self.data, "--json", *options))["entries"]
        return {entry["key"]: entry for entry in entries if entry["key"] != "zel_track_state"}


class Catalogue(unittest.TestCase):
    HEADERS = {
        "commonutil/publicInc/ResultCode.h": r"\b(k\w+) = (-?\d+)",
        "platform/include/zel_platform/zorm.h": r"\b(kZorm\w+) = (\d+)",
        "platform/login/login_ref.h": r"\b(k\w+) = (\d+)",
        "platform/nettools/nettools_ref.h": r"\b(k\w+) = (\d+)",
    }

    def test_page_and_table_are_fresh(self):
        check = [sys.executable, "-B", ROOT / "scripts/codes.py", "--check"]
        result = subprocess.run(check, stderr=subprocess.PIPE, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, b""))

    def test_every_code_of_the_headers_has_a_text(self):
        texts = {(entry["name"], entry["code"]) for entry in CODES["codes"]}
        for header, pattern in self.HEADERS.items():
            declared = re.findall(pattern, (ROOT / header).read_text(encoding="utf-8"))
            self.assertGreater(len(declared), 1, header)
            for name, code in declared:
                self.assertIn((name, int(code)), texts, header)

    def test_the_lines_to_look_for_are_lines_that_are_written(self):
        sources = [p for part in ("commonutil", "platform") for p in (ROOT / part).rglob("*.cpp")]
        written = "\n".join(path.read_text(encoding="utf-8") for path in sources)
        for entry in CODES["codes"]:
            self.assertTrue(re.sub(r"-?\d+$", "", entry["log"]) in written, entry)


class Explain(SupportTest):
    def test_a_code_is_explained_with_cause_and_remedy(self):
        text = self.succeed("explain", "411000002")
        for part in ["411000002  kBadParameter\n", "\nmeaning  ", "\ncause    ", "\nremedy   "]:
            self.assertIn(part, text)
        self.assertEqual(self.succeed("explain", "kBadParameter"), text)
        self.assertLessEqual(max(map(len, self.succeed("explain", "1").splitlines())), 100)

    def test_json_holds_every_entry_of_the_catalogue(self):
        for code in {entry["code"] for entry in CODES["codes"]}:
            answer = json.loads(self.succeed("explain", code, "--json"))
            entries = [dict(e) for e in CODES["codes"] if e["code"] == code]
            for entry in entries:
                del entry["code"]
            self.assertEqual((answer["code"], answer["entries"]), (code, entries))

    def test_global_codes_without_a_text_are_known_with_their_family(self):
        families = {206030023: (200000000, 230999999), 118000000: (111000000, 118999999),
                    990000053: (910000000, 990999999)}
        for code, (first, last) in families.items():
            self.assertIn(f"{first} to {last}", self.succeed("explain", code))
            answer = json.loads(self.succeed("explain", "--json", code))
            self.assertEqual(answer["family"], {"first": first, "last": last})
            self.assertEqual((answer["global"], answer["entries"]), (True, []))
        self.assertIn("stands alone", self.succeed("explain", "100000429"))

    def test_unknown_codes_and_wrong_usage_are_one_line(self):
        for code in ["123", "415000004", "-5", "kNothing", "99999999999", "1x", ""]:
            self.fail_with(1, "explain", code, says="is no code")
        self.fail_with(2, "explain", says="explain needs one CODE")
        self.fail_with(2, "explain", "1", "2", says="explain needs one CODE")
        self.fail_with(2, "explain", "1", "--xml", says="unknown option")


class Cache(DataTest):
    AWKWARD = "\u00e4 'quote\" \\\n\ttail"

    def test_entries_are_put_shown_and_deleted(self):
        self.assertEqual(self.listed(), {})
        self.succeed("cache", "put", self.data, "a", "one")
        self.succeed("cache", "put", self.data, "a", "three")
        self.succeed("cache", "put", self.data, self.AWKWARD, "-", text=self.AWKWARD.encode())
        size = len(self.AWKWARD.encode())
        shown = self.listed("--values")
        self.assertEqual([(k, e["bytes"], e["value"]) for k, e in shown.items()],
                         [("a", 5, "three"), (self.AWKWARD, size, self.AWKWARD)])
        entry = json.loads(self.succeed("cache", "get", self.data, "a", "--json", "--values"))
        self.assertEqual(entry, shown["a"])
        self.assertEqual(self.succeed("cache", "get", self.data, self.AWKWARD).count("\n"), 2)
        self.assertEqual(self.play_client(), 0)  # the client still opens what was written
        self.succeed("cache", "delete", self.data, "a")
        self.assertEqual(list(self.listed()), [self.AWKWARD])
        for verb in ("get", "delete"):
            self.fail_with(1, "cache", verb, self.data, "a", says='no entry "a"')

    def test_values_appear_only_where_they_are_asked_for(self):
        self.succeed("cache", "put", self.data, "key", "the secret")
        export = self.folder / "export.json"
        self.succeed("cache", "export", self.data, export)
        texts = [export.read_text()]
        for command in (["list"], ["list", "--json"], ["get", "key"], ["get", "key", "--json"]):
            texts.append(self.succeed("cache", command[0], self.data, *command[1:]))
        for text in texts:
            self.assertIn("key", text)
            self.assertNotIn("secret", text)
        self.assertIn("the secret", self.succeed("cache", "list", self.data, "--values"))
        self.fail_with(1, "cache", "export", self.data, export, says="name a new file")
        export.unlink()
        self.succeed("cache", "export", self.data, export, "--values")
        self.assertIn("the secret", export.read_text())
        self.assertEqual(mode_of(export), 0o600)

    def test_only_the_database_is_touched_and_only_to_write(self):
        before = self.content()
        for command in (["list"], ["get", "zel_track_state"], ["verify"]):
            self.succeed("cache", command[0], self.data, *command[1:])
        self.assertEqual(self.content(), before)
        self.succeed("cache", "put", self.data, "a", "1")
        after = self.content()
        del before["sdkcache.db"], after["sdkcache.db"]
        self.assertEqual({k: v for k, v in after.items() if not k.startswith("sdkcache.db-")}, before)

    def test_a_running_client_keeps_the_tools_out(self):
        with self.running_client() as client:
            for command in (["list"], ["put", "a", "b"], ["delete", "a"], ["verify"]):
                self.fail_with(1, "cache", command[0], self.data, *command[1:],
                               says=f"in use by process {client.pid}")
        self.assertEqual(self.listed(), {})

    def test_a_damaged_database_is_reported_and_never_replaced(self):
        for i in range(4):
            self.succeed("cache", "put", self.data, f"key {i}", "x" * 2000)
        database = self.data / "sdkcache.db"
        self.assertTrue(json.loads(self.succeed("cache", "verify", self.data, "--json"))["sound"])
        damage(database, page=5)
        result = self.run_console("cache", "verify", self.data, "--json")
        self.assertEqual((result.returncode, json.loads(result.stdout)["damagedPages"]), (1, [5]))
        damage(database, page=1)
        before = self.content()
        for command in (["put", "a", "b"], ["get", "a"], ["list"]):
            self.fail_with(1, "cache", command[0], self.data, *command[1:], says="zelctl doctor")
        self.assertEqual(self.content(), before)

    def test_wrong_usage_is_one_line(self):
        usages = [["cache"], ["cache", "list"], ["cache", "list", "nowhere"], ["cache", "turn"],
                  ["cache", "get", self.data], ["cache", "get", self.data, ""],
                  ["cache", "put", self.data, "key"], ["cache", "put", self.data, "a", "b", "--json"]]
        for usage in usages:
            self.fail_with(2, *usage)


if __name__ == "__main__":
    unittest.main()
