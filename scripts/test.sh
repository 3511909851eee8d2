#!/usr/bin/env bash
# Builds everything and runs every test; the last lines are ctest's summary.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

"$root/scripts/setup.sh" --tests
"$root/scripts/build.sh" release -DZEL_BUILD_TESTS=ON -DZEL_BUILD_BENCH=OFF
cd "$root"
echo "test: running the tests of release" >&2
exec ctest --preset release --parallel 2
