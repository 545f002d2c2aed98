#!/usr/bin/env python3
"""The vsctl command on the embedded host: every verb for its effect, and changes that must be whole.

Usage: vsctl_test.py BUILD_DIRECTORY SOURCE_DIRECTORY [unittest arguments]
"""
import ctypes
import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import jsonschema

BUILD, SOURCE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
VSCTL = str(BUILD / "vsctl")
HOST = ctypes.CDLL(str(BUILD / "platform/libvshost.so"))
HOST.vshost_fingerprint.restype = ctypes.c_uint64
HOST.vshost_error.restype = ctypes.c_char_p
HOST.vshost_call_count.restype = ctypes.c_size_t
STORE, SHELL, DRIVER = 1, 2, 3
IO_ERROR = 0x0BAD0008
OUTPUT_SCHEMA = json.loads((SOURCE / "cli/schema/output.schema.json").read_text())
PLAN_SCHEMA = json.loads((SOURCE / "cli/schema/plan.schema.json").read_text())
OUTPUT = jsonschema.Draft202012Validator(OUTPUT_SCHEMA, resolver=jsonschema.RefResolver(
    "output.schema.json", OUTPUT_SCHEMA, store={"plan.schema.json": PLAN_SCHEMA}))
WRITES = {"DVSZOR_GlobalPropSet", "DVSZOR_GlobalPropClear", "DVSZOR_HostPropSet", "DVSZOR_HostPropClear",
          "DVSZOR_PortDataSet", "DVSZOR_PortDataClear", "DVSZOR_PortAdd", "DVSZOR_PortRemove", "DVSZOR_SwitchAdd",
          "DVSZOR_SwitchRemove", "DVSZOR_SwitchAssociate", "DVSZOR_SwitchDissociate", "create", "destroy", "set"}
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
ran = set()
every_verb = set()


class Call(ctypes.Structure):
    _fields_ = [("kind", ctypes.c_uint32), ("outcome", ctypes.c_uint32), ("length", ctypes.c_uint32),
                ("flags", ctypes.c_uint32), ("process", ctypes.c_int32), ("operation", ctypes.c_char * 36),
                ("text", ctypes.c_char * 512), ("input", ctypes.c_ubyte * 256)]


def recorded():
    calls = []
    for index in range(HOST.vshost_call_count()):
        call = Call()
        HOST.vshost_call(index, ctypes.byref(call))
        calls.append(call.operation.decode())
    return calls


class OnHost(unittest.TestCase):
    """Each test has a host of its own, in its directory."""

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        self.assertEqual(HOST.vshost_start(str(self.directory / "host").encode(), 0), 0, HOST.vshost_error())
        self.addCleanup(HOST.vshost_stop)

    def process(self, *words, stdin=None, **options):
        return subprocess.run([VSCTL, *words], input=stdin, capture_output=True, text=True, timeout=120, **options)

    def run_vsctl(self, *words, code=0, stdin=None):
        """Standard output; on failure there is none, and the error is one line."""
        done = self.process(*words, stdin=stdin)
        self.assertEqual(done.returncode, code, f"{words}: {done.stdout}{done.stderr}")
        if code not in (0, 10):
            self.assertEqual(done.stdout, "", words)
            self.assertRegex(done.stderr, r"\Avsctl: [^\n]+\n\Z")
            return done.stderr
        self.assertEqual(done.stderr, "", words)
        return done.stdout

    def rows(self, *words, code=0, stdin=None):
        answer = json.loads(self.run_vsctl(*words, "--json", code=code, stdin=stdin))
        OUTPUT.validate(answer)
        ran.add(answer["command"])
        return answer["result"]

    def write(self, name, text):
        path = self.directory / name
        path.write_text(text)
        return str(path)

    def create(self):
        self.rows("switch", "create", "lab", "--uplinks", "2", "--ports", "4")

    def exported(self):
        """The whole configuration, but for ids made at random."""
        switches = {}
        for row in self.rows("switch", "list"):
            name = row["switch"]
            ports = [p for p in ("port0", "port1", "port2", "port3", "uplink0", "uplink1")
                     if self.process("port", "number", name, p).returncode == 0]
            words = name + ("/" + ",".join(ports) if ports else "")
            switches.update(json.loads(self.run_vsctl("export", words, "--json"))["switches"])
        return switches


class Verbs(OnHost):
    def check_value(self, verb, words, key, expected):
        """Sets, reads back, and clears where that is possible."""
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
        sessions = [{"id": "s1", "settings": "ab" * 184, "entries-a": ["01" * 52], "entries-b": [], "entries-c": ["02" * 52]}]
        file = self.write("sessions", json.dumps(sessions))
        team = self.directory / "team"
        team.write_bytes(bytes(range(109)) * 24)
        table = ["0a" * 2748, "0b" * 2748]
        for row in (
                ("switch mtu", ["4000"], "mtu", 4000),
                ("switch multicast", ["snooping"], "multicast", "snooping"),
                ("switch teaming", ["--file", str(team)], "teaming", team.read_bytes().hex()),
                ("switch mac-learning", ["--value-a", "1000000", "--byte", "7"], None,
                 {"value-a": 1000000, "byte": 7, "value-b": 65536}),
                ("switch learn-static", ["on"], "learn-static", True),
                ("switch pvlan", ["0102030405060708,1112131415161718"], "pvlan", ["0102030405060708", "1112131415161718"]),
                ("switch ls-teaming", [",".join(table)], "ls-teaming", table),
                ("switch uplink-mirror", ["--file", file], "uplink-mirror", sessions),
                ("port vlan", ["7", "--trunk", "1-5,9", "--priority", "0", "--option", "on"], None,
                 {"id": 7, "priority": 0, "trunk": ["1-5", "9"], "option": True}),
                ("port nested-vlan", ["on"], "nested-vlan", True),
                ("port security", ["6"], "security", 6),
                ("port eth-filter", ["ab" * 200], "eth-filter", "ab" * 200),
                ("port sink", ["on"], "sink", True),
                ("port mac-learning", ["--flag-b", "255", "--value-b", "4294967295"], None,
                 {"flag-a": 0, "flag-b": 255, "value-a": 4096, "value-b": 4294967295}),
                ("port teaming", ["--file", str(team)], "teaming", team.read_bytes().hex()),
                ("port override", ["uplink1"], "override", "uplink1"),
                ("port tx-uplink", ["always"], "tx-uplink", "always"),
                ("port ls-teaming", ["gold"], "ls-teaming", "gold"),
                ("port mirror", ["--file", file], "mirror", sessions)):
            with self.subTest(row[0]):
                self.check_value(*row)

    def test_objects(self):
        self.create()
        number = self.rows("port", "number", "lab", "port0..port3")[3]["number"]
        switch_id = self.rows("switch", "show", "lab")[0]["id"]
        self.assertEqual(self.rows("port", "number", switch_id, "port3", "--by-id")[0]["number"], number)
        self.rows("port", "add", "lab", "a1..a3", "--connect-id", "7")
        self.rows("port", "add-opaque", "lab", "b", "external")
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

    def test_properties(self):
        self.create()
        for level, words in (("global", []), ("host", ["--level", "host"]), ("port", ["--port", "port0"])):
            self.rows("property", "set", "lab", "com.example.x", "--text", "häy", *words)
            row = self.rows("property", "get", "lab", "com.example.x", *words)[0]
            self.assertEqual((row["level"], bytes.fromhex(row["bytes"])), (level, "häy\0".encode()))
            self.rows("property", "clear", "lab", "com.example.x", *words)
            self.run_vsctl("property", "get", "lab", "com.example.x", *words, code=3)

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
        group = {"address": "224.1.1.1", "vlan": 9, "sources": ["10.0.0.1"]}
        lag = {"mode": "active", "members": ["nic0"]}
        scenario = {"portsets": {"lab": {"groups": [group], "lags": {"lag0": lag}, "promiscuousPorts": ["port1"],
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
        self.rows("mac", "set", *entry)
        self.assertEqual(self.rows("mac", "list", "lab", "port0")[0]["address"], "02:00:00:00:00:0a")
        self.assertEqual(self.rows("mac", "stats", "lab", "port0")[0]["entries"], 1)
        self.assertEqual(self.rows("mac", "info", "lab")[0]["static"], 1)
        self.rows("mac", "clear", *entry)
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
        file = self.write("sessions", '[{"id": "s1"}, {"id": "s2"}]')
        self.rows("mirror", "append", "lab", file, "port0")
        self.rows("mirror", "remove", "lab", "s1", "port0")
        self.assertEqual([row["id"] for row in self.rows("mirror", "list", "lab", "port0")], ["s2"])
        self.assertEqual(self.rows("mirror", "live", "lab")[0]["session"], "s2")
        self.assertTrue(self.rows("mirror", "stats", "lab", "s2")[0]["active"])
        self.assertEqual(len(self.rows("mirror", "destinations", "lab")), 1)
        self.rows("mirror", "clear", "lab", "port0")
        self.assertEqual(self.rows("mirror", "list", "lab", "port0"), [])

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
                (5, ["switch", "create", "a/b"], "--portset"), (5, ["port", "vlan", "lab", "port0", "--trunk", "9-1"], "--trunk"),
                (5, ["port", "vlan", "lab", "port0", "4096"], "4095"), (5, ["port", "security", "lab", "port0", "8"], "7"),
                (5, ["port", "vlan", "lab", "port7..port1"], "range"), (5, ["switch", "mtu", "lab", "1279"], "1280")):
            with self.subTest(words):
                self.assertIn(reason, self.run_vsctl(*words, code=code))
        for code, outcome in ((1, 0x0BAD0004), (6, IO_ERROR), (7, 0x0BAD005A), (8, 0x0BAD0021)):
            HOST.vshost_fail(STORE, b"DVSZOR_PortDataSet", 1, 1, outcome)
            self.run_vsctl("port", "vlan", "lab", "port0", "6", code=code)
            HOST.vshost_clear()
        away = subprocess.run(["env", "-u", "VSHOST_DIR", f"VSCTL_STATE={self.directory}", VSCTL, "switch", "create", "x"],
                              capture_output=True, text=True)
        self.assertEqual((away.returncode, away.stdout), (6, ""), away.stderr)
        done = self.process(*port, "--json")
        self.assertEqual(json.loads(done.stderr)["error"]["name"], "STATUS_EXISTS")

    def test_dry_run_changes_nothing(self):
        self.create()
        before = HOST.vshost_fingerprint()
        self.assertEqual(self.rows("port", "vlan", "lab", "port0", "5", "--dry-run", code=10)[0]["before"]["id"], 0)
        self.rows("mac", "set", "lab", "port0", "--address", "02:00:00:00:00:01", "--dry-run")
        self.assertEqual(HOST.vshost_fingerprint(), before)

    def test_a_found_alias_is_checked_back(self):
        self.rows("switch", "create", "aa", "--portset", "vs")
        self.rows("switch", "create", "bb", "--portset", "vs1")
        self.rows("property", "set", "bb", "com.talpex.common.host.portset", "--level", "host", "--text", "elsewhere")
        self.assertEqual({row["portset"]: row["switch"] for row in self.rows("switch", "list")}, {"vs": "aa", "vs1": None})

    def test_help_has_examples_for_every_verb(self):
        for noun in re.findall(r"^  (?!vsctl)(\w+) ", self.run_vsctl("help"), re.M):
            verbs = re.findall(rf"^{noun} (\S+)", self.run_vsctl("help", noun), re.M)
            for words in [[noun, verb] for verb in verbs] or [[noun]]:
                self.assertIn("Examples:\n  vsctl " + " ".join(words), self.run_vsctl("help", *words))
                if words[-1] not in ("apply", "batch", "complete", "completion", "confirm", "doctor", "export", "help",
                                     "plan", "schema", "watch"):
                    every_verb.add(" ".join(words))

    def test_zz_every_verb_has_run(self):
        if every_verb:  # all tests of this class ran
            self.assertEqual(every_verb - ran, set())


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

    def apply_killed_at(self, syscall, nth):
        """Kills `vsctl apply` at its nth such system call; true when there was one."""
        words = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={syscall}", "-e",
                 f"inject={syscall}:signal=KILL:when={nth}", VSCTL, "apply", "-"]
        return subprocess.run(words, input=LAB, capture_output=True, text=True, timeout=60).returncode != 0

    def test_kill_at_each_write_then_undo_or_resume(self):
        before = self.exported()
        for finish in ("--undo", "--resume"):
            cut = 0
            for nth in range(1, 400):
                if not self.apply_killed_at("pwrite64", nth):
                    break
                if not (self.directory / "host/vsctl/journal.json").exists():
                    continue  # before the first step
                cut += 1
                self.assertIn("cut short", self.run_vsctl("apply", "-", stdin=LAB, code=1))
                self.rows("apply", finish)
                if finish == "--resume":
                    self.assertEqual(self.rows("plan", "-", stdin=LAB), [])
                    self.run_vsctl("switch", "destroy", "lab")
                self.assertEqual(self.exported(), before, nth)
            self.assertGreater(cut, 20)
            self.run_vsctl("switch", "destroy", "lab")

    def test_a_portset_without_a_switch_is_named(self):
        self.assertTrue(self.apply_killed_at("wait4", 1))  # the shell has made it, the store has no switch yet
        time.sleep(0.5)
        self.assertIn("/bin/tybel -e set /net/portsets/lab/destroy", self.run_vsctl("apply", "--undo", code=9))
        subprocess.run([BUILD / "platform/tybel", "-e", "set", "/net/portsets/lab/destroy", "destroy"], check=True)
        self.rows("apply", "--undo")
        self.assertEqual(self.rows("switch", "list"), [])

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


class Terminal(OnHost):
    def test_watch(self):
        self.create()
        watch = subprocess.Popen([VSCTL, "watch", "--interval", "50ms", "port", "vlan", "lab", "port0", "--json"],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertIn("result", json.loads(watch.stdout.readline()))
        self.run_vsctl("port", "vlan", "lab", "port0", "5")
        change = json.loads(watch.stdout.readline())
        OUTPUT.validate(change)
        self.assertEqual([(c["field"], c["before"], c["after"]) for c in change["changes"]], [("id", 0, 5)])
        watch.send_signal(signal.SIGINT)
        self.assertEqual((watch.wait(10), watch.stderr.read()), (0, ""))
        closed = subprocess.run(["bash", "-c", f"set -o pipefail; timeout 10 {VSCTL} watch --interval 50ms switch list | head -1"],
                                capture_output=True, text=True)
        self.assertEqual((closed.returncode, closed.stderr), (0, ""))
        self.run_vsctl("watch", "switch", "destroy", "lab", code=2)

    def test_terminal_and_completion(self):
        self.create()
        self.rows("switch", "create", "a longer name")
        script = self.write("rc", f"PATH={BUILD}:$PATH\nPS1='$ '\nsource <(vsctl completion bash)\n")
        socket = str(self.directory / "tmux")
        tmux = lambda *words: subprocess.run(["tmux", "-S", socket, *words], capture_output=True, text=True, check=True).stdout
        tmux("-f", "/dev/null", "new-session", "-d", "-x", "120", "-y", "40", f"bash --noprofile --rcfile {script} -i")
        self.addCleanup(subprocess.run, ["tmux", "-S", socket, "kill-server"], capture_output=True)

        def until(pattern, *capture):
            for _ in range(100):
                screen = tmux("capture-pane", "-p", *capture)
                if re.search(pattern, screen, re.M):
                    return screen
                time.sleep(0.1)
            self.fail(f"{pattern!r} never came: {screen}")

        until(r"\$")
        tmux("send-keys", "vsctl swi\tli\t\n")
        screen = until(r"^lab +lab ", "-e")
        self.assertRegex(screen, r"\x1b\[1mSWITCH +PORTSET")
        lines = [re.sub(r"\x1b\[[0-9;]*m", "", line) for line in screen.splitlines()]
        table = lines[next(i for i, line in enumerate(lines) if line.startswith("SWITCH")):][:3]
        self.assertEqual(len({line.find(word) for line, word in zip(table, ("PORTSET", "a longer", "lab  "))} - {0}), 1, table)
        tmux("send-keys", "clear; vsctl uplink link l\t nic\t0\n")
        until(r"^lab +nic0 +yes")
        tmux("send-keys", "clear; NO_COLOR=1 vsctl switch list\n")
        self.assertNotIn("\x1b[1m", until(r"^lab +lab ", "-e"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
