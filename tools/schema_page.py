#!/usr/bin/env python3
"""Writes a manual page of a file format from its JSON schema.

usage: schema_page.py SCHEMA VERSION OUTPUT
"""

import json
import sys
from pathlib import Path

from manpages import block, escape


def kind(schema):
    if "title" in schema:
        return schema["title"]
    bounds = [f"{word} {schema[key]}" for word, key in (("at least", "minimum"), ("at most", "maximum"),
                                                         ("at most", "maxLength"), ("matching", "pattern"))
    if key in schema]
    words = " or ".join(map(json.dumps, schema.get("enum", [])))
    types = schema.get("type", "")
    base = words or (" or ".join(types) if isinstance(types, list) else types)
    return ", ".join([word for word in [base, *bounds] if word])


def fields(schema, root, path=""):
    """(path, schema, required) of every field, those of nested objects and lists behind their parent."""
    while "$ref" in schema:
        target = root
        for step in schema["$ref"].removeprefix("#/").split("/"):
            target = target[step]
        schema = {**target, **{key: value for key, value in schema.items() if key != "$ref"}}
    if path:
        yield path, schema
    for name, inner in schema.get("properties", {}).items():
        yield from fields(inner, root, f"{path}.{name}" if path else name)
    if isinstance(schema.get("additionalProperties"), dict):
        yield from fields(schema["additionalProperties"], root, f"{path}.NAME" if path else "NAME")
    if isinstance(schema.get("items"), dict):
        yield from fields(schema["items"], root, path + "[]")
    for alternative in schema.get("oneOf", []) + schema.get("anyOf", []):
        yield from fields({**alternative}, root, "") if not path else ()


def main():
    path, version, output = sys.argv[1:]
    schema = json.loads(Path(path).read_text())
    name, title = Path(output).stem, schema["title"]
    lines = [f'.TH {name.upper()} 5 "" "vswitchctl {version}" "vswitchctl"',
             f".SH NAME\n{name} \\- {escape(title[0].lower() + title[1:])}",
             f".SH DESCRIPTION\n{block(escape(schema.get('description', title)))}\n.SH FIELDS\n.ad l"]
    for field, inner in fields(schema, schema):
        if inner.get("description") or not field.endswith("[]"):
            about = f" ({escape(kind(inner))})" if kind(inner) else ""
            lines.append(f".TP\n\\fB{escape(field)}\\fP{about}\n{block(escape(inner.get('description', ''))) or '.'}")
    Path(output).write_text("\n".join(lines) + "\n.SH SEE ALSO\n.BR vsctl (1),\n.BR vshost (1),\n.BR vswitchctl (7)\n")


if __name__ == "__main__":
    main()
