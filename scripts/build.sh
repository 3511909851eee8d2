#!/usr/bin/env bash
# Configures and builds one preset. What the tools say goes to build/<preset>.log and is shown
# only when a step fails.
#   scripts/build.sh PRESET [--target NAME] [-DNAME=VALUE ...]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

if [[ $# -eq 0 || $1 == -* ]]; then
  echo "usage: scripts/build.sh PRESET [--target NAME] [-DNAME=VALUE ...]" >&2
  exit 2
fi
readonly preset=$1
shift
target=()
if [[ ${1:-} == --target ]]; then
  target=(--target "${2:?--target needs a name}")
  shift 2
fi

mkdir -p "$root/build"
readonly log=$root/build/$preset.log
: >"$log"

logged() {
  "$@" >>"$log" 2>&1 && return
  cat "$log" >&2
  echo "build: failed: $*; the log is build/$preset.log" >&2
  exit 1
}

# Presets are looked up in the current directory.
cd "$root"
echo "build: configuring $preset" >&2
logged cmake --preset "$preset" "$@"
echo "build: compiling $preset" >&2
logged cmake --build --preset "$preset" --parallel 2 ${target[@]+"${target[@]}"}
