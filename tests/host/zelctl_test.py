"""Plays sessions with the console against the built library, as its user would.

Needs ZELCTL, the path of the console, and ZEL_EXAMPLES, the folder of the examples.
"""

import base64
import contextlib
import http.client
import json
import os
import pathlib
import signal
import socket
import unittest

from console import DEADLINE, INIT, ConsoleTest, mode_of

EXAMPLES = pathlib.Path(os.environ["ZEL_EXAMPLES"])
HOST = "127.0.0.1"
GET_REG_INFO = '{"cmd": 11, "sno": %d}'


class ZelctlTest(ConsoleTest):
    def play(self, text, *arguments):
        return self.run_console("--data", self.data, *arguments, "-", text=text)

    def replies(self, result):
        """The printed messages; each line must be one JSON object."""
        messages = [json.loads(line) for line in result.stdout.decode().splitlines()]
        for message in messages:
            self.assertIsInstance(message, dict)
        return messages

    def answers(self, result):
        return [(m.get("rsp"), m.get("sno"), m.get("result")) for m in self.replies(result)]

    def tell(self, console, line):
        """The next message after one more line."""
        console.stdin.write(line.encode() + b"\n")
        console.stdin.flush()
        return json.loads(console.stdout.readline())


class Logs(ZelctlTest):
    LINE = "2026-11-21 10:00:0%d.000 1 %s [%s] [a b:1] %s\n"

    def setUp(self):
        super().setUp()
        self.logs = self.folder / "logs"
        self.logs.mkdir()

    def test_clean_removes_old_files_and_says_how_many(self):
        for name in ("old.txt", "new.txt", "older.txt"):
            (self.logs / name).write_text("x")
            if name != "new.txt":
                os.utime(self.logs / name, (10**9, 10**9))
        self.assertEqual(self.succeed("logs", "clean", self.logs, "--days", "7"), "removed 2 files\n")
        self.assertEqual(os.listdir(self.logs), ["new.txt"])

    def test_watch_prints_new_lines_across_rotation_until_interrupted(self):
        main = self.logs / "main.txt"
        main.write_text("before\n")
        (self.logs / "main.1.txt").write_text("long before\n")
        with self.running("logs", "watch", self.logs) as console:
            self.assertIn(b"watching", console.stderr.readline())
            with main.open("a") as log:
                log.write("one\n")
            for number in (2, 3):  # more rotations than looks at the directory
                (self.logs / "main.1.txt").rename(self.logs / "main.2.txt")
                main.rename(self.logs / "main.1.txt")
                main.write_text(f"line {number}\n")
            lines = [console.stdout.readline() for _ in range(3)]
            self.assertEqual(lines, [b"main: one\n", b"main: line 2\n", b"main: line 3\n"])
            main.write_text("")  # emptied, as without old files
            (self.logs / "other.txt").write_text("first\n")
            self.assertEqual(console.stdout.readline(), b"other: first\n")
            with main.open("a") as log:
                log.write("4\nhalf")
            self.assertEqual(console.stdout.readline(), b"main: 4\n")
            console.send_signal(signal.SIGINT)
            self.assertEqual(console.stdout.read(), b"")
            self.assertEqual(console.wait(), 0)

    def test_view_merges_lines_by_time_chooses_and_follows(self):
        (self.logs / "a.txt").write_text(
            self.LINE % (1, "I", "a", "one") + self.LINE % (4, "E", "a", "four") + "  more\n")
        (self.logs / "a.1.txt").write_text(self.LINE % (0, "D", "a", "zero"))
        (self.logs / "b.txt").write_text(self.LINE % (2, "W", "b", "two"))
        (self.logs / "c.txt").symlink_to("/dev/zero")
        for options, expected in (
            ([], ["zero", "one", "two", "four", "  more"]),
            (["--module", "b"], ["two"]),
            (["--level", "W"], ["two", "four", "  more"]),
            (["--since", "2026-11-21 10:00:02"], ["two", "four", "  more"]),
            (["--until", "2026-11-21 10:00:01"], ["zero", "one"]),
        ):
            text = self.succeed("logs", "view", self.logs, *options)
            self.assertEqual([line.split("] ")[-1] for line in text.splitlines()], expected)
        with self.running("logs", "view", self.logs, "-f", "--module", "b") as console:
            self.assertIn(b"two", console.stdout.readline())
            with (self.logs / "b.txt").open("a") as log:
                log.write(self.LINE % (5, "I", "b", "five"))
            self.assertIn(b"five", console.stdout.readline())
            console.send_signal(signal.SIGINT)
            self.assertEqual(console.wait(DEADLINE), 0)


class FirstSession(ZelctlTest):
    def test_the_next_run_opens_what_the_first_one_made(self):
        self.data = self.folder / 'a "quoted" \\ name' / "b"
        salts = []
        for _ in range(2):
            result = self.run_console("--data", self.data, EXAMPLES / "first-session.jsonl")
            self.assertEqual((result.returncode, result.stderr), (0, b""))
            self.assertEqual(self.answers(result), [(1, 1, 0), (11, 2, 0), (12, 3, 0), (13, 4, 0),
                                                    (1, 5, 1), (1, 6, 2)])
            # A database that cannot be read is made anew: with another salt, its first 16 bytes.
            salts.append((self.data / "sdkcache.db").read_bytes()[:16])
        self.assertEqual(salts[0], salts[1])
        self.assertEqual((mode_of(self.data), mode_of(self.data.parent)), (0o750, 0o750))
        self.assertIn("native_sdk.txt", os.listdir(self.data / "log"))

    def test_default_data_directory_is_below_the_current_one(self):
        self.assertEqual(self.answers(self.run_console("-", text=INIT)), [(1, 1, 0)])
        self.assertTrue((self.folder / "zel-data" / "sdkcache.db").is_file())


class Requests(ZelctlTest):
    def test_replies_are_single_lines_for_what_was_sent_whatever_stands_beside_it(self):
        for text, expected in (
            ("", []),
            ('{"cmd": 18}\n{"cmd": 15}\n', []),  # commands without a reply
            ('{"cmd": 11}\n{"cmd": 11, "sno": -1}\n{"cmd": 12, "sno": "x"}\n',
             [(11, None, 0), (11, None, 0), (12, None, 0)]),
            ("\n# {\n \t\r\n" + GET_REG_INFO % 1 + "\r\n#", [(11, 1, 0)]),
            (GET_REG_INFO % 3 + "\0 rubbish\n", [(11, 3, 0)]),
            # More than the ring holds.
            ('{"cmd": 18}\n' * 5000 + GET_REG_INFO % 5, [(11, 5, 0)]),
            ('{"cmd": ${NOWHERE:-11}, "sno": ${PROXY_PORT:-7}}\n{"cmd":11,"x":"${A}"}',
             [(11, 7, 0), (11, None, 0)]),
        ):
            with self.subTest(text[:80]):
                result = self.play(text)
                self.assertEqual((result.returncode, result.stderr), (0, b""))
                self.assertEqual(self.answers(result), expected)

    def test_descriptions_come_back_whole(self):
        self.data = self.folder / "${STUN:-x}"  # a directory's own name is no placeholder
        for text, expected in (
            ("two\nlines \u00e4", None),
            ("x" * (3 << 20), None),
            ("${ORIGIN:-http://example.com/} ${STUN:-} ${STUN} ${DATA} ${ }",
             f"http://example.com/  ${{STUN}} {self.data} ${{ }}"),
        ):
            result = self.play(json.dumps({"cmd": 65547, "sno": 2**32 - 1, "description": text}))
            self.assertEqual((result.returncode, result.stderr), (0, b""))
            self.assertTrue(self.replies(result) == [
                {"rsp": 65547, "sno": 2**32 - 1, "description": expected or text, "result": 0}], text[:80])

    def test_lines_that_are_due_no_reply_neither_hang_nor_fail(self):
        broken = [b"{", b"[]", b"17", b'"text"', b'{"cmd": "11"}', b'{"cmd": -11}', b"{}",
                  b'{"cmd": 17}', b'{"cmd": 131083}',  # bit 17 is never dispatched
                  b"[" * 100000, b"\0" + (GET_REG_INFO % 1).encode(), b"\xff\xfe"]
        last = (GET_REG_INFO % 99).encode()  # also: a last line without a line feed
        result = self.play(b"\n".join([*broken, last]))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.answers(result), [(11, 99, 0)])
        remarks = result.stderr.decode().splitlines()
        self.assertEqual(
            [remark.split(": ")[:2] for remark in remarks],
            [["zelctl", f"line {number}"] for number in range(1, len(broken) + 1)])

    def test_a_reply_after_the_timeout_fails_the_session_and_is_still_printed(self):
        # The initialisation derives keys and writes files: it cannot end within a nanosecond.
        result = self.play("#\n" + INIT, "--timeout=1e-9")
        self.assertEqual(result.returncode, 1)
        self.assert_diagnostic(result, "line 2: ", "no reply to command 1 ")
        self.assertEqual(self.answers(result), [(1, 1, 0)])

    def test_a_refused_init_is_a_reply(self):
        # The database cannot be made where a directory, one that is in use, has its name.
        (self.data / "sdkcache.db" / "in use").mkdir(parents=True)
        result = self.play(INIT + GET_REG_INFO % 2)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.answers(result), [(1, 1, 1), (11, 2, 0)])

    def test_each_line_is_answered_at_once_until_the_input_ends_or_an_interrupt(self):
        for end in ("input", "interrupt", "output"):
            with self.subTest(end), self.interactive() as console:
                self.assertEqual([self.tell(console, GET_REG_INFO % n)["sno"] for n in (1, 2)], [1, 2])
                if end == "input":
                    console.stdin.close()
                elif end == "interrupt":
                    console.send_signal(signal.SIGINT)
                else:  # nobody reads it
                    console.stdout.close()
                    console.stdin.write((GET_REG_INFO % 3).encode() + b"\n")
                    console.stdin.flush()
                self.assertEqual(console.wait(DEADLINE), 0 if end == "input" else 1)


class Loopback(ZelctlTest):
    PLACES = "${ORIGIN} ${PROXY_HOST}:${PROXY_PORT} ${PROXY_USER}:${PROXY_PASSWORD} ${STUN}"

    @contextlib.contextmanager
    def places(self):
        """What --loopback serves."""
        with self.interactive("--loopback") as console:
            request = json.dumps({"cmd": 11, "description": self.PLACES})
            yield self.tell(console, request)["description"].split()
            console.stdin.close()
            self.assertEqual(console.wait(DEADLINE), 0)

    def test_a_detection_that_was_given_up_does_not_count_against_the_next_one(self):
        settings = self.folder / "settings.json"
        settings.write_text('{"detect": {"timeoutMs": 4500}}')
        request = '{"cmd": 14, "param": {"internet_server_domain": "%s"}}\n{"cmd": 16, "sno": 1}\n'
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent, self.interactive(
            "--loopback", "--timeout=3", ZEL_PLATFORM_CONFIG=str(settings)
        ) as console:
            silent.bind((HOST, 0))
            console.stdin.write((request % ("%s:%d" % silent.getsockname())).encode())
            console.stdin.flush()
            first = [json.loads(console.stdout.readline()) for _ in range(3)]
            # The input ends at once: what comes is what the console waits for.
            rest, _ = console.communicate((request % "${STUN}").encode())
        second = [json.loads(line) for line in rest.splitlines()]
        for printed, discard in (first, 100), (second, 0):
            self.assertEqual([m.get("rsp") for m in printed], [14, 16, None])
            self.assertEqual(printed[2]["param"]["discard"], discard)

    def test_the_servers_answer_whom_they_should(self):
        def ask(address, *request, login=None):
            connection = http.client.HTTPConnection(address, timeout=DEADLINE)
            value = "Basic " + base64.b64encode(login.encode()).decode() if login else None
            connection.request(*request, headers={"Proxy-Authorization": value} if value else {})
            response = connection.getresponse()
            return response.status, response.read()

        with self.places() as (origin, proxy, account, _):
            direct = ask(origin.split("/")[2], "GET", "/")
            self.assertEqual(direct[0], 200)
            for path, key in ("files", "code"), ("reports", "value"), ("queries", "entries"):
                status, body = ask(origin.split("/")[2], "POST", "/audit/" + path, b"{}")
                self.assertEqual((status, key in json.loads(body)), (200, True), path)
            for login in (None, "user:wrong"):
                self.assertEqual(ask(proxy, "GET", origin, login=login)[0], 407)
            self.assertEqual(ask(proxy, "GET", origin, login=account), direct)
            self.assertEqual(ask(proxy, "GET", "http://192.0.2.1/", login=account)[0], 403)
            self.assertEqual(ask(proxy, "CONNECT", origin.split("/")[2])[0], 407)

    def test_net_and_proxy_tell_who_answers_and_the_way_that_the_library_takes(self):
        def ask(*arguments):
            result = self.run_console(*arguments, "--json")
            return result.returncode, json.loads(result.stdout)

        with self.places() as (origin, _, _, stun):
            code, (good, bad) = ask("net", stun, "name.invalid")
            self.assertEqual((code, good["result"], good["lostPercent"]), (1, 0, 0))
            self.assertEqual((bad["text"], bad["averageMs"]), ("name unknown", None))
            self.assertIn("answers", self.succeed("net", stun))
            code, answer = ask("proxy", origin, "--proxy", "127.0.0.1:1")
            self.assertEqual((code, answer["decision"], answer["direct"]["status"]), (0, "direct", 200))
            self.assertNotEqual(answer["proxy"]["result"], 0)
        code, answer = ask("proxy", "http://127.0.0.1:1/", "--proxy", "127.0.0.1:1")
        self.assertEqual((code, answer["decision"]), (1, None))

    def test_the_network_session_is_answered_by_servers_on_loopback(self):
        result = self.run_console("--data", self.data, "--loopback", EXAMPLES / "network-session.jsonl")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        answers = [a for a in self.answers(result) if a[0] is not None]
        self.assertEqual(answers, [(1, 1, 0), (6, 2, 0), (7, 3, 0), (7, 4, 0), (8, 5, 0),
                                   (14, 7, 0), (16, 8, 0)])
        events = [m for m in self.replies(result) if "notify" in m]
        reports = [m["param"] for m in events if m["notify"] == 3]
        self.assertEqual([(r["current_level"], r["total_level"]) for r in reports], [(1, 2), (2, 2)])
        self.assertEqual({(r["result"], r["discard"]) for r in reports}, {(0, 0)})
        self.assertEqual([m["notify"] for m in events if m["notify"] > 3], [4, 5, 6, 7])
        self.assertNotIn("secret", (self.data / "log/native_sdk.txt").read_text())

    def test_the_tracking_session_leaves_its_events_in_a_file(self):
        self.succeed("--data", self.data, EXAMPLES / "tracking-session.jsonl")
        lines = (self.data / "log/ut_events.jsonl").read_text().splitlines()
        events = [json.loads(line)["eventId"] for line in lines]
        self.assertEqual(events, ["1", "join", "share", "call"])


class Usage(ZelctlTest):
    def test_settings_are_shown_as_the_library_reads_them(self):
        self.assertEqual(self.succeed("config", self.folder), "")
        self.assertEqual(os.listdir(self.folder), ["config.txt"])  # made where it was missing
        (self.folder / "config.txt").write_bytes(b"b=2 \nno sign\na=1=1\nb=3\nempty=")
        self.assertEqual(self.succeed("config", self.folder), "a=1=1\nb=2 \nempty=\n")
        self.assertEqual(self.succeed("config", self.folder, "a"), "1=1\n")
        self.succeed("config", self.folder, "empty")
        self.refused("config", self.folder, "c", code=1, says=("no setting", '"c"'))

    def test_wrong_usage_is_one_line_and_changes_nothing(self):
        (self.folder / "file").write_text("kept")
        logs = self.folder
        for says, *usages in (
            ("--help", ["logs"], ["logs", "burn"]),
            ("DIR", ["logs", "clean", "--days", "3"]),
            ("--days", ["logs", "clean", logs]),
            ("value", ["logs", "clean", logs, "--days"]),
            ("whole number", ["logs", "clean", logs, "--days", "0"],
             ["logs", "clean", logs, "--days=-1"], ["logs", "watch", logs, "--seconds", "soon"]),
            ("--weeks", ["logs", "clean", logs, "--weeks", "1"]),
            ("one too many", ["logs", "clean", logs, logs, "--days", "3"]),
            ("directory", ["logs", "watch", logs / "none"]),
            ("", ["logs", "view"], ["logs", "view", logs, "x"], ["logs", "view", "missing"],
             ["logs", "view", logs, "--level", "X"], ["logs", "view", logs, "--since", "today"],
             ["logs", "view", logs, "--module"], ["net"], ["net", "--fast", "a"], ["net", *"abcde"],
             ["proxy"], ["proxy", "u", "--proxy", "a"], ["proxy", "u", "--proxy", "a:65536"],
             ["proxy", "u", "v"], ["proxy", "u", "--user"]),
            ("config needs", ["config"], ["config", ""], ["config", "missing"], ["config", "file"],
             ["config", logs, "a", "b"]),
            (("unknown option", "--verbose"), ["--verbose", "-"]),
            ("--data needs", ["-", "--data"], ["--data=", "-"]),
            ("only one FILE", ["a", "b"]),
            ("positive number", *(["--timeout", t, "-"]
                                  for t in ["0", "-1", "nan", "inf", "1e99", "2s", "", " 1"])),
            (("No such file", "\\u000a"), ["no\nsuch"]),
            ("it is a directory", [logs]),
            (("Not a directory", "--data"), ["--data", "file", "-"], ["--data", "file/below", "-"]),
            # Longer than the library's field: it would use the root of the file system instead.
            ("longer than", ["--data", "x/" * 300, "-"]),
        ):
            for usage in usages:
                with self.subTest(usage):
                    self.refused(*usage, says=says)
        self.assertEqual(os.listdir(self.folder), ["file"])
        self.assertEqual((self.folder / "file").read_text(), "kept")
        self.assertTrue(self.succeed("--help").startswith("usage: zelctl "))


if __name__ == "__main__":
    unittest.main()
