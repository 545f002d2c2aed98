"""What a live host promises: killed daemons, lost uplinks, two hosts on one machine, large interface numbers."""
import os
import random
import subprocess
import sys
import threading
import time
import unittest

from live_host import *

KILLS = 200 if os.environ.get("VSWITCHCTL_LONG") else 20
FRAMES = 300

# Writes the policies of ports until its input ends. Prints how many writes there were, and the statuses of those
# that failed.
WRITE = """
import ctypes, select, sys
vswitch = ctypes.CDLL(sys.argv[1])
none, count, writes, failed = ctypes.c_uint32(0xFFFFFFFF), ctypes.c_uint16(0), 0, []
while not select.select([sys.stdin], [], [], 0)[0]:
    for port, vlan in ((b"3", 100 + writes % 1000), (b"4", 200 + writes % 1000)):
        status = vswitch.VSDVS_SetPortVLANPolicy(b"one", port, ctypes.c_uint16(vlan), none, 0, 0, None, count)
        writes += 1
        if status:
            failed.append(hex(status))
    print(writes, *failed, flush=True)
"""

# Broadcasts numbered frames; at a given one it waits for a line.
BROADCAST = """
import socket, sys, time
count, pause_at = int(sys.argv[1]), int(sys.argv[2])
client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
client.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
for number in range(count):
    if number == pause_at:
        print("waits", flush=True)
        sys.stdin.readline()
    client.sendto(b"frame %d" % number, ("10.9.0.255", 9))
    time.sleep(0.001)
"""

# Prints the interface and the number of each of these frames that comes.
LISTEN = """
import socket
listener = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
print("listens", flush=True)
while True:
    frame, (interface, *_) = listener.recvfrom(2048)
    if b"frame " in frame:
        print(interface, int(frame.split(b"frame ")[1].rstrip(bytes(1))), flush=True)
"""


class Lines:
    """A program whose lines are read as they come."""

    def __init__(self, test, *command):
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.lines = []
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        test.addCleanup(self.end)

    def read(self):
        for line in self.process.stdout:
            self.lines.append(line.rstrip("\n"))

    def end(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdin.close()
        self.process.stdout.close()


class Kills(PluggedHost):
    def test_nothing_is_lost_when_the_daemon_is_killed_at_random_moments(self):
        a, b = self.two()
        self.vsctl("port", "add", "one", "4")
        for port, name in (("3", "c"), ("4", "d")):
            self.plug(port, self.namespace(name, f"10.9.0.{port}"))
        callers = [Caller(self.device, GET_INFO, portset_input("one")) for _ in range(2)]
        for caller in callers:
            caller.start()
        writer = Lines(self, VSHOST, "run", "--state", self.directory, "--", sys.executable, "-c", WRITE,
                       BUILD / "libvswitchctl.so")
        stream = Lines(self, "nsenter", f"--net=/proc/{a.holder.pid}/ns/net", sys.executable, "-c", SEND, b.address,
                       100 * KILLS, 0.002, LONGEST_WAIT)
        written = lambda: int(writer.lines[-1].split()[0]) if writer.lines else 0
        moments = random.Random(time.time_ns())
        for _ in range(KILLS):
            time.sleep(moments.random() * 0.05)
            self.kill_worker()
            before = (written(), [caller.answered for caller in callers])
            wait_until(lambda: written() > before[0], "a write that returns")
            wait_until(lambda: all(caller.answered > old for caller, old in zip(callers, before[1])), "answers")
        for caller in callers:
            caller.ends.set()
            caller.join(LONGEST_WAIT)
            self.assertEqual((caller.is_alive(), caller.refused), (False, []))
        writer.process.stdin.write("end\n")
        writer.process.stdin.flush()
        self.assertEqual(writer.process.wait(LONGEST_WAIT), 0)
        writer.reader.join()
        self.assertEqual(writer.lines[-1].split()[1:], [])
        wait_until(lambda: stream.lines, "the end of the stream", 10 * LONGEST_WAIT)
        self.assertEqual(stream.lines, [str(100 * KILLS)])
        done = run(VSHOST, "check", "--state", self.directory, check=False)
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("", "", 0))


class Uplinks(PluggedHost):
    """A team of two uplinks, both ends of whose links are on this machine."""

    def setUp(self):
        super().setUp()
        self.vm, self.network = self.namespace("a", "10.9.0.1"), self.namespace("net", "10.9.0.9")
        self.add_second_link()
        for number, interface in enumerate(("vnet", "vnet1")):
            run(VSHOST, "nic", "add", "--state", self.directory, interface)
            self.vsctl("uplink", "add", "one", f"up{number}")
        self.plug("1", self.vm)
        self.listener = Lines(self, "nsenter", f"--net=/proc/{self.network.holder.pid}/ns/net", sys.executable, "-c",
                              LISTEN)
        wait_until(lambda: self.listener.lines == ["listens"], "a listener")

    def add_second_link(self):
        run("ip", "link", "add", "vnet1", "type", "veth", "peer", "name", "eth1", "netns", self.network.holder.pid)
        run("ip", "link", "set", "vnet1", "up")
        self.network.run("ip", "link", "set", "eth1", "up")

    def broadcast(self, count, pause_at=-1):
        self.listener.lines = []
        return Lines(self, "nsenter", f"--net=/proc/{self.vm.holder.pid}/ns/net", sys.executable, "-c", BROADCAST,
                     count, pause_at)

    def arrived(self):
        """The numbers of the frames that have come, by interface."""
        arrived = {"eth0": set(), "eth1": set()}
        for line in list(self.listener.lines):
            interface, number = line.split()
            arrived[interface].add(int(number))
        return arrived

    def test_no_frame_is_lost_with_an_uplink(self):
        far = lambda command: self.network.run(*command.split())
        near = lambda command: run(*command.split())
        for daemon_lives in (True, False):
            for name, lose in (("carrier", lambda eth, vnet: far(f"ip link set {eth} down")),
                               ("down", lambda eth, vnet: near(f"ip link set {vnet} down")),
                               ("deleted", lambda eth, vnet: near(f"ip link del {vnet}"))):
                with self.subTest(name, daemon_lives=daemon_lives):
                    first = self.broadcast(20)
                    self.assertEqual(first.process.wait(LONGEST_WAIT), 0)
                    wait_until(lambda: sum(map(len, self.arrived().values())) == 20, "frames by one uplink")
                    used = next(eth for eth, numbers in self.arrived().items() if numbers)
                    other, vnet = ("eth1", "vnet") if used == "eth0" else ("eth0", "vnet1")
                    if not daemon_lives:
                        self.kill_supervisor()
                    stream = self.broadcast(FRAMES, FRAMES // 3)
                    wait_until(lambda: stream.lines == ["waits"], "the first frames")
                    lose(used, vnet)
                    stream.process.stdin.write("\n")
                    stream.process.stdin.flush()
                    self.assertEqual(stream.process.wait(LONGEST_WAIT), 0)
                    arrived = lambda: set().union(*self.arrived().values())
                    wait_until(lambda: len(arrived()) == FRAMES, f"all frames; missing: "
                               f"{sorted(set(range(FRAMES)) - arrived())}", 5)
                    self.assertGreater(len(self.arrived()[other]), FRAMES // 2)
                    if daemon_lives:
                        new_owner = "vnet" if other == "eth0" else "vnet1"
                        wait_until(lambda: f"{new_owner}: failover, ports that came" in self.read_log(), "a log line")
                    self.mend(used, vnet, daemon_lives)

    def mend(self, eth, vnet, daemon_lives):
        if run("ip", "link", "show", vnet, check=False).returncode == 0:
            run("ip", "link", "set", vnet, "up")
        elif vnet == "vnet":
            self.network.connect()
        else:
            self.add_second_link()
        self.network.run("ip", "link", "set", eth, "up")
        if not daemon_lives:
            self.start()
        check = lambda: run(VSHOST, "check", "--state", self.directory, check=False).stdout
        wait_until(lambda: check() == "", f"a host that is whole again: {check()}")


class TwoHosts(PluggedHost):
    def test_two_hosts_on_one_machine_do_not_meet(self):
        a, b = self.two()
        other = TwoHosts()
        other.setUp()
        self.addCleanup(other.tearDown)
        c, d = other.namespace("c", "10.9.0.1"), other.namespace("d", "10.9.0.2")
        other.plug("1", c)
        other.plug("2", d)
        for one, two in ((a, b), (c, d)):
            self.assertTrue(one.reaches(two))
        refusal = other.refusal("plug", "one", "3", "va")
        self.assertIn("if it is plugged on another host of this machine, unplug it there", refusal)
        other.vsctl("port", "vlan", "one", "2", "300")
        wait_until(lambda: not c.reaches(d), "no answer")
        self.assertTrue(a.reaches(b))
        for host in (self, other):
            self.assertEqual(run(VSHOST, "check", "--state", host.directory).stdout, "")
        other.stop()
        self.assertTrue(a.reaches(b))
        self.assertEqual(run(VSHOST, "check", "--state", self.directory).stdout, "")

    def test_an_interface_of_a_large_number_is_plugged(self):
        a = self.namespace("a", "10.9.0.1")
        b = self.namespace("b", "10.9.0.2")
        run("ip", "link", "del", b.interface)
        b.connect(3000000)
        self.plug("1", a)
        self.plug("2", b)
        self.assertTrue(a.reaches(b))
        self.kill_worker()
        self.assertTrue(b.reaches(a))
        self.assertEqual(run(VSHOST, "check", "--state", self.directory).stdout, "")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
