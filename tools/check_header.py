#!/usr/bin/env python3
"""Checks that the public header documents every operation, and that it exports what it declares.

Usage: check_header.py HEADER [VERSION_SCRIPT SHARED_OBJECT]
"""
import re
import subprocess
import sys

VERSION_NODE = "VSWITCHCTL_1.0"
DIRECTIONS = {"in", "out", "in,out"}
DECLARATION = re.compile(
    r"(?:/\*\*((?:(?!\*/).)*)\*/\s*)?^VSWITCHCTL_API\s+([\w\s]+?[\s*]+)(\w+)\s*\(([^)]*)\);", re.DOTALL | re.MULTILINE
)


def parameters(text):
    """Yields (name, is a pointer) of each named parameter."""
    for part in text.split(","):
        name = re.search(r"(\w+)\s*$", part)
        if name and part.strip() != "void":
            yield name[1], "*" in part


def tags(comment, tag):
    """Yields (argument in brackets, word, text) of each @tag, its text on one line."""
    pattern = rf"@{tag}(?:\[([^\]]*)\])?\s+(\S+)(.*?)(?=\n\s*@\w|\Z)"
    plain = re.sub(r"^[ \t]*\* ?", "", comment, flags=re.MULTILINE)
    for match in re.finditer(pattern, plain, re.DOTALL):
        yield match[1], match[2], " ".join(match[3].split())


def check_operation(comment, result, declared):
    description = re.sub(r"^\s*\*?", "", comment.split("@")[0], flags=re.MULTILINE).strip()
    if not description:
        yield "has no description"

    documented = list(tags(comment, "param"))
    names = [name for _, name, _ in documented]
    if names != [name for name, _ in declared]:
        yield f"declares ({', '.join(n for n, _ in declared)}) but documents ({', '.join(names)})"
    for direction, name, text in documented:
        if direction not in DIRECTIONS:
            yield f"parameter {name} has no direction [in], [out] or [in,out]"
        if not text:
            yield f"parameter {name} has no description"

    returned = list(tags(comment, "retval"))
    values = [value for _, value, _ in returned]
    yield from (f"{value} has no cause" for _, value, text in returned if not text)
    yield from (f"{value} is documented twice" for value in sorted(set(values)) if values.count(value) > 1)
    if result == "void":
        return
    if not values:
        yield "documents no result"
    if result == "VsStatus":
        if "STATUS_OK" not in values:
            yield "does not document STATUS_OK"
        pointers = {name for name, is_pointer in declared if is_pointer}
        required = [name for _, name, text in documented if name in pointers and "may be null" not in text]
        if required and "STATUS_BAD_PARAM" not in values:
            yield f"requires {', '.join(required)} but does not document STATUS_BAD_PARAM"


def check_documentation(header):
    """Returns (names of the operations, faults)."""
    operations, faults = set(), []
    for comment, result, name, arguments in DECLARATION.findall(header):
        if name in operations:
            faults.append(f"{name}: is declared twice")
        operations.add(name)
        declared = list(parameters(arguments))
        faults += [f"{name}: {fault}" for fault in check_operation(comment, result.strip(), declared)]
    marked = len(re.findall(r"^VSWITCHCTL_API\b", header, re.MULTILINE))
    if not operations or marked != len(operations):
        faults.append(f"{marked} declarations begin with VSWITCHCTL_API, but {len(operations)} can be read")
    known = set(re.findall(r"^#define (STATUS_\w+)", header, re.MULTILINE))
    for status in sorted(set(re.findall(r"\bSTATUS_[A-Z_]+\b", header)) - known):
        faults.append(f"{status}: is used but not defined")
    return operations, faults


def scripted_names(script):
    """Names that the node exports, or None without the node."""
    script = re.sub(r"/\*.*?\*/|#[^\n]*", "", script, flags=re.DOTALL)
    node = re.search(re.escape(VERSION_NODE) + r"\s*\{(.*?)\}", script, re.DOTALL)
    if not node:
        return None
    exported = re.sub(r"\blocal\s*:.*?(?=\bglobal\s*:|\Z)", "", node[1], flags=re.DOTALL)
    return set(re.findall(r"([\w*?]+)\s*;", exported))


def exported_names(shared_object):
    """Names of the defined symbols that other objects can see, without the version nodes themselves."""
    table = subprocess.run(["nm", "-D", "--defined-only", shared_object], check=True, capture_output=True, text=True)
    symbols = (line.split()[-2:] for line in table.stdout.splitlines())
    return {name.split("@")[0] for kind, name in symbols if kind != "A"}


def differences(operations, names, place):
    for name in sorted(operations - names):
        yield f"{name}: is in the header but not in {place}"
    for name in sorted(names - operations):
        yield f"{name}: is in {place} but not in the header"


def main(arguments):
    if len(arguments) not in (1, 3):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    with open(arguments[0], encoding="utf-8") as file:
        operations, faults = check_documentation(file.read())
    if len(arguments) == 3:
        with open(arguments[1], encoding="utf-8") as file:
            scripted = scripted_names(file.read())
        if scripted is None:
            faults.append(f"{arguments[1]}: has no node {VERSION_NODE}")
        else:
            faults += differences(operations, scripted, arguments[1])
        faults += differences(operations, exported_names(arguments[2]), arguments[2])
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except (OSError, UnicodeDecodeError, subprocess.CalledProcessError) as error:
        sys.exit(f"check_header.py: {error}")
