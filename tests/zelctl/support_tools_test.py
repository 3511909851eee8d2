"""Runs the console's subcommands for support against the built library."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import sqlite3
import subprocess
import unittest

import yaml

from console import DEADLINE, INIT, ROOT, ZELCTL, ConsoleTest, mode_of

CODES = yaml.safe_load((ROOT / "docs/codes.yaml").read_text(encoding="ascii"))["codes"]
PAGE_BYTES = 4096  # of the database


def flip(path, *offsets):
    content = bytearray(path.read_bytes())
    for offset in offsets:
        content[offset] ^= 1
    path.write_bytes(content)


def damage(database, *pages):
    flip(database, *((page - 1) * PAGE_BYTES + 100 for page in pages))


class DataTest(ConsoleTest):
    """Has the data directory of a client that has run once."""

    def setUp(self):
        super().setUp()
        self.temporary = self.folder / "tmp"
        self.temporary.mkdir()
        os.environ["TMPDIR"] = str(self.temporary)
        self.database = self.data / "sdkcache.db"
        self.play_client()

    def tearDown(self):
        self.assertEqual(os.listdir(self.temporary), [], "copies are left behind")

    def play_client(self, data=None):
        """A run of the client, whose initialisation goes well."""
        reply = self.succeed("--data", data or self.data, "-", text=INIT)
        self.assertEqual(json.loads(reply)["result"], 0)

    @contextlib.contextmanager
    def running_client(self):
        with self.interactive() as client:
            self.ask(client, INIT)
            yield client

    def content(self):
        """Every file below the data directory with its bytes and mode."""
        paths = [p for p in self.data.rglob("*") if p.is_file()]
        return {str(p.relative_to(self.data)): (p.read_bytes(), mode_of(p)) for p in paths}

    def cache(self, verb, *arguments, **more):
        return self.succeed("cache", verb, self.data, *arguments, **more)

    def values(self):
        """Of all entries but tracking's own."""
        entries = json.loads(self.cache("list", "--json", "--values"))["entries"]
        return {e["key"]: e["value"] for e in entries if e["key"] != "zel_track_state"}


class Catalogue(ConsoleTest):
    HEADERS = ("commonutil/publicInc/ResultCode.h", "platform/include/zel_platform/zorm.h",
               "platform/login/login_ref.h", "platform/nettools/nettools_ref.h")

    def test_every_code_of_the_headers_has_a_text_and_every_line_is_written(self):
        texts = {(entry["name"], entry["code"]) for entry in CODES}
        for header in self.HEADERS:
            text = (ROOT / header).read_text(encoding="utf-8")
            declared = re.findall(r"\b(k\w+) = (-?\d+)", text)
            self.assertGreater(len(declared), 1, header)
            self.assertLessEqual({(name, int(code)) for name, code in declared}, texts)
        sources = [*ROOT.glob("commonutil/**/*.cpp"), *ROOT.glob("platform/**/*.cpp")]
        written = "\n".join(path.read_text(encoding="utf-8") for path in sources)
        for entry in CODES:
            self.assertTrue(re.sub(r"-?\d+$", "", entry["log"]) in written, entry)

    def test_each_code_is_explained_with_cause_and_remedy(self):
        self.assertRegex(
            self.succeed("explain", "kbadparameter"),
            r"(?s)^411000002  kBadParameter\n.*\nmeaning  .*\ncause    .*\nremedy   ")
        for code in {entry["code"] for entry in CODES}:
            answer = json.loads(self.succeed("explain", code, "--json"))
            self.assertEqual([{"code": code, **entry} for entry in answer["entries"]],
                             [entry for entry in CODES if entry["code"] == code])
        # Global codes without a text are known with their family.
        text = self.succeed("explain", "206030023")
        self.assertIn("200000000 to 230999999", text)
        self.assertLessEqual(max(map(len, text.splitlines())), 80)
        answer = json.loads(self.succeed("explain", "--json", "118000000"))
        self.assertEqual(answer["family"], {"first": 111000000, "last": 118999999})
        self.assertEqual((answer["global"], answer["entries"]), (True, []))
        self.assertIn("stands alone", self.succeed("explain", "100000429"))
        for code in ["123", "415000004", "-5", "kNothing", "99999999999", "1x", ""]:
            self.refused("explain", code, code=1, says="is no code")


class Cache(DataTest):
    AWKWARD = "\u00e4 'quote\" \\\n\ttail"

    def test_entries_are_put_shown_and_deleted(self):
        for key, value in ("a", "one"), ("a", "three"), (self.AWKWARD, self.AWKWARD):
            self.cache("put", key, "-", text=value)
        self.assertEqual(self.values(), {"a": "three", self.AWKWARD: self.AWKWARD})
        shown = json.loads(self.cache("get", "a", "--json", "--values"))
        self.assertEqual((shown["bytes"], shown["value"]), (5, "three"))
        self.play_client()  # which still opens what was written
        before = self.content()
        self.cache("delete", "a")
        changed = {name for name, _ in before.items() ^ self.content().items()}
        self.assertEqual(changed, {"sdkcache.db", "sdkcache.db-shm", "sdkcache.db-wal"})
        self.assertEqual(list(self.values()), [self.AWKWARD])
        for verb in ("get", "delete"):
            self.refused("cache", verb, self.data, "a", code=1, says='no entry "a"')

    def test_values_appear_only_where_they_are_asked_for(self):
        self.cache("put", "key", "the secret")
        export = self.folder / "export.json"
        for options, isShown in ([], False), (["--values"], True):
            export.unlink(missing_ok=True)
            self.cache("export", export, *options)
            for text in (self.cache("list", *options), self.cache("list", "--json", *options),
                         self.cache("get", "key", *options), export.read_text()):
                self.assertEqual(("key" in text, "secret" in text), (True, isShown), text)
        self.assertEqual(mode_of(export), 0o600)
        self.refused("cache", "export", self.data, export, code=1, says="name a new file")

    def test_rows_that_are_only_in_the_log_of_a_killed_client_are_seen(self):
        self.cache("put", "a", "settled")
        before = self.database.read_bytes()
        self.play_client()  # which never closes its database
        self.assertGreater((self.data / "sdkcache.db-wal").stat().st_size, 0)
        self.assertEqual(self.database.read_bytes(), before)
        left = self.content()
        self.assertEqual(left["sdkcache.db-wal"][1], 0o640)
        self.cache("get", "a")
        self.assertEqual(json.loads(self.cache("verify", "--json")),
                         {"sound": True, "entries": 2, "damagedPages": [], "remarks": []})
        self.assertEqual(self.values(), {"a": "settled"})
        self.assertEqual(self.succeed("doctor", self.data), "nothing found\n")
        self.assertEqual(self.content(), left)

    def test_a_running_client_keeps_the_tools_out(self):
        with self.running_client() as client:
            for command in "cache list", "doctor", "doctor --repair":
                self.refused(*command.split(), self.data, code=1, says=f"process {client.pid}")
            self.refused("cache", "put", self.data, "a", "b", code=1, says=f"process {client.pid}")
        self.assertEqual(self.values(), {})

    def test_a_damaged_database_is_reported_and_never_replaced(self):
        for i in range(4):
            self.cache("put", f"key {i}", "x" * 2000)
        damage(self.database, 5)
        result = self.run_console("cache", "verify", self.data, "--json")
        self.assertEqual((result.returncode, json.loads(result.stdout)["damagedPages"]), (1, [5]))
        text = self.run_console("doctor", self.data).stdout
        self.assertIn("sdkcache.db: damaged page 5 (bytes 16384 to 20479)", text)
        self.assertIn("\n1 problem; --repair mends 1, after copies are made\n", text)
        damage(self.database, 1)
        before = self.content()
        for verb, *words in (["put", "a", "b"], ["get", "a"], ["list"]):
            self.refused("cache", verb, self.data, *words, code=1, says="zelctl doctor")
        self.assertEqual(self.content(), before)


class Doctor(DataTest):
    def diagnose(self, *options):
        """The answer, whose findings all tell more than their name, and their names."""
        result = self.run_console("doctor", self.data, "--json", *options)
        answer = json.loads(result.stdout)
        findings = answer["findings"]
        self.assertEqual((result.returncode, result.stderr), (1 if findings else 0, ""))
        for finding in findings:
            for part in ("problem", "cause", "remedy"):
                self.assertGreater(len(finding[part]), 10, finding)
        return answer, sorted(finding["id"] for finding in findings)

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
        every, none = {f"key {i}": "x" * 2000 for i in range(8)}, {}
        for key, value in every.items():
            self.cache("put", key, value)
        original, foreign = self.folder / "original", self.folder / "foreign"
        shutil.copytree(self.data, original)
        self.play_client(foreign)
        database, store = self.database, self.data / "zorm/zormStore.dat"
        twin, salt = self.data / "zorm/zormStore_bak.dat", self.data / "sdkcache_config.db"
        line = salt.read_text()
        other = "1" if line[60] == "0" else "0"
        cases = (  # what is done to the directory, what is found, which entries survive
            (lambda: None, "", every),
            (store.unlink, "key-store-file-missing", every),
            (lambda: flip(twin, 20), "key-store-file-damaged", every),
            (lambda: shutil.rmtree(store.parent), "key-store-missing", none),
            (lambda: (flip(store, 20), twin.unlink()), "key-store-damaged", none),
            (salt.unlink, "salt-missing", none),
            (lambda: salt.write_text(""), "salt-missing", none),
            (lambda: salt.write_text(line.replace("|", "")), "salt-malformed", none),
            (lambda: salt.write_text("xyz" + line[3:]), "salt-malformed", none),
            (lambda: salt.write_text(line[:60] + other + line[61:]), "salt-undecryptable", none),
            # The log of a killed client lies beside it, and is no more foreign than the database.
            (lambda: (self.play_client(), salt.write_text(salt.read_text() + "\n")),
             "salt-line-break", every),
            (lambda: flip(salt, len(line) - 1), "database-unreadable", none),
            (lambda: damage(database, 1), "database-unreadable", none),
            (lambda: damage(database, 4), "database-page-damaged", every),  # of the index
            (lambda: damage(database, 6, 8), "database-page-damaged", None),
            (lambda: os.truncate(database, database.stat().st_size - PAGE_BYTES),
             "database-cut-off", None),
            (lambda: self.plain_database(table, index, row % "new"), "database-older-format",
             {"old": "new"}),
            (lambda: self.plain_database(table, row % "older", row % "new"),
             "database-index-missing database-older-format", {"old": "new"}),
            (lambda: self.plain_database("CREATE TABLE Other(A)"),
             "database-older-format database-table-missing", none),
            (lambda: self.plain_database(table.replace(", VALUE VARCHAR(512)", ""), index),
             "database-older-format database-older-format", none),
            (lambda: [shutil.copy(f, self.data) for f in foreign.glob("sdkcache.db-*")],
             "log-foreign", every),
            (lambda: (self.play_client(), damage(database, 6, 8),
                      (self.data / "sdkcache.db-wal").chmod(0o666)),
             "database-page-damaged mode-too-open", None),
            (lambda: (store.chmod(0o644), database.chmod(0o466), self.data.chmod(0o777)),
             "mode-too-open mode-too-open mode-too-open", every),
            (lambda: (store.chmod(0o400), database.chmod(0o440)),
             "mode-too-closed mode-too-closed", every),
        )
        for number, (harm, expected, survivors) in enumerate(cases):
            with self.subTest(number=number, expected=expected):
                shutil.rmtree(self.data)
                shutil.copytree(original, self.data)
                harm()
                harmed = self.content()
                self.assertEqual(self.diagnose()[1], expected.split())
                self.assertEqual(self.content(), harmed)
                answer, _ = self.diagnose("--repair")
                self.assertTrue(all(f["repaired"] for f in answer["findings"]))
                self.check_backup(pathlib.Path(answer["backup"]), harmed)
                self.play_client()
                self.assertEqual(self.diagnose()[1], [])
                left = self.values()
                if survivors is None:  # two entries a page are lost
                    self.assertGreaterEqual(len(left), len(every) - 4)
                    survivors = {key: every[key] for key in left}
                self.assertEqual(left, survivors)

    def check_backup(self, backup, harmed):
        """What the repair changed or removed is in the backup as it was, with its mode."""
        changed = dict(harmed.items() - self.content().items())
        lines = (backup / "modes").read_text().splitlines() if changed else []
        modes = {name: int(mode, 8) for mode, name in map(str.split, lines)}
        for name, (content, mode) in changed.items():
            self.assertEqual(((backup / name).read_bytes(), modes[name]), (content, mode))
            self.assertEqual(mode_of(backup), 0o700)

    @unittest.skipIf(os.geteuid(), "only root can give a file away")
    def test_a_repair_by_root_leaves_everything_to_the_clients_user(self):
        store, twin = (self.data / f"zorm/zormStore{n}.dat" for n in ("", "_bak"))
        for owner, differs in (65534, ["owner-differs"]), (0, []):  # of the directory
            for path in self.data, *self.data.rglob("*"):
                os.chown(path, 65534, 65534)
            os.chown(self.data, owner, owner)
            if differs:
                os.chown(store, 0, 0)
            twin.unlink()
            with (self.data / "sdkcache_config.db").open("a") as salt:
                salt.write("\n")
            for option in "--json", "--repair":
                answer, found = self.diagnose(option)
                self.assertEqual(found, ["key-store-file-missing", *differs, "salt-line-break"])
            shutil.rmtree(answer["backup"])
            self.assertEqual({path.stat().st_uid for path in self.data.rglob("*")}, {65534})

    def test_what_no_program_can_mend_is_said(self):
        shutil.rmtree(self.data)
        self.data.mkdir()
        self.data.chmod(0o1777)  # as a directory that is none of a client's may have
        for options in [], ["--repair"]:
            self.assertEqual(self.diagnose(*options)[1], ["no-data"])
        self.assertEqual(mode_of(self.data), 0o1777)
        self.data.chmod(0o750)
        self.database.mkdir()
        answer, found = self.diagnose("--repair")
        self.assertIn("database-unusable", found)
        self.assertEqual((os.listdir(self.data), answer["backup"]), (["sdkcache.db"], ""))
        self.database.rmdir()
        self.database.symlink_to("sdkcache.db")
        for verb in ["doctor"], ["cache", "list"]:
            self.refused(*verb, self.data, code=1, says="cannot copy .*sdkcache.db to .*: Too many")
        result = self.run_console("doctor", self.data, TMPDIR="/none")
        self.assert_complaint(result, "set TMPDIR")

    def test_an_interrupt_leaves_no_copy_of_the_key_behind(self):
        numbers = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 1000000) "
        self.plain_database("CREATE TABLE ConfigCacheTab(AUTOID INTEGER PRIMARY KEY, KEY, VALUE)",
                            numbers + "INSERT INTO ConfigCacheTab SELECT i, i, i FROM n")
        with self.running("doctor", self.data, "--repair") as console:
            while not list(self.temporary.glob("*/zorm/*_bak.dat")):  # copied last
                self.assertIsNone(console.poll())
            console.send_signal(signal.SIGINT)
            self.assertEqual((console.communicate(), console.returncode),
                             (("", "zelctl: interrupted\n"), 1))
        self.assertEqual(list(self.data.glob("doctor-backup*")), [])

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
        result = subprocess.run(command, capture_output=True, timeout=DEADLINE, check=True,
                                text=True)
        self.assertIn('"disk-full"', result.stdout)
        self.assertIn("nothing was changed", result.stderr)
        self.assertEqual(result.stdout.splitlines()[-1], "666")


if __name__ == "__main__":
    unittest.main()
