"""Commands of vsctl for a random walk: what each may change, whether it must fail, and what a success makes true."""
import dataclasses
import json
import shlex
import typing

from host_description import (FILTER, LEARNING, MIRROR, ON_PORT, ON_SWITCH, PORT_LEARNING, UPLINK_IDS, UPLINK_NAMES,
                              VLAN)

ALIASES = ["lab", "lab2", "prod", "dmz", "edge"]
PORTS = ["port0", "port1", "port2", "uplink0", "uplink1", "a", "b", "u0", "u1"]
UPLINKS = ["u0", "u1", "uplink0", "uplink1"]
CLEAR = "--clear"
# Nouns, policies, where they are stored, and values.
POLICIES = [("port", "nested-vlan", ON_PORT + "vlanNestedTag", ["on", "off", CLEAR]),
            ("port", "block", "com.talpex.common.port.block", ["on", "off"]),
            ("port", "security", ON_PORT + "security", ["--lock-address", "--addressed-only off", CLEAR]),
            ("port", "eth-filter", FILTER, ["--hex " + "ab" * 200, "--rules 'drop any'", CLEAR]),
            ("port", "teaming", ON_PORT + "teaming.policy", ["--algorithm order --failback", CLEAR]),
            ("port", "sink", FILTER, ["on"]),
            ("port", "override", ON_PORT + "teaming.override", ["''", "uplink0", CLEAR]),
            ("port", "tx-uplink", ON_PORT + "txUplink", ["always", CLEAR]),
            ("port", "ls-teaming", ON_PORT + "logicalswitch.teaming", ["gold", "tin", CLEAR]),
            ("switch", "multicast", ON_SWITCH + "multicastFilter", ["legacy", "snooping"]),
            ("switch", "teaming", ON_SWITCH + "teaming", ["--algorithm ip", CLEAR]),
            ("switch", "learn-static", LEARNING + ".learnStatic", ["on", "off", CLEAR])]
HOST_MIRROR = ON_SWITCH + "uplinkMirrorSessions"
FLAGS = ["learning", "flood"]
VLAN_OPTIONS = [{"id": 7}, {"id": 4095}, {"priority": 5}, {"trunk": "7-9,100"}, {"option": "on"}, {"ranges": "1-3"},
                {"id": 8, "priority": 3}]


@dataclasses.dataclass
class Command:
    """The functions take the host before the command, whatever history made it."""
    words: list
    names: typing.Callable  # what it may change: beginnings of places in a description
    wrong: typing.Callable  # it must fail
    result: typing.Callable = lambda host, after: True  # whether the host after it is as the command asks
    stdin: str = None

    def shell(self):
        file = f" <<< {shlex.quote(self.stdin)}" if self.stdin is not None else ""
        return "vsctl " + shlex.join(self.words) + file


# ---- What commands name ----

FREE_NICS = ("", "", "free nic")


def lacks(host, switch, ports=()):
    return switch not in host.switches or not set(ports) <= set(host.ports(switch))


def is_taken(host, alias, identity):
    """Whether there is a switch of this name, id or portset."""
    portset = identity.get("portset", alias)
    return alias in host.switches or identity.get("id") in host.ids.values() or portset in map(host.portset,
                                                                                               host.switches)


def sessions_of(host, place):
    """The names in a list of mirror sessions."""
    value = host.there.get((*place, ""), b"").ljust(12, b"\0")
    count = int.from_bytes(value[8:12], "little")
    return [value[at:at + 32].split(b"\0")[0].decode() for at in range(20, 20 + 232 * count, 232)]


def has_ordinary(host, switch, ports):
    return not (set(host.ports(switch)) - set(host.uplinks(switch))).isdisjoint(ports)


def of_uplinks(switch, ports):
    return [(switch, port) for port in ports] + [(switch, "", UPLINK_NAMES), (switch, "", UPLINK_IDS), FREE_NICS]


def of_mtu(host, switch):
    nics = [(switch, port, "nic", "mtu of " + nic) for nic, port in host.nics(switch).items()]
    keys = ["run portset", "com.talpex.etherswitch.mtu", "com.talpex.vswitch.mtu"]
    return nics + [(switch, "", key) for key in keys]


def of_record(host, place, fields):
    """Fields of a record; all of it when it is new."""
    return [(*place, field) for field in fields] if (*place, "flags") in host.there else [place]


def of_vlan(host, switch, port, fields):
    excluded = ["id", "ranges", "trunk"]  # a port is in one VLAN, or a trunk
    fields = [*fields, *(excluded if set(excluded) & set(fields) else [])]
    priority = [(switch, port, ON_PORT + "priority")] if "priority" in fields else []
    return of_record(host, (switch, port, VLAN), fields) + priority


def of_entry(host, switch, entry):
    """What a switch's entry in a file names."""
    if switch not in host.switches or "absent" in entry:
        return [(switch,)]
    names = of_mtu(host, switch) if "mtu" in entry else []
    if "uplinks" in entry:
        names += of_uplinks(switch, set(entry["uplinks"]) ^ set(host.uplinks(switch)))
    for port, policies in entry["ports"].items():
        if "absent" in policies or port not in host.ports(switch):
            names.append((switch, port))
        if "vlan" in policies:
            names += of_vlan(host, switch, port, policies["vlan"])
        if "mac-learning" in policies:
            names += of_record(host, (switch, port, PORT_LEARNING), ["limit"])
        if "security" in policies:
            names.append((switch, port, ON_PORT + "security"))
    return names


def is_wrong_entry(host, switch, entry):
    if "absent" in entry:
        return False
    if switch not in host.switches:
        return is_taken(host, switch, entry)
    return entry.get("id") == "other" or has_ordinary(host, switch, entry.get("uplinks", []))


def options(fields):
    return [f"--{field}={('off', 'on')[value] if field in FLAGS else value}" for field, value in fields.items()]


# ---- The commands ----


class Generator:
    """Makes commands about a host. Most of their names are there; most that aren't are those of other things."""

    def __init__(self, dice, host):
        self.dice, self.host = dice, host

    def command(self, kinds):
        return self.dice.choices([kind for kind, _ in kinds], [weight for _, weight in kinds])[0](self)

    def switch(self):
        known = self.host.switches
        return self.dice.choice(known if known and self.dice.random() < 0.95 else ALIASES)

    def some(self, names, wrong=()):
        """One to three names in any order, at times a wrong one among them."""
        names = self.dice.sample(names, min(len(names), self.dice.choice([1, 1, 2, 3])))
        if wrong and (not names or self.dice.random() < 0.2):
            names.insert(self.dice.randrange(len(names) + 1), self.dice.choice(sorted(wrong)))
        return names

    def ports(self, switch):
        known = self.host.ports(switch)
        return self.some(known, {*PORTS, "nope"} - set(known))

    def addition(self):
        switch, ports, opaque = self.switch(), self.some(PORTS), self.dice.random() < 0.3
        return Command(["port", "add", switch, ",".join(ports), *["--external-id=x-7"] * opaque],
                       lambda host: [(switch, port) for port in ports],
                       lambda host: lacks(host, switch) or not set(ports).isdisjoint(host.ports(switch)),
                       lambda host, after: not lacks(after, switch, ports))

    def removal(self):
        switch = self.switch()
        ports = self.ports(switch)
        return Command(["port", "remove", switch, ",".join(ports)],
                       lambda host: [(switch, port) for port in ports],
                       lambda host: lacks(host, switch, ports) or not set(ports).isdisjoint(host.uplinks(switch)),
                       lambda host, after: set(ports).isdisjoint(after.ports(switch)))

    def policy(self):
        switch, (noun, policy, key, values) = self.switch(), self.dice.choice(POLICIES)
        ports, value = self.ports(switch) if noun == "port" else [], self.dice.choice(values)
        places = [(switch, port, key) for port in ports or [""]]
        return Command([noun, policy, switch, *([",".join(ports)] if ports else []), *shlex.split(value)],
                       lambda host: places, lambda host: lacks(host, switch, ports),
                       lambda host, after: all(((*place, "flags") in after.there) == (value != CLEAR)
                                               for place in places))

    def vlan(self):
        switch = self.switch()
        ports, fields = self.ports(switch), self.dice.choice(VLAN_OPTIONS)
        return Command(["port", "vlan", switch, ",".join(ports), *options(fields)],
                       lambda host: [name for port in ports for name in of_vlan(host, switch, port, fields)],
                       lambda host: lacks(host, switch, ports),
                       lambda host, after: all(after.there[switch, port, VLAN, "id"] == fields["id"]
                                               for port in ports if "id" in fields))

    def learning(self):
        switch, of_port = self.switch(), self.dice.random() < 0.5
        ports, key = (self.ports(switch)[:1], PORT_LEARNING) if of_port else ([], LEARNING)
        known = ["learning", "flood", "limit"] if of_port else ["aging", "policy-byte", "limit"]
        fields = {field: self.dice.randrange(2 if field in FLAGS else 200) for field in self.some(known)}
        place = (switch, "".join(ports), key)
        return Command(["port" if of_port else "switch", "mac-learning", switch, *ports, *options(fields)],
                       lambda host: of_record(host, place, [*fields, "listed"]),
                       lambda host: lacks(host, switch, ports),
                       lambda host, after: all(after.there[(*place, field)] == fields[field] for field in fields))

    def mtu(self):
        switch, mtu = self.switch(), self.dice.choice([1500, 1600, 9000, 9001])
        return Command(["switch", "mtu", switch, str(mtu)],
                       lambda host: of_mtu(host, switch), lambda host: lacks(host, switch) or mtu > 9000,
                       lambda host, after: after.there[switch, "", "run portset", ""][-4:] == mtu.to_bytes(4, "little"))

    def uplink_addition(self):
        switch, ports = self.switch(), self.some(UPLINKS, ["port0", "a"])
        return Command(["uplink", "add", switch, *ports],
                       lambda host: of_uplinks(switch, ports),
                       lambda host: lacks(host, switch) or not set(ports).isdisjoint([*host.ports(switch),
                                                                                      *host.uplinks(switch)]),
                       lambda host, after: after.uplinks(switch) == host.uplinks(switch) + ports
                       and not lacks(after, switch, ports))

    def uplink_removal(self):
        switch = self.switch()
        listed = self.host.uplinks(switch)
        ports = self.some(listed, {"nope", *self.host.ports(switch)} - set(listed))
        return Command(["uplink", "remove", switch, *ports],
                       lambda host: of_uplinks(switch, ports),
                       lambda host: not set(ports) <= set(host.uplinks(switch)),
                       lambda host, after: after.uplinks(switch) == [port for port in host.uplinks(switch)
                                                                     if port not in ports])

    def uplink_choice(self):
        switch, ports = self.switch(), self.some(UPLINKS, ["port0", "port2", "b"])
        return Command(["uplink", "set", switch, *ports],
                       lambda host: of_uplinks(switch, {*ports, *host.uplinks(switch)}),
                       lambda host: lacks(host, switch) or has_ordinary(host, switch, ports),
                       lambda host, after: after.uplinks(switch) == ports)

    def uplink_clearing(self):
        switch = self.switch()
        return Command(["uplink", "clear", switch],
                       lambda host: of_uplinks(switch, []) + [(switch, port, "nic") for port in host.uplinks(switch)],
                       lambda host: lacks(host, switch), lambda host, after: after.uplinks(switch) == [])

    def uplink_state(self):
        switch, up = self.switch(), self.dice.random() < 0.5
        owner = switch if self.dice.random() < 0.8 else self.switch()
        nic = self.dice.choice([*self.host.nics(owner), "nic99"])

        def place(host):
            return switch, host.nics(switch).get(nic), "nic", "up of " + nic

        return Command(["uplink", "up" if up else "down", switch, nic], lambda host: [place(host)],
                       lambda host: nic not in host.nics(switch), lambda host, after: after.there[place(host)] == up)

    def identity(self):
        """An id and perhaps a portset for a new switch, at times those of another."""
        identity, others = {"id": f"id{self.dice.randrange(1000)}"}, self.host.switches
        if others and self.dice.random() < 0.2:
            identity["id"] = self.host.ids[self.dice.choice(others)]
        if self.dice.random() < 0.4:
            identity["portset"] = self.dice.choice([*ALIASES, "vs0", "vs1", *map(self.host.portset, others)])
        return identity

    def creation(self):
        absent = [alias for alias in ALIASES if alias not in self.host.switches]
        alias = self.dice.choice(absent if absent and self.dice.random() < 0.85 else ALIASES)
        identity, uplinks, ports = self.identity(), self.dice.randrange(3), self.dice.randrange(4)
        made = [f"port{index}" for index in range(ports)] + [f"uplink{index}" for index in range(uplinks)]
        return Command(["switch", "create", alias, *options(identity), f"--uplinks={uplinks}", f"--ports={ports}"],
                       lambda host: [(alias,), FREE_NICS], lambda host: is_taken(host, alias, identity),
                       lambda host, after: after.ids[alias] == identity["id"] and sorted(after.ports(alias)) == made)

    def destruction(self):
        switch = self.switch()
        return Command(["switch", "destroy", switch], lambda host: [(switch,), FREE_NICS],
                       lambda host: lacks(host, switch), lambda host, after: switch not in after.switches)

    def any_property(self):
        switch, level = self.switch(), self.dice.choice(["global", "host", "port"])
        value, key = self.dice.choice(["one", "two", None]), "com.example." + level
        ports = self.ports(switch)[:1] if level == "port" else []
        by_id = switch in self.host.switches and self.dice.random() < 0.2
        place = (switch, "".join(ports), key)
        return Command(["property", "set" if value else "clear", *(["--by-id", self.host.ids[switch]] if by_id
                                                                   else [switch]),
                        key, f"--level={level}", *[f"--port={port}" for port in ports],
                        *([f"--text={value}"] if value else [])],
                       lambda host: [place],
                       lambda host: lacks(host, switch, ports) or not value and (*place, "flags") not in host.there,
                       lambda host, after: after.there.get((*place, "")) == (value and value.encode() + b"\0"))

    def mirror(self):
        switch, session = self.switch(), self.dice.choice(["s1", "s2"])
        port = self.dice.choice(self.ports(switch) or ["nope"])
        verb, words = self.dice.choice([("add", [session, "--to", port]), ("remove", [session]), ("clear", [])])

        def places(host):
            if verb == "add":
                return [(switch, "", HOST_MIRROR) if port in host.uplinks(switch) else (switch, port, MIRROR)]
            return [(switch, "", HOST_MIRROR), *((switch, port, MIRROR) for port in host.ports(switch))]

        def is_wrong(host):
            known = [session in sessions_of(host, place) for place in places(host)]
            return lacks(host, switch, [port] * (verb == "add")) or verb != "clear" and any(known) == (verb == "add")

        return Command(["mirror", verb, switch, *words], places, is_wrong,
                       lambda host, after: any(session in sessions_of(after, place) for place in places(host))
                       == (verb == "add") or verb == "clear")

    def private_vlan(self):
        switch, vlan = self.switch(), self.dice.choice([8, 9])
        words = self.dice.choice([["add", switch, "7", f"--isolated={vlan}"], ["remove", switch, str(vlan)],
                                  ["clear", switch]])
        return Command(["pvlan", *words], lambda host: [(switch, "", ON_SWITCH + "pvlanMap")],
                       lambda host: lacks(host, switch))

    def mac(self):
        switch, verb = self.switch(), self.dice.choice(["add", "remove"])
        ports, address = self.ports(switch)[:1], f"02:00:00:00:00:0{self.dice.randrange(3)}"
        return Command(["mac", verb, switch, *ports, f"--address={address}"],
                       lambda host: [(switch, *ports, "mac")], lambda host: lacks(host, switch, ports))

    def batch(self):
        """Lines that have nothing to do with each other."""
        lines = []
        for _ in range(self.dice.choice([2, 3, 5])):
            new, named = self.command(LINES), [name for line in lines for name in line.names(self.host)]
            pairs = [(a, b) for a in named for b in new.names(self.host) if FREE_NICS not in (a, b)]
            if all(a[:len(b)] != b and b[:len(a)] != a for a, b in pairs):
                lines.append(new)
        return Command(["batch", "--allow-removals"],
                       lambda host: [name for line in lines for name in line.names(host)],
                       lambda host: any(line.wrong(host) for line in lines),
                       lambda host, after: all(line.result(host, after) for line in lines),
                       "\n".join(shlex.join(line.words) for line in lines))

    def growth(self):
        """Lines that go on with what the lines before them made."""
        alias, identity = self.dice.choice(ALIASES), self.identity()
        lines = ["switch create @ --uplinks=2 --ports=3 " + shlex.join(options(identity)), "uplink add @ u0",
                 "port vlan @ u0 --priority=3", "switch mtu @ 4000", "uplink remove @ uplink0", "port add @ a",
                 "port security @ a,port1 --lock-address", "port remove @ port0"]
        return Command(["batch", "--allow-removals"],
                       lambda host: [(alias,), FREE_NICS], lambda host: is_taken(host, alias, identity),
                       lambda host, after: after.uplinks(alias) == ["uplink1", "u0"]
                       and sorted(after.ports(alias)) == ["a", "port1", "port2", "u0", "uplink1"],
                       "\n".join(lines).replace("@", alias))

    def file(self):
        entries = {switch: self.entry(switch) for switch in self.dice.sample(ALIASES, self.dice.choice([1, 2]))}
        return Command(["apply", "-", "--allow-removals"],
                       lambda host: [FREE_NICS] + [name for switch, entry in entries.items()
                                                   for name in of_entry(host, switch, entry)],
                       lambda host: any(is_wrong_entry(host, switch, entry) for switch, entry in entries.items()),
                       stdin=json.dumps({"switches": entries}))

    def entry(self, switch):
        """What a file says of a switch."""
        is_new, uplinks = switch not in self.host.switches, self.host.uplinks(switch)
        if not is_new and self.dice.random() < 0.1:
            return {"absent": True}
        entry = self.identity() if is_new else {"id": "other"} if self.dice.random() < 0.05 else {}
        if self.dice.random() < 0.4:
            entry["mtu"] = self.dice.choice([1500, 4000])
        if self.dice.random() < 0.4:
            uplinks = entry["uplinks"] = self.some(UPLINKS, ["port0", "a"])
        kinds = [{}, {"security": {"static-only": True}}, {"vlan": {"id": 9}}, {"vlan": {"priority": 2}},
                 {"mac-learning": {"limit": 4}}]
        entry["ports"] = {port: self.dice.choice(kinds + [{"absent": True}] * (port not in uplinks))
                          for port in self.some(PORTS)}
        return entry


# The kinds of commands, with how often each comes up.
LINES = [(Generator.addition, 6), (Generator.removal, 4), (Generator.policy, 9), (Generator.vlan, 6),
         (Generator.learning, 5), (Generator.mtu, 3), (Generator.uplink_addition, 4), (Generator.uplink_removal, 4),
         (Generator.uplink_choice, 2), (Generator.uplink_clearing, 1), (Generator.uplink_state, 2),
         (Generator.creation, 5), (Generator.destruction, 2), (Generator.any_property, 3)]
KINDS = [*LINES, (Generator.mirror, 3), (Generator.private_vlan, 2), (Generator.mac, 2),
         (Generator.batch, 8), (Generator.growth, 1),
         (Generator.file, 10)]
