"""Holds what the library says and reads against docs/messages/messages.yaml.

Needs ZELCTL, the path of the console, and ZEL_UNIT_TESTS, the path of the unit tests.
"""

import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import jsonschema
import yaml

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENT = yaml.safe_load((ROOT / "docs/messages/messages.yaml").read_text(encoding="utf-8"))
MESSAGES = DOCUMENT["components"]["messages"]
SERVICE_TESTS = "CommonUtilServiceTest.*:CommandsTest.*:DetectTest.*"
COMMAND_BITS = 0x2FFFF
DEADLINE = 120  # seconds; only a hang takes that long


def outgoing(message):
    """The kinds of message that this may be."""
    if "notify" in message:
        return [n for n, m in MESSAGES.items() if m.get("x-notify") == message["notify"]]
    if "reason" in message:
        return ["errorReply"]
    if "rsp" not in message:
        return ["detectFailure"]
    return ["proxyReply" if message["rsp"] & COMMAND_BITS in (7, 8) else "reply"]


def requests(message):
    number = message["cmd"] & COMMAND_BITS
    return [n for n, m in MESSAGES.items() if m.get("x-cmd") == number]


def complaint(message, names):
    """What keeps the message from being one of those named; None when it is one."""
    schema = {"anyOf": [MESSAGES[name]["payload"] for name in names]}
    resolver = jsonschema.RefResolver("", DOCUMENT)
    errors = jsonschema.Draft7Validator(schema, resolver=resolver).iter_errors(message)
    return jsonschema.exceptions.best_match(errors)


def member_names(schema):
    if isinstance(schema, dict):
        yield from schema.get("properties", {})
        schema = list(schema.values())
    for part in schema if isinstance(schema, list) else []:
        yield from member_names(part)


class MessagesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="messages_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def output(self, *command, check=True, **variables):
        return subprocess.run(
            command, env={**os.environ, **variables}, timeout=DEADLINE, check=check, text=True,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout

    def check_outgoing(self, text):
        """The messages, one a line, which are all what they should be."""
        messages = [json.loads(line) for line in text.splitlines()]
        for message in messages:
            # The tests compose one reply with a payload of their own.
            if message.get("description") != "fallback":
                self.assertIsNone(complaint(message, outgoing(message)), message)
        return messages

    def test_what_the_service_sends_in_the_unit_tests(self):
        log = self.folder / "messages.jsonl"
        # Their own run tells whether they pass.
        self.output(os.environ["ZEL_UNIT_TESTS"], f"--gtest_filter={SERVICE_TESTS}", check=False,
                    ZEL_MESSAGE_LOG=str(log))
        sent = self.check_outgoing(log.read_text(encoding="utf-8"))
        self.assertEqual({m["notify"] for m in sent if "notify" in m}, {1, 3, 4, 5, 6, 7})

    def test_the_example_sessions(self):
        for session in sorted((ROOT / "examples").glob("*.jsonl")):
            text = re.sub(r"\$\{\w+:-([^}]*)\}", r"\1", session.read_text(encoding="utf-8"))
            sent = [json.loads(line) for line in text.splitlines() if line.startswith("{")]
            self.assertTrue(sent, session.name)
            wrong = [m for m in sent if complaint(m, requests(m))]
            # The first session shows one mistake and how it is answered.
            self.assertLessEqual(len(wrong), 1, wrong)
            self.check_outgoing(self.output(
                os.environ["ZELCTL"], "--data", self.folder / session.stem, "--loopback", session))

    def test_the_examples_of_the_document_are_what_they_show(self):
        for name, message in MESSAGES.items():
            for example in message.get("examples", []):
                self.assertIsNone(complaint(example["payload"], [name]))

    def test_no_handler_reads_or_writes_a_key_that_has_no_name_here(self):
        folder = ROOT / "commonutil/publicInc"
        table = (folder / "MessageKeys.h").read_text(encoding="utf-8")
        keys = set(re.findall(r'\w+\[\] = "(\w+)"', table.split("namespace message_event")[0]))
        for source in folder.glob("CommonUtil*.cpp"):
            text = source.read_text(encoding="utf-8")
            keys.update(re.findall(r'(?:param|entry|object)\["(\w+)"\]', text))
            keys.update(re.findall(r'(?:GetJson\w+|read)\([^;"]*"(\w+)"', text))
            keys.update(*re.findall(r'\{"(\w+)", "(\w+)"\}', text))
        self.assertGreater(len(keys), 50)
        self.assertEqual(keys, set(member_names(DOCUMENT["components"])))

    def test_the_pages_and_the_tables_of_the_console_are_fresh(self):
        for script in "messages.py", "codes.py":
            self.output(ROOT / "scripts" / script, "--check")

    def test_the_links_of_the_pages_have_an_end(self):
        for page in [ROOT / "README.md", *ROOT.glob("docs/*.md")]:
            for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text(encoding="utf-8")):
                self.assertTrue((page.parent / link).exists(), f"{page.name}: {link}")

    def test_the_platform_page_names_every_function_of_the_contract(self):
        page = (ROOT / "docs/platform.md").read_text(encoding="utf-8")
        declared = set()
        for header in ROOT.glob("platform/include/zel_platform/*.h"):
            text = re.sub(r"//.*|static_assert\([^;]*;", "", header.read_text(encoding="utf-8"))
            declared.update(re.findall(r"\b([A-Za-z]\w*_\w+|[A-Z]\w+|set\w+)\(", text))
        declared -= {"ZELCache", "LogStream"}  # constructors
        self.assertGreater(len(declared), 100)
        self.assertEqual({name for name in declared if f"`{name}`" not in page}, set())


if __name__ == "__main__":
    unittest.main()
