#!/usr/bin/env bash
# Draws the figures of the documents, and writes the tables of docs/performance.md, from what
# scripts/bench.sh and scripts/campaign.sh have measured last: those whose measurements are there.
# Needs gnuplot, which scripts/setup.sh --campaign installs.
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

# What the work costs against its floor or peer; the goals as marks.
plot_ratios() {
  local file=$root/build/bench.json
  [[ -f $file ]] || return 0
  python3 - "$file" <<'PYTHON' | gnuplot -e "
    set terminal svg size 900,1000 font 'sans,12' background 'white';
    set output '$figures/ratios.svg';
    set title 'Time, as a multiple of the floor or peer'; set key outside bottom horizontal;
    set logscale x 2; set grid x; set yrange [*:*] reverse; set offsets graph 0, graph 0.05, graph 0.02, graph 0.02; set tmargin 3;
    set style fill solid 0.6 noborder; set boxwidth 0.5; set lmargin 48;
    plot '-' using (0.5*(0.25+\$1)):0:(0.25):1:(\$0-0.3):(\$0+0.3):ytic(3) with boxxyerror lc rgb '#4878a8' title 'ours',
         '' using 2:0 with points pt 9 ps 1.2 lc rgb '#c04040' title 'goal'"
import json, sys
with open(sys.argv[1]) as file:
    rows = [row for row in json.load(file)["comparisons"] if row["goal"]]
for _ in range(2):
    for row in rows:
        print(row["ratio"], row["goal"], json.dumps(row["work"].replace("_", " ")))
    print("e")
PYTHON
}

# What one piece of the work costs at 1, 10 and 100 times its number.
plot_growth() {
  local file=$root/build/bench.json
  [[ -f $file ]] || return 0
  local works
  works=$(python3 -c 'import json, sys; print("\n".join(
    work["work"] for work in json.load(open(sys.argv[1])).get("growth", [])))' "$file")
  python3 - "$file" <<'PYTHON' | gnuplot -e "
    set terminal svg size 800,420 font 'sans,13' background 'white';
    set output '$figures/growth.svg';
    set title 'Time for one piece of the work'; set xlabel 'pieces'; set ylabel 'microseconds';
    set logscale xy; set grid; set key outside right;
    works = \"$(printf "'%s' " "${works//$'\n'/\' \'}")\";
    plot for [i=1:words(works)] '-' using 1:2 with linespoints lw 2 title word(works, i)"
import json, sys
with open(sys.argv[1]) as file:
    works = json.load(file).get("growth", [])
for work in works:
    for point in work["points"]:
        print(point["size"], point["eachUs"])
    print("e")
PYTHON
}

mkdir -p "$figures"
plot_soak
plot_ratios
plot_growth
[[ ! -f $root/build/bench.json ]] || "$root/scripts/bench_tables.py"
