#!/usr/bin/env python3
"""Applies docs/extending.md to a copy of the tree, builds it, and runs the generic tests over what it adds.

usage: extending_test.py SOURCE
"""

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

FRAGMENT = re.compile(r"<!-- (?P<file>\S+), (?:(?P<side>before|after|instead of): (?P<line>.*?)|at the end) -->\n```\w+\n(?P<body>.*?)^```$",
                      re.M | re.S)
TESTS = ("operations_test", "fault_test", "kernel_test")


def apply(fragment, tree):
    file = tree / fragment["file"]
    lines = file.read_text().splitlines(keepends=True)
    at = end = len(lines)
    if fragment["side"]:
        found = [number for number, line in enumerate(lines) if line.strip().startswith(fragment["line"])]
        if len(found) != 1:
            sys.exit(f"{len(found)} lines of {fragment['file']} begin with {fragment['line']!r}")
        at = found[0] + (fragment["side"] == "after")
        end = at + (fragment["side"] == "instead of")
    file.write_text("".join(lines[:at]) + fragment["body"] + "".join(lines[end:]))


def run(*command, tree, **options):
    ended = subprocess.run(command, cwd=tree, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if ended.returncode:
        sys.exit(f"{' '.join(map(str, command))} ends with {ended.returncode}:\n{ended.stdout[-6000:]}")


def main():
    source = Path(sys.argv[1]).resolve()
    page = (source / "docs/extending.md").read_text()
    fragments = list(FRAGMENT.finditer(page))
    shown = len(re.findall(r"^```(?:c|cpp|text)$", page, re.M))
    if len(fragments) != shown:
        sys.exit(f"{shown - len(fragments)} fragments of docs/extending.md don't say where they go")
    with tempfile.TemporaryDirectory() as folder:
        tree = Path(folder)
        for name in subprocess.check_output(["git", "ls-files"], cwd=source, text=True).split():
            (tree / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(source / name, tree / name)
        for fragment in fragments:
            apply(fragment, tree)
        run("cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DCMAKE_CXX_FLAGS=-O0", tree=tree)
        # As the README's first program and the demonstration do it: the launcher brings the rest of the host along.
        run("cmake", "--build", "build", "-j2", "--target", "first", "vshost_launcher", tree=tree)
        run("build/platform/vshost", "run", "--", "build/examples/first", tree=tree)
        run("cmake", "--build", "build", "-j2", "--target", *TESTS, tree=tree)
        run(sys.executable, "cmake/check_header.py", "include/vswitchctl.h", "cmake/vswitchctl.map",
            "build/libvswitchctl.so", tree=tree)
        for test in TESTS:
            run(f"build/tests/{test}", "--gtest_brief=1", tree=tree)
    print(f"{len(fragments)} fragments applied, built and tested")


main()
