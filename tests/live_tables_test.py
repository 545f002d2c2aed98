"""What a live host tells of its switches is what the kernel has done: addresses, counters, uplinks."""
import errno
import json
import struct
import sys
import unittest

from live_host import *

GET_PORT_STATISTICS = 4127
STATISTICS = "com.talpex.common.port.statistics"
A, B, C, S = ("02:00:00:00:00:0" + digit for digit in "123f")


class Tables(PluggedHost):
    def setUp(self):
        super().setUp()
        self.a, self.b = self.two()
        self.from_a, self.from_b = self.a.wire(), self.b.wire()
        self.addCleanup(self.from_a.close)
        self.addCleanup(self.from_b.close)

    def addresses(self, port):
        return {row["address"]: row for row in self.rows("mac", "list", "one", port)}

    def statistics(self, port):
        """The 16 counters, the same on both ways."""
        stored = bytes.fromhex(self.row("property", "get", "one", STATISTICS, "--port", port)["bytes"])
        switch = self.row("switch", "show", "one")["id"]
        given = switch.encode().ljust(128, b"\0") + port.encode().ljust(48, b"\0") + bytes(36)
        self.assertEqual(request(self.device, GET_PORT_STATISTICS, given)[:128], stored)
        return struct.unpack("=16Q", stored)

    def says(self, wire, text, source=A, destination=BROADCAST):
        wire.send(frame(destination, source, text))

    def test_learned_addresses_show_with_their_ages(self):
        self.says(self.from_a, "one", A)
        self.assertEqual(text_of(self.from_b), "one")
        entry = self.addresses("1")[A]
        self.assertEqual((entry["type"], entry["vlan"]), ("learned", 0))
        self.assertEqual(entry["port-number"], self.row("port", "number", "one", "1")["number"])
        self.assertNotIn(A, self.addresses("2"))
        wait_until(lambda: self.addresses("1")[A]["age"] > 0, "a greater age")
        self.says(self.from_b, "two", A)
        self.assertEqual(text_of(self.from_a), "two")
        self.assertNotIn(A, self.addresses("1"))
        self.assertIn(A, self.addresses("2"))
        self.assertEqual(self.row("mac", "stats", "one", "2")["moved"], 1)

    def test_counters_are_of_real_frames(self):
        self.vsctl("port", "mac-learning", "one", "1", "--learning", "--limit", "1")
        before, got = self.statistics("1"), self.statistics("2")
        stats = self.row("mac", "stats", "one", "1")
        for source in (A, B, C):
            self.says(self.from_a, "to all", source)
        self.says(self.from_a, "to a group", A, "01:00:5e:00:00:01")
        self.says(self.from_a, "to one", A, C)
        self.assertEqual([text_of(self.from_b) for _ in range(2)], ["to all", "to a group"])
        wait_until(lambda: self.statistics("1")[0] == before[0] + 5, "five frames")
        change = [now - old for now, old in zip(self.statistics("1"), before)]
        self.assertEqual(change, [5, 300, 0, 0, 1, 3, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1])
        change = [now - old for now, old in zip(self.statistics("2"), got)]
        self.assertEqual(change, [0, 0, 2, 120, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0])
        after = self.row("mac", "stats", "one", "1")
        self.assertEqual({key: after[key] - stats[key] for key in ("learned", "refused", "dropped")},
                         {"learned": 1, "refused": 2, "dropped": 2})
        self.assertEqual((after["entries"], after["limit"]), (1, 1))
        info = self.row("mac", "info", "one")
        self.assertEqual((info["refused"], info["learning-ports"]), (2, 1))

    def test_a_static_address_is_reached_at_once_and_stays(self):
        self.vsctl("mac", "props", "--aging", "1")
        self.vsctl("mac", "add", "one", "2", "--address", S)
        self.says(self.from_a, "first", A, S)
        self.assertEqual(text_of(self.from_b), "first")
        wait_until(lambda: self.row("mac", "stats", "one", "1")["aged"] > 0, "an aged address")
        self.assertNotIn(A, self.addresses("1"))
        self.assertEqual(self.addresses("2")[S]["type"], "static")
        self.says(self.from_a, "second", A, S)
        self.assertEqual(text_of(self.from_b), "second")
        self.kill_worker()
        self.assertEqual(self.addresses("2")[S]["type"], "static")
        self.says(self.from_a, "third", A, S)
        self.assertEqual(text_of(self.from_b), "third")
        self.vsctl("mac", "remove", "one", "2", "--address", S)
        self.assertNotIn(S, self.addresses("2"))
        self.says(self.from_a, "lost", A, S)
        self.says(self.from_a, "fourth", A)
        self.assertEqual(text_of(self.from_b), "fourth")

    def test_a_static_address_follows_its_port_and_the_ports_that_share_it(self):
        for port in ("1", "2", "3"):
            self.vsctl("mac", "add", "one", port, "--address", S)
        self.vsctl("mac", "remove", "one", "3", "--address", S)
        self.vsctl("mac", "remove", "one", "1", "--address", S)
        self.says(self.from_a, "to the other", A, S)
        self.assertEqual(text_of(self.from_b), "to the other")
        run(VSHOST, "unplug", "--state", self.directory, self.b.interface)
        self.plug("2", self.b)
        self.says(self.from_a, "plugged again", A, S)
        self.assertEqual(text_of(self.from_b), "plugged again")

    def test_no_command_puts_a_learned_address_there(self):
        entry = bytes.fromhex(A.replace(":", "")) + struct.pack("=BBHII", 2, 0, 0, 5, 0)
        switch = self.row("switch", "show", "one")["id"]
        given = switch.encode().ljust(128, b"\0") + b"1".ljust(48, b"\0") + entry.ljust(36, b"\0")
        self.assertEqual(request(self.device, 8195, given), errno.EINVAL)

    def learned(self):
        return {row["address"] for port in ("1", "2") for row in self.rows("mac", "list", "one", port)}

    def test_the_smaller_limit_and_the_shorter_ageing_win(self):
        self.vsctl("port", "mac-learning", "one", "1", "--learning", "--limit", "5")
        for what, change, back, learns in (
                ("the host's learning", ("props", "--enabled", "off"), ("props", "--enabled", "on"), set()),
                ("the host's limit", ("props", "--limit", "1"), ("props", "--limit", "65536"), {A}),
                ("the switch's limit", ("--limit", "2"), ("--clear",), {A, B}),
                ("the port's limit", ("props", "--limit", "3"), ("props", "--limit", "65536"), {A, B, C})):
            with self.subTest(what):
                self.change_learning(*change)
                sent = self.statistics("1")[0]
                for source in (A, B, C):
                    self.says(self.from_a, source, source)
                wait_until(lambda: self.statistics("1")[0] == sent + 3, "three frames")
                self.assertEqual(self.learned(), learns)
                self.change_learning(*back)
                run("ip", "link", "set", self.a.interface, "down")
                run("ip", "link", "set", self.a.interface, "up")
                wait_until(lambda: not self.learned(), "a port that has forgotten")
        for what, change in (("the switch's", ("--aging", "1")), ("the host's", ("props", "--aging", "1"))):
            with self.subTest(what):
                aged = self.row("mac", "stats", "one", "1")["aged"]
                self.says(self.from_a, "one", A)
                wait_until(lambda: A in self.learned(), "a learned address")
                self.change_learning(*change)
                wait_until(lambda: self.row("mac", "stats", "one", "1")["aged"] > aged, "an aged address")
                self.change_learning("--clear")

    def change_learning(self, *words):
        if words[0] == "props":
            self.vsctl("mac", *words)
        else:
            self.vsctl("switch", "mac-learning", "one", *words)

    def test_addresses_end_with_the_link_the_plug_and_the_port(self):
        for what, ends in (("the link", lambda: self.a.run("ip", "link", "set", "eth0", "down")),
                           ("the plug", lambda: run(VSHOST, "unplug", "--state", self.directory, self.a.interface)),
                           ("the port", lambda: self.vsctl("port", "remove", "one", "1"))):
            with self.subTest(what):
                self.says(self.from_a, "here", A)
                self.assertEqual(text_of(self.from_b), "here")
                self.assertIn(A, self.addresses("1"))
                ends()
                if what == "the link":
                    wait_until(lambda: A not in self.addresses("1"), "a port that has forgotten")
                    self.a.run("ip", "link", "set", "eth0", "up")
                    wait_until(lambda: self.a.reaches(self.b), "an answer")
                    self.from_a = self.a.wire()
                    self.addCleanup(self.from_a.close)
                elif what == "the plug":
                    self.assertNotIn(A, self.addresses("1"))
                    self.plug("1", self.a)
                else:
                    entries = json.loads(run("bpftool", "map", "dump", "pinned",
                                             next(self.directory.glob("bpf/*/addresses")), "-j").stdout)
                    self.assertNotIn(A.replace(":", ""), ["".join(byte[2:] for byte in entry["key"][6:])
                                                          for entry in entries])

    def test_a_limit_of_flooded_frames_is_an_option_of_the_host(self):
        self.vsctl("option", "set", "1=3")
        for number in range(200):
            self.says(self.from_a, str(number))
        wait_until(lambda: self.statistics("1")[14] >= 100, "frames dropped for the limit")
        self.vsctl("option", "set", "1=0")
        dropped = self.statistics("1")[14]
        for number in range(20):
            self.says(self.from_a, str(number))
        self.says(self.from_a, "end")
        while text_of(self.from_b) != "end":
            pass
        self.assertEqual(self.statistics("1")[14], dropped)


class Uplinks(PluggedHost):
    def test_the_team_shows_what_the_network_sent_and_which_uplink_a_port_uses(self):
        a, nets = self.namespace("a", "10.9.0.1"), [self.namespace(f"n{i}", f"10.9.0.{8 + i}") for i in range(2)]
        for i, net in enumerate(nets):
            run(VSHOST, "nic", "add", "--state", self.directory, net.interface)
            self.vsctl("uplink", "add", "one", f"up{i}")
        self.plug("1", a)
        hint = lambda: self.row("port", "hint", "one", "1")["uplink"]
        team = lambda: {row["address"]: row["type"] for row in self.rows("mac", "team", "one")}
        wires = [net.wire() for net in nets]
        from_a = a.wire()
        for wire in (*wires, from_a):
            self.addCleanup(wire.close)

        from_a.send(frame(BROADCAST, A, "to the network"))
        first = [net.interface for net in nets].index(hint())
        self.assertEqual(text_of(wires[first]), "to the network")
        wires[first].send(frame(BROADCAST, B, "from the network"))
        self.assertEqual(text_of(from_a), "from the network")
        self.assertEqual(team()[B], "learned")

        before = self.row("stats", "teaming", "one")
        nets[first].run("ip", "link", "set", "eth0", "down")
        from_a.send(frame(BROADCAST, A, "by the other one"))
        self.assertEqual(text_of(wires[1 - first]), "by the other one")
        wait_until(lambda: hint() == nets[1 - first].interface, "the other uplink")
        from_a.send(frame(BROADCAST, A, "and stays there"))
        self.assertEqual(text_of(wires[1 - first]), "and stays there")
        after = self.row("stats", "teaming", "one")
        self.assertEqual(after["failovers"], before["failovers"] + 1)
        self.assertGreater(after["tx-packets"], before["tx-packets"])
        self.assertNotIn(B, team())


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
