#!/usr/bin/env python3
"""Values that vsctl accepts and refuses: words of the command line, files, and stored values."""
import json
import random
import re
import struct

import jsonschema

from vsctl_host import HOST, PLAN_SCHEMA, OnHost, main

U32 = 2**32 - 1
# Each verb with a numeric option and its range. The values of policies are read back.
NUMBERS = [(("port", "vlan", "lab", "port0"), "--id", 0, 4095), (("port", "vlan", "lab", "port0"), "--priority", 0, 7),
           (("port", "mac-learning", "lab", "port0"), "--limit", 0, U32),
           (("switch", "mac-learning", "lab"), "--aging", 0, 1000000),
           (("switch", "mac-learning", "lab"), "--policy-byte", 0, 255),
           (("switch", "mac-learning", "lab"), "--limit", 0, U32),
           (("mac", "props"), "--aging", 0, U32), (("mac", "props"), "--limit", 0, U32)]
OTHER_NUMBERS = [(("switch", "create", "new"), "--ports", 100000), (("switch", "create", "new"), "--uplinks", 4096),
                 (("switch", "create", "new"), "--max-ports", 2**31 - 1),
                 (("switch", "create", "new"), "--version", U32),
                 (("port", "add", "lab", "new"), "--connect-id", U32), (("uplink", "set", "lab"), "--count", 4096),
                 (("mac", "add", "lab", "port0", "--address", "02:00:00:00:00:01"), "--vlan", 4094),
                 (("mac", "list", "lab", "port0"), "--selector", 255),
                 (("mirror", "add", "lab", "s", "--to", "port0"), "--outer-vlan", 4094),
                 (("mirror", "add", "lab", "s", "--to", "port0"), "--snap", U32),
                 (("multicast", "filters", "lab"), "--selector", U32),
                 (("watch",), "--times", U32)]
NO_NUMBERS = [" 5", "5 ", "+5", "-1", "0x5", "5.0", "1e1", "five", "\u0665", "5\n", "1" * 30]
SESSIONS_HEADER = (0xFACEBEEF, 2, 1, 0, 0)
FILTER = "ab" * 200
LONG = "n" * 200
SCHEMA = jsonschema.Draft202012Validator(PLAN_SCHEMA)
# What no schema says: the host's state, relations between parts of a file, the spelling of names and ranges.
BEYOND_SCHEMA = {"'-x'", "'a/b'", "'a' twice", "port0 twice", "has", "has 1", "has none", "128", "false", "absent",
                 "nothing else", "also set", "not both", "eth-filter", "is empty", "range", "1 to 127", "1 to 47",
                 "1023", "range of VLANs", "a number from 1280", "promiscuous in the primary", "'secondary'",
                 "32 uplinks", "name of a port"}


class Values(OnHost):
    def setUp(self):
        super().setUp()
        self.create()

    def test_numbers(self):
        for verb, option, least, greatest in NUMBERS:
            for value in (least, greatest):
                self.rows(*verb, f"{option}={value}")
                self.assertEqual(self.rows(*verb)[0][option[2:]], value, (verb, option))
        for verb, option, greatest in [(v, o, g) for v, o, _, g in NUMBERS] + OTHER_NUMBERS:
            for value in (*NO_NUMBERS, str(greatest + 1)):
                self.refused([*verb, f"{option}={value}"], 5, str(greatest), option)
            self.refused([*verb, option, ""], 5, str(greatest), option)
        for verb, least, greatest in ((("switch", "mtu", "lab"), 1280, 9000),):
            for value in (least, greatest):
                self.rows(*verb, str(value))
                self.assertEqual(self.rows(*verb)[0][verb[1]], value)
            for value in ("", str(least - 1), str(greatest + 1), *NO_NUMBERS):
                self.refused([*verb, "--", value], 5, f"{least} to {greatest}")
        for words in (["option", "get", "65536"], ["option", "set", "65536=1"], ["option", "set", "1=4294967296"],
                      ["option", "set", "=1"], ["option", "set", "1=1=1"],
                      ["rtm", "send", "4294967296", "--hex", "00" * 9]):
            self.refused(words, 5, "must be a number from 0 to")

    def test_words_that_are_no_values(self):
        port = ["port", "vlan", "lab"]
        for words, *reasons in (
                (["switch", "learn-static", "lab", "On"], "on or off", "'On'"),
                (["port", "sink", "lab", "port0", ""], "on or off"),
                (["switch", "multicast", "lab", "Snooping"], "legacy or snooping", "'Snooping'"),
                (["port", "tx-uplink", "lab", "port0", "alway"], "normal or always"),
                (["multicast", "filters", "lab", "--kind", "ipv5"], "ethernet, ipv4 or ipv6"),
                (["property", "get", "lab", "k", "--level", "hosts"], "global, host or port"),
                (["port", "eth-filter", "lab", "port0", "--hex", FILTER[2:]], "200 bytes"),
                (["port", "eth-filter", "lab", "port0", "--hex", FILTER + "00"], "200 bytes"),
                (["port", "eth-filter", "lab", "port0", "--hex", FILTER[1:]], "pairs of hexadecimal digits"),
                (["port", "eth-filter", "lab", "port0", "--hex", FILTER[2:] + "-1"], "pairs of hexadecimal digits"),
                (["port", "eth-filter", "lab", "port0", "--file", "/dev/null"], "200 bytes"),
                (["pvlan", "add", "lab", "--file", self.write("nine", "123456789")], "8 bytes, not 9"),
                (["pvlan", "add", "lab", "4095"], "1 to 4094"),
                (["pvlan", "add", "lab", "7", "--isolated", "0"], "4094"),
                (["pvlan", "add", "lab", "7", "--isolated", "8,"], "--isolated"),
                (["pvlan", "add", "lab", "7", "--community", "7"], "promiscuous in its own"),
                (["ls-teaming", "add", "lab", "--hex", "00"], "2748 bytes"),
                (["ls-teaming", "add", "lab", "n" * 132], "1 to 131"), (["ls-teaming", "add", "lab", ""], "1 to 131"),
                (["switch", "teaming", "lab", "--algorithm", "hash"], "port, source-mac, ip, l4 or order"),
                (["switch", "teaming", "lab", "--active", "n" * 81], "1 to 80"),
                (["switch", "teaming", "lab", "--notify=1"], "on or off"),
                (["switch", "teaming", "lab", "--active", ",".join("a" * 17), "--standby", ",".join("b" * 16)], "32"),
                *((["port", "eth-filter", "lab", "port0", "--rules", rule], "must be a rule like") for rule in (
                    "drop", "drop any any", "lose any", "drop both any", "drop 0x0", "drop 0x10000", "drop 0806",
                    "pass any,", "drop  any")),
                (["port", "eth-filter", "lab", "port0", "--rules", ",".join(["pass any"] * 25)], "0 to 24"),
                (["mirror", "add", "lab", "n" * 33, "--to", "port0"], "1 to 32"),
                (["mirror", "add", "lab", "", "--to", "port0"], "1 to 32"),
                (["mirror", "add", "lab", "s", "--to", "n" * 48], "name of a port"),
                (["mirror", "add", "lab", "s", "--to", "port0,"], "name of a port"),
                (["mirror", "add", "lab", "s", "--to", "port0", "--settings", "00"], "184 bytes"),
                (["mirror", "add", "lab", "s", "--to", "port0", "--settings", "00" * 184, "--snap", "1"], "not both"),
                ([*port, "port0", "--trunk", ""], "--trunk", "0 to 4095"),
                ([*port, "port0", "--trunk", "1,"], "--trunk"),
                ([*port, "port0", "--trunk", "4096"], "--trunk"), ([*port, "port0", "--trunk", "9-1"], "--trunk"),
                ([*port, "port0", "--trunk", "1-"], "--trunk"), ([*port, "port0", "--trunk", "1-2-3"], "--trunk"),
                ([*port, "port0", "--trunk=-1"], "--trunk"), ([*port, "port0", "--trunk", "65537"], "--trunk"),
                ([*port, "port0", "--trunk", "1", "--ranges", "2"], "not both"),
                ([*port, "", "1"], "is empty"), ([*port, "a,", "1"], "is empty"),
                ([*port, ",a", "1"], "is empty"),
                ([*port, "..", "1"], "range"), ([*port, "a..b", "1"], "range"), ([*port, "a1..b2", "1"], "'a1..b2'"),
                ([*port, "p2..p1", "1"], "'p2..p1'"), ([*port, "p01..p03", "1"], "'p01'"),
                ([*port, "p0..p65536", "1"], "range"),
                ([*port, "p0..p4294967296", "1"], "'p4294967296'"),
                (["port", "override", "lab", "port0", "n" * 81], "0 to 80"),
                (["port", "ls-teaming", "lab", "port0", "n" * 136], "0 to 135"),
                (["port", "add", "lab", "n" * 48], "47"),
                (["port", "add", "lab", "n" * 48, "--external-id", "x"], "47"),
                (["switch", "create", "n" * 128], "127"), (["switch", "create", ""], "127"),
                (["switch", "create", "new", "--id", "n" * 64], "63"),
                (["switch", "create", "new", "--portset", "a/b"], "'a/b'"),
                (["switch", "create", "new", "--portset", "-x"], "'-x'"),
                (["switch", "create", "..", "--ports", "2"], "'..'"),
                (["switch", "create", "new", "--portset", "n" * 128], "127"),
                (["uplink", "add", "lab", "n" * 48], "47"), (["uplink", "add", "lab", ""], "47"),
                (["uplink", "set", "lab", "a", ""], "47"),
                (["uplink", "set", "lab", "a", "a"], "'a'"),
                (["mac", "add", "lab", "port0", "--address", "02:00:00:00:00"], "'02:00:00:00:00'", "MAC"),
                (["mac", "add", "lab", "port0", "--address", "02:00:00:00:00:0g"], "MAC"),
                (["mac", "add", "lab", "port0", "--address", "224.1.1.1"], "MAC"),
                (["mac", "add", "lab", "port0", "--hex", "00"], "18"),
                (["multicast", "groups", "lab", "02:00:00:00:00:01"], "IPv4 or IPv6"),
                (["multicast", "groups", "lab", "1.2.3"], "'1.2.3'"), (["multicast", "groups", "lab", "::g"], "'::g'"),
                (["property", "set", "lab", "k", "--hex", "abc"], "pairs"),
                (["property", "set", "lab", "k", "--hex", "zz"], "pairs"),
                (["rtm", "send", "7", "--hex", "00"], "has 9 bytes"),
                (["rtm", "send", "7", "--hex", "01" + "00" * 8], "has 137 bytes, not 9"),
                (["option", "set", "--hex", "ff000000"], "its own length"),
                (["option", "set", "--hex", "010000"], "its own length"),
                (["option", "set", "1"], "'1'", "NUMBER=VALUE"),
                (["completion", "tcsh"], "bash, zsh or fish")):
            self.refused(words, 5, *reasons)
        for value in ("", "5x", "-1s", "0s", "0.4ms", "nan", "inf", "1e9s", "s", "1 s", "+1s", "0x1s"):
            self.refused(["switch", "list", "--timeout", value], 5, "--timeout", "30s")
            self.refused(["apply", "/dev/null", "--confirm-within", value], 5)
    def test_words_that_do_not_go_together(self):
        for words, *reasons in (
                (["port", "vlan", "lab", "port0", "7", "--id", "8"], "--id"),
                (["port", "vlan", "lab", "port0", "7", "--clear"], "--clear"),
                (["port", "eth-filter", "lab", "port0", "--hex", FILTER, "--file", "/dev/null"], "--file"),
                (["port", "eth-filter", "lab", "port0", "--hex", FILTER, "--sink"], "--hex"),
                (["port", "add", "lab", "x", "--connect-id", "1", "--external-id", "x"], "--external-id"),
                (["pvlan", "add", "lab", "7", "--hex", "0102030405060708"], "PRIMARY", "--hex"),
                (["pvlan", "add", "lab"], "PRIMARY"), (["ls-teaming", "add", "lab"], "NAME"),
                (["ls-teaming", "add", "lab", "a", "--hex", "00"], "NAME", "--hex"),
                (["mirror", "add", "lab", "s"], "--to"), (["mirror", "add", "lab", "s", "--to", "#7"], "--port"),
                (["switch", "multicast", "lab", "snooping", "--live"], "--live"),
                (["mac", "add", "lab", "port0", "--address", "02:00:00:00:00:01", "--hex", "00"], "--address", "--hex"),
                (["mac", "add", "lab", "port0", "--hex", "00" * 18, "--vlan", "5"], "--vlan", "--address"),
                (["mac", "add", "lab", "port0"], "--address, --hex or --file"),
                (["mac", "props", "--aging", "5", "--hex", "00"], "--aging", "--hex"),
                (["option", "set", "1=2", "--hex", "00"], "OPTION", "--hex"),
                (["option", "set"], "OPTION=VALUE, --hex or --file"),
                (["property", "set", "lab", "k", "--text", "a", "--hex", "00"], "--text"),
                (["property", "set", "lab", "k"], "--text, --hex or --file"),
                (["property", "get", "lab", "k", "--level", "port"], "--port"),
                (["property", "get", "lab", "k", "--level", "host", "--port", "port0"], "--port"),
                (["uplink", "set", "lab"], "--count"), (["uplink", "set", "lab", "a", "--count", "1"], "--count"),
                (["apply"], "FILE"), (["apply", "--undo", "--resume"], "--undo", "--resume"),
                (["apply", "file", "--resume"], "FILE", "--resume"),
                (["apply", "--undo", "--confirm-within", "5s"], "--confirm-within"),
                (["apply", "--undo", "--dry-run"], "dry run"), (["confirm", "--dry-run"], "dry run"),
                (["switch", "list", "--dry-run"], "--dry-run"),
                (["switch"], "create"), (["switch", "list", "lab"], "lab"), (["help", "port", "vlna"], "vlan"),
                (["--bogus"], "unexpected argument --bogus"),
                (["switch", "list", "--timeout"], "--timeout requires a value")):
            self.refused(words, 2, *reasons)

    def test_files_that_cannot_be_read(self):
        for words in (["plan"], ["apply"], ["batch"], ["port", "eth-filter", "lab", "port0", "--file"],
                      ["pvlan", "add", "lab", "--file"]):
            for path, why in ((str(self.directory / "none"), "No such file"), (str(self.directory), "Is a directory")):
                self.refused([*words, path], 3, path, why)

    def test_files_that_describe_what_cannot_be(self):
        """Each part of a file with a bad value: the error names the fault and its place, and nothing is written."""
        switch, port = "/switches/lab/", "/switches/lab/ports/port0/"
        session, vlan = {"session": "a"}, {"primary": 7, "secondary": 8, "type": "isolated"}
        for pointer, value, *reasons in (
                ("/switches", [], "table"), ("/switches", None, "table"), ("/switchs", {}, "switches"),
                ("/switches/" + "n" * 128, {}, "127"), ("/switches/", {}, "127"), ("/switches/a\0b", {}, "1 to 127"),
                ("/switches/-x", {}, "'-x'"), ("/switches/x", {"portset": "a/b"}, "'a/b'"),
                ("/switches/lab", [], "table"),
                ("/switches/x", {"id": ""}, "63"), ("/switches/x", {"id": "n" * 64}, "63"),
                ("/switches/lab", {"id": "x"}, "has"),
                (switch + "absent", 1, "true or false"), (switch + "absent", True, "nothing else"),
                (switch + "opaque", True, "false"),
                (switch + "max-ports", 0, "1 to"), (switch + "max-ports", 64, "128"),
                (switch + "version", 2**32, "4294967295"),
                (switch + "version", 7, "has 1"), (switch + "uplinks", "a", "list"), (switch + "uplinks", [1], "47"),
                (switch + "uplinks", ["a", "n" * 48], "47"), (switch + "uplinks", ["a\0b"], "1 to 47"),
                (switch + "uplinks", ["a", "a"], "'a' twice"),
                (switch + "uplinks", ["port0"], "absent"), (switch + "mtu", 1279, "1280"),
                (switch + "mtu", 9001, "9000"),
                (switch + "mtu", 1500.0, "a number from 1280"), (switch + "mtu", "1500", "9000"),
                (switch + "mtu", 2**64, "9000"),
                (switch + "mtu", -(2**63), "9000"),
                (switch + "multicast", "snoop", "legacy or snooping"), (switch + "multicast", 1, "legacy"),
                (switch + "learn-static", "on", "true or false"),
                (switch + "teaming", "00", "2616 bytes"), (switch + "pvlan", ["00"], "8 bytes"),
                (switch + "pvlan", {}, "list"), (switch + "pvlan", [{"primary": 7}], "'secondary'"),
                (switch + "pvlan", [dict(vlan, type="open")], "promiscuous, isolated or community"),
                (switch + "pvlan", [dict(vlan, type="promiscuous")], "promiscuous in the primary"),
                (switch + "pvlan", [dict(vlan, secondary=4095)], "4094"),
                (switch + "teaming", {"algorithm": 4}, "order"), (switch + "teaming", {"failback": "on"}, "true"),
                (switch + "teaming", {"active": ["a"] * 33}, "32 uplinks"), (switch + "teaming", 5, "table"),
                (switch + "ls-teaming", [{"algorithm": "ip"}], "'name'"),
                (switch + "mac-learning", {"aging": 1000001}, "1000000"),
                (switch + "mac-learning", {"agin": 1}, "aging"),
                (switch + "mac-learning", 5, "table"), (switch + "mirror", [session, {}], "'session'"),
                (switch + "mirror", [dict(session, settings="0")], "184 bytes"),
                (switch + "mirror", [dict(session, settings="00" * 184, snap=1)], "not both"),
                (switch + "mirror", [dict(session, to=["n" * 48])], "name of a port"),
                (switch + "mirror", [dict(session, x=1)], "known key"),
                (switch + "clear", ["mtu"], "not a policy that can be cleared"),
                (switch + "clear", ["vlan"], "not a policy"),
                (switch + "clear", "pvlan", "list"),
                (switch + "clear", ["multicast"], "also set"), (switch + "vlan", {}, "known key"),
                (switch + "ports", [], "table"),
                (switch + "ports/" + "n" * 48, {}, "1 to 47"), (switch + "ports/a\0b", {}, "1 to 47"),
                (switch + "ports/a,,b", {}, "is empty"),
                (switch + "ports/a..b", {}, "range"), (switch + "ports/port0..port1", {}, "port0 twice"),
                (switch + "ports/port0", 5, "table"),
                (port + "mtu", 1500, "known key"), (port + "connect-id", -1, "4294967295"),
                (port + "connect-id", 7, "has 1"),
                (port + "external-id", "x", "has none"), (port + "external-id", "x\0", "1023"),
                (port + "vlan", {"id": 4096}, "4095"),
                (port + "vlan", {"id": True}, "4095"), (port + "vlan", {"priority": 8}, "7"),
                (port + "vlan", {"trunk": []}, "65535"),
                (port + "vlan", {"trunk": ["1"] * 65536}, "65535"), (port + "vlan", {"trunk": [1]}, "4095"),
                (port + "vlan", {"trunk": ["1-4096"]}, "range of VLANs"),
                (port + "vlan", {"trunk": ["1"], "ranges": ["2"]}, "not both"),
                (port + "vlan", {"option": 1}, "true or false"),
                (port + "security", 8, "table"), (port + "security", "08", "4 bytes"),
                (port + "security", {"lock-address": 1}, "true or false"), (port + "block", "on", "true or false"),
                (port + "eth-filter", "ab", "200 bytes"), (port + "eth-filter", {"rules": ["drop"]}, "a rule like"),
                (port + "override", "n" * 81, "80"),
                (port + "ls-teaming", "n" * 136, "135"), (port + "tx-uplink", "", "normal or always"),
                (port + "sink", True, "eth-filter"),
                (port + "clear", ["sink"], "eth-filter"),
                (port + "mirror", {}, "list; each entry must be a table")):
            document = {"switches": {"lab": {"multicast": "snooping", "ports": {"port0": {"eth-filter": FILTER}}}}}
            if value == ["port0"]:
                document["switches"]["lab"]["ports"]["port0"] = {"absent": True}
            steps = pointer.split("/")[1:]
            target = document
            for step in steps[:-1]:
                target = target[step]
            target[steps[-1]] = value
            if SCHEMA.is_valid(document):
                self.assertIn(reasons[0], BEYOND_SCHEMA, (pointer, value))
            for verb in ("plan", "apply"):
                self.refused([verb, "-"], 5, "standard input: switch", *reasons, stdin=json.dumps(document))
        for text, *reasons in (
                ("", "the file has no 'switches'"), ("{", "line 1, column 2", "not JSON"),
                ('{"switches": {}} x', "not JSON"), ('{"switches": {"a": {}, "a": {}}}', "switches/a ", "twice"),
                ('{"switches": ' + "[" * 100000, "nested too deeply"), ("a = " + "[" * 100000, "not TOML"),
                ("[switches.lab]\nmtu = 1500\nmtu = 1500\n", "3:", "not TOML"),
                ("[switches.lab]\nmtu = 1500.5\n", "2:1", "9000"),
                ("[switches.lab]\nmtu = 1979-05-27\n", "2:1", "9000"),
                ("[switches.lab]\nmtu = 0x10000\n", "2:1", "9000"), ('[switches."a\\u0000b"]\n', "1:", "127"),
                ('{"switches": {"a\x01": {}}}', "line 1,", "not JSON")):
            self.refused(["plan", "-"], 5, *reasons, stdin=text)
        names = {"ab": {}, "a/b": {"portset": "x"}, "a~1b": {},
                 "a~/b": {"portset": "y"}}  # each has its own JSON pointer
        self.assertEqual(len(self.rows("plan", "-", stdin=json.dumps({"switches": names}), code=10)), 4)
        broken = self.directory / "broken"
        for text, place in ((b'[switches."\xff"]', f"{broken}:1:"), (b'{"switches": {"\xff": {}}}', f"{broken}: ")):
            broken.write_bytes(text)
            self.refused(["plan", str(broken)], 5, place, "not ")

    def test_fields_that_are_not_named_keep_their_value(self):
        """In commands and in files: an id ends a trunk and a trunk ends an id; naming both sets both."""
        uplink, port, switch = ["port", "vlan", "lab",
                                "uplink0"], ["port", "vlan", "lab", "port0"], ["switch", "mac-learning", "lab"]
        learning, security = ["port", "mac-learning", "lab", "port0"], ["port", "security", "lab", "port0"]
        team = ["switch", "teaming", "lab"]
        everywhere = {"id": 0, "trunk": ["1-4094"], "option": False}
        for words, before, changed in (
                ([*uplink, "--priority", "5"], everywhere,
                 {"id": 0, "priority": 5, "trunk": ["1-4094"], "option": False}),
                ([*uplink, "--option", "on"], None, {"id": 0, "priority": 5, "trunk": ["1-4094"], "option": True}),
                ([*uplink, "--trunk", "7"], None, {"id": 0, "priority": 5, "trunk": ["7"], "option": True}),
                ([*uplink, "--priority", "none"], None, {"id": 0, "trunk": ["7"], "option": True}),
                ([*uplink, "9"], None, {"id": 9, "option": True}),
                ([*uplink, "--trunk", "8,9"], None, {"id": 0, "trunk": ["8", "9"], "option": True}),
                ([*uplink, "5", "--trunk", "8,9"], None, {"id": 5, "trunk": ["8", "9"], "option": True}),
                ([*uplink, "--trunk", "9"], None, {"id": 5, "trunk": ["9"], "option": True}),
                ([*uplink, "--trunk", "none"], None, {"id": 5, "option": True}),
                ([*port, "--ranges", "3"], {"id": 0, "option": False}, {"id": 0, "ranges": ["3"], "option": False}),
                ([*port, "4"], None, {"id": 4, "ranges": ["3"], "option": False}),
                ([*port, "--ranges", "none", "--priority", "0"], None, {"id": 4, "priority": 0, "option": False}),
                ([*port, "--trunk", "3"], None, {"id": 0, "priority": 0, "trunk": ["3"], "option": False}),
                ([*port, "--ranges", "5"], None, {"id": 0, "priority": 0, "ranges": ["5"], "option": False}),
                ([*switch, "--policy-byte", "3"], {}, {"aging": 600, "limit": 65536, "policy-byte": 3}),
                ([*switch, "--limit", "5"], None, {"aging": 600, "limit": 5, "policy-byte": 3}),
                ([*switch, "--aging", "7"], None, {"aging": 7, "limit": 5, "policy-byte": 3}),
                ([*learning, "--flood"], {}, {"learning": False, "flood": True, "limit": 4096, "at-limit": "drop"}),
                ([*learning, "--limit", "2"], None,
                 {"learning": False, "flood": True, "limit": 2, "at-limit": "drop"}),
                ([*learning, "--at-limit", "forward", "--flood", "off"], None,
                 {"learning": False, "flood": False, "limit": 2, "at-limit": "forward"}),
                ([*security, "--lock-address"], {},
                 {"addressed-only": True, "lock-address": True, "static-only": False}),
                ([*security, "--addressed-only", "off"], None,
                 {"addressed-only": False, "lock-address": True, "static-only": False}),
                ([*team, "--active", "uplink0", "--failback"], {},
                 {"algorithm": "port", "active": ["uplink0"], "standby": [], "failback": True, "notify": False}),
                ([*team, "--standby", "uplink1"], None,
                 {"algorithm": "port", "active": ["uplink0"], "standby": ["uplink1"], "failback": True,
                  "notify": False})):
            with self.subTest(words):
                (row,) = self.rows(*words)
                self.assertEqual(row["before"] or {}, last if before is None else before)
                self.assertEqual(row["after"], changed)
                shown = self.rows(*words[:4 if words[0] == "port" else 3])[0]
                self.assertEqual({key: shown[key] for key in shown if key not in ("switch", "port")}, changed)
                self.assertEqual(self.rows(*words, "--dry-run"), [])
                last = changed
                part = {key: changed[key]
                        for key in list(changed)[-2:]} | ({"trunk": changed["trunk"]} if "trunk" in changed else {})
                place = {"ports": {words[3]: {words[1]: part}}} if words[0] == "port" else {words[1]: part}
                self.assertEqual(self.rows("plan", "-", stdin=json.dumps({"switches": {"lab": place}})), [])
        file = '[switches.lab.ports.uplink1]\nvlan = { priority = 5 }\n' \
               '[switches.new]\nuplinks = ["u"]\n' \
               '[switches.new.ports.u]\nvlan = { priority = 5 }\n' \
               '[switches.new.ports.p]\nvlan = { id = 5 }\n'
        applied = self.rows("apply", "-", stdin=file)
        self.assertEqual([row["after"] for row in applied if row["port"] in ("uplink1", "u")],
                         [{**everywhere, "priority": 5}] * 2)
        for words in (["lab", "uplink1"], ["new", "u"]):
            self.assertEqual(self.rows("port", "vlan", *words)[0],
                             {"switch": words[0], "port": words[1], "priority": 5, **everywhere})
        lines = ["port vlan lab port1 5 --priority 3", "port vlan lab port1 6", "port vlan lab port1 --clear",
                 "port vlan lab port1 --priority 1",
                 "port remove lab port2", "port add lab port2", "port vlan lab port2 --priority 1"]
        self.run_vsctl("port", "vlan", "lab", "port2", "7")
        rows = self.rows("batch", "--allow-removals", stdin="\n".join(lines))
        six, plain = {"id": 6, "priority": 3, "option": False}, {"id": 0, "priority": 1, "option": False}
        self.assertEqual([(row["before"], row["after"]) for row in rows[1:4]],
                         [({**six, "id": 5}, six), (six, None), (None, plain)])
        self.assertEqual((rows[6]["before"], rows[6]["after"]), (None, plain))
        for row in self.rows("port", "vlan", "lab", "port1..port2"):
            self.assertEqual({key: row[key] for key in plain}, plain)

    def test_damaged_records_are_named_with_the_way_out(self):
        """Values that other programs stored: vsctl shows them or offers their removal, and never crashes."""
        stem = "com.talpex.vswitch."
        for noun, level, policies in (
                ("port", ["--port", "port0"], {
                    "vlan": "port.vlan", "nested-vlan": "port.vlanNestedTag", "security": "port.security",
                    "eth-filter": "port.extraEthFRP", "sink": "port.extraEthFRP", "mac-learning": "port.macManagement",
                    "teaming": "port.teaming.policy", "override": "port.teaming.override", "tx-uplink": "port.txUplink",
                    "ls-teaming": "port.logicalswitch.teaming"}),
                ("mirror", ["--port", "port0"], {"list": "port.mirrorSessions"}),
                ("switch", ["--level", "host"],
                 {"mac-learning": "macLearning", "learn-static": "macLearning.learnStatic"}),
                ("mirror", ["--level", "host"], {"list": "uplinkMirrorSessions"}),
                ("switch", [], {"multicast": "multicastFilter", "teaming": "teaming"}),
                ("pvlan", [], {"list": "pvlanMap"}), ("ls-teaming", [], {"list": "logicalswitch.teaming"})):
            verb_words = ["lab", "port0"] if noun == "port" else ["lab", *level] if "--port" in level else ["lab"]
            show = ["port", "show", "lab", "port0"] if "--port" in level else ["switch", "show", "lab"]
            sessions = struct.pack("<5I", *SESSIONS_HEADER) + b"s" * 32 + b"\xff" * 200
            for name, key in policies.items():
                for value in ("", "ff", "ff" * 7, "ff" * 3000, "02000000" + "ff" * 100, sessions.hex()):
                    with self.subTest(name, noun=noun, value=value[:60]):
                        self.run_vsctl("property", "set", "lab", stem + key, *level, "--hex", value)
                        done = self.process(noun, name, *verb_words)
                        self.assertIn(done.returncode, (0, 1), done.stderr)
                        shown = self.process(*show, "--json")
                        self.assertIn(shown.returncode, (done.returncode, 1))
                        json.loads(shown.stdout or shown.stderr)
                        if done.returncode == 1:
                            command = re.fullmatch(r"vsctl: .*; 'vsctl (property clear .*)' removes what is stored\n",
                                                   done.stderr)
                            self.run_vsctl(*command[1].split())
                        else:
                            self.run_vsctl("property", "clear", "lab", stem + key, *level)
                        self.run_vsctl(*show)
        for key, level in (("com.talpex.common.uplinkPorts", []),
                           ("com.talpex.common.host.uplinkPorts", ["--level", "host"])):
            for value in ("", "ffffffff", "01000000" + "ff" * 48, "01000000" + "ff" * 81):
                self.run_vsctl("property", "set", "lab", key, *level, "--hex", value)
                self.assertIn("reading the uplinks of switch lab", self.run_vsctl("uplink", "list", "lab", code=1))
                self.run_vsctl("property", "clear", "lab", key, *level)
                self.assertEqual(self.process("uplink", "list", "lab").returncode, 0)
                self.run_vsctl("switch", "destroy", "lab")
                self.create()

    def test_answers_that_a_driver_should_not_give(self):
        """Lists that grow between their two requests or count too many entries, and records whose bits are all 1."""
        lists = ((4126, 128, ["switch", "list"]), (4106, 36, ["uplink", "live", "lab"]),
                 (4117, 18, ["mac", "list", "lab", "port0"]),
                 (4118, 18, ["mac", "team", "lab"]), (4104, 4, ["multicast", "filters", "lab", "--kind", "ipv4"]),
                 (4101, 32, ["mirror", "live", "lab"]), (4100, 4, ["mirror", "destinations", "lab"]))
        for command, size, words in lists:
            for first, second in ((1, 40), (1, 2**32 - 1), (2**32 // size + 1, 2**32 // size + 1), (2**31, 2**31)):
                for count in (first, second):
                    answer = struct.pack("<II", count, 2) + b"\xff" * 60
                    HOST.vshost_answer(command, 1, answer, len(answer))
                self.assertIn("try again", self.run_vsctl(*words, code=1), (words, first, second))
                HOST.vshost_clear()
            HOST.vshost_answer(command, 0, struct.pack("<II", 2, 2) + b"\xff" * size, 8 + size)
            rows = self.rows(*words)
            self.assertEqual(len([row for row in rows if row.get("state") != "not running"]),
                             2)  # lab is not in the list
            HOST.vshost_clear()
        for words, command, answers in ((["multicast", "groups", "lab", "224.1.1.1"], 4105,
                                         (b"\xff" * 24, b"\1" + b"\0" * 23)),
                                        (["ls-teaming", "list", "lab", "--live"], 4125, (b"\1\0\0\0", b"\xff" * 4))):
            for answer in answers:
                HOST.vshost_answer(command, 1, answer, len(answer))
            HOST.vshost_answer(command, 0, b"\xff" * 4000, 4000)
            self.assertIn("try again", self.run_vsctl(*words, code=1))
            HOST.vshost_clear()
        ones = b"\xff" * 65536
        for command, words in ((4097, ["stats", "rarp", "lab"]), (4098, ["stats", "teaming", "lab"]),
                               (4099, ["option", "get"]),
                               (4102, ["mirror", "stats", "lab", "s"]), (4107, ["uplink", "link", "lab", "nic0"]),
                               (4109, ["lag", "list", "lab"]),
                               (4111, ["switch", "show", "lab"]), (4119, ["mac", "stats", "lab", "port0"]),
                               (4120, ["mac", "props"]),
                               (4121, ["mac", "info", "lab"]), (4122, ["port", "hint", "lab", "port0"]),
                               (4123, ["uplink", "port", "nic0"]), (4103, ["switch", "multicast", "lab", "--live"])):
            with self.subTest(words):
                HOST.vshost_answer(command, 0, ones, len(ones))
                rows = self.rows(*words)
                self.assertNotIn("\ufffd" * 137,
                                 json.dumps(rows, ensure_ascii=False))  # no name is longer than its field
                self.run_vsctl(*words)
                HOST.vshost_clear()

    def random_value(self, random, schema):
        """A value that the schema of the files allows."""
        if "anyOf" in schema:
            return self.random_value(random, random.choice(schema["anyOf"]))
        if "const" in schema:
            return schema["const"]
        if "enum" in schema:
            return random.choice(schema["enum"])
        kind = schema["type"]
        if kind == "boolean":
            return random.random() < 0.5
        if kind == "integer":
            return random.choice((schema["minimum"], schema["maximum"],
                                  random.randint(schema["minimum"], schema["maximum"])))
        if kind == "string" and "pattern" in schema:
            if schema["pattern"].startswith("^(pass"):
                return random.choice(("drop any", "pass from-port 0x88cc", "drop to-port 0x8", "pass 0x86DD"))
            if schema["pattern"].startswith("^[0-9]{"):
                first = random.randint(0, 4095)
                return random.choice((str(first), f"{first}-{random.randint(first, 4095)}", f"0{first % 100}"))
            digits = int(re.search(r"{(\d+)}", schema["pattern"])[1])
            return "".join(random.choices("0123456789abcdefABCDEF", k=digits))
        if kind == "string":
            return "".join(random.choices("aZ0 .-_'\"\\#=\t\u00e4\u20ac\U0001f600",
                                          k=random.randint(schema["minLength"], schema["maxLength"] // 4)))
        if kind == "array":
            return [self.random_value(random, schema["items"])
                    for _ in range(random.randint(schema.get("minItems", 0) or random.choice((1, 1, 2)), 3))]
        required = schema.get("required", [])
        return {key: self.random_value(random, value) for key, value in schema["properties"].items() if key in required
                or random.random() < 0.6}

    def make_sound(self, random, entry, uplinks):
        """What the schema doesn't say: names that come once, and fields that go together."""
        for number, mirror in enumerate(entry.get("mirror", [])):
            mirror["session"] = f"s{number}"
            if random.random() < 0.5:
                mirror.pop("settings", None)
            elif "settings" in mirror:
                entry["mirror"][number] = {key: mirror[key] for key in mirror
                                           if key in ("session", "settings", "from", "received-by", "to")}
        for number, vlan in enumerate(entry.get("pvlan", [])):
            if not isinstance(vlan, str):
                kind = random.choice(("promiscuous", "isolated", "community"))
                secondary = 7 if kind == "promiscuous" else 8 + number
                vlan.update({"primary": 7, "secondary": secondary, "type": kind})
        named = entry.get("ls-teaming")
        for policy in [entry.get("teaming"), *(named if isinstance(named, list) else [])]:
            for key in {"active", "standby"} & set(policy if isinstance(policy, dict) else []):
                policy[key] = random.sample(uplinks, random.randint(0, len(uplinks)))
        if isinstance(entry.get("security"), str):
            entry["security"] = random.choice(("05000000", "00000000"))
        if isinstance(entry.get("mac-learning"), str):
            entry["mac-learning"] = entry["mac-learning"][:4] + "00" + entry["mac-learning"][6:]

    def random_file(self, random):
        definitions = PLAN_SCHEMA["$defs"]

        def entry(kind, chance, *left_out):
            chosen = {key: value for key, value in definitions[kind]["properties"].items()
                      if key not in ("absent", "clear", "ports", "plugged", *left_out) and random.random() < chance}
            return {key: self.random_value(random, value) for key, value in chosen.items()}
        switches = {}
        for alias, portset in (("lab", "lab"), ("a 'b' \"c\".d#\\\u00e4/e", "vs1")):
            switch = entry("switch", 0.6, "uplinks", "portset", "id", "max-ports")
            switch.update({"portset": portset,
                           "uplinks": random.sample(["u0", "u1", "e w", "\u00e4.x"], random.randint(0, 3))})
            ports = {name: entry("port", 0.5, random.choice(("eth-filter", "sink")))
                     for name in ("p1", "q2", "x y", "z\"'\\.#")}
            for port in ports.values():
                if "external-id" in port:
                    port.pop("connect-id", None)
                if isinstance(port.get("vlan", {}).get("trunk"), list):
                    port["vlan"].pop("ranges", None)
                self.make_sound(random, port, switch["uplinks"])
            self.make_sound(random, switch, switch["uplinks"])
            ports.update({uplink: {"override": "x"} for uplink in switch["uplinks"][:1]})
            switches[alias] = dict(switch, ports=ports)
        return {"switches": switches}

    def test_round_trips_of_random_files(self):
        """After one apply, an export of the host is a plan without differences, here and on an empty host."""
        self.run_vsctl("switch", "destroy", "lab")
        for seed in range(12):
            with self.subTest(seed=seed):
                file = json.dumps(self.random_file(random.Random(seed)))
                self.run_vsctl("apply", "-", stdin=file)
                self.assertEqual(self.rows("plan", "-", stdin=file), [])
                switches = json.loads(file)["switches"]
                words = [f"{alias}/{','.join(entry['ports'])}" for alias, entry in switches.items()]
                exported = [self.run_vsctl("export", *words), self.run_vsctl("export", *words, "--json")]
                for text in exported:
                    self.assertEqual(self.rows("plan", "-", stdin=text), [])
                jsonschema.validate(json.loads(exported[1]), PLAN_SCHEMA)
                self.assertEqual(HOST.vshost_start(str(self.directory / f"host{seed}").encode(), 0), 0)
                self.run_vsctl("apply", "-", stdin=exported[seed % 2])
                self.assertEqual(json.loads(self.run_vsctl("export", *words, "--json")), json.loads(exported[1]))
                self.assertEqual(HOST.vshost_start(str(self.directory / f"next{seed}").encode(), 0), 0)

if __name__ == "__main__":
    main()
