#!/usr/bin/env python3
"""Writes the tables of docs/performance.md from what scripts/bench.sh has measured last."""
import json
import pathlib

ROOT = pathlib.Path(__file__).resolve().parent.parent
BEGIN = "<!-- tables -->\n"
END = "<!-- end of the tables -->\n"


def rounded(number):
    return f"{number:.{0 if number >= 99.95 else 1 if number >= 9.995 else 2}f}"


def time(us):
    if us >= 1000:
        return rounded(us / 1000) + " ms"
    return rounded(us) + " us" if us >= 1 else rounded(us * 1000) + " ns"


def goal(row):
    missed = ", missed" if row["ratio"] > row["goal"] + 0.004 else ""
    return f"{row['goal']:g}{missed}" if row["goal"] else ""


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def tables(bench):
    yield table(
        ["Work", "Ours", "Floor or peer", "Ratio", "Goal"],
        [[row["work"], time(row["oursUs"]), f"{time(row['peerUs'])}, {row['peer']}",
          f"{row['ratio']:.2f}", goal(row)] for row in bench["comparisons"]])
    yield "![Ratios and goals](figures/ratios.svg)\n"
    yield table(["Figure", ""], [[row["work"], row["figure"]] for row in bench["figures"]])
    yield "## Growth\n"
    yield "Each piece costs the same at 1, 10 and 100 times the number; the time of the whole is linear.\n"
    yield table(
        ["Work", "once", "10 times", "100 times"],
        [[row["work"], *(f"{p['size']:,}: {time(p['eachUs'])} each" for p in row["points"])]
         for row in bench["growth"]])
    yield "![Time of one piece](figures/growth.svg)\n"


def main():
    page = ROOT / "docs/performance.md"
    before, rest = page.read_text().split(BEGIN)
    after = rest.split(END)[1]
    bench = json.loads((ROOT / "build/bench.json").read_text())
    page.write_text(before + BEGIN + "\n".join(tables(bench)) + END + after)


main()
