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
           (("port", "mac-learning", "lab", "port0"), "--flag-a", 0, 255),
           (("port", "mac-learning", "lab", "port0"), "--flag-b", 0, 255),
           (("port", "mac-learning", "lab", "port0"), "--value-a", 0, U32),
           (("port", "mac-learning", "lab", "port0"), "--value-b", 0, U32),
           (("switch", "mac-learning", "lab"), "--value-a", 0, 1000000),
           (("switch", "mac-learning", "lab"), "--byte", 0, 255),
           (("switch", "mac-learning", "lab"), "--value-b", 0, U32),
           (("mac", "props"), "--aging", 0, U32), (("mac", "props"), "--limit", 0, U32)]
OTHER_NUMBERS = [(("switch", "create", "new"), "--ports", 100000), (("switch", "create", "new"), "--uplinks", 4096),
                 (("switch", "create", "new"), "--max-ports", 2**31 - 1),
                 (("switch", "create", "new"), "--version", U32),
                 (("port", "add", "lab", "new"), "--connect-id", U32), (("uplink", "set", "lab"), "--count", 4096),
                 (("mac", "set", "lab", "port0", "--address", "02:00:00:00:00:01"), "--vlan", 4094),
                 (("mac", "list", "lab", "port0"), "--selector", 255),
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
                 "1023", "range of VLANs", "a number from 1280"}


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
        for verb, least, greatest in ((("port", "security", "lab", "port0"), 0, 7),
                                      (("switch", "mtu", "lab"), 1280, 9000)):
            for value in (least, greatest):
                self.rows(*verb, str(value))
                self.assertEqual(self.rows(*verb)[0][verb[1]], value)
            for value in ("", str(least - 1), str(greatest + 1), *NO_NUMBERS):
                self.refused([*verb, "--", value], 5, f"{least} to {greatest}")
        for words in (["option", "get", "65536"], ["option", "set", "65536=1"], ["option", "set", "1=4294967296"],
                      ["option", "set", "=1"], ["option", "set", "1=1=1"],
                      ["rtm", "send", "4294967296", "--hex", "00" * 9]):
            self.refused(words, 5, "is not a number from 0 to")

    def test_words_that_are_no_values(self):
        port = ["port", "vlan", "lab"]
        for words, *reasons in (
                (["switch", "learn-static", "lab", "On"], "on or off", "'On'"),
                (["port", "sink", "lab", "port0", ""], "on or off"),
                (["switch", "multicast", "lab", "Snooping"], "legacy or snooping", "'Snooping'"),
                (["port", "tx-uplink", "lab", "port0", "alway"], "normal or always"),
                (["multicast", "filters", "lab", "--kind", "ipv5"], "ethernet, ipv4 or ipv6"),
                (["property", "get", "lab", "k", "--level", "hosts"], "global, host or port"),
                (["port", "eth-filter", "lab", "port0", FILTER[2:]], "200 bytes"),
                (["port", "eth-filter", "lab", "port0", FILTER + "00"], "200 bytes"),
                (["port", "eth-filter", "lab", "port0", FILTER[1:]], "pairs of hexadecimal digits"),
                (["port", "eth-filter", "lab", "port0", FILTER[2:] + "-1"], "pairs of hexadecimal digits"),
                (["port", "eth-filter", "lab", "port0", "--file", "/dev/null"], "200 bytes"),
                (["switch", "pvlan", "lab", "0102030405060708,"], "8 bytes"),
                (["switch", "ls-teaming", "lab", "00"], "2748 bytes"),
                (["switch", "pvlan", "lab", "--file", self.write("nine", "123456789")], "9 bytes", "entries of 8"),
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
                (["port", "add", "lab", "n" * 48], "47"), (["port", "add-opaque", "lab", "n" * 48, "x"], "47"),
                (["switch", "create", "n" * 128], "127"), (["switch", "create", ""], "127"),
                (["switch", "create", "new", "--id", "n" * 64], "63"),
                (["switch", "create", "new", "--portset", "a/b"], "'a/b'"),
                (["switch", "create", "new", "--portset", "-x"], "'-x'"),
                (["switch", "create", "..", "--ports", "2"], "'..'"),
                (["switch", "create", "new", "--portset", "n" * 128], "127"),
                (["uplink", "add", "lab", "n" * 48], "47"), (["uplink", "add", "lab", ""], "47"),
                (["uplink", "set", "lab", "a", ""], "47"),
                (["uplink", "set", "lab", "a", "a"], "'a'"),
                (["mac", "set", "lab", "port0", "--address", "02:00:00:00:00"], "'02:00:00:00:00'", "MAC"),
                (["mac", "set", "lab", "port0", "--address", "02:00:00:00:00:0g"], "MAC"),
                (["mac", "set", "lab", "port0", "--address", "224.1.1.1"], "MAC"),
                (["mac", "set", "lab", "port0", "--hex", "00"], "18"),
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
        for text in ("", "{", "{}", "[1]", "[{}]", '[{"id": ""}]', '[{"id": "%s"}]' % ("n" * 33),
                     '[{"id": "a\\u0000"}]',
                     '[{"id": "a", "settings": "00"}]', '[{"id": "a", "entries": []}]',
                     '[{"id": "a", "entries-a": [""]}]'):
            self.refused(["mirror", "append", "lab", "-", "port0"], 5, "value", stdin=text)

    def test_words_that_do_not_go_together(self):
        for words, *reasons in (
                (["port", "vlan", "lab", "port0", "7", "--id", "8"], "--id"),
                (["port", "vlan", "lab", "port0", "7", "--clear"], "--clear"),
                (["port", "eth-filter", "lab", "port0", FILTER, "--file", "/dev/null"], "--file"),
                (["switch", "multicast", "lab", "snooping", "--live"], "--live"),
                (["switch", "teaming", "lab", "--clear", "--by-id"], "--by-id"),
                (["switch", "ls-teaming", "lab", "--live", "--by-id"], "--live", "--by-id"),
                (["mac", "set", "lab", "port0", "--address", "02:00:00:00:00:01", "--hex", "00"], "--address", "--hex"),
                (["mac", "set", "lab", "port0", "--hex", "00" * 18, "--vlan", "5"], "--vlan", "--address"),
                (["mac", "set", "lab", "port0"], "--address, --hex or --file"),
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
                      ["mirror", "append", "lab"]):
            for path, why in ((str(self.directory / "none"), "No such file"), (str(self.directory), "Is a directory")):
                self.refused([*words, path], 3, path, why)

    def test_files_that_describe_what_cannot_be(self):
        """Each part of a file with a bad value: the error names the fault and its place, and nothing is written."""
        switch, port = "/switches/lab/", "/switches/lab/ports/port0/"
        session = {"id": "a"}
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
                (switch + "pvlan", {}, "list"),
                (switch + "mac-learning", {"value-a": 1000001}, "1000000"),
                (switch + "mac-learning", {"valu-a": 1}, "value-a"),
                (switch + "mac-learning", 5, "table"), (switch + "uplink-mirror", [session, {}], "'id'"),
                (switch + "uplink-mirror", [dict(session, settings="0")], "184 bytes"),
                (switch + "uplink-mirror", [dict(session, x=1)], "known key"),
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
                (port + "security", 8, "7"), (port + "eth-filter", "ab", "200 bytes"),
                (port + "override", "n" * 81, "80"),
                (port + "ls-teaming", "n" * 136, "135"), (port + "tx-uplink", "", "normal or always"),
                (port + "sink", True, "eth-filter"),
                (port + "clear", ["sink"], "eth-filter"),
                (port + "mirror", {}, "list; each entry must be a mirror session")):
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
        learning = ["port", "mac-learning", "lab", "port0"]
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
                ([*switch, "--byte", "3"], {}, {"value-a": 600, "byte": 3, "value-b": 65536}),
                ([*switch, "--value-b", "5"], None, {"value-a": 600, "byte": 3, "value-b": 5}),
                ([*switch, "--value-a", "7"], None, {"value-a": 7, "byte": 3, "value-b": 5}),
                ([*learning, "--flag-b", "1"], {}, {"flag-a": 0, "flag-b": 1, "value-a": 4096, "value-b": 0}),
                ([*learning, "--value-b", "2"], None, {"flag-a": 0, "flag-b": 1, "value-a": 4096, "value-b": 2})):
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
                    "ls-teaming": "port.logicalswitch.teaming", "mirror": "port.mirrorSessions"}),
                ("switch", ["--level", "host"],
                 {"mac-learning": "macLearning", "learn-static": "macLearning.learnStatic",
                  "uplink-mirror": "uplinkMirrorSessions"}),
                ("switch", [], {"multicast": "multicastFilter", "teaming": "teaming", "pvlan": "pvlanMap",
                                "ls-teaming": "logicalswitch.teaming"})):
            verb_words = ["lab", "port0"] if noun == "port" else ["lab"]
            sessions = struct.pack("<5I", *SESSIONS_HEADER) + b"s" * 32 + b"\xff" * 200
            for name, key in policies.items():
                for value in ("", "ff", "ff" * 7, "ff" * 3000, "02000000" + "ff" * 100, sessions.hex()):
                    with self.subTest(name, noun=noun, value=value[:60]):
                        self.run_vsctl("property", "set", "lab", stem + key, *level, "--hex", value)
                        done = self.process(noun, name, *verb_words)
                        self.assertIn(done.returncode, (0, 1), done.stderr)
                        shown = self.process(noun, "show", *verb_words, "--json")
                        self.assertIn(shown.returncode, (done.returncode, 1))
                        json.loads(shown.stdout or shown.stderr)
                        if done.returncode == 1:
                            command = re.fullmatch(r"vsctl: .*; 'vsctl (property clear .*)' removes what is stored\n",
                                                   done.stderr)
                            self.run_vsctl(*command[1].split())
                        else:
                            self.run_vsctl("property", "clear", "lab", stem + key, *level)
                        self.run_vsctl(noun, "show", *verb_words)
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
                                        (["switch", "ls-teaming", "lab", "--live"], 4125, (b"\1\0\0\0", b"\xff" * 4))):
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

    def random_file(self, random):
        definitions = PLAN_SCHEMA["$defs"]

        def entry(kind, chance, *left_out):
            chosen = {key: value for key, value in definitions[kind]["properties"].items()
                      if key not in ("absent", "clear", "ports", *left_out) and random.random() < chance}
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
                for number, session in enumerate(port.get("mirror", [])):
                    session["id"] = f"s{number}"
            for number, session in enumerate(switch.get("uplink-mirror", [])):
                session["id"] = f"s{number}"
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
