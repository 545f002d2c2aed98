"""The scenario's schema and the host's check of scenarios accept the same: written rows, and generated ones.

usage: scenario_test.py BUILD_DIRECTORY SOURCE_DIRECTORY [unittest arguments]
"""
import copy
import ctypes
import errno
import json
import pathlib
import random
import re
import sys
import unittest

import jsonschema

BUILD, SOURCE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
HOST = ctypes.CDLL(str(BUILD / "platform/libvshost.so"))
HOST.vshost_error.restype = ctypes.c_char_p
HOST.vshost_fingerprint.restype = ctypes.c_uint64
# "$" of JSON Schema matches at the end of a string alone, that of Python before a last line feed too.
TEXT = (SOURCE / "platform/scenario/scenario.schema.json").read_text()
SCHEMA = json.loads(re.sub(r'(?<="pattern": ")(.*)\$(?=")', r"\1\\\\Z", TEXT))
VALIDATOR = jsonschema.Draft202012Validator(SCHEMA, format_checker=jsonschema.FormatChecker())
KINDS = {"store": 1, "shell": 2, "driver": 3, "open": 4, "allocation": 5}
FAULTS = {part["if"]["properties"]["kind"]["const"]: part["then"]["properties"]
          for part in SCHEMA["$defs"]["fault"]["allOf"]}
STATUSES = SCHEMA["$defs"]["status"]["anyOf"][1]["enum"]

# Rules that the host checks and a schema cannot express.
BEYOND = ("mtu must not be above max-mtu", "a portset has at most", "a host has at most")

U32, U64 = 2**32 - 1, 2**64 - 1
WHOLE = {
    "$schema": "https://example.com/a.json",
    "nics": {"nic0": {"speed": 25000, "full-duplex": False, "link": False, "admin": True, "numa-node": 3, "mtu": 1500,
                      "max-mtu": 9000, "refused-mtus": [1280, 9000], "bind": {"switch": "lab", "port": "uplink0"}}},
    "portsets": {"lab": {
        "ports": {"port0": {"macs": [{"address": "02:aB:00:00:00:01", "vlan": 4094, "type": "learned", "age": 3}],
                            "learning": {"learned": 1, "moved": 2, "aged": 3, "refused": 4, "dropped": U32}}},
        "lags": {"lag0": {"mode": "active", "timeout": "short", "load-balance": 255, "members": ["nic0"]}},
        "groups": [{"group": "239.1.1.1", "vlan": 5, "joins": 1, "leaves": 2, "queries": 3, "ports": 4,
                    "filter": "exclude", "sources": ["10.0.0.1"]},
                   {"group": "ff0e::1", "sources": ["::1", "::ffff:1.2.3.4"]}, {"group": "01:00:5e:00:00:01"}],
        "mirror-sessions": {"span": {"mirrored-packets": 1, "unreachable": U64}},
        "promiscuous-ports": ["port0"], "rarp": {"sent": 1, "failed": 2},
        "teaming": {"tx-packets": U64, "failbacks": 1}}},
    "mac-learning": {"enabled": True, "aging": 5, "limit": 6},
    "options": {"1": 2, "65535": U32},
    "faults": [{"kind": "store", "operation": "DVSZOR_PortDataSet", "nth": 2, "times": 0, "outcome": "STATUS_NO_SPACE"},
               {"kind": "shell", "operation": "set", "outcome": "not started"},
               {"kind": "driver", "operation": "4106", "outcome": "0x10"},
               {"kind": "open", "operation": "/dev/vswitch", "outcome": 6},
               {"kind": "allocation", "operation": "malloc"}],
}
NUMBERS = [-1, -0.0, 0, 1, 1.0, 1.5, 255, 256, 1279, 1280, 4094, 4095, 9000, 9001, U32,
           U32 + 1, float(U32), U64, U64 + 1, 1e300]
STRINGS = ["", " ", "a", "/", "a\0", "a\n", "\u00fc", "up", "Up",
           *("x" * length for length in (30, 31, 47, 48, 127, 128)), "0", "7", "07", " +7", "+7", "7 ", "65535",
           "65536", "4294967295", "4294967296",
           "0x", "0x0", "0xG", "0x123456789", "0X1",
           "-2:00:00:00:00:01", "02:00:00:00:00:0", "02:00:00:00:00:01\n", "02-00-00-00-00-01", "0 :00:00:00:00:01",
           "1.2.3", "1.2.3.4", "01.2.3.4", "1.2.3.256", "1.2.3.4 ", "::", ":::", "1::2::3", "::1%lo",
           "1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7::",
           "::12345", "::1.2.3.4", "fe80::1/64", "malloc", "free", "STATUS_NO_SPACE", "STATUS_OK", "killed",
           "DVSZOR_DataFree"]
NIC, LAG = "/nics/nic9", "/portsets/p/lags/lag9"
GROUP = {"portsets": {"p": {"groups": [{"group": "224.0.0.1", "sources": ["ff02::1"]}]}}}
MAC = "/portsets/p/ports/a/macs/0/address: must be an Ethernet address such as 02:00:00:00:00:01"


def nic(**members):
    return {"nics": {"nic8": {}, "nic9": members}}


def mac(address):
    return {"portsets": {"p": {"ports": {"a": {"macs": [{"address": address}]}}}}}


def lag(**members):
    return {"portsets": {"p": {"lags": {"lag9": members}}}}


def fault(**members):
    return {"nics": {"nic9": {}}, "faults": [members]}


WRONG = [
    ([], "the scenario: must be an object"), ({"nic": {}}, "/nic: unknown key; did you mean nics?"),
    ({"switches": {}}, "/switches: unknown key; use one of $schema, nics,"),
    ({"$schema": 5}, "/$schema: must be a string"),
    (nic(speed="fast"), f"{NIC}/speed: must be a whole number from 1 to 10000000"),
    (nic(mtu=1279), f"{NIC}/mtu: must be a whole number from 1280 to 9000"),
    (nic(link="up"), f"{NIC}/link: must be true or false"),
    (nic(numaNode=1), f"{NIC}/numaNode: unknown key; did you mean numa-node?"),
    (lag(timeout="shrt"), f'{LAG}/timeout: "shrt" is unknown; did you mean short?'),
    (lag(mode=True), f"{LAG}/mode: must be one of passive, active"),
    (nic(**{"mtu": 9000, "max-mtu": 1500}), f"{NIC}: mtu must not be above max-mtu"),
    (nic(bind={"switch": "lab"}), f"{NIC}/bind: needs port"),
    (nic(**{"refused-mtus": [1500, 0]}), f"{NIC}/refused-mtus/1: must be"),
    (nic(**{"refused-mtus": [1500] * 9}), f"{NIC}/refused-mtus: must be an array of at most 8 elements"),
    ({"nics": {"": {}}}, '/nics/: this name must be a name of 1 to 30 bytes without "/"'),
    ({"nics": {"\u00fc" * 16: {}}}, "/nics/\u00fc"), ({"nics": {"a/b": {}}}, "/nics/a/b: this name"),
    (mac("02:00"), MAC), (mac("-2:00:00:00:00:01"), MAC), (mac("0 :00:00:00:00:01"), MAC),
    (GROUP, "/portsets/p/groups/0/sources/0: must be an IPv4 address"),
    ({"portsets": {"p": {"rarp": {"sent": -1}}}},
     "/portsets/p/rarp/sent: must be a whole number from 0 to 18446744073709551615"),
    ({"mac-learning": {"enabled": 1}}, "/mac-learning/enabled: must be true or false"),
    *(({"options": {id: 1}}, f"/options/{id}: this name must be a number from 1 to 65535")
      for id in ("0", " +7", "007", "65536", "-1", "7 ")),
    (fault(operation="4106"), "/faults/0: needs kind"),
    (fault(kind="stor"), '/faults/0/kind: "stor" is unknown; did you mean store?'),
    (fault(kind="shell", outcome="dead"), "/faults/0/outcome: must be an exit code, killed or not started"),
    (fault(kind="store", outcome="STATUS_NO_SPAC"),
     '/faults/0/outcome: "STATUS_NO_SPAC" is unknown; did you mean STATUS_NO_SPACE?'),
    (fault(kind="driver", outcome="STATUS_BUSY"), "/faults/0/outcome: must be a whole number"),
    (fault(kind="store", operation="DVSZOR_PortDataSett"),
     '/faults/0/operation: "DVSZOR_PortDataSett" is unknown; did you mean DVSZOR_PortDataSet?'),
    (fault(kind="store", operation="open"), "/faults/0/operation: must be an operation of the store that can fail"),
    (fault(kind="driver", operation="41O6"), "/faults/0/operation: must be the number of a driver command"),
    (fault(kind="store", nth=0), "/faults/0/nth: must be a whole number from 1 to"),
]
OTHERS = [None, True, False, [], {}, [1], {"a": 1}]


def nodes(value, path=()):
    """The path of each value in it, itself too."""
    yield path
    inside = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    for key, inner in inside:
        yield from nodes(inner, (*path, key))


def at(value, path):
    for step in path:
        value = value[step]
    return value


def replaced(path, value):
    """The whole scenario with one value replaced."""
    scenario = copy.deepcopy(WHOLE)
    if not path:
        return value
    at(scenario, path[:-1])[path[-1]] = value
    return scenario


def renamed(path, name):
    scenario = copy.deepcopy(WHOLE)
    parent = at(scenario, path[:-1])
    parent[name] = parent.pop(path[-1])
    return scenario


def spoiled(text, dice):
    middle, character = dice.randrange(len(text) + 1), dice.choice(("", *"0aG:.- \n\0/~\u00e9"))
    return text[:middle] + character + text[middle + dice.randrange(2):]


def mutants(dice):
    for path in nodes(WHOLE):
        value = at(WHOLE, path)
        alike = NUMBERS if isinstance(value, (int, float)) else STRINGS if isinstance(value, str) else [[value] * 65]
        for other in (*alike, *OTHERS, dice.choice(NUMBERS), dice.choice(STRINGS)):
            yield replaced(path, other)
        if isinstance(value, str):
            yield from (replaced(path, spoiled(value, dice)) for _ in range(8))
        if path and isinstance(path[-1], str):
            names = (*dice.sample(STRINGS, 12), *(spoiled(path[-1], dice) for _ in range(3)))
            yield from (renamed(path, name) for name in names)
        if path:
            scenario = copy.deepcopy(WHOLE)
            del at(scenario, path[:-1])[path[-1]]
            yield scenario


class Scenario(unittest.TestCase):
    def setUp(self):
        self.assertEqual(HOST.vshost_start(None, 0), 0, HOST.vshost_error())
        self.addCleanup(HOST.vshost_stop)

    def apply(self, scenario):
        """The fault of the scenario, or an empty text."""
        text = scenario if isinstance(scenario, bytes) else json.dumps(scenario).encode()
        error = HOST.vshost_scenario(text)
        said = HOST.vshost_error().decode("utf-8", "replace") if error else ""
        HOST.vshost_clear()
        return said

    def compare(self, scenario):
        """The same, which the schema must find right or wrong too."""
        said, valid = self.apply(scenario), VALIDATOR.is_valid(scenario)
        # A schema counts characters, where the host counts bytes.
        long = "bytes" in said and not json.dumps(scenario, ensure_ascii=False).isascii()
        if not (valid and (long or any(reason in said for reason in BEYOND))):
            self.assertEqual(valid, not said, f"{json.dumps(scenario)}: {said or 'accepted'}")
        return said

    def test_right_and_wrong_scenarios(self):
        jsonschema.Draft202012Validator.check_schema(SCHEMA)
        self.assertEqual(self.compare(WHOLE), "")
        before = HOST.vshost_fingerprint()
        for scenario, said in WRONG:
            with self.subTest(scenario):
                self.assertTrue(self.compare(scenario).startswith(said), HOST.vshost_error())
                self.assertEqual(HOST.vshost_fingerprint(), before)
        for text in (b"", b"{", b"{} {}", b'{"nics": {"\xff": {}}}', b'{"options": {"1": 1e999}}'):
            self.assertTrue(self.apply(text).startswith("the scenario: must be JSON"), text)

    def test_generated_scenarios(self):
        said = [bool(self.compare(mutant)) for mutant in mutants(random.Random(13))]
        self.assertGreater(min(said.count(True), said.count(False)), 500)

    def test_limits_that_stand_on_the_host(self):
        self.assertEqual(self.compare({"options": {str(i): 1 for i in range(1, 512)}}), "")
        self.assertEqual(self.compare({"options": {"9999": 1}}), "/options: a host has at most 511 options")
        self.assertEqual(self.compare({"portsets": {"lab": {"lags": {str(i): {} for i in range(64)}}}}), "")
        self.assertEqual(self.compare({"portsets": {"lab": {"lags": {"more": {}}}}}),
                         "/portsets/lab/lags: a portset has at most 64 LAGs")
        self.assertEqual(HOST.vshost_fail(KINDS["store"], None, 1000, 1, 1), 0)
        self.assertEqual(self.apply({"faults": [{"kind": "store"}] * 64}),
                         "/faults: the host holds too many rules already; vshost_clear() removes them")

    def test_calls_that_can_fail(self):
        exported = set(re.findall(r"\bDVS\w+", (SOURCE / "platform/store/ork_public.map").read_text()))
        for kind, number in KINDS.items():
            words = FAULTS[kind]["operation"].get("enum", ["0", "4106", "4294967295"])
            for word in (*words, *(exported if kind == "store" else ())):
                error = HOST.vshost_fail(number, word.encode(), 1, 1, 1)
                self.assertEqual(error, 0 if word in words else errno.EINVAL, word)
                if error:
                    self.assertEqual(HOST.vshost_error().decode(), f'"{word}" never fails')
                    exported.remove(word)
                self.assertEqual(self.compare({"faults": [{"kind": kind, "operation": word}]}) == "", not error)
            for word in ("", words[0] + "t", words[-1].upper() + "!"):
                self.assertEqual(HOST.vshost_fail(number, word.encode(), 1, 1, 1), errno.EINVAL, word)
                self.assertNotEqual(self.compare({"faults": [{"kind": kind, "operation": word}]}), "")
        self.assertEqual(exported, set(FAULTS["store"]["operation"]["enum"]))
        HOST.vshost_fail(KINDS["store"], b"DVSZOR_PortDataSett", 1, 1, 1)
        self.assertEqual(HOST.vshost_error(), b'"DVSZOR_PortDataSett" is unknown; did you mean DVSZOR_PortDataSet?')

    def test_outcomes(self):
        header = (SOURCE / "include/vswitchctl.h").read_text()
        statuses = {name: int(number, 16) for name, number in re.findall(r"#define (STATUS_\w+) (0x\w+)u", header)}
        self.assertEqual(set(STATUSES), set(statuses))
        store = ctypes.CDLL(str(BUILD / "platform/liborkPublic.so"))
        store.DVSState_ConfigReset.restype = ctypes.c_uint
        for outcome, number in (*statuses.items(), (7, 7), ("0x0BAD0014", 0x0BAD0014)):
            fault = {"kind": "store", "operation": "DVSState_ConfigReset", "outcome": outcome}
            HOST.vshost_clear()
            self.assertEqual(HOST.vshost_scenario(json.dumps({"faults": [fault]}).encode()), 0, HOST.vshost_error())
            self.assertEqual(store.DVSState_ConfigReset(), number, outcome)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
