#!/usr/bin/env python3
"""Writes a manual page for each operation and an overview from the header's documentation.

usage: manpages.py XML_DIRECTORY HEADER OUTPUT_DIRECTORY VERSION
"""

import re
import sys
from pathlib import Path

import example
import header

DIRECTIONS = {"in": "in", "out": "out", "inout": "in and out", "": "in"}
SPACE = re.compile(r"\s+")


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")
    return re.sub(r"(?<![^\s(])(?=\w*(?:_|[a-z][A-Z]))", r"\\%", text)  # names are not hyphenated


def rich(node):
    """An element's text with its markup, as roff; list items become paragraphs of their own."""
    out = [escape(SPACE.sub(" ", node.text or ""))]
    for child in node:
        inner = rich(child)
        if child.tag in ("computeroutput", "bold"):
            inner = f"\\fB{inner}\\fP"
        elif child.tag in ("emphasis", "ref"):
            inner = f"\\fI{inner}\\fP"
        elif child.tag in ("programlisting", "verbatim", "preformatted"):
            text = header.listing(child) if child.tag == "programlisting" else child.text.strip("\n")
            inner = f"\n{verbatim(text)}\n.PP\n"
        elif child.tag == "orderedlist":
            inner = "".join(f"\n.TP\n{number}.\n{rich(item).strip()}" for number, item in enumerate(child, 1))
        elif child.tag == "itemizedlist":
            inner = "".join(f"\n.IP \\(bu 2\n{rich(item).strip()}" for item in child)
        out += [inner, escape(SPACE.sub(" ", child.tail or ""))]
    return re.sub(r"\n +|\n\.PP\n$", "\n", "".join(out))


def block(text):
    """A paragraph that roff does not take for a request."""
    return re.sub(r"^(?=['.](?![A-Z]))", r"\\&", text.strip())


def verbatim(text):
    lines = re.sub(r"^(?=['.])", r"\\&", escape(text), flags=re.M)
    return ".PP\n.in +4n\n.nf\n" + lines + "\n.fi\n.in"


def section(title, *lines):
    return [f".SH {title}\n.ad l", *(lines or ("None.",))]


def page(name, number, version, *sections):
    title = f'.TH {name.upper()} {number} "" "vswitchctl {version}" "vswitchctl"'
    return "\n".join(["'\\\" t", title, *(line for part in sections for line in part)]) + "\n"


def short(brief):
    """What fits behind the name: the sentence up to its first colon, semicolon or bracket."""
    sentence = re.split(r"[:;.](?:\s|$)| \(", brief)[0]
    return sentence[:1].lower() + sentence[1:]


def record_lines(record):
    yield f".PP\n\\fB{record.name}\\fP: {escape(record.brief)}"
    for kind, name, size, text in record.fields:
        array = f"[{size}]" if size else ""
        yield f".TP\n{escape(kind)}{'' if kind.endswith('*') else ' '}\\fI{name}\\fP{array}\n{block(escape(text))}"


def related(operation, family):
    kin = [other.name for other in family if other is not operation]
    names = dict.fromkeys([name for name in operation.mentions if name.startswith(("VS", "DVS", "ZOR"))
                           and name != "VsStatus" and name != operation.name] + kin)
    pages = [f"\\fB\\%{name}\\fP(3)" for name in names] + ["\\fBvswitchctl\\fP(7)"]
    return ",\n".join(pages)


def argument(parameter):
    base = parameter.type.rstrip("* ")
    stars = parameter.type[len(base):].strip()
    return "..." if parameter.name == "..." else f"\\fB\\%{base}\\fP \\%\\fB{stars}\\fI{parameter.name}\\fP"


def operation_page(operation, reference, version):
    separator = "" if operation.returns.endswith("*") else " "
    arguments = ", ".join(argument(parameter) for parameter in operation.parameters) or "\\fBvoid\\fP"
    used = [record for record in reference.records.values()
            if any(re.search(rf"\b{record.name}\b", p.type + header.plain(p.text)) for p in operation.parameters)]
    return page(
        operation.name, 3, version,
        section("NAME", f"{operation.name} \\- {escape(short(operation.brief))}".replace("\\%", "")),
        section("SYNOPSIS", ".nf\n.B #include <vswitchctl.h>\n.fi\n.PP\n.HP 4",
                f"\\fB{operation.returns}{separator}{operation.name}\\fP({arguments});",
                ".PP\nLink with \\fI\\-lvswitchctl\\fP; \\fBpkg\\-config \\-\\-libs vswitchctl\\fP gives all flags."),
        section("DESCRIPTION", block(escape(operation.brief)),
                *(".PP\n" + block(rich(para)) for para in operation.details)),
        section("ARGUMENTS", *(f".TP\n\\fI{p.name}\\fP ({DIRECTIONS[p.direction]})\n{block(rich(p.text))}"
                               for p in operation.parameters if p.text is not None)),
        section("RETURN VALUE",
                *(f".TP\n\\fB{escape(name or 'Otherwise')}\\fP{value(name, reference)}\n{block(rich(text))}"
                  for name, text in operation.statuses)),
        section("RECORDS", *(line for record in used for line in record_lines(record))) if used else [],
        section("EXAMPLE", verbatim(example.of(operation))),
        section("SEE ALSO", related(operation, reference.families[operation.family])))


def value(name, reference):
    return f" ({reference.constants[name][0].removesuffix('u')})" if name in reference.constants else ""


def overview(reference, version):
    families = []
    for title, operations in reference.families.items():
        if operations:
            families.append(f".SS {escape(title)}")
            families += [f".TP\n\\fB{o.name}\\fP(3)\n{block(escape(short(o.brief)))}" for o in operations]
    statuses = [f".TP\n\\fB{name}\\fP ({number.removesuffix('u')})\n{block(escape(text))}"
                for name, (number, text) in reference.constants.items() if name.startswith("STATUS_")]
    return page(
        "vswitchctl", 7, version,
        section("NAME", "vswitchctl \\- control of the virtual switches of a hypervisor host"),
        section("DESCRIPTION", *(".PP\n" + block(rich(para)) for para in reference.about)),
        section("OPERATIONS", *families),
        section("RECORDS", *(line for record in reference.records.values() for line in record_lines(record))),
        section("STATUS CODES", *statuses),
        section("SEE ALSO", "\\fBvsctl\\fP(1),\n\\fBvshost\\fP(1)"))


def main():
    xml, source, output, version = sys.argv[1:]
    reference = header.read(xml, source)
    for number in "37":
        (Path(output) / f"man{number}").mkdir(parents=True, exist_ok=True)
    for operation in reference.operations:
        path = Path(output) / "man3" / f"{operation.name}.3"
        path.write_text(operation_page(operation, reference, version))
    (Path(output) / "man7/vswitchctl.7").write_text(overview(reference, version))


if __name__ == "__main__":
    main()
