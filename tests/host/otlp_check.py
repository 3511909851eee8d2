"""Reads what TRACK_HOST sends to nginx with protobuf's JSON mapping of the OTLP log messages."""

import gzip
import json
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

from google.protobuf import descriptor_pb2, descriptor_pool, json_format, message_factory

DEADLINE = 120  # seconds; only a hang takes that long
EVENTS = 1200
CONFIGURATION = """
daemon off;
%(user)s
worker_processes 1;
pid %(dir)s/pid;
error_log %(dir)s/error.log;
events {}
http {
  access_log off;
  client_max_body_size 8m;
  %(paths)s
  server {
    listen unix:%(dir)s/accept;
    location / { return 200 "{}"; }
  }
  server {
    listen 127.0.0.1:%(port)d;
    location /ok/ { client_body_in_file_only on; proxy_pass http://unix:%(dir)s/accept; }
    location /busy/ { add_header Retry-After 1 always; return 429; }
    location /down/ { return 503; }
    location /bad/ { return 400; }
    location /closed/ { return 444; }
    location /hang/ { proxy_pass http://127.0.0.1:%(silent)d; }
  }
}
"""

# Of the published messages what is sent, name and type of each field; "*" is a list.
MESSAGES = {
    "AnyValue": "string_value string, int_value int64",
    "KeyValue": "key string, value AnyValue",
    "Scope": "name string",
    "Resource": "attributes *KeyValue",
    "LogRecord": "time_unix_nano fixed64, observed_time_unix_nano fixed64, severity_number int32,"
                 "severity_text string, body AnyValue, attributes *KeyValue",
    "ScopeLogs": "scope Scope, log_records *LogRecord",
    "ResourceLogs": "resource Resource, scope_logs *ScopeLogs",
    "Request": "resource_logs *ResourceLogs",
}


def request_class():
    types = descriptor_pb2.FieldDescriptorProto
    file = descriptor_pb2.FileDescriptorProto(name="logs.proto", package="t", syntax="proto3")
    for name, fields in MESSAGES.items():
        message = file.message_type.add(name=name)
        for number, (field, kind) in enumerate(map(str.split, fields.split(",")), 1):
            added = message.field.add(name=field, number=number, label=types.LABEL_OPTIONAL)
            if kind.startswith("*"):
                added.label, kind = types.LABEL_REPEATED, kind[1:]
            if kind in MESSAGES:
                added.type_name = ".t." + kind
            else:
                added.type = types.Type.Value("TYPE_" + kind.upper())
    pool = descriptor_pool.DescriptorPool()
    pool.Add(file)
    request = pool.FindMessageTypeByName("t.Request")
    return message_factory.MessageFactory(pool).GetPrototype(request)


class OtlpCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="otlp.")
        self.addCleanup(folder.cleanup)
        self.data = pathlib.Path(folder.name, "data")
        self.data.mkdir()
        self.server = pathlib.Path(folder.name)
        sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(2)]
        for one in sockets:
            self.addCleanup(one.close)
        port, silent = (one.getsockname()[1] for one in sockets)
        self.url = f"http://127.0.0.1:{port}/"
        kinds = ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        (self.server / "nginx.conf").write_text(CONFIGURATION % {
            "dir": self.server, "port": port, "silent": silent,
            "user": "user root;" if os.geteuid() == 0 else "",
            "paths": "".join(f"{kind}_temp_path {self.server}/{kind};" for kind in kinds)})
        nginx = subprocess.Popen(  # which takes over a socket that listens already
            [shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin"),
             "-e", self.server / "error.log", "-c", self.server / "nginx.conf"],
            pass_fds=[sockets[0].fileno()], env={**os.environ, "NGINX": f"{sockets[0].fileno()};"})
        self.addCleanup(nginx.wait, DEADLINE)
        self.addCleanup(nginx.terminate)

    def track(self, count, place="ok"):
        subprocess.run(
            [os.environ["TRACK_HOST"], self.data, str(count)], timeout=DEADLINE, check=True,
            env={**os.environ, "OTEL_EXPORTER_OTLP_ENDPOINT": self.url + place})

    def received(self):
        """The log records that have come, in order; one that is sent again counts once."""
        records = {}
        for path in sorted(filter(pathlib.Path.is_file, self.server.glob("client_body/**/*"))):
            body = gzip.decompress(path.read_bytes()).decode()
            json_format.Parse(body, request_class()())  # refuses unknown fields and other types
            (resource_logs,) = json.loads(body)["resourceLogs"]
            self.assertEqual(resource_logs["resource"]["attributes"][0]["key"], "service.name")
            (scope_logs,) = resource_logs["scopeLogs"]
            self.assertLessEqual(len(scope_logs["logRecords"]), 512)
            for record in scope_logs["logRecords"]:
                values = {a["key"]: a["value"] for a in record["attributes"]}
                name = (values["session.id"]["stringValue"], values["sequence"]["intValue"])
                records.setdefault(name, {**record, "attributes": values})
        return records

    def received_in_the_end(self, count):
        until = time.monotonic() + DEADLINE
        while len(self.received()) < count and time.monotonic() < until:
            self.track(0)  # a program may end before all are sent
        return self.received()

    def test_every_event_arrives_once_complete_and_readable(self):
        before = time.time_ns()
        self.track(EVENTS)
        records = self.received_in_the_end(EVENTS)
        self.assertEqual((len(records), len({session for session, _ in records})), (EVENTS, 1))
        for number, record in enumerate(records.values()):
            self.assertEqual(record["body"], {"stringValue": "17"})
            self.assertLess(abs(int(record["timeUnixNano"]) - before), DEADLINE * 10**9)
            expected = {
                "sequence": {"intValue": str(number + 1)},
                "param": {"intValue": str(number)},
                "args": {"stringValue": '{"n":%d} \ufffd\ufffd "\\\x01\n\u20ac' % number},
                "arg2": None,
                "arg3": {"stringValue": ""},
                "version": {"stringValue": "1.2.3"},
                "cpu": {"stringValue": "c" * 64},
                "sdkAccount": {"stringValue": "the account"},
            }
            found = {key: record["attributes"].get(key) for key in expected}
            self.assertEqual(found, expected)

    def test_what_a_collector_does_not_take_now_arrives_later_and_what_it_refuses_never(self):
        places = ("busy", "down", "closed", "hang")
        for place in ("bad", *places):
            self.track(10, place)
        self.assertEqual(self.received(), {})
        for path in filter(pathlib.Path.is_file, self.data.rglob("*")):
            for text in (b"the account", b"1.2.3"):
                self.assertNotIn(text, path.read_bytes(), path)  # what waits is unreadable
        count = 10 * len(places) + 1
        self.track(1)
        self.assertEqual(len(self.received_in_the_end(count)), count)
        log = (self.data / "native_sdk.txt").read_text()
        self.assertEqual(log.count("10 events given up, status 400"), 1)


if __name__ == "__main__":
    unittest.main()
