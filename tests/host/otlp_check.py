"""Sends events to nginx and reads them with protobuf's JSON mapping of the OTLP log messages.

Needs TRACK_HOST, the path of the program that tracks.
"""

import gzip
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

from google.protobuf import descriptor_pb2, descriptor_pool, json_format, message_factory

TRACK_HOST = os.environ["TRACK_HOST"]
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
  client_body_temp_path %(dir)s/bodies;
  proxy_temp_path %(dir)s/proxy;
  fastcgi_temp_path %(dir)s/fastcgi;
  uwsgi_temp_path %(dir)s/uwsgi;
  scgi_temp_path %(dir)s/scgi;
  client_max_body_size 8m;
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
    location /hang/ { proxy_pass http://unix:%(dir)s/hang; }
  }
}
"""

# The published messages: name, then number, name and type of each field; "*" is a list.
MESSAGES = {
    "ArrayValue": "1 values *AnyValue",
    "KeyValueList": "1 values *KeyValue",
    "AnyValue": "1 string_value string, 2 bool_value bool, 3 int_value int64, 4 double_value double,"
                "5 array_value ArrayValue, 6 kvlist_value KeyValueList, 7 bytes_value bytes",
    "KeyValue": "1 key string, 2 value AnyValue",
    "InstrumentationScope": "1 name string, 2 version string, 3 attributes *KeyValue,"
                            "4 dropped_attributes_count uint32",
    "Resource": "1 attributes *KeyValue, 2 dropped_attributes_count uint32",
    "LogRecord": "1 time_unix_nano fixed64, 2 severity_number int32, 3 severity_text string,"
                 "5 body AnyValue, 6 attributes *KeyValue, 7 dropped_attributes_count uint32,"
                 "8 flags fixed32, 9 trace_id bytes, 10 span_id bytes,"
                 "11 observed_time_unix_nano fixed64, 12 event_name string",
    "ScopeLogs": "1 scope InstrumentationScope, 2 log_records *LogRecord, 3 schema_url string",
    "ResourceLogs": "1 resource Resource, 2 scope_logs *ScopeLogs, 3 schema_url string",
    "ExportLogsServiceRequest": "1 resource_logs *ResourceLogs",
}


def request_class():
    types = descriptor_pb2.FieldDescriptorProto
    file = descriptor_pb2.FileDescriptorProto(name="logs.proto", package="t", syntax="proto3")
    for name, fields in MESSAGES.items():
        message = file.message_type.add(name=name)
        for number, field_name, kind in map(str.split, fields.split(",")):
            field = message.field.add(name=field_name, number=int(number))
            is_list, kind = kind.startswith("*"), kind.lstrip("*")
            field.label = types.LABEL_REPEATED if is_list else types.LABEL_OPTIONAL
            if kind in MESSAGES:
                field.type, field.type_name = types.TYPE_MESSAGE, ".t." + kind
            else:
                field.type = getattr(types, "TYPE_" + kind.upper())
            if name == "AnyValue":
                field.oneof_index = 0
        if name == "AnyValue":
            message.oneof_decl.add(name="value")
    pool = descriptor_pool.DescriptorPool()
    pool.Add(file)
    return message_factory.MessageFactory(pool).GetPrototype(
        pool.FindMessageTypeByName("t.ExportLogsServiceRequest")
    )


def value_of(any_value):
    return getattr(any_value, any_value.WhichOneof("value"))


class Nginx:
    def __init__(self, folder):
        self.folder = folder
        self.bodies = folder / "bodies"
        # Accepted by the system, answered by nobody.
        self.silent = socket.socket(socket.AF_UNIX)
        self.silent.bind(str(folder / "hang"))
        self.silent.listen(16)
        for _ in range(20):
            with socket.socket() as probe:
                probe.bind(("127.0.0.1", 0))
                self.port = probe.getsockname()[1]
            if self.start():
                return
        raise RuntimeError("nginx does not start: " + (folder / "error.log").read_text())

    def start(self):
        configuration = self.folder / "nginx.conf"
        user = "user root;" if os.geteuid() == 0 else ""
        (self.folder / "accept").unlink(missing_ok=True)
        configuration.write_text(
            CONFIGURATION % {"dir": self.folder, "port": self.port, "user": user}
        )
        nginx = shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin")
        self.process = subprocess.Popen([nginx, "-e", self.folder / "error.log", "-c", configuration])
        end = time.monotonic() + DEADLINE
        while self.process.poll() is None and time.monotonic() < end:
            try:
                socket.create_connection(("127.0.0.1", self.port)).close()
                return True
            except OSError:
                time.sleep(0.01)
        self.stop()
        return False

    def stop(self):
        self.process.terminate()
        self.process.wait(DEADLINE)

    def close(self):
        self.stop()
        self.silent.close()

    def take(self):
        """The bodies that came since the last call, unpacked, in the order they came."""
        taken = []
        for path in sorted(self.bodies.rglob("*")):
            if path.is_file():
                taken.append(gzip.decompress(path.read_bytes()))
                path.unlink()
        return taken


class OtlpCheck(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="otlp.")
        cls.addClassCleanup(folder.cleanup)
        cls.nginx = Nginx(pathlib.Path(folder.name))
        cls.addClassCleanup(cls.nginx.close)
        cls.request = request_class()

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="otlp_data.")
        self.addCleanup(folder.cleanup)
        self.data = pathlib.Path(folder.name)
        self.nginx.take()

    def track(self, place, count):
        endpoint = place if "://" in place else f"http://127.0.0.1:{self.nginx.port}/{place}"
        subprocess.run(
            [TRACK_HOST, self.data, str(count)],
            env={**os.environ, "OTEL_EXPORTER_OTLP_ENDPOINT": endpoint},
            timeout=DEADLINE,
            check=True,
        )

    def received(self):
        """All log records that came, as pairs of the record and its attributes."""
        records = []
        for body in self.nginx.take():
            message = json_format.Parse(body.decode(), self.request())  # refuses unknown fields
            for resource_logs in message.resource_logs:
                self.assertEqual(resource_logs.resource.attributes[0].key, "service.name")
                for scope_logs in resource_logs.scope_logs:
                    self.assertLessEqual(len(scope_logs.log_records), 512)
                    records += scope_logs.log_records
        return [(r, {a.key: value_of(a.value) for a in r.attributes}) for r in records]

    def received_in_the_end(self, count):
        """The first `count` different records. A program may end before all are sent, and one
        that ends before an answer sends them again at its next start."""
        found = {}
        end = time.monotonic() + DEADLINE
        while True:
            for record, attributes in self.received():
                found.setdefault((attributes["session.id"], attributes["sequence"]), (record, attributes))
            if len(found) >= count or time.monotonic() > end:
                return list(found.values())
            self.track("ok", 0)

    def test_every_event_arrives_once_complete_and_readable(self):
        before = time.time_ns()
        self.track("ok", EVENTS)
        records = self.received_in_the_end(EVENTS)
        self.assertEqual([a["sequence"] for _, a in records], list(range(1, EVENTS + 1)))
        self.assertEqual([a["param"] for _, a in records], list(range(EVENTS)))
        self.assertEqual(len({a["session.id"] for _, a in records}), 1)
        for number, (record, attributes) in enumerate(records):
            self.assertEqual(value_of(record.body), "17")
            self.assertLess(abs(record.time_unix_nano - before), DEADLINE * 10**9)
            self.assertEqual(
                attributes["args"], '{"n":%d} \ufffd\ufffd "\\\x01\n\u20ac' % number
            )
            self.assertEqual(attributes["arg3"], "")
            self.assertNotIn("arg2", attributes)
            self.assertEqual(attributes["version"], "1.2.3")
            self.assertEqual(attributes["cpu"], "c" * 64)
            self.assertEqual(attributes["sdkAccount"], "the account")

    def test_what_a_collector_does_not_take_now_arrives_later(self):
        places = ["busy", "down", "closed", "hang", "http://127.0.0.1:9"]
        for place in places:
            self.track(place, 10)
            self.assertEqual(self.nginx.take(), [])
        for path in filter(pathlib.Path.is_file, self.data.rglob("*")):
            for text in (b"the account", b"1.2.3"):
                self.assertNotIn(text, path.read_bytes(), path)  # what waits is unreadable
        self.track("ok", 1)
        count = 10 * len(places) + 1
        self.assertEqual(len(self.received_in_the_end(count)), count)

    def test_what_a_collector_refuses_is_given_up_with_one_line(self):
        self.track("bad", 10)
        self.track("ok", 1)
        self.assertEqual(len(self.received_in_the_end(1)), 1)
        log = (self.data / "native_sdk.txt").read_text()
        self.assertEqual(log.count("10 events given up, status 400"), 1)


if __name__ == "__main__":
    unittest.main()
