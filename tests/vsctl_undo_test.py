#!/usr/bin/env python3
"""A change that fails leaves everything as it was: conflicts are found before the first write, steps are undone."""
import ctypes
import json

from vsctl_host import BUILD, HOST, OnHost, main

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
                (4, "uplink add lab port0", "port0 of switch lab is a port"),
                (4, "uplink add lab u9 uplink1", "uplink1 of switch lab is an uplink"),
                (4, "uplink set lab port1 port2", "port1 of switch lab is a port"),
                (4, "uplink set lab --count 1", "uplink0"),
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
                (4, {"lab": {"uplinks": ["uplink0", "uplink1", "port0"]}}, "port0 of switch lab is a port"),
                (4, {"a": {"id": "same"}, "b": {"id": "same"}}, "'same' is in use"),
                (4, {"a": {"portset": "s"}, "b": {"portset": "s"}}, "portset s is in use"),
                (1, {"lab": {"ports": {"uplink0": {"absent": True}}}}, "vsctl uplink remove")):
            text = json.dumps({"switches": entries})
            self.unchanged(["apply", "-", "--allow-removals"], code, reason, stdin=text)
            self.refused(["plan", "-"], code, reason, stdin=text)

    def test_a_dry_run_of_what_changes_the_driver_at_once(self):
        address = "--address 02:00:00:00:00:01"
        for words, again in ((f"mac set lab port0 {address}", 0), (f"mac clear lab port0 {address}", 3),
                             ("mac props --aging 7", 0), ("option set 3=9", 0),
                             ("uplink numa lab", 10)):
            self.rows(*words.split(), "--dry-run", code=10)
            self.rows(*words.split())
            dry = self.process(*words.split(), "--dry-run")
            self.assertEqual(dry.returncode, again, words)
            self.assertIn("nothing to change\n" if again == 0 else "", dry.stdout)
        self.run_vsctl("mac", "set", "lab", "nope", *address.split(), "--dry-run", code=3)

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


if __name__ == "__main__":
    main()
