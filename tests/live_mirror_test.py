"""Mirror sessions of the store are true for real frames, also while they change, and the driver tells of them."""
import errno
import random
import sys
import unittest

from live_host import *

GET_MIRROR_STATS, GET_PORT_STATISTICS = 4102, 4127
HOST_LIST, PORT_LIST = "com.talpex.vswitch.uplinkMirrorSessions", "com.talpex.vswitch.port.mirrorSessions"
COUNTERS = ("mirrored", "mirrored_bytes", "dropped", "dropped_bytes", "tx", "tx_bytes", "rx", "rx_bytes", "truncated",
            "not_tagged", "unreachable")
A, B, C = ("02:00:00:00:00:0" + digit for digit in "abc")
SOL_PACKET, PACKET_AUXDATA, PACKET_IGNORE_OUTGOING, ETH_P_ALL = 263, 8, 23, 3
SO_RCVBUFFORCE = 33
LENGTH = 64  # of a frame without tags


def settings(snap=0, every=1, outer=0, strip=0, enabled=1, version=1):
    return struct.pack("=IBBHII", version, enabled, strip, outer, snap, every).ljust(184, b"\0")


def entry(port):
    """By its id, or by its number."""
    return struct.pack("=48sI", b"", port) if isinstance(port, int) else struct.pack("=48sI", port.encode(), 77)


def sessions(*records):
    """A list of (id, settings, senders, receivers, destinations)."""
    heads, entries = b"", b""
    for name, values, *kinds in records:
        heads += struct.pack("=32s184s4I", name.encode(), values, *map(len, kinds), len(entries) // 52)
        entries += b"".join(entry(port) for kind in kinds for port in kind)
    return struct.pack("=5I", 0xFACEBEEF, 2, len(records), len(entries) // 52, 0) + heads + entries


class Capture:
    """All frames that come to a namespace's interface, with their tags."""

    def __init__(self, namespace):
        self.wire = namespace.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self.wire.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
        self.wire.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
        self.wire.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
        self.wire.bind(("eth0", ETH_P_ALL))
        self.wire.settimeout(LONGEST_WAIT)

    def take(self, count):
        return [self.next() for _ in range(count)]

    def drain(self):
        """What has come so far."""
        self.wire.settimeout(0)
        taken = []
        try:
            while True:
                taken.append(self.next())
        except BlockingIOError:
            self.wire.settimeout(LONGEST_WAIT)
            return taken

    def next(self):
        data, control, _, _ = self.wire.recvmsg(1 << 17, 64)
        for level, kind, details in control:
            status, _, _, _, _, tci, tpid = struct.unpack("=IIIHHHH", details[:20])
            if (level, kind) == (SOL_PACKET, PACKET_AUXDATA) and status & 16:
                data = data[:12] + struct.pack("!HH", tpid, tci) + data[12:]
        return data


def describe(data):
    """The tags of a frame and its length without them."""
    tags = []
    while data[12:14] == b"\x81\0":
        tags.append(str(struct.unpack("!H", data[14:16])[0] & 0xFFF))
        data = data[:12] + data[16:]
    return ",".join(tags) + f"^{len(data)}"


class Sender(threading.Thread):
    """Sends numbered frames until it is told to end."""

    def __init__(self, wire):
        super().__init__(daemon=True)
        self.wire, self.begun, self.ends = wire, 0, threading.Event()

    def run(self):
        head = bytes.fromhex((B + A).replace(":", "")) + struct.pack("!H", ETH_P_TEST)
        while not self.ends.is_set():
            number = self.begun
            self.begun += 1
            self.wire.send((head + struct.pack("!I", number)).ljust(LENGTH, b"\0"))
            if number % 16 == 0:
                time.sleep(0.002)


class Mirrors(PluggedHost):
    """Ports 1 and 2 are in VLAN 10; to port 3, and to up0 with other VLANs than 10, nothing comes but copies."""

    def setUp(self):
        super().setUp()
        self.a, self.b, self.c = (self.namespace(name, f"10.9.0.{number}") for number, name in enumerate("abc", 1))
        for port, namespace in zip("123", self.namespaces):
            self.plug(port, namespace)
        network = self.namespace("n", "10.9.0.9")
        run(VSHOST, "nic", "add", "--state", self.directory, network.interface)
        self.vsctl("uplink", "add", "one", "up0")
        for port in "12":
            self.vsctl("port", "vlan", "one", port, "10")
        self.vsctl("port", "vlan", "one", "3", "99")
        self.switch_id = self.row("switch", "show", "one")["id"].encode()
        self.captures = {port: Capture(namespace) for port, namespace in (("3", self.c), ("up0", network))}
        self.wires = {"1": self.a.wire(), "2": self.b.wire()}
        for wire in (*self.wires.values(), *(capture.wire for capture in self.captures.values())):
            self.addCleanup(wire.close)

    def set(self, record, port=None):
        where = ("--port", port) if port else ("--level", "host")
        self.vsctl("property", "set", "one", PORT_LIST if port else HOST_LIST, *where, "--hex", record.hex())

    def stats(self, name):
        """The counters of a session; None: the driver has no such session."""
        given = b"one".ljust(176, b"\0") + name.encode().ljust(36, b"\0")
        answer = request(self.device, GET_MIRROR_STATS, given)
        if isinstance(answer, int):
            self.assertEqual(answer, errno.ENOENT)
            return None
        self.assertEqual(answer[:32].rstrip(b"\0").decode(), name)
        return dict(zip(("active", *COUNTERS), struct.unpack("=B11Q", answer[32:121])))

    def count(self, name, **expected):
        """Compares the session's counters that are not 0; of those of bytes, the ones that are given."""
        found = {key: value for key, value in self.stats(name).items() if value and key != "active" and
                 (key in expected or not key.endswith("_bytes"))}
        self.assertEqual(found, expected)

    def live(self):
        return [row["session"] for row in self.rows("mirror", "live", "one")]

    def received(self, port):
        given = self.switch_id.ljust(128, b"\0") + port.encode().ljust(48, b"\0") + bytes(36)
        return struct.unpack("=16Q", request(self.device, GET_PORT_STATISTICS, given)[:128])[0]

    def send(self, port, source, destination=BROADCAST, count=1):
        """What comes to port 3 and up0 of `count` frames."""
        before = self.received(port)
        for number in range(count):
            self.wires[port].send(frame(destination, source, str(number)).ljust(LENGTH, b"\0"))
        # A frame without a source goes nowhere; when it is counted, those before are where they go.
        self.wires[port].send((bytes.fromhex("ff" * 6 + "00" * 6) + struct.pack("!H", ETH_P_TEST)).ljust(60, b"\0"))
        wait_until(lambda: self.received(port) == before + count + 1, "the frames")
        # The same way for what goes to the two: a frame on the interface itself.
        found = []
        for name, capture in self.captures.items():
            interface = "vc" if name == "3" else "vn"
            with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0) as near:
                near.bind((interface, ETH_P_TEST))
                mark = frame(BROADCAST, C, f"mark {random.random()}")
                near.send(mark)
            while (data := capture.next()) != mark:
                if data[12:14] in (struct.pack("!H", ETH_P_TEST), b"\x81\0"):
                    found.append(f"{name}:{describe(data)}")
        return " ".join(found)

    def check(self):
        return run(VSHOST, "check", "--state", self.directory, check=False).stdout

    def test_records_and_what_the_driver_says(self):
        self.assertEqual(self.send("1", A), "up0:10^64")
        self.set(sessions(("from", settings(), ["1"], [], ["3"])))
        self.assertEqual(self.send("1", A), "3:10^64 up0:10^64")
        self.set(sessions(("from", settings(), [], [], ["up0"])), "2")
        self.vsctl("mirror", "add", "one", "to", "--received-by", "2", "--to", "3", "--strip-tag", "--port", "2")
        self.assertEqual(self.send("1", A), "3:10^64 3:^64 up0:10^64")
        self.assertEqual(self.live(), ["from", "to"])
        numbers = {port: self.row("port", "number", "one", port)["number"] for port in ("3", "up0")}
        observed = lambda: {row["port-number"] for row in self.rows("mirror", "destinations", "one")}
        self.assertEqual(observed(), {numbers["3"]})
        self.count("from", mirrored=2, rx=2, mirrored_bytes=136, rx_bytes=136)
        self.count("to", mirrored=1, tx=1, mirrored_bytes=64, tx_bytes=68)
        self.assertEqual(self.check(), "")
        self.kill_worker()
        self.assertEqual(self.send("2", B, A), "")
        self.assertEqual(self.send("1", A, B), "3:10^64 3:^64")
        self.count("from", mirrored=3, rx=3)
        self.vsctl("property", "clear", "one", HOST_LIST, "--level", "host")
        self.assertEqual(self.live(), ["from", "to"])
        self.assertEqual(self.send("1", A, B), "3:^64")
        self.count("from", mirrored=3, rx=3)  # of this id there is another one, in the port's list
        self.vsctl("mirror", "remove", "one", "to")
        self.assertIsNone(self.stats("to"))
        self.assertEqual(self.send("1", A, B), "")
        self.assertEqual(observed(), {numbers["up0"]})

        # What is not understood is kept and has no effect; a session beside it has.
        whole = sessions(("x", settings(), ["1"], [], ["3"]))
        more_ports, more_sessions = bytearray(whole), bytearray(whole)
        more_ports[20 + 224], more_sessions[8] = 2, 2
        for unknown in (settings(version=2), settings(enabled=2), settings(strip=2), settings(outer=4095)):
            self.set(sessions(("x", unknown, ["1"], [], ["3"]), ("y", settings(), ["1"], [], [numbers["3"]])))
            self.assertEqual(self.send("1", A, B), "3:10^64", unknown)
        for broken in (bytes(more_ports), bytes(more_sessions), whole[:-1], whole[:19]):
            self.set(broken)
            self.assertEqual(self.send("1", A, B), "", broken)
            self.assertEqual(self.live(), ["from"])
        self.set(whole + b"rest")
        self.assertEqual(self.send("1", A, B), "3:10^64")
        self.set(sessions(("x", settings(enabled=0), ["1"], [], ["3"])))
        self.assertEqual(self.send("1", A, B), "")
        self.assertEqual(self.stats("x"), {"active": 0, **dict.fromkeys(COUNTERS, 0), "mirrored": 1, "rx": 1,
                                           "mirrored_bytes": 68, "rx_bytes": 68})
        self.assertEqual(self.check(), "")

        too_many = [(f"s{number}", settings(), ["1"], [], ["3"]) for number in range(33)]
        done = self.on_host(VSCTL, "property", "set", "one", HOST_LIST, "--level", "host", "--hex",
                            sessions(*too_many).hex(), check=False)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("at most 32 mirror sessions", self.read_log())
        self.set(sessions(*too_many[:31]))  # the port's list has one more
        self.assertEqual(self.send("1", A, B), " ".join(["3:10^64"] * 31))
        self.stop()
        self.assertEqual(len(self.live()), 32)  # an emulated host

    def test_copies_are_tagged_cut_and_sampled_and_destinations_come_and_go(self):
        self.send("2", B)
        self.set(sessions(("s", settings(outer=500, snap=40), ["1"], [], ["up0", "3"])))
        self.assertEqual(self.send("1", A, B), "3:500,10^40 up0:500,10^40")
        self.set(sessions(("s", settings(outer=500, strip=1), ["1"], [], ["up0", "1"])))
        self.assertEqual(self.send("1", A, B), "up0:500^64")
        self.count("s", mirrored=3, rx=2, truncated=1, mirrored_bytes=2 * 48 + 68)
        self.set(sessions(("s", settings(every=4), ["1"], [], ["3"])))
        self.assertEqual(self.send("1", A, B, 30), " ".join(["3:10^64"] * 7))
        self.count("s", mirrored=10, rx=32, truncated=1)
        self.set(sessions(("s", settings(), ["1"], [], ["3", "none"])))
        run(VSHOST, "unplug", "--state", self.directory, "vc")
        self.assertEqual(self.send("1", A, B), "")
        self.plug("3", self.c)
        self.assertEqual(self.send("1", A, B), "3:10^64")
        run("ip", "link", "set", "vc", "down")
        self.wires["1"].send(frame(B, A, "down"))
        wait_until(lambda: self.stats("s")["rx"] == 35, "the frame")
        self.count("s", mirrored=11, rx=35, truncated=1, unreachable=4, dropped=1)

    def test_changes_under_load_put_no_copy_on_the_wrong_side(self):
        self.send("2", B)
        changes = [("3:10^64", settings(), "3"), ("up0:77,10^64", settings(outer=77), "up0"),
                   ("3:10^40", settings(snap=40), "3"), ("", settings(enabled=0), "3"),
                   ("up0:10^64", settings(), "up0"), ("3:^50", settings(strip=1, snap=50), "3"),
                   ("up0:10^30", settings(snap=30), "up0")]
        self.set(sessions(("s", changes[0][1], ["1"], [], [changes[0][2]])))
        base = self.received("1")
        receiver = Capture(self.b)
        self.addCleanup(receiver.wire.close)
        sender = Sender(self.wires["1"])
        sender.start()
        sides = []  # of each change: frames before it, and frames that have begun when it is done
        for _, values, destination in changes[1:]:
            passed = sender.begun + 100
            wait_until(lambda: sender.begun > passed, "frames")
            # The last one that was counted may still be on its way.
            before = self.received("1") - base - 1
            self.set(sessions(("s", values, ["1"], [], [destination])))
            sides.append((before, sender.begun))
            # The same sessions in another snapshot.
            self.vsctl("port", "vlan", "one", "3", "--trunk", str(900 + len(sides)))
        passed = sender.begun + 100
        wait_until(lambda: sender.begun > passed, "frames")
        sender.ends.set()
        sender.join()
        wait_until(lambda: self.received("1") == base + sender.begun, "all frames")

        stats = self.stats("s")
        copies = {number: [] for number in range(sender.begun)}
        taken = 0
        while taken < stats["mirrored"]:
            for port, capture in self.captures.items():
                for data in capture.drain():
                    text = describe(data)
                    plain = data[12 + 4 * len(text.split("^")[0].split(",")) if data[12:14] == b"\x81\0" else 12:]
                    if plain[:2] != struct.pack("!H", ETH_P_TEST) or data[6:12] != bytes.fromhex(A.replace(":", "")):
                        continue
                    copies[struct.unpack("!I", plain[2:6])[0]].append(f"{port}:{text}")
                    taken += 1
        got = [data for data in receiver.take(sender.begun) if data[12:14] == struct.pack("!H", ETH_P_TEST)]
        self.assertEqual([struct.unpack("!I", data[14:18])[0] for data in got], list(range(sender.begun)))
        texts = [text for text, _, _ in changes]
        for number, found in copies.items():
            first = sum(done <= number for _, done in sides)
            last = sum(before <= number for before, _ in sides)
            self.assertIn(" ".join(found), texts[first:last + 1], f"frame {number} of {sides}")
        self.assertEqual((stats["dropped"], stats["unreachable"]), (0, 0))

    def test_offloaded_frames(self):
        size = 1 << 20
        data = random.randbytes(size)
        for snap in (0, 40, 200):
            with self.subTest(snap=snap):
                self.set(sessions(("s", settings(snap=snap, strip=1), ["1"], [], ["3"])))
                before = self.stats("s")
                with self.b.socket(socket.AF_INET, socket.SOCK_STREAM) as server, \
                        self.a.socket(socket.AF_INET, socket.SOCK_STREAM) as client:
                    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                    server.bind(("", 4000 + snap))
                    server.listen()
                    client.settimeout(LONGEST_WAIT)
                    client.connect((self.b.address, 4000 + snap))
                    accepted, _ = server.accept()
                    writer = threading.Thread(target=lambda: (client.sendall(data), client.shutdown(1)))
                    writer.start()
                    with accepted:
                        received = b"".join(iter(lambda: accepted.recv(1 << 16), b""))
                    writer.join()
                self.assertEqual(received, data)
                wait_until(lambda: self.stats("s") == self.stats("s"), "silence")
                copies = self.stats("s")["mirrored"] - before["mirrored"]
                lengths = [len(copy) for copy in self.captures["3"].take(copies)]
                if snap:
                    # The kernel doesn't cut within headers whose checksum is left to the interface.
                    self.assertLessEqual(max(lengths), max(snap, 56))
                    self.assertGreater(self.stats("s")["truncated"], before["truncated"])
                else:
                    self.assertGreater(max(lengths), 1514)
                    self.assertGreater(sum(lengths), size)
                self.assertEqual(self.stats("s")["dropped"], 0)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
