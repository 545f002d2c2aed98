"""Policies in the store are true for packets: each record is set as a management program sets it, and frames tell."""
import errno
import re
import socket
import struct
import sys
import unittest

from live_host import *

GET_PORT_STATISTICS = 4127
FROM, TO = 0, 2  # packets from a port and to it, among its 16 counters
DROPS = {8: "blocked", 9: "VLAN", 10: "security", 11: "limit", 12: "filter", 13: "length", 14: "flood", 15: "not sent"}
PORTS = ("1", "2", "3", "up0", "up1")
A, B, C, D = ("02:00:00:00:00:0" + digit for digit in "abcd")
SWITCH_TEAMING, NAMED_TEAMINGS = "com.talpex.vswitch.teaming", "com.talpex.vswitch.logicalswitch.teaming"
PORT_TEAMING, OVERRIDE = "com.talpex.vswitch.port.teaming.policy", "com.talpex.vswitch.port.teaming.override"
PORT_NAMED_TEAMING, TX_UPLINK = "com.talpex.vswitch.port.logicalswitch.teaming", "com.talpex.vswitch.port.txUplink"
PORT, SOURCE_MAC, ORDER = 0, 1, 4


def teaming(algorithm, active, standby=(), fail_back=1, version=1, notify=0):
    names = b"".join(name.encode().ljust(81, b"\0") for name in (*active, *standby))
    head = struct.pack("=6I", version, algorithm, fail_back, notify, len(active), len(standby))
    return head + names.ljust(32 * 81, b"\0")


def named_teamings(**policies):
    return struct.pack("=I", len(policies)) + b"".join(name.encode().ljust(132, b"\0") + policy
                                                      for name, policy in policies.items())


def ethernet_filter(*rules):
    return struct.pack("=II", 0, len(rules)).ljust(8) + b"".join(
        struct.pack("=HBBI", *rule, 0) for rule in rules).ljust(192, b"\0")


def private_vlans(*entries):
    return b"".join(struct.pack("=HHB3x", *entry) for entry in entries)


class Announcements:
    """The RARP frames that come to a namespace, each as its address and its tag (0: none)."""
    ETH_P_ALL, PACKET, AUXDATA, TAGGED, RCVBUFFORCE = 3, 263, 8, 0x10, 33

    def __init__(self, test, namespace):
        self.wire = namespace.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self.wire.setsockopt(socket.SOL_SOCKET, self.RCVBUFFORCE, 1 << 24)
        self.wire.setsockopt(self.PACKET, self.AUXDATA, 1)
        self.wire.bind(("eth0", self.ETH_P_ALL))
        self.wire.setblocking(False)
        test.addCleanup(self.wire.close)
        self.seen = []

    def read(self):
        """All that have come since the last clear."""
        while True:
            try:
                whole, ancillary, _, _ = self.wire.recvmsg(2048, 100)
            except BlockingIOError:
                return sorted(self.seen)
            except OSError as error:
                if error.errno != errno.ENETDOWN:
                    raise
                continue
            source = whole[6:12]
            if whole[12:14] != b"\x80\x35":
                continue
            assert whole == b"\xff" * 6 + source + bytes.fromhex("8035 0001 0800 06 04 0003") + (
                2 * (source + bytes(4))) + bytes(18), whole
            status, _, _, _, _, tci, _ = struct.unpack("=IIIHHHH", ancillary[0][2])
            self.seen.append((source.hex(":"), tci if status & self.TAGGED else 0))

    def await_and_clear(self, *expected):
        wait_until(lambda: len(self.read()) >= len(expected), f"{expected}, but {self.seen}")
        found, self.seen = self.read(), []
        assert found == sorted(expected), (found, expected)


class Policies(PluggedHost):
    def setUp(self):
        super().setUp()
        for number, name in enumerate("abc", 1):
            self.plug(str(number), self.namespace(name, f"10.9.0.{number}"))
        for number in range(2):
            network = self.namespace(f"n{number}", f"10.9.0.{10 + number}")
            run(VSHOST, "nic", "add", "--state", self.directory, network.interface)
            self.vsctl("uplink", "add", "one", f"up{number}")
        self.wires = {port: namespace.wire() for port, namespace in zip(PORTS, self.namespaces)}
        for wire in self.wires.values():
            self.addCleanup(wire.close)
        self.switch_id = self.row("switch", "show", "one")["id"].encode()

    def set(self, key, record, port=None, level=None):
        where = ("--port", port) if port else ("--level", level or "global")
        self.vsctl("property", "set", "one", key, *where, "--hex", record.hex())

    def clear(self, key, port=None, level=None):
        where = ("--port", port) if port else ("--level", level or "global")
        self.vsctl("property", "clear", "one", key, *where)

    def counters(self, port):
        given = self.switch_id.ljust(128, b"\0") + port.encode().ljust(48, b"\0") + bytes(36)
        return struct.unpack("=16Q", request(self.device, GET_PORT_STATISTICS, given)[:128])

    def send(self, port, source, destination=BROADCAST, tags=b""):
        """The ports that get a frame, and what drops it where."""
        before = {name: self.counters(name) for name in PORTS}
        bytes_of = lambda address: bytes.fromhex(address.replace(":", ""))
        whole = (bytes_of(destination) + bytes_of(source) + tags + struct.pack("!H", ETH_P_TEST)).ljust(64, b"\0")
        self.wires[port].send(whole)
        # A frame without a source goes nowhere; when it is counted, the one before is where it goes.
        self.wires[port].send((bytes_of(BROADCAST) + bytes(6) + struct.pack("!H", ETH_P_TEST)).ljust(60, b"\0"))
        wait_until(lambda: self.counters(port)[FROM] == before[port][FROM] + 2, "two frames")
        got, dropped = [], []
        for name in PORTS:
            new = [now - then for now, then in zip(self.counters(name), before[name])]
            if name == port:
                new[12] -= 1
            got += [name] * new[TO]
            dropped += [f"{name}: {reason}" for row, reason in DROPS.items() for _ in range(new[row])]
        return " ".join(got + dropped)

    def vlan(self, port, vlan):
        self.vsctl("port", "vlan", "one", port, str(vlan))

    def test_private_vlans(self):
        key = "com.talpex.vswitch.pvlanMap"
        for port, vlan in zip("123", (100, 101, 102)):
            self.vlan(port, vlan)
        self.assertEqual(self.send("2", B), "up0")
        self.set(key, private_vlans((100, 100, 0), (100, 101, 1), (100, 102, 2)))
        self.assertEqual(self.send("2", B), "1 up0")
        self.assertEqual(self.send("1", A), "2 3 up1")
        self.assertEqual(self.send("2", B, A), "1")
        self.vlan("3", 101)
        self.assertEqual(self.send("2", B), "1 up0")
        self.set(key, private_vlans((100, 101, 2)))
        self.assertEqual(self.send("2", B), "1 3 up0")
        for unknown in (private_vlans((100, 101, 3)), private_vlans((0, 101, 1)), private_vlans((100, 101, 1))[:7]):
            self.set(key, unknown)
            self.assertEqual(self.send("2", B), "3 up0")

    def test_nested_tags(self):
        for port in "123":
            self.vlan(port, 100)
        tag = struct.pack("!HH", 0x8100, 7)
        self.assertEqual(self.send("1", A, tags=tag), "1: VLAN")
        self.vsctl("port", "nested-vlan", "one", "1", "on")
        self.assertEqual(self.send("1", A, tags=tag), "2 3 up1")
        self.vsctl("port", "nested-vlan", "one", "1", "off")
        self.assertEqual(self.send("1", A, tags=tag), "1: VLAN")

    def test_security(self):
        key = "com.talpex.vswitch.port.security"
        self.send("1", A), self.send("2", B)
        self.assertEqual(self.send("1", A, B), "2")
        self.set(key, struct.pack("=I", 0), "3")
        self.assertEqual(self.send("1", A, B), "2 3")
        self.clear(key, "3")
        self.assertEqual(self.send("1", A, B), "2")
        self.set(key, struct.pack("=I", 3), "1")
        self.assertEqual(self.send("1", A), "2 3 up1")
        self.assertEqual(self.send("1", C), "1: security")
        self.set(key, struct.pack("=I", 5), "1")
        self.assertEqual(self.send("1", A), "1: security")
        self.vsctl("mac", "add", "one", "1", "--address", D)
        self.assertEqual(self.send("1", D), "2 3 up1")
        self.set(key, struct.pack("=I", 8), "1")
        self.assertEqual(self.send("1", A), "2 3 up1")

    def test_the_ethernet_filter(self):
        key = "com.talpex.vswitch.port.extraEthFRP"
        self.set(key, ethernet_filter((0x0806, 0, 0), (ETH_P_TEST, 2, 1)), "2")
        self.assertEqual(self.send("1", A), "3 up1 2: filter")
        self.assertEqual(self.send("2", B), "1 3 up0")
        self.set(key, ethernet_filter((0, 1, 1)), "2")
        self.assertEqual(self.send("2", B), "2: filter")
        too_many = struct.pack("=II", 0, 25).ljust(200, b"\1")
        for unknown in (ethernet_filter((0, 3, 1)), ethernet_filter((0, 1, 2)), too_many):
            self.set(key, unknown, "2")
            self.assertEqual(self.send("2", B), "1 3 up0")

    def test_addresses_become_static(self):
        self.vsctl("switch", "learn-static", "one", "on")
        self.vsctl("port", "mac-learning", "one", "1", "--learning", "--limit", "2")
        self.send("1", A)
        self.send("2", A)
        self.assertEqual(self.send("3", C, A), "1")
        types = {row["address"]: row["type"] for row in self.rows("mac", "list", "one", "1")}
        self.assertEqual(types, {A: "static"})
        self.vsctl("mac", "remove", "one", "1", "--address", A)
        self.assertEqual(self.rows("mac", "list", "one", "1"), [])
        self.assertNotEqual(self.on_host(VSCTL, "mac", "remove", "one", "1", "--address", A, check=False).returncode, 0)
        self.send("2", A)
        self.assertEqual(self.send("3", C, A), "2")

    def test_which_teaming_policy_a_port_has(self):
        port = "2"  # by its number its uplink is up0
        up = lambda: self.send(port, B, D)
        self.assertEqual(up(), "up0")
        self.set(SWITCH_TEAMING, teaming(ORDER, ["up1", "up0"]))
        self.assertEqual(up(), "up1")
        self.set(NAMED_TEAMINGS, named_teamings(gold=teaming(ORDER, ["up0"]), tin=teaming(ORDER, [])))
        self.set(PORT_NAMED_TEAMING, b"gold\0", port)
        self.assertEqual(up(), "up0")
        self.set(PORT_NAMED_TEAMING, b"tin\0", port)
        self.assertEqual(up(), f"{port}: not sent")
        self.set(PORT_TEAMING, teaming(ORDER, ["up1"]), port)
        self.assertEqual(up(), "up1")
        self.set(OVERRIDE, b"up0\0", port)
        self.assertEqual(up(), "up0")
        self.set(OVERRIDE, b"none\0", port)
        self.assertEqual(up(), "up1")
        self.set(PORT_TEAMING, teaming(ORDER, ["up0"], version=2), port)
        self.assertEqual(up(), f"{port}: not sent")
        self.set(PORT_NAMED_TEAMING, b"x" * 132 + b"\0", port)
        self.assertEqual(up(), "up1")
        self.clear(SWITCH_TEAMING)
        self.assertEqual(up(), "up0")

    def link_of(self, number, state):
        self.namespaces[3 + number].run("ip", "link", "set", "eth0", state)
        wait_until(lambda: self.row("uplink", "link", "one", f"vn{number}")["link"] == (state == "up"), f"link {state}")

    def rarp(self):
        row = self.row("stats", "rarp", "one")
        return row["sent"], row["failed"]

    def test_the_network_is_told_of_the_addresses_of_ports_that_come_to_another_uplink(self):
        networks = [Announcements(self, namespace) for namespace in self.namespaces[3:]]
        self.vsctl("port", "mac-learning", "one", "1", "--learning")
        self.vsctl("port", "vlan", "one", "2", "7")
        self.vsctl("mac", "add", "one", "2", "--address", D, "--vlan", "7")
        self.set(SWITCH_TEAMING, teaming(ORDER, ["up0"], ["up1"], notify=1))
        self.set(PORT_TEAMING, teaming(ORDER, ["up0"], ["up1"]), "3")
        self.send("1", A), self.send("1", B), self.send("3", C)
        moved = [(A, 0), (B, 0), (D, 7)]  # that port 2 has never sent, and port 3 doesn't want it
        self.link_of(0, "down")
        networks[1].await_and_clear(*moved)
        self.link_of(0, "up")
        networks[0].await_and_clear(*moved)
        self.assertEqual(self.rarp(), (6, 0))
        self.assertEqual(self.row("stats", "teaming", "one")["failovers"], 2)

        # The data path goes on without a daemon; the next one tells what has happened.
        self.kill_supervisor()
        self.namespaces[3].run("ip", "link", "set", "eth0", "down")
        self.wires["1"].send(frame(BROADCAST, A, "by the other one"))
        self.assertEqual(text_of(self.wires["up1"]), "by the other one")
        self.assertEqual(networks[1].read(), [])
        self.start()
        networks[1].await_and_clear(*moved)
        self.assertEqual(self.rarp(), (9, 0))
        self.link_of(1, "down")
        self.link_of(1, "up")
        self.set(SWITCH_TEAMING, teaming(ORDER, ["up1"], notify=1))
        self.set(SWITCH_TEAMING, teaming(ORDER, ["up0", "up1"], notify=1))
        self.link_of(0, "up")
        networks[0].await_and_clear(*moved)
        self.assertEqual(networks[1].read(), [])
        self.assertEqual(self.rarp(), (12, 0))

    def test_addresses_that_are_spread_are_told_where_they_have_moved(self):
        networks = [Announcements(self, namespace) for namespace in self.namespaces[3:]]
        self.vsctl("port", "mac-learning", "one", "1", "--learning", "--limit", "500")
        self.set(SWITCH_TEAMING, teaming(SOURCE_MAC, ["up0", "up1"], notify=1, fail_back=0))
        addresses = [f"02:00:00:00:{high:02x}:{low:02x}" for high in range(2) for low in range(1, 201)]
        bytes_of = lambda address: bytes.fromhex(address.replace(":", ""))
        for address in addresses:
            whole = b"\xff" * 6 + bytes_of(address) + struct.pack("!H", ETH_P_TEST)
            self.wires["1"].send(whole.ljust(60, b"\0"))
        wait_until(lambda: len(self.rows("mac", "list", "one", "1")) == len(addresses), "all addresses")
        self.link_of(0, "down")
        logged = lambda: re.findall("are announced: ([0-9]+)", self.read_log())
        wait_until(logged, "a log line")
        wait_until(lambda: len(networks[1].read()) == int(logged()[0]), "all announcements")
        moved = networks[1].seen
        self.assertGreater(len(moved), 100)
        self.assertLess(len(moved), 300)
        self.assertEqual(len(set(moved)), len(moved))
        self.link_of(0, "up")  # ports don't come back
        self.link_of(1, "down")
        wait_until(lambda: self.rarp()[0] == len(addresses) + len(moved), "announcements of all")
        wait_until(lambda: len(networks[0].read()) == len(addresses), "all announcements")

    def test_what_the_network_floods_comes_once_while_vshostd_follows_links(self):
        flood = lambda uplink: self.send(uplink, D)
        wait_until(lambda: flood("up0") == "2", "floods by a port's own uplink")
        self.assertEqual(flood("up1"), "1 3")
        self.link_of(1, "down")
        wait_until(lambda: flood("up0") == "1 2 3", "floods by the uplink that is left")
        self.link_of(1, "up")
        wait_until(lambda: flood("up0") == "2", "floods by a port's own uplink")
        self.kill_supervisor()
        self.wires["1"].setblocking(False)

        def comes_by_any():
            self.wires["up0"].send(frame(BROADCAST, D, "without a daemon"))
            try:
                return text_of(self.wires["1"]) == "without a daemon"
            except BlockingIOError:
                return False

        wait_until(comes_by_any, "floods by any uplink")

    def test_standby_uplinks_and_transmission_by_any(self):
        up = lambda: self.send("1", A, D)

        def link(state):
            self.namespaces[3].run("ip", "link", "set", "eth0", state)
            wait_until(lambda: self.row("uplink", "link", "one", "vn0")["link"] == (state == "up"), f"link {state}")

        self.set(SWITCH_TEAMING, teaming(ORDER, ["up0"], ["up1"], fail_back=0))
        self.assertEqual(up(), "up0")
        link("down")
        self.assertEqual(up(), "up1")
        link("up")
        self.assertEqual(up(), "up1")
        self.set(SWITCH_TEAMING, teaming(ORDER, ["up0"]))
        self.assertEqual(up(), "up0")
        link("down")
        self.assertEqual(up(), "1: not sent")
        self.vsctl("port", "tx-uplink", "one", "1", "always")
        self.assertEqual(up(), "up1")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
