#!/usr/bin/env bash
# Builds the library and plays a session against it: the example, or what is given.
#   scripts/run.sh [--data DIR] [--timeout SECONDS] [--no-loopback] [FILE|-]
# The console serves what sessions of the network side need on loopback, unless told not to.
# Standard output carries the library's replies and notifications and nothing else.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

# Whether the console's arguments name no input.
lacks_input() {
  while [[ $# -gt 0 ]]; do
    case $1 in
      --data | --timeout) shift ;;
      -) return 1 ;;
      -*) ;;
      *) return 1 ;;
    esac
    [[ $# -eq 0 ]] || shift
  done
}

"$root/scripts/setup.sh"
"$root/scripts/build.sh" release --target zelctl -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_BENCH=OFF

loopback=(--loopback)
arguments=()
for argument in "$@"; do
  if [[ $argument == --no-loopback ]]; then
    loopback=()
  else
    arguments+=("$argument")
  fi
done
if lacks_input ${arguments[@]+"${arguments[@]}"}; then
  arguments+=("$root/examples/first-session.jsonl")
fi
arguments=(${loopback[@]+"${loopback[@]}"} "${arguments[@]}")
echo "run: zelctl ${arguments[*]}" >&2
exec "$root/build/release/bin/zelctl" "${arguments[@]}"
