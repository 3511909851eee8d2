"""Sends events to nginx and reads them with protobuf's JSON mapping of the OTLP log messages.

Needs TRACK_HOST, the path of the program that tracks.
"""

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
    location / { client_body_in_file_only on; proxy_pass http://unix:%(dir)s/accept; }
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
        # nginx takes over a socket that listens already.
        listening = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listening.close)
        self.url = "http://127.0.0.1:%d/" % listening.getsockname()[1]
        kinds = ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        (self.server / "nginx.conf").write_text(CONFIGURATION % {
            "dir": self.server, "port": listening.getsockname()[1],
            "user": "user root;" if os.geteuid() == 0 else "",
            "paths": "".join(f"{kind}_temp_path {self.server}/{kind};" for kind in kinds)})
        nginx = subprocess.Popen(
            [shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin"),
             "-e", self.server / "error.log", "-c", self.server / "nginx.conf"],
            pass_fds=[listening.fileno()], env={**os.environ, "NGINX": f"{listening.fileno()};"})
        self.addCleanup(nginx.wait, DEADLINE)
        self.addCleanup(nginx.terminate)

    def track(self, count):
        subprocess.run(
            [os.environ["TRACK_HOST"], self.data, str(count)], timeout=DEADLINE, check=True,
            env={**os.environ, "OTEL_EXPORTER_OTLP_ENDPOINT": self.url})

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

    def test_every_event_arrives_once_complete_and_readable(self):
        before = time.time_ns()
        self.track(EVENTS)
        while len(self.received()) < EVENTS and time.time_ns() - before < DEADLINE * 10**9:
            self.track(0)  # a program may end before all are sent
        records = self.received()
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


if __name__ == "__main__":
    unittest.main()
