"""Multicast snooping from the store to packets: joins of real hosts, and what the driver tells of them."""
import ipaddress
import struct
import sys
import unittest

from live_host import *

GROUP, OTHER = "239.1.2.3", "239.129.2.3"  # of the same Ethernet address
GROUP6 = "ff15::1:2:3"
A, SOURCE, WRONG_SOURCE = "02:00:00:00:00:01", "10.9.0.1", "10.9.0.77"
SENDER = bytes.fromhex(A.replace(":", ""))
MCAST_JOIN_GROUP, MCAST_LEAVE_GROUP, MCAST_JOIN_SOURCE_GROUP = 42, 45, 46


def checksum(data):
    data += bytes(len(data) % 2)
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xffff) + (total >> 16)
    return ~total & 0xffff


def packed(address):
    return ipaddress.ip_address(address).packed


def group_frame(group, text, source=None):
    """A frame to a group; no machine's own stack sends it."""
    address = ipaddress.ip_address(group)
    if address.version == 4:
        mac = b"\x01\x00\x5e" + bytes([address.packed[1] & 127]) + address.packed[2:]
        packet = struct.pack("!BBHIBBH", 0x45, 0, 20 + len(text), 0, 1, 253, 0) + packed(source or SOURCE)
        return (mac + SENDER + b"\x08\x00" + packet + address.packed + text.encode()).ljust(60, b"\0")
    packet = struct.pack("!IHBB", 6 << 28, len(text), 253, 1) + packed(source or "fd00::1")
    return b"\x33\x33" + address.packed[12:] + SENDER + b"\x86\xdd" + packet + address.packed + text.encode()


def igmp_query(group="0.0.0.0", source=SOURCE):
    message = struct.pack("!BBH", 0x11, 100, 0) + packed(group)
    message = message[:2] + struct.pack("!H", checksum(message)) + message[4:]
    header = struct.pack("!BBHIBBH", 0x46, 0, 32, 0, 1, 2, 0) + packed(source) + packed("224.0.0.1") + b"\x94\x04\0\0"
    header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
    return b"\x01\x00\x5e\0\0\x01" + SENDER + b"\x08\x00" + header + message


class Multicast(PluggedHost):
    def setUp(self):
        super().setUp()
        self.a, self.b = self.two()
        self.c = self.namespace("c", "10.9.0.3")
        self.plug("3", self.c)
        self.wires = {}
        for name, namespace in (("a", self.a), ("b", self.b), ("c", self.c)):
            wire = namespace.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
            wire.bind(("eth0", 3))  # all frames
            wire.settimeout(LONGEST_WAIT)
            self.wires[name] = wire
            self.addCleanup(wire.close)
        self.vsctl("switch", "multicast", "one", "snooping")
        self.marks = 0

    def who_gets(self, group, source=None, sender="a"):
        """The namespaces that a frame to a group reaches: what arrives before a frame to all."""
        self.marks += 1
        text, end = f"group {self.marks}", f"mark {self.marks}"
        self.wires[sender].send(group_frame(group, text, source))
        self.wires[sender].send(frame(BROADCAST, A, end))
        names = ""
        for name, wire in self.wires.items():
            if name == sender:
                continue
            while True:
                got = wire.recv(2000)
                if text.encode() in got:
                    names += name
                if end.encode() in got:
                    break
        return names

    def join(self, namespace, group, source=None):
        """A socket of a namespace that joins as any program does: the kernel there sends the reports."""
        family = socket.AF_INET6 if ":" in group else socket.AF_INET
        level = socket.IPPROTO_IPV6 if ":" in group else socket.IPPROTO_IP
        member = namespace.socket(family, socket.SOCK_DGRAM)
        self.addCleanup(member.close)
        index = json.loads(namespace.run("ip", "-j", "link", "show", "eth0").stdout)[0]["ifindex"]
        head = struct.pack("=HHI", family, 0, 0) if family == socket.AF_INET6 else struct.pack("=HH", family, 0)
        address = lambda text: (head + packed(text)).ljust(128, b"\0")
        record = struct.pack("=II", index, 0) + address(group)
        if source:
            member.setsockopt(level, MCAST_JOIN_SOURCE_GROUP, record + address(source))
        else:
            member.setsockopt(level, MCAST_JOIN_GROUP, record)
        return lambda: member.setsockopt(level, MCAST_LEAVE_GROUP, record)

    def groups(self):
        return {row["group"] for row in self.rows("multicast", "filters", "one") if row["kind"] != "ethernet"}

    def test_real_hosts_join_and_leave(self):
        self.assertEqual(self.who_gets(GROUP), "")
        leave = self.join(self.b, GROUP)
        wait_until(lambda: GROUP in self.groups(), "the group")
        self.assertEqual((self.who_gets(GROUP), self.who_gets(OTHER)), ("b", ""))
        self.join(self.c, GROUP, SOURCE)
        wait_until(lambda: self.row("multicast", "groups", "one", GROUP)["ports"] == 2, "the other port")
        self.assertEqual((self.who_gets(GROUP), self.who_gets(GROUP, WRONG_SOURCE)), ("bc", "b"))
        row = self.row("multicast", "groups", "one", GROUP)
        self.assertEqual((row["joins"], row["leaves"], row["vlan"]), (2, 0, 0), row)
        leave()
        wait_until(lambda: self.row("multicast", "groups", "one", GROUP)["ports"] == 1, "a port less")
        self.assertEqual((self.who_gets(GROUP), self.who_gets(GROUP, WRONG_SOURCE)), ("c", ""))
        row = self.row("multicast", "groups", "one", GROUP)
        self.assertEqual(row["sources"], [SOURCE], row)

    def test_real_hosts_join_over_ipv6(self):
        self.b.run("sysctl", "-qw", "net.ipv6.conf.eth0.disable_ipv6=0")
        leave = self.join(self.b, GROUP6)
        wait_until(lambda: self.groups() == {GROUP6}, "the group")
        self.assertEqual(self.who_gets(GROUP6), "b")
        self.assertEqual(self.who_gets("ff02::1"), "bc")
        leave()
        wait_until(lambda: not self.groups(), "the end of the group")
        self.assertEqual(self.who_gets(GROUP6), "")

    def test_a_querier_gets_what_nobody_joined_and_is_answered(self):
        self.join(self.b, GROUP)
        wait_until(lambda: self.groups(), "the group")
        self.vsctl("switch", "multicast", "one", "legacy")
        self.assertEqual(self.who_gets(GROUP), "bc")
        self.vsctl("switch", "multicast", "one", "snooping")
        self.assertEqual((self.groups(), self.who_gets(GROUP)), (set(), ""))
        self.wires["c"].send(igmp_query())
        wait_until(lambda: self.groups() == {GROUP}, "an answer to the query")
        self.assertEqual((self.who_gets(GROUP), self.who_gets(OTHER)), ("bc", "c"))
        self.assertEqual(self.row("multicast", "groups", "one", GROUP)["queries"], 0)
        self.wires["c"].send(igmp_query())
        wait_until(lambda: self.row("multicast", "groups", "one", GROUP)["queries"] == 1, "a query")
        run(VSHOST, "unplug", "--state", self.directory, self.c.interface)
        self.plug("3", self.c)
        self.assertEqual((self.who_gets(GROUP), self.who_gets(OTHER)), ("b", ""))

    def test_groups_outlive_the_daemon_and_end_with_the_plug(self):
        self.vsctl("port", "vlan", "one", "2", "--trunk", "0-5")
        self.join(self.b, GROUP)
        wait_until(lambda: self.groups(), "the group")
        self.kill_worker()
        self.assertEqual((self.groups(), self.who_gets(GROUP)), ({GROUP}, "b"))
        self.assertEqual(run(VSHOST, "check", "--state", self.directory).stdout, "")
        self.vsctl("switch", "mac-learning", "one", "--limit", "1000")  # a change after the restart
        self.assertEqual((self.groups(), self.who_gets(GROUP)), ({GROUP}, "b"))
        self.b.run("ip", "link", "set", "eth0", "down")
        wait_until(lambda: not self.groups(), "the end of the group")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
