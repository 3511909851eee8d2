"""What the scripts share that make a page and a table of the console from one document."""
import json
import pathlib
import sys
import textwrap

import yaml

ROOT = pathlib.Path(__file__).resolve().parent.parent
LINE = 88  # room for indentation, quotes and comma within 100 columns


def literal(text):
    """A C++ string literal, in several where it is long; the catalogue is ASCII."""
    parts = textwrap.wrap(text, LINE, drop_whitespace=False, break_on_hyphens=False) or [""]
    return "\n     ".join(json.dumps(part) for part in parts)


def main(usage, source, makers):
    """Writes what each maker, by its path, makes of the document; with --check only compares."""
    arguments = sys.argv[1:]
    if arguments not in ([], ["--check"]):
        print(usage.strip(), file=sys.stderr)
        return 2
    document = yaml.safe_load((ROOT / source).read_text(encoding="utf-8"))
    stale = False
    for name, make in makers.items():
        path, text = ROOT / name, make(document)
        if not arguments:
            path.write_text(text, encoding="utf-8")
        elif path.read_text(encoding="utf-8") != text:
            print(f"{name} is stale: run {sys.argv[0]}", file=sys.stderr)
            stale = True
    return 1 if stale else 0
