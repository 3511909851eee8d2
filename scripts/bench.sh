#!/usr/bin/env bash
# Measures the library against the floor or a peer and prints one table. All of it also goes to
# build/bench.json, from which scripts/plots.sh draws.
#   scripts/bench.sh [NAME ...]   all benchmarks, or those named
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

"$root/scripts/setup.sh" --tests
"$root/scripts/build.sh" release --target zel_bench -DZEL_BUILD_BENCH=ON
[[ $# -gt 0 ]] || set -- --json "$root/build/bench.json"
exec "$root/build/release/bin/zel_bench" "$@"
