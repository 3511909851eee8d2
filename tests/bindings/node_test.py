"""The example in Node against the built library. Needs ZEL_UTILS_LIB and ZEL_ROOT."""

import json
import os
import pathlib
import shutil
import subprocess
import sys
import unittest

SKIPPED = 77
FOLDER = pathlib.Path(os.environ["ZEL_ROOT"]) / "examples/node"


class NodeTest(unittest.TestCase):
    def test_the_example_gets_its_replies_or_tells_that_the_library_is_missing(self):
        for library, status, said, expected in (
                (os.environ["ZEL_UTILS_LIB"], 0, "", [(6, 1, 0), (11, 2, 0)]),
                ("/nowhere/libzel_utils.so.1", 1, "/nowhere/libzel_utils.so.1", [])):
            done = subprocess.run([FOLDER / "run.sh"], capture_output=True, check=False, text=True,
                                  env={**os.environ, "ZEL_UTILS_LIB": library}, timeout=200)
            self.assertEqual(done.returncode, status, done.stderr)
            self.assertIn(said, done.stderr)
            replies = [json.loads(line) for line in done.stdout.splitlines()]
            self.assertEqual([(r["rsp"], r["sno"], r["result"]) for r in replies], expected)
        kept = {path.name for path in FOLDER.iterdir()}
        self.assertEqual(kept, {"host.js", "package.json", "run.sh"}, "kept of a registry")


if __name__ == "__main__":
    if not (shutil.which("node") and shutil.which("npm")):
        print("skipped: node or npm is not installed; scripts/setup.sh --tests does it")
        sys.exit(SKIPPED)
    unittest.main()
