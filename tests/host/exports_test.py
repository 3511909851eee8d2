#!/usr/bin/env python3
"""Compares what the built library shows to the dynamic linker with the kept list.

Usage: exports_test.py LIBRARY EXPORTS
"""

import pathlib
import re
import subprocess
import sys
import unittest

LIBRARY, LIST = sys.argv[1:3]
BUNDLED = r"^(sqlite3|(strn?cpy|mem(cpy|set)|s(printf|scanf)|strtok)_s$)"

# What sanitizers and coverage add to every library that they build.
INSTRUMENTATION = re.compile(
    r"_{2,3}(asan|odr_asan|lsan|tsan|ubsan|sanitizer|sancov|gcov|llvm|start_|stop_)")


def run(*command, text=None):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, input=text).stdout


def symbols(option):
    """The names that nm lists, without their version tag, version names left out."""
    lines = run("nm", "-D", option, LIBRARY).splitlines()
    names = {line.split()[-1].split("@")[0] for line in lines if line.split()[-2] != "A"}
    return {name for name in names if not INSTRUMENTATION.match(name)}


class ExportsTest(unittest.TestCase):
    def test_shows_the_kept_symbols_alone(self):
        kept = set(pathlib.Path(LIST).read_text().split())
        self.assertGreater(len(kept), 0)
        different = "\n".join(symbols("--defined-only") ^ kept)
        self.assertEqual(run("c++filt", text=different), "", "exported or in the list only")

    def test_names_of_bundled_sources_neither_leave_the_library_nor_are_looked_up_outside(self):
        for name in symbols("--defined-only") | symbols("--undefined-only"):
            self.assertNotRegex(name, BUNDLED)

    def test_stays_loaded_and_has_its_names(self):
        dynamic = run("readelf", "-dW", LIBRARY)
        for pattern in (r"\(FLAGS_1\).*\bNODELETE\b", r"\(SONAME\).*\[libzel_utils\.so\.1\]",
                        r"\(NEEDED\).*\[libzel_platform\.so\.1\]"):
            self.assertRegex(dynamic, pattern)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
