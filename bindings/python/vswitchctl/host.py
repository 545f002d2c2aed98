"""The host as objects: switches, their uplinks and ports, and policies as attributes."""

import ctypes
import json
import subprocess
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any, Callable, Generic, NamedTuple, TypeVar

from . import _library, _operations
from . import records as r
from ._library import Exists, NotFound, StatusError
from ._operations import VLAN_FLAG_OPTION, VLAN_FLAG_PRIORITY, VLAN_FLAG_TRUNK, VLAN_PRIORITY_NONE, VLANRange
from ._status import Status
from .records import (EthFilter, MirrorSession, PortLearning, PrivateVlan, Security, Statistics, SwitchLearning,
                      Teaming, Vlan, as_json)

Value = TypeVar("Value")
Item = TypeVar("Item")

MODES = ("legacy", "snooping")  # by number
TX_UPLINKS = ("normal", "always")
REQUIRED: Any = object()  # stands for the absent value of a policy that has a default or cannot be absent
BLOCK_KEY = "com.talpex.common.port.block"
STATISTICS_KEY = "com.talpex.common.port.statistics"
ALIAS_KEY = "com.talpex.common.alias"


class Missing(NotFound, KeyError):
    """The switch, uplink or port does not exist. The message names it."""

    def __init__(self, message: str):
        super().__init__(int(Status.NOT_FOUND), message)
        self.message = message

    def __str__(self) -> str:
        return self.message

    def __reduce__(self) -> tuple[Any, ...]:
        return type(self), (self.message,)


class PortsNotListed(Exception):
    """This platform cannot list ports; a port that is named by its id works."""


class RecordNotPublished(Exception):
    """This platform keeps a record's layout to itself; the operation that the message names has its bytes."""


class TransactionFailed(Exception):
    """`vsctl apply` refused or undid a transaction: `problem` says what is wrong, `advice` what to try.

    `exit_code` is that of vsctl; with 9 the change is only partly undone.
    """

    def __init__(self, problem: str, advice: str, exit_code: int):
        super().__init__(f"{problem}; {advice}" if advice else problem)
        self.problem, self.advice, self.exit_code = problem, advice, exit_code

    def __reduce__(self) -> tuple[Any, ...]:
        return type(self), (self.problem, self.advice, self.exit_code)


@dataclass(frozen=True)
class Uplink:
    """An uplink of a switch: its name and the id of its port."""

    name: str
    port: str


# ---- The platform's own functions, which other platforms may not have ----


def _platform(function: str) -> Any:
    """A function of the platform's library, or None."""
    _library.library()
    try:
        return getattr(ctypes.CDLL("liborkPublic.so"), function)
    except (OSError, AttributeError):
        return None


class _HostPort(ctypes.Structure):
    _fields_ = [("id", ctypes.c_char * 48), ("number", ctypes.c_uint32), ("isUplink", ctypes.c_uint32),
                ("nic", ctypes.c_char * 32), ("nicMade", ctypes.c_uint32), ("nicMtu", ctypes.c_uint32),
                ("nicAdminUp", ctypes.c_uint32), ("interface", ctypes.c_char * 16), ("properties", ctypes.c_uint64)]


def _listed_ports(switch: str, switch_id: str) -> list[_HostPort]:
    list_ports = _platform("vshost_list_ports")
    if not list_ports:
        raise PortsNotListed(f"the ports of switch {switch!r} cannot be listed on this platform")
    count, capacity = ctypes.c_size_t(), 0
    while True:
        ports = (_HostPort * max(capacity, 1))()
        error = list_ports(switch_id.encode("utf-8", "surrogateescape"), ports, ctypes.c_size_t(capacity),
                           ctypes.byref(count))
        if error:
            raise OSError(error, f"the ports of switch {switch!r} cannot be listed")
        if count.value <= capacity:
            return ports[:count.value]
        capacity = count.value


def _stored_switches() -> list[str]:
    """The ids of all switches, whether or not they run."""
    for_each, id_of = _platform("DVSState_SwitchForEach"), _platform("DVS_SwitchId")
    found: list[str] = []
    if not for_each or not id_of:
        return found
    id_of.restype, id_of.argtypes = ctypes.c_char_p, [ctypes.c_void_p]

    def add(handle: int, context: int) -> int:
        found.append(_library.as_text(id_of(handle)))
        return 0
    for_each(ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)(add), None)
    return found


# ---- Policies ----


class Codec(NamedTuple):
    """From what an operation returns to a value, and from a value to the last arguments of an operation."""

    of: Callable[[Any], Any]
    arguments: Callable[[Any], tuple[Any, ...]]
    is_published: bool = True


def _plain(value: Any) -> tuple[Any, ...]:
    return (value,)


def _named(names: tuple[str, ...]) -> Codec:
    def arguments(value: str) -> tuple[int]:
        if value not in names:
            raise ValueError(f"must be one of {', '.join(names)}, not {value!r}")
        return (names.index(value),)
    return Codec(lambda number: names[number], arguments)


def _record(of: Callable[[Any], Any], to: Callable[[Any], Any]) -> Codec:
    """A record whose layout only hosts of ours publish."""
    return Codec(of, lambda value: (to(value),), False)


def _packed(kind: type) -> Codec:
    return _record(lambda record: r.unpack(kind, bytes(record)), r.pack)


def _range(text: str) -> VLANRange:
    first, _, last = text.partition("-")
    return VLANRange(int(first), int(last or first))


def _vlan_of(stored: Any) -> Vlan:
    (record, stored_ranges), priority = stored
    ranges = tuple(str(v.first) if v.first == v.last else f"{v.first}-{v.last}" for v in stored_ranges)
    is_trunk = bool(record.flags & VLAN_FLAG_TRUNK)
    return Vlan(record.vlanId, priority if record.flags & VLAN_FLAG_PRIORITY else None, ranges if is_trunk else (),
                bool(record.flags & VLAN_FLAG_OPTION), () if is_trunk else ranges)


def _vlan_arguments(vlan: Vlan) -> tuple[Any, ...]:
    priority = VLAN_PRIORITY_NONE if vlan.priority is None else vlan.priority
    return vlan.id, priority, bool(vlan.trunk), vlan.option, [_range(text) for text in vlan.trunk or vlan.ranges]


def _vlan_json(vlan: Any) -> Any:
    return as_json(vlan) | {"trunk": list(vlan.trunk) or "none",
                            "ranges": "none" if vlan.trunk else list(vlan.ranges) or "none"}


def _sessions_of(stored: Any) -> tuple[MirrorSession, ...]:
    _, sessions, entries = stored
    return tuple(r.session_of(session, iter([bytes(entry) for entry in entries[session.firstPortEntry:]]))
                 for session in sessions)


def _sessions_arguments(sessions: tuple[MirrorSession, ...]) -> tuple[Any, ...]:
    stored: list[Any] = []
    entries: list[bytes] = []
    for session in sessions:
        lists = (session.from_, session.received_by, session.to)
        settings = (_operations.MirrorSessionRecord.settings.size * ctypes.c_uint8)(*r.session_settings(session))
        stored.append(_operations.MirrorSessionRecord(_library.encoded("the name of a session", session.session),
                                                      settings, *map(len, lists), len(entries)))
        entries += [r.mirror_entry(port) for ports in lists for port in ports]
    header = _operations.MirrorSessionList(_operations.MIRROR_LIST_MAGIC, _operations.MIRROR_LIST_VERSION,
                                           len(stored), len(entries), 0)
    return ((header, stored, entries),)


PLAIN = Codec(lambda value: value, _plain)
VLAN = Codec(_vlan_of, _vlan_arguments)
SECURITY = _record(r.security_of, r.security_word)
TEAMING = _record(r.teaming_of, r.teaming_bytes)
NAMED_TEAMING = _record(r.named_teaming_of, r.named_teaming_entries)
ETH_FILTER = _record(lambda record: r.filter_of(bytes(record)), r.filter_bytes)
PRIVATE_VLANS = _record(lambda entries: r.unpack_all(PrivateVlan, b"".join(entries)),
                        lambda roles: [r.pack(role) for role in roles])
MIRROR = Codec(_sessions_of, _sessions_arguments, False)
BLOCK = Codec(lambda text: text.rstrip(b"\0") == b"true", lambda value: (b"true\0" if value else b"false\0",))


@dataclass
class _Place:
    """A switch, or one of its ports, as the operations and the files of vsctl name it."""

    host: "Host"
    names: tuple[str, ...]

    def entry(self, changes: dict[str, Any]) -> dict[str, Any]:
        entry: dict[str, Any] = changes["switches"].setdefault(self.names[0], {})
        if len(self.names) == 1:
            return entry
        port: dict[str, Any] = entry.setdefault("ports", {}).setdefault(self.names[1], {})
        return port

    def require(self) -> None:
        """Raises Missing, which names what doesn't exist."""
        switch = self.host.switches[self.names[0]]
        if len(self.names) == 2:
            switch.ports[self.names[1]]


@dataclass
class Policy(Generic[Value]):
    """An attribute of a switch or port that the host keeps. In a transaction a write waits for the end.

    `operations` get, set and, where there is one, clear it; `further` are their arguments behind the names. Deleting
    the attribute clears it, and so does its `absent` value.
    """

    doc: str
    operations: str
    codec: Codec = PLAIN
    absent: Value = REQUIRED
    further: tuple[Any, ...] = ()
    json: Callable[[Value], Any] = as_json
    key: str = ""

    def __set_name__(self, owner: type, name: str) -> None:
        self.__doc__, self.key = self.doc, name.replace("_", "-")

    def call(self, place: _Place, number: int, *values: Any) -> Any:
        name = self.operations.split()[number]
        if not self.codec.is_published and not _platform("vshost_platform"):
            raise RecordNotPublished(f"{self.key} of {'/'.join(place.names)}: this platform keeps the record's "
                                     f"layout to itself; {name} takes and gives its bytes")
        return getattr(_operations, name)(*place.names, *self.further, *values)

    def __get__(self, place: Any, owner: type) -> Value:
        if place is None:
            return self  # type: ignore[return-value]
        try:
            value: Value = self.codec.of(self.call(place, 0))
            return value
        except NotFound:
            place.require()
            if self.absent is REQUIRED:
                raise
            return self.absent

    def __set__(self, place: Any, value: Value) -> None:
        if self.can_clear() and value == self.absent:
            return self.__delete__(place)
        arguments = self.codec.arguments(value)
        if place.host.changes is not None:
            return self.plan(place, self.json(value))
        if "Append" in self.operations:
            self.call(place, 2)
        self.call(place, 1, *arguments)

    def __delete__(self, place: Any) -> None:
        if not self.can_clear():
            raise AttributeError(f"{self.key} of {'/'.join(place.names)} cannot be cleared")
        if place.host.changes is not None:
            return self.plan(place, None)
        try:
            self.call(place, 2)
        except NotFound:
            place.require()

    def can_clear(self) -> bool:
        return len(self.operations.split()) == 3

    def plan(self, place: _Place, value: Any) -> None:
        """Puts it into the transaction; None clears it."""
        entry = place.entry(place.host.changes or {})
        cleared = [key for key in entry.pop("clear", []) if key != self.key] + [self.key] * (value is None)
        entry.pop(self.key, None)
        if value is not None:
            entry[self.key] = value
        if cleared:
            entry["clear"] = cleared


class Port(_Place):
    """A port of a switch. Its policies are attributes."""

    vlan = Policy[Vlan | None](
        "Its VLAN policy, None when it is cleared.",
        "VSDVS_GetPortVLANPolicy VSDVS_SetPortVLANPolicy VSDVS_ClearPortVLANPolicy", VLAN, None, json=_vlan_json)
    security = Policy[Security](
        "Its security policy.", "VSDVS_GetPortSecurity VSDVS_SetPortSecurity", SECURITY)
    nested_vlan = Policy[bool](
        "Whether it sends and gets nested VLAN tags.",
        "VSDVS_GetPortNestedVLANTagging VSDVS_SetPortNestedVLANTagging")
    block = Policy[bool](
        "Whether it sends and gets nothing.", "VSDVS_GetPortProp VSDVS_SetPortProp", BLOCK, False, (BLOCK_KEY,))
    eth_filter = Policy[EthFilter](
        "Its Ethernet filter.", "VSDVS_GetExtraEthFilter VSDVS_SetExtraEthFilter VSDVS_ClearExtraEthFilter", ETH_FILTER,
        EthFilter())
    sink = Policy[bool](
        "Whether it gets unicast to unknown addresses; a bit of its Ethernet filter.",
        "VSDVS_IsSinkPortEnabled VSDVS_ConfigureSinkPort")
    mac_learning = Policy[PortLearning](
        "How it learns addresses.", "VSDVS_GetPortMACLearning VSDVS_SetPortMACLearning", _packed(PortLearning))
    teaming = Policy[Teaming | None](
        "Its teaming policy, where it has one.",
        "VSDVS_GetPortTeamingPolicy VSDVS_SetPortTeamingPolicy VSDVS_ClearPortTeamingPolicy", TEAMING, None)
    override = Policy[str | None](
        "Its teaming override, where it has one.",
        "VSDVS_GetPortTeamingOverride VSDVS_SetPortTeamingOverride VSDVS_ClearPortTeamingOverride", PLAIN, None)
    tx_uplink = Policy[str](
        '"normal" or "always".', "VSDVS_GetTxUplinkAlways VSDVS_SetTxUplinkAlways", _named(TX_UPLINKS), "normal")
    ls_teaming = Policy[str | None](
        "The teaming policy of its switch that it follows, by name.",
        "VSDVS_GetPortLSTeamingPolicyName VSDVS_SetPortLSTeamingPolicy VSDVS_ClearPortLSTeamingPolicy", PLAIN, None)
    mirror = Policy[tuple[MirrorSession, ...]](
        "The mirror sessions that it keeps: those whose first destination it is.",
        "VSDVS_GetDVMirrorSessions VSDVS_AppendDVMirrorSessions VSDVS_ClearDVMirrorSessions", MIRROR, ())

    @property
    def id(self) -> str:
        """Its id."""
        return self.names[1]

    @property
    def number(self) -> int:
        """Its number in the kernel."""
        return _operations.VSDVS_DvPortIDToPortID(*self.names)

    @property
    def statistics(self) -> Statistics:
        """What it has sent and got, on a host of ours."""
        return r.unpack(Statistics, _operations.VSDVS_GetPortProp(self.names[0], self.id, STATISTICS_KEY))


class _Objects(Mapping[str, Item]):
    """Objects by their names."""

    def __init__(self, names: Callable[[], list[str]], make: Callable[[str], Item]):
        self._names, self._make = names, make

    def __iter__(self) -> Iterator[str]:
        return iter(self._names())

    def __len__(self) -> int:
        return len(self._names())

    def __getitem__(self, name: str) -> Item:
        return self._make(name)


class Switch(_Place):
    """A switch. Its policies are attributes; `uplinks` and `ports` are mappings by name."""

    mtu = Policy[int](
        "MTU of the running switch and its uplinks, in bytes.", "VSDVS_GetMTU VSDVS_SetMTU")
    multicast = Policy[str](
        '"legacy" or "snooping".', "VSDVS_GetMcastFilterMode VSDVS_SetMcastFilterMode", _named(MODES))
    mac_learning = Policy[SwitchLearning | None](
        "How its ports learn addresses, where it says so.",
        "VSDVS_GetMACLearning VSDVS_SetMACLearning VSDVS_ClearMACLearning", _packed(SwitchLearning), None)
    learn_static = Policy[bool](
        "Whether static addresses are learned too.",
        "VSDVS_GetLearnStatic VSDVS_SetLearnStatic VSDVS_ClearLearnStatic")
    teaming = Policy[Teaming | None](
        "Its teaming policy, where it has one.",
        "VSDVS_GetTeamingPolicy VSDVS_SetTeamingPolicy VSDVS_ClearTeamingPolicy", TEAMING, None)
    ls_teaming = Policy[dict[str, Teaming]](
        "Teaming policies that ports follow by their names.",
        "VSDVS_GetLSTeamingPolicyTable VSDVS_SetLSTeamingPolicy VSDVS_ClearLSTeamingPolicy", NAMED_TEAMING, {})
    pvlan = Policy[tuple[PrivateVlan, ...]](
        "Its roles in private VLANs.", "VSDVS_GetPrivateVLANMap VSDVS_SetPrivateVLANMap", PRIVATE_VLANS, ())
    mirror = Policy[tuple[MirrorSession, ...]](
        "The mirror sessions whose first destination is an uplink.",
        "VSDVS_GetDVMirrorSessions VSDVS_AppendDVMirrorSessions VSDVS_ClearDVMirrorSessions", MIRROR, (), (None,))

    @property
    def name(self) -> str:
        """Its alias."""
        return self.names[0]

    @property
    def id(self) -> str:
        """Its id in the store."""
        return _operations.DVSAliasToSwitchId(self.name)

    @property
    def portset(self) -> str:
        """The name of the running switch in the kernel."""
        return _operations.DVSAliasToPortsetName(self.name)

    @property
    def running(self) -> bool:
        """Whether it runs. One that does not has its stored configuration alone."""
        try:
            _operations.VSZOR_GetVSInfo(self.portset)
            return True
        except NotFound:
            self.require()
            return False

    @property
    def uplinks(self) -> Mapping[str, Uplink]:
        """Its uplinks by their names."""
        found = self._uplinks()

        def get(name: str) -> Uplink:
            if name not in found:
                raise Missing(f"switch {self.name!r} has no uplink {name!r}")
            return found[name]
        return _Objects(lambda: list(found), get)

    def _uplinks(self) -> dict[str, Uplink]:
        try:
            names, ids = _operations.VSDVS_GetSwitchUplinkPorts(self.name)
        except NotFound:
            return {}
        return {name: Uplink(name, port) for name, port in zip(names, ids)}

    @property
    def ports(self) -> Mapping[str, Port]:
        """Its ports by their ids, uplinks included. Iteration needs a platform that lists ports."""
        return _Objects(lambda: [_library.as_text(port.id) for port in _listed_ports(self.name, self.id)], self._port)

    def _port(self, port: str) -> Port:
        entry = self.host._planned(self.name)
        if port not in (*entry.get("ports", {}), *entry.get("uplinks", ())):
            self.require()
            if not _operations.DVPortExist(self.id, port):
                raise Missing(f"switch {self.name!r} has no port {port!r}")
        return Port(self.host, (self.name, port))

    def add_port(self, id: str, connect_id: int = 1, external_id: str | None = None) -> Port:
        """Adds a port; with an external id, an opaque one."""
        if self.host.changes is not None:
            made: dict[str, Any] = {"connect-id": connect_id} if external_id is None else {"external-id": external_id}
            Port(self.host, (self.name, id)).entry(self.host.changes).update(made)
        elif external_id is None:
            _operations.VSDVS_AddDVPort(self.name, id, connect_id)
        else:
            _operations.VSDVS_AddOpaqueDVPort(self.name, id, external_id)
        return Port(self.host, (self.name, id))

    def remove_port(self, id: str) -> None:
        """Removes a port that is not an uplink."""
        port = self.ports[id]
        if self.host.changes is not None:
            self.entry(self.host.changes).setdefault("ports", {})[id] = {"absent": True}
            return
        _operations.VSDVS_RemoveDVPort(*port.names)

    def add_uplink(self, name: str) -> Uplink:
        """Adds an uplink, whose port has its name."""
        if self.host.changes is not None:
            self._planned_uplinks(self.host.changes).append(name)
        else:
            _operations.VSDVS_AddSwitchUplinkPort(self.name, name)
        return Uplink(name, name)

    def remove_uplink(self, name: str) -> None:
        """Removes an uplink with its port."""
        if self.host.changes is not None:
            planned = self._planned_uplinks(self.host.changes)
            port = name if name in planned else self.uplinks[name].port
            planned.remove(port)
        else:
            _operations.VSDVS_RemoveSwitchUplinkPort(self.name, self.uplinks[name].port)

    def _planned_uplinks(self, changes: dict[str, Any]) -> list[str]:
        entry = self.entry(changes)
        if "uplinks" not in entry:
            entry["uplinks"] = [uplink.port for uplink in self._uplinks().values()]
        uplinks: list[str] = entry["uplinks"]
        return uplinks

    def destroy(self) -> None:
        """Destroys it with all its ports."""
        if self.host.changes is not None:
            self.host.changes["switches"][self.name] = {"absent": True}
            return
        was_running = self.running
        try:
            _operations.VSDVS_DestroyVSwitch(self.name)
        except StatusError:
            # The portset is destroyed last, and a switch that does not run has none.
            if was_running or self.name in self.host.switches:
                raise
        finally:
            _operations.LibraryInit()


class Host:
    """This host. Its argument `vsctl` is the command that makes transactions."""

    def __init__(self, vsctl: str = "vsctl"):
        self.vsctl = vsctl
        self.changes: dict[str, Any] | None = None
        _operations.LibraryInit()

    @property
    def switches(self) -> Mapping[str, Switch]:
        """The switches by their aliases, first those that run."""
        return _Objects(self._aliases, self._switch)

    def _aliases(self) -> list[str]:
        lookups: list[tuple[Callable[[str], str], str]]
        lookups = [(_operations.VSDVS_GetAliasFromPortset, _library.as_text(portset))
                   for portset in _operations.VSZOR_GetSwitches(1)]
        lookups += [(self._alias_of_id, id) for id in _stored_switches()]
        aliases: dict[str, None] = {}  # in order
        for look_up, name in lookups:
            try:
                aliases[look_up(name)] = None
            except NotFound:
                pass  # a portset that runs without a switch
        return list(aliases)

    @staticmethod
    def _alias_of_id(id: str) -> str:
        return _library.as_text(_operations.VSDVS_GetGlobProp(None, ALIAS_KEY, id, False))

    def _switch(self, name: str) -> Switch:
        try:
            if not self._planned(name):
                _operations.DVSAliasToSwitchId(name)
        except NotFound:
            raise Missing(f"there is no switch {name!r}") from None
        return Switch(self, (name,))

    def _planned(self, switch: str) -> dict[str, Any]:
        """What the open transaction says about a switch."""
        entry: dict[str, Any] = (self.changes or {}).get("switches", {}).get(switch, {})
        return entry

    def create(self, name: str, *, uplinks: int = 0, ports: int = 0, max_ports: int = 0, id: str | None = None,
               portset: str | None = None, version: int = 1, opaque: bool = False) -> Switch:
        """Creates a switch with the uplinks uplink0, uplink1, … and the ports port0, port1, …

        Without `id` it gets one of its own, without `portset` the portset has its name, and `max_ports` 0 is the
        library's default.
        """
        if self.changes is None:
            if name in self.switches:
                raise Exists(int(Status.EXISTS), "VSDVS_CreateVSwitch", {"alias": name})
            try:
                _operations.VSDVS_CreateVSwitch(name, id, portset or name, version, opaque, max_ports, uplinks, ports)
            finally:
                _operations.LibraryInit()  # the cache may miss what this process creates
            return Switch(self, (name,))
        if self._planned(name):
            raise ValueError(f"this transaction changes switch {name!r} already")
        given = {"id": id, "portset": portset, "max-ports": max_ports or None}
        self.changes["switches"][name] = {
            "version": version, "opaque": opaque, **{key: value for key, value in given.items() if value is not None},
            "uplinks": [f"uplink{number}" for number in range(uplinks)],
            "ports": {f"port{number}": {} for number in range(ports)}}
        return Switch(self, (name,))

    @contextmanager
    def transaction(self) -> Iterator[None]:
        """All changes within it are made together at its end: all or nothing.

        A read within it gives the value before the transaction. An exception within it discards the changes.
        `vsctl apply` makes them; TransactionFailed says why it did not.
        """
        if self.changes is not None:
            raise RuntimeError("a transaction of this host is open already")
        self.changes = {"switches": {}}
        try:
            yield
            changes = self.changes
        finally:
            self.changes = None
        if changes["switches"]:
            self._apply(changes)

    def _apply(self, changes: dict[str, Any]) -> None:
        done = subprocess.run([self.vsctl, "apply", "-", "--json", "--allow-removals"], input=json.dumps(changes),
                              capture_output=True, text=True)
        _operations.LibraryInit()
        if done.returncode == 0:
            return
        try:
            error = json.loads(done.stderr)["error"]
        except (ValueError, KeyError):
            error = {"problem": done.stderr.strip() or "vsctl failed", "advice": ""}
        raise TransactionFailed(error["problem"], error["advice"], done.returncode)
