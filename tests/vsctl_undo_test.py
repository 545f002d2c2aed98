#!/usr/bin/env python3
"""A change that fails leaves everything as it was: conflicts are found before the first write, steps are undone."""
import ctypes
import json
import shutil
import subprocess
import time

from vsctl_host import (BUILD, DRIVER, HOST, IO_ERROR, LAB, SANITIZED, SHELL, STORE, VSCTL, WRITES, OnHost, killed_at,
                        main)

PLATFORM = ctypes.CDLL(str(BUILD / "platform/liborkPublic.so"))


class Undo(OnHost):
    def setUp(self):
        super().setUp()
        self.run_vsctl("switch", "create", "prod", "--id", "zz", "--portset", "vs-prod", "--uplinks", "2", "--ports",
                       "2")
        self.run_vsctl("switch", "create", "lab", "--id", "lab-id", "--uplinks", "2", "--ports", "3")

    def unchanged(self, words, code, *reasons, stdin=None):
        """The error contains the reasons, and the host is unchanged; a dry run fails in the same way."""
        for order in ([*words], ["--dry-run", *words]):
            before = HOST.vshost_fingerprint()
            self.refused(order, code, *reasons, stdin=stdin)
            self.assertEqual(HOST.vshost_fingerprint(), before, order)

    def test_what_is_in_use_is_refused_before_any_write(self):
        gone = "portset lab is in use by switch lab"
        for code, words, reason in (
                (4, "switch create other --id zz", "id 'zz' is in use by switch prod"),
                (4, "switch create prod", "EXISTS"),
                (4, "switch create other --portset lab", gone),
                (4, "switch create other --portset vs-prod", "in use by switch prod"),
                (4, "uplink add lab port0", "port0 of switch lab is already a port"),
                (4, "uplink add lab u9 uplink1", "uplink1 of switch lab is already an uplink"),
                (4, "uplink set lab port1 port2", "port1 of switch lab is already a port"),
                (4, "uplink set lab --count 1", "'vsctl uplink add' and 'vsctl uplink remove'"),
                (1, "port remove lab uplink0", "vsctl uplink remove lab uplink0"),
                (1, "port remove lab port0..port2,uplink1", "vsctl uplink remove lab uplink1"),
                (3, "uplink remove lab uplink0 nope", "no uplink nope"),
                (3, "uplink remove lab uplink0 uplink0", "no uplink uplink0"),
                (3, "port remove lab port0,nope", "nope"), (4, "port add lab x,port0", "port0"),
                (3, "port vlan lab port0,nope 5", "nope"),
                (3, "property set lab k --level port --port nope --text a", "nope"),
                (3, "property set nope k --by-id --text a", "nope"),
                (3, "property set lab-id k --by-id --level port --port nope --text a", "nope"),
                (3, "property clear lab k", "no property k"),
                (3, "mirror remove lab s1 port0", "session s1"), (3, "port vlan lab nope --clear", "nope")):
            self.unchanged(words.split(), code, reason)
            self.unchanged(["batch", "--allow-removals"], code, reason, stdin=f"port vlan lab port0 7\n{words}\n")

    def test_files_are_refused_alike(self):
        file = json.loads(self.run_vsctl("export", "prod/port0", "--json"))
        file["switches"]["other"] = file["switches"].pop("prod")
        for code, entries, reason in (
                (4, file["switches"], "'zz' is in use"), (4, {"other": {"portset": "lab"}}, "in use by switch lab"),
                (4, {"lab": {"uplinks": ["uplink0", "uplink1", "port0"]}}, "port0 of switch lab is already a port"),
                (4, {"a": {"id": "same"}, "b": {"id": "same"}}, "'same' is in use"),
                (4, {"a": {"portset": "s"}, "b": {"portset": "s"}}, "portset s is in use"),
                (1, {"lab": {"ports": {"uplink0": {"absent": True}}}}, "vsctl uplink remove"),
                (5, {"lab": {"uplinks": ["uplink1"], "ports": {"uplink0": {"security": {"static-only": True}}}}},
                 "an uplink that 'uplinks' does not list")):
            text = json.dumps({"switches": entries})
            self.unchanged(["apply", "-", "--allow-removals"], code, reason, stdin=text)
            self.refused(["plan", "-"], code, reason, stdin=text)

    def test_steps_are_checked_in_their_order(self):
        for code, lines in ((0, "switch create new --ports 1\nport add new x\nuplink add new u\n"
                                "uplink remove new u\nport add new u\nport remove new x"),
                            (4, "switch create new2 --id n\nswitch create new3 --id n"),
                            (3, "switch destroy lab\nport vlan lab port0 5"),
                            (4, "uplink add lab a\nport add lab a"),
                            (3, "port remove lab port0\nport vlan lab port0 5"),
                            (0, "property set lab k --text a\nproperty clear lab k\nport add lab y"),
                            (3, "property clear lab k\nproperty set lab k --text a"),
                            (2, "switch destroy lab\nswitch create lab"),
                            (2, "switch destroy prod\nswitch create x --id zz"),
                            (2, "switch destroy prod\nswitch create x --portset vs-prod")):
            with self.subTest(lines):
                before = HOST.vshost_fingerprint()
                self.run_vsctl("batch", "--allow-removals", stdin=lines, code=code)
                self.assertEqual(HOST.vshost_fingerprint() == before, code != 0)

    def test_uplinks_whose_port_is_gone_stay_listed(self):
        self.assertEqual(PLATFORM.DVSZOR_PortRemove(b"lab-id", b"uplink0"), 0)  # as another program would
        for words in ("uplink add lab u9", "uplink remove lab uplink1"):
            self.unchanged(words.split(), 3, "name port uplink0, which is gone", "vsctl port add lab uplink0")
        self.assertEqual([row["port"] for row in self.rows("uplink", "list", "lab")], ["uplink0", "uplink1"])
        self.run_vsctl("port", "add", "lab", "uplink0")
        self.run_vsctl("uplink", "remove", "lab", "uplink0", "uplink1")
        self.assertEqual(self.rows("uplink", "list", "lab"), [])

    def test_an_uplink_without_a_name_is_removed(self):
        self.run_vsctl("property", "clear", "lab", "com.talpex.common.uplinkPorts")
        (row,) = self.rows("uplink", "remove", "lab", "uplink1", "--dry-run", code=10)
        self.assertEqual(row["after"], {"names": [], "ids": ["uplink0"]})

    def full_host(self):
        """Switches whose ports, uplinks and policies are as no new ones are."""
        nics = b'{"nics": {"nic5": {}, "nic6": {}, "nic7": {"mtu": 3000}}}'
        self.assertEqual(HOST.vshost_scenario(nics), 0, HOST.vshost_error())
        lines = ["port remove prod port0", "port add lab q --connect-id 9",
                 "port remove lab port1", "port add prod z", "port vlan lab uplink0 7 --priority 3",
                 "port vlan lab port0 --trunk 5-9", "port vlan lab port2 --clear",
                 "port security lab uplink1 --static-only",
                 f"port eth-filter lab q --hex {'ab' * 200}", "property set lab com.example.x --text a",
                 "property set lab com.example.y --level host --hex 00",
                 "property set lab com.example.z --port q --level port --text b",
                 "mirror add lab s1 --to q", "mirror add lab s2 --to q",
                 "mirror add lab s3 --to uplink0", "pvlan add lab 100 --isolated 101",
                 "switch mac-learning lab --aging 300", "switch mtu lab 4000", "uplink add lab u9 u8",
                 "uplink remove lab uplink1", "switch create third --id third --uplinks 1",
                 "switch create free --id free --uplinks 1", "switch destroy free", "port remove prod port1",
                 "property clear lab com.talpex.common.opaqueDvs", "port add lab f0..f9"]
        self.run_vsctl("batch", "--allow-removals", stdin="\n".join(lines))
        self.run_vsctl("port", "add", "lab", "o", "--external-id", "\udcff")
        self.run_vsctl("mac", "add", "lab", "q", "--address", "02:00:00:00:00:01", "--vlan", "7")

    # A command, lines of a batch, or a file.
    CHANGES = ["switch destroy lab", "port remove lab q", "uplink remove lab uplink0", "uplink set lab e1 e2",
               "uplink clear lab", "switch mtu lab 9000", "switch mtu third 9000\nport add third x",
               "uplink clear lab\nuplink add lab e1\nuplink add third e2\nuplink add prod e3\nport add prod y1\n"
               "port add third y2",
               "port remove lab port0,o\nport add lab o\nport vlan lab o 6\nport add third a,b",
               "switch create new --id n --uplinks 2 --ports 2", "uplink add third e1 e2\nswitch mtu third 9000",
               "switch create new --id n --uplinks 2\nswitch mtu new 4000",
               "port vlan lab port0 --clear\nport vlan lab q 5 --priority 2\npvlan remove lab 101\n"
               "pvlan add lab 100 --community 102\n"
               "mirror remove lab s1\nmirror clear lab\nswitch mac-learning lab --clear",
               "uplink remove lab u9\nuplink add third t2\nport remove lab q\nport add prod y\nswitch destroy lab\n"
               "port add third a\nswitch create new --id n --uplinks 2",
               "switch destroy prod\nswitch destroy third\nuplink add lab e1\nport add lab x,y,z",
               "property set lab com.example.x --text b\nproperty clear lab com.example.y --level host",
               LAB.replace("lab", "rich"), "port vlan lab port0 --priority 5",
               '[switches.lab]\nuplinks = ["u9"]\nmtu = 1400\n[switches.lab.ports.port0]\nclear = ["vlan"]\n'
               "security = { static-only = true }\n[switches.lab.ports.port2]\nabsent = true\n",
               "uplink down lab nic2\nmirror add lab t1 --to port0\nmirror add lab t2 --to port0\n"
               "mirror remove lab t1\nls-teaming add lab gold --active u8\nport block lab port0 on\n"
               "port sink lab q off\n"
               "port vlan lab port2 5\nport vlan lab port2 6\nport remove lab o\n"
               "port add lab o --external-id text\nproperty set lab k --text a\nproperty set lab k --text b\n"
               "uplink remove lab uplink0\nuplink clear lab\nuplink set lab port9 e2"]
    if SANITIZED:  # a process starts slowly there
        CHANGES = CHANGES[2::4]

    def command(self, change):
        """Its words, and what it reads."""
        if change.lstrip().startswith("["):
            return ["apply", "-", "--allow-removals"], change
        return (["batch", "--allow-removals"], change) if "\n" in change else (change.split(), None)

    def faults(self):
        """The calls that are made to fail: each kind of write by itself, and any call here and there."""
        for operation in sorted(WRITES - {"create", "destroy", "set"}):
            yield from ((STORE, operation.encode(), nth, IO_ERROR) for nth in range(1, 100))
        for operation, outcome in ((b"create", 1), (b"destroy", 1), (b"set", 256)):
            yield from ((SHELL, operation, nth, outcome) for nth in range(1, 100))
        yield from ((STORE, None, nth, IO_ERROR) for nth in range(1, 2000, 29))
        yield from ((DRIVER, None, nth, 5) for nth in range(1, 50))

    def test_a_change_that_fails_at_any_call_is_undone_whole(self):
        self.full_host()
        for change in self.CHANGES:
            words, stdin = self.command(change)
            start = self.copied()
            before, passed = HOST.vshost_fingerprint(), None
            for kind, operation, nth, outcome in self.faults():
                if passed == (kind, operation):
                    continue
                HOST.vshost_fail(kind, operation, nth, 1, outcome)
                done = self.process(*words, stdin=stdin)
                failed = HOST.vshost_failed()
                HOST.vshost_clear()
                place = f"{change}: {operation} {nth}: {done.stderr}"
                if done.returncode == 0:
                    passed = None if failed else (kind, operation)
                    self.restart(start)
                    continue
                self.assertIn(done.returncode, (1, 3, 4, 6), place)
                self.assertEqual(HOST.vshost_fingerprint(), before, place)
            self.restart(start)

    def test_a_change_that_is_killed_at_any_write_is_undone_or_finished_whole(self):
        self.full_host()
        for number, change in enumerate(self.CHANGES):
            words, stdin = self.command(change)
            start, cut = self.copied(), number
            before = HOST.vshost_fingerprint()
            self.run_vsctl(*words, stdin=stdin)
            after = HOST.vshost_fingerprint()
            self.restart(start)
            for nth in range(1, 2000, 5 if stdin else 2):
                if not killed_at(nth, *words, stdin=stdin):
                    break
                finish, wanted = (("--undo", before), ("--resume", after))[cut % 2]
                if (self.directory / "host/vsctl/journal.cbor").exists():
                    cut += 1
                    self.run_vsctl("apply", finish)
                else:  # before the first step
                    wanted = before
                self.assertEqual(HOST.vshost_fingerprint(), wanted, f"{change}: {finish} after a cut at write {nth}")
                if wanted == after:
                    self.restart(start)
            self.assertGreater(cut, number, change)
            self.restart(start)

    def test_a_file_that_is_not_confirmed_is_undone_whole(self):
        self.full_host()
        before = HOST.vshost_fingerprint()
        ports = {"uplink0": {"absent": True}, "q": {"absent": True}, "port0": {"vlan": {"id": 5}}}
        file = {"lab": {"uplinks": ["e1", "u9"], "mtu": 9000, "ports": ports},
                "prod": {"absent": True}, "third": {"uplinks": []}, "new": {"uplinks": ["n1"], "ports": {"p0..p3": {}}}}
        text = json.dumps({"switches": file})
        self.assertIn("statistics and learned addresses of", self.run_vsctl("apply", "-", stdin=text, code=1))
        for finish in (["apply", "--undo"], None):
            within = "60s" if finish else "100ms"
            rows = self.rows("apply", "-", "--allow-removals", "--confirm-within", within, stdin=text)
            removed = [(row["switch"], row["port"]) for row in rows if row["after"] is None]
            self.assertEqual(removed, [("lab", "q"), ("prod", None)])
            uplinks = [(row["switch"], set(row["before"]["ids"]) - set(row["after"]["ids"])) for row in rows
                       if row["item"] == "uplinks" and row["before"]]
            self.assertEqual([gone for gone in uplinks if gone[1]],
                             [("lab", {"uplink0"}), ("lab", {"u8"}), ("third", {"uplink0"})])
            self.assertNotEqual(HOST.vshost_fingerprint(), before)
            if finish:
                lost = self.rows(*finish)[0]["lost"]
                self.assertEqual(len(lost), 5)
                self.assertIn("statistics and learned addresses of q of switch lab", lost)
            while (self.directory / "host/vsctl/journal.cbor").exists():
                time.sleep(0.02)
            self.assertEqual(HOST.vshost_fingerprint(), before)

    def test_where_ports_cannot_be_listed_it_is_said_what_is_lost(self):
        """On a platform without our functions."""
        def elsewhere(line, code, *reasons):
            done = subprocess.run([VSCTL, "batch", "--allow-removals"], input=line, capture_output=True, text=True,
                                  env=environment)
            self.assertEqual(done.returncode, code, done.stderr)
            for reason in reasons:
                self.assertIn(reason, done.stderr)

        environment = self.environment(VSCTL_STATE=str(self.directory / "state"))
        environment["LD_PRELOAD"] += f":{BUILD / 'tests/libother_platform.so'}"
        self.run_vsctl("port", "security", "lab", "uplink0..uplink1", "--static-only")
        self.run_vsctl("port", "vlan", "lab", "port0", "9")
        before = self.exported()
        elsewhere("switch create other --id zz", 4, "in use by switch prod")
        elsewhere("switch create other --portset lab", 4, "in use by switch lab")
        unknown = "number, NIC, statistics and unknown properties of"
        for line, lost in (("port remove lab port0", f"{unknown} port0 of switch lab"),
                           ("uplink remove lab uplink0", f"{unknown} uplink0 of switch lab"),
                           ("uplink clear lab", "which NICs are behind the uplinks of switch lab")):
            HOST.vshost_fail(STORE, b"DVSZOR_PortAdd", 1, 1, IO_ERROR)
            elsewhere(f"{line}\nport add lab x", 6, "restored except " + lost)
            HOST.vshost_clear()
            self.assertEqual(self.exported(), before)
        HOST.vshost_fail(SHELL, b"destroy", 1, 1, 1)
        elsewhere("switch destroy lab", 1, "all ports of switch lab except its uplinks, and unknown properties")
        HOST.vshost_clear()
        ports = before["lab"]["ports"]
        before["lab"]["ports"] = {port: ports[port] for port in ports if port.startswith("uplink")}
        self.assertEqual(self.exported(), before)


if __name__ == "__main__":
    main()
