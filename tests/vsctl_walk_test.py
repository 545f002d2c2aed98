#!/usr/bin/env python3
"""Random walks over vsctl: a command that fails leaves the host as it was, one that succeeds changes what it names.

The host is read from its database, and a command is judged by what is in there before and after it. A walk is given
by its seed. A failure is told with the seed, the step, and the commands that lead there, without those that it can do
without. VSCTL_WALK_SEEDS=1000-1039 takes other seeds, VSCTL_WALK_STEPS=250 longer walks.
"""
import dataclasses
import json
import os
import pathlib
import random
import re
import subprocess
import tempfile

from host_description import Host, read_rows
from vsctl_host import BUILD, DRIVER, HOST, IO_ERROR, SANITIZED, SHELL, STORE, VSCTL, OnHost, main
from walk_commands import FREE_NICS, KINDS, Command, Generator

# The ordinary run takes a few walks, and some of the calls that can fail; fewer under a sanitizer.
STEPS = int(os.environ.get("VSCTL_WALK_STEPS", 60 if SANITIZED else 125))
FIRST, LAST = map(int, os.environ.get("VSCTL_WALK_SEEDS", "1-1" if SANITIZED else "1-3").split("-"))
STRIDE = 1 if "VSCTL_WALK_SEEDS" in os.environ else 41 if SANITIZED else 9
BEFORE = ["switch create lab --id=l --uplinks=2 --ports=3", "switch create prod --id=p --uplinks=1 --ports=2",
          "mac add prod port0 --address=02:00:00:00:00:01", "port vlan lab port0,uplink0 --id=8 --priority=3",
          "port mac-learning lab port1 --limit=9"]
CHANGE = ["port vlan lab port0,uplink0 --trunk=7", "port mac-learning lab port1 --learning",
          "uplink remove lab uplink0", "uplink add lab u0", "switch mtu lab 4000", "port remove lab port2",
          "property set lab com.example.x --text=a", "switch create new --id=n --uplinks=1 --ports=1",
          "switch mtu new 9000", "switch destroy prod"]
if os.access("/dev/shm", os.W_OK):
    tempfile.tempdir = "/dev/shm"  # each command writes: hosts lie in memory


class Complaint(Exception):
    """What is wrong, in words that stay the same, and the details."""


class Walk(OnHost):
    def test_walks(self):
        for seed in range(FIRST, LAST + 1):
            with self.subTest(seed=seed):
                self.walk(seed)

    def test_each_call_fails_once(self):
        """The 1st, 2nd, 3rd … call of each kind fails, until the change meets no fault."""
        change = Command(["batch", "--allow-removals"], lambda host: [("lab",), ("prod",), ("new",), FREE_NICS],
                         lambda host: False, lambda host, after: after.switches == ["lab", "new"], "\n".join(CHANGE))
        for kind, outcome in ((STORE, IO_ERROR), (SHELL, 1), (DRIVER, 5)):
            nth, changed = 1, True
            while nth == 1 or self.failed:
                if changed:
                    self.fresh()
                    for line in BEFORE:
                        self.assertEqual(self.run_on(self.host, line.split()).returncode, 0, line)
                with self.subTest(kind=kind, nth=nth):
                    changed = self.plainly(change, 0, lambda: HOST.vshost_fail(kind, None, nth, 1, outcome))
                nth += STRIDE
            self.assertGreater(nth, 5)

    def fresh(self):
        """A host with two NICs and nothing else."""
        self.host = pathlib.Path(tempfile.mkdtemp(dir=self.directory)) / "host"
        self.assertEqual(HOST.vshost_start(str(self.host).encode(), 0), 0, HOST.vshost_error())
        HOST.vshost_scenario(b'{"nics": {"east": {}, "west": {}}}')
        self.known = self.environment()

    def run_on(self, host, words, stdin=None, **more):
        return subprocess.run([VSCTL, *words], env=self.known | {"VSHOST_DIR": str(host)} | more, input=stdin,
                              capture_output=True, text=True, timeout=120)

    def walk(self, seed):
        self.fresh()
        history = []
        for number in range(STEPS):
            dice = random.Random(f"{seed} {number}")
            command = Generator(dice, Host(read_rows(self.host))).command(KINDS)
            manner, chance = dice.choice(self.MANNERS), dice.random()
            try:
                if manner(self, command, chance):
                    history.append(command)
            except Complaint as complaint:
                history = self.shortest(history, lambda: manner(self, command, chance), complaint)
                self.fail(f"seed {seed}, step {number}, {manner.__name__} ({chance}): {': '.join(complaint.args)}\n"
                          + "\n".join(past.shell() for past in [*history, command]))

    def shortest(self, history, last, complaint):
        """Leaves out halves, quarters … of the history as long as it still leads to the complaint."""
        def leads_there(commands):
            self.fresh()
            for past in commands:
                self.run_on(self.host, past.words, past.stdin)
            try:
                last()
            except Complaint as other:
                return other.args[0] == complaint.args[0]
            return False

        size = len(history)
        while size:
            for start in range(len(history) - size, -size, -size):
                shorter = history[:max(start, 0)] + history[start + size:]
                history = shorter if leads_there(shorter) else history
            size //= 2
        return history

    def judge(self, before, after, command, done):
        changed = before.differences(after)
        if done.returncode not in range(7):
            raise Complaint("an exit code that no change has", f"{done.returncode} {done.stderr}")
        if done.returncode:
            if before.rows != after.rows:
                raise Complaint("it fails and leaves changes", f"{done.stderr}{changed}")
            return
        if command.wrong(before):
            raise Complaint("it must fail and doesn't", f"{done.stdout}{changed}")
        names = command.names(before)
        others = [place for place in changed if not any(place[:len(name)] == name for name in names)]
        if others:
            raise Complaint("it changes what it doesn't name", f"{done.stdout}{others}")
        try:
            done_as_asked = command.result(before, after)
        except KeyError:  # what it asks for isn't there
            done_as_asked = False
        if not done_as_asked:
            raise Complaint("it succeeds and doesn't do what it is asked", f"{done.stdout}{changed}")

    # Manners of taking a step. Each returns whether the host has changed.

    def plainly(self, command, chance, prepare=lambda: None):
        before, fingerprint = read_rows(self.host), HOST.vshost_fingerprint()
        prepare()
        self.done = self.run_on(self.host, command.words, command.stdin)
        self.failed = HOST.vshost_failed()
        HOST.vshost_clear()
        self.after = read_rows(self.host)
        self.judge(Host(before), Host(self.after), command, self.done)
        if (HOST.vshost_fingerprint() == fingerprint) != (before == self.after):
            raise Complaint("the fingerprint doesn't tell whether the host has changed")
        return before != self.after

    def after_a_dry_run(self, command, chance):
        """A dry run, or a plan, says what the run is going to do, and changes nothing."""
        before = read_rows(self.host)
        is_plan = command.words[0] == "apply" and chance < 0.5
        words = ["plan", "-", "--json"] if is_plan else [*command.words, "--dry-run", "--json"]
        seen = self.run_on(self.host, words, command.stdin)
        if read_rows(self.host) != before:
            raise Complaint("a dry run changes the host")
        changes = self.plainly(dataclasses.replace(command, words=[*command.words, "--json"]), chance)
        expected = self.done.returncode or (10 if changes else 0)
        if seen.returncode != expected:
            shown = seen.stdout + seen.stderr + self.done.stdout + self.done.stderr
            raise Complaint("a dry run exits otherwise", f"{seen.returncode}, not {expected}: {shown}")
        if seen.returncode == 10 and json.loads(seen.stdout)["result"] != json.loads(self.done.stdout)["result"]:
            raise Complaint("a dry run shows other rows", f"{seen.stdout}{self.done.stdout}")
        return changes

    def with_a_fault(self, command, chance):
        """One call to the platform fails, of those that write or of any."""
        kind, outcome, most = self.FAULTS[int(chance * 5)]
        nth = int((chance * 5 % 1) ** 2 * most) + 1
        return self.plainly(command, chance, lambda: HOST.vshost_fail(kind, None, nth, 1, outcome))

    def cut(self, command, chance):
        """Killed at a write on a copy of the host, then undone there, and finished on another copy."""
        before, copy = Host(read_rows(self.host)), self.copied(self.host)
        nth = int(chance ** 2 * (150 if command.stdin else 40)) + 1
        killed = self.run_on(copy, command.words, command.stdin, VSCTL_TEST_KILL_AT=str(nth),
                             LD_PRELOAD=f"{BUILD}/tests/libkill_at.so:{self.known['LD_PRELOAD']}")
        changes, after = self.plainly(command, chance), Host(self.after)
        if killed.returncode == 0 or self.done.returncode:
            return changes
        found = Host(read_rows(copy))
        if not (copy / "vsctl/journal.cbor").exists() and found.rows not in (before.rows, after.rows):
            raise Complaint("cut short, it leaves half a change", f"write {nth} {before.differences(found)}")
        for how, wanted in (("--undo", before), ("--resume", after)) if (copy / "vsctl/journal.cbor").exists() else ():
            place = self.copied(copy)
            finished, found = self.run_on(place, ["apply", how]), Host(read_rows(place))
            if finished.returncode or found.rows != wanted.rows:
                raise Complaint(f"cut short, {how} leads elsewhere",
                                f"write {nth} {finished.stderr}{wanted.differences(found)}")
        return changes

    def copied(self, host):
        copy = pathlib.Path(tempfile.mkdtemp(dir=self.directory)) / "host"
        subprocess.run(["cp", "-r", host, copy], check=True)  # in this process it would end the locks of SQLite
        return copy

    def unconfirmed(self, command, chance):
        """Applied, and undone by hand or by the guard."""
        if command.words[0] != "apply":
            return self.plainly(command, chance)
        before, journal = Host(read_rows(self.host)), self.host / "vsctl/journal.cbor"
        changes = self.plainly(dataclasses.replace(command, words=[*command.words, "--confirm-within=5s"]), chance)
        if not journal.exists():
            return changes
        meanwhile = self.run_on(self.host, ["switch", "create", "meanwhile"])
        if meanwhile.returncode != 1:
            raise Complaint("a change is begun while another waits", meanwhile.stdout)
        guard = re.search(rb"[0-9]+-[0-9]+", journal.read_bytes())[0].decode()
        self.run_on(self.host, ["apply", "--undo"] if chance < 0.5 else ["confirm", "--guard", guard, "--after=1ms"])
        found = Host(read_rows(self.host))
        if found.rows != before.rows:
            raise Complaint("what isn't confirmed leaves changes", f"{before.differences(found)}")
        return False

    FAULTS = [(STORE, IO_ERROR, 100), (STORE, IO_ERROR, 100), (SHELL, 1, 5), (SHELL, 256, 5), (DRIVER, 5, 10)]
    MANNERS = [plainly, plainly, after_a_dry_run, after_a_dry_run, with_a_fault, cut, unconfirmed]


if __name__ == "__main__":
    main()
