#!/usr/bin/env python3
"""Changes of many steps: planned without a trace, made whole or not at all, finished or undone after a cut."""
import fcntl
import json
import os
import re
import signal
import subprocess
import time
import unittest

import jsonschema

from vsctl_host import (BUILD, HOST, IO_ERROR, PLAN_SCHEMA, SHELL, STORE, VSCTL, WRITES, OnHost, main, recorded)

LAB = """
[switches.lab]
uplinks = ["uplink0"]
mtu = 9000
multicast = "snooping"
mac-learning = { value-a = 300 }
pvlan = ["0102030405060708"]
uplink-mirror = [{ id = "s1" }, { id = "s2" }]
[switches.lab.ports."port0..port1"]
vlan = { id = 100, priority = 3, ranges = ["7-7"] }
security = 5
eth-filter = "%s"
mirror = [{ id = "a" }]
[switches.lab.ports.uplink0]
override = "east"
""" % ("aB" * 200)


class Changes(OnHost):
    def test_plan_reads_only_and_apply_is_idempotent(self):
        file = self.write("lab.toml", LAB)
        for code in (10, 0):
            before = HOST.vshost_fingerprint()
            HOST.vshost_record(1)
            planned = self.rows("plan", file, code=code)
            self.assertEqual(set(recorded()) & WRITES, set())
            self.assertGreater(len(recorded()), 0)
            HOST.vshost_record(0)
            self.assertEqual(HOST.vshost_fingerprint(), before)
            if code:
                applied = self.rows("apply", file)
                self.assertEqual([row["item"] for row in applied], [row["item"] for row in planned])
        self.assertEqual(self.rows("apply", file), [])
        self.assertEqual(self.rows("port", "vlan", "lab", "port1")[0]["priority"], 3)

    def test_export_is_a_plan_without_difference(self):
        self.rows("apply", self.write("lab.toml", LAB))
        for options in ([], ["--json"]):
            text = self.run_vsctl("export", "lab/port0,port1,uplink0", *options)
            self.assertEqual(self.rows("plan", "-", stdin=text), [])
        jsonschema.validate(json.loads(text), PLAN_SCHEMA)
        self.assertEqual(json.loads(self.run_vsctl("schema")), PLAN_SCHEMA)

    def test_faults_of_a_file_are_named(self):
        for where, text in (
                ("2:1", "[switches.lab]\nmtuu = 1500\n"), ("2:1", "[switches.lab]\nmtu = 90000\n"),
                ("1:26", '{"switches": {"lab": {   "mtu": "x"}}}'), ("2:6", "[switches.lab]\nmtu = \n"),
                ("2:30", '[switches.lab.ports.port0]\nvlan = { id = 1, trunk = ["1", "9-2"] }\n'),
                ("1:21", '[switches.lab.ports."a1..b2"]\n'), ("1:10", '{"switches": {"lab": {"mtu": 1500}}, "switches": {}}')):
            with self.subTest(text):
                self.assertIn(":" + where.split(":")[0] + ":", self.run_vsctl("plan", "-", code=5, stdin=text))

    def test_removals_come_last_and_are_agreed_to(self):
        self.rows("apply", self.write("lab.toml", LAB))
        text = '[switches.lab]\nuplinks = []\nmtu = 1500\n[switches.lab.ports.port0]\nabsent = true\n'
        self.assertIn("--allow-removals", self.run_vsctl("apply", "-", stdin=text, code=1))
        rows = self.rows("apply", "-", "--allow-removals", stdin=text)
        self.assertEqual([row["item"] for row in rows], ["mtu", "port", "uplinks"])
        self.assertEqual(self.rows("apply", "-", "--allow-removals", stdin="[switches.lab]\nabsent = true\n")[0]["after"], None)

    def sweep(self, kind, operation, outcome, words, stdin=None):
        """Fails the 1st, 2nd, 3rd … call until the change goes through; all else must leave things as they were."""
        before = self.exported()
        for nth in range(1, 200):
            HOST.vshost_fail(kind, operation, nth, 1, outcome)
            done = self.process(*words, stdin=stdin)
            failed = HOST.vshost_failed()
            HOST.vshost_clear()
            if not failed:
                self.assertEqual(done.returncode, 0, done.stderr)
                return nth
            if done.returncode != 0:
                self.assertNotEqual(done.returncode, 9, done.stderr)
                self.assertEqual(self.exported(), before, f"{operation} {nth}: {done.stderr}")
                self.assertFalse((self.directory / "host/vsctl/journal.json").exists())
            else:
                return nth  # the library does without that call
        self.fail("never goes through")

    def test_undo_at_each_step(self):
        for operation in ("DVSZOR_PortDataSet", "DVSZOR_PortAdd", "DVSZOR_GlobalPropSet", "DVSZOR_HostPropSet",
                          "DVSZOR_SwitchAdd", "DVSZOR_SwitchAssociate"):
            with self.subTest(operation):
                self.sweep(STORE, operation.encode(), IO_ERROR, ["apply", "-"], LAB)
                self.run_vsctl("switch", "destroy", "lab")
        self.sweep(SHELL, b"set", 1, ["apply", "-"], LAB)
        change = "[switches.lab]\nuplinks = ['u9']\nmtu = 1400\n[switches.lab.ports.port0]\nclear = ['vlan']\nsecurity = 1\n" \
                 "[switches.lab.ports.port1]\nabsent = true\n"
        for operation in ("DVSZOR_PortDataClear", "DVSZOR_PortRemove", "DVSZOR_GlobalPropSet", "DVSZOR_HostPropSet"):
            with self.subTest(operation):
                self.sweep(STORE, operation.encode(), IO_ERROR, ["apply", "-", "--allow-removals"], change)
                self.run_vsctl("switch", "destroy", "lab")
                self.run_vsctl("apply", "-", stdin=LAB)

    def killed_at(self, nth, *words, stdin=None):
        """Kills vsctl at its nth change of a file; true when there was one."""
        start = 'export LD_PRELOAD="$0:$LD_PRELOAD" VSCTL_TEST_KILL_AT="$1"; shift; exec "$@"'
        command = ["sh", "-c", start, BUILD / "tests/libkill_at.so", str(nth), VSCTL, *words]
        return subprocess.run(command, input=stdin, capture_output=True, text=True, timeout=60).returncode != 0

    def finish(self, how):
        """Finishes what was cut short, by the shell command that vsctl gives where the library can't; true if so."""
        done = self.process("apply", how)
        command = re.search(r"portset lab runs without a switch.* remove it with (/bin/tybel -e set \S+/destroy destroy)\b", done.stderr)
        if command:
            self.assertEqual(done.returncode, {"--undo": 9, "--resume": 1}[how])
            subprocess.run([BUILD / "platform/tybel", *command[1].split()[1:]], check=True)
            done = self.process("apply", how)
        self.assertEqual(done.returncode, 0, done.stderr)
        return bool(command)

    def test_kill_at_each_write_then_undo_or_resume(self):
        before = self.exported()
        for finish in ("--undo", "--resume"):
            cut = bare = 0
            for nth in range(1, 400):
                if not self.killed_at(nth, "apply", "-", stdin=LAB):
                    break
                if not (self.directory / "host/vsctl/journal.json").exists():
                    continue  # before the first step
                cut += 1
                self.assertIn("cut short", self.run_vsctl("batch", stdin="switch create other", code=1))
                bare += self.finish(finish)
                if finish == "--resume":
                    self.assertEqual(self.rows("plan", "-", stdin=LAB), [])
                    self.run_vsctl("switch", "destroy", "lab")
                self.assertEqual(self.exported(), before, nth)
            self.assertGreater(cut, 20)
            self.assertGreater(bare, 0)
            self.run_vsctl("switch", "destroy", "lab")

    def test_confirmation(self):
        before = self.exported()
        file = self.write("lab.toml", LAB)
        terminal = subprocess.Popen([VSCTL, "apply", file, "--confirm-within", "1s"], start_new_session=True,
                                    stdout=subprocess.DEVNULL)
        self.assertEqual(terminal.wait(), 0)
        try:
            os.killpg(terminal.pid, signal.SIGHUP)  # the terminal is gone
        except ProcessLookupError:
            pass
        self.assertIn("waits", self.run_vsctl("port", "vlan", "lab", "port0..port1", "7", code=1))
        for _ in range(100):
            if not (self.directory / "host/vsctl/journal.json").exists():
                break
            time.sleep(0.1)
        self.assertEqual(self.exported(), before)
        self.run_vsctl("apply", file, "--confirm-within", "60s")
        self.rows("doctor", code=10)
        self.rows("confirm")
        self.assertEqual(self.rows("plan", file), [])
        self.assertNotIn("waits", str(self.rows("doctor")))

    def test_batch_is_whole(self):
        lines = ["switch create big --max-ports 2000", "port add big p0..p499"]
        lines += [f"port vlan big p{i} {i}   # port {i}" for i in range(499)]
        lines = [line.split("   #")[0] for line in lines] + ["", "# a comment", 'property set big com.example.x --text "a b"']
        before = self.exported()
        file = self.write("batch", "\n".join([*lines, "port vlan big nope 1"]))
        self.assertIn("nope", self.run_vsctl("batch", file, code=3))
        self.assertEqual(self.exported(), before)
        self.assertIn("batch:3:", self.run_vsctl("batch", self.write("batch", "\n\nport vlna big p0 1\n"), code=2))
        self.run_vsctl("batch", "-", stdin="switch list\n", code=2)
        self.run_vsctl("batch", "-", stdin="port add big x --dry-run\n", code=2)
        self.assertEqual(len(self.rows("batch", stdin="\n".join(lines))), 1 + 500 + 499 + 1)
        self.assertEqual(self.rows("property", "get", "big", "com.example.x")[0]["text"], "a b")
        self.assertEqual(self.rows("port", "vlan", "big", "p498")[0]["id"], 498)

    def test_time_limit(self):
        self.create()
        with open(self.directory / "host/vsctl/lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.run_vsctl("port", "vlan", "lab", "port0", "5", "--timeout", "200ms", code=8)
        before = self.exported()
        self.run_vsctl("port", "add", "lab", "p0..p4000", "--timeout", "40ms", code=8)
        self.assertEqual(self.exported(), before)
        self.run_vsctl("port", "show", "lab", "p0", code=3)


if __name__ == "__main__":
    main()
