"""Runs the console's subcommands for support against the built library.

Needs ZELCTL, the path of the console, and ZEL_ROOT, the project's folder.
"""

import contextlib
import json
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import unittest

import yaml

from console import DEADLINE, INIT, ZELCTL, ConsoleTest, mode_of

ROOT = pathlib.Path(os.environ["ZEL_ROOT"])
CODES = yaml.safe_load((ROOT / "docs/codes.yaml").read_text(encoding="ascii"))
PAGE_BYTES = 4096  # of the database


def flip(path, *offsets):
    content = bytearray(path.read_bytes())
    for offset in offsets:
        content[offset] ^= 1
    path.write_bytes(content)


def damage(database, *pages):
    flip(database, *((page - 1) * PAGE_BYTES + 100 for page in pages))


def other_digit(line, place):
    return line[:place] + ("1" if line[place] == "0" else "0") + line[place + 1:]


class DataTest(ConsoleTest):
    """Has the data directory of a client that has run once."""

    def setUp(self):
        super().setUp()
        self.temporary = self.folder / "tmp"
        self.temporary.mkdir()
        os.environ["TMPDIR"] = str(self.temporary)
        self.play_client()

    def play_client(self):
        """A run of the client; the result of its initialisation."""
        return json.loads(self.succeed("--data", self.data, "-", text=INIT))["result"]

    def tearDown(self):
        self.assertEqual(os.listdir(self.temporary), [], "copies are left behind")

    @contextlib.contextmanager
    def running_client(self):
        with self.interactive() as client:
            client.stdin.write(INIT.encode())
            client.stdin.flush()
            client.stdout.readline()
            yield client

    def content(self):
        """Every file below the data directory with its bytes and mode."""
        paths = [p for p in self.data.rglob("*") if p.is_file()]
        return {str(p.relative_to(self.data)): (p.read_bytes(), mode_of(p)) for p in paths}

    def cache(self, verb, *arguments, **more):
        return self.succeed("cache", verb, self.data, *arguments, **more)

    def listed(self, *options):
        entries = json.loads(self.cache("list", "--json", *options))["entries"]
        return {entry["key"]: entry for entry in entries if entry["key"] != "zel_track_state"}


class Catalogue(ConsoleTest):
    HEADERS = {
        "commonutil/publicInc/ResultCode.h": r"\b(k\w+) = (-?\d+)",
        "platform/include/zel_platform/zorm.h": r"\b(kZorm\w+) = (\d+)",
        "platform/login/login_ref.h": r"\b(k\w+) = (\d+)",
        "platform/nettools/nettools_ref.h": r"\b(k\w+) = (\d+)",
    }

    def test_every_code_of_the_headers_has_a_text_and_every_line_is_written(self):
        check = [sys.executable, "-B", ROOT / "scripts/codes.py", "--check"]
        result = subprocess.run(check, stderr=subprocess.PIPE, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        texts = {(entry["name"], entry["code"]) for entry in CODES["codes"]}
        for header, pattern in self.HEADERS.items():
            declared = re.findall(pattern, (ROOT / header).read_text(encoding="utf-8"))
            self.assertGreater(len(declared), 1, header)
            self.assertEqual({(n, int(code)) for n, code in declared} - texts, set(), header)
        sources = [p for part in ("commonutil", "platform") for p in (ROOT / part).rglob("*.cpp")]
        written = "\n".join(path.read_text(encoding="utf-8") for path in sources)
        for entry in CODES["codes"]:
            self.assertTrue(re.sub(r"-?\d+$", "", entry["log"]) in written, entry)

    def test_each_code_is_explained_with_cause_and_remedy(self):
        text = self.succeed("explain", "411000002")
        for part in ["411000002  kBadParameter\n", "\nmeaning  ", "\ncause    ", "\nremedy   "]:
            self.assertIn(part, text)
        self.assertEqual(self.succeed("explain", "kBadParameter"), text)
        self.assertLessEqual(max(map(len, self.succeed("explain", "1").splitlines())), 100)
        for code in {entry["code"] for entry in CODES["codes"]}:
            answer = json.loads(self.succeed("explain", code, "--json"))
            entries = [{k: v for k, v in e.items() if k != "code"}
                       for e in CODES["codes"] if e["code"] == code]
            self.assertEqual((answer["code"], answer["entries"]), (code, entries))
        # Global codes without a text are known with their family.
        for code, first, last in ((206030023, 200000000, 230999999), (118000000, 111000000, 118999999),
                                  (990000053, 910000000, 990999999)):
            self.assertIn(f"{first} to {last}", self.succeed("explain", code))
            answer = json.loads(self.succeed("explain", "--json", code))
            self.assertEqual(answer["family"], {"first": first, "last": last})
            self.assertEqual((answer["global"], answer["entries"]), (True, []))
        self.assertIn("stands alone", self.succeed("explain", "100000429"))
        for code in ["123", "415000004", "-5", "kNothing", "99999999999", "1x", ""]:
            self.refused("explain", code, code=1, says="is no code")


class Cache(DataTest):
    AWKWARD = "\u00e4 'quote\" \\\n\ttail"

    def test_entries_are_put_shown_and_deleted(self):
        self.assertEqual(self.listed(), {})
        self.cache("put", "a", "one")
        self.cache("put", "a", "three")
        self.cache("put", self.AWKWARD, "-", text=self.AWKWARD)
        size = len(self.AWKWARD.encode())
        shown = self.listed("--values")
        self.assertEqual([(k, e["bytes"], e["value"]) for k, e in shown.items()],
                         [("a", 5, "three"), (self.AWKWARD, size, self.AWKWARD)])
        self.assertEqual(json.loads(self.cache("get", "a", "--json", "--values")), shown["a"])
        self.assertEqual(self.cache("get", self.AWKWARD).count("\n"), 2)
        self.assertEqual(self.play_client(), 0)  # the client still opens what was written
        self.cache("delete", "a")
        self.assertEqual(list(self.listed()), [self.AWKWARD])
        for verb in ("get", "delete"):
            self.refused("cache", verb, self.data, "a", code=1, says='no entry "a"')

    def test_values_appear_only_where_they_are_asked_for(self):
        self.cache("put", "key", "the secret")
        export = self.folder / "export.json"
        self.cache("export", export)
        texts = [export.read_text()]
        texts += [self.cache(*c) for c in (["list"], ["list", "--json"], ["get", "key"],
                                           ["get", "key", "--json"])]
        for text in texts:
            self.assertIn("key", text)
            self.assertNotIn("secret", text)
        self.assertIn("the secret", self.cache("list", "--values"))
        self.refused("cache", "export", self.data, export, code=1, says="name a new file")
        export.unlink()
        self.cache("export", export, "--values")
        self.assertIn("the secret", export.read_text())
        self.assertEqual(mode_of(export), 0o600)

    def test_only_the_database_is_touched_and_only_to_write(self):
        before = self.content()
        for command in (["list"], ["get", "zel_track_state"], ["verify"]):
            self.cache(*command)
        self.assertEqual(self.content(), before)
        self.cache("put", "a", "1")
        after = self.content()
        self.assertNotIn("sdkcache.db-wal", after)
        others = [{k: v for k, v in files.items() if not k.startswith("sdkcache.db")}
                  for files in (before, after)]
        self.assertEqual(*others)

    def test_rows_that_are_only_in_the_log_of_a_killed_client_are_seen(self):
        self.cache("put", "a", "settled")
        before = (self.data / "sdkcache.db").read_bytes()
        self.play_client()  # which never closes its database
        log = self.data / "sdkcache.db-wal"
        self.assertEqual(mode_of(log), 0o640)
        self.assertGreater(log.stat().st_size, 0)
        self.assertEqual((self.data / "sdkcache.db").read_bytes(), before)
        left = self.content()
        self.assertEqual(json.loads(self.cache("verify", "--json")),
                         {"sound": True, "entries": 2, "damagedPages": [], "remarks": []})
        self.assertEqual(set(self.listed()), {"a"})
        self.assertEqual(self.succeed("doctor", self.data), "nothing found\n")
        self.assertEqual(self.content(), left)

    def test_a_running_client_keeps_the_tools_out(self):
        with self.running_client() as client:
            for command in (["cache", "list"], ["cache", "put", "a", "b"], ["cache", "delete", "a"],
                            ["cache", "verify"], ["doctor"], ["doctor", "--repair"]):
                words = 2 if command[0] == "cache" else 1
                self.refused(*command[:words], self.data, *command[words:], code=1,
                             says=f"process {client.pid}")
        self.assertEqual(self.listed(), {})

    def test_a_damaged_database_is_reported_and_never_replaced(self):
        for i in range(4):
            self.cache("put", f"key {i}", "x" * 2000)
        database = self.data / "sdkcache.db"
        self.assertTrue(json.loads(self.cache("verify", "--json"))["sound"])
        damage(database, 5)
        result = self.run_console("cache", "verify", self.data, "--json")
        self.assertEqual((result.returncode, json.loads(result.stdout)["damagedPages"]), (1, [5]))
        text = self.run_console("doctor", self.data).stdout.decode()
        self.assertIn("sdkcache.db: damaged page 5 (bytes 16384 to 20479)", text)
        self.assertTrue(text.endswith("\n1 problem\n"), text)
        damage(database, 1)
        before = self.content()
        for command in (["put", "a", "b"], ["get", "a"], ["list"]):
            self.refused("cache", command[0], self.data, *command[1:], code=1, says="zelctl doctor")
        self.assertEqual(self.content(), before)

    def test_wrong_usage_is_one_line(self):
        for usage in (["cache"], ["cache", "list"], ["cache", "list", "nowhere"], ["cache", "turn"],
                      ["cache", "get", self.data], ["cache", "get", self.data, ""],
                      ["cache", "put", self.data, "key"], ["cache", "put", self.data, "a", "b", "--json"],
                      ["doctor"], ["doctor", "nowhere"], ["doctor", self.data, self.data],
                      ["doctor", self.data, "--mend"], ["explain"], ["explain", "1", "2"],
                      ["explain", "1", "--xml"]):
            self.refused(*usage)


class Doctor(DataTest):
    KEYS = [f"key {i}" for i in range(8)]

    @classmethod
    def setUpClass(cls):
        cls.kept = tempfile.TemporaryDirectory(prefix="support_tools_test.")
        cls.addClassCleanup(cls.kept.cleanup)
        cls.original = pathlib.Path(cls.kept.name) / "original"

    def setUp(self):
        super().setUp()
        if self.original.exists():
            self.restore()
        else:
            for key in self.KEYS:
                self.cache("put", key, "-", text=b"x" * 2000)
            shutil.copytree(self.data, self.original)
        self.database = self.data / "sdkcache.db"
        self.salt = self.data / "sdkcache_config.db"
        self.store = self.data / "zorm/zormStore.dat"
        self.twin = self.data / "zorm/zormStore_bak.dat"

    def diagnose(self, *options):
        result = self.run_console("doctor", self.data, "--json", *options)
        self.assertEqual(result.stderr, b"")
        answer = json.loads(result.stdout)
        self.assertEqual(result.returncode, 1 if answer["findings"] else 0)
        for finding in answer["findings"]:
            for part in ("problem", "cause", "remedy"):
                self.assertGreater(len(finding[part]), 10, finding)
        return answer

    def ids(self, *options):
        return sorted(finding["id"] for finding in self.diagnose(*options)["findings"])

    def restore(self):
        shutil.rmtree(self.data)
        shutil.copytree(self.original, self.data)

    def plain_database(self, *statements):
        self.database.unlink()
        with contextlib.closing(sqlite3.connect(self.database)) as database:
            for statement in statements:
                database.execute(statement)
            database.commit()
        self.database.chmod(0o640)

    def test_each_damage_is_found_backed_up_and_repaired_for_the_client(self):
        table = ("CREATE TABLE ConfigCacheTab(AUTOID INTEGER PRIMARY KEY AUTOINCREMENT,"
                 " KEY VARCHAR(256) NOT NULL, VALUE VARCHAR(512))")
        index = "CREATE UNIQUE INDEX CONFIGCACHE_UNIQUE_INDEX ON ConfigCacheTab(KEY)"
        row = "INSERT INTO ConfigCacheTab(KEY, VALUE) VALUES('old', '%s')"
        line = self.salt.read_text()
        before = self.content()
        for options in ([], ["--repair"]):  # of a sound directory
            self.assertEqual(self.succeed("doctor", self.data, *options), "nothing found\n")
        self.assertEqual(self.content(), before)
        every, none = set(self.KEYS), set()
        foreign = self.folder / "foreign"
        self.succeed("--data", foreign / "data", "-", text=INIT)
        cases = {  # what is done to the directory, what is found, which entries survive
            "file of the key store missing": (self.store.unlink, ["key-store-file-missing"], every),
            "file of the key store damaged": (
                lambda: flip(self.twin, 20), ["key-store-file-damaged"], every),
            "key store missing": (
                lambda: shutil.rmtree(self.data / "zorm"), ["key-store-missing"], none),
            "key store damaged": (lambda: (flip(self.store, 20), self.twin.unlink()),
                ["key-store-damaged"], none),
            "salt line missing": (self.salt.unlink, ["salt-missing"], none),
            "salt line empty": (lambda: self.salt.write_text(""), ["salt-missing"], none),
            "salt line without bar": (
                lambda: self.salt.write_text(line.replace("|", "")), ["salt-malformed"], none),
            "salt line with other letters": (
                lambda: self.salt.write_text("xyz" + line[3:]), ["salt-malformed"], none),
            "salt line of another key store": (
                lambda: self.salt.write_text(other_digit(line, 60)), ["salt-undecryptable"], none),
            "salt line edited": (
                lambda: self.salt.write_text(line + "\n"), ["salt-line-break"], every),
            "other salt": (lambda: flip(self.salt, len(line) - 1), ["database-unreadable"], none),
            "first page": (lambda: damage(self.database, 1), ["database-unreadable"], none),
            "page of the index": (
                lambda: damage(self.database, 4), ["database-page-damaged"], every),
            "pages of the table": (lambda: damage(self.database, 6, 8),
                ["database-page-damaged"], None),
            "end cut off": (
                lambda: os.truncate(self.database, self.database.stat().st_size - PAGE_BYTES),
                ["database-cut-off"], None),
            "unencrypted": (lambda: self.plain_database(table, index, row % "new"),
                ["database-older-format"], {"old"}),
            "without index": (lambda: self.plain_database(table, row % "older", row % "new"),
                ["database-index-missing", "database-older-format"], {"old"}),
            "without table": (lambda: self.plain_database("CREATE TABLE Other(A)"),
                ["database-older-format", "database-table-missing"], none),
            "without a column": (
                lambda: self.plain_database(table.replace(", VALUE VARCHAR(512)", ""), index),
                ["database-older-format", "database-older-format"], none),
            "log of another database": (
                lambda: [shutil.copy(f, self.data) for f in foreign.glob("data/sdkcache.db-*")],
                ["log-foreign"], every),
            "damaged, with a log": (
                lambda: (self.play_client(), damage(self.database, 6, 8),
                         (self.data / "sdkcache.db-wal").chmod(0o666)),
                ["database-page-damaged", "mode-too-open"], None),
            "modes": (
                lambda: (self.store.chmod(0o644), self.database.chmod(0o666),
                         self.data.chmod(0o777)), ["mode-too-open"] * 3, every),
        }
        for name, (harm, expected, survivors) in cases.items():
            with self.subTest(name):
                self.restore()
                harm()
                harmed = self.content()
                self.assertEqual(self.ids(), expected)
                self.assertEqual(self.content(), harmed)
                answer = self.diagnose("--repair")
                self.assertEqual([f["repaired"] for f in answer["findings"]], [True] * len(expected))
                self.check_backup(pathlib.Path(answer["backup"]), harmed)
                self.assertEqual(self.play_client(), 0)
                self.assertEqual(self.ids(), [])
                left = self.listed("--values")
                if survivors is None:  # two entries a page
                    self.assertLessEqual(set(left), every)
                    self.assertGreaterEqual(len(left), len(every) - 4)
                else:
                    self.assertEqual(set(left), survivors)
                if survivors == {"old"}:
                    self.assertEqual(left["old"]["value"], "new")

    def check_backup(self, backup, harmed):
        """What the repair changed or removed is in the backup as it was, with its mode."""
        after = self.content()
        self.assertEqual(mode_of(backup), 0o700)
        modes = dict(reversed(l.split()) for l in (backup / "modes").read_text().splitlines())
        for name, (content, mode) in harmed.items():
            if after.get(name) != (content, mode):
                self.assertEqual((backup / name).read_bytes(), content)
                self.assertEqual(int(modes[name], 8), mode)

    def test_what_no_program_can_mend_is_said(self):
        shutil.rmtree(self.data)
        self.data.mkdir(mode=0o750)
        missing = ["database-missing", "key-store-missing", "salt-missing"]
        self.assertEqual(self.ids(), missing)
        self.assertEqual(self.ids("--repair"), missing)
        self.assertEqual(os.listdir(self.data), [])
        self.restore()
        self.database.unlink()
        self.database.mkdir()
        self.assertEqual(self.ids("--repair"), ["database-unusable", "mode-too-open"])
        self.assertTrue(self.database.is_dir())

    def test_a_full_disk_is_found_and_stops_the_repair_before_it_begins(self):
        script = ('mount -t tmpfs -o size=60k,mode=750 none "$1" && cp -a "$2"/zorm "$1" && '
                  'cp "$2"/sdkcache_config.db "$1" && rm "$1"/zorm/zormStore.dat && '
                  'chmod 666 "$1"/zorm/zormStore_bak.dat && (cat /dev/zero >"$1"/fill; :) 2>&- && '
                  '"$3" doctor "$1" --json && exit 9; "$3" doctor "$1" --repair && exit 9; '
                  'stat -c %a "$1"/zorm/zormStore_bak.dat')
        place = self.folder / "small"
        place.mkdir()
        if subprocess.run(["unshare", "-Urm", "true"], stderr=subprocess.DEVNULL).returncode:
            self.skipTest("no mounts of one's own are allowed here")
        command = ["unshare", "-Urm", "sh", "-c", script, "sh", place, self.data, ZELCTL]
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                timeout=DEADLINE, check=False)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn('"disk-full"', result.stdout.decode())
        self.assertIn("nothing was changed", result.stderr.decode())
        self.assertEqual(result.stdout.decode().splitlines()[-1], "666")


if __name__ == "__main__":
    unittest.main()
