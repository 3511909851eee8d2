"""Plays sessions with the console against the built library, as its user would."""

import json
import os
import re
import signal
import socket
import unittest

from console import INIT, ROOT, ConsoleTest, json_lines, mode_of

EXAMPLES = ROOT / "examples"
GET_REG_INFO = '{"cmd": 11, "sno": %d}\n'
LOG_LINE = "2026-11-21 10:00:0%d.000 1 %s [%s] [a b:1] %s\n"


def answers(text):
    return [(m.get("rsp"), m.get("sno"), m.get("result")) for m in json_lines(text)]


class Logs(ConsoleTest):
    def setUp(self):
        super().setUp()
        (self.folder / "log").mkdir()  # looked into as well

    def write(self, name, text, mode="a"):
        with (self.folder / name).open(mode) as log:
            log.write(text)

    def test_watch_prints_new_lines_across_rotation_until_interrupted(self):
        main, rotated = self.folder / "main.txt", self.folder / "main.1.txt"
        main.write_text("before\n")
        rotated.write_text("long before\n")
        with self.running("logs", "watch", ".") as console:
            self.assertIn("watching", console.stderr.readline())
            self.write("main.txt", "one\n")
            for number in (2, 3):  # more rotations than looks at the directory
                rotated.rename(self.folder / "main.2.txt")
                main.rename(rotated)
                main.write_text(f"{number}\n")
            for line in ("one", "2", "3"):
                self.assertEqual(console.stdout.readline(), f"main: {line}\n")
            self.write("main.txt", "", "w")  # emptied, as without old files
            self.write("log/other.txt", "first\n")
            self.assertEqual(console.stdout.readline(), "other: first\n")
            self.write("main.txt", "4\nhalf")
            self.assertEqual(console.stdout.readline(), "main: 4\n")
            console.send_signal(signal.SIGINT)
            self.assertEqual((console.stdout.read(), console.wait()), ("", 0))

    def test_view_merges_lines_by_time_chooses_and_follows(self):
        self.write("a.txt", LOG_LINE % (1, "I", "a", "one"))
        self.write("a.txt", LOG_LINE % (4, "E", "a", "four") + "+\n")
        self.write("a.1.txt", LOG_LINE % (0, "D", "a", "zero"))
        self.write("log/b.txt", LOG_LINE % (2, "W", "b", "t\x1bwo"))
        self.write("config.txt", "key=value\n")
        (self.folder / "c.txt").symlink_to("/dev/zero")
        for options, expected in (
            ("", r"zero one t\x1bwo four +"),
            ("--module=b", r"t\x1bwo"),
            ("--level,W", r"t\x1bwo four +"),
            ("--since,2026-11-21 10:00:02", r"t\x1bwo four +"),
            ("--until,2026-11-21 10:00:01", "zero one"),
        ):
            text = self.succeed("logs", "view", ".", *filter(None, options.split(",")))
            self.assertEqual([line.split("] ")[-1] for line in text.splitlines()], expected.split())
        with self.running("logs", "view", ".", "-f", "--module", "b") as console:
            self.assertIn("wo", console.stdout.readline())
            for name, text in ("log/b.txt", "five"), ("late.txt", "six"):
                self.write(name, LOG_LINE % (5, "I", "b", text))
                self.assertIn(text, console.stdout.readline())
            console.send_signal(signal.SIGINT)
            self.assertEqual(console.wait(), 0)
        result = self.run_console("logs", "view", ".", "--module", "x")
        self.assert_complaint(result, "none of 7 lines is chosen; there are logs of a, b, late")
        (self.folder / "none").mkdir()
        self.refused("logs", "view", "none", code=1, says="no logs in")

    def test_view_ends_early_for_an_interrupt_and_for_a_reader_that_goes(self):
        self.write("a.txt", LOG_LINE % (1, "I", "a", "x" * 80) * 100000)
        for isInterrupted, says in (True, "zelctl: interrupted\n"), (False, ""):
            with self.running("logs", "view", ".") as console:
                console.stdout.readline()  # more than a pipe holds is still to come
                if isInterrupted:
                    console.send_signal(signal.SIGINT)
                    self.assertLess(console.stdout.read().count("\n"), 99999)
                else:
                    console.stdout.close()
                self.assertEqual((console.stderr.read(), console.wait()), (says, 1))

    def test_clean_refuses_a_folder_with_data_of_a_client(self):
        (self.folder / "log/deep/zorm").mkdir(parents=True)
        self.refused("logs", "clean", ".", "--days", "3", says="data of a client.*its logs")


class Requests(ConsoleTest):
    def play(self, text, *options):
        return self.run_console("--data", self.data, *options, "-", text=text)

    def test_the_next_run_opens_what_the_first_one_made(self):
        self.data = self.folder / 'a "quoted" \\ name' / "b"
        salts = []
        for _ in range(2):
            text = self.succeed("--data", self.data, EXAMPLES / "first-session.jsonl")
            self.assertEqual(answers(text), [(1, 1, 0), (11, 2, 0), (12, 3, 0), (13, 4, 0),
                                             (1, 5, 1), (1, 6, 2)])
            # A database that cannot be read is made anew: with another salt, its first 16 bytes.
            salts.append((self.data / "sdkcache.db").read_bytes()[:16])
        self.assertEqual(salts[0], salts[1])
        self.assertEqual((mode_of(self.data), mode_of(self.data.parent)), (0o750, 0o750))

    def test_replies_are_single_lines_for_what_was_sent_whatever_stands_beside_it(self):
        self.data = self.folder / "zel-data"
        for text, expected in (
            (INIT, [(1, 1, 0)]),
            ('{"cmd": 18}\n{"cmd": 15}\n', []),  # commands without a reply
            ('{"cmd": 11}\n{"cmd": 12, "sno": "x"}\n', [(11, None, 0), (12, None, 0)]),
            ("\n# {\n \t\r\n" + GET_REG_INFO % 1 + "#", [(11, 1, 0)]),
            (GET_REG_INFO.strip() % 3 + "\0 rubbish\n", [(11, 3, 0)]),
            # More than the ring holds.
            ('{"cmd": 18}\n' * 5000 + GET_REG_INFO % 5, [(11, 5, 0)]),
            ('{"cmd": ${NOWHERE:-11}, "sno": ${PROXY_PORT:-7}}\n{"cmd":11,"x":"${A}"}',
             [(11, 7, 0), (11, None, 0)]),
        ):
            with self.subTest(text[:80]):
                self.assertEqual(answers(self.succeed("-", text=text)), expected)
        self.assertTrue((self.data / "sdkcache.db").is_file())

    def test_a_long_description_comes_back_whole_with_what_its_placeholders_stand_for(self):
        self.data = self.folder / "${STUN:-x}"  # a directory's own name is no placeholder
        end = " ${STUN} ${ } \n\u00e4" + "x" * (3 << 20)
        text, filled = "${ORIGIN:-http://a/}${STUN:-}${DATA}" + end, f"http://a/{self.data}{end}"
        (reply,) = json_lines(self.play(json.dumps({"cmd": 65547, "description": text})).stdout)
        self.assertTrue(reply == {"rsp": 65547, "result": 0, "description": filled})

    def test_lines_that_are_due_no_reply_neither_hang_nor_fail(self):
        broken = ["{", "[]", '{"cmd": "11"}', '{"cmd": -11}', "{}", '{"cmd": 17}',
                  '{"cmd": 131083}',  # bit 17 is never dispatched
                  "[" * 100000, "\0" + GET_REG_INFO.strip() % 1, "\udcff\udcfe"]
        result = self.play("\n".join([*broken, GET_REG_INFO.strip() % 99]))
        self.assertEqual((result.returncode, answers(result.stdout)), (0, [(11, 99, 0)]))
        self.assertEqual([remark.split(": ")[:2] for remark in result.stderr.splitlines()],
                         [["zelctl", f"line {i + 1}"] for i in range(len(broken))])

    def test_a_reply_after_the_timeout_fails_the_session_and_is_still_printed(self):
        # The initialisation derives keys and writes files: it cannot end within a nanosecond.
        result = self.play("#\n" + INIT, "--timeout=1e-9")
        self.assertEqual((result.returncode, answers(result.stdout)), (1, [(1, 1, 0)]))
        self.assert_complaint(result, "line 2: .*no reply to command 1 ")

    def test_a_refused_init_is_a_reply(self):
        # The database cannot be made where a directory, one that is in use, has its name.
        (self.data / "sdkcache.db" / "in use").mkdir(parents=True)
        self.assertEqual(answers(self.play(INIT).stdout), [(1, 1, 1)])

    def test_each_line_is_answered_at_once_until_the_input_ends_or_an_interrupt(self):
        for end in ("input", "interrupt", "output"):
            with self.subTest(end), self.interactive() as console:
                for number in (1, 2):
                    self.assertEqual(self.ask(console, GET_REG_INFO % number)["sno"], number)
                if end == "input":
                    console.stdin.close()
                elif end == "interrupt":
                    console.send_signal(signal.SIGINT)
                else:  # nobody reads it
                    console.stdout.close()
                    console.stdin.write(GET_REG_INFO % 3)
                self.assertEqual(console.wait(), 0 if end == "input" else 1)


class Network(ConsoleTest):
    def test_a_detection_that_was_given_up_does_not_count_against_the_next_one(self):
        settings = self.folder / "settings.json"
        settings.write_text('{"detect": {"timeoutMs": 4500}}')
        request = '{"cmd": 14, "param": {"internet_server_domain": "%s"}}\n{"cmd": 16, "sno": 1}\n'
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent, self.interactive(
            "--loopback", "--timeout=3", ZEL_PLATFORM_CONFIG=str(settings)
        ) as console:
            silent.bind(("127.0.0.1", 0))
            console.stdin.write(request % ("%s:%d" % silent.getsockname()))
            first = [json.loads(console.stdout.readline()) for _ in range(3)]
            # The input ends at once: what comes is what the console waits for.
            rest, _ = console.communicate(request % "${STUN}")
        for printed, discard in (first, 100), (json_lines(rest), 0):
            self.assertEqual([m.get("rsp") for m in printed], [14, 16, None])
            self.assertEqual(printed[2]["param"]["discard"], discard)

    def test_net_and_proxy_tell_who_answers_and_the_way_that_the_library_takes(self):
        places = "${ORIGIN} ${PROXY_HOST}:${PROXY_PORT} ${PROXY_USER} ${PROXY_PASSWORD} ${STUN}"
        with self.interactive("--loopback") as console:
            reply = self.ask(console, json.dumps({"cmd": 11, "description": places}))
            origin, proxy, user, password, stun = reply["description"].split()
            result = self.run_console("net", stun, "name.invalid", "--json")
            good, bad = json.loads(result.stdout)
            self.assertEqual((result.returncode, good["result"], good["lostPercent"]), (1, 0, 0))
            self.assertEqual((bad["text"], bad["averageMs"], bad["lostPercent"]),
                             ("name unknown", None, None))
            self.assertIn("answers", self.succeed("net", stun))
            for url, server, secret, expected in (
                (origin, proxy, password, [0, 200, 200]),
                (origin, proxy, "wrong", [0, 200, 407]),
                (origin, "127.0.0.1:1", "", [0, 200, 0, "direct"]),
                ("http://localhost:1/", proxy, password, [0, 0, 403, "proxy"]),
                ("http://127.0.0.1:1/", "127.0.0.1:1", "", [1, 0, 0, None]),
            ):
                result = self.run_console("proxy", url, "--proxy", server, "--user", user, "--json",
                                          ZEL_PROXY_PASSWORD=secret)
                answer = json.loads(result.stdout)
                found = [result.returncode, answer["direct"]["status"], answer["proxy"]["status"],
                         answer["decision"]]
                self.assertEqual(found[:len(expected)], expected)
            refused = self.run_console("proxy", origin, "--proxy", proxy, "--user", user,
                                       ZEL_PROXY_PASSWORD="wrong").stdout
            self.assertRegex(refused, r"direct +answers +200")
            self.assertRegex(refused, r"proxy +asks for a login +407")
            self.assertIn("may be the proxy's own", refused)
            result = self.run_console("proxy", origin, "--proxy", proxy,
                                      ZEL_PROXY_PASSWORD="secret" * 30)
            self.assertNotEqual(result.returncode, 0)
            self.assertNotIn("secret", result.stdout + result.stderr)

    def test_an_interrupt_ends_the_waiting_for_a_server_that_is_silent(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            url = "http://127.0.0.1:%d/" % silent.getsockname()[1]
            with self.running("proxy", url) as console:
                with silent.accept()[0]:
                    console.send_signal(signal.SIGINT)
                    self.assertEqual((console.wait(), console.stdout.read()), (1, ""))
                    self.assertIn("interrupted", console.stderr.read())

    def test_the_sessions_of_the_examples_are_answered_by_servers_on_loopback(self):
        text = self.succeed("--data", self.data, "--loopback", EXAMPLES / "network-session.jsonl")
        self.assertEqual(
            [a for a in answers(text) if a[0] is not None],
            [(1, 1, 0), (6, 2, 0), (7, 3, 0), (7, 4, 0), (8, 5, 0), (14, 7, 0), (16, 8, 0)])
        events = [m for m in json_lines(text) if "notify" in m]
        keys = ("current_level", "total_level", "result", "discard")
        reports = [[m["param"][key] for key in keys] for m in events if m["notify"] == 3]
        self.assertEqual(reports, [[1, 2, 0, 0], [2, 2, 0, 0]])
        self.assertEqual([m["notify"] for m in events if m["notify"] > 3], [4, 5, 6, 7])
        self.assertNotIn("secret", (self.data / "log/native_sdk.txt").read_text())
        self.succeed("--data", "tracked", EXAMPLES / "tracking-session.jsonl")
        tracked = json_lines((self.folder / "tracked/log/ut_events.jsonl").read_text())
        self.assertEqual([event["eventId"] for event in tracked], ["1", "join", "share", "call"])


class Usage(ConsoleTest):
    def test_wrong_usage_is_one_line_and_changes_nothing(self):
        (self.folder / "file").write_text("kept")
        for says, *usages in (
            ("--help", "logs clean . --days"),
            ("logs needs one of clean, view, watch", "logs", "logs burn"),
            ("subcommand", "docter", "docter ."),
            ("is missing", "logs clean --days 3", "logs clean ."),
            ("whole number", "logs clean . --days=0", "logs watch . --seconds soon"),
            ("unknown option", "logs clean . --weeks 1", "cache list . --weeks", "--verbose -"),
            ("one too many", "logs clean . . --days 3", "a b"),
            ("directory", "logs watch none", "logs view none", "config file", "cache list none",
             "doctor none", "bundle none o", "."),
            ("", "logs view . x", "logs view . --level X", "logs view . --since today",
             "logs view . --module", "net", "net --fast a", "net a b c d e", "proxy", "proxy u v",
             "proxy u --proxy a", "proxy u --proxy a:65536", "proxy u --user", "cache get . "),
            ("needs", "config", "config . a b", "cache", "cache list", "cache get .",
             "cache put . key", "cache export .", "doctor", "explain 1 2", "- --data", "--data= -",
             "--record=", "--color=blue", "bundle ."),
            ("such as 20M", "bundle . o --max-size 1X"),
            ("positive number", *(f"--timeout={t} -" for t in ["0", "nan", "1e99", "2s", ""])),
            (r"\\u000a.*No such file", "no\nsuch"),
            ("Not a directory.*--data", "--data file -", "--data file/below -"),
            # Longer than the library's field: it would use the root of the file system instead.
            ("longer than", f"--data {'x/' * 300} -"),
        ):
            for usage in usages:
                with self.subTest(usage):
                    self.refused(*usage.split(" "), says=says)
        self.refused("config", ".", code=1, says="no settings")  # and makes none
        self.assertEqual(os.listdir(self.folder), ["file"])
        self.assertEqual((self.folder / "file").read_text(), "kept")

    def test_help_tells_of_one_or_all_within_80_columns(self):
        whole = self.succeed("--help")
        self.assertEqual(self.succeed("help"), whole)
        self.assertLessEqual(max(map(len, whole.splitlines())), 80)
        usages = re.findall(r"(?m)^  zelctl ((?:cache |logs )?[a-z]+).*(?:\n      .*)+", whole)
        self.assertEqual(len(usages), 15)
        for name in usages:
            text = self.succeed(*name.split(), "--help")
            self.assertTrue(text.startswith("  zelctl " + name) and text in whole, text)
        self.assertEqual(self.succeed("cache", "-h").count("  zelctl cache "), 6)
        self.assertRegex(self.succeed("--version"), r"^zelctl \d+\.\d+\.\d+$")


if __name__ == "__main__":
    unittest.main()
