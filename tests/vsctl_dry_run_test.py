#!/usr/bin/env python3
"""A dry run foretells the change: the same error, or what will differ, or that nothing will."""
import json
import subprocess

from vsctl_host import BUILD, HOST, SANITIZED, OnHost, main, writes

TEAM, FILTER, TABLE, PVLAN = "0a" * 2616, "ab" * 200, "0b" * 2748, "0102030405060708"
SAME = f"01{'00' * 2615}"  # a teaming policy of which vsctl shows the fields
FILES = {
    "same": "[switches.lab]\nmtu = 1500\n[switches.lab.ports.port0]\nvlan = { id = 0 }\n",
    "fresh": "[switches.lab.ports.port0]\nvlan = { id = 9 }\n",
    "removal": "[switches.lab.ports.port0]\nabsent = true\n",
    "kind": '[switches.lab.ports.port0]\nexternal-id = "x"\n',
    "missing": "port vlan lab port0 5\nport vlan lab nope 5\n", "twice": "port add lab x\nport add lab x\n"}
# Lines of a verb: those that the host refuses, those that leave it as it is, and those that change it.
CHANGES = """
switch create lab | switch create lab --id z | switch create new --id lab | switch create new --portset lab
switch create new --ports 200
switch create new --uplinks 4097 | switch create new --ports 100001 | switch create new --max-ports 2147483648
switch create new --max-ports 2147483647
switch create new --opaque
switch create new --version 4294967295 --uplinks 2 --ports 100 | switch create new --max-ports 3 --ports 3
switch create new --max-ports 3 --ports 4
switch destroy lab | switch destroy nope
switch mtu lab 1500 | switch mtu lab 9000 | switch mtu nope 1500 | switch mtu stopped 1500
switch mtu low 9000 | switch mtu plain 1500
switch multicast lab legacy | switch multicast lab snooping | switch multicast nope snooping
switch multicast lab --clear
switch teaming lab --clear | switch teaming lab --hex {TEAM} | switch teaming nope --clear
switch teaming lab --hex {SAME} | switch teaming lab --algorithm port --notify off
switch teaming lab --algorithm l4 --active uplink1 --failback | switch teaming lab --active uplink1,uplink9
switch mac-learning lab --clear | switch mac-learning lab --limit 3 | switch mac-learning nope --limit 3
switch learn-static lab --clear | switch learn-static lab on | switch learn-static nope on
pvlan clear lab | pvlan add lab --hex {PVLAN} | pvlan clear nope | pvlan add lab 7 --isolated 8 | pvlan add nope 7
pvlan add lab 9 | pvlan add lab 9 --isolated 11 | pvlan add lab 9 --community 10 | pvlan add lab 5 --isolated 5
pvlan remove lab 9 | pvlan remove lab 10 | pvlan remove lab 11 | pvlan remove nope 9
ls-teaming clear lab | ls-teaming add lab --hex {TABLE} | ls-teaming clear nope
ls-teaming add lab gold | ls-teaming add lab tin --standby uplink9 | ls-teaming add lab tin
ls-teaming remove lab gold | ls-teaming remove lab tin
ls-teaming add nope tin | ls-teaming remove nope gold
port add lab port0 | port add lab x | port add lab x,x | port add nope x | port add lab x,port1
port add lab q0..q200 | port add stopped x
port add lab port0 --external-id e | port add lab x --external-id e | port add nope x --external-id e
port add lab uplink0
port remove lab nope | port remove lab port0 | port remove lab uplink0 | port remove lab port0,port0
port remove nope port0
port vlan lab port0 0 | port vlan lab port0 5 | port vlan lab port0,nope 5 | port vlan nope port0 5
port vlan lab port0 --clear | port vlan lab uplink0 --trunk 1-4094
port nested-vlan lab port0 on | port nested-vlan lab port0 --clear | port nested-vlan lab nope on
port nested-vlan lab nope --clear
port security lab port0 --lock-address | port security lab port0 --clear
port security lab nope --lock-address | port security lab port1 --static-only
port block lab port0 on | port block lab port0 off | port block lab nope on | port block lab port0 --clear
port eth-filter lab port0 --hex {FILTER} | port eth-filter lab port0 --clear
port eth-filter lab nope --hex {FILTER} | port eth-filter lab port0 --sink
port sink lab port0 on | port sink lab port0 off | port sink lab port0 --clear | port sink lab nope on
port mac-learning lab port0 --learning | port mac-learning lab port0 --clear
port mac-learning lab nope --learning
port teaming lab port0 --active uplink0 | port teaming lab port0 --standby port1
port teaming lab port0 --hex {TEAM} | port teaming lab port0 --clear | port teaming lab nope --hex {TEAM}
port override lab port0 uplink0 | port override lab port0 --clear | port override lab nope uplink0
port tx-uplink lab port0 always | port tx-uplink lab port0 --clear | port tx-uplink lab nope always
port ls-teaming lab port0 gold | port ls-teaming lab port0 --clear | port ls-teaming lab nope gold
uplink add lab u9 | uplink add lab uplink0 | uplink add lab port0 | uplink add nope u9
uplink add lab u9 port1 | uplink add stopped u9
uplink remove lab uplink0 | uplink remove lab nope | uplink remove lab port0 | uplink remove lab uplink0 nope
uplink remove nope u
uplink set lab uplink0 uplink1 | uplink set lab uplink0 | uplink set lab port0 | uplink set lab e w
uplink set nope e | uplink set lab --count 0
uplink set lab --count 2 | uplink set lab --count 3 | uplink set plain --count 2 | uplink set plain e
uplink set plain --count 0
uplink clear lab | uplink clear plain | uplink clear nope
uplink up lab nic0 | uplink up lab nope | uplink up nope nic0 | uplink up stopped nic0 | uplink up plain nic0
uplink down lab nic0 | uplink down lab nope | uplink down nope nic0
uplink numa lab | uplink numa nope | uplink numa stopped
mac add lab port0 --address 02:00:00:00:00:01 | mac add lab port0 --address 02:00:00:00:00:09 --vlan 7
mac add lab nope --address 02:00:00:00:00:01
mac add nope port0 --address 02:00:00:00:00:01 | mac add stopped port0 --address 02:00:00:00:00:01
mac add lab port0 --address 03:00:00:00:00:01
mac add lab port1 --address 02:00:00:00:00:01 | mac add lab port0 --address 00:00:00:00:00:00
mac remove lab port0 --address 02:00:00:00:00:01 | mac remove lab port0 --address 02:00:00:00:00:09
mac remove lab nope --address 02:00:00:00:00:01
mac remove lab port1 --address 02:00:00:00:00:01 | mac remove nope port0 --address 02:00:00:00:00:01
mac props --aging 600 | mac props --aging 7 | mac props --enabled on --limit 9
mirror add lab s1 --to port0 | mirror add lab s2 --to port0 | mirror add lab s2 --to nope
mirror add nope s2 --to port0 | mirror add lab s2 --to uplink0 --from port0 | mirror add lab s2 --to port0 --from nope
mirror add lab s2 --port port1 | mirror add lab s2 | mirror add lab s2 --to port0 --port nope
mirror remove lab s1 | mirror remove lab s2 | mirror remove lab s1 --port port0 | mirror remove lab s1 --port port1
mirror remove nope s1 | mirror remove lab s1 --port nope
mirror clear lab --port port0 | mirror clear lab --port port1 | mirror clear lab | mirror clear lab --port nope
mirror clear nope
option set 3=9 | option set 3=8 | option set 3=9 4=1 | option set 4=0 | option set 65535=1
option set --hex 04000000
rtm send 7 --hex 000000000000000000
property set lab k --text v | property set lab k --text w | property set nope k --text w
property set lab k --port nope --text w | property set lab n --port port0 --text w
property set lab --by-id k --text v | property set nope --by-id k --text v
property set lab --by-id k --port nope --text v
property clear lab k | property clear lab nope | property clear nope k | property clear lab k --port nope
property clear lab k --port port0
property clear lab nope --by-id | property clear nope k --by-id
apply same | apply fresh | apply removal | apply removal --allow-removals | apply kind
batch missing | batch twice
"""


# A process of a sanitizer starts slowly: there it takes every so many lines.
SHARE = 4 if SANITIZED else 1
# What is sent each time, whatever there is: no fingerprint tells it.
REQUESTS = ("uplink numa", "rtm send")
PREPARED = """switch create lab --id lab --uplinks 2 --ports 4
switch create stopped --ports 1
switch create plain
switch mtu lab 1500
property set lab k --text v
mirror add lab s1 --to port0
pvlan add lab 9 --community 10
ls-teaming add lab gold
switch teaming lab --algorithm port
"""


class DryRuns(OnHost):
    def prepare(self):
        """A host with a switch, and with a switch whose portset doesn't run."""
        self.run_vsctl("batch", stdin=PREPARED)
        for line in ("mac add lab port0 --address 02:00:00:00:00:01", "option set 3=9", "mac props --aging 600"):
            self.run_vsctl(*line.split())
        destroy = ["-e", "set", "/net/portsets/stopped/destroy", "destroy"]
        subprocess.run([BUILD / "platform/tybel", *destroy], check=True)

    def words(self, line):
        return [str(self.directory / word) if word in FILES else word.format(**globals()) for word in line.split()]

    def check_line(self, line):
        """True when the change was made."""
        words = self.words(line)
        before = HOST.vshost_fingerprint()
        HOST.vshost_record(1)
        dry = [self.process(*order) for order in ([*words, "--dry-run"], ["--dry-run", *words, "--json"])]
        self.assertEqual((HOST.vshost_fingerprint(), writes()), (before, []))
        HOST.vshost_record(0)
        done = self.process(*words)
        changed = HOST.vshost_fingerprint() != before
        code = done.returncode or (10 if changed or line.startswith(REQUESTS) else 0)
        self.assertFalse(done.returncode and changed)
        self.assertEqual([run.returncode for run in dry], [code] * 2, dry[0].stderr + done.stderr)
        if code in (0, 10):
            self.assertEqual(json.loads(dry[1].stdout)["result"] == [], code == 0)
            self.assertEqual(dry[0].stdout == "nothing to change\n", code == 0)
        else:
            self.assertEqual(dry[0].stderr, done.stderr)
            self.assertNotIn("this is a bug", done.stderr)
            if code != 5:
                self.assertRegex(done.stderr, "; .* ")  # with some advice
        return not done.returncode

    def test_a_dry_run_foretells_the_change(self):
        for name, text in FILES.items():
            self.write(name, text)
        lines = [line.strip() for line in CHANGES.replace("\n", "|").split("|") if line.strip()]
        verbs = {verb["verb"] for verb in self.rows("help") if verb["changes"]}
        tried = {" ".join(line.split()[:count]) for line in lines for count in (1, 2)}
        self.assertEqual(verbs - tried, {"confirm", "undo", "edit"})  # which are tested apart
        self.prepare()
        start = self.copied()
        for line in lines[::SHARE]:
            with self.subTest(line):
                if self.check_line(line):
                    self.restart(start)


if __name__ == "__main__":
    main()
