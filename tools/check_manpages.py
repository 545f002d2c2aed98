#!/usr/bin/env python3
"""Fails when an operation of the version script lacks a manual page, or a page a section or a part of one.

usage: check_manpages.py VERSION_SCRIPT MAN_DIRECTORY
"""

import re
import subprocess
import sys
from pathlib import Path

SECTIONS = ["NAME", "SYNOPSIS", "DESCRIPTION", "ARGUMENTS", "RETURN VALUE", "EXAMPLE", "SEE ALSO"]


def faults(name, text):
    parts = dict(re.findall(r"^\.SH (.+)\n((?:(?!\.SH ).*\n)*)", text, re.M))
    for section in SECTIONS:
        if len(re.sub(r"\\f.|\\-|^\..*$|\s", "", parts.get(section, ""), flags=re.M)) < 5:
            yield f"section {section} is missing or empty"
    if not re.search(r"\\- \S{3}", parts.get("NAME", "")):
        yield "NAME says nothing"
    synopsis = parts.get("SYNOPSIS", "")
    for argument in re.findall(r"\\fI(\w+)\\fP[,)]", synopsis):
        if not re.search(rf"^\\fI{argument}\\fP \(.*\)\n\S", parts.get("ARGUMENTS", ""), re.M):
            yield f"argument {argument} is not described"
    returned = parts.get("RETURN VALUE", "")
    if f"VsStatus {name}" in synopsis and "\\fBSTATUS_OK\\fP" not in returned:
        yield "STATUS_OK is not among the return values"
    if re.search(r"^\.TP\n\\fB.*\n(\.|$)", returned, re.M):
        yield "a return value has no cause"
    if name not in parts.get("EXAMPLE", ""):
        yield "the example does not call it"


def main():
    script, directory = Path(sys.argv[1]).read_text(), Path(sys.argv[2])
    names = re.findall(r"^    (\w+);$", script, re.M)
    found = []
    for name in names:
        page = directory / "man3" / f"{name}.3"
        found += [f"{name}: {fault}"
                  for fault in (faults(name, page.read_text().replace("\\%", "")) if page.exists() else ["no page"])]
    found += [f"{page.stem}: not an operation" for page in (directory / "man3").iterdir() if page.stem not in names]
    pages = sorted([*directory.glob("man?/*"), *directory.parent.glob("**/*.[15]")])
    roff = subprocess.run(["groff", "-Kutf8", "-man", "-Tutf8", "-ww", "-z", *pages], capture_output=True, text=True)
    found += roff.stderr.splitlines()
    print("\n".join(found) or f"{len(names)} operations, {len(pages)} pages: all sections are present")
    return bool(found)


if __name__ == "__main__":
    sys.exit(main())
