#!/usr/bin/env python3
"""Writes the manual pages of vsctl: one of the command, with what holds for all verbs, and one of each noun.

usage: vsctl_pages.py VSCTL VERSION TEXT DIRECTORY
"""

import json
import subprocess
import sys
from pathlib import Path

from command_page import help_of, rows
from manpages import block, escape, verbatim

COMMON = ("--json", "-o", "--columns", "--timeout", "--dry-run", "--quiet", "--by-id")


def result(vsctl, *words):
    return json.loads(subprocess.run([vsctl, *words, "--json"], capture_output=True, check=True).stdout)["result"]


def entry(name, meaning):
    return f".TP\n\\fB{escape(name.replace(' REQUIRED', ''))}\\fP\n{block(escape(meaning))}"


def sentence(text):
    return block(escape(text[:1].upper() + text[1:])) + "."


def head(name, version, purpose):
    return (f'.TH {name.upper()} 1 "" "vswitchctl {version}" "vswitchctl"\n'
            f".SH NAME\n{escape(name)} \\- {escape(purpose[:1].lower() + purpose[1:])}")


def verb_lines(vsctl, verb):
    about, usage, parts = help_of(vsctl, verb["verb"].split())
    yield f".SS {escape(usage.replace('[OPTIONS] ', ''))}\n{sentence(about)}"
    for name, meaning in rows(parts.get("Positionals", "")) + rows(parts.get("Options", "")):
        if name.split(",")[0].split()[0] not in (*COMMON, "-h"):
            yield entry(name, meaning)
    yield verbatim("\n".join(verb["examples"]))
    if "Library operations" in parts:
        yield ".PP\nUses " + ", ".join(f"\\fB\\%{name}\\fP(3)" for name in parts["Library operations"].split()) + "."


def noun_page(vsctl, version, noun, verbs):
    alone = verbs[0]["verb"] == noun
    purpose = verbs[0]["purpose"] if alone else f"verbs of {noun}: " + ", ".join(v["verb"].split()[1] for v in verbs)
    lines = [head(f"vsctl-{noun}", version, purpose), f".SH SYNOPSIS\n.B vsctl {escape(noun)}",
             f"{'' if alone else escape('VERB ')}[\\fIarguments\\fP]", ".SH VERBS\n.ad l"]
    for verb in verbs:
        lines += verb_lines(vsctl, verb)
    lines.append(".SH SEE ALSO\n.BR vsctl (1),\nwhich has the options of all verbs, the files and the exit status")
    return "\n".join(lines) + "\n"


def common_options(vsctl):
    """The options of all verbs, from a verb that takes them all."""
    _, _, parts = help_of(vsctl, ["port", "vlan"])
    yield ".SH OPTIONS\nThey may stand before the noun too.\n.ad l"
    for name, meaning in rows(parts["Options"]):
        if name.split(",")[0] in COMMON:
            yield entry(name, meaning)
    yield entry("--help", "Explain the noun or the verb")
    yield entry("--version", "Print the version")


def command_page(vsctl, version, nouns, text):
    before, after = text.split('.\\" GENERATED\n')
    lines = [head("vsctl", version, "control the virtual switches of a host"),
             ".SH SYNOPSIS\n.B vsctl\n\\fInoun\\fP [\\fIverb\\fP] [\\fIarguments\\fP] [\\fIoptions\\fP]",
             before.rstrip(), *common_options(vsctl), ".SH NOUNS\n.ad l"]
    for noun, verbs in nouns.items():
        names = ", ".join(verb["verb"].split()[-1] for verb in verbs)
        meaning = verbs[0]["purpose"] if verbs[0]["verb"] == noun else names
        lines.append(f".TP\n.BR vsctl\\-{escape(noun)} (1)\n{block(escape(meaning))}")
    lines.append(".SH EXIT STATUS")
    lines += [f".TP\n{row['code']}\n{block(escape(row['meaning']))}" for row in result(vsctl, "help", "exit")]
    return "\n".join(lines) + "\n" + after


def main():
    vsctl, version, text, directory = sys.argv[1:]
    nouns = {}
    for verb in result(vsctl, "help"):
        nouns.setdefault(verb["verb"].split()[0], []).append(verb)
    pages = {"vsctl": command_page(vsctl, version, nouns, Path(text).read_text())}
    pages |= {f"vsctl-{noun}": noun_page(vsctl, version, noun, verbs) for noun, verbs in nouns.items()}
    for name, page in pages.items():
        Path(directory, f"{name}.1").write_text(page)


if __name__ == "__main__":
    main()
