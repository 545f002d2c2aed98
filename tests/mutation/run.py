#!/usr/bin/env python3
"""Mutation run over the library: does a test see every change of the code?

All mutants are compiled in together and woken one at a time by the environment (see mutant.h), so that one
build serves the whole run. A mutant is killed when a test fails, crashes or hangs while it is awake.

    tests/mutation/run.py [--list] [--only FIRST-LAST] [--build DIR]
"""
import argparse
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = ("core", "lifecycle", "policy", "kernel")
COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
# The tests that kill most come first.
TESTS = ("operations_test", "kernel_test", "policy_test", "uplink_test", "lifecycle_test", "mirror_test", "mtu_test",
         "identity_test", "fault_test", "model_test")
# Takes minutes, and tests only the words of commands.
SHELL_TEST = "hostile_names_test"
TIME_LIMIT = 60  # seconds for one test program; a mutant that loops is killed by it


class Mutator:
    """Rewrites a source line so that it can behave in other ways; counts the ways."""

    def __init__(self, rejected):
        self.mutants = []
        self.rejected = rejected
        self.in_assertion = False

    def wake(self, place, change, original, text):
        if (place, change) in self.rejected:
            return original
        self.mutants.append((place, change))
        return text.replace("@", str(len(self.mutants)))

    def line(self, place, line):
        code = line.strip()
        asserted = self.in_assertion or code.startswith("static_assert")
        self.in_assertion = asserted and not code.endswith(";")
        if not code or asserted or code.startswith(("//", "#", "case ", "using ", "template", "friend")):
            return line
        for rule in (self.null_tests, self.comparisons, self.ignored_failures, self.results, self.dropped_calls,
                     self.property_flags, self.constants):
            line = rule(place, line)
        return line

    def null_tests(self, place, line):
        def change(match):
            return self.wake(place, "skip the test " + match[0], match[0], f"(!mutation::Awake(@) && {match[0]})")
        return re.sub(r"(?<=[(|] )!\w+(?=[ )])|(?<=\()!\w+(?= \|\||\))", change, line)

    def comparisons(self, place, line):
        def change(match):
            left, operator, right = match.groups()
            other = f"{left} {COMPARISONS[operator]} {right}"
            return self.wake(place, f"{match[0]} -> {other}", match[0], f"(mutation::Awake(@) ? {other} : {match[0]})")
        if line.lstrip().startswith("for ") or "template" in line or "operator" in line:
            return line
        left = r"(?<![\w*&!.>\[\]-])(?<![%+*/-] )([\w.>\[\]-]+(?:\([\w, .>-]*\))?)"
        right = r"([\w'\\]+(?:->\w+|\.\w+)*(?:\([\w*]*\))?)(?=[;)]| \|\|| &&)"
        return re.sub(f"{left} (<=|>=|==|!=|<|>) {right}", change, line)

    def ignored_failures(self, place, line):
        def change(match):
            return self.wake(place, "ignore the failure", match[0],
                             f"if (VsStatus status = {match[1]}; !mutation::Awake(@) && status) {match[2]}")
        return re.sub(r"if \(VsStatus status = (.*)\) (return status;|\{)$", change, line)

    def results(self, place, line):
        def change(match):
            return self.wake(place, "flip the result", match[0], f"return mutation::Result(@, {match[1]});")
        if "{" in line.split("return", 1)[-1] or "return status;" in line and "if (VsStatus" in line:
            return line
        return re.sub(r"return ([^;{]+);", change, line)

    def dropped_calls(self, place, line):
        def change(match):
            return self.wake(place, "drop the call", match[0], f"{match[1]}{{ if (!mutation::Awake(@)) {match[2]} }}")
        return re.sub(r"^(\s+)((?:[\w:.>-]+)\((?:.*)\);|\w[\w.>-]* (?:[-+|&]?=) [^;]+;)$", change, line)

    def property_flags(self, place, line):
        def change(match):
            return self.wake(place, "other flags", match[0], f"mutation::Number(@, {match[1]}u){match[2]}")
        return re.sub(r"\b(0x(?:08|10|20))(\})", change, line) if "StoreLevel::" in line else line

    def constants(self, place, line):
        def change(match):
            return self.wake(place, "another number", match[0],
                             f"{match[1]}const {match[2]} {match[3]} = mutation::Number(@, {match[2]}({match[4]}));")
        return re.sub(r"^(\s*)(?:inline )*constexpr (int32_t|uint32_t|size_t) (\w+) = (\w+);", change, line)


def mutate(build, rejected):
    mutator = Mutator(rejected)
    for folder in FOLDERS:
        for source in sorted((ROOT / folder).glob("*.*")):
            lines = source.read_text().split("\n")
            out = [mutator.line(f"{folder}/{source.name}:{n}", line) for n, line in enumerate(lines, 1)]
            text = "\n".join(out)
            if source.name == "property.h":
                text = text.replace("inline constexpr Property\n", "inline const Property\n")
            (build / folder / source.name).write_text('#include "tests/mutation/mutant.h"\n#line 1\n' + text)
    return mutator.mutants


def compile_all(build):
    """Builds without the changes that the compiler refuses, until it refuses none."""
    rejected = set()
    while True:
        mutants = mutate(build, rejected)
        command = ["cmake", "--build", str(build / "out"), "--", "-k0", "vswitchctl"]
        result = subprocess.run(command, capture_output=True, text=True)
        if result.returncode == 0:
            break
        places = set(re.findall(r"((?:%s)/[\w.]+:\d+):\d+: error" % "|".join(FOLDERS), result.stdout))
        bad = {mutant for mutant in mutants if mutant[0] in places}
        if not bad:
            sys.exit(result.stdout[-3000:])
        rejected |= bad
    targets = [*TESTS, SHELL_TEST, "tybel", "vshost"]
    subprocess.run(["cmake", "--build", str(build / "out"), "--target", *targets], check=True, capture_output=True)
    return mutants


def prepare(build):
    shutil.rmtree(build, ignore_errors=True)
    files = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True, check=True).stdout.split("\n")
    for name in filter(None, files):
        (build / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(ROOT / name, build / name)
    subprocess.run(["cmake", "-S", build, "-B", build / "out", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                    "-DCMAKE_CXX_FLAGS=-Wno-error -w"], check=True, capture_output=True)
    return compile_all(build)


def survives(build, number, place=""):
    environment = dict(os.environ, VSWITCHCTL_MUTANT=str(number), VSWITCHCTL_ALL_NAMES="1")
    for test in TESTS + ((SHELL_TEST,) if place.startswith("core/shell") else ()):
        program = build / "out" / "tests" / test
        try:
            result = subprocess.run([program, "--gtest_brief=1", "--gtest_fail_fast"], env=environment,
                                    timeout=TIME_LIMIT,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd=build / "out")
        except subprocess.TimeoutExpired:
            return False
        if result.returncode != 0:
            return False
    return True


def main():
    arguments = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    arguments.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "mutation")
    arguments.add_argument("--list", action="store_true", help="compile and list the mutants, run nothing")
    arguments.add_argument("--only", help="a range of mutants: 100-200")
    options = arguments.parse_args()
    build = options.build.resolve()
    mutants = prepare(build)
    print(f"{len(mutants)} mutants")
    if options.list:
        print("\n".join(f"{n}: {place}: {change}" for n, (place, change) in enumerate(mutants, 1)))
        return
    if not survives(build, 0):
        sys.exit("the tests fail without an active mutant")
    first, last = map(int, options.only.split("-")) if options.only else (1, len(mutants))
    numbers = range(first, min(last, len(mutants)) + 1)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        survivors = [n for n,
                     alive in zip(numbers, pool.map(lambda n: survives(build, n, mutants[n - 1][0]), numbers)) if alive]
    for n in survivors:
        print(f"survived: {n}: {mutants[n - 1][0]}: {mutants[n - 1][1]}")
    killed = len(numbers) - len(survivors)
    print(f"killed {killed} of {len(numbers)} ({100 * killed / max(1, len(numbers)):.1f} %)")


main()
