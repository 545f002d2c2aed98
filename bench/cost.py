#!/usr/bin/env python3
"""Counts the instructions that the library spends in each of its operations, by callgrind.

usage: cost.py OPERATIONS            prints every operation, and the ratios to what was written by hand
       cost.py --update OPERATIONS   writes the counts to instructions.txt
       cost.py --check OPERATIONS    fails when an operation costs more than instructions.txt allows

OPERATIONS is the program that calls them. The instructions of its null platform do not count."""
import os
import re
import subprocess
import sys
import tempfile
from collections import defaultdict

FOLDER = os.path.dirname(os.path.abspath(__file__))
COUNTS = os.path.join(FOLDER, "instructions.txt")
HEADER = os.path.join(FOLDER, "..", "include", "vswitchctl.h")
GROWTH = 1.05  # of the recorded counts
RATIO = 1.10   # to the same call written by hand

# The string functions that every x86-64 machine has, so that the counts agree.
BASELINE = "glibc.cpu.hwcaps=" + ",".join(
    f"-{feature}" for feature in ("AVX2", "AVX512F", "AVX512VL", "AVX512BW", "ERMS", "FSRM", "BMI1", "BMI2",
                                  "LZCNT", "MOVBE", "RTM", "SSE4_1", "SSE4_2", "SSSE3", "AVX_Fast_Unaligned_Load"))

KINDS = {"store": re.compile(r"DVS"), "system": re.compile(r"(open|ioctl|close)$"),
         "shell": re.compile(r"(system|popen)$"), "memory": re.compile(r"(malloc|calloc|realloc)$")}
COLUMNS = ["instructions", *KINDS]


class Cost:
    """One call: instructions by object, and what the object under measurement called, by kind."""

    def __init__(self):
        self.by_object = defaultdict(int)
        self.calls = defaultdict(int)

    def row(self, own):
        def is_own(name):
            return own in name or name == "???"  # its jumps to functions whose address it takes as well

        instructions = sum(cost for name, cost in self.by_object.items()
                           if is_own(name) or os.path.basename(name).startswith("libc.so"))
        calls = [sum(count for (caller, function), count in self.calls.items()
                     if is_own(caller) and pattern.match(function)) for pattern in KINDS.values()]
        return [instructions, *calls]


def run(program):
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "out")
        subprocess.run(["valgrind", "--tool=callgrind", "--collect-atstart=no", "--combine-dumps=yes",
                        f"--callgrind-out-file={out}", "-q", program],
                       check=True, env={**os.environ, "GLIBC_TUNABLES": BASELINE})
        with open(out, encoding="utf-8") as file:
            return parse(file)


def parse(lines):
    """Callgrind's own format: names are given once and then by number, in objects and functions apart."""
    names = {}

    def resolve(space, text):
        number, _, name = text.partition(" ")
        if name:
            names[space, number] = name
        return names[space, number]

    costs = {}
    current = Cost()
    object_name = callee_object = callee = None
    inside_callee = False
    for line in lines:
        line = line.rstrip("\n")
        key, equals, value = line.partition("=")
        if line.startswith("part:"):
            current = Cost()
        elif line.startswith("desc: Trigger: Client Request: "):
            costs[line.removeprefix("desc: Trigger: Client Request: ")] = current
        elif equals and key == "ob":
            object_name = resolve("ob", value)
        elif equals and key == "fn":
            resolve("fn", value)
        elif equals and key == "cob":
            callee_object = resolve("ob", value)
        elif equals and key == "cfn":
            callee = resolve("fn", value)
        elif equals and key == "calls":
            if callee_object:  # without one, the call stays in its object
                current.calls[object_name, callee] += int(value.split()[0])
            callee_object, inside_callee = None, True
        elif re.match(r"[+\-*\d]", line):
            if not inside_callee:
                current.by_object[object_name] += int((line.split() + ["0"])[1])
            inside_callee = False
    return costs


def declared():
    with open(HEADER, encoding="utf-8") as file:
        return set(re.findall(r"^VSWITCHCTL_API\s+[\w ]+?\**(\w+)\(", file.read(), re.MULTILINE))


def read_counts():
    counts = {}
    with open(COUNTS, encoding="utf-8") as file:
        for line in file:
            name, *numbers = line.split()
            if name != "operation":
                counts[name] = [int(number) for number in numbers]
    return counts


def table(rows):
    lines = [f"{'operation':42}" + "".join(f"{column:>14}" for column in COLUMNS)]
    lines += [f"{name:42}" + "".join(f"{number:14}" for number in row) for name, row in rows.items()]
    return "\n".join(lines) + "\n"


def complaints(rows, pairs):
    missing = declared() ^ {name.split("/")[0] for name in rows}
    yield from (f"{name}: declared or measured, not both" for name in sorted(missing))
    allowed = read_counts()
    yield from (f"{name}: not in instructions.txt, or only there" for name in sorted(allowed.keys() ^ rows.keys()))
    for name in allowed.keys() & rows.keys():
        for column, old, new in zip(COLUMNS, allowed[name], rows[name]):
            if new > old * (GROWTH if column == "instructions" else 1):
                yield f"{name}: {new} {column}, where {old} are checked in"
    for name, (library, hand) in pairs.items():
        if library[0] > hand[0] * RATIO or library[1:] != hand[1:]:
            yield f"{name}: {library}, by hand {hand}"


def main():
    mode = sys.argv[1] if len(sys.argv) > 2 else "--print"
    costs = run(sys.argv[-1])
    rows = {name: cost.row("/libvswitchctl.so") for name, cost in costs.items() if not name.startswith("Hand_")}
    pairs = {name: (rows[name], costs["Hand_" + name].row("/libby_hand.so"))
             for name in rows if "Hand_" + name in costs}
    if mode == "--check":
        found = list(complaints(rows, pairs))
        print("\n".join(found) or f"{len(rows)} calls cost no more than allowed")
        if found:
            print(f"To accept the new counts: {os.path.relpath(__file__)} --update {os.path.relpath(sys.argv[-1])}")
        return 1 if found else 0
    if mode == "--update":
        with open(COUNTS, "w", encoding="utf-8") as file:
            file.write(table(rows))
        return 0
    print(table(rows))
    print(f"{'operation':42}{'library':>14}{'by hand':>14}{'ratio':>14}")
    for name, (library, hand) in pairs.items():
        print(f"{name:42}{library[0]:14}{hand[0]:14}{library[0] / hand[0]:14.2f}")
    return 0


sys.exit(main())
