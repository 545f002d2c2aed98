#!/usr/bin/env python3
"""Applies docs/extending.md to a copy of the tree, builds what it changes, and runs the generic tests over that.

usage: extending_test.py SOURCE BUILD
"""

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

FRAGMENT = re.compile(r"<!-- (?P<file>\S+), (?:(?P<side>before|after|instead of): (?P<line>.*?)|at the end) -->\n"
                      r"```\w+\n(?P<body>.*?)^```$", re.M | re.S)
COMMANDS = re.compile(r"^```sh\n(.*?)^```$", re.M | re.S)
BUILD = ("cmake", "--build", "build/release", "-j2", "--target")
ON_HOST = ("build/release/platform/vshost", "run", "--")
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


def reuse_objects(build, tree, fragments):
    """Gives the copy the build's objects, which make takes for its own, except those of changed source files.

    The page only adds to headers, which does not change what other source files compile to.
    """
    changed = {fragment["file"] for fragment in fragments}
    for built in build.rglob("*.o"):
        name = built.relative_to(build)
        source = re.sub(r"CMakeFiles/\w+\.dir/", "", str(name.with_suffix("")))
        if source not in changed and (tree / source).exists():
            (tree / "build/release" / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(built, tree / "build/release" / name)


def check(tree, build):
    """The checks of every build that the page's additions affect."""
    reference, module = "build/release/reference", "build/release/module"
    for test in TESTS:
        run(f"build/release/tests/{test}", "--gtest_brief=1", tree=tree)
    run(sys.executable, "tools/check_header.py", "include/vswitchctl.h", "cmake/vswitchctl.map",
        "build/release/libvswitchctl.so", tree=tree)

    run("doxygen", "build/release/Doxyfile", tree=tree)
    header = (f"{reference}/xml", "include/vswitchctl.h")
    run(sys.executable, "tools/manpages.py", *header, f"{reference}/man", "1", tree=tree)
    run(sys.executable, "tools/check_manpages.py", "cmake/vswitchctl.map", f"{reference}/man", tree=tree)
    shutil.copytree(tree / "bindings/python", tree / module)
    run(sys.executable, "tools/python_module.py", *header, f"{module}/vswitchctl", tree=tree)
    run(*ON_HOST, "env", "LD_LIBRARY_PATH=build/release:build/release/platform", f"PYTHONPATH={module}", sys.executable,
        "tests/package/python_test.py", "cmake/vswitchctl.map", tree=tree)
    # The page does not change the command's own files.
    verbs = "Verbs.test_every_operation_has_a_verb_or_a_reason"
    run(sys.executable, "tests/vsctl_test.py", build, tree, verbs, tree=tree)

    for commands in COMMANDS.findall((tree / "docs/extending.md").read_text()):
        run("sh", "-ec", commands, tree=tree)
    run("tests/package/abi_test.sh", ".", "build/release", tree=tree)
    run("bench/cost.py", "--check", "build/release/bench/operations", tree=tree)


def main():
    source, build = (Path(argument).resolve() for argument in sys.argv[1:])
    page = (source / "docs/extending.md").read_text()
    fragments = list(FRAGMENT.finditer(page))
    shown = len(re.findall(r"^```(?!sh$)\w+$", page, re.M))
    if len(fragments) != shown:
        sys.exit(f"{shown - len(fragments)} fragments of docs/extending.md don't say where they go")
    if any(fragment["side"] == "instead of" and fragment["file"].endswith(".h") for fragment in fragments):
        sys.exit("docs/extending.md replaces a line of a header, whose other users are not built")
    with tempfile.TemporaryDirectory() as folder:
        tree = Path(folder)
        for name in subprocess.check_output(["git", "ls-files"], cwd=source, text=True).split():
            (tree / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(source / name, tree / name)
        for fragment in fragments:
            apply(fragment, tree)
        run("cmake", "-S", ".", "-B", "build/release", "-G", "Unix Makefiles", "-DCMAKE_BUILD_TYPE=Release", tree=tree)
        reuse_objects(build, tree, fragments)
        # As for the README's first program: the launcher's target builds the rest of the host.
        run(*BUILD, "first", "vshost_launcher", tree=tree)
        run(*ON_HOST, "build/release/examples/first", tree=tree)
        run(*BUILD, "operations", *TESTS, tree=tree)
        check(tree, build)
    print(f"{len(fragments)} fragments applied, built and tested")


main()
