"""Holds what the library says and reads against docs/messages/messages.yaml.

Needs ZELCTL, the path of the console, ZEL_UNIT_TESTS, the path of the unit tests, and ZEL_ROOT, the
project's folder.
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

ROOT = pathlib.Path(os.environ["ZEL_ROOT"])
DOCUMENT = yaml.safe_load((ROOT / "docs/messages/messages.yaml").read_text(encoding="utf-8"))
MESSAGES = DOCUMENT["components"]["messages"]
SERVICE_TESTS = "CommonUtilServiceTest.*:CommandsTest.*:DetectTest.*"
COMMAND_BITS = 0x2FFFF
DEADLINE = 120  # seconds; only a hang takes that long


def validator(name):
    return jsonschema.Draft7Validator(
        MESSAGES[name]["payload"], resolver=jsonschema.RefResolver("", DOCUMENT)
    )


def complaints(message, names):
    """What keeps the message from being one of those named; empty when it is one."""
    found = [jsonschema.exceptions.best_match(validator(name).iter_errors(message)) for name in names]
    return [] if None in found else [f"{n}: {e.message}" for n, e in zip(names, found)]


def outgoing(message):
    """The kinds of message that this may be."""
    if "notify" in message:
        return [n for n, m in MESSAGES.items() if m.get("x-notify") == message["notify"]]
    if "reason" in message:
        return ["errorReply"]
    if "rsp" not in message:
        return ["detectFailure"]
    asks_proxy = message["rsp"] & COMMAND_BITS in (7, 8)
    return ["proxyReply"] if asks_proxy else ["reply"]


def requests(number):
    return [n for n, m in MESSAGES.items() if m.get("x-cmd") == number]


def member_names(schema):
    if isinstance(schema, dict):
        yield from schema.get("properties", {})
        for part in schema.values():
            yield from member_names(part)
    elif isinstance(schema, list):
        for part in schema:
            yield from member_names(part)


class MessagesTest(unittest.TestCase):
    def check_outgoing(self, messages):
        for message in messages:
            self.assertEqual(complaints(message, outgoing(message)), [], message)

    def test_what_the_service_sends_in_the_unit_tests(self):
        with tempfile.TemporaryDirectory(prefix="messages_test.") as folder:
            log = pathlib.Path(folder) / "messages.jsonl"
            subprocess.run(
                [os.environ["ZEL_UNIT_TESTS"], "--gtest_brief=1", f"--gtest_filter={SERVICE_TESTS}"],
                env={**os.environ, "ZEL_MESSAGE_LOG": str(log)},
                stdout=subprocess.DEVNULL,
                timeout=DEADLINE,
                check=False,  # their own run tells whether they pass
            )
            sent = [json.loads(line) for line in log.read_text(encoding="utf-8").splitlines()]
        # The tests compose one reply with a payload of their own.
        sent = [message for message in sent if message.get("description") != "fallback"]
        self.assertEqual({m["notify"] for m in sent if "notify" in m}, {1, 3, 4, 5, 6, 7})
        self.check_outgoing(sent)

    def test_the_example_sessions(self):
        for session in sorted((ROOT / "examples").glob("*.jsonl")):
            text = re.sub(r"\$\{\w+:-([^}]*)\}", r"\1", session.read_text(encoding="utf-8"))
            lines = text.splitlines()
            sent = [json.loads(line) for line in lines if line.startswith("{")]
            self.assertTrue(sent, session.name)
            wrong = [m for m in sent if complaints(m, requests(m["cmd"] & COMMAND_BITS))]
            # The first session shows one mistake and how it is answered.
            self.assertLessEqual(len(wrong), 1, wrong)
            with tempfile.TemporaryDirectory(prefix="messages_test.") as folder:
                played = subprocess.run(
                    [os.environ["ZELCTL"], "--data", folder, *loopback(session), str(session)],
                    stdout=subprocess.PIPE,
                    stderr=subprocess.DEVNULL,
                    timeout=DEADLINE,
                    check=True,
                )
            self.check_outgoing(json.loads(line) for line in played.stdout.splitlines())

    def test_the_examples_of_the_document_are_what_they_show(self):
        for name, message in MESSAGES.items():
            for example in message.get("examples", []):
                self.assertEqual(complaints(example["payload"], [name]), [])

    def test_no_handler_reads_or_writes_a_key_that_has_no_name_here(self):
        folder = ROOT / "commonutil/publicInc"
        table = (folder / "MessageKeys.h").read_text(encoding="utf-8")
        table = table[: table.index("namespace message_event")]
        keys = set(re.findall(r'\w+\[\] = "(\w+)"', table))
        for source in folder.glob("CommonUtil*.cpp"):
            text = source.read_text(encoding="utf-8")
            keys |= set(re.findall(r'(?:param|entry|object)\["(\w+)"\]', text))
            keys |= set(re.findall(r'(?:GetJson\w+|read)\([^;"]*"(\w+)"', text))
            keys |= {key for pair in re.findall(r'\{"(\w+)", "(\w+)"\}', text) for key in pair}
        named = set(member_names(MESSAGES)) | set(member_names(DOCUMENT["components"]["schemas"]))
        self.assertGreater(len(keys), 50)
        self.assertEqual(keys - named, set())
        self.assertEqual(named - keys, set(), "named, but nobody reads or writes it")

    def test_the_page_and_the_table_of_the_console_are_fresh(self):
        subprocess.run([str(ROOT / "scripts/messages.py"), "--check"], timeout=DEADLINE, check=True)

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


def loopback(session):
    return ["--loopback"] if "${" in session.read_text(encoding="utf-8").replace("${DATA}", "") else []


if __name__ == "__main__":
    unittest.main()
