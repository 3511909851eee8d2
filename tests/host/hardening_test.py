#!/usr/bin/env python3
"""Reads the built files: what hardens them must be there.

The paths come from ZEL_FILES, separated by colons.
"""

import os
import subprocess
import unittest


FILES = os.environ["ZEL_FILES"].split(":")


def run(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


class HardeningTest(unittest.TestCase):
    def test_segments(self):
        for path in FILES:
            with self.subTest(path):
                segments = [line.split() for line in run("readelf", "-lW", path).splitlines()]
                names = {words[0] for words in segments if words}
                self.assertIn("GNU_RELRO", names)
                stack = next(words for words in segments if words[:1] == ["GNU_STACK"])
                self.assertEqual(stack[-2], "RW", "the stack can be executed")
                flags = ["".join(words[6:-1]) for words in segments if words[:1] == ["LOAD"]]
                self.assertTrue(flags)
                self.assertFalse([text for text in flags if "W" in text and "E" in text])

    def test_binding_and_checks_of_the_compiler(self):
        for path in FILES:
            with self.subTest(path):
                dynamic = run("readelf", "-dW", path)
                self.assertRegex(dynamic, r"FLAGS_1.*\bNOW\b", "symbols are bound late")
                self.assertNotIn("TEXTREL", dynamic)
                self.assertRegex(run("readelf", "-hW", path), r"Type:\s+DYN", "not at any address")
                wanted = run("nm", "-D", "--undefined-only", path)
                self.assertIn("__stack_chk_fail", wanted)
                self.assertRegex(wanted, r"__\w+_chk\b(?<!stack_chk_fail)", "no _FORTIFY_SOURCE")


if __name__ == "__main__":
    unittest.main()
