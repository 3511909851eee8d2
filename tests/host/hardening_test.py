#!/usr/bin/env python3
"""Reads the built files, ZEL_FILES: what hardens them must be there."""

import os
import subprocess
import unittest


def run(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


class HardeningTest(unittest.TestCase):
    def test_what_hardens_the_built_files(self):
        for path in os.environ["ZEL_FILES"].split(":"):
            with self.subTest(path):
                segments = run("readelf", "-lW", path)
                self.assertIn(" GNU_RELRO ", segments)
                self.assertRegex(segments, r"GNU_STACK .* RW +0x", "the stack can be executed")
                self.assertRegex(segments, r" LOAD .* R E ")
                self.assertNotRegex(segments, r" LOAD .*W ?E ")
                dynamic = run("readelf", "-dW", path)
                self.assertRegex(dynamic, r"FLAGS_1.*\bNOW\b", "symbols are bound late")
                self.assertNotIn("TEXTREL", dynamic)
                self.assertRegex(run("readelf", "-hW", path), r"Type:\s+DYN", "not at any address")
                wanted = run("nm", "-D", "--undefined-only", path)
                self.assertIn("__stack_chk_fail", wanted)
                self.assertRegex(wanted, r"__\w+_chk\b", "no _FORTIFY_SOURCE")


if __name__ == "__main__":
    unittest.main()
