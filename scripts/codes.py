#!/usr/bin/python3
"""Makes docs/codes.md and tools/zelctl/CodeCatalogue.inc from docs/codes.yaml.

usage: scripts/codes.py [--check]    --check writes nothing and fails when one of them is stale
"""
import json
import pathlib
import sys
import textwrap

import yaml

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCE = ROOT / "docs/codes.yaml"
PAGE = ROOT / "docs/codes.md"
TABLE = ROOT / "tools/zelctl/CodeCatalogue.inc"
TEXTS = ("name", "where", "meaning", "cause", "remedy", "log")
LINE = 90  # room for indentation, quotes and comma within 100 columns

INTRODUCTION = """# Result codes

What this library returns and logs, ordered by number; `zelctl explain CODE` prints the same. A number
may stand for several results: the second column tells where each comes from. The texts of the last
column stand in `native_sdk.txt`.
"""
FAMILIES = """
## Codes of the SDK's other libraries

`CommonUtil::GetGlobalErrorCode` knows the codes of the SDK's libraries and hands each back as it is;
one that it does not know is logged as `unkown errCode:`. What they mean is documented by the library
that reports them. They fall into families:

| From | To |
|---|---|
"""


def cell(text):
    return text.replace("|", "\\|")


def page(document):
    lines = ["| Code | Name | Where | Meaning | Cause | Remedy | Log |", "|---|---|---|---|---|---|---|"]
    for entry in ordered(document):
        log = f"`{entry['log'].strip()}`" if entry["log"] else ""
        texts = [cell(entry[key]) for key in TEXTS[:-1]]
        texts[0] = f"`{texts[0]}`"
        lines.append(f"| {entry['code']} | " + " | ".join(texts + [cell(log)]) + " |")
    families = "".join(f"| {f['first']} | {f['last']} |\n" for f in document["families"])
    note = "<!-- Made by scripts/codes.py from docs/codes.yaml. -->\n"
    return note + INTRODUCTION + "\n" + "\n".join(lines) + "\n" + FAMILIES + families


def literal(text):
    """A C++ string literal, in several lines where it is long; the catalogue is ASCII."""
    parts = textwrap.wrap(text, LINE, drop_whitespace=False, break_on_hyphens=False) or [""]
    return "\n     ".join(json.dumps(part) for part in parts)


def table(document):
    lines = ["// Made by scripts/codes.py from docs/codes.yaml.", "// clang-format off",
             "constexpr CodeText kCodeTexts[] = {"]
    for entry in ordered(document):
        texts = ",\n     ".join(literal(entry[key]) for key in TEXTS)
        lines.append(f"    {{{entry['code']},\n     {texts}}},")
    lines += ["};", "constexpr CodeFamily kCodeFamilies[] = {"]
    lines += [f"    {{{f['first']}, {f['last']}}}," for f in document["families"]]
    return "\n".join(lines + ["};", "// clang-format on"]) + "\n"


def ordered(document):
    """By code; entries of one code in the order of the source."""
    return sorted(document["codes"], key=lambda entry: entry["code"])


def main(arguments):
    if arguments not in ([], ["--check"]):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    document = yaml.safe_load(SOURCE.read_text(encoding="ascii"))
    stale = False
    for path, text in ((PAGE, page(document)), (TABLE, table(document))):
        if not arguments:
            path.write_text(text, encoding="ascii")
        elif path.read_text(encoding="ascii") != text:
            print(f"{path.relative_to(ROOT)} is stale: run scripts/codes.py", file=sys.stderr)
            stale = True
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
