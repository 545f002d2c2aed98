#!/usr/bin/env python3
"""What programs use that change a host without a person: files that replace each other, limits of time, clocks
that are set, restarts of the machine."""
import json
import pathlib
import signal
import subprocess
import time

from vsctl_host import BUILD, HOST, PLAN_SCHEMA, VSCTL, OnHost, main, signalled_at

import jsonschema

OLD = """
[switches.lab]
uplinks = ["u0", "u1"]
mtu = 9000
multicast = "snooping"
mirror = [{ session = "s1" }]
[switches.lab.ports."p0..p3"]
vlan = { id = 100, priority = 3 }
security = { lock-address = true }
[switches.lab.ports.u0]
override = "east"
[switches.lab.ports.gone]
absent = true
[switches.old.ports.a]
sink = true
"""
WITHIN = ("apply", "--confirm-within", "600s")


class Unattended(OnHost):
    def test_a_file_is_checked_without_a_host(self):
        for text, code, reason in ((OLD, 0, ""), ("[switches.a]\nmtu = 7\n", 5, ":2:1: switches/a/mtu"),
                                   ("[switches.a", 5, ":1:"), ("{}", 5, "switches"),
                                   ('{"switches": {"a": {"portz": {}}}}', 5, "portz")):
            done = subprocess.run([VSCTL, "plan", self.write("file", text), "--check", "--json"], env={"PATH": "/"},
                                  capture_output=True, text=True)
            self.assertEqual(done.returncode, code, done.stderr)
            self.assertIn(reason, done.stderr)
            if not code:
                jsonschema.validate(json.loads(done.stdout), PLAN_SCHEMA)
                self.assertEqual(done.stdout, self.run_vsctl("plan", "-", "--check", "--json", stdin=done.stdout))
                self.assertIn("p0..p3", done.stdout)

    def fresh(self, *documents):
        """What is there after these on an empty host; the MTU, which can't be cleared, left out."""
        for row in self.rows("switch", "list"):
            self.run_vsctl("switch", "destroy", row["switch"])
        for words in documents:
            self.run_vsctl("apply", *words, "--allow-removals")
            if words == documents[0]:
                self.run_vsctl("port", "add", "lab", "more")  # which no file names
        switches = {}
        for row in self.rows("switch", "list"):
            ports = [port["port"] for port in self.rows("port", "list", row["switch"])]
            words = row["switch"] + ("/" + ",".join(ports) if ports else "")
            found = json.loads(self.run_vsctl("export", words, "--json"))["switches"][row["switch"]]
            switches[row["switch"]] = {key: value for key, value in found.items() if key not in ("id", "mtu")}
        return switches

    def test_what_only_the_replaced_file_names_goes(self):
        old = self.write("old.toml", OLD)
        for new, removes in ((OLD, False), ("[switches.lab]\n[switches.old]\nabsent = true\n", True),
                             ("[switches.lab]\n", True),
                             ('[switches.lab]\nuplinks = ["u0"]\n[switches.lab.ports."p0..p1"]\n'
                              "vlan = { id = 100 }\n[switches.old.ports.a]\n", True),
                             ('[switches.lab]\nuplinks = ["u0", "u1"]\n[switches.lab.ports."p2..p3,p0..p1"]\n'
                              'vlan = { trunk = ["5-6"] }\n[switches.old.ports.a]\neth-filter = "%s"\n'
                              % ("aB" * 200), False)):
            with self.subTest(new):
                file = self.write("new.toml", new)
                wanted = self.fresh([file])
                self.assertEqual(self.fresh([old], [file, "--replaces", old]), wanted)
                self.assertEqual(self.rows("plan", file, "--replaces", old), [])
                self.fresh([old])
                before = HOST.vshost_fingerprint()
                planned = self.rows("plan", file, "--replaces", old, code=0 if new == OLD else 10)
                if removes:
                    self.assertIn("--allow-removals", self.run_vsctl("apply", file, "--replaces", old, code=1))
                    self.assertEqual(HOST.vshost_fingerprint(), before)
                else:
                    self.assertEqual(self.rows("apply", file, "--replaces", old), planned)

    def test_a_change_that_takes_too_long_is_undone(self):
        self.run_vsctl("switch", "create", "lab", "--ports", "40")
        before = HOST.vshost_fingerprint()
        file = self.write("file", "".join(f"[switches.lab.ports.port{i}]\nvlan = {{ id = 7 }}\n" for i in range(40)))
        self.assertIn("nothing was changed", self.run_vsctl("apply", file, "--deadline", "1ms", code=8))
        start = 'export LD_PRELOAD="$0:$LD_PRELOAD"; exec "$@"'
        words = [VSCTL, "apply", file, "--deadline", "3s", "--json"]
        slow = subprocess.Popen(["sh", "-c", start, BUILD / "tests/libkill_at.so", *words], stderr=subprocess.PIPE,
                                env=self.environment(VSCTL_TEST_KILL_AT="40",
                                                     VSCTL_TEST_SIGNAL=str(int(signal.SIGSTOP))))
        state = pathlib.Path(f"/proc/{slow.pid}/stat")
        self.wait_until(lambda: state.read_text().split()[2] == "T", slow)
        end = time.clock_gettime(time.CLOCK_BOOTTIME) + 3  # later than the deadline, which began before the stop
        while time.clock_gettime(time.CLOCK_BOOTTIME) < end:
            time.sleep(0.05)
        slow.send_signal(signal.SIGCONT)
        error = json.loads(slow.communicate(timeout=60)[1])["error"]
        self.assertEqual(error["exit"], 8)
        self.assertRegex(error["problem"], "--deadline.* steps before it are undone")
        self.assertIn("vlan", error["undone"][0])
        self.assertEqual(HOST.vshost_fingerprint(), before)
        self.assertFalse((self.directory / "host/vsctl/journal.cbor").exists())

    def test_a_set_clock_neither_confirms_nor_undoes(self):
        file = self.write("old.toml", OLD)
        for ahead in ("36000", "-36000"):
            self.run_vsctl(*WITHIN, file)
            start = 'export LD_PRELOAD="$0:$LD_PRELOAD"; exec "$@"'
            subprocess.run(["sh", "-c", start, BUILD / "tests/libkill_at.so", VSCTL, "confirm"], check=True,
                           env=self.environment(VSCTL_TEST_CLOCK=ahead), capture_output=True)
            self.assertEqual(self.rows("plan", file), [])
            self.run_vsctl("switch", "destroy", "old")

    def test_what_a_restart_kept_from_being_confirmed_is_undone(self):
        before = self.exported()
        file, journal = self.write("old.toml", OLD), self.directory / "host/vsctl/journal.cbor"
        boot = pathlib.Path("/proc/sys/kernel/random/boot_id").read_bytes().strip()

        def restart():
            """The journal was written before the machine was started."""
            self.assertIn(boot, journal.read_bytes())
            journal.write_bytes(journal.read_bytes().replace(boot, b"0" * len(boot)))

        undo = ("apply", "--undo", "--if-rebooted")
        self.assertEqual(self.rows(*undo), [])
        self.run_vsctl(*WITHIN, file)
        self.assertEqual(self.rows(*undo), [])
        self.assertNotEqual(self.exported(), before)
        restart()
        self.assertIn("has passed", self.run_vsctl("confirm", code=8))
        self.assertEqual(self.rows(*undo)[0]["outcome"], "undone")
        self.assertEqual(self.exported(), before)
        # Also when it was cut short; but a change that nobody was to confirm waits for a decision.
        for words, undone in ((WITHIN, True), (("apply",), False)):
            self.assertEqual(signalled_at(40, signal.SIGKILL, *words, file).returncode, -signal.SIGKILL)
            restart()
            self.assertEqual(bool(self.rows(*undo)), undone)
            self.assertNotEqual(journal.exists(), undone)
        self.run_vsctl("apply", "--undo")
        self.assertEqual(self.exported(), before)


if __name__ == "__main__":
    main()
