"""Plugged interfaces: frames between network namespaces by the policies in the store, and what plugging changes."""
import errno
import json
import os
import signal
import subprocess
import sys
import unittest

from live_host import *


# Flips the VLAN of port 2 and whether it is blocked, by turns; right after each return port 1 sends a broadcast, which
# only half of the settings let pass. Port 3 gets every one: what it has got is not under way any more.
# Prints the packets that came, of those that must, and of those that must not.
FLIP = """
import ctypes, socket, sys
library, sender, receiver, witness, address = sys.argv[1:6]
vswitch, libc = ctypes.CDLL(library), ctypes.CDLL(None)
def socket_of(process):
    with open(f"/proc/{process}/ns/net") as space:
        assert libc.setns(space.fileno(), 0) == 0
    return socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
own = open("/proc/self/ns/net")
source, target, third = socket_of(sender), socket_of(receiver), socket_of(witness)
assert libc.setns(own.fileno(), 0) == 0
source.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
for sink in (target, third):
    sink.bind(("", 9))
    sink.settimeout(20)
def vlan(opens):
    none, vlan, count = ctypes.c_uint32(0xFFFFFFFF), ctypes.c_uint16(100 if opens else 200), ctypes.c_uint16(0)
    return vswitch.VSDVS_SetPortVLANPolicy(b"one", b"2", vlan, none, 0, 0, None, count)
def block(opens):
    value = b"false\\0" if opens else b"true\\0"
    length, by_alias = ctypes.c_uint32(len(value)), ctypes.c_uint8(1)
    return vswitch.VSDVS_SetPortProp(b"one", b"2", b"com.talpex.common.port.block", value, length, None, by_alias)
def send(text):
    source.sendto(text, (address, 9))
    while third.recv(100) != text:
        pass
right, wrong = 0, 0
for flip in range(int(sys.argv[6])):
    change = (vlan, block)[flip % 2]
    send(b"right %d" % flip)
    if target.recv(100) == b"right %d" % flip:
        right += 1
    else:
        wrong += 1
    assert change(False) == 0
    send(b"wrong %d" % flip)
    assert change(True) == 0
send(b"end")
wrong += target.recv(100) != b"end"
print(right, wrong)
"""
# Broadcasts as fast as it can.
LOAD = """
import socket, sys
noise = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
noise.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
while True:
    try:
        noise.sendto(bytes(100), (sys.argv[1], 11))
    except OSError:
        pass
"""


# Calls functions of the platform; prints what each returns, and its message.
CALL = """
import ctypes, json, sys
platform = ctypes.CDLL(sys.argv[1])
platform.vshost_error.restype = ctypes.c_char_p
for name, arguments in json.loads(sys.argv[2]):
    words = [word.encode() if isinstance(word, str) else word for word in arguments]
    print(json.dumps([getattr(platform, name)(*words), platform.vshost_error().decode()]))
"""


class Plugging(PluggedHost):
    def test_files_plug_interfaces(self):
        """In the same form as they are exported; an undo plugs again what its change has unplugged."""
        a, b = self.namespace("a", "10.9.0.1"), self.namespace("b", "10.9.0.2")
        interface = lambda port: next(row for row in self.rows("port", "list", "one") if row["port"] == port)["plugged"]

        def apply(ports, *options):
            file = self.directory / "file.json"
            file.write_text(json.dumps({"switches": {"one": {"ports": ports}}}))
            return [(row["item"], row["before"], row["after"]) for row in self.rows("apply", str(file), *options)]
        self.assertEqual(apply({"1": {"plugged": "va"}, "2": {"plugged": "vb"}}),
                         [("plugged", None, "va"), ("plugged", None, "vb")])
        self.assertEqual((interface("1"), interface("2")), ("va", "vb"))
        self.assertTrue(a.reaches(b))
        exported = json.loads(self.vsctl("export", "one", "--json"))["switches"]["one"]["ports"]
        self.assertEqual({name: entry.get("plugged") for name, entry in exported.items()},
                         {"1": "va", "2": "vb", "3,port0..port15": None})
        self.assertEqual(apply(exported), [])
        self.assertEqual(apply({"2": {"plugged": "none"}}), [("plugged", "vb", None)])
        self.vsctl("undo")
        self.assertEqual((interface("1"), interface("2")), ("va", "vb"))
        wait_until(lambda: a.reaches(b), "frames between them")
        self.vsctl("port", "remove", "one", "2")
        self.assertFalse(b.reaches(a))
        self.vsctl("undo")
        self.assertEqual(interface("2"), "vb")
        self.assertTrue(b.reaches(a))  # its address is learned anew when it sends

    def test_the_next_packet_obeys_a_write_that_has_returned(self):
        a, b = self.two()
        c = self.namespace("c", "10.9.0.3")
        self.plug("3", c)
        self.vsctl("port", "vlan", "one", "1,2,3", "100")
        wait_until(lambda: a.reaches(b) and a.reaches(c), "an answer")
        load = subprocess.Popen(["nsenter", f"--net=/proc/{a.holder.pid}/ns/net", sys.executable, "-c", LOAD,
                                 "10.9.0.255"])
        self.addCleanup(load.wait)
        self.addCleanup(load.kill)
        flips = 5000 if os.environ.get("VSWITCHCTL_LONG") else 250  # each closes and opens
        done = self.on_host(sys.executable, "-c", FLIP, BUILD / "libvswitchctl.so", a.holder.pid, b.holder.pid,
                            c.holder.pid, "10.9.0.255", flips, timeout=1000)
        self.assertEqual(done.stdout.split(), [str(flips), "0"])

    def test_an_interface_that_comes_back_is_plugged_again(self):
        a, b = self.two()
        run("ip", "link", "del", a.interface)
        a.connect()
        wait_until(lambda: a.reaches(b), "an answer")

    def test_one_made_anew_with_the_same_number_is_plugged_again(self):
        a, b = self.two()
        self.assertTrue(a.reaches(b))
        index = json.loads(run("ip", "-j", "link", "show", a.interface).stdout)[0]["ifindex"]
        os.kill(self.worker(), signal.SIGSTOP)  # it sees both events at once
        run("ip", "link", "del", a.interface)
        a.connect(index)
        os.kill(self.worker(), signal.SIGCONT)
        wait_until(lambda: a.reaches(b), "an answer")

    def test_a_filter_that_somebody_removes_is_put_back(self):
        a, b = self.two()
        run("tc", "filter", "del", "dev", a.interface, "ingress")
        wait_until(lambda: a.reaches(b), "an answer")
        self.assertIn("another program has removed the filter", self.read_log())

    def test_nothing_stays_of_a_switch_that_is_destroyed_first(self):
        a, _ = self.two()
        self.vsctl("switch", "destroy", "one")
        self.assertIn("bpf", self.filters(a.interface))  # its frames are not for the machine
        run(VSHOST, "unplug", "--state", self.directory, a.interface)
        self.assertNotIn("clsact", run("tc", "qdisc", "show", "dev", a.interface).stdout)

    def test_the_log_has_a_line_for_each_change_of_a_link(self):
        a, _ = self.two()
        for command, state in (("ip link set va down", "down"), ("ip link set va up", "up"),
                               (f"ip link set va netns {a.holder.pid}", "away")):
            run(*command.split())
            wait_until(lambda: self.read_log().splitlines()[-1:] == [f"vshostd: va: link {state}"], state)

    def test_unplugging_puts_everything_back(self):
        a, b = self.two()
        self.vsctl("switch", "mtu", "one", "4000")
        mtu = lambda: json.loads(run("ip", "-j", "link", "show", a.interface).stdout)[0]["mtu"]
        wait_until(lambda: mtu() == 4000, "the switch's MTU")
        self.assertIn("bpf", self.filters(a.interface))
        run(VSHOST, "unplug", "--state", self.directory, a.interface)
        self.assertEqual((self.filters(a.interface), mtu()), ("", 1500))
        self.assertFalse(b.reaches(a))
        self.plug("3", a)
        wait_until(lambda: b.reaches(a), "an answer")

    def test_stop_leaves_no_filter_pin_or_mount(self):
        a, b = self.two()
        before = run("bpftool", "prog", "show").stdout.count(" vswitch ")
        self.assertGreater(before, 0)
        for kill in (False, True):
            if kill:
                self.start()
                self.plug("1", a)
                self.plug("2", b)
                self.daemon.kill()
                self.daemon.wait()
                run(VSHOST, "stop", "--state", self.directory)
            else:
                self.stop()
            for namespace in (a, b):
                self.assertEqual(self.filters(namespace.interface), "")
                self.assertNotIn("clsact", run("tc", "qdisc", "show", "dev", namespace.interface).stdout)
            self.assertEqual(mounts_under(self.directory), [])
            self.assertFalse((self.directory / "bpf").exists())
        self.assertFalse(a.reaches(b))

    def test_each_refusal_is_a_line_that_says_what_to_do(self):
        a, b = self.two()
        for expected, *arguments in (
                ("list them with `ip link`", "plug", "one", "3", "nosuch"),
                ("is plugged to port 1 of switch", "plug", "one", "3", a.interface),
                ("no switch two", "plug", "two", "1", "lo"),
                ("has no port 9", "plug", "one", "9", "lo"),
                ("unplug it first", "plug", "one", "1", "lo"),
                ("is not plugged to a port", "unplug", "lo")):
            self.assertIn(expected, self.refusal(*arguments))
        self.stop()
        self.assertIn("start it with `vshostd", self.refusal("plug", "one", "3", a.interface))

    def test_programs_plug_by_functions_that_refuse_as_the_command_does(self):
        a, b = self.namespace("a", "10.9.0.1"), self.namespace("b", "10.9.0.2")
        self.plug("2", b)
        calls = (("vshost_plug", ("one", "1", "va", 0), 0, ""),
                 ("vshost_plug", ("one", "3", "va", 0), errno.EEXIST, ""),
                 ("vshost_plug", ("one", "3", "nosuch", 0), errno.ENODEV, "list them with `ip link`"),
                 ("vshost_plug", ("two", "3", "lo", 0), errno.ENOENT, "no switch two"),
                 ("vshost_plug", ("one", "2", "lo", 1), errno.EEXIST, "unplug it first"),
                 ("vshost_plug", ("one", None, "lo", 1), errno.EINVAL, "null"),
                 ("vshost_unplug", ("lo",), errno.ENOENT, "is not plugged to a port"),
                 ("vshost_add_nic", ("va", 0), errno.EEXIST, "is plugged to port 1 of switch"),
                 ("vshost_unplug", ("vb",), 0, ""), ("vshost_add_nic", ("vb", 1), 0, ""),
                 ("vshost_unplug", ("vb",), errno.ENOENT, "is not plugged to a port"),
                 ("vshost_remove_nic", ("va",), errno.ENOENT, "is not a NIC of this host"),
                 ("vshost_remove_nic", ("vb",), 0, ""))
        done = self.on_host(sys.executable, "-c", CALL, PLATFORM / "liborkPublic.so",
                            json.dumps([call[:2] for call in calls]))
        answers = [json.loads(line) for line in done.stdout.splitlines()]
        for (name, arguments, error, text), answer in zip(calls, answers, strict=True):
            self.assertEqual((name, arguments, answer[0]), (name, arguments, error), answer[1])
            self.assertIn(text, answer[1] if error else "")
        self.assertTrue(self.filters("va"))
        self.assertFalse(self.filters("vb"))
        self.stop()
        done = self.on_host(sys.executable, "-c", CALL, PLATFORM / "liborkPublic.so",
                            json.dumps([("vshost_unplug", ("va",))]))
        self.assertEqual(json.loads(done.stdout)[0], errno.ECONNREFUSED)

    def test_a_queueing_discipline_of_others_stays(self):
        a = self.namespace("a", "10.9.0.1")
        run("tc", "qdisc", "add", "dev", a.interface, "clsact")
        self.plug("1", a)
        run(VSHOST, "unplug", "--state", self.directory, a.interface)
        self.assertIn("clsact", run("tc", "qdisc", "show", "dev", a.interface).stdout)


class Nics(PluggedHost):
    def nic(self):
        host = json.loads(run(VSHOST, "show", "--state", self.directory, "--json").stdout)
        return next((nic for nic in host["nics"] if nic["name"] == "vnet"), None)

    def test_a_nic_is_the_uplink_of_a_switch(self):
        a = self.namespace("a", "10.9.0.1")
        network = self.namespace("net", "10.9.0.9")
        run(VSHOST, "nic", "add", "--state", self.directory, network.interface)
        self.assertTrue(self.nic()["link"])
        self.vsctl("uplink", "add", "one", "up1")
        self.assertEqual(self.nic()["port"], "up1", run(VSHOST, "show", "--state", self.directory).stdout)
        self.plug("1", a)
        wait_until(lambda: a.reaches(network), "an answer by the uplink")
        self.vsctl("port", "vlan", "one", "1", "100")
        wait_until(lambda: not a.reaches(network), "no answer: the network sends untagged frames")
        self.vsctl("port", "vlan", "one", "1", "0")
        wait_until(lambda: a.reaches(network), "an answer by the uplink")

        network.run("ip", "link", "set", "eth0", "down")
        wait_until(lambda: not self.nic()["link"], "a lost link")
        network.run("ip", "link", "set", "eth0", "up")
        wait_until(lambda: self.nic()["link"], "a link")
        self.vsctl("uplink", "down", "one", "vnet")
        state = lambda: json.loads(run("ip", "-j", "link", "show", network.interface).stdout)[0]["flags"]
        wait_until(lambda: "UP" not in state(), "an interface that is down")
        self.vsctl("uplink", "up", "one", "vnet")
        wait_until(lambda: a.reaches(network), "an answer by the uplink")
        self.assertIn("PROMISC", state())
        run(VSHOST, "nic", "remove", "--state", self.directory, network.interface)
        self.assertIsNone(self.nic())
        self.assertNotIn("PROMISC", state())
        self.assertEqual(self.filters(network.interface), "")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
