"""The records of policies. A field's annotation says how it is packed: a format of `struct`, and the names of its
numbers where it has names."""

import struct
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, fields, is_dataclass
from functools import cache
from typing import Annotated, Any, TypeVar, cast, get_type_hints

from ._library import as_text, encoded

Kind = TypeVar("Kind")

ALGORITHMS = ("port", "source-mac", "ip", "l4", "order")
UPLINKS = 32  # of a teaming policy
UPLINK_NAME = 81  # bytes
POLICY_NAME = 132  # bytes, of a teaming policy that ports name
PORT_ID = 48  # bytes
FILTER_RULES = 24
FILTER_SINK = 0x10000
SETTINGS = 184  # bytes, of a mirror session
VERSION = struct.pack("=I", 1)


@dataclass(frozen=True)
class Vlan:
    """The VLAN policy of a port: in one VLAN (`id`, 0 for untagged), or a trunk of ranges like "100-199" or "300".

    `ranges` are those kept with a port that is not a trunk.
    """

    id: int = 0
    priority: int | None = None
    trunk: tuple[str, ...] = ()
    option: bool = False
    ranges: tuple[str, ...] = ()


@dataclass(frozen=True)
class Security:
    """The security policy of a port."""

    addressed_only: bool = True
    lock_address: bool = False
    static_only: bool = False


@dataclass(frozen=True)
class FilterRule:
    """A rule of an Ethernet filter: `action` is "pass" or "drop", `direction` "both", "from-port" or "to-port".

    It matches frames of `ether_type`, 0 for all.
    """

    ether_type: Annotated[int, "H"] = 0
    direction: Annotated[str, "B", ("both", "from-port", "to-port")] = "both"
    action: Annotated[str, "B4x", ("pass", "drop")] = "drop"

    def __str__(self) -> str:
        words = [self.action, self.direction, f"0x{self.ether_type:04x}" if self.ether_type else "any"]
        return " ".join(word for word in words if word != "both")


@dataclass(frozen=True)
class EthFilter:
    """The Ethernet filter of a port. The first rule that matches a frame decides; without one it passes."""

    rules: tuple[FilterRule, ...] = ()
    sink: bool = False


@dataclass(frozen=True)
class PortLearning:
    """MAC learning of a port; `at_limit` is "drop" or "forward", for frames from further addresses."""

    learning: Annotated[bool, "B"] = False
    flood: Annotated[bool, "B"] = False
    limit: Annotated[int, "I"] = 4096
    at_limit: Annotated[str, "I", ("drop", "forward")] = "drop"


@dataclass(frozen=True)
class SwitchLearning:
    """MAC learning of a switch: seconds until an address is forgotten (0: never), addresses of all its ports."""

    aging: Annotated[int, "3s"] = 600
    policy_byte: Annotated[int, "B"] = 0
    limit: Annotated[int, "I"] = 65536


@dataclass(frozen=True)
class PrivateVlan:
    """A role in a private VLAN; `type` is "promiscuous", "isolated" or "community"."""

    primary: Annotated[int, "H"]
    secondary: Annotated[int, "H"]
    type: Annotated[str, "B3x", ("promiscuous", "isolated", "community")]


@dataclass(frozen=True)
class Teaming:
    """How ports find their uplinks; `algorithm` is "port", "source-mac", "ip", "l4" or "order"."""

    algorithm: Annotated[str, "I", ALGORITHMS] = "port"
    active: tuple[str, ...] = ()
    standby: tuple[str, ...] = ()
    failback: Annotated[bool, "I"] = False
    notify: Annotated[bool, "I"] = False


@dataclass(frozen=True)
class MirrorSession:
    """A session that copies the frames which ports send (`from_`) or get (`received_by`) to the ports `to`.

    Ports are named by their ids, or as "#7" by their number in the kernel. `snap` is the length of a copy (0: all of
    it), every `sampling`-th frame is copied, and `outer_vlan` is the id of a tag around each copy (0: none).
    """

    session: str
    from_: tuple[str, ...] = ()
    received_by: tuple[str, ...] = ()
    to: tuple[str, ...] = ()
    enabled: Annotated[bool, "B"] = True
    strip_tag: Annotated[bool, "B"] = False
    outer_vlan: Annotated[int, "H"] = 0
    snap: Annotated[int, "I"] = 0
    sampling: Annotated[int, "I"] = 1


@dataclass(frozen=True)
class Statistics:
    """What a port has sent (`from_…`) and got (`to_…`), and its frames that were dropped, by the reason."""

    from_packets: Annotated[int, "Q"]
    from_bytes: Annotated[int, "Q"]
    to_packets: Annotated[int, "Q"]
    to_bytes: Annotated[int, "Q"]
    from_multicast: Annotated[int, "Q"]
    from_broadcast: Annotated[int, "Q"]
    to_multicast: Annotated[int, "Q"]
    to_broadcast: Annotated[int, "Q"]
    dropped_blocked: Annotated[int, "Q"]
    dropped_vlan: Annotated[int, "Q"]
    dropped_security: Annotated[int, "Q"]
    dropped_learning_limit: Annotated[int, "Q"]
    dropped_filter: Annotated[int, "Q"]
    dropped_length: Annotated[int, "Q"]
    dropped_flood_limit: Annotated[int, "Q"]
    dropped_not_sent: Annotated[int, "Q"]


# ---- Packing: of the fields whose annotation has a format ----


@dataclass(frozen=True)
class _Field:
    name: str
    kind: type
    format: str
    choices: tuple[str, ...] = ()

    def packed(self, owner: str, value: Any) -> bytes:
        if self.choices and value not in self.choices:
            raise ValueError(f"{owner}.{self.name} must be one of {', '.join(self.choices)}, not {value!r}")
        number = self.choices.index(value) if self.choices else value
        try:
            if self.format.endswith("s"):
                number = number.to_bytes(int(self.format[:-1]), "little")
            return struct.pack("=" + self.format, number)
        except (struct.error, OverflowError, AttributeError) as error:
            raise ValueError(f"{owner}.{self.name} cannot be {value!r}: {error}") from None

    def value(self, owner: str, number: Any) -> Any:
        if self.choices and number >= len(self.choices):
            raise ValueError(f"{owner}.{self.name} is {number}, which has no name")
        if self.choices:
            return self.choices[number]
        return int.from_bytes(number, "little") if isinstance(number, bytes) else self.kind(number)


@cache
def _layout(kind: Any) -> tuple[_Field, ...]:
    hints = get_type_hints(kind, include_extras=True)
    return tuple(_Field(name, hint.__origin__, *hint.__metadata__)
                 for name, hint in hints.items() if hasattr(hint, "__metadata__"))


def _format(kind: Any) -> str:
    return "=" + "".join(field.format for field in _layout(kind))


def pack(record: Any) -> bytes:
    """The packed fields of a record."""
    kind: Any = type(record)
    return b"".join(field.packed(kind.__name__, getattr(record, field.name)) for field in _layout(kind))


def unpack(kind: type[Kind], data: bytes, offset: int = 0, **others: Any) -> Kind:
    """A record of its packed fields and of the other ones."""
    numbers = zip(_layout(cast(Any, kind)), struct.unpack_from(_format(kind), data, offset))
    return kind(**{field.name: field.value(kind.__name__, number) for field, number in numbers}, **others)


def unpack_all(kind: type[Kind], data: bytes) -> tuple[Kind, ...]:
    size = struct.calcsize(_format(kind))
    return tuple(unpack(kind, data, offset) for offset in range(0, len(data), size))


def as_json(value: Any) -> Any:
    """A value as the files of vsctl spell it."""
    if isinstance(value, FilterRule):
        return str(value)
    if is_dataclass(value):
        return {field.name.rstrip("_").replace("_", "-"): as_json(getattr(value, field.name))
                for field in fields(value)}
    if isinstance(value, dict):
        return [{"name": name, **as_json(entry)} for name, entry in value.items()]
    if isinstance(value, tuple):
        return [as_json(entry) for entry in value]
    return "none" if value is None else value


# ---- Records with more than such fields ----


def _fixed(what: str, name: str, size: int) -> bytes:
    data = encoded(what, name)
    if len(data) >= size:
        raise ValueError(f"{what} has at most {size - 1} bytes: {name!r}")
    return data.ljust(size, b"\0")


def teaming_bytes(teaming: Teaming) -> bytes:
    uplinks = (*teaming.active, *teaming.standby)
    if len(uplinks) > UPLINKS:
        raise ValueError(f"a teaming policy has at most {UPLINKS} uplinks")
    names = b"".join(_fixed("the name of an uplink", name, UPLINK_NAME) for name in uplinks)
    counts = struct.pack("=2I", len(teaming.active), len(teaming.standby))
    return VERSION + pack(teaming) + counts + names.ljust(UPLINKS * UPLINK_NAME, b"\0")


def teaming_of(data: bytes, offset: int = 0) -> Teaming:
    active, standby = struct.unpack_from("=2I", data, offset + 16)
    if active + standby > UPLINKS:
        raise ValueError(f"a teaming policy counts {active + standby} uplinks")
    first = offset + 24
    names = [as_text(data[at:at + UPLINK_NAME])
             for at in range(first, first + (active + standby) * UPLINK_NAME, UPLINK_NAME)]
    return unpack(Teaming, data, offset + 4, active=tuple(names[:active]), standby=tuple(names[active:]))


def named_teaming_entries(policies: dict[str, Teaming]) -> list[bytes]:
    return [_fixed("the name of a teaming policy", name, POLICY_NAME) + teaming_bytes(teaming)
            for name, teaming in policies.items()]


def named_teaming_of(entries: Iterable[bytes]) -> dict[str, Teaming]:
    return {as_text(entry[:POLICY_NAME]): teaming_of(entry, POLICY_NAME) for entry in entries}


def security_word(security: Security) -> int:
    return security.addressed_only | security.lock_address << 1 | security.static_only << 2


def security_of(word: int) -> Security:
    return Security(bool(word & 1), bool(word & 2), bool(word & 4))


def filter_bytes(filter: EthFilter) -> bytes:
    if len(filter.rules) > FILTER_RULES:
        raise ValueError(f"an Ethernet filter has at most {FILTER_RULES} rules")
    head = struct.pack("=2I", FILTER_SINK if filter.sink else 0, len(filter.rules))
    return (head + b"".join(map(pack, filter.rules))).ljust(8 + 8 * FILTER_RULES, b"\0")


def filter_of(data: bytes) -> EthFilter:
    flags, count = struct.unpack_from("=2I", data)
    return EthFilter(unpack_all(FilterRule, data[8:8 + 8 * min(count, FILTER_RULES)]), bool(flags & FILTER_SINK))


def mirror_entry(port: str) -> bytes:
    if port.startswith("#") and port[1:].isdigit():
        return bytes(PORT_ID) + int(port[1:]).to_bytes(4, "little")
    return _fixed("the id of a port", port, PORT_ID) + bytes(4)


def mirror_port(entry: bytes) -> str:
    return as_text(entry[:PORT_ID]) or f"#{int.from_bytes(entry[PORT_ID:PORT_ID + 4], 'little')}"


def session_settings(session: MirrorSession) -> bytes:
    return (VERSION + pack(session)).ljust(SETTINGS, b"\0")


def session_of(record: Any, ports: Iterator[bytes]) -> MirrorSession:
    """Takes the session's ports from the iterator, which is where its entries begin."""
    lists = [tuple(mirror_port(next(ports)) for _ in range(count))
             for count in (record.entryCountA, record.entryCountB, record.entryCountC)]
    return unpack(MirrorSession, bytes(record.settings), 4, session=as_text(bytes(record.sessionId)),
                  from_=lists[0], received_by=lists[1], to=lists[2])
