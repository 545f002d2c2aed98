#!/usr/bin/env python3
"""Runs the commands in README.md and docs/*.md and compares their output, and checks the links of every page.

usage: guides_test.py SOURCE BUILD

A fence of `sh` is run, unless a comment "not run: why" stands before it; a fence of `text` right behind it is its
output, where "…" stands for anything, on a line of its own for any lines. A page's fences share one shell.
"""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

FENCE = re.compile(
    r"(?P<skip><!-- not run: .*? -->\n)?```(?P<kind>\w+)\n(?P<body>.*?)^```$(?P<next>\n```text\n(?P<output>.*?)^```$)?",
                   re.M | re.S)


# They measure for minutes, show a terminal session, or need root: live_page_test.py runs the last one.
NOT_RUN = ("performance.md", "reliability.md", "vsctl.md", "live.md")


def anchors(page):
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")
            for title in re.findall(r"^#+ (.*)$", page.read_text(), re.M)}


def dead_links(page):
    text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.M | re.S)
    for target in re.findall(r"\]\(([^)]+)\)", text):
        path, _, anchor = target.partition("#")
        if re.match(r"\w+:", target):
            continue
        file = (page.parent / path).resolve() if path else page
        if not file.exists() or anchor and anchor not in anchors(file):
            yield f"{page.name}: dead link {target}"


def matches(expected, output):
    lines = ["(?:.*\n)*" if line == "…" else re.escape(line).replace("…", ".*") + "\n"
             for line in expected.splitlines()]
    return re.fullmatch("".join(lines), output)


def clone(source, build, folder):
    """The tree as a reader of the pages has it, with the build in build/release."""
    view = Path(folder) / "clone"
    (view / "build").mkdir(parents=True)
    for entry in source.iterdir():
        if entry.name != "build":
            (view / entry.name).symlink_to(entry)
    (view / "build/release").symlink_to(build)
    return view


def run_page(page, view, home):
    blocks = [m for m in FENCE.finditer(page.read_text()) if m["kind"] == "sh" and not m["skip"]]
    script = "set -eu\n" + "".join(f"{{\n{m['body']}}} >{home}/out{i} 2>&1\n" for i, m in enumerate(blocks))
    script = re.sub(r"/tmp/(first|live)\b", rf"{home}/\1", script)
    ended = subprocess.run(["bash", "-c", script], cwd=view, env={**os.environ, "HOME": str(home)}, timeout=300)
    for index, block in enumerate(blocks):
        file = home / f"out{index}"
        output = file.read_text() if file.exists() else ""
        last = index + 1 == len(blocks) or not (home / f"out{index + 1}").exists()
        if last and ended.returncode:
            yield f"{page.name}: these commands end with {ended.returncode}:\n{block['body']}{output}"
            return
        if block["next"] and not matches(block["output"], output):
            yield f"{page.name}: expected\n{block['output']}but the output is\n{output}"


def run_session(page, view, home):
    """The terminal session of README.md: the commands after `vshost run -- bash` run in its shell."""
    session = re.search(r"^```console\n.*? -- bash\n(.*?)^```$", page.read_text(), re.M | re.S)[1]
    steps = [step.split("\n", 1) for step in re.split(r"^\$ ", session, flags=re.M)[1:]]
    script = "".join(f"{{ {command}\n}} >{home}/out{i} 2>&1\n" for i, (command, _) in enumerate(steps))
    build = view / "build/release"
    path = f"{build}:{build}/platform:{os.environ['PATH']}"
    subprocess.run(["vshost", "run", "--", "bash", "-c", script], cwd=home, env={**os.environ, "PATH": path},
                   timeout=60)
    for index, (command, expected) in enumerate(steps):
        output = (home / f"out{index}").read_text()
        if not matches(expected, output):
            yield f"{page.name}: {command}\nis to say\n{expected}but says\n{output}"


def main():
    source, build = (Path(argument).resolve() for argument in sys.argv[1:])
    tracked = subprocess.run(["git", "ls-files", "*.md"], cwd=source, capture_output=True, text=True).stdout.split()
    faults = [fault for page in tracked for fault in dead_links(source / page)]
    first = re.search(r"```c\n(.*?)^```$", (source / "README.md").read_text(), re.M | re.S).group(1)
    if first != (source / "examples/first.c").read_text():
        faults.append("README.md: the first program is not examples/first.c")
    for page in [source / "README.md", *sorted(source.glob("docs/*.md"))]:
        if page.name in NOT_RUN:
            continue
        with tempfile.TemporaryDirectory() as folder:
            view, home = clone(source, build, folder), Path(folder) / "home"
            home.mkdir()
            faults += run_page(page, view, home)
            if page.parent == source:
                faults += run_session(page, view, home)
    print("\n".join(faults) or f"{len(tracked)} pages: links and commands are right")
    return bool(faults)


if __name__ == "__main__":
    sys.exit(main())
