#!/usr/bin/env bash
# Tries what can go wrong: hostile input, the end at any point, faults of every call, bad days of
# the machine, races, secrets left behind, and a long time of full load. Prints one table and ends
# with 1 after any finding; what was found stands in build/campaign/NAME.log and .json.
#   scripts/campaign.sh               an hour
#   scripts/campaign.sh --minutes N   the same shares of N minutes
#   scripts/campaign.sh --short       some three minutes
#   ... --only NAME                   that campaign alone, with its share of the time
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root
readonly results=$root/build/campaign

usage() {
  echo "usage: scripts/campaign.sh [--minutes N | --short] [--only NAME]" >&2
  exit 2
}

# Seconds of an hour. Those with 0 run once, whatever the time.
readonly names=(fuzz kill faults baddays storm secrets soak)
declare -A seconds=([fuzz]=720 [kill]=300 [faults]=180 [baddays]=0 [storm]=600 [secrets]=0 [soak]=1800)
minutes=60
only=
while [[ $# -gt 0 ]]; do
  case $1 in
    --minutes) minutes=${2:?} && shift ;;
    --short) seconds=([fuzz]=60 [kill]=15 [faults]=15 [baddays]=0 [storm]=20 [secrets]=0 [soak]=20) ;;
    --only) only=${2:?} && shift ;;
    *) usage ;;
  esac
  shift
done
[[ $minutes =~ ^[1-9][0-9]*$ ]] || usage
[[ -z $only || -n ${seconds[$only]:-} ]] || usage

# The thread sanitizer cannot place its memory where the kernel spreads addresses widely.
fixed_addresses=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
  fixed_addresses=(setarch "$(uname -m)" -R)
fi

wanted() { [[ -z $only || $only == "$1" ]]; }

"$root/scripts/setup.sh" --campaign
if [[ $only != fuzz && $only != storm ]]; then
  "$root/scripts/build.sh" release -DZEL_BUILD_CAMPAIGN=ON
fi
if wanted storm; then
  ${fixed_addresses[@]+"${fixed_addresses[@]}"} \
    "$root/scripts/build.sh" tsan --target campaign_storm -DZEL_BUILD_CAMPAIGN=ON
fi

# The executions and findings of all targets, from the table of scripts/fuzz.sh.
fuzz_as_json() {
  awk 'NR > 1 && NF == 6 { runs += $2; found += $6 == "failed" ? 1 : $6 }
       END { printf "{\"what\":\"fuzz\",\"rounds\":%.0f,\"findings\":[", runs
             for (i = 1; i <= found; ++i) printf "%s\"see build/fuzz/logs\"", i > 1 ? "," : ""
             print "]}" }' "$results/fuzz.log" >"$results/fuzz.json"
}

# Runs one campaign for its time; its result is not 0 after a finding.
run() {
  local name=$1 time=$2 result=0
  local command=("$root/build/release/bin/campaign_$name")
  case $name in
    fuzz)
      "$root/scripts/fuzz.sh" --seconds "$time" >"$results/fuzz.log" || result=$?
      fuzz_as_json
      return "$result"
      ;;
    storm)
      command=(${fixed_addresses[@]+"${fixed_addresses[@]}"} env TSAN_OPTIONS=halt_on_error=1
        "$root/build/tsan/bin/campaign_storm")
      ;;
  esac
  [[ $time -eq 0 ]] || command+=(--seconds "$time")
  "${command[@]}" --json "$results/$name.json" >"$results/$name.log" 2>&1
}

mkdir -p "$results"
failed=no
printf '%-10s %14s %8s  %s\n' campaign rounds seconds findings
for name in "${names[@]}"; do
  wanted "$name" || continue
  if [[ $name != fuzz && $name != storm && ! -x $root/build/release/bin/campaign_$name ]]; then
    printf '%-10s not built\n' "$name"
    continue
  fi
  time=$((seconds[$name] * minutes / 60))
  [[ ${seconds[$name]} -eq 0 || $time -gt 0 ]] || time=1
  rm -f "$results/$name.json"
  start=$SECONDS
  result=ok
  run "$name" "$time" || result=failed
  python3 - "$results/$name.json" "$name" $((SECONDS - start)) "$result" <<'PYTHON'
import json, sys
path, name, seconds, result = sys.argv[1:]
try:
    with open(path) as file:
        report = json.load(file)
except (OSError, ValueError):
    report = {"rounds": "-", "findings": []}  # ended by a signal or a sanitizer
findings = report["findings"]  # their number, or a text each
if isinstance(findings, list):
    findings = len(findings)
findings = findings or ("none" if result == "ok" else "failed")
print(f"{name:10} {report['rounds']:>14} {seconds:>8}  {findings}")
PYTHON
  [[ $result == failed ]] || continue
  failed=yes
  tail -n 40 "$results/$name.log" >&2
done
[[ $failed == no ]] && exit
echo "campaign: the reports are in build/campaign" >&2
exit 1
