#!/usr/bin/env python3
"""Compares what the built library shows to the dynamic linker with the kept list.

Usage: exports_test.py [--system-sqlite] LIBRARY EXPORTS
A line of the list is one symbol, demangled or not; blank lines and "#" lines do not count.
"""

import re
import subprocess
import sys

SECUREC = {"strcpy_s", "strncpy_s", "memcpy_s", "memset_s", "sprintf_s", "sscanf_s", "strtok_s"}

# What sanitizers and coverage add to every library that they build.
INSTRUMENTATION = re.compile(
    r"^_{2,3}(asan|odr_asan|lsan|tsan|ubsan|sanitizer|sancov|gcov|llvm|start_|stop_)")


def run(*command, text=None):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, input=text).stdout


def symbols(library, *options):
    """The names that nm lists, without their version tag, version names left out."""
    names = []
    for line in run("nm", "-D", *options, library).splitlines():
        match = re.match(r"^[0-9a-f ]*\s([A-Za-z])\s(.+)$", line)
        if match and match.group(1) != "A":
            names.append(re.sub(r"@{1,2}[A-Za-z0-9_.]+$", "", match.group(2)))
    return names


def demangled(names):
    """The same names in the same order, as c++filt reads them."""
    return run("c++filt", text="".join(name + "\n" for name in names)).splitlines()


def kept_list(path):
    with open(path, encoding="utf-8") as file:
        lines = [line.strip() for line in file]
    return {line for line in lines if line and not line.startswith("#")}


def compare_with_list(exported, kept):
    """Problems as texts: exported but not listed, listed but not exported."""
    readable = dict(zip(exported, demangled(exported)))
    problems = []
    for name in sorted(exported):
        if name not in kept and readable[name] not in kept:
            problems.append(f"+ exported, not in the list: {readable[name]}  ({name})")
    shown = set(readable) | set(readable.values())
    problems += [f"- in the list, not exported: {name}" for name in sorted(kept - shown)]
    return problems


def check_foreign_names(exported, imported, system_sqlite):
    """Names of bundled sources must neither leave the library nor be looked up outside."""
    problems = []
    for names, verb in ((exported, "exports"), (imported, "looks up")):
        for name in sorted(names):
            sqlite = name.startswith("sqlite3") and not (system_sqlite and verb == "looks up")
            if sqlite or name in SECUREC:
                problems.append(f"{verb} {name}")
    return problems


def check_dynamic_section(library):
    text = run("readelf", "-dW", library)
    wanted = {
        "the flag NODELETE": r"\(FLAGS_1\).*\bNODELETE\b",
        "SONAME libzel_utils.so.1": r"\(SONAME\).*\[libzel_utils\.so\.1\]",
        "NEEDED libzel_platform.so.1": r"\(NEEDED\).*\[libzel_platform\.so\.1\]",
    }
    return [f"lacks {what}" for what, pattern in wanted.items() if not re.search(pattern, text)]


def main(arguments):
    system_sqlite = "--system-sqlite" in arguments
    library, kept = (argument for argument in arguments if not argument.startswith("--"))
    kept = kept_list(kept)

    exported = {name for name in symbols(library, "--defined-only")
                if not INSTRUMENTATION.match(name)}
    imported = set(symbols(library, "--undefined-only"))
    if not exported or not kept:
        print(f"{library}: nothing exported or nothing listed", file=sys.stderr)
        return 1

    problems = compare_with_list(sorted(exported), kept)
    problems += check_foreign_names(exported, imported, system_sqlite)
    problems += check_dynamic_section(library)
    for problem in problems:
        print(problem)
    print(f"{library}: {len(exported)} symbols, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
