"""Plays sessions with the console against the built library, as its user would.

Needs ZELCTL, the path of the console, and ZEL_EXAMPLES, the folder of the examples.
"""

import base64
import contextlib
import http.client
import http.server
import json
import os
import pathlib
import signal
import socket
import stat
import subprocess
import tempfile
import threading
import unittest

ZELCTL = os.environ["ZELCTL"]
EXAMPLES = pathlib.Path(os.environ["ZEL_EXAMPLES"])
DEADLINE = 120  # seconds; only a hang takes that long
HOST = "127.0.0.1"

INIT = (
    '{"cmd": 1, "sno": %d, "param": {"initParam": {"log_path": "${DATA}/log/", "logLevel": 2,'
    ' "logSize": 512, "fileCount": 1, "dbPath": "${DATA}/"}}}'
)
GET_REG_INFO = '{"cmd": 11, "sno": %d}'


def mode_of(path):
    return stat.S_IMODE(path.stat().st_mode)


class ZelctlTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zelctl_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name).resolve()
        self.data = self.folder / "data"

    def run_console(self, *arguments, text=b""):
        return subprocess.run(
            [ZELCTL, *map(str, arguments)],
            input=text if isinstance(text, bytes) else text.encode(),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=DEADLINE,
            cwd=self.folder,
            check=False,
        )

    def play(self, text, *arguments):
        return self.run_console("--data", self.data, *arguments, "-", text=text)

    @contextlib.contextmanager
    def interactive(self, *options, **variables):
        """A running console that reads from a pipe; killed if the test leaves it behind."""
        with subprocess.Popen(
            [ZELCTL, "--data", str(self.data), *options, "-"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            cwd=self.folder,
            env={**os.environ, **variables},
        ) as console:
            # Turns a console that never answers into an end of its output.
            previous = signal.signal(signal.SIGALRM, lambda *_: console.kill())
            signal.alarm(DEADLINE)
            try:
                yield console
            finally:
                signal.alarm(0)
                signal.signal(signal.SIGALRM, previous)
                console.kill()

    def replies(self, result):
        """The printed messages; each line must be one JSON object."""
        messages = [json.loads(line) for line in result.stdout.decode().splitlines()]
        for message in messages:
            self.assertIsInstance(message, dict)
        return messages

    def answers(self, result):
        return [(m.get("rsp"), m.get("sno"), m.get("result")) for m in self.replies(result)]

    def assert_diagnostic(self, result, *parts):
        """Standard error is one line of the console that holds all `parts`."""
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("zelctl: "), lines)
        for part in parts:
            self.assertIn(part, lines[0])


class Logs(ZelctlTest):
    OLD = 40 * 24 * 3600  # seconds

    def logs(self, **files):
        """A directory of module logs with these contents."""
        folder = self.folder / "logs"
        folder.mkdir(exist_ok=True)
        for module, text in files.items():
            (folder / f"{module}.txt").write_text(text)
        return folder

    def test_clean_removes_old_files_and_says_how_many(self):
        folder = self.logs(old="x", new="x", older="x")
        for name in ("old.txt", "older.txt"):
            past = (folder / name).stat().st_mtime - self.OLD
            os.utime(folder / name, (past, past))
        result = self.run_console("logs", "clean", folder, "--days", "7")
        self.assertEqual((result.returncode, result.stdout), (0, b"removed 2 files\n"))
        self.assertEqual([path.name for path in folder.iterdir()], ["new.txt"])

    def test_watch_prints_new_lines_across_rotation_until_interrupted(self):
        folder = self.logs(main="before\n")
        (folder / "main.1.txt").write_text("long before\n")
        with subprocess.Popen(
            [ZELCTL, "logs", "watch", str(folder)],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        ) as console:
            previous = signal.signal(signal.SIGALRM, lambda *_: console.kill())
            signal.alarm(DEADLINE)
            try:
                self.assertIn("watching", console.stderr.readline())
                main = folder / "main.txt"
                with main.open("a") as log:
                    log.write("one\n")
                for number in (2, 3):  # more rotations than looks at the directory
                    (folder / "main.1.txt").rename(folder / "main.2.txt")
                    main.rename(folder / "main.1.txt")
                    main.write_text(f"line {number}\n")
                lines = [console.stdout.readline() for _ in range(3)]
                self.assertEqual(lines, ["main: one\n", "main: line 2\n", "main: line 3\n"])
                main.write_text("")  # emptied, as without old files
                self.logs(other="first\n")
                self.assertEqual(console.stdout.readline(), "other: first\n")
                with main.open("a") as log:
                    log.write("4\nhalf")
                self.assertEqual(console.stdout.readline(), "main: 4\n")
                console.send_signal(signal.SIGINT)
                self.assertEqual(console.stdout.read(), "")
                self.assertEqual(console.wait(), 0)
            finally:
                signal.alarm(0)
                signal.signal(signal.SIGALRM, previous)
                console.kill()

    def test_wrong_usage_says_what_to_do(self):
        folder = self.logs(main="kept")
        for arguments, hint in (
            (["logs"], "--help"),
            (["logs", "burn"], "--help"),
            (["logs", "clean", "--days", "3"], "DIR"),
            (["logs", "clean", folder], "--days"),
            (["logs", "clean", folder, "--days"], "value"),
            (["logs", "clean", folder, "--days", "0"], "whole number"),
            (["logs", "clean", folder, "--days=-1"], "whole number"),
            (["logs", "clean", folder, "--weeks", "1"], "--weeks"),
            (["logs", "clean", folder, folder, "--days", "3"], "one too many"),
            (["logs", "watch", self.folder / "none"], "directory"),
            (["logs", "watch", folder, "--seconds", "soon"], "whole number"),
        ):
            with self.subTest(arguments=arguments):
                result = self.run_console(*arguments)
                self.assertEqual((result.returncode, result.stdout), (2, b""))
                self.assert_diagnostic(result, hint)
        self.assertEqual((folder / "main.txt").read_text(), "kept")


class FirstSession(ZelctlTest):
    FILES = {
        "sdkcache.db": 0o640,
        "sdkcache_config.db": 0o640,
        "zorm/zormStore.dat": 0o600,
        "zorm/zormStore_bak.dat": 0o600,
    }
    EXPECTED = [(1, 1, 0), (11, 2, 0), (12, 3, 0), (13, 4, 0), (1, 5, 1), (1, 6, 2)]

    def database_salt(self):
        return (self.data / "sdkcache.db").read_bytes()[:16]

    def play_example(self):
        result = self.run_console("--data", self.data, EXAMPLES / "first-session.jsonl")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr, b"")
        return result

    def test_makes_the_files_and_the_next_run_opens_them(self):
        first = self.play_example()
        self.assertEqual(self.answers(first), self.EXPECTED)
        for name, mode in self.FILES.items():
            path = self.data / name
            self.assertGreater(path.stat().st_size, 0, name)
            self.assertEqual(oct(mode_of(path)), oct(mode), name)
        self.assertEqual(mode_of(self.data), 0o750)
        secrets = [name for name in self.FILES if name != "sdkcache.db"]
        before = {name: (self.data / name).read_bytes() for name in secrets}

        # A database that cannot be read is made anew: with another salt, its first 16 bytes.
        database_salt = self.database_salt()
        self.assertEqual(self.answers(self.play_example()), self.EXPECTED)
        self.assertEqual({name: (self.data / name).read_bytes() for name in secrets}, before)
        self.assertEqual(self.database_salt(), database_salt)

    def test_database_is_encrypted_and_logs_go_to_the_log_folder(self):
        self.play_example()
        self.assertNotEqual(self.database_salt(), b"SQLite format 3\0")
        self.assertNotIn(b"ConfigCacheTab", (self.data / "sdkcache.db").read_bytes())
        self.assertIn("native_sdk.txt", os.listdir(self.data / "log"))

    def test_data_directory_is_made_with_its_parents_whatever_its_name(self):
        self.data = self.folder / 'a "quoted" \\ name' / "b"
        self.play_example()
        self.assertEqual(mode_of(self.data.parent), 0o750)
        self.assertTrue((self.data / "sdkcache.db").is_file())

    def test_default_data_directory_is_below_the_current_one(self):
        result = self.run_console("-", text=INIT % 1)
        self.assertEqual(self.answers(result), [(1, 1, 0)])
        self.assertTrue((self.folder / "zel-data" / "sdkcache.db").is_file())


class Requests(ZelctlTest):
    def test_replies_are_single_lines_that_echo_what_was_sent(self):
        result = self.play('{"cmd": 65547, "sno": 4294967295, "description": "two\\nlines \\u00e4"}')
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout.count(b"\n"), 1)
        (reply,) = self.replies(result)
        self.assertEqual(
            reply,
            {"rsp": 65547, "sno": 4294967295, "description": "two\nlines \u00e4", "result": 0},
        )

    def test_waits_for_replies_without_a_serial_number(self):
        result = self.play('{"cmd": 11}\n{"cmd": 11, "sno": -1}\n{"cmd": 12, "sno": "x"}\n')
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.answers(result), [(11, None, 0), (11, None, 0), (12, None, 0)])

    def test_lines_that_are_due_no_reply_neither_hang_nor_fail(self):
        broken = [
            b"{",
            b"[]",
            b"17",
            b'"text"',
            b'{"cmd": "11"}',
            b'{"cmd": -11}',
            b"{}",
            b'{"cmd": 17}',
            b'{"cmd": 131083}',  # bit 17 is never dispatched
            b"[" * 100000,
            b"\0" + (GET_REG_INFO % 1).encode(),
            b"\xff\xfe",
        ]
        last = (GET_REG_INFO % 99).encode()  # also: a last line without a line feed
        result = self.play(b"\n".join([*broken, last]))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.answers(result), [(11, 99, 0)])
        remarks = result.stderr.decode().splitlines()
        self.assertEqual(
            [remark.split(": ")[:2] for remark in remarks],
            [["zelctl", f"line {number}"] for number in range(1, len(broken) + 1)],
        )

    def test_the_commands_without_a_reply_are_silent(self):
        result = self.play('{"cmd": 18}\n{"cmd": 15}\n')
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))

    def test_blank_lines_and_comments_are_skipped(self):
        result = self.play("\n# {\n \t\r\n" + GET_REG_INFO % 1 + "\r\n#")
        self.assertEqual(self.answers(result), [(11, 1, 0)])
        self.assertEqual((result.returncode, result.stderr), (0, b""))

    def test_a_nul_byte_ends_the_request(self):
        result = self.play((GET_REG_INFO % 3).encode() + b"\0 rubbish\n")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.answers(result), [(11, 3, 0)])

    def test_a_line_of_megabytes_is_one_request(self):
        text = "x" * (3 << 20)
        result = self.play(json.dumps({"cmd": 11, "description": text}))
        self.assertEqual(result.returncode, 0, result.stderr[:200])
        self.assertEqual([m["description"] == text for m in self.replies(result)], [True])

    def test_more_unanswered_requests_than_the_ring_holds_all_arrive(self):
        result = self.play('{"cmd": 18}\n' * 5000 + GET_REG_INFO % 5)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(self.answers(result), [(11, 5, 0)])

    def test_no_request_at_all_is_an_orderly_session(self):
        result = self.play("")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))

    def test_a_reply_after_the_timeout_fails_the_session_and_is_still_printed(self):
        # The initialisation derives keys and writes files: it cannot end within a nanosecond.
        result = self.play("#\n" + INIT % 8, "--timeout=1e-9")
        self.assertEqual(result.returncode, 1)
        self.assert_diagnostic(result, "line 2: ", "no reply to command 1 ")
        self.assertEqual(self.answers(result), [(1, 8, 0)])

    def test_a_refused_init_is_a_reply(self):
        # The database cannot be made where a directory, one that is in use, has its name.
        (self.data / "sdkcache.db" / "in use").mkdir(parents=True)
        result = self.play(INIT % 1 + "\n" + GET_REG_INFO % 2)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.answers(result), [(1, 1, 1), (11, 2, 0)])


class DetectionAndPlaceholders(ZelctlTest):
    def test_a_detection_that_was_given_up_does_not_count_against_the_next_one(self):
        settings = self.folder / "settings.json"
        settings.write_text('{"detect": {"timeoutMs": 4500}}')
        set_server = '{"cmd": 14, "param": {"internet_server_domain": "%s"}}\n'
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent, self.interactive(
            "--loopback", "--timeout=3", ZEL_PLATFORM_CONFIG=str(settings)
        ) as console:
            silent.bind((HOST, 0))
            first = set_server % ("%s:%d" % silent.getsockname()) + '{"cmd": 16, "sno": 1}\n'
            console.stdin.write(first.encode())
            console.stdin.flush()
            printed = [json.loads(console.stdout.readline()) for _ in range(3)]
            self.assertEqual([m.get("rsp") for m in printed], [14, 16, None])
            self.assertEqual(printed[2]["param"]["discard"], 100)
            # The input ends at once: what comes is what the console waits for.
            second = set_server % "${STUN}" + '{"cmd": 16, "sno": 2}\n'
            rest, _ = console.communicate(second.encode())
            printed = [json.loads(line) for line in rest.splitlines()]
            self.assertEqual([m.get("rsp") for m in printed], [14, 16, None])
            self.assertEqual(printed[2]["param"]["discard"], 0)

    def test_placeholders_without_loopback_are_the_texts_of_the_file(self):
        self.data = self.folder / "${STUN:-x}"  # a directory's own name is none
        text = "${ORIGIN:-http://example.com/} ${STUN:-} ${STUN} ${DATA} ${ }"
        result = self.play(json.dumps({"cmd": 11, "description": text}))
        self.assertEqual(
            [m["description"] for m in self.replies(result)],
            [f"http://example.com/  ${{STUN}} {self.data} ${{ }}"],
        )


class LoopbackServers(ZelctlTest):
    """What --loopback serves, asked by Python's HTTP client and with raw STUN messages."""

    PLACES = "${ORIGIN} ${PROXY_HOST}:${PROXY_PORT} ${PROXY_USER}:${PROXY_PASSWORD} ${STUN}"

    @contextlib.contextmanager
    def places(self):
        with self.interactive("--loopback") as console:
            request = json.dumps({"cmd": 11, "description": self.PLACES}) + "\n"
            console.stdin.write(request.encode())
            console.stdin.flush()
            yield json.loads(console.stdout.readline())["description"].split()
            # Ends although a client stays connected and silent.
            idle = [socket.create_connection((HOST, self.proxy[1])) for _ in range(2)]
            console.stdin.close()
            self.assertEqual(console.wait(DEADLINE), 0)
            for client in idle:
                client.close()

    def ask(self, connection, *request, **headers):
        connection.request(*request, headers={k.replace("_", "-"): v for k, v in headers.items()})
        response = connection.getresponse()
        return response.status, response.read()

    def test_origin_proxy_and_audit_endpoints(self):
        with self.places() as (origin, proxy, account, _):
            host, port = origin.split("/")[2].split(":")
            self.proxy = (HOST, int(proxy.split(":")[1]))
            login = "Basic " + base64.b64encode(account.encode()).decode()

            def at_origin():
                return http.client.HTTPConnection(host, int(port), timeout=DEADLINE)

            def at_proxy():
                return http.client.HTTPConnection(*self.proxy, timeout=DEADLINE)

            direct = self.ask(at_origin(), "GET", "/")
            self.assertEqual(direct[0], 200)
            for path, key in ("files", "code"), ("reports", "value"), ("queries", "entries"):
                status, body = self.ask(at_origin(), "POST", "/audit/" + path, b"{}")
                self.assertEqual((status, key in json.loads(body)), (200, True), path)

            wrong = "Basic " + base64.b64encode(b"user:wrong").decode()
            self.assertEqual(self.ask(at_proxy(), "GET", origin)[0], 407)
            self.assertEqual(self.ask(at_proxy(), "GET", origin, Proxy_Authorization=wrong)[0], 407)
            through = self.ask(at_proxy(), "GET", origin, Proxy_Authorization=login)
            self.assertEqual(through, direct)
            elsewhere = self.ask(at_proxy(), "GET", "http://192.0.2.1/", Proxy_Authorization=login)
            self.assertEqual(elsewhere[0], 403)
            tunnel = at_proxy()
            tunnel.set_tunnel(host, int(port), {"Proxy-Authorization": login})
            self.assertEqual(self.ask(tunnel, "GET", "/"), direct)
            tunnel = at_proxy()
            tunnel.set_tunnel(host, int(port))
            with self.assertRaisesRegex(OSError, "407"):
                tunnel.connect()

    def test_stun_answers_binding_requests_with_the_address_and_nothing_else(self):
        cookie = bytes.fromhex("2112a442")
        request = b"\0\1\0\0" + cookie + b"transaction1"
        software = b"\x80\x22\0\4test"
        with self.places() as (_, proxy, _, stun):
            self.proxy = (HOST, int(proxy.split(":")[1]))
            host, port = stun.split(":")
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
                client.settimeout(DEADLINE)
                client.connect((host, int(port)))
                ignored = [b"", b"x" * 2000, request[:19], request + b"more"]
                ignored += [b"\0\1\0\0" + b"\0" * 16, b"\1\1" + request[2:]]
                for datagram in [*ignored, request, b"\0\1\0\x08" + request[4:] + software]:
                    client.send(datagram)
                own = client.getsockname()
                address = own[1].to_bytes(2, "big") + socket.inet_aton(own[0])
                masked = bytes(a ^ b for a, b in zip(address, cookie[:2] + cookie))
                answer = b"\1\1\0\x0c" + request[4:] + b"\0\x20\0\x08\0\1" + masked
                self.assertEqual([client.recv(999), client.recv(999)], [answer, answer])


class Interactive(ZelctlTest):
    def ask(self, console, sno):
        console.stdin.write((GET_REG_INFO % sno).encode() + b"\n")
        console.stdin.flush()
        return json.loads(console.stdout.readline())["sno"]

    def test_each_line_is_answered_before_the_input_ends(self):
        with self.interactive() as console:
            self.assertEqual([self.ask(console, 1), self.ask(console, 2)], [1, 2])
            console.stdin.close()
            self.assertEqual(console.stdout.read(), b"")
            self.assertEqual(console.wait(DEADLINE), 0)

    def test_interrupt_ends_an_idle_session_with_status_1(self):
        with self.interactive() as console:
            self.assertEqual(self.ask(console, 1), 1)
            console.send_signal(signal.SIGINT)
            self.assertEqual(console.wait(DEADLINE), 1)

    def test_output_that_nobody_reads_fails_the_session(self):
        with self.interactive() as console:
            console.stdout.close()
            console.stdin.write((GET_REG_INFO % 1).encode() + b"\n")
            console.stdin.flush()
            self.assertEqual(console.wait(DEADLINE), 1)


class Network(ZelctlTest):
    def play_example(self, name, *arguments):
        return self.run_console("--data", self.data, *arguments, EXAMPLES / name)

    def test_the_network_session_is_answered_by_servers_on_loopback(self):
        result = self.play_example("network-session.jsonl", "--loopback")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        answers = [a for a in self.answers(result) if a[0] is not None]
        self.assertEqual(answers, [(1, 1, 0), (6, 2, 0), (7, 3, 0), (7, 4, 0), (8, 5, 0),
                                   (14, 7, 0), (16, 8, 0)])
        events = [m for m in self.replies(result) if "notify" in m]
        reports = [m["param"] for m in events if m["notify"] == 3]
        self.assertEqual([(r["current_level"], r["total_level"]) for r in reports], [(1, 2), (2, 2)])
        self.assertEqual({(r["result"], r["discard"]) for r in reports}, {(0, 0)})
        self.assertEqual([m["notify"] for m in events if m["notify"] > 3], [4, 5, 6, 7])
        for line in (self.data / "log/native_sdk.txt").read_text().splitlines():
            self.assertNotIn("secret", line)

    def test_places_without_loopback_are_what_the_file_says(self):
        result = self.play('{"cmd": ${NOWHERE:-11}, "sno": ${PROXY_PORT:-7}}\n{"cmd":11,"x":"${A}"}')
        self.assertEqual(self.answers(result), [(11, 7, 0), (11, None, 0)])

    def test_the_tracking_session_leaves_its_events_in_a_file(self):
        self.assertEqual(self.play_example("tracking-session.jsonl").returncode, 0)
        lines = (self.data / "log/ut_events.jsonl").read_text().splitlines()
        events = [json.loads(line)["eventId"] for line in lines]
        self.assertEqual(events, ["1", "join", "share", "call"])


class Loopback:
    """An HTTP server and a STUN responder, on threads that end with the block."""

    def __enter__(self):
        self._http = http.server.HTTPServer(("127.0.0.1", 0), QuietHandler)
        self._stun = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._stun.bind(("127.0.0.1", 0))
        self.http_port = self._http.server_port
        self.stun_port = self._stun.getsockname()[1]
        self._threads = [threading.Thread(target=self._http.serve_forever),
                         threading.Thread(target=self._answer)]
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._http.shutdown()
        self._http.server_close()
        self._stun.sendto(b"", ("127.0.0.1", self.stun_port))  # ends the loop
        for thread in self._threads:
            thread.join()
        self._stun.close()

    def _answer(self):
        while True:
            request, sender = self._stun.recvfrom(2048)
            if not request:
                return
            self._stun.sendto(b"\x01\x01" + request[2:], sender)


class QuietHandler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.end_headers()

    def log_message(self, *_):
        pass


class NetworkCommands(ZelctlTest):
    def setUp(self):
        super().setUp()
        self.peers = self.enterContext(Loopback())

    def ask(self, *arguments):
        result = self.run_console(*arguments, "--json")
        return result.returncode, json.loads(result.stdout)

    def test_net_tells_who_answers_and_leaves_the_rest_unmeasured(self):
        stun = f"127.0.0.1:{self.peers.stun_port}"
        code, (good, bad) = self.ask("net", stun, "name.invalid")
        self.assertEqual((code, good["result"], good["lostPercent"]), (1, 0, 0))
        self.assertEqual((bad["text"], bad["averageMs"]), ("name unknown", None))
        result = self.run_console("net", stun)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertIn(b"answers", result.stdout)

    def test_proxy_tells_the_way_that_the_library_takes(self):
        url = f"http://127.0.0.1:{self.peers.http_port}/"
        code, answer = self.ask("proxy", url, "--proxy", "127.0.0.1:1")
        self.assertEqual((code, answer["decision"], answer["direct"]["status"]), (0, "direct", 200))
        self.assertNotEqual(answer["proxy"]["result"], 0)
        code, answer = self.ask("proxy", "http://127.0.0.1:1/", "--proxy", "127.0.0.1:1")
        self.assertEqual((code, answer["decision"]), (1, None))
        self.assertIn(b"unknown", self.run_console(
            "proxy", "http://127.0.0.1:1/", "--proxy", "127.0.0.1:1").stdout)

    def test_wrong_usage_is_one_line(self):
        for arguments in [["net"], ["net", "--fast", "a"], ["net", *"abcde"], ["proxy"],
                          ["proxy", "u", "--proxy", "a"], ["proxy", "u", "--proxy", "a:65536"],
                          ["proxy", "u", "v"], ["proxy", "u", "--user"]]:
            result = self.run_console(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
            self.assert_diagnostic(result)


class LogView(ZelctlTest):
    LINE = "2026-11-21 10:00:0%d.000 1 %s [%s] [a b:1] %s"

    def setUp(self):
        super().setUp()
        self.logs = self.folder / "log"
        self.logs.mkdir()
        (self.logs / "a.txt").write_text("\n".join([
            self.LINE % (1, "I", "a", "one"), self.LINE % (4, "E", "a", "four"), "  more"]) + "\n")
        (self.logs / "a.1.txt").write_text(self.LINE % (0, "D", "a", "zero") + "\n")
        (self.logs / "b.txt").write_text(self.LINE % (2, "W", "b", "two") + "\n")
        (self.logs / "c.txt").symlink_to("/dev/zero")

    def view(self, *arguments):
        result = self.run_console("logs", "view", self.logs, *arguments)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return [line.split("] ")[-1] for line in result.stdout.decode().splitlines()]

    def test_lines_are_merged_by_time_and_chosen(self):
        self.assertEqual(self.view(), ["zero", "one", "two", "four", "  more"])
        self.assertEqual(self.view("--module", "b"), ["two"])
        self.assertEqual(self.view("--level", "W"), ["two", "four", "  more"])
        self.assertEqual(self.view("--since", "2026-11-21 10:00:02"), ["two", "four", "  more"])
        self.assertEqual(self.view("--until", "2026-11-21 10:00:01"), ["zero", "one"])

    def test_wrong_usage_is_one_line(self):
        for arguments in [[], [self.logs, "x"], ["missing"], [self.logs, "--level", "X"],
                          [self.logs, "--since", "today"], [self.logs, "--module"]]:
            result = self.run_console("logs", "view", *arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
            self.assert_diagnostic(result)

    def test_following_shows_what_comes(self):
        command = [ZELCTL, "logs", "view", str(self.logs), "-f", "--module", "b"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as console:
            self.assertIn("two", console.stdout.readline())
            with open(self.logs / "b.txt", "a") as log:
                log.write(self.LINE % (5, "I", "b", "five") + "\n")
            self.assertIn("five", console.stdout.readline())
            console.send_signal(signal.SIGINT)
            self.assertEqual(console.wait(DEADLINE), 0)


class Config(ZelctlTest):
    def test_settings_are_shown_as_the_library_reads_them(self):
        (self.folder / "config.txt").write_bytes(b"b=2 \nno sign\na=1=1\nb=3\nempty=")
        result = self.run_console("config", self.folder)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(result.stdout, b"a=1=1\nb=2 \nempty=\n")
        self.assertEqual(self.run_console("config", self.folder, "a").stdout, b"1=1\n")
        self.assertEqual(self.run_console("config", self.folder, "empty").returncode, 0)
        result = self.run_console("config", self.folder, "c")
        self.assertEqual((result.returncode, result.stdout), (1, b""))
        self.assert_diagnostic(result, "no setting", '"c"')

    def test_a_missing_file_is_made_and_anything_but_a_directory_refused(self):
        result = self.run_console("config", self.folder)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
        self.assertEqual(os.listdir(self.folder), ["config.txt"])
        for arguments in [[], [""], ["missing"], ["config.txt"], [self.folder, "a", "b"]]:
            result = self.run_console("config", *arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
            self.assert_diagnostic(result, "config needs")


class Usage(ZelctlTest):
    def refused(self, *arguments):
        result = self.run_console(*arguments)
        self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
        return result

    def test_help_goes_to_standard_output(self):
        result = self.run_console("--help")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertTrue(result.stdout.startswith(b"usage: zelctl "))

    def test_wrong_options_are_refused_with_one_line(self):
        self.assert_diagnostic(self.refused("--verbose", "-"), "unknown option", "--verbose")
        self.assert_diagnostic(self.refused("-", "--data"), "--data needs a value")
        self.assert_diagnostic(self.refused("--data=", "-"), "--data needs")
        self.assert_diagnostic(self.refused("a", "b"), "only one FILE")
        for timeout in ["0", "-1", "nan", "inf", "1e99", "2s", "", " 1"]:
            self.assert_diagnostic(self.refused("--timeout", timeout, "-"), "positive number")
        self.assertEqual(os.listdir(self.folder), [])

    def test_unreadable_input_is_refused_with_its_reason(self):
        self.assert_diagnostic(self.refused("no\nsuch"), "No such file", "\\u000a")
        self.assert_diagnostic(self.refused(self.folder), "it is a directory")
        self.assertEqual(os.listdir(self.folder), [])

    def test_a_data_directory_that_cannot_be_made_is_refused(self):
        (self.folder / "file").write_text("")
        for path in ["file", "file/below"]:
            self.assert_diagnostic(self.refused("--data", path, "-"), "Not a directory", "--data")
        # Longer than the library's field: it would use the root of the file system instead.
        self.assert_diagnostic(self.refused("--data", "x/" * 300, "-"), "longer than")
        self.assertEqual(os.listdir(self.folder), ["file"])


if __name__ == "__main__":
    unittest.main()
