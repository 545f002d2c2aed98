"""What `vshost show` and `vsctl` tell of plugged interfaces."""
import json
import sys
import threading
import time
import unittest

from live_host import *


class Show(PluggedHost):
    def interfaces(self):
        host = json.loads(run(VSHOST, "show", "--state", self.directory, "--json").stdout)
        return {entry["name"]: entry for entry in host["interfaces"]}

    def test_every_interface_with_its_place_vlans_and_link(self):
        self.assertEqual(self.interfaces(), {})
        a, b = self.namespace("a", "10.9.0.1"), self.namespace("b", "10.9.0.2")
        net, free = self.namespace("net", "10.9.0.8"), self.namespace("free", "10.9.0.9")
        self.plug("1", a, "--keep")
        self.plug("2", b)
        run(VSHOST, "nic", "add", "--state", self.directory, net.interface)
        self.vsctl("uplink", "add", "one", "up1")
        run(VSHOST, "nic", "add", "--state", self.directory, free.interface)
        self.vsctl("port", "vlan", "one", "1", "100")
        self.vsctl("port", "vlan", "one", "2", "--trunk", "5-9,20")
        switch = self.interfaces()["va"]["switch"]
        expected = {
            "va": ("port", switch, "one", "1", "VLAN 100", "up", True),
            "vb": ("port", switch, "one", "2", "VLANs 5-9, 20", "up", False),
            "vnet": ("nic", switch, "one", "up1", "VLANs 1-4094", "up", False),
            "vfree": ("nic", "", "", "", "", "up", False)}
        rows = lambda: {name: tuple(entry.values())[1:] for name, entry in self.interfaces().items()}
        wait_until(lambda: rows() == expected, f"{expected}; the last look: {rows()}")

        text = run(VSHOST, "show", "--state", self.directory).stdout
        self.assertIn("interface va\n  plugged to port 1 of one\n  VLAN 100, link up, kept\n", text)
        self.assertIn("interface vnet\n  a NIC on uplink port up1 of one\n", text)
        self.assertIn("interface vfree\n  a NIC that is free\n  link up, until the machine's next start\n", text)
        self.assertLessEqual(max(len(line) for line in text.splitlines()), 80)

    def test_the_link_is_that_of_this_moment(self):
        a, _ = self.two()
        self.vsctl("port", "vlan", "one", "1", "0")
        link = lambda: self.interfaces()["va"]["link"]
        for command, state in (("ip link set va down", "down"), ("ip link set va up", "up"),
                               ("ip link set va netns " + str(a.holder.pid), "away")):
            run(*command.split())
            wait_until(lambda: link() == state, state)
        self.assertIn("away (it is plugged again", run(VSHOST, "show", "--state", self.directory).stdout)
        self.daemon.terminate()
        self.daemon.wait(LONGEST_WAIT)
        self.assertEqual(link(), "unknown")
        self.assertIn("vshostd doesn't answer", run(VSHOST, "show", "--state", self.directory).stdout)

    def test_an_unprivileged_user_sees_it_too(self):
        self.two()
        for path in (self.directory, *self.directory.glob("[chuw]*")):
            path.chmod(path.stat().st_mode | 0o666 | (0o111 if path.is_dir() else 0))
        done = as_nobody(VSHOST, "show", "--state", self.directory)
        self.assertIn("interface va\n  plugged to port 1 of one\n  untagged, link up,", done.stdout)

    def test_vsctl_shows_what_is_plugged_and_what_moves(self):
        a, b = self.two()
        net = self.namespace("net", "10.9.0.8")
        run(VSHOST, "nic", "add", "--state", self.directory, net.interface)
        self.vsctl("uplink", "add", "one", "up1")
        (host,) = self.rows("show")
        (one,) = host["switches"]
        self.assertEqual([(group["ports"], group["plugged"]) for group in one["ports"]],
                         [(["1..3", "port0..port15"], {"1": "va", "2": "vb"})])
        wait_until(lambda: self.rows("show")[0]["switches"][0]["uplinks"][0]["link"], "the link of the uplink")
        sender, receiver = a.wire(), b.wire()
        sender.send(frame(BROADCAST, "02:00:00:00:00:01", "first"))
        self.assertEqual(text_of(receiver), "first")
        wait_until(lambda: [row["port"] for row in self.rows("mac", "find", "02:00:00:00:00:01")] == ["1"],
                   "the address")
        before = self.row("port", "stats", "one", "1")
        sender.send(frame(BROADCAST, "02:00:00:00:00:01", "second"))
        self.assertEqual(text_of(receiver), "second")
        after = self.row("port", "stats", "one", "1")
        self.assertEqual(after["from-broadcast"] - before["from-broadcast"], 1)
        stop = threading.Event()

        def send():
            while not stop.is_set():
                sender.send(frame(BROADCAST, "02:00:00:00:00:01", "more"))
                time.sleep(0.001)
        thread = threading.Thread(target=send)
        thread.start()
        try:
            rates = {row["port"]: row for row in self.rows("top", "one", "--interval", "200ms")}
        finally:
            stop.set()
            thread.join()
        self.assertGreater(rates["1"]["from-packets"], 0)
        self.assertGreater(rates["2"]["to-packets"], 0)
        self.assertEqual((rates["1"]["plugged"], rates["up1"]["plugged"]), ("va", "vnet"))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
