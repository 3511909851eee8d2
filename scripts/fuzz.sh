#!/usr/bin/env bash
# Searches for inputs that break the library: every fuzz target in turn, the time shared evenly.
# Keeps findings in fuzz/findings/<target>, where the ordinary tests replay them, and then ends
# with 1. What the search learnt stays in build/fuzz/corpus, so the next one goes on from there.
#   scripts/fuzz.sh [--seconds N] [TARGET...]   N seconds for all targets together, else an hour
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

usage() {
  echo "usage: scripts/fuzz.sh [--seconds N] [TARGET...]" >&2
  exit 2
}

seconds=3600
if [[ ${1:-} == --seconds ]]; then
  [[ ${2:-} =~ ^[0-9]+$ ]] || usage
  seconds=$2
  shift 2
fi
for target; do
  [[ -e $root/fuzz/$target.cpp ]] || usage
done
targets=("$@")

readonly limits=(-max_len=4096 -rss_limit_mb=1024 -timeout=20)
readonly corpora=$root/build/fuzz/corpus
readonly logs=$root/build/fuzz/logs

"$root/scripts/setup.sh" --campaign
"$root/scripts/build.sh" fuzz --target fuzz_targets

# The targets write small files all the time: in memory where that can be.
memory=/dev/shm
[[ -w $memory ]] || memory=${TMPDIR:-/tmp}
work=$(mktemp -d "$memory/zel-fuzz-XXXXXX")
trap 'rm -rf "$work"' EXIT

# The last number behind `name` in the log of a target; "-" without one.
last_number() {
  grep -oE "$2 *[0-9]+" "$logs/$1.log" | grep -oE '[0-9]+$' | tail -n 1 || echo -
}

# Runs one target; its result is not 0 after a finding.
search() {
  local target=$1 directory
  local inputs=("$corpora/$target")
  for directory in "$root/fuzz/seeds/$target" "$root/fuzz/findings/$target"; do
    [[ ! -d $directory ]] || inputs+=("$directory")
  done
  # Requests start threads, and what a thread that is just ending holds looks leaked.
  local leaks=1
  [[ $target != request ]] || leaks=0
  mkdir -p "$corpora/$target" "$work/found/$target"
  TMPDIR=$work ASAN_OPTIONS=allocator_may_return_null=1 nice -n 10 \
    "$root/build/fuzz/bin/fuzz_$target" "${limits[@]}" -max_total_time="$share" \
    -detect_leaks="$leaks" \
    -print_final_stats=1 -artifact_prefix="$work/found/$target/" "${inputs[@]}" \
    >"$logs/$target.log" 2>&1
}

if [[ ${#targets[@]} -eq 0 ]]; then
  mapfile -t targets < <(cd "$root/build/fuzz/bin" && printf '%s\n' fuzz_* | sed 's/^fuzz_//')
fi
readonly share=$((seconds / ${#targets[@]} > 0 ? seconds / ${#targets[@]} : 1))
mkdir -p "$logs"
failed=no
printf '%-14s %12s %9s %9s %7s %9s\n' target executions coverage features corpus findings
for target in "${targets[@]}"; do
  findings=0
  if ! search "$target"; then
    failed=yes
    findings=$(find "$work/found/$target" -type f | wc -l)
    if [[ $findings -gt 0 ]]; then
      mkdir -p "$root/fuzz/findings/$target"
      cp "$work/found/$target"/* "$root/fuzz/findings/$target/"
    else
      findings=failed
    fi
  fi
  printf '%-14s %12s %9s %9s %7s %9s\n' "$target" \
    "$(last_number "$target" number_of_executed_units:)" "$(last_number "$target" cov:)" \
    "$(last_number "$target" ft:)" "$(last_number "$target" corp:)" "$findings"
done
[[ $failed == no ]] && exit
echo "fuzz: the reports are in build/fuzz/logs, the inputs in fuzz/findings" >&2
exit 1
