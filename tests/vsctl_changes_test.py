#!/usr/bin/env python3
"""Changes of many steps: plans write nothing, a change is made as a whole or not at all, also after a cut."""
import ctypes
import fcntl
import json
import os
import pathlib
import pty
import re
import select
import signal
import subprocess
import time

from vsctl_host import (BUILD, HOST, LAB, SANITIZED, VSCTL, WRITES, OnHost, calls, killed_at, main, recorded,
                        signalled_at, writes)

PLATFORM = ctypes.CDLL(str(BUILD / "platform/liborkPublic.so"))


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
                HOST.vshost_record(1)
                applied = self.rows("apply", file)
                self.assertEqual(applied, planned)
                touched = {text.split()[1] for _, text in calls() if _ in WRITES and text.startswith("lab ")} - {"-"}
                self.assertEqual(touched, {row["port"] for row in planned if row["port"]} | {"uplink0"})
                HOST.vshost_record(0)
        self.assertEqual(self.rows("apply", file), [])
        self.assertEqual(self.rows("port", "vlan", "lab", "port1")[0]["priority"], 3)

    def test_the_export_of_a_host_makes_the_same_host(self):
        """Ports that are equal are one block, however many they are; the order of their making doesn't matter."""
        self.rows("apply", self.write("lab.toml", LAB))
        self.rows("switch", "create", "big", "--ports", "200", "--uplinks", "2", "--max-ports", "1000")
        self.rows("port", "vlan", "big", "port7,port12,port100..port120", "9")
        self.rows("port", "block", "big", "port199", "on")
        self.rows("port", "remove", "big", "port5")
        self.rows("port", "add", "big", "port5,o", "--connect-id", "7")
        host = json.loads(self.run_vsctl("export", "--json"))
        self.assertEqual(list(host["switches"]["big"]["ports"]),
                         ["o,port5", "port0..port4,port6,port8..port11,port13..port99,port121..port198",
                          "port7,port12,port100..port120", "port199", "uplink0..uplink1"])
        texts = [self.run_vsctl("export", *options) for options in ([], ["--json"])]
        for number, text in enumerate(texts):
            self.assertEqual(self.rows("plan", "-", stdin=text), [])
            self.assertEqual(HOST.vshost_start(str(self.directory / f"empty{number}").encode(), 0), 0)
            self.run_vsctl("apply", "-", stdin=text)
            self.assertEqual([self.run_vsctl("export", *options) for options in ([], ["--json"])], texts)

    def test_a_change_is_shown_as_a_difference(self):
        self.create()
        self.rows("switch", "create", "old", "--ports", "3")
        text = """[switches.lab]
mtu = 9000
uplinks = ["uplink0", "u9"]
pvlan = [{ primary = 7, secondary = 8, type = "isolated" }]
[switches.lab.ports."port0..port1,port3"]
vlan = { id = 100, priority = 3 }
[switches.lab.ports."port2"]
absent = true
[switches.lab.ports."x8..x11"]
[switches.old]
absent = true
"""
        lines = ["switch lab", "  + uplink u9", "  + x8..x11  connect-id=1", "  ~ mtu: 1500 -> 9000",
                 "  + pvlan: primary=7 secondary=8 type=isolated",
                 "  ~ port0..port1,port3  vlan: id 0 -> 100, priority none -> 3", "  - port2", "  - uplink uplink1",
                 "- switch old  with 3 ports"]
        for words, last in ((["plan", "-"], "6 to add, 4 to change, 3 to remove"),
                            (["apply", "-", "--dry-run", "--allow-removals", "--quiet"], None),
                            (["apply", "-", "--allow-removals"], "6 added, 4 changed, 3 removed")):
            shown = self.run_vsctl(*words, stdin=text, code=0 if last and "added" in last else 10)
            self.assertEqual(shown.splitlines(), lines + ([last] if last else []))
        shown = self.run_vsctl("port", "vlan", "lab", "port0,x8", "101", "--columns", "port,item")
        self.assertEqual([line.split() for line in shown.splitlines()],
                         [["PORT", "ITEM"], ["port0", "vlan"], ["x8", "vlan"]])
        self.run_vsctl("undo")
        self.assertEqual(self.run_vsctl("port", "vlan", "lab", "port0", "100"), "0 added, 0 changed, 0 removed\n")
        shown = self.run_vsctl("batch", stdin="".join(f"port vlan lab x{port % 4 + 8} {port}\n" for port in range(99)))
        self.assertEqual(shown.splitlines()[-2:], ["  … and 49 more lines, which --json shows",
                                                   "0 added, 98 changed, 0 removed"])

    def test_a_new_switch_has_no_id_until_it_is_made(self):
        file = self.write("new.toml", "[switches.a]\n[switches.b]\n")
        planned = self.rows("plan", file, code=10)
        self.assertEqual([row["after"] for row in planned], [{"portset": "a"}, {"portset": "b"}])
        self.assertEqual(self.rows("apply", file, "--dry-run", code=10), planned)
        made = {row["switch"]: row["after"]["id"] for row in self.rows("apply", file)}
        self.assertEqual(made, {row["switch"]: row["id"] for row in self.rows("switch", "list")})

    def test_the_last_change_is_taken_back(self):
        self.create()
        self.run_vsctl("port", "vlan", "lab", "port1", "7")
        self.run_vsctl("mirror", "add", "lab", "s1", "--to", "port1")
        changes = ("port vlan lab port0,port1 100 --priority 3", "port add lab x,y", "port remove lab port2,port1",
                   "switch create new --uplinks 1 --ports 2", "switch destroy lab", "uplink add lab u9",
                   "uplink remove lab uplink0", "uplink set lab u1 u2", "uplink clear lab", "uplink down lab nic0",
                   "property set lab k --text a", "property set lab k --port port0 --text a", "switch mtu lab 4000",
                   "mirror remove lab s1", "mirror add lab s2 --to port1", "pvlan add lab 7 --isolated 8",
                   "port vlan lab port1 --clear\nport vlan lab port1 9\nport add lab z\nport security lab z --sink")
        changes = [*changes[:-1], changes[-1].replace("security lab z --sink", "sink lab z on")]
        for change in changes:
            with self.subTest(change):
                before = HOST.vshost_fingerprint()
                made = self.rows("batch", "--allow-removals", stdin=change)
                after = HOST.vshost_fingerprint()
                planned = self.rows("undo", "--dry-run", code=10)
                self.assertEqual(HOST.vshost_fingerprint(), after)
                self.assertEqual(self.rows("undo"), planned)
                self.assertEqual([(row["switch"], row["port"], row["item"]) for row in planned],
                                 [(row["switch"], row["port"], row["item"]) for row in reversed(made)])
                self.assertEqual(HOST.vshost_fingerprint(), before)
                self.assertIn("no change to undo", self.run_vsctl("undo", code=3))
        self.run_vsctl("port", "vlan", "lab", "port0", "8")
        self.assertEqual(self.run_vsctl("undo"),
                         "switch lab\n  ~ port0  vlan: id 8 -> 0\n0 added, 1 changed, 0 removed\n")
        self.run_vsctl("batch", stdin="switch create new\nuplink add new u1")
        self.assertEqual(self.run_vsctl("undo"),
                         "- switch new  with 1 port\n  - uplink u1\n0 added, 0 changed, 2 removed\n")

    def test_what_came_later_is_not_undone(self):
        self.create()
        tybel = [BUILD / "platform/tybel", "-e", "set", "/net/portsets/lab/mtu", "3000"]
        for change, later in (("switch mtu lab 4000", lambda: subprocess.run(tybel, check=True)),
                              ("port add lab x", lambda: PLATFORM.DVSZOR_PortRemove(self.switch_id, b"x"))):
            self.switch_id = self.rows("switch", "show", "lab")[0]["id"].encode()
            self.run_vsctl(*change.split())
            later()
            before = HOST.vshost_fingerprint()
            self.assertIn("changed since", self.run_vsctl("undo", code=1))
            self.assertEqual(HOST.vshost_fingerprint(), before)
        self.run_vsctl("port", "vlan", "lab", "port0", "8")
        self.run_vsctl("port", "vlan", "lab", "none", "9", code=3)  # a change that isn't made leaves the last one
        self.run_vsctl("undo")
        self.assertEqual(self.rows("port", "vlan", "lab", "port0")[0]["id"], 0)
        self.run_vsctl("apply", "-", "--confirm-within", "600s", stdin="[switches.lab]\nmulticast = 'snooping'\n")
        self.assertIn("waits", self.run_vsctl("undo", code=1))
        self.run_vsctl("confirm")
        self.assertEqual(self.rows("undo")[0]["after"], None)

    def test_an_undo_that_is_cut_short_can_be_finished(self):
        self.create()
        before, nth = self.exported(), 1
        while True:
            self.run_vsctl("port", "vlan", "lab", "port0..port3", "7")
            if not killed_at(nth, "undo"):
                break
            if self.journal().exists():
                self.run_vsctl("apply", "--undo")
            else:
                self.run_vsctl("undo")  # it was not begun
            self.assertEqual(self.exported(), before)
            nth += 1
        self.assertGreater(nth, 4)

    def test_a_switch_is_edited(self):
        self.create()
        self.run_vsctl("port", "vlan", "lab", "port0", "7")

        def edit(script, code, *options):
            editor = self.write("editor", "#!/bin/sh\n" + script)
            os.chmod(editor, 0o755)
            done = subprocess.run([VSCTL, "edit", "lab", *options], capture_output=True, text=True,
                                  env=self.environment(EDITOR=editor))
            self.assertEqual(done.returncode, code, done.stderr)
            return done.stdout + done.stderr
        self.assertEqual(edit(":", 0), "nothing to change\n")
        script = 'sed -i "s/mtu = 1500/mtu = 9000/; s/port1..port3/port1..port2/; /id = 7/d" "$1"'
        shown = ["switch lab", "  ~ mtu: 1500 -> 9000", "  - port0  vlan: id=7 option=no", "  - port3"]
        self.assertEqual(edit(script, 10, "--dry-run").splitlines()[:-1], shown)
        self.assertEqual(edit(script, 0).splitlines(), [*shown, "0 added, 1 changed, 2 removed"])
        self.run_vsctl("port", "vlan", "lab", "port0", "7")
        error = edit('sed -i "s/mtu = 9000/mtu = 9\\nmtuu = 7/; /id = 7/d" "$1"', 5)
        self.assertRegex(error, "mtu must be.*\n.*mtuu is not a known key")
        kept, before = re.search("vsctl apply (/tmp/vsctl-.*toml) --replaces (.*toml)'", error).groups()
        text = pathlib.Path(kept).read_text()
        pathlib.Path(kept).write_text(text.replace("mtu = 9\nmtuu = 7\n", "mtu = 9000\n"))
        shown = self.run_vsctl("plan", kept, "--replaces", before, code=10)
        self.assertEqual(shown.splitlines()[:-1], ["switch lab", "  - port0  vlan: id=7 option=no"])
        os.unlink(kept)
        os.unlink(before)
        error = edit("sed -i 's/^mtu = .*/&\\nteaming = { active = [\"u9\"] }/' \"$1\"", 3)
        self.assertIn("u9, which is not an uplink", error)
        for kept in re.search("'vsctl apply (/tmp/vsctl-.*toml) --replaces (.*toml)' applies", error).groups():
            os.unlink(kept)
        self.assertIn("editor failed", edit("exit 1", 1))

    def test_what_is_done_already_is_left_out(self):
        self.create()
        self.rows("mirror", "add", "lab", "s1", "--to", "port0")
        for line in ("switch create lab --if-absent", "port add lab port0,port1 --if-absent",
                     "uplink add lab uplink0 --if-absent", "pvlan remove lab 7 --if-present",
                     "mirror add lab s1 --to port0 --if-absent", "mirror remove lab none --if-present",
                     "port remove lab none --if-present", "uplink remove lab none --if-present",
                     "switch destroy none --if-present", "port remove none port0 --if-present"):
            before = HOST.vshost_fingerprint()
            self.assertEqual(self.rows(*line.split(), "--dry-run"), [], line)
            self.assertEqual(self.rows(*line.split()), [], line)
            self.rows("batch", "--allow-removals", stdin=line)
            self.assertEqual(HOST.vshost_fingerprint(), before)
        self.assertEqual([row["port"] for row in self.rows("port", "add", "lab", "port0,new", "--if-absent")], ["new"])
        self.assertEqual([row["port"] for row in self.rows("port", "remove", "lab", "none,new", "--if-present")],
                         ["new"])
        for line, code in (("switch create two --portset lab --if-absent", 4), ("uplink add lab port0 --if-absent", 4),
                           ("mirror add lab s1 --to port0 --snap 5 --if-absent", 4),
                           ("port add none x --if-absent", 3), ("port remove lab uplink0 --if-present", 1)):
            self.refused(line.split(), code)

    def test_all_faults_of_a_file_are_named(self):
        self.create()
        text = """[switches.lab]
mtu = 7
id = "other"
[switches.lab.ports."port0..port3"]
vlan = { id = 5000 }
[switches.lab.ports.port3]
security = { lock = true }
[switches.two]
mtuu = 7
"""
        done = self.process("plan", "-", stdin=text)
        self.assertEqual([line.split(": ")[1] for line in done.stderr.splitlines()],
                         [f"standard input:{place}" for place in ("2:1", "5:10", "7:14", "6:21", "9:1")], done.stderr)
        self.assertEqual(len(json.loads(self.process("plan", "-", "--json", stdin=text).stderr)["error"]["more"]), 4)
        done = self.process("plan", "-", stdin="[switches.lab]\nid = 'x'\n[switches.lab.ports.'port0..port3']\n"
                                               "external-id = 'x'\n")
        self.assertEqual(len(done.stderr.splitlines()), 2, done.stderr)

    def test_a_long_change_shows_its_progress_at_a_terminal(self):
        self.create()
        lines = "port vlan lab port0 5\nport vlan lab port0 6\n" * 50
        start = 'export LD_PRELOAD="$0:$LD_PRELOAD"; exec "$@"'
        for options, is_shown in (([], True), (["--quiet"], False)):
            master, slave = pty.openpty()
            words = [VSCTL, "batch", self.write("lines", lines), *options]
            slow = subprocess.Popen(["sh", "-c", start, BUILD / "tests/libkill_at.so", *words], stdout=subprocess.PIPE,
                                    stderr=slave, env=self.environment(
                                        VSCTL_TEST_KILL_AT="40", VSCTL_TEST_SIGNAL=str(int(signal.SIGSTOP))))
            os.close(slave)
            state = pathlib.Path(f"/proc/{slow.pid}/stat")
            self.wait_until(lambda: state.read_text().split()[2] == "T", slow)
            end = time.monotonic() + 1.5
            while time.monotonic() < end:
                time.sleep(0.05)
            slow.send_signal(signal.SIGCONT)
            slow.communicate(timeout=60)
            select.select([master], [], [], 0)
            shown = b""
            try:
                shown = os.read(master, 65536)
            except OSError:  # nothing was written
                pass
            os.close(master)
            self.assertEqual(re.search(rb"\[#+ *\] \d+/100 steps, \d+/s, \d+ s left", shown) is not None, is_shown)

    def test_faults_of_a_file_are_named(self):
        for where, text in (
                (":2:", "[switches.lab]\nmtuu = 1500\n"), (":2:", "[switches.lab]\nmtu = 90000\n"),
                ("input: switches/lab/mtu ", '{"switches": {"lab": {   "mtu": "x"}}}'),
                (":2:", "[switches.lab]\nmtu = \n"),
                (":2:", '[switches.lab.ports.port0]\nvlan = { id = 1, trunk = ["1", "9-2"] }\n'),
                (":1:", '[switches.lab.ports."a1..b2"]\n'),
                ("input: switches ", '{"switches": {"lab": {"mtu": 1500}}, "switches": {}}')):
            with self.subTest(text):
                self.assertIn(where, self.run_vsctl("plan", "-", code=5, stdin=text))

    def test_removals_come_last_and_are_agreed_to(self):
        self.rows("apply", self.write("lab.toml", LAB))
        text = '[switches.lab]\nuplinks = []\nmtu = 1500\n[switches.lab.ports.port0]\nabsent = true\n'
        self.assertIn("--allow-removals", self.run_vsctl("apply", "-", stdin=text, code=1))
        rows = self.rows("apply", "-", "--allow-removals", stdin=text)
        self.assertEqual([row["item"] for row in rows], ["mtu", "port", "uplinks"])
        self.assertEqual(self.rows("apply", "-", "--allow-removals",
                                   stdin="[switches.lab]\nabsent = true\n")[0]["after"], None)

    def test_a_teaming_policy_names_uplinks_of_its_switch(self):
        """Those that are there, or that the same change adds first."""
        self.run_vsctl("apply", "-", stdin=LAB)
        for line in ("switch teaming lab --active u9", "ls-teaming add lab t --standby u9",
                     "port teaming lab port0 --standby uplink0,u9"):
            self.refused(line.split(), 3, "names u9, which is not an uplink of switch lab", "its uplinks are")
        self.refused(["batch"], 3, "u9", stdin="switch teaming lab --active u9\nuplink add lab u9")
        add = "uplink add lab u9\n"
        gone = add + "uplink remove lab u9\nswitch teaming lab --active u9"
        self.refused(["batch", "--allow-removals"], 3, "u9", stdin=gone)
        self.rows("batch", stdin=add + "switch teaming lab --active u9")
        self.rows("uplink", "remove", "lab", "u9")
        self.rows("switch", "teaming", "lab", "--notify")  # what is stored may name others
        port = {"teaming": {"standby": ["a"]}}
        file = {"new": {"uplinks": ["a"], "teaming": {"active": ["a"]}, "ports": {"p": port}}}
        self.rows("apply", "-", stdin=json.dumps({"switches": file}))

    def journal(self):
        return self.directory / "host/vsctl/journal.cbor"

    def test_changes_are_refused_while_one_is_unfinished(self):
        self.run_vsctl("switch", "create", "lab", "--id", "lab", "--uplinks", "1", "--ports", "4")
        file = self.write("file", LAB)
        other = self.write("other", "[switches.lab.ports.port3]\nvlan = { id = 3 }\n")
        for prepare, reason in ((lambda: self.assertTrue(killed_at(20, "apply", file)), "cut short"),
                                (lambda: self.run_vsctl("apply", file, "--confirm-within", "600s"), "waits")):
            prepare()
            self.assertTrue(self.journal().exists())
            for line in ("port vlan lab port0 7", "port security lab port0 --clear", "port add lab x",
                         "port remove lab port3", "switch mtu lab 1400",
                         "switch create other", "switch destroy lab", "uplink add lab u9", "uplink down lab nic0",
                         "property set lab k --text a",
                         "mirror add lab s1 --to port0", f"apply {other}"):
                for words in (line.split(), ["--dry-run", *line.split()]):
                    self.refused(words, 1, reason, "vsctl apply --undo")
            self.process("plan", file)  # reads only
            self.run_vsctl("port", "show", "lab", "port0")
            self.run_vsctl("apply", "--undo")
            self.run_vsctl("port", "vlan", "lab", "port0", "7")

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
        self.wait_until(lambda: not self.journal().exists())
        self.assertEqual(self.exported(), before)
        self.run_vsctl("apply", file, "--confirm-within", "600s")
        self.assertIn("waits", self.run_vsctl("port", "vlan", "lab", "port0..port1", "7", code=1))
        self.rows("doctor", code=10)
        self.rows("confirm")
        self.assertEqual(self.rows("plan", file), [])
        self.assertNotIn("waits", str(self.rows("doctor")))

    def test_batch_is_whole(self):
        lines = ["switch create big --max-ports 2000", "port add big p0..p499"]
        lines += [f"port vlan big p{i} {i}   # port {i}" for i in range(499)]
        lines = [line.split("   #")[0] for line in lines] + ["", "# a comment",
                                                             'property set big com.example.x --text "a b"']
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

    def test_a_step_shows_what_earlier_steps_left_of_the_same_thing(self):
        self.create()
        lines = ["property set lab a --text x", "property set lab b --text y", "property set lab a --text z",
                 "uplink down lab nic0", "uplink down lab nic1"]
        self.assertEqual([row["before"] for row in self.rows("batch", stdin="\n".join(lines))],
                         [None, None, "7800", True, True])

    def test_batch_with_a_failing_line_in_each_place(self):
        self.create()
        lines = ["port vlan lab port0 5", "port add lab x", 'property set lab k --text "a b"', "uplink add lab u9",
                 "switch create other --ports 2",
                 "port security lab x --lock-address", "switch mtu lab 4000", "port nested-vlan lab port1 on"]
        before = self.exported()
        for place in range(len(lines) + 1):
            for bad, code in (("port vlan lab nope 1", 3), ("port add lab port0", 4), ("port vlan lab port0 4096", 5),
                              ("port vlna lab x 1", 2),
                              ("switch list", 2), ('switch create "x', 2), ("mac props", 2),
                              ("port security lab port0", 2), ("port vlan lab x 1 --dry-run", 2),
                              ("switch destroy lab\nswitch create lab", 2)):
                text = "\n".join([*lines[:place], bad, *lines[place:]])
                HOST.vshost_record(1)
                error = self.run_vsctl("batch", "--allow-removals", code=code, stdin=text)
                if code in (2, 5):
                    self.assertEqual(writes(), [])
                    self.assertIn("two changes" if "destroy" in bad else f"standard input:{place + 1}:", error)
            self.assertEqual(self.exported(), before, f"{bad} in line {place + 1}")
        text = "# first\r\n\r\n  vsctl property set lab k --text 'a \\ \"b'\r\n" \
               'property set lab l --text a\\ "b\\" c"d\n' \
               "port override lab port0 ''"
        self.rows("batch", stdin=text)
        for key, wanted in (("k", 'a \\ "b'), ("l", 'a b" cd')):
            self.assertEqual(self.rows("property", "get", "lab", key)[0]["text"], wanted)
        self.assertEqual(self.rows("port", "override", "lab", "port0")[0]["override"], "")

    def test_changes_of_one_host_come_one_at_a_time(self):
        self.create()
        alone = [subprocess.Popen([VSCTL, "batch"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True)
                 for _ in range(6)]
        for number, process in enumerate(alone):
            process.stdin.write("".join(f"port vlan lab port{port} {number}\n" for port in range(4)) * 20)
            process.stdin.close()
        self.assertEqual([process.wait() for process in alone], [0] * 6)
        self.assertEqual(len({self.rows("port", "vlan", "lab", f"port{port}")[0]["id"] for port in range(4)}), 1)
        path = self.directory / "host/vsctl/lock"
        with open(path, "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            late = subprocess.Popen([VSCTL, "apply", self.write("late", "[switches.lab]\nmtu = 4000\n")],
                                    stderr=subprocess.PIPE, text=True)
            descriptors = pathlib.Path(f"/proc/{late.pid}/fd")  # when it opens the lock, it has made its plan
            self.wait_until(lambda: str(path) in map(os.path.realpath, descriptors.iterdir()), late)
            HOST.vshost_scenario(b"{}")
            subprocess.run([BUILD / "platform/tybel", "-e", "set", "/net/portsets/lab/mtu", "3000"], check=True)
        self.assertIn("changed by another process", late.communicate()[1])
        self.assertEqual(self.rows("switch", "mtu", "lab")[0]["mtu"], 3000)

    def test_a_signal_during_a_change_undoes_it(self):
        self.create()
        before = self.exported()
        for stop in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            change = signalled_at(20, stop, "port", "add", "lab", "p0..p99")
            self.assertEqual((change.returncode, change.stdout), (1, ""), change.stderr)
            self.assertIn(signal.strsignal(stop), change.stderr)
            self.assertFalse(self.journal().exists())
            self.assertEqual(self.exported(), before)
            self.run_vsctl("port", "show", "lab", "p0", code=3)

    def test_a_journal_that_cannot_be_understood(self):
        self.create()
        for content in (b"", b"{}", b"\xa1fformat\x01", b"\xff" * 99):
            self.journal().write_bytes(content)
            self.assertIn("cannot be understood", str(self.rows("doctor", code=10)))
            self.assertIn("move the file away", self.run_vsctl("batch", stdin="port add lab x", code=1))

    def test_export_takes_a_switch_by_any_name_and_in_parts(self):
        self.create()
        self.rows("switch", "create", "lab/port0", "--portset", "x")
        text = self.run_vsctl("export", "lab/port1", "lab/port0", "lab/port2,uplink0", "--json")
        self.assertEqual({alias: list(entry.get("ports", {})) for alias, entry in json.loads(text)["switches"].items()},
                         {"lab": ["port1..port2", "uplink0"], "lab/port0": []})
        self.rows("port", "add", "lab", "o", "--external-id", "\udcff")
        self.assertIn("UTF-8", self.run_vsctl("export", "lab/o", code=1))

    def test_time_limit(self):
        self.create()
        with open(self.directory / "host/vsctl/lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.run_vsctl("port", "vlan", "lab", "port0", "5", "--timeout", "200ms", code=8)
        silent, ours = os.pipe()
        done = subprocess.run([VSCTL, "batch", "--timeout", "200ms"], stdin=silent, capture_output=True)
        os.close(silent)
        os.close(ours)
        self.assertEqual(done.returncode, 8)

    def test_work_that_goes_on_has_no_time_limit(self):
        """Each answer of the platform starts the limit anew, so that a limit of a part of the work is enough.

        Parts are of processor time, which neither other load nor waiting changes.
        """
        start = 'export LD_PRELOAD="$0:$LD_PRELOAD" VSCTL_TEST_LIMIT="$1"; shift; exec "$@"'
        longest = self.directory / "longest"
        lines = "".join(f"port security lab p{port} --static-only\n" for port in range(29999))
        for words, stdin in (("switch create lab --ports 30000 --max-ports 100000", None),
                             ("port add lab p0..p29999", None), ("port show lab p0..p29999", None),
                             ("batch", lines + "switch mtu lab 4000\n")):
            command = ["sh", "-c", start, BUILD / "tests/libkill_at.so", longest, VSCTL, *words.split()]
            done = subprocess.run(command, input=stdin, capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""), words)
            part, whole = map(float, longest.read_text().split())
            self.assertLess(part, whole / 4, words)
        self.rows("switch", "create", "small", "--ports", "100")
        slow = subprocess.Popen([VSCTL, "port", "remove", "small", "port0..port99", "--timeout", "5s", "--json"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        fcntl.fcntl(slow.stdout, fcntl.F_SETPIPE_SZ, 4096)
        select.select([slow.stdout], [], [])
        time.sleep(6)  # longer than the limit: the pipe is full and nobody reads it
        self.assertEqual((len(json.loads(slow.communicate()[0])["result"]), slow.returncode), (100, 0))


if __name__ == "__main__":
    main()
