#!/usr/bin/env python3
"""Shows Doxygen a public header's plain comments as the documentation that they are.

Doxygen calls it with a file's path and reads the text from its output; the lines keep their
numbers. The comment that begins a header is the file's, a line "// --- Title ---" begins a group
of members, and what a header declares goes to the group of the site that GROUPS names.
"""

import pathlib
import re
import sys

# By the end of the path; the first that fits. The groups are in groups.dox.
GROUPS = {
    "publicInc/CommonUtilEntry.h": "messages",
    "CommonUtil.h": "facade",
    "publicInc/CommonUtilCallbacks.h": "facade",
    "publicInc/CommonUtilData.h": "facade",
    "publicInc/CommonUtilTrackData.h": "facade",
    "proxy/ProxyInfo.h": "facade",
    "publicInc/CommonUtilPrivateManager.h": "cache",
    "cacheDB/CommonUtilDBInterface.h": "cache",
    "publicInc/CommonUtilGlobalErrorCode.h": "codes",
    "publicInc/ResultCode.h": "codes",
}
HEADING = re.compile(r"^\s*// --- (.+?) -*$")


def group_of(path):
    if "zel_platform" in path.parts:
        return f"contract_{path.stem}"
    return next((group for end, group in GROUPS.items() if str(path).endswith("/" + end)), "helpers")


def prose(text):
    """A comment's text with what Doxygen would take for markup escaped, except in `code`."""
    parts = text.split("`")
    parts[::2] = [re.sub(r"([\\@<>%#*&])", r"\\\1", part) for part in parts[::2]]
    return "`".join(parts)


def comment_line(line):
    """One line with its plain comment, if it has one, marked as documentation."""
    if match := re.match(r"^(\s*)//(?!/)(.*)$", line):
        return f"{match[1]}///{prose(match[2])}"
    if (match := re.match(r"^(\s*[^\s#}/*].*?)  // (.*)$", line)) and '"' not in match[1]:
        return f"{match[1]}  ///< {prose(match[2])}"
    if match := re.match(r"^(\s*)/\*(?!\*)(.*?)(\*/)?$", line):
        return f"{match[1]}/**{prose(match[2])}{match[3] or ''}"
    if match := re.match(r"^ \*(?!/)(.*)$", line):
        return f" *{prose(match[1])}"
    return line


def with_member_groups(lines):
    """Headings as Doxygen's @name, opened and closed in the blank lines around them."""
    is_open = False
    for number, line in enumerate(lines):
        if match := HEADING.match(line):
            before = number - 1
            if is_open:
                lines[before] = "/** @} */"
            lines[number] = f"/// @name {match[1]}"
            lines[lines.index("", number)] = "/** @{ */"
            is_open = True
        elif is_open and re.match(r"^(}| (private|protected):)", line):
            lines[number] = f"/** @}} */ {line}"
            is_open = False
    return lines


def main(path):
    lines = path.read_text(encoding="utf-8").split("\n")
    if path.suffix != ".h":
        if lines[0].startswith("<!--"):  # a page's title is its first line
            lines[0] = ""
        print("\n".join(lines), end="")
        return
    lines = [line if HEADING.match(line) else comment_line(line) for line in lines]
    lines[0] = re.sub(r"^(/// ?|/\*\*)", rf"/** @file {path.parent.name}/{path.name} */ \1", lines[0])
    lines = with_member_groups(lines)
    lines[lines.index("")] = f"/** @addtogroup {group_of(path)} */ /** @{{ */"
    print("\n".join(lines) + "/** @} */")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]))
