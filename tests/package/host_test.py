"""The layer of objects of the Python module, on an embedded host: usage host_test.py SOURCE_DIRECTORY VSCTL."""

import json
import os
import pickle
import re
import subprocess
import sys
import unittest
from pathlib import Path

import vswitchctl as v
from vswitchctl import Host, Security, Teaming, Vlan

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

    def test_policies_are_attributes(self):
        """Written at once, and by a transaction with the same effect."""
        team = Teaming("source-mac", ("uplink0",), ("uplink1",), failback=True)
        values = [(self.lab, "mtu", 9000, 4000), (self.lab, "multicast", "snooping", "legacy"),
                  (self.lab, "learn_static", True, False), (self.lab, "teaming", team, Teaming("order", ("uplink1",)))]
        for port in (self.lab.ports["port0"],):
            values += [(port, "vlan", Vlan(100, priority=3), Vlan(0, trunk=("5-9", "300"))),
                       (port, "vlan", Vlan(7), Vlan(8, option=True)),
                       (port, "security", Security(static_only=True), Security(False, True)),
                       (port, "nested_vlan", True, False), (port, "sink", True, False),
                       (port, "teaming", team, Teaming())]
        for place, name, direct, later in values:
            with self.subTest(name, value=direct):
                setattr(place, name, direct)
                self.assertEqual(getattr(place, name), direct)
                with self.host.transaction():
                    setattr(place, name, later)
                    self.assertEqual(getattr(place, name), direct)
                v.LibraryInit()
                self.assertEqual(getattr(place, name), later)
        self.assertEqual(self.stored("port", "vlan", "lab", "port0")["id"], 8)
        with self.assertRaises(ValueError):
            self.lab.teaming = Teaming(active=tuple(f"up{number}" for number in range(33)))
        with self.assertRaisesRegex(v.BadParam, "lab"):
            self.lab.mtu = 1

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

    def test_elsewhere_ports_are_not_listed(self):
        program = "import vswitchctl as v; lab = v.Host().switches['lab']\nlab.ports['port0'].vlan\nlist(lab.ports)"
        hides = ("import ctypes\nload = ctypes.CDLL\n"
                 "ctypes.CDLL = lambda name, *a, **k: load(None if 'ork' in name else name)\n")
        done = subprocess.run([sys.executable, "-c", hides + program], capture_output=True, text=True,
                              env={name: value for name, value in os.environ.items()})
        self.assertRegex(done.stderr, "PortsNotListed: the ports of switch 'lab' cannot be listed")

    def test_the_version_is_that_of_the_project(self):
        version = re.search(r"project\(vswitchctl VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]
        self.assertEqual(v.__version__, version)


if __name__ == "__main__":
    unittest.main()
