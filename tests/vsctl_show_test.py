#!/usr/bin/env python3
"""What vsctl shows of a host as a whole: tree, picture, NICs, counters and rates."""
import contextlib
import fcntl
import itertools
import json
import os
import pty
import re
import select
import struct
import subprocess
import termios
import xml.etree.ElementTree

from vsctl_host import BUILD, HOST, SOURCE, VSCTL, OnHost, main

NICS = b'{"nics": {"eth0": {"link": false}, "eth1": {"speed": 1000}, "eth2": {"speed": 2500, "full-duplex": false}}}'
TREE = """\
lab  running  MTU 1500, 10 ports of 128
├─ uplinks
│  ├─ uplink0  down  eth0, 10 Gb/s full duplex, MTU 1500
│  └─ uplink1  up    eth1, 1 Gb/s full duplex, MTU 1500
└─ ports
   ├─ port0..port2,port7  4 ports: vlan id=100 priority=3
   ├─ port3               security lock-address=yes
   ├─ port4               vlan trunk=1-10,20,30,40,50,60,70,80,90,100,110,120,
   │                      130,140
   └─ port5..port6        2 ports: default policies

none  not running  0 ports

free NICs
└─ eth2  up  2500 Mb/s half duplex, MTU 1500
"""
ASCII = {"├─": "|-", "└─": "`-", "│": "|"}


class Terminal:
    """A terminal with vsctl on it."""

    def __init__(self, columns, *words, **environment):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self.process = subprocess.Popen([VSCTL, *words], stdin=slave, stdout=slave, stderr=slave,
                                        env=os.environ | environment)
        os.close(slave)
        self.printed = ""

    def shows(self, pattern):
        """Whether it has printed a pattern by now."""
        while select.select([self.master], [], [], 0)[0]:
            self.printed += os.read(self.master, 65536).decode().replace("\r\n", "\n")
        return re.search(pattern, self.printed)

    def end(self):
        with contextlib.suppress(OSError):  # the terminal has no writer any more
            while True:
                self.printed += os.read(self.master, 65536).decode().replace("\r\n", "\n")
        os.close(self.master)
        return self.process.wait()


class Show(OnHost):
    def setUp(self):
        super().setUp()
        self.assertEqual(HOST.vshost_scenario(NICS), 0)
        for line in ("switch create lab --uplinks 2 --ports 8", "switch create none",
                     "port vlan lab port0..port2,port7 100 --priority 3", "port security lab port3 --lock-address",
                     "port vlan lab port4 --trunk 1-10," + ",".join(str(vlan) for vlan in range(20, 150, 10))):
            self.rows(*line.split())
        subprocess.run([BUILD / "platform/tybel", "-e", "set", "/net/portsets/none/destroy", "destroy"], check=True)
        self.known = self.environment(TERM="xterm")

    def terminal(self, columns, *words, locale="C.UTF-8", **more):
        terminal = Terminal(columns, *words, **self.known | {"LC_ALL": locale} | more)
        self.assertEqual(terminal.end(), 0, terminal.printed)
        return terminal.printed

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

    def test_lists_have_a_line_for_each_entry(self):
        self.rows("pvlan", "add", "lab", "100", "--isolated", "101")
        self.rows("ls-teaming", "add", "lab", "gold", "--active", "uplink0", "--notify")
        text = self.run_vsctl("show", "lab")
        for line in ("pvlan\n", "100  primary=100 type=promiscuous\n", "101  primary=100 type=isolated\n",
                     "gold  active=uplink0 notify=yes\n"):
            self.assertIn(line, text)
        for session in ("a", "b"):
            self.rows("mirror", "add", "lab", session, "--from", "port0", "--to", "port5")
        for columns, start in ((80, "switch       lab\n"), (200, "SWITCH  PORT   SESSION")):
            self.assertTrue(self.terminal(columns, "mirror", "list", "lab", NO_COLOR="1").startswith(start))

    def test_a_difference_fits_the_terminal(self):
        """What is too long stands below. An undo, which goes backwards, has ranges too, and says what it loses."""
        vlans = ",".join(str(vlan) for vlan in range(200, 400, 10))
        self.rows("port", "vlan", "lab", "port0..port2,port7", "--trunk", vlans)
        whole = self.run_vsctl("undo", "--dry-run", code=10)
        self.assertIn("  ~ port0..port2,port7  vlan: id 0 -> 100, trunk 200,210", whole)
        terminal = Terminal(80, "undo", "--dry-run", **self.known | {"NO_COLOR": "1"})
        self.assertEqual(terminal.end(), 10)
        self.assertLessEqual(max(map(len, terminal.printed.splitlines())), 80)
        self.assertEqual("".join(terminal.printed.split()), "".join(whole.split()))
        self.rows("port", "remove", "lab", "port6")
        lost = "statistics and learned addresses of port6 of switch lab"
        for words, code in ((["--dry-run"], 10), ([], 0)):
            self.assertEqual([row["lost"] for row in self.rows("undo", *words, code=code)], [lost])

    def test_the_document(self):
        (host,) = self.rows("show")
        lab, none = host["switches"]
        self.assertEqual([(uplink["nic"], uplink["link"], uplink["speed"]) for uplink in lab["uplinks"]],
                         [("eth0", False, 10000), ("eth1", True, 1000)])
        self.assertEqual([(group["ports"], group["count"], "security" in group["policies"])
                          for group in lab["ports"]],
                         [(["port0..port2", "port7"], 4, False), (["port3"], 1, True), (["port4"], 1, False),
                          (["port5..port6"], 2, False)])
        self.assertEqual((none["state"], none["mtu"]), ("not running", None))
        self.assertEqual([nic["nic"] for nic in host["free-nics"]], ["eth2"])
        self.assertEqual(self.rows("show", "lab"), [{"switches": [lab]}])

    def test_mirror_sessions_belong_to_their_ports(self):
        for session, to in (("a", "port5"), ("b", "port6"), ("c", "uplink0")):
            self.rows("mirror", "add", "lab", session, "--from", "port0,port1", "--to", to, "--snap", "64")
        (host,) = self.rows("show", "lab")
        self.assertEqual([(mirror["session"], mirror["port"]) for mirror in host["switches"][0]["mirrors"]],
                         [("a", "port5"), ("b", "port6"), ("c", None)])
        self.assertIn("a  from=port0,port1 to=port5 snap=64\n", self.run_vsctl("show", "lab"))
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
        for line in ("nic list", "top", "metrics", "mac find 02:00:00:00:00:01", "port vlan lab",
                     "port block lab --all-ports on"):
            done = subprocess.run([VSCTL, *line.split()], capture_output=True, env=self.known, text=True)
            self.assertRegex(done.stderr, r"\Avsctl: this platform cannot list [^\n]+\n\Z", line)

    def test_the_picture_tells_links_apart_without_colour(self):
        self.rows("mirror", "add", "lab", "span0", "--from", "port0", "--to", "port5")
        source = self.run_vsctl("topology", "--dot")
        links = re.findall(r"s0 -- s0u\d \[label=(\w+), color=\w+(, style=dashed)?", source)
        self.assertEqual(sorted(links), [("DOWN", ", style=dashed"), ("up", "")])
        picture = xml.etree.ElementTree.fromstring(self.run_vsctl("topology"))
        words = {text.text for text in picture.iter("{http://www.w3.org/2000/svg}text")}
        self.assertLessEqual({"lab", "port0..port2,port7", "vlan id=100 priority=3", "eth0", "DOWN", "mirror span0",
                              "to port5",
                              "free NICs", "eth2 up", "not running"}, words)
        self.assertNotIn("none", self.run_vsctl("topology", "lab", "--dot"))
        away = self.known | {"PATH": str(self.directory)}
        done = subprocess.run([VSCTL, "topology"], env=away, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertRegex(done.stderr, r"\Avsctl: Graphviz[^\n]*install Graphviz[^\n]*\n\Z")

    def test_the_picture_of_many_ports_is_small(self):
        self.run_vsctl("batch", stdin="port add lab many0..many999\n" + "".join(
            f"port vlan lab many{number} {number + 1}\n" for number in range(100)))
        source = self.run_vsctl("topology", "lab", "--dot")
        self.assertLess(source.count("label="), 25)
        self.assertRegex(source, r'label="\d+ more ports"')
        drawn = sum(map(int, re.findall(r"(\d+) (?:more )?ports", source)))
        self.assertEqual(drawn + len(re.findall(r's0p\d+ \[label="[^."]*"', source)), 1008)
        self.run_vsctl("switch", "create", "few", "--ports", "13")
        self.run_vsctl("batch", stdin="".join(f"port vlan few port{number} {number}\n" for number in range(13)))
        self.assertIn('label="1 more port"', self.run_vsctl("topology", "few", "--dot"))

    def test_nics_and_addresses_have_places(self):
        self.assertEqual([(row["nic"], row["switch"], row["port"], row["full-duplex"])
                          for row in self.rows("nic", "list")],
                         [("eth0", "lab", "uplink0", True), ("eth1", "lab", "uplink1", True),
                          ("eth2", None, None, False)])
        for port, vlan in (("port1", 100), ("uplink0", 7)):
            self.run_vsctl("mac", "add", "lab", port, "--address", "02:00:00:00:00:0a", "--vlan", str(vlan))
        self.assertEqual([(row["switch"], row["port"], row["vlan"]) for row in self.rows("mac", "find", "2:0:0:0:0:A")],
                         [("lab", "uplink0", 7), ("lab", "port1", 100)])
        self.refused(["mac", "find", "02:00:00:00:00:0b"], 3, "02:00:00:00:00:0b")
        self.refused(["mac", "find", "02:00"], 5, "02:00")

    COUNTERS = ["from-packets", "from-bytes", "to-packets", "to-bytes", "from-multicast", "from-broadcast",
                "to-multicast", "to-broadcast", "dropped-blocked", "dropped-vlan", "dropped-security",
                "dropped-learning-limit", "dropped-filter", "dropped-length", "dropped-flood-limit",
                "dropped-not-sent"]

    def count(self, **ports):
        """The counters of a port become first, first + 1, …"""
        self.run_vsctl("batch", stdin="".join(
            f"property set lab com.talpex.common.port.statistics --port {port} --hex "
            f"{struct.pack('=16Q', *range(first, first + 16)).hex()}\n" for port, first in ports.items()))

    def test_counters(self):
        self.count(port1=1000)
        wanted = dict(zip(self.COUNTERS, range(1000, 1016)))
        self.assertEqual(self.rows("port", "stats", "lab", "port0..port1"),
                         [{"switch": "lab", "port": "port0"} | dict.fromkeys(wanted, 0),
                          {"switch": "lab", "port": "port1"} | wanted])
        self.refused(["port", "stats", "lab", "port9"], 3, "port9")

    def test_ports_that_are_not_named(self):
        """Verbs that read take all ports, verbs that change those that --all-ports or --existing leave."""
        ports = [f"port{number}" for number in range(8)]
        of = lambda *words, **more: [row["port"] for row in self.rows("port", *words, **more)]
        self.assertEqual(of("vlan", "lab"), ["uplink0", "uplink1", *ports])
        self.assertEqual(of("number", "lab", "port6..port99", "--existing"), ["port6", "port7"])
        self.assertEqual(of("vlan", "lab", "--all-ports", "7"), ports)
        self.assertEqual({row["id"] for row in self.rows("port", "vlan", "lab", "--all-ports")}, {7})
        self.assertEqual(self.rows("port", "vlan", "lab", "uplink0")[0]["id"], 0)
        self.assertEqual(of("security", "lab", "port6..port99", "--existing", "--lock-address"), ["port6", "port7"])
        self.assertEqual(of("remove", "lab", "port0..port99", "--existing", "--dry-run", code=10)[:1], ["port0"])
        for words, code, reason in ((["security", "lab", "--lock-address"], 2, "--all-ports"),
                                    (["remove", "lab"], 2, "--all-ports"),
                                    (["vlan", "lab", "port0", "5", "--all-ports"], 2, "exclude each other"),
                                    (["vlan", "lab", "port0..port99"], 3, "port8"), (["vlan", "lap"], 3, "lap")):
            self.refused(["port", *words], code, reason)
        self.assertEqual(of("remove", "lab", "--all-ports"), ports)
        self.assertEqual(of("list", "lab"), ["uplink0", "uplink1"])
        self.rows("port", "add", "lab", "b10,a10,a9,b9")  # ranges come from names, whatever came first
        (group,) = self.rows("show", "lab")[0]["switches"][0]["ports"]
        self.assertEqual(group["ports"], ["a9..a10", "b9..b10"])
        self.assertIn('ports."a9..a10,b9..b10"', self.run_vsctl("export", "lab"))

    def test_tables_take_the_form_that_is_asked_for(self):
        ids = {row["switch"]: row["id"] for row in self.rows("switch", "list")}
        self.rows("pvlan", "add", "lab", "7", "--isolated", "8")
        self.rows("ls-teaming", "add", "lab", "gold")
        for line, wanted in (
                ("port list lab -o name", "uplink0\nuplink1\n" + "".join(f"port{n}\n" for n in range(8))),
                ("-o name uplink list lab", "uplink0\nuplink1\n"), ("switch list -o name", "lab\nnone\n"),
                ("nic list -o name", "eth0\neth1\neth2\n"), 
                ("pvlan list lab -o name", "7\n8\n"), ("ls-teaming list lab -o name", "gold\n"),
                ("ls-teaming list lab --columns switch,name", "SWITCH  NAME\nlab     gold\n"),
                ("port number lab port1,port0 --columns number,port", "NUMBER  PORT\n4       port1\n3       port0\n"),
                ("switch list --columns id -o name", f"{ids['lab']}\n{ids['none']}\n")):
            self.assertEqual(self.run_vsctl(*line.split()), wanted, line)
        wide = self.run_vsctl("port", "show", "lab", "port4", "-o", "wide").splitlines()
        self.assertEqual(len(wide), 2)
        self.assertIn("90,100,110,120,130,140", wide[1])
        self.refused(["switch", "list", "-o", "tall"], 5, "table, wide or name")
        self.refused(["switch", "list", "--columns", "x"], 2, "switch,portset")
        for words in (["--columns", "switch"], ["-o", "name"]):
            self.assertIn("exclude", self.process("switch", "list", *words, "--json").stderr)
        table = self.terminal(80, "switch", "list", NO_COLOR="1")
        self.assertTrue(table.startswith("SWITCH"), table)
        block = self.terminal(50, "switch", "list", NO_COLOR="1").splitlines()
        self.assertEqual((block[0], block[1]), ("switch   lab", "portset  lab"))
        self.assertLessEqual(max(map(len, block)), 50)
        self.assertEqual(self.terminal(50, "switch", "list", "-o", "wide", NO_COLOR="1"), table)

    def test_help_fits_the_terminal(self):
        for verb in ["", "operations", *(row["verb"] for row in self.rows("help"))]:
            for line in self.terminal(80, "help", *verb.split(), NO_COLOR="1").splitlines():
                self.assertLessEqual(len(line), 80, verb)
        for row in self.rows("help"):  # and its manual page, which indents examples by 11 columns
            for example in row["examples"]:
                self.assertLessEqual(len(example), 69, row["verb"])

    def test_completion_knows_ports_values_and_options(self):
        for line, wanted in (
                ("port vlan lab port0,po", {f"port0,port{n}" for n in range(8)}),
                ("port vlan lab port0..port7", {"port0..port7"}), ("--json port vl", {"vlan"}),
                ("--timeout 5s --json port list l", {"lab"}), ("--js", {"--json"}), ("switch multicast lab ",
                                                                                    {"legacy", "snooping"}),
                ("port block lab port0 ", {"on", "off"}), ("port list lab -o ", {"table", "wide", "name"}),
                ("switch teaming lab --algorithm s", {"source-mac"}), ("completion ", {"bash", "zsh", "fish"}),
                ("port vlan lab --ex", {"--existing"}), ("port vlan lab --all-ports --pr", {"--priority"}),
                ("port list lab --columns po", {"port"}), ("port list lab --columns port,nu", {"port,number"}),
                ("port vlan lab --columns ", {"switch", "port", "item", "level", "key", "uplink", "before", "after",
                                              "ports", "lost", "id", "priority", "trunk", "ranges", "option", "vlan"}),
                ("mac team lab --columns=vlan,a", {"--columns=vlan,address", "--columns=vlan,age"}),
                ("switch teaming lab --algorithm=s", {"--algorithm=source-mac"}), ("port list lab -o=", set()),
                ("switch teaming lab --algorithm = s", {"source-mac"}), ("mirror list lab --port =", {
                    f"{kind}{n}" for kind, count in (("port", 8), ("uplink", 2)) for n in range(count)}),
                ("port vlan lab --priority = 3 --tr", {"--trunk"}), ("port vlan lab --priority=3 --tr", {"--trunk"}),
                ("watch --times 3 port li", {"list"}), ("watch --interval ", set()),
                ("watch -", {"--interval", "--times", "--json", "--timeout"}),
                ("watch --times 3 --ti", {"--times", "--timeout"}),
                ("watch lag list -", {"--by-id", "--json", "-o", "--columns", "--timeout"}),
                ("show ", {"lab", "none"}), ("port vlan none ", set()),
                ("plan sw", {":files"}), ("apply f --replaces=s", {":files"}), ("batch ", {":files"}),
                ("mac add lab port0 --file ", {":files"}), ("mac add lab port0 --hex ", set()),
                ("switch create sw", set()), ("plan f sw", set())):
            self.assertEqual(sorted(self.run_vsctl("complete", "--", *line.split(" ")).splitlines()), sorted(wanted),
                             line)

    def test_the_guide_for_users_of_other_commands_is_true(self):
        """Each command of its table runs on this host, as it stands there."""
        page = (SOURCE / "docs/vsctl.md").read_text()
        table = page[page.index("## If you know another command"):page.index("## Names")]
        commands = [words for line in table.splitlines() if line.startswith("| ")
                    for words in re.findall(r"`vsctl ([^`>]+)[`>]", line.split(" | ")[-1])]
        self.assertGreater(len(commands), 30)
        file = self.write("file", "[switches.lab]\nmtu = 4000\n")
        batch = self.write("batch", "switch mtu lab 4000\n")
        self.rows("mac", "add", "lab", "port0", "--address", "02:00:00:00:00:01")
        for command in commands:
            words = command.replace("FILE", batch if "batch" in command else file).replace("nic0", "eth0").split()
            if words[0] == "property":
                continue  # it stands for its verbs, without their arguments
            if words[:2] == ["switch", "create"]:
                words[2] = "new"
            if words[:2] == ["port", "remove"]:
                self.run_vsctl("port", "add", "lab", "port8")
            if words[0] == "watch":
                words[1:1] = ["--times", "1"]
            nouns = ("switch", "port", "uplink", "mac", "mirror", "pvlan")
            changes = words[0] in ("apply", "batch") or words[0] in nouns and words[1] not in ("list", "find", "stats")
            dry = ["--dry-run"] if changes else []
            done = self.process(*words, *dry)
            self.assertIn(done.returncode, (0, 10), f"{words}: {done.stderr}")
            self.run_vsctl("port", "remove", "lab", "port8", "--existing")

    def test_metrics_are_those_of_the_host(self):
        name = 'a"b\\c\nd'
        self.run_vsctl("switch", "create", name, "--ports", "1")
        self.count(port1=1000)
        groups = [{"group": "239.1.1.1", "ports": 2, "joins": 9}, {"group": "239.1.1.1", "vlan": 7, "ports": 1},
                  {"group": "ff02::5", "leaves": 4}]
        scenario = {"portsets": {"lab": {"groups": groups, "lags": {"bond": {"members": ["eth0", "eth1"]}}}}}
        self.assertEqual(HOST.vshost_scenario(json.dumps(scenario).encode()), 0)
        self.run_vsctl("mac", "add", "lab", "port2", "--address", "02:00:00:00:00:01")
        text = self.run_vsctl("metrics")
        checked = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))
        port = 'switch="lab",port="port1"'
        for line in (f'vswitch_port_packets_total{{{port},direction="from"}} 1000',
                     f'vswitch_port_bytes_total{{{port},direction="to"}} 1003',
                     f'vswitch_port_dropped_packets_total{{{port},reason="vlan"}} 1009',
                     f'vswitch_port_dropped_packets_total{{{port},reason="not-sent"}} 1015',
                     'vswitch_switch_running{switch="lab"} 1', 'vswitch_switch_running{switch="none"} 0',
                     'vswitch_switch_mtu_bytes{switch="lab"} 1500', 'vswitch_switch_addresses{switch="lab"} 1',
                     'vswitch_port_addresses{switch="lab",port="port2"} 1',
                     f'vswitch_port_addresses_limit{{{port}}} 4096',
                     'vswitch_team_packets_total{switch="lab",direction="tx"} 0',
                     'vswitch_multicast_groups{switch="lab",kind="ipv4"} 1',
                     'vswitch_multicast_group_joins_total{switch="lab",group="239.1.1.1"} 9',
                     'vswitch_multicast_group_leaves_total{switch="lab",group="ff02::5"} 4',
                     'vswitch_lag_up{switch="lab",lag="bond"} 1', 'vswitch_lag_members{switch="lab",lag="bond"} 2',
                     'vswitch_nic_up{nic="eth0",switch="lab",port="uplink0"} 0',
                     'vswitch_switch_running{switch="a\\"b\\\\c\\nd"} 1'):
            self.assertIn(line + "\n", text)

    def test_rates_are_sorted(self):
        """The busiest port first; while vsctl measures, counters of two ports move."""
        terminal = Terminal(50, "top", "lab", "--interval", "50ms", **self.known)
        rounds = itertools.count(1)

        def is_sorted():
            number = next(rounds)
            self.count(port4=10**8 * number, port5=10**11 * number)
            return terminal.shows(r"lab +port5 +- +[\d.]+[kMGT] [^\n]*\nlab +port4 +- +[\d.]+[kMGT] ")
        self.wait_until(is_sorted, terminal.process)
        os.write(terminal.master, b"q")
        self.assertEqual(terminal.end(), 0)
        self.assertTrue(terminal.printed.startswith("\x1b[?1049h"), terminal.printed[:80])
        self.assertTrue(terminal.printed.endswith("\x1b[?1049l"), terminal.printed[-80:])
        still = self.rows("top", "--interval", "1ms")
        self.assertEqual((len(still), {row["from-bits"] for row in still}), (10, {0}))
        self.assertEqual(still[0]["plugged"], "eth0")
        self.assertEqual(len(self.run_vsctl("top", "lab", "--interval", "1ms").splitlines()), 11)
        self.rows("top", "--interval", "4s", "--timeout", "3s")  # resting is not waiting
        self.refused(["top", "lap"], 3, "did you mean 'lab'?")


if __name__ == "__main__":
    main()
