"""The example in Node against the built library. Needs ZEL_UTILS_LIB and ZEL_ROOT."""

import json
import os
import pathlib
import shutil
import subprocess
import sys
import unittest

SKIPPED = 77
ROOT = pathlib.Path(os.environ["ZEL_ROOT"])


class NodeTest(unittest.TestCase):
    def test_the_example_gets_its_replies_and_ends(self):
        done = subprocess.run([ROOT / "examples/node/run.sh"], text=True, capture_output=True,
                              check=False, timeout=200)
        self.assertEqual(done.returncode, 0, done.stderr)
        replies = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([(r["rsp"], r["sno"], r["result"]) for r in replies],
                         [(6, 1, 0), (11, 2, 0)])

    def test_a_missing_library_is_told_and_is_a_failure(self):
        done = subprocess.run([ROOT / "examples/node/run.sh"], text=True, capture_output=True,
                              check=False, timeout=200,
                              env={**os.environ, "ZEL_UTILS_LIB": "/nowhere/libzel_utils.so.1"})
        self.assertEqual(done.returncode, 1)
        self.assertIn("/nowhere/libzel_utils.so.1", done.stderr)

    def test_nothing_of_a_registry_is_kept(self):
        kept = {path.name for path in (ROOT / "examples/node").iterdir()}
        self.assertEqual(kept, {"host.js", "package.json", "run.sh"})


if __name__ == "__main__":
    missing = [tool for tool in ("node", "npm") if shutil.which(tool) is None]
    if missing:
        print(f"skipped: {' and '.join(missing)} not installed; scripts/setup.sh --tests does it")
        sys.exit(SKIPPED)
    unittest.main()
