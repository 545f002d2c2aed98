#!/usr/bin/env python3
"""Prints a manual page of a command from its own help texts, and what the help doesn't say from a file of roff.

usage: command_page.py PROGRAM VERSION MORE
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
    program, version, more = sys.argv[1:]
    name = Path(program).name
    about, usage, parts = help_of(program)
    print(f'.TH {name.upper()} 1 "" "vswitchctl {version}" "vswitchctl"')
    print(f".SH NAME\n{name} \\- {escape(about[0].lower() + about[1:])}\n.SH SYNOPSIS\n.B {name}\n\\fIcommand\\fP …")
    print(".SH COMMANDS")
    for command, _ in parts["Subcommands"]:
        text, usage, options = help_of(program, command)
        print(f".SS {escape(usage)}\n{block(escape(text))}.")
        for option, meaning in [pair for title in options for pair in options[title] if "--help" not in pair[0]]:
            print(f".TP\n\\fB{escape(option)}\\fP\n{block(escape(meaning))}")
    print(Path(more).read_text(), end="")


if __name__ == "__main__":
    main()
