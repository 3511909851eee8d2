"""Runs the console's subcommands for support against the built library.

Needs ZELCTL, the path of the console, and ZEL_ROOT, the project's folder.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import yaml

ZELCTL = os.environ["ZELCTL"]
ROOT = pathlib.Path(os.environ["ZEL_ROOT"])
CODES = yaml.safe_load((ROOT / "docs/codes.yaml").read_text(encoding="ascii"))
DEADLINE = 120  # seconds; only a hang takes that long


class SupportTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="support_tools_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name).resolve()

    def run_console(self, *arguments, text=b""):
        return subprocess.run(
            [ZELCTL, *map(str, arguments)],
            input=text,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=DEADLINE,
            cwd=self.folder,
            check=False,
        )

    def succeed(self, *arguments, text=b""):
        result = self.run_console(*arguments, text=text)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout.decode()

    def fail_with(self, code, *arguments, says=""):
        """The command prints nothing but one line that holds `says`."""
        result = self.run_console(*arguments)
        self.assertEqual((result.returncode, result.stdout), (code, b""), arguments)
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("zelctl: "), lines)
        self.assertIn(says, lines[0])


class Catalogue(unittest.TestCase):
    HEADERS = {
        "commonutil/publicInc/ResultCode.h": r"\b(k\w+) = (-?\d+)",
        "platform/include/zel_platform/zorm.h": r"\b(kZorm\w+) = (\d+)",
        "platform/login/login_ref.h": r"\b(k\w+) = (\d+)",
        "platform/nettools/nettools_ref.h": r"\b(k\w+) = (\d+)",
    }

    def test_page_and_table_are_fresh(self):
        check = [sys.executable, "-B", ROOT / "scripts/codes.py", "--check"]
        result = subprocess.run(check, stderr=subprocess.PIPE, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, b""))

    def test_every_code_of_the_headers_has_a_text(self):
        texts = {(entry["name"], entry["code"]) for entry in CODES["codes"]}
        for header, pattern in self.HEADERS.items():
            declared = re.findall(pattern, (ROOT / header).read_text(encoding="utf-8"))
            self.assertGreater(len(declared), 1, header)
            for name, code in declared:
                self.assertIn((name, int(code)), texts, header)

    def test_the_lines_to_look_for_are_lines_that_are_written(self):
        sources = [p for part in ("commonutil", "platform") for p in (ROOT / part).rglob("*.cpp")]
        written = "\n".join(path.read_text(encoding="utf-8") for path in sources)
        for entry in CODES["codes"]:
            self.assertIn(re.sub(r"-?\d+$", "", entry["log"]), written, entry)


class Explain(SupportTest):
    def test_a_code_is_explained_with_cause_and_remedy(self):
        text = self.succeed("explain", "411000002")
        for part in ["411000002  kBadParameter\n", "\nmeaning  ", "\ncause    ", "\nremedy   "]:
            self.assertIn(part, text)
        self.assertEqual(self.succeed("explain", "kBadParameter"), text)
        self.assertLessEqual(max(map(len, self.succeed("explain", "1").splitlines())), 100)

    def test_json_holds_every_entry_of_the_catalogue(self):
        for code in {entry["code"] for entry in CODES["codes"]}:
            answer = json.loads(self.succeed("explain", code, "--json"))
            entries = [dict(e) for e in CODES["codes"] if e["code"] == code]
            for entry in entries:
                del entry["code"]
            self.assertEqual((answer["code"], answer["entries"]), (code, entries))

    def test_global_codes_without_a_text_are_known_with_their_family(self):
        families = {206030023: (200000000, 230999999), 118000000: (111000000, 118999999),
                    990000053: (910000000, 990999999)}
        for code, (first, last) in families.items():
            self.assertIn(f"{first} to {last}", self.succeed("explain", code))
            answer = json.loads(self.succeed("explain", "--json", code))
            self.assertEqual(answer["family"], {"first": first, "last": last})
            self.assertEqual((answer["global"], answer["entries"]), (True, []))
        self.assertIn("stands alone", self.succeed("explain", "100000429"))

    def test_unknown_codes_and_wrong_usage_are_one_line(self):
        for code in ["123", "415000004", "-5", "kNothing", "99999999999", "1x", ""]:
            self.fail_with(1, "explain", code, says="is no code")
        self.fail_with(2, "explain", says="explain needs one CODE")
        self.fail_with(2, "explain", "1", "2", says="explain needs one CODE")
        self.fail_with(2, "explain", "1", "--xml", says="unknown option")


if __name__ == "__main__":
    unittest.main()
