#!/usr/bin/env python3
"""Runs the commands of docs/live.md, the live parts of README.md and the tour, and the example, in namespaces.

usage: live_page_test.py SOURCE BUILD

Needs root, bpf and FUSE. Elsewhere it ends with 77, unless VSWITCHCTL_REQUIRE_LIVE says that the machine is able.
"""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

from guides_test import clone, run_page

SKIPPED = 77


def find_obstacle():
    if os.geteuid() != 0:
        return "no root"
    if os.readlink("/proc/self/ns/pid") != "pid:[4026531836]":
        return "an inner process namespace"
    return "" if os.access("/dev/fuse", os.R_OK | os.W_OK) else "no /dev/fuse"


def run(*command):
    subprocess.run(command, check=True)


def prepare():
    """The names of network namespaces are this process's own, and there is a card with a network behind it."""
    Path("/run/netns").mkdir(exist_ok=True)
    run("mount", "-t", "tmpfs", "none", "/run/netns")
    run("ip", "link", "set", "lo", "up")
    run("ip", "link", "add", "enp3s0", "type", "veth", "peer", "name", "network")
    for end in ("enp3s0", "network"):
        run("ip", "link", "set", end, "up")


def unknown_messages(source):
    """Messages of docs/live.md that no source has: what stands between one "…" and the next."""
    text = "".join(path.read_text() for part in ("host", "live", "launcher")
                   for path in (source / "platform" / part).glob("*.cpp"))
    text = re.sub(r'"\s*\n\s*"', "", text).replace("`", "")
    table = (source / "docs/live.md").read_text().partition("| message | do |")[2].partition("\n\n")[0]
    for cell in re.findall(r"^\| (.*?) \|", table, re.M):
        for message in re.findall(r"`(.+?)`", cell):
            for piece in message.split("…"):
                if piece.strip() not in text:
                    yield f"live.md: no message says: {piece}"


def live_part(source, title, folder):
    """The section of a page that needs a live host, as a page of its own whose commands are run."""
    section = re.search(rf"^## {title}\n.*?(?=^## |\Z)", source.read_text(), re.M | re.S)[0]
    page = Path(folder) / source.name
    page.write_text(re.sub("<!-- not run: .*? -->\n", "", section))
    return page


def main():
    source, build = (Path(argument).resolve() for argument in sys.argv[1:])
    faults = list(unknown_messages(source))
    obstacle = find_obstacle()
    if obstacle:
        print("\n".join([f"left out: {obstacle}", *faults]))
        return 1 if faults or os.environ.get("VSWITCHCTL_REQUIRE_LIVE") else SKIPPED
    if "IN_NAMESPACES" not in os.environ:
        os.environ["IN_NAMESPACES"] = "yes"
        os.execvp("unshare", ["unshare", "--net", "--mount", sys.executable, *sys.argv])
    prepare()
    with tempfile.TemporaryDirectory() as folder:
        view = clone(source, build, folder)
        for page in (source / "docs/live.md", live_part(source / "README.md", "A live host", folder),
                     live_part(source / "docs/tour.md", "9. With packets", folder)):
            home = Path(folder) / page.name
            home = home.with_suffix(".home")
            home.mkdir()
            faults += run_page(page, view, home)
            for state in home.glob("*/vshostd.pid"):
                subprocess.run([build / "platform/vshost", "stop", "--state", state.parent], check=False)
                faults.append(f"{page.name}: leaves a vshostd")
        example = subprocess.run(["unshare", "--net", "--mount", "examples/live.sh", "build/release", f"{folder}/live"],
                                 cwd=view, check=False)
        if example.returncode:
            faults.append(f"examples/live.sh ends with {example.returncode}")
    print("\n".join(faults) or "the commands of the live host are right")
    return bool(faults)


if __name__ == "__main__":
    sys.exit(main())
