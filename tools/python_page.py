#!/usr/bin/env python3
"""Writes the reference of the Python module's objects into docs/python.md, from their docstrings.

usage: python_page.py PAGE            writes it
       python_page.py PAGE --check    fails when the page has another one
"""

import dataclasses
import inspect
import sys
import typing
from pathlib import Path

import vswitchctl
from vswitchctl import host

BEGIN, END = "<!-- The reference, made by tools/python_page.py -->\n", "<!-- End of the reference -->\n"
OBJECTS = ("Host", "Switch", "Port", "Uplink", "Vlan", "Security", "EthFilter", "FilterRule", "PortLearning",
           "SwitchLearning", "Teaming", "PrivateVlan", "MirrorSession", "Statistics", "Missing", "PortsNotListed",
           "RecordNotPublished", "TransactionFailed")


def flat(doc):
    """A docstring as one line."""
    return " ".join(inspect.cleandoc(doc).split())


def type_text(annotation):
    text = annotation.__name__ if isinstance(annotation, type) and not typing.get_args(annotation) else str(annotation)
    for module in ("collections.abc.", "vswitchctl.host.", "vswitchctl.records.", "typing."):
        text = text.replace(module, "")
    return f"`{text}`".replace("|", "\\|")


def members(kind):
    """Name, type and meaning of what a class itself has for its users."""
    if dataclasses.is_dataclass(kind) and "__init__" in vars(kind):
        types = typing.get_type_hints(kind)
        for item in dataclasses.fields(kind):
            default = "" if item.default is dataclasses.MISSING else f"default `{item.default!r}`"
            yield item.name, type_text(types[item.name]), default
    for name, member in vars(kind).items():
        if isinstance(member, property):
            yield name, type_text(typing.get_type_hints(member.fget)["return"]), flat(member.__doc__)
        elif isinstance(member, host.Policy):
            yield name, type_text(typing.get_args(member.__orig_class__)[0]) + ", can be set", flat(member.doc)
        elif inspect.isfunction(member) and not name.startswith("_") and member.__doc__:
            arguments = ", ".join(str(p) for p in list(inspect.signature(member).parameters.values())[1:])
            yield f"{name}({arguments})".replace("|", "\\|"), "", flat(member.__doc__)


def reference():
    for name in OBJECTS:
        kind = getattr(vswitchctl, name)
        yield f"### {name}\n\n{flat(kind.__doc__)}\n"
        rows = [f"| `{member}` | {kind_text} | {meaning} |\n" for member, kind_text, meaning in members(kind)]
        if rows:
            yield "| name | type | meaning |\n|---|---|---|\n" + "".join(rows)


def main():
    page = Path(sys.argv[1])
    before, _, rest = page.read_text().partition(BEGIN)
    _, _, after = rest.partition(END)
    text = f"{before}{BEGIN}\n" + "\n".join(reference()) + f"\n{END}{after}"
    if "--check" not in sys.argv:
        page.write_text(text)
    elif text != page.read_text():
        sys.exit(f"{page} is not what the docstrings say: run tools/python_page.py {page}")


if __name__ == "__main__":
    main()
