#!/usr/bin/env python3
"""Writes a manual page of a command from its own help texts, and what the help doesn't say from a file of roff.

usage: command_page.py PROGRAM VERSION MORE OUTPUT
"""

import re
import subprocess
import sys
from pathlib import Path

from manpages import block, escape


def help_of(program, *words):
    text = subprocess.run([program, *words, "--help"], capture_output=True, text=True, check=True).stdout
    about, _, rest = text.partition("Usage: ")
    usage, _, rest = rest.partition("\n")
    parts = {}
    for title, lines in re.findall(r"^([A-Z]\w+):\n((?:  .*\n?)*)", rest, re.M):
        lines = re.sub(r"\n {20,}", "  ", lines)  # a description on a line of its own
        parts[title] = re.findall(r"^  (\S.*?)(?:  +(\S.*))?$", lines, re.M)
    return about.strip(), usage.replace(program, Path(program).name), parts


def main():
    program, version, more, output = sys.argv[1:]
    name = Path(program).name
    about, usage, parts = help_of(program)
    lines = [f'.TH {name.upper()} 1 "" "vswitchctl {version}" "vswitchctl"',
             f".SH NAME\n{name} \\- {escape(about[0].lower() + about[1:])}",
             f".SH SYNOPSIS\n.B {name}\n\\fIcommand\\fP \\&...\n.SH COMMANDS"]
    for command, _ in parts["Subcommands"]:
        text, usage, options = help_of(program, command)
        lines.append(f".SS {escape(usage)}\n{block(escape(text))}.")
        lines += [f".TP\n\\fB{escape(option)}\\fP\n{block(escape(meaning))}"
                  for title in options for option, meaning in options[title] if "--help" not in option]
    Path(output).write_text("\n".join(lines) + "\n" + Path(more).read_text())


if __name__ == "__main__":
    main()
