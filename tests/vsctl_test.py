#!/usr/bin/env python3
"""Every verb of vsctl: its effect, its output and its exit codes."""
import fcntl
import itertools
import json
import re
import struct
import subprocess
import sys
from collections import Counter

from vsctl_host import BUILD, HOST, IO_ERROR, SOURCE, STORE, VSCTL, OnHost, main, ran, recorded

every_verb = set()


class Verbs(OnHost):
    def check_value(self, verb, words, key, expected):
        """Sets a value, reads it back, and clears it where that is possible."""
        noun, name = verb.split()
        target = ["lab", "port1"] if noun == "port" else ["lab"]
        before = self.rows(noun, name, *target)[0]
        self.assertEqual(self.rows(noun, name, *target, *words)[0]["item"], name)
        after = self.rows(noun, name, *target)[0]
        self.assertEqual({k: after.get(k) for k in expected} if key is None else after[key], expected, verb)
        if name != "mtu":
            self.rows(noun, name, *target, "--clear")
            cleared = self.rows(noun, name, *target)[0]
            if name != "vlan":
                self.assertEqual(cleared, before, verb)

    def test_policies(self):
        self.create()
        other = self.directory / "team"  # of another version than vsctl knows
        other.write_bytes(bytes(range(109)) * 24)
        team = {"algorithm": "source-mac", "active": ["uplink0"], "standby": ["uplink1"], "failback": True,
                "notify": False}
        given = "--algorithm source-mac --active uplink0 --standby uplink1 --failback".split()
        for row in (
                ("switch mtu", ["4000"], "mtu", 4000),
                ("switch multicast", ["snooping"], "multicast", "snooping"),
                ("switch teaming", ["--file", str(other)], "teaming", other.read_bytes().hex()),
                ("switch teaming", given, None, team),
                ("switch mac-learning", ["--aging", "1000000", "--policy-byte", "7"], None,
                 {"aging": 1000000, "policy-byte": 7, "limit": 65536}),
                ("switch learn-static", ["on"], "learn-static", True),
                ("port vlan", ["7", "--trunk", "1-5,9", "--priority", "0", "--option", "on"], None,
                 {"id": 7, "priority": 0, "trunk": ["1-5", "9"], "option": True}),
                ("port nested-vlan", ["on"], "nested-vlan", True),
                ("port block", ["on"], "block", True),
                ("port security", ["--lock-address", "--static-only", "on", "--addressed-only", "off"], None,
                 {"addressed-only": False, "lock-address": True, "static-only": True}),
                ("port security", ["--hex", "06000000"], None,
                 {"addressed-only": False, "lock-address": True, "static-only": True}),
                ("port eth-filter", ["--hex", "ab" * 200], "eth-filter", "ab" * 200),
                ("port eth-filter", ["--rules", "drop to-port 0x806,pass any"], None,
                 {"rules": ["drop to-port 0x0806", "pass any"], "sink": False}),
                ("port sink", ["on"], "sink", True),
                ("port mac-learning", ["--flood", "--limit", "7"], None,
                 {"learning": False, "flood": True, "limit": 7, "at-limit": "drop"}),
                ("port mac-learning", ["--hex", "01ff" + "00" * 8], "mac-learning", "01ff" + "00" * 8),
                ("port teaming", given, None, team),
                ("port override", ["uplink1"], "override", "uplink1"),
                ("port tx-uplink", ["always"], "tx-uplink", "always"),
                ("port ls-teaming", ["gold"], "ls-teaming", "gold")):
            with self.subTest(row[0]):
                self.check_value(*row)

    def test_objects(self):
        self.create()
        number = self.rows("port", "number", "lab", "port0..port3")[3]["number"]
        switch_id = self.rows("switch", "show", "lab")[0]["id"]
        self.assertEqual(self.rows("port", "number", switch_id, "port3", "--by-id")[0]["number"], number)
        self.rows("port", "add", "lab", "a1..a3", "--connect-id", "7")
        self.rows("port", "add", "lab", "b", "--external-id", "external")
        shown = self.rows("port", "show", "lab", "a3,b")
        self.assertEqual((shown[0]["connect-id"], shown[1]["external-id"]), (7, "external"))
        self.rows("port", "remove", "lab", "a2..a3")
        self.run_vsctl("port", "show", "lab", "a3", code=3)
        self.assertEqual(self.rows("port", "hint", "lab", "port0")[0]["uplink"][:3], "nic")
        self.rows("uplink", "add", "lab", "uplink2")
        self.rows("uplink", "remove", "lab", "uplink0")
        self.assertEqual([row["uplink"] for row in self.rows("uplink", "list", "lab")], ["uplink1", "uplink2"])
        self.rows("uplink", "clear", "lab")
        self.assertEqual(self.rows("uplink", "list", "lab"), [])
        self.rows("uplink", "set", "lab", "east", "west")
        self.assertEqual([row["port"] for row in self.rows("uplink", "list", "lab")], ["east", "west"])
        self.rows("switch", "destroy", "lab")
        self.assertEqual(self.rows("switch", "list"), [])
        self.rows("switch", "create", "lab")
        self.rows("uplink", "set", "lab", "--count", "2")
        self.assertEqual(len(self.rows("uplink", "live", "lab")), 2)

    def test_listing_uplinks_takes_as_many_calls_for_each_however_many_there_are(self):
        counts = {}
        for uplinks in (20, 200, 2000):
            self.rows("switch", "create", f"s{uplinks}", "--uplinks", str(uplinks), "--max-ports", "4096")
            HOST.vshost_record(1)
            rows = self.rows("uplink", "list", f"s{uplinks}")
            counts[uplinks] = Counter(recorded())
            HOST.vshost_record(0)
            self.assertEqual({row["port"] for row in rows}, {f"uplink{i}" for i in range(uplinks)})
            self.assertEqual(len({row["nic"] for row in rows}), uplinks)
            self.run_vsctl("switch", "destroy", f"s{uplinks}")
        for operation in counts[20]:
            few, some, many = (counts[uplinks][operation] for uplinks in (20, 200, 2000))
            self.assertEqual((some - few) / 180, (many - some) / 1800, operation)

    def test_a_switch_that_does_not_run(self):
        """It is listed, shown, exported, configured where that takes no portset, and destroyed.

        None of its records is reported as damaged.
        """
        self.create()
        self.rows("switch", "create", "two", "--portset", "vs2")
        wanted = self.exported()["lab"]
        subprocess.run([BUILD / "platform/tybel", "-e", "set", "/net/portsets/lab/destroy", "destroy"], check=True)
        self.assertEqual({row["switch"]: (row["portset"], row["state"]) for row in self.rows("switch", "list")},
                         {"lab": ("lab", "not running"), "two": ("vs2", "running")})
        self.assertEqual(self.rows("switch", "show", "lab")[0]["live"], "not running")
        self.assertEqual([row["state"] for row in self.rows("show")[0]["switches"]], ["running", "not running"])
        for key in ("mtu", "max-ports"):  # they exist only while it runs
            del wanted[key]
        self.assertEqual(self.exported()["lab"], wanted)
        self.assertIsNone(self.rows("switch", "mtu", "lab")[0]["mtu"])
        self.assertEqual([row["port"] for row in self.rows("uplink", "list", "lab")], ["uplink0", "uplink1"])
        self.rows("port", "vlan", "lab", "port0", "7")
        self.rows("port", "show", "lab", "port0..port3")
        self.assertIn("lab", self.run_vsctl("complete", "--", "switch", "show", "").split())
        self.assertIn("did you mean 'lab'?", self.run_vsctl("switch", "show", "lba", code=3))
        for line in ("switch mtu lab 4000", "uplink live lab", "uplink down lab nic0", "uplink link lab nic0",
                     "uplink numa lab", "lag list lab",
                     "mac list lab port0", "mac team lab", "mac add lab port0 --address 02:00:00:00:00:01",
                     "mac info lab", "mac stats lab port0",
                     "mirror live lab", "mirror stats lab s", "mirror destinations lab", "multicast filters lab",
                     "stats rarp lab",
                     "stats teaming lab", "port hint lab port0", "switch multicast lab --live",
                     "ls-teaming list lab --live"):
            self.assertIn("is not running", self.run_vsctl(*line.split(), code=1), line)
        self.run_vsctl("switch", "create", "lab", code=4)
        self.rows("switch", "destroy", "lab")
        self.assertEqual([row["switch"] for row in self.rows("switch", "list")], ["two"])
        self.create()
        self.assertEqual(self.rows("switch", "show", "lab")[0]["live"]["used-ports"], 6)

    def test_looking(self):
        self.create()
        self.rows("mac", "add", "lab", "port0", "--address", "02:00:00:00:00:01")
        for line, count in (("nic list", 2), ("mac find 02:00:00:00:00:01", 1), ("port stats lab port0..port3", 4),
                            ("top --interval 1ms", 6), ("show", 1)):
            self.assertEqual(len(self.rows(*line.split())), count, line)

    def test_properties(self):
        self.create()
        for level, words in (("global", []), ("host", ["--level", "host"]), ("port", ["--port", "port0"])):
            self.rows("property", "set", "lab", "com.example.x", "--text", "häy", *words)
            row = self.rows("property", "get", "lab", "com.example.x", *words)[0]
            self.assertEqual((row["level"], bytes.fromhex(row["bytes"])), (level, "häy\0".encode()))
            self.rows("property", "clear", "lab", "com.example.x", *words)
            self.run_vsctl("property", "get", "lab", "com.example.x", *words, code=3)

    def test_doctor_names_records_that_are_not_enforced(self):
        self.run_vsctl("switch", "create", "lab", "--ports", "8", "--uplinks", "1")
        key = "com.talpex.vswitch."
        policy = struct.pack("=6I", 1, 4, 1, 0, 1, 0).ljust(2616, b"\0")
        mirrors = struct.pack("=5I", 0xFACEBEEF, 2, 1, 0, 0) + b"m".ljust(32, b"\0") + struct.pack("=I", 7).ljust(
            184, b"\0") + bytes(16)
        rows = (  # key, record that is enforced, record that is not, why
            ("teaming", policy, b"\2" + policy[1:], "its version is not known"),
            ("teaming", policy, policy[:16] + b"\41" + policy[17:], "a count is larger than its array"),
            ("teaming", policy, policy[:-1], "its length is not that of its record"),
            ("logicalswitch.teaming", struct.pack("=I132s", 1, b"gold") + policy, struct.pack("=I", 1),
             "a count is larger than its array"),
            ("pvlanMap", struct.pack("=HHI", 100, 101, 1), struct.pack("=HHI", 100, 101, 3),
             "the type of an entry is not known"),
            ("port.teaming.policy", policy, policy[:4] + b"\5" + policy[5:], "its algorithm is not known"),
            ("port.security", struct.pack("=I", 7), struct.pack("=I", 8), "it has flags that are not known"),
            ("port.extraEthFRP", bytes(200), struct.pack("=II", 0, 25).ljust(200, b"\0"),
             "a count is larger than its array"),
            ("port.mirrorSessions", mirrors[:52] + b"\1" + mirrors[53:], mirrors,
             "the version of a session is not known"),
        )
        faults = lambda: [row["state"] for row in self.rows("doctor") if row["part"] == "policy"]
        for name, good, bad, why in rows:
            where = ("--port", "port0") if name.startswith("port.") else ("--level", "global")
            with self.subTest(name, why=why):
                self.run_vsctl("property", "set", "lab", key + name, *where, "--hex", bad.hex())
                of = "switch lab, port port0" if name.startswith("port.") else "switch lab"
                self.assertEqual(faults(), [f"{of}: {key}{name} is kept and not enforced: {why}"])
                self.run_vsctl("property", "set", "lab", key + name, *where, "--hex", good.hex())
                self.assertEqual(faults(), [])

    def test_values_that_others_stored_are_shown(self):
        self.create()
        key = ["lab", "com.talpex.vswitch.port.vlan", "--port", "port0", "--hex"]
        self.rows("property", "set", *key, "0100882600000100" + "8826e803")  # a trunk of 9864-1000 with VLAN id 9864
        row = json.loads(self.run_vsctl("port", "vlan", "lab", "port0", "--json"))["result"][0]
        self.assertEqual((row["id"], row["trunk"]), (9864, ["9864-1000"]))
        before = self.rows("property", "get", *key[:-1])[0]["bytes"]
        self.run_vsctl("port", "vlan", "lab", "port0,nope", "5", code=3)  # undone, it is as it was
        self.assertEqual(self.rows("property", "get", *key[:-1])[0]["bytes"], before)
        self.rows("property", "set", *key, "01")
        self.assertIn("STATUS_FAILURE", self.run_vsctl("port", "vlan", "lab", "port0", code=1))

    def test_runtime(self):
        self.create()
        group = {"group": "224.1.1.1", "vlan": 9, "sources": ["10.0.0.1"]}
        lag = {"mode": "active", "members": ["nic0"]}
        scenario = {"portsets": {"lab": {"groups": [group], "lags": {"lag0": lag}, "promiscuous-ports": ["port1"],
                                         "rarp": {"sent": 5, "failed": 1}, "teaming": {"failovers": 3}}}}
        self.assertEqual(HOST.vshost_scenario(json.dumps(scenario).encode()), 0, HOST.vshost_error())
        self.rows("uplink", "down", "lab", "nic0")
        self.assertFalse(self.rows("uplink", "link", "lab", "nic0")[0]["link"])
        self.rows("uplink", "up", "lab", "nic0")
        self.assertTrue(self.rows("uplink", "link", "lab", "nic0")[0]["link"])
        self.assertTrue(self.rows("uplink", "lacp", "lab", "nic0")[0]["lacp"])
        self.assertEqual(self.rows("uplink", "port", "nic1")[0]["port"], "uplink1")
        self.rows("uplink", "numa", "lab")
        entry = ["lab", "port0", "--address", "02:00:00:00:00:0a", "--vlan", "9"]
        self.rows("mac", "add", *entry)
        self.assertEqual(self.rows("mac", "list", "lab", "port0")[0]["address"], "02:00:00:00:00:0a")
        self.assertEqual(self.rows("mac", "stats", "lab", "port0")[0]["entries"], 1)
        self.assertEqual(self.rows("mac", "info", "lab")[0]["static-entries"], 1)
        self.rows("mac", "remove", *entry)
        self.assertEqual(self.rows("mac", "list", "lab", "port0"), [])
        self.assertEqual(self.rows("mac", "team", "lab"), [])
        self.rows("mac", "props", "--aging", "77")
        self.assertEqual(self.rows("mac", "props")[0]["aging"], 77)
        self.rows("option", "set", "3=9", "5=1")
        self.assertEqual(self.rows("option", "get", "3"), [{"option": 3, "value": 9}])
        self.assertTrue(self.rows("rtm", "send", "7", "--hex", "00" * 9)[0]["sent"])
        self.assertEqual(self.rows("stats", "rarp", "lab")[0]["sent"], 5)
        self.assertEqual(self.rows("stats", "teaming", "lab")[0]["failovers"], 3)
        self.assertEqual(self.rows("lag", "list", "lab")[0]["members"], ["nic0"])
        self.assertEqual(self.rows("multicast", "filters", "lab"), [{"kind": "ipv4", "group": "224.1.1.1"}])
        self.assertEqual(self.rows("multicast", "groups", "lab", "224.1.1.1")[0]["sources"], ["10.0.0.1"])
        self.run_vsctl("multicast", "groups", "lab", "224.9.9.9", code=3)
        self.rows("mirror", "add", "lab", "s1", "--to", "port0")
        self.rows("mirror", "add", "lab", "s2", "--to", "port0")
        self.rows("mirror", "remove", "lab", "s1")
        self.assertEqual(self.rows("mirror", "live", "lab")[0]["session"], "s2")
        self.assertTrue(self.rows("mirror", "stats", "lab", "s2")[0]["active"])
        self.assertEqual(len(self.rows("mirror", "destinations", "lab")), 2)  # one of s2, and the scenario's

    def test_a_scenario_names_fields_as_vsctl_prints_them(self):
        """Each member of the schema that describes a record, with a value of its own."""
        self.create()
        self.rows("mirror", "add", "lab", "span", "--to", "port0")
        schema = json.loads((SOURCE / "platform/scenario/scenario.schema.json").read_text())
        named, portset = schema["$defs"], schema["$defs"]["portset"]["properties"]
        numbers = itertools.count(2)

        def values(record, **known):
            value = lambda part: (part["enum"][-1] if "enum" in part else
                                  False if part.get("type") == "boolean" else next(numbers))
            return {name: known[name] if name in known else value(part) for name, part in record["properties"].items()}

        nic = values({"properties": {name: part for name, part in named["nic"]["properties"].items()
                                     if name not in ("max-mtu", "refused-mtus", "bind")}}, mtu=4000)
        mac = values(named["macEntry"], address="02:00:00:00:00:01")
        learning = values(portset["ports"]["additionalProperties"]["properties"]["learning"])
        lag = values(named["lag"], members=["nic0"])
        group = values(named["group"], group="239.1.1.1", sources=["10.0.0.1"])
        session, rarp = values(named["mirrorSession"]), values(portset["rarp"])
        teaming, props = values(portset["teaming"]), values(schema["properties"]["mac-learning"])
        scenario = {"nics": {"nic0": nic}, "mac-learning": props, "portsets": {"lab": {
            "ports": {"port1": {"macs": [mac], "learning": learning}}, "lags": {"lag0": lag}, "groups": [group],
            "mirror-sessions": {"span": session}, "rarp": rarp, "teaming": teaming}}}
        self.assertEqual(HOST.vshost_scenario(json.dumps(scenario).encode()), 0, HOST.vshost_error())
        for line, fields in (("nic list", nic), ("mac list lab port1", mac), ("mac stats lab port1", learning),
                             ("lag list lab", lag), ("multicast groups lab 239.1.1.1", group), ("mac props", props),
                             ("mirror stats lab span", session), ("stats rarp lab", rarp),
                             ("stats teaming lab", teaming)):
            row = self.rows(*line.split())[0]
            self.assertEqual({name: row.get(name) for name in fields}, fields, line)

    def test_lists(self):
        """Private VLANs, named teaming policies and mirror sessions: add, list, remove, clear, by alias or id."""
        self.create()
        switch_id = self.rows("switch", "show", "lab")[0]["id"]
        self.rows("pvlan", "add", "lab", "100", "--isolated", "101", "--community", "102,103")
        self.rows("pvlan", "add", switch_id, "200", "--isolated", "201", "--by-id")
        self.rows("pvlan", "remove", "lab", "200", "102")
        self.rows("pvlan", "add", "lab", "--hex", "0102030405060708")
        self.assertEqual([(row.get("secondary"), row.get("type"), row.get("bytes"))
                          for row in self.rows("pvlan", "list", switch_id, "--by-id")],
                         [(100, "promiscuous", None), (101, "isolated", None), (103, "community", None),
                          (None, None, "0102030405060708")])
        self.rows("pvlan", "remove", "lab", "0102030405060708")
        self.rows("ls-teaming", "add", "lab", "gold", "--active", "uplink0")
        self.rows("ls-teaming", "add", "lab", "tin", "--standby", "uplink0,uplink1", "--notify")
        self.rows("ls-teaming", "add", "lab", "--hex", "0b" * 2748)
        gold = {"switch": "lab", "name": "gold", "algorithm": "port", "active": ["uplink0"], "standby": [],
                "failback": False, "notify": False}
        for words in (["lab"], [switch_id, "--by-id"], ["lab", "--live"]):
            rows = self.rows("ls-teaming", "list", *words)
            self.assertEqual((rows[0], rows[1]["notify"], rows[2]["bytes"]), (gold, True, "0b" * 2748))
        self.rows("ls-teaming", "remove", "lab", "tin")
        session = {"received-by": [], "enabled": True, "strip-tag": False, "outer-vlan": 0, "snap": 128, "sampling": 1}
        self.rows("mirror", "add", "lab", "span0", "--from", "port1,port2", "--to", "port3,uplink0", "--snap", "128")
        self.rows("mirror", "add", "lab", "span1", "--received-by", "#7", "--to", "uplink1", "--enabled", "off",
                  "--strip-tag", "--outer-vlan", "9", "--sampling", "4")
        self.rows("mirror", "add", "lab", "span2", "--settings", "ab" * 184, "--from", "01" * 52, "--port", "port0")
        self.assertEqual(
            self.rows("mirror", "list", "lab"),
            [{"switch": "lab", "port": None, "session": "span1", "from": [], "received-by": ["#7"], "to": ["uplink1"],
              "enabled": False, "strip-tag": True, "outer-vlan": 9, "snap": 0, "sampling": 4},
             {"switch": "lab", "port": "port0", "session": "span2", "from": ["01" * 52], "received-by": [], "to": [],
              "settings": "ab" * 184},
             {"switch": "lab", "port": "port3", "session": "span0", "from": ["port1", "port2"],
              "to": ["port3", "uplink0"], **session}])
        self.assertEqual([row["port"] for row in self.rows("mirror", "list", "lab", "--port", "port3")], ["port3"])
        self.assertEqual(self.rows("mirror", "live", "lab")[-1]["session"], "span0")
        self.rows("mirror", "remove", "lab", "span1", "span2")
        for noun in ("pvlan", "ls-teaming", "mirror"):
            self.assertGreater(len(self.rows(noun, "list", "lab")), 0)
            self.rows(noun, "clear", "lab")
            self.assertEqual(self.rows(noun, "list", "lab"), [])

    def test_every_operation_has_a_verb_or_a_reason(self):
        header = (SOURCE / "include/vswitchctl.h").read_text()
        declared = set(re.findall(r"^VSWITCHCTL_API [^;(]*?\*?(\w+)\(", header, re.M))
        used = set(re.findall(r"^(\w+)  ", self.run_vsctl("help", "operations"), re.M)) - {"OPERATION"}
        page = (SOURCE / "docs/vsctl.md").read_text()
        excused = set(re.findall(r"^\| `(\w+)` \|", page[page.index("## Operations without a verb"):], re.M))
        self.assertEqual(used | excused, declared)
        self.assertEqual(used & excused, set())

    def test_exit_codes(self):
        self.create()
        self.rows("port", "vlan", "lab", "port0", "5")
        port = ["port", "add", "lab", "port0"]
        for code, words, reason in (
                (2, ["port", "vlan"], "SWITCH"), (2, ["swich", "list"], "switch"), (2, ["port", "vlna", "lab"], "vlan"),
                (2, ["port", "vlan", "lab", "port0", "--prioritty", "1"], "--priority"),
                (3, ["switch", "show", "lba"], "lab"), (3, ["port", "show", "lab", "nope"], "NOT_FOUND"),
                (3, ["uplink", "remove", "lab", "uplink9"], "uplink0"), (3, ["confirm"], ""),
                (4, port, "STATUS_EXISTS"), (4, ["switch", "create", "lab"], "STATUS_EXISTS"),
                (5, ["switch", "create", "a/b"], "--portset"),
                (5, ["port", "vlan", "lab", "port0", "--trunk", "9-1"], "--trunk"),
                (5, ["port", "vlan", "lab", "port0", "4096"], "4095"),
                (5, ["port", "security", "lab", "port0", "--hex", "08000000"], "not allowed"),
                (5, ["port", "vlan", "lab", "port7..port1"], "range"), (5, ["switch", "mtu", "lab", "1279"], "1280")):
            with self.subTest(words):
                self.assertIn(reason, self.run_vsctl(*words, code=code))
        for code, outcome in ((1, 0x0BAD0004), (6, IO_ERROR), (7, 0x0BAD005A), (8, 0x0BAD0021)):
            HOST.vshost_fail(STORE, b"DVSZOR_PortDataSet", 1, 1, outcome)
            self.run_vsctl("port", "vlan", "lab", "port0", "6", code=code)
            HOST.vshost_clear()
        away = subprocess.run(["env", "-u", "VSHOST_DIR", f"VSCTL_STATE={self.directory}", VSCTL, "switch", "create",
                               "x"],
                              capture_output=True, text=True)
        self.assertEqual((away.returncode, away.stdout), (6, ""), away.stderr)
        done = self.process(*port, "--json")
        self.assertEqual(json.loads(done.stderr)["error"]["name"], "STATUS_EXISTS")

    def test_what_is_missing_comes_with_a_command_that_shows_what_there_is(self):
        self.create()
        self.rows("property", "set", "lab", "com.example.x", "--port", "port1", "--text", "v")
        self.rows("mirror", "add", "lab", "s1", "--to", "port0")
        group = {"portsets": {"lab": {"groups": [{"group": "224.1.1.1", "sources": []}]}}}
        self.assertEqual(HOST.vshost_scenario(json.dumps(group).encode()), 0, HOST.vshost_error())
        self.rows("option", "set", "3=9")
        missing_port = ("port show lab none", "port vlan lab none 5", "port remove lab none", "port number lab none",
                        "port hint lab none", "mac list lab none", "mirror list lab --port none", "export lab/none",
                        "mac add lab none --address 02:00:00:00:00:01", "property get lab none --port none",
                        "property list lab --port none")
        for line, shown in (
                *((line, "port3") for line in missing_port), ("switch show none", "lab"),
                ("property get lab com.example.x", "com.talpex.common.alias"),
                ("property clear lab none", "com.talpex.common.alias"),
                ("property get lab none --port port1", "com.example.x"),
                ("property clear lab none --port port1", "com.example.x"), ("property clear lab k --by-id", "lab"),
                ("property list lab --by-id", "lab"), ("property get lab k --by-id", "lab"),
                ("mirror remove lab none", "s1"), ("mirror stats lab none", "s1"),
                ("uplink remove lab none", "uplink1"), ("uplink link lab none", "nic1"),
                ("uplink down lab none", "nic1"), ("option get 99", "9"),
                ("multicast groups lab 224.9.9.9", "224.1.1.1"),
                ("mac remove lab port0 --address 02:00:00:00:00:01", "")):
            with self.subTest(line):
                advice = re.search(r"; .*'vsctl ([^']*)' (?:shows|lists)", self.run_vsctl(*line.split(), code=3))
                self.assertIn(shown, self.run_vsctl(*advice[1].split()))
        for line, name in (("switch show lba", "lab"), ("port show lab prot3", "port3"),
                           ("uplink remove lab uplink7", "uplink0")):
            self.assertIn(f"did you mean '{name}'?", self.run_vsctl(*line.split(), code=3))
        self.assertEqual([(row["port"], row["uplink"], row["nic"]) for row in self.rows("port", "list", "lab")],
                         [("uplink0", True, "nic0"), ("uplink1", True, "nic1"),
                          *((f"port{i}", False, None) for i in range(4))])
        rows = self.rows("property", "list", "lab", "--port", "port1")
        self.assertIn({"switch": "lab", "port": "port1", "level": "port", "key": "com.example.x", "length": 2}, rows)
        self.assertEqual({row["level"] for row in self.rows("property", "list", "lab")}, {"global", "host"})
        switch_id = self.rows("switch", "show", "lab")[0]["id"]
        self.assertEqual(len(self.rows("property", "list", switch_id, "--by-id")),
                         len(self.rows("property", "list", "lab")))

    def test_errors_are_objects_with_json(self):
        self.create()
        with open(self.directory / "host/vsctl/lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            for words, code in ((["swich", "list"], 2), (["port", "vlan"], 2),
                                (["port", "vlan", "lab", "port0", "--bogus"], 2), (["plan", "/none"], 3),
                                (["switch", "show", "none"], 3), (["port", "vlan", "lab", "port0", "4096"], 5),
                                (["watch", "switch", "show", "none"], 3),
                                (["watch", "export", "lab"], 2),
                                (["port", "vlan", "lab", "port0", "5", "--timeout", "50ms"], 8)):
                for order in (["--json", *words], [*words, "--json"]):
                    done = self.process(*order)
                    error = json.loads(done.stderr)["error"]
                    self.assertEqual((done.returncode, done.stdout, error["exit"], done.stderr.count("\n")),
                                     (code, "", code, 1), order)
                    self.assertGreater(len(error["problem"]), 10, order)
                self.assertRegex(self.process(*words).stderr, r"\Avsctl: [^\n]+\n\Z")

    def test_a_found_alias_is_checked_back(self):
        self.rows("switch", "create", "aa", "--portset", "vs")
        self.rows("switch", "create", "bb", "--portset", "vs1")
        self.rows("property", "set", "bb", "com.talpex.common.host.portset", "--level", "host", "--text", "elsewhere")
        self.assertEqual({row["portset"]: row["switch"] for row in self.rows("switch", "list")},
                         {"vs": "aa", "vs1": None, "elsewhere": "bb"})

    def test_what_needs_no_platform_works_without_one(self):
        """Without the platform's library, only the verbs that need it fail, each with one line."""
        (self.directory / "liborkPublic.so").write_text("not a library")
        folders = f"{self.directory}:{BUILD}"  # a sanitizer's dlopen doesn't know the run path of vsctl
        away = ["env", "-i", f"LD_LIBRARY_PATH={folders}", f"VSHOST_DIR={self.directory}",
                f"VSCTL_STATE={self.directory}"]

        def run(line):
            return subprocess.run([*away, VSCTL, *line.split()], capture_output=True, text=True)
        parts = {part["part"]: part for part in json.loads(run("doctor --json").stdout)["result"]}
        self.assertEqual({name for name, part in parts.items() if part["works"]}, {"changes"})
        self.assertIn("liborkPublic.so", parts["library"]["state"])
        self.assertIn("vshost run", parts["library"]["advice"])
        for line, code, text in (("doctor", 6, "liborkPublic.so"), ("--version", 0, "vsctl 1"),
                                 ("help", 0, "vsctl NOUN VERB"),
                                 ("switch --help", 0, "switch create"), ("port vlan --help", 0, "--priority"),
                                 ("schema", 0, "json-schema"),
                                 ("completion bash", 0, "_vsctl"), ("complete -- switch sh", 0, "show"),
                                 ("complete -- switch show x", 0, "")):
            done = run(line)
            self.assertEqual((done.returncode, done.stderr), (code, ""), line)
            self.assertIn(text, done.stdout, line)
        for line, code, text in (("switch list", 6, "liborkPublic.so"), ("port vlan lab port0 5", 6, "liborkPublic.so"),
                                 ("switch create lab", 6, "doctor"),
                                 ("export lab", 6, "liborkPublic.so"), ("port vlan lab port0 5000", 5, "4095"),
                                 ("apply --undo", 3, "cut short")):
            done = run(line)
            self.assertEqual((done.returncode, done.stdout), (code, ""), line)
            self.assertRegex(done.stderr, r"\Avsctl: [^\n]*" + text + r"[^\n]*\n\Z")

    def test_help_and_version_in_every_form(self):
        nouns = set(re.findall(r"^  (?!vsctl)([\w-]+) ", self.run_vsctl("help"), re.M))
        verbs = self.rows("help")
        self.assertEqual({verb["verb"].split()[0] for verb in verbs}, nouns)
        for order in (["switch", "--help"], ["--help", "switch"], ["switch", "-h"]):
            self.assertEqual(self.run_vsctl(*order), self.run_vsctl("help", "switch"))
            for json_order in (["--json", *order], [*order, "--json"]):
                self.assertEqual(json.loads(self.run_vsctl(*json_order))["result"],
                                 [verb for verb in verbs if verb["verb"].startswith("switch ")])
        for order in (["port", "vlan", "--help"], ["--help", "port", "vlan"]):
            self.assertEqual(self.run_vsctl(*order), self.run_vsctl("help", "port", "vlan"))
            (row,) = json.loads(self.run_vsctl(*order, "--json"))["result"]
            self.assertEqual(row, self.rows("help", "port", "vlan")[0])
        self.assertEqual([row["argument"] for row in verbs if row["verb"] == "uplink add" for row in row["arguments"]],
                         ["SWITCH", "UPLINK"])
        self.assertEqual([row["code"] for row in self.rows("help", "exit")], list(range(11)))
        self.assertIn({"operation": "VSDVS_SetMTU", "verbs": "switch mtu"}, self.rows("help", "operations"))
        self.assertIn("switch list", self.run_vsctl("doctor", "--help") + self.run_vsctl("--help", "switch"))
        self.run_vsctl("swich", "--help", code=2)
        version = re.search(r"project\(vswitchctl VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]
        self.assertEqual(self.run_vsctl("--version"), f"vsctl {version}\n")

    def test_help_has_examples_for_every_verb(self):
        for noun in re.findall(r"^  (?!vsctl)([\w-]+) ", self.run_vsctl("help"), re.M):
            verbs = re.findall(rf"^{noun} (\S+)", self.run_vsctl("help", noun), re.M)
            for words in [[noun, verb] for verb in verbs] or [[noun]]:
                self.assertIn("Examples:\n  vsctl " + " ".join(words), self.run_vsctl("help", *words))
                if words[-1] not in ("apply", "batch", "complete", "completion", "confirm", "doctor", "edit", "export",
                                     "help", "metrics", "plan", "schema", "topology", "undo", "watch"):
                    every_verb.add(" ".join(words))

    @classmethod
    def tearDownClass(cls):
        """Every verb has run, unless the command line selects tests."""
        if len(sys.argv) == 3 and every_verb - ran:
            raise AssertionError(f"no test runs {sorted(every_verb - ran)}")


if __name__ == "__main__":
    main()
