#!/usr/bin/env bash
# Compares the interface of the built library, types included, with the kept one.
#   scripts/abi.sh            fails when they differ
#   scripts/abi.sh --update   keeps the built one; for a change that is wanted
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root
readonly kept=$root/cmake/abi/zel_utils.abi
readonly build=$root/build/abi

if [[ $# -gt 1 || ${1:---update} != --update ]]; then
  echo "usage: scripts/abi.sh [--update]" >&2
  exit 2
fi

"$root/scripts/setup.sh" --tests
"$root/scripts/build.sh" abi --target zel_utils
# The installed headers tell what is public.
mkdir -p "$build/headers"
cmake --install "$build" --prefix "$build/headers" --component dev >"$build/install.log"

abidw --headers-dir "$build/headers/include" --drop-private-types --exported-interfaces-only \
  --no-corpus-path --no-comp-dir-path --no-show-locs --no-parameter-names --type-id-style hash \
  --out-file "$build/zel_utils.abi" "$build/lib/libzel_utils.so.1"

if [[ ${1:-} == --update ]]; then
  cp "$build/zel_utils.abi" "$kept"
  echo "abi: kept in cmake/abi/zel_utils.abi" >&2
elif ! abidiff "$kept" "$build/zel_utils.abi"; then
  echo "abi: the interface changed; if that is wanted: scripts/abi.sh --update" >&2
  exit 1
fi
