"""What is on an embedded host, read from its database alone: beside the library, the store's code and vsctl."""
import functools
import pathlib
import re
import sqlite3
import struct

SOURCE = pathlib.Path(__file__).resolve().parent.parent
KEYS = re.findall(r'"(com\.[^"]+)"', (SOURCE / "platform/host/known_keys.h").read_text())
ON_PORT, ON_SWITCH = "com.talpex.vswitch.port.", "com.talpex.vswitch."
VLAN, FILTER, MIRROR = ON_PORT + "vlan", ON_PORT + "extraEthFRP", ON_PORT + "mirrorSessions"
LEARNING, PORT_LEARNING = ON_SWITCH + "macLearning", ON_PORT + "macManagement"
UPLINK_NAMES, UPLINK_IDS = "com.talpex.common.uplinkPorts", "com.talpex.common.host.uplinkPorts"
PORTSET = "com.talpex.common.host.portset"
LISTED = {b"learning": PORT_LEARNING, b"mirrored": MIRROR, b"sink": FILTER}
FREE_NUMBERS = b"number\0\xff\xff\xff\xff\0"


def read_rows(host):
    """All rows of the database, but for the kernel numbers that are free, which are no difference between hosts."""
    database = sqlite3.connect(f"file:{host}/host.db?mode=ro", uri=True)
    rows = dict(database.execute("SELECT key, value FROM kv"))
    database.close()
    return {key: value for key, value in rows.items() if not key.startswith(FREE_NUMBERS)}


def fields_of(key, value):
    """A record by those of its fields that a command may name."""
    if key == VLAN:
        flags, vlan = struct.unpack_from("<HH", value)
        return {"trunk": flags & 1, "option": flags & 2, "priority": flags & 4, "id": vlan, "ranges": value[6:]}
    if key == LEARNING:
        return {"aging": int.from_bytes(value[:3], "little"), "policy-byte": value[3],
                "limit": int.from_bytes(value[4:], "little")}
    if key == PORT_LEARNING:
        return dict(zip(("learning", "flood", "limit", "at-limit"), struct.unpack_from("<BBII", value, 1)))
    return {"": value}


@functools.lru_cache(100000)
def properties(bundle):
    """{(key, field): value} of a switch or port."""
    at, found = 16, {}

    def number():
        nonlocal at
        value = shift = 0
        while True:
            byte, at = bundle[at], at + 1
            value, shift = value | (byte & 127) << shift, shift + 7
            if byte < 128:
                return value

    def text():
        nonlocal at
        length = number()
        at += length
        return bundle[at - length:at]

    while at < len(bundle) - 4:
        code, at = bundle[at], at + 1
        key = KEYS[code - 1] if code else text().decode()
        found[key, "flags"] = number()
        found.update({(key, field): value for field, value in fields_of(key, text()).items()})
    return found


def describe(rows):
    """{(switch, port, what, field): value}. A switch goes by its alias, one without an alias by its id."""
    alias = {value: key[6:].decode() for key, value in rows.items() if key.startswith(b"alias\0")}
    portsets, there = {}, {}

    def switch_of(switch_id):
        return alias.get(switch_id, "id " + switch_id.decode())

    def of_portset(name):
        return portsets.get(name, "portset " + name.decode())

    for key, row in sorted(rows.items()):  # "host" comes before "run"
        kind, _, rest = key.partition(b"\0")
        first, _, last = rest.partition(b"\0")
        run = first if kind == b"run" else None
        if run:
            first, _, last = last.partition(b"\0")
        if kind in (b"global", b"host"):
            found = properties(row)
            there.update({(switch_of(first), "", *what): value for what, value in found.items()})
            portsets.update({found[what][:-1]: switch_of(first) for what in found.keys() & {(PORTSET, "")}})
        elif kind == b"switch":
            there[switch_of(first), "", "switch", first.decode()] = row
        elif kind == b"walk":
            there[switch_of(last), "", "walk", first] = row
        elif kind == b"port":
            place = (switch_of(first), last.decode())
            there[(*place, "port", "")] = row[:4]
            there.update({(*place, *what): value for what, value in properties(row[4:]).items()})
        elif kind == b"number":
            switch, port = row.split(b"\0")
            there[switch_of(switch), port.decode(), "number", rest] = b""
        elif kind == b"listed":
            policy, port = last.split(b"\0")
            there[switch_of(first), port.decode(), LISTED[policy], "listed"] = row
        elif run == b"portset":
            there[of_portset(first), "", "run portset", ""] = row
        elif run == b"mac":
            there[of_portset(first), last.partition(b"\0")[0].decode(), "mac", last] = row
        elif run == b"bound":
            there[switch_of(first), last.decode(), "nic", "name"] = row
        elif run == b"nic":
            name = first[1:].decode()
            switch, port = (field.split(b"\0")[0] for field in (row[56:120], row[120:168]))
            place = (switch_of(switch), port.decode(), "nic") if port else ("", "", "free nic")
            there.update({(*place, name): row[:6] + row[7:16] + row[20:], (*place, "up of " + name): row[6],
                          (*place, "mtu of " + name): row[16:20]})
        elif kind not in (b"alias", b"numbers") and run not in (b"demand", b"free"):  # which follow from the others
            there["", "", "row", key] = row
    return there


class Host:
    """A description, and what is asked of it most."""

    def __init__(self, rows):
        self.rows, self.there = rows, describe(rows)
        self.ids = {place[0]: place[3] for place in self.there if place[2] == "switch"}
        self.switches = sorted(self.ids)

    def portset(self, switch):
        return self.there.get((switch, "", PORTSET, ""), b"\0")[:-1].decode()

    def ports(self, switch):
        return [place[1] for place in self.there if place[0] == switch and place[2] == "port"]

    def uplinks(self, switch):
        entries = self.there.get((switch, "", UPLINK_IDS, ""), b"\0\0\0\0")[4:]
        return [entries[at:at + 48].split(b"\0")[0].decode() for at in range(0, len(entries), 48)]

    def nics(self, switch):
        """{NIC: its port}"""
        return {value.decode(): place[1] for place, value in self.there.items()
                if place[0] == switch and place[2:] == ("nic", "name")}

    def differences(self, other):
        places = self.there.keys() | other.there.keys()
        return sorted((place for place in places if self.there.get(place) != other.there.get(place)), key=repr)
