#!/usr/bin/python3
"""Makes docs/codes.md and tools/zelctl/CodeCatalogue.inc from docs/codes.yaml.

usage: scripts/codes.py [--check]    --check writes nothing and fails when one of them is stale
"""
import sys

from generate import literal, main

TEXTS = ("name", "where", "meaning", "cause", "remedy", "log")

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


if __name__ == "__main__":
    sys.exit(main(__doc__, "docs/codes.yaml",
                  {"docs/codes.md": page, "tools/zelctl/CodeCatalogue.inc": table}))
