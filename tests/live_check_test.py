"""`vshost check`: agrees while vshostd works, and names each difference that somebody makes behind its back."""
import os
import signal
import json
import struct
import sys
import unittest

from live_host import *
from live_mirror_test import HOST_LIST, sessions, settings


class Check(PluggedHost):
    def setUp(self):
        super().setUp()
        self.two()
        run(VSHOST, "nic", "add", "--state", self.directory, self.namespace("net", "10.9.0.9").interface)
        self.vsctl("uplink", "add", "one", "up1")
        self.vsctl("port", "vlan", "one", "1", "100")
        self.vsctl("mac", "add", "one", "1", "--address", "02:00:00:00:00:05")
        self.vsctl("port", "vlan", "one", "2", "--trunk", "5-9,20")
        self.vsctl("property", "set", "one", HOST_LIST, "--level", "host", "--hex",
                   sessions(("s", settings(), ["1"], [], ["2"])).hex())

    def check(self):
        """The differences; none when the exit code says so too."""
        done = run(VSHOST, "check", "--state", self.directory, check=False)
        self.assertEqual((done.stderr, done.returncode), ("", 1 if done.stdout else 0))
        return done.stdout.splitlines()

    def map(self, name):
        return ("pinned", next(self.directory.glob(f"bpf/*/{name}")))

    def entry(self, name, key):
        words = run("bpftool", "-j", "map", "lookup", *self.map(name), "key", *struct.pack("=I", key)).stdout
        return bytearray(int(byte, 16) for byte in json.loads(words)["value"])

    def write(self, name, key, value):
        run("bpftool", "map", "update", *self.map(name), "key", *struct.pack("=I", key), "value", *value)

    def slot(self, interface):
        index = json.loads(run("ip", "-j", "link", "show", interface).stdout)[0]["ifindex"]
        return index, struct.unpack("=I", self.entry("interfaces", index))[0]

    def flip(self, name, key, offset):
        """Changes a byte of a map's entry."""
        value = self.entry(name, key)
        value[offset] ^= 2
        self.write(name, key, value)

    def snapshot(self):
        done = run("bpftool", "-j", "map", "lookup", *self.map("snapshots"), "key", *bytes(4)).stdout
        return json.loads(done)["inner_map_id"] if "inner_map_id" in done else int(json.loads(done)["value"], 0)

    def test_it_agrees_whatever_vsctl_and_the_machine_do(self):
        self.assertEqual(self.check(), [])
        for change in (("port", "block", "one", "1", "on"), ("switch", "mtu", "one", "3000"),
                       ("uplink", "down", "one", "vnet"), ("port", "remove", "one", "2")):
            self.vsctl(*change) if change[1] != "block" else self.vsctl(
                "property", "set", "one", "com.talpex.common.port.block", "--port", "1", "--text", "true")
            self.assertEqual(self.check(), [], change)
        run("ip", "link", "del", "va")
        self.assertEqual(self.check(), [])
        self.kill_worker()
        self.assertEqual(self.check(), [])

    def test_each_difference_is_a_line(self):
        index_a, slot_a = self.slot("va")
        static = struct.pack("=IH", 0, 0) + bytes((2, 0, 0, 0, 0, 5))
        # What is done while vshostd doesn't look, and what the line says. The later ones hide others.
        spoilt = ([
            (lambda: run("tc", "filter", "del", "dev", "va", "ingress"), "interface va: it has no filter"),
            (lambda: run("ip", "link", "set", "va", "mtu", "1300"),
             "interface va: the MTU is 1300, the store says 1500"),
            (lambda: run("ip", "link", "set", "vnet", "down"), "interface vnet: it is down"),
            (lambda: run("ip", "link", "set", "vnet", "promisc", "off"), "only frames to its own address"),
            (lambda: self.flip("ports", slot_a, 4), "the word of flags is 258, the store says 256"),
            (lambda: self.flip("ports", slot_a, 8), "the word of its VLAN is"),
            (lambda: self.flip("ports", slot_a, 24), "the limit of addresses is"),
            (lambda: self.flip("switches", 0, 4), "the MTU is 1502, the store says 1500"),
            (lambda: self.flip("switches", 0, 16), "the set of active uplinks is 3"),
            (lambda: self.flip("host", 0, 4), "the host: the limit of addresses is"),
            (lambda: self.write("interfaces", 77777, struct.pack("=I", slot_a)),
             "interface 77777, which is gone: the kernel has it at a port, the store at none"),
            (lambda: run("bpftool", "map", "delete", *self.map("addresses"), "key", *static),
             "address 02:00:00:00:00:05 of VLAN 0: the kernel doesn't have this static address"),
            (lambda: run("bpftool", "map", "update", *self.map("addresses"), "key", *static[:-1], 6, "value",
                         *struct.pack("=IIQ", slot_a, 0xFFFFFFFF, 0)),
             "address 02:00:00:00:00:06 of VLAN 0: the kernel has it as a static one, the store doesn't"),
            (lambda: run("bash", "-c", "ip link add stray type veth; tc qdisc add dev stray clsact;"
                         f"tc filter add dev stray ingress handle 1 prio 1 bpf da pinned {program}"),
             "interface stray: it has a filter of this host and belongs to no port"),
            (lambda: self.flip("mirrors", 0, 12), "mirror session s: whether it is enabled is 3, the store says 1"),
        ], [
            (lambda: run("bpftool", "map", "delete", *self.map("interfaces"), "key",
                         *struct.pack("=I", index_a)), "interface va: the kernel doesn't know its"),
            (lambda: self.flip("mirrors", 0, 16), "mirror session q: the kernel has it, the store doesn't"),
        ], [
            (lambda: run("bpftool", "map", "delete", *self.map("snapshots"), "key", *bytes(4)),
             "the kernel has no snapshot of it"),
        ])
        for group in spoilt:
            self.assertEqual(self.check(), [])
            program = next(self.directory.glob("bpf/*/program-*"))
            self.kill_supervisor()  # nobody mends it
            for spoil, _ in group:
                spoil()
            differences = self.check()
            for _, line in group:
                with self.subTest(line):
                    self.assertTrue(any(line in found for found in differences), differences)
            self.assertLessEqual(len(differences), 3 * len(group), differences)
            self.start()
            run("ip", "link", "set", "vnet", "up", "promisc", "on")
            run("ip", "link", "set", "va", "mtu", "1500")
            run("ip", "link", "del", "stray", check=False)

    def test_what_cannot_be_compared_is_said(self):
        self.stop()
        self.assertIn("has no data path in the kernel", self.refusal("check"))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
