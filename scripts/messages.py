#!/usr/bin/python3
"""Makes docs/messages.md and tools/zelctl/MessageCatalogue.inc from docs/messages/messages.yaml.

usage: scripts/messages.py [--check]    --check writes nothing and fails when one of them is stale
"""
import json
import sys

from generate import literal, main

NOTE = "<!-- Made by scripts/messages.py from docs/messages/messages.yaml. -->\n"


def resolved(document, schema):
    """The schema that a $ref names, or the schema itself."""
    while "$ref" in schema:
        target = document
        for step in schema["$ref"].removeprefix("#/").split("/"):
            target = target[step]
        schema = target
    return schema


def type_text(schema):
    if "const" in schema:
        return "text" if isinstance(schema["const"], str) else "integer"
    if "enum" in schema:
        return "text"
    if "oneOf" in schema:
        return " or ".join(type_text(one) for one in schema["oneOf"])
    name = schema.get("type", "any")
    if name == "string":
        size = schema.get("x-bytes")
        return f"text, {size} bytes" if size else "text"
    if name == "integer":
        return "unsigned" if schema.get("minimum", -1) >= 0 else "integer"
    return {"array": "list"}.get(name, name)


def rows(document, schema, path=""):
    """(path, type, required, meaning) of every member, depth first."""
    schema = resolved(document, schema)
    for name, member in schema.get("properties", {}).items():
        member = resolved(document, member)
        here = f"{path}.{name}" if path else name
        needed = name in schema.get("required", [])
        yield here, type_text(member), needed, member.get("description", "")
        yield from rows(document, member, here)
        if "items" in member:
            yield from rows(document, member["items"], here + "[]")


def table(document, schema, skip=()):
    lines = ["| Key | Type | Required | Meaning |", "|---|---|---|---|"]
    for path, kind, needed, meaning in rows(document, schema):
        if path not in skip:
            lines.append(f"| `{path}` | {kind} | {'yes' if needed else ''} | {meaning} |")
    return lines if len(lines) > 2 else []


def section(document, heading, message, skip=()):
    lines = [f"### {heading}", ""]
    if "description" in message:
        lines += [message["description"].strip(), ""]
    keys = table(document, message["payload"], skip)
    lines += keys + [""] if keys else []
    for example in message.get("examples", []):
        lines += ["```json", json.dumps(example["payload"]), "```", ""]
    return lines


def page(document):
    messages = document["components"]["messages"]
    requests = [m for m in messages.values() if "x-cmd" in m]
    events = [m for m in messages.values() if "x-notify" in m]
    answers = [m for m in messages.values() if m not in requests and m not in events]
    common = ("cmd", "sno", "description", "param")

    lines = ["# Messages", "", document["info"]["description"].strip(), "", "## Requests", ""]
    lines += ["| `cmd` | Name in `zelctl` | What it does | Reply |", "|---|---|---|---|"]
    lines += [f"| {m['x-cmd']} | {m['x-name']} | {m['title']} | {m['x-reply']} |" for m in requests]
    lines += ["", "Every request may have a number `sno` and a text `description`, which its reply repeats. "
              "Other numbers up to", "33 are reserved.", ""]
    for message in requests:
        lines += section(document, f"{message['x-cmd']}: {message['title']}", message, common)
    lines += ["## Replies", ""]
    for message in answers:
        lines += section(document, message["title"], message)
    lines += ["## Notifications", "", "They have no `rsp`.", ""]
    for message in events:
        lines += section(document, f"{message['x-notify']}: {message['title']}", message,
                         ("description", "notify", "param"))
    lines += STATISTICS
    return NOTE + "\n".join(lines).rstrip() + "\n"


STATISTICS = [
    "## Statistics", "",
    "`CommonUtilStatistics` returns one object; all figures are counts.", "",
    "| Key | Meaning |", "|---|---|",
    "| `version` | of the library |",
    "| `requests`, `replies` | of the present service, absent without one: `stored`; `refused` or `dropped` by a "
    "full ring; `waiting` now; `highWater`, the most that ever waited |",
    "| `worker` | commands `run`, `queued` now, and `slow`: longer than 3 s |",
    "| `database` | `operations` and `failures` |",
    "| `proxy` | `probes` and those that got `through` |",
    "| `tracking` | `events` handed to the tracking library, and those it `refused` |",
]


def keys_of(document, schema, path=""):
    """(path, type, values, required, secret, meaning) of every member, depth first."""
    schema = resolved(document, schema)
    for name, member in schema.get("properties", {}).items():
        member = resolved(document, member)
        here = f"{path}.{name}" if path else name
        fixed = member.get("enum", [member["const"]] if "const" in member else [])
        if "boolean" in type_text(member):
            fixed = [True, False]
        if member.get("maximum", FEW) - member.get("minimum", 0) < FEW:
            fixed = range(member["minimum"], member["maximum"] + 1)
        yield (here, type_text(member), " ".join(json.dumps(value) for value in fixed),
               name in schema.get("required", []), member.get("format") == "password",
               member.get("description", ""))
        yield from keys_of(document, member, here)
        if "items" in member:
            yield from keys_of(document, member["items"], here + "[]")


def key_table(document, name, message):
    lines = [f"constexpr KeyText {name}[] = {{"]
    for path, kind, values, needed, secret, meaning in keys_of(document, message["payload"]):
        flags = f"{json.dumps(needed)}, {json.dumps(secret)}"
        lines.append(f"    {{{literal(path)}, {literal(kind)}, {literal(values)}, {flags},\n"
                     f"     {literal(meaning)}}},")
    return lines + ["};"]


def table_text(document):
    messages = document["components"]["messages"]
    requests = [m for m in messages.values() if "x-cmd" in m]
    events = [m for m in messages.values() if isinstance(m.get("x-notify"), int)]
    lines = ["// Made by scripts/messages.py from docs/messages/messages.yaml.", "// clang-format off"]
    for name in ("reply", "proxyReply"):
        lines += key_table(document, f"k{name[0].upper()}{name[1:]}Keys", messages[name])
    for message in requests:
        lines += key_table(document, f"kRequestKeys{message['x-cmd']}", message)
    for message in events:
        lines += key_table(document, f"kEventKeys{message['x-notify']}", message)
    lines.append("constexpr RequestText kRequestTexts[] = {")
    for m in requests:
        number, answer = m["x-cmd"], "kProxyReplyKeys" if m["x-cmd"] in PROXY_QUESTIONS else "kReplyKeys"
        texts = [m["x-name"], m["title"], m["x-reply"], " ".join(m.get("description", "").split()),
                 json.dumps(m["examples"][0]["payload"])]
        texts = ",\n     ".join(literal(text) for text in texts)
        lines.append(f"    {{{number}, {texts},\n     kRequestKeys{number}, {answer}}},")
    lines += ["};", "constexpr EventText kEventTexts[] = {"]
    for m in events:
        about = literal(" ".join(m["description"].split()))
        lines.append(f"    {{{m['x-notify']}, {literal(m['title'])},\n     {about},\n"
                     f"     kEventKeys{m['x-notify']}}},")
    return "\n".join(lines + ["};", "// clang-format on"]) + "\n"


PROXY_QUESTIONS = (7, 8)
FEW = 10  # values that are worth being listed


if __name__ == "__main__":
    sys.exit(main(__doc__, "docs/messages/messages.yaml",
                  {"docs/messages.md": page, "tools/zelctl/MessageCatalogue.inc": table_text}))
