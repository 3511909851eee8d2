#!/usr/bin/env bash
# Runs the host in Node on the library in ZEL_UTILS_LIB, or on one that it builds. What the host
# depends on is fetched with npm, once, into build/node.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
readonly root
readonly modules=$root/build/node

if [[ -z ${ZEL_UTILS_LIB:-} ]]; then
  "$root/scripts/setup.sh" --tests
  "$root/scripts/build.sh" release --target zel_utils
  export ZEL_UTILS_LIB=$root/build/release/lib/libzel_utils.so.1
fi
# fetched.json comes last, so what is cut off is fetched again.
if ! cmp -s "$root/examples/node/package.json" "$modules/fetched.json"; then
  mkdir -p "$modules"
  cp "$root/examples/node/package.json" "$modules/package.json"
  npm install --prefix "$modules" --no-package-lock --ignore-scripts --no-audit --no-fund \
    --loglevel error >&2
  cp "$modules/package.json" "$modules/fetched.json"
fi
NODE_PATH=$modules/node_modules exec node "$root/examples/node/host.js"
