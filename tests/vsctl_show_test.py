#!/usr/bin/env python3
"""What vsctl shows of a host as a whole: the tree, as text and as JSON."""
import fcntl
import json
import os
import pty
import re
import struct
import subprocess
import termios

from vsctl_host import BUILD, HOST, VSCTL, OnHost, main

NICS = b'{"nics": {"eth0": {"link": "down"}, "eth1": {"speed": 1000}, "eth2": {"speed": 2500, "duplex": "half"}}}'
TREE = """\
lab  running  MTU 1500, 10 ports of 128
├─ uplinks
│  ├─ uplink0  down  eth0, 10 Gb/s full duplex, MTU 1500
│  └─ uplink1  up    eth1, 1 Gb/s full duplex, MTU 1500
└─ ports
   ├─ port0..port2,port7  4 ports: vlan id=100 priority=3
   ├─ port3               security 5
   ├─ port4               vlan trunk=1-10,20,30,40,50,60,70,80,90,100,110,120,
   │                      130,140
   └─ port5..port6        2 ports: default policies

none  not running  0 ports

free NICs
└─ eth2  up  2500 Mb/s half duplex, MTU 1500
"""
ASCII = {"├─": "|-", "└─": "`-", "│": "|"}


def on_terminal(columns, *words, **environment):
    """What the command prints on a terminal."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    with subprocess.Popen([VSCTL, *words], stdin=slave, stdout=slave, stderr=slave,
                          env=os.environ | environment) as process:
        os.close(slave)
        printed = b""
        try:
            while block := os.read(master, 65536):
                printed += block
        except OSError:  # the terminal has no writer any more
            pass
        os.close(master)
    assert process.returncode == 0, printed
    return printed.decode().replace("\r\n", "\n")


class Show(OnHost):
    def setUp(self):
        super().setUp()
        self.assertEqual(HOST.vshost_scenario(NICS), 0)
        for line in ("switch create lab --uplinks 2 --ports 8", "switch create none",
                     "port vlan lab port0..port2,port7 100 --priority 3", "port security lab port3 5",
                     "port vlan lab port4 --trunk 1-10," + ",".join(str(vlan) for vlan in range(20, 150, 10))):
            self.rows(*line.split())
        subprocess.run([BUILD / "platform/tybel", "-e", "set", "/net/portsets/none/destroy", "destroy"], check=True)
        self.known = self.environment(TERM="xterm")

    def terminal(self, columns, *words, locale="C.UTF-8", **more):
        return on_terminal(columns, *words, **self.known | {"LC_ALL": locale} | more)

    def test_the_tree_fits_the_terminal(self):
        text = self.terminal(80, "show")
        self.assertIn("\x1b[1mlab\x1b[0m", text)
        self.assertIn("\x1b[32mup\x1b[0m", text)
        self.assertIn("\x1b[31mdown\x1b[0m", text)
        self.assertEqual(re.sub(r"\x1b\[[0-9;]*m", "", text), TREE)
        plain = TREE
        for line, character in ASCII.items():
            plain = plain.replace(line, character)
        self.assertEqual(self.terminal(80, "show", locale="C", NO_COLOR="1"), plain)
        self.assertEqual(self.terminal(80, "show", "lab", NO_COLOR="1"), TREE[:TREE.index("\nnone")])
        for columns in (50, 60, 200):
            lines = self.terminal(columns, "show", NO_COLOR="1").splitlines()
            self.assertLessEqual(max(map(len, lines)), columns)
        self.assertIn("90,100,110,120,130,140\n", self.terminal(200, "show", NO_COLOR="1"))

    def test_the_document(self):
        (host,) = self.rows("show")
        lab, none = host["switches"]
        self.assertEqual([(uplink["nic"], uplink["link"], uplink["speed"]) for uplink in lab["uplinks"]],
                         [("eth0", False, 10000), ("eth1", True, 1000)])
        self.assertEqual([(group["ports"], group["count"], group["policies"].get("security"))
                          for group in lab["ports"]],
                         [(["port0..port2", "port7"], 4, None), (["port3"], 1, 5), (["port4"], 1, None),
                          (["port5..port6"], 2, None)])
        self.assertEqual((none["state"], none["mtu"]), ("not running", None))
        self.assertEqual([nic["nic"] for nic in host["free-nics"]], ["eth2"])
        self.assertEqual(self.rows("show", "lab"), [{"switches": [lab]}])

    def test_mirror_sessions_belong_to_their_ports(self):
        sessions = self.write("sessions", '[{"id": "span0"}]')
        self.rows("port", "mirror", "lab", "port5..port6", "--file", sessions)
        (host,) = self.rows("show", "lab")
        self.assertEqual([mirror["port"] for mirror in host["switches"][0]["mirrors"]], ["port5", "port6"])
        self.assertIn(["port5..port6"], [group["ports"] for group in host["switches"][0]["ports"]])

    def test_a_damaged_port_is_named(self):
        self.rows("property", "set", "lab", "com.talpex.vswitch.port.vlan", "--port", "port6", "--hex", "00")
        self.assertIn("vsctl property clear lab com.talpex.vswitch.port.vlan --port port6",
                      self.run_vsctl("show", code=1))
        self.refused(["show", "lap"], 3, "lap", "did you mean 'lab'?")

    def test_elsewhere_ports_and_nics_are_left_out(self):
        self.known["LD_PRELOAD"] += f":{BUILD / 'tests/libother_platform.so'}"
        answer = json.loads(subprocess.run([VSCTL, "show", "lab", "--json"], capture_output=True,
                                           env=self.known, check=True).stdout)
        (lab,) = answer["result"][0]["switches"]
        self.assertNotIn("ports", lab)
        self.assertEqual(lab["uplinks"], [{"uplink": name, "port": name} for name in ("uplink0", "uplink1")])
        self.assertIn("this platform does not list them", self.terminal(80, "show", "lab"))


if __name__ == "__main__":
    main()
