#!/usr/bin/env python3
"""Writes a manual page of a command from its own help texts, and what the help doesn't say from a file of roff.

usage: command_page.py PROGRAM VERSION MORE OUTPUT
"""

import re
import subprocess
import sys
from pathlib import Path

from manpages import block, escape, verbatim


def output(program, *words):
    return subprocess.run([program, *words], capture_output=True, text=True, check=True).stdout


def commands(text):
    """The words of every command: what stands under "Subcommands"."""
    _, _, listed = text.partition("Subcommands:\n")
    return [[name] for name in re.findall(r"^  ([a-z][a-z-]*)  +\S", listed, re.M)]


def help_of(program, words):
    about, _, rest = output(program, *words, "--help").partition("Usage: ")
    usage, _, rest = rest.partition("\n")
    parts = dict(re.findall(r"^([A-Z][\w ]+):\n((?:  .*\n?)*)", rest, re.M))
    return about.strip().rstrip("."), usage.replace(program, Path(program).name), parts


def rows(text):
    """(what, meaning) of each line of a table; a meaning may stand on a line of its own."""
    lines = re.sub(r"\n {20,}", "  ", text)
    found = re.findall(r"^  +(\S.*?)(?:  +(\S.*))?$", lines, re.M)
    return [(what, re.sub("  +", " ", meaning)) for what, meaning in found]


def command_lines(program, words):
    about, usage, parts = help_of(program, words)
    yield f".SS {escape(usage)}\n{block(escape(about[:1].upper() + about[1:]))}."
    for option, meaning in rows(parts.get("Positionals", "")) + rows(parts.get("Options", "")):
        if "--help" not in option:
            yield f".TP\n\\fB{escape(re.sub(' (REQUIRED|Excludes: .*)$', '', option))}\\fP\n{block(escape(meaning))}"
    if "Examples" in parts:
        yield verbatim(re.sub(r"^  ", "", parts["Examples"].rstrip(), flags=re.M))
    for name, _ in rows(parts.get("Subcommands", "")):
        yield from command_lines(program, [*words, name])


def main():
    program, version, more, path = sys.argv[1:]
    name, text = Path(program).name, output(program, "--help")
    about = text.partition("\n")[0].rstrip(".").removeprefix(name + " ")
    words = commands(text)
    lines = [f'.TH {name.upper()} {Path(path).suffix[1:]} "" "vswitchctl {version}" "vswitchctl"',
             f".SH NAME\n{name} \\- {escape(about[0].lower() + about[1:])}"]
    if words:
        lines.append(f".SH SYNOPSIS\n.B {name}\n\\fIcommand\\fP \\&...\n.SH COMMANDS\n.ad l")
    else:
        lines.append(".SH SYNOPSIS AND OPTIONS\n.ad l")
    for command in words or [[]]:
        lines += command_lines(program, command)
    Path(path).write_text("\n".join(lines) + "\n" + Path(more).read_text())


if __name__ == "__main__":
    main()
