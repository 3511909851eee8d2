#!/usr/bin/env bash
# Draws the figures of the documents from what the programs have measured last, those whose
# measurements are there.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root
readonly figures=$root/docs/figures

# Each second of the soak: resident memory, descriptors, threads.
plot_soak() {
  local file=$root/build/campaign/soak.json
  [[ -f $file ]] || return 0
  python3 - "$file" <<'PYTHON' | gnuplot -e "
    set terminal svg size 800,420 font 'sans,13' background 'white';
    set output '$figures/soak.svg';
    set title 'Full load from eight threads'; set xlabel 'minutes'; set key outside bottom horizontal;
    set ylabel 'resident memory, MB'; set yrange [0:]; set ytics nomirror;
    set y2label 'descriptors, threads'; set y2range [0:60]; set y2tics;
    plot '-' using 1:2 with lines lw 2 title 'resident memory',
         '' using 1:2 axes x1y2 with lines title 'descriptors',
         '' using 1:2 axes x1y2 with lines title 'threads'"
import json, sys
with open(sys.argv[1]) as file:
    soak = json.load(file)
for name, unit in (("resident_kb", 1024), ("descriptors", 1), ("threads", 1)):
    samples = soak[name]
    step = max(1, len(samples) // 400)
    for second in range(0, len(samples), step):
        print(second / 60, samples[second] / unit)
    print("e")
PYTHON
}

mkdir -p "$figures"
plot_soak
