#!/usr/bin/env bash
# Measures the library against the floor or a peer and prints one table.
#   scripts/bench.sh [NAME ...]   all benchmarks, or those named
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

"$root/scripts/setup.sh" --tests
"$root/scripts/build.sh" release --target zel_bench -DZEL_BUILD_BENCH=ON
exec "$root/build/release/bin/zel_bench" "$@"
