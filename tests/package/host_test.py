"""The layer of objects of the Python module, on an embedded host: usage host_test.py SOURCE_DIRECTORY VSCTL."""

import contextlib
import json
import os
import pickle
import re
import subprocess
import sys
import unittest
from pathlib import Path

import vswitchctl as v
from vswitchctl import (EthFilter, FilterRule, Host, MirrorSession, PortLearning, PrivateVlan, Security,
                        SwitchLearning, Teaming, Vlan)

SOURCE, VSCTL = Path(sys.argv.pop(1)), sys.argv.pop(1)


class HostTest(unittest.TestCase):
    def setUp(self):
        v.VSDVS_CreateVSwitch("lab", None, None, 1, False, 64, 2, 4)
        self.addCleanup(v.VSDVS_DestroyVSwitch, "lab")
        self.host = Host(VSCTL)
        self.lab = self.host.switches["lab"]

    def stored(self, *words):
        """What vsctl reads."""
        answer = subprocess.run([VSCTL, *words, "--json"], capture_output=True, check=True).stdout
        return json.loads(answer)["result"][0]

    def test_what_is_there(self):
        switches = self.host.switches
        self.assertEqual((list(switches), len(switches), "lab" in switches), (["lab"], 1, True))
        self.assertEqual(list(self.lab.ports), ["uplink0", "uplink1", "port0", "port1", "port2", "port3"])
        self.assertEqual({name: uplink.port for name, uplink in self.lab.uplinks.items()},
                         {"uplink0": "uplink0", "uplink1": "uplink1"})
        self.assertEqual((self.lab.name, self.lab.portset, self.lab.id), ("lab", "lab", v.DVSAliasToSwitchId("lab")))
        self.assertEqual([port.number for port in self.lab.ports.values()], list(range(1, 7)))
        for get, message in ((lambda: self.host.switches["lap"], "there is no switch 'lap'"),
                             (lambda: self.lab.ports["port9"], "switch 'lab' has no port 'port9'"),
                             (lambda: self.lab.uplinks["up"], "switch 'lab' has no uplink 'up'")):
            with self.assertRaises(v.Missing) as raised:
                get()
            self.assertEqual(str(raised.exception), message)
            self.assertIsInstance(raised.exception, (KeyError, v.NotFound))
            self.assertEqual(str(pickle.loads(pickle.dumps(raised.exception))), message)
        self.assertNotIn("port9", self.lab.ports)
        self.assertIsNone(self.host.switches.get("lap"))

    def exported(self, *where):
        """What vsctl reads of the switch or of a port of it."""
        text = subprocess.run([VSCTL, "export", "/".join(["lab", *where]), "--json"], capture_output=True,
                              check=True).stdout
        entry = json.loads(text)["switches"]["lab"]
        return entry["ports"][where[0]] if where else entry

    def test_policies_are_attributes(self):
        """Written at once, and by a transaction with the same effect; vsctl reads what was written."""
        team = Teaming("source-mac", ("uplink0",), ("uplink1",), failback=True)
        session = MirrorSession("span", ("port1", "#5"), ("port2",), ("port0",), False, True, 7, 128, 10)
        roles = (PrivateVlan(100, 101, "isolated"), PrivateVlan(100, 100, "promiscuous"))
        rules = (FilterRule(0x86dd, "from-port"), FilterRule(action="pass"), FilterRule(0x806, "to-port"))
        values = [(self.lab, [("mtu", 9000, 4000), ("multicast", "snooping", "legacy"), ("learn_static", True, False),
                              ("teaming", team, Teaming("order", ("uplink1",), notify=True)), ("teaming", None, team),
                              ("mac_learning", SwitchLearning(70000, 1, 9), SwitchLearning(limit=5)),
                              ("pvlan", roles, roles[:1]), ("pvlan", (), roles), ("pvlan", roles[:1], ()),
                              ("ls_teaming", {"gold": team, "tin": Teaming()}, {"tin": team}), ("ls_teaming", {}, {}),
                              ("mirror", (session, MirrorSession("all", to=("uplink0",))), (session,)),
                              ("mirror", (), (session,)), ("mirror", (session,), ())]),
                  (self.lab.ports["port0"],
                   [("vlan", Vlan(100, priority=3), Vlan(0, trunk=("5-9", "300"))), ("vlan", Vlan(7), Vlan(8)),
                    ("vlan", Vlan(8, option=True), Vlan(8, ranges=("4",))),
                    ("security", Security(static_only=True), Security(False, True)),
                    ("block", True, False), ("nested_vlan", True, False), ("sink", True, False),
                    ("eth_filter", EthFilter(rules), EthFilter(rules[1:], sink=True)),
                    ("eth_filter", EthFilter(), EthFilter(rules)), ("eth_filter", EthFilter(rules), EthFilter()),
                    ("mac_learning", PortLearning(True, True, 10, "forward"), PortLearning(limit=7)),
                    ("teaming", team, Teaming()), ("teaming", None, team),
                    ("override", "uplink1", "uplink0"), ("override", None, "a"), ("override", "a", None),
                    ("tx_uplink", "always", "normal"), ("ls_teaming", "gold", "tin"), ("ls_teaming", None, "tin"),
                    ("mirror", (session,), (MirrorSession("a", sampling=0, to=("port0",)), session)),
                    ("mirror", (), (session,))])]
        for place, cases in values:
            for name, direct, later in cases:
                with self.subTest(name, value=direct):
                    setattr(place, name, direct)
                    self.assertEqual(getattr(place, name), direct)
                    self.check(place, name)
                    with self.host.transaction():
                        setattr(place, name, later)
                        self.assertEqual(getattr(place, name), direct)
                    self.assertEqual(getattr(place, name), later)
                    self.check(place, name)

    def check(self, place, name):
        """That vsctl reads a policy as it is; it leaves out what is as in a new port."""
        policy, value = getattr(type(place), name), getattr(place, name)
        present = self.exported(*place.names[1:])
        if name == "sink":
            present |= {"sink": present.get("eth-filter", {}).get("sink", False)}
        expected = policy.json(value)
        if isinstance(expected, dict):
            expected = {key: part for key, part in expected.items() if part != "none"}
        if policy.key in present or value not in (policy.absent, (), False, True, Security(), Vlan()):
            self.assertEqual(present.get(policy.key), expected)

    def test_policies_are_cleared(self):
        port = self.lab.ports["port1"]
        for place, name, value, cleared in (
                (port, "vlan", Vlan(5), None), (self.lab, "learn_static", True, False),
                (self.lab, "mac_learning", SwitchLearning(1), SwitchLearning())):
            for context in (contextlib.nullcontext(), self.host.transaction()):
                setattr(place, name, value)
                with context:
                    delattr(place, name)
                self.assertEqual(getattr(place, name), cleared)
        with self.assertRaisesRegex(AttributeError, "security of lab/port1 cannot be cleared"):
            del port.security
        with self.host.transaction():
            del port.vlan
            port.vlan = Vlan(6)
        self.assertEqual(port.vlan, Vlan(6))

    def test_values_that_no_record_holds(self):
        names = tuple(f"up{number}" for number in range(33))
        port, lab = self.lab.ports["port0"], self.lab
        for place, name, value, message in (
                (lab, "teaming", Teaming(active=names), "at most 32 uplinks"),
                (lab, "teaming", Teaming("best"), r"Teaming.algorithm must be one of port, source-mac,.* not 'best'"),
                (lab, "teaming", Teaming(active=("u" * 81,)), "at most 80 bytes: 'uuu"),
                (lab, "ls_teaming", {"n" * 132: Teaming()}, "at most 131 bytes"),
                (lab, "mac_learning", SwitchLearning(aging=1 << 24), "SwitchLearning.aging cannot be 16777216"),
                (lab, "pvlan", (PrivateVlan(-1, 2, "isolated"),), "PrivateVlan.primary cannot be -1"),
                (lab, "multicast", "best", "one of legacy, snooping, not 'best'"),
                (port, "eth_filter", EthFilter((FilterRule(),) * 25), "at most 24 rules"),
                (port, "mac_learning", PortLearning(limit=-1), "PortLearning.limit cannot be -1"),
                (port, "mirror", (MirrorSession("a", to=("p" * 48,)),), "at most 47 bytes")):
            for context in (contextlib.nullcontext(), self.host.transaction()):
                with self.assertRaisesRegex(ValueError, message), context:
                    setattr(place, name, value)
        with self.assertRaisesRegex(v.BadParam, "lab"):
            self.lab.mtu = 1
        v.VSDVS_SetTeamingPolicy("lab", b"\1\0\0\0\t" + bytes(2611))
        with self.assertRaisesRegex(ValueError, "Teaming.algorithm is 9, which has no name"):
            self.lab.teaming

    def test_switches_ports_and_uplinks_come_and_go(self):
        for transaction in (contextlib.nullcontext, self.host.transaction):
            with self.subTest(transaction=transaction):
                with transaction():
                    made = self.host.create("new", uplinks=1, ports=2, max_ports=32, portset="vs7", version=5)
                    made.ports["port1"].vlan = Vlan(3)
                    made.ports["uplink0"].block = True
                    self.assertEqual(made.add_port("db", 7).id, "db")
                    made.add_port("web", external_id="4f2a")
                    made.add_uplink("spare")
                self.assertEqual((list(self.host.switches), made.running, made.portset), (["lab", "new"], True, "vs7"))
                self.assertEqual(sorted(made.ports), ["db", "port0", "port1", "spare", "uplink0", "web"])
                self.assertEqual((made.ports["port1"].vlan, made.ports["uplink0"].block), (Vlan(3), True))
                new = json.loads(subprocess.run([VSCTL, "export", "new", "--json"], capture_output=True).stdout)
                entry = new["switches"]["new"]
                self.assertEqual((entry["uplinks"], entry["max-ports"], entry["version"], entry["opaque"]),
                                 (["uplink0", "spare"], 32, 5, False))
                self.assertEqual((entry["ports"]["db"]["connect-id"], entry["ports"]["web"]["external-id"]),
                                 (7, "4f2a"))
                with transaction():
                    made.remove_port("db")
                    made.remove_uplink("uplink0")
                self.assertEqual(sorted(made.ports), ["port0", "port1", "spare", "web"])
                self.assertEqual(list(made.uplinks), ["spare"])
                with transaction():
                    made.destroy()
                self.assertEqual(list(self.host.switches), ["lab"])
        for refused, message in ((lambda: self.lab.remove_port("db"), "switch 'lab' has no port 'db'"),
                                 (lambda: self.lab.remove_uplink("db"), "switch 'lab' has no uplink 'db'"),
                                 (made.destroy, "there is no switch 'new'"), (lambda: made.mtu, "no switch 'new'"),
                                 (lambda: made.pvlan, "there is no switch 'new'"),
                                 (lambda: made.running, "there is no switch 'new'")):
            with self.assertRaisesRegex(v.Missing, message):
                refused()
        with self.assertRaisesRegex(v.Exists, "lab"):
            self.host.create("lab")
        with self.assertRaisesRegex(v.TransactionFailed, "lab/ports/uplink0"), self.host.transaction():
            self.lab.remove_port("port0")
            self.lab.remove_uplink("uplink0")
            self.lab.ports["uplink0"].vlan = Vlan(4)
        self.assertIn("port0", self.lab.ports)
        with self.assertRaisesRegex(ValueError, "changes switch 'lab' already"), self.host.transaction():
            self.lab.mtu = 9000
            self.host.create("lab")

    def test_a_switch_that_does_not_run(self):
        subprocess.run(["/bin/tybel", "-e", "set", "/net/portsets/lab/destroy", "destroy"], check=True)
        self.assertEqual((list(self.host.switches), self.lab.running), (["lab"], False))
        self.lab.ports["port0"].vlan = Vlan(9)
        self.assertEqual(self.exported("port0")["vlan"]["id"], 9)
        self.lab.destroy()
        self.assertEqual(list(self.host.switches), [])
        self.host.create("lab")

    def test_a_transaction_is_whole_or_nothing(self):
        port = self.lab.ports["port1"]
        with self.host.transaction():
            self.lab.mtu = 4000
            for number in range(4):
                self.lab.ports[f"port{number}"].vlan = Vlan(20 + number)
        self.assertEqual([self.lab.ports[f"port{number}"].vlan.id for number in range(4)], [20, 21, 22, 23])
        with self.assertRaises(v.TransactionFailed) as raised, self.host.transaction():
            self.lab.mtu = 5000
            port.vlan = Vlan(5000)
        self.assertIn("vlan", raised.exception.problem)
        self.assertEqual((raised.exception.exit_code, self.lab.mtu, port.vlan.id), (5, 4000, 21))
        self.assertEqual(str(pickle.loads(pickle.dumps(raised.exception))), str(raised.exception))
        with self.assertRaises(ZeroDivisionError), self.host.transaction():
            self.lab.mtu = 5000
            1 / 0
        with self.host.transaction():
            with self.assertRaises(RuntimeError), self.host.transaction():
                pass
        self.assertEqual(self.lab.mtu, 4000)
        self.lab.mtu = 1500  # written at once again
        self.assertEqual(self.stored("switch", "mtu", "lab")["mtu"], 1500)

    def test_elsewhere(self):
        """A platform that neither lists ports nor publishes its records."""
        hides = ("import ctypes\nload = ctypes.CDLL\n"
                 "ctypes.CDLL = lambda name, *a, **k: load(None if 'ork' in name else name)\n"
                 "import vswitchctl as v; lab = v.Host().switches['lab']\nlab.ports['port0'].vlan\n")
        for program, error in (("list(lab.ports)", "PortsNotListed: the ports of switch 'lab' cannot be listed"),
                               ("lab.teaming", "RecordNotPublished: teaming of lab: .* VSDVS_GetTeamingPolicy "),
                               ("lab.ports['port0'].security = v.Security()", "security of lab/port0: .*_SetPortSec")):
            done = subprocess.run([sys.executable, "-c", hides + program], capture_output=True, text=True,
                                  env={name: value for name, value in os.environ.items()})
            self.assertRegex(done.stderr, error)

    def test_the_version_is_that_of_the_project(self):
        version = re.search(r"project\(vswitchctl VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]
        self.assertEqual(v.__version__, version)


if __name__ == "__main__":
    unittest.main()
