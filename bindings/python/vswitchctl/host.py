"""The host as objects: switches, their uplinks and ports, and policies as attributes."""

import ctypes
import json
import struct
import subprocess
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Any, Callable, Generic, TypeVar

from . import _library, _operations
from ._library import NotFound
from ._operations import VLAN_FLAG_OPTION, VLAN_FLAG_PRIORITY, VLAN_FLAG_TRUNK, VLAN_PRIORITY_NONE, VLANRange
from ._status import Status

Value = TypeVar("Value")
Item = TypeVar("Item")

MODES = {_operations.MCAST_FILTER_LEGACY: "legacy", _operations.MCAST_FILTER_SNOOPING: "snooping"}
ALGORITHMS = ("port", "source-mac", "ip", "l4", "order")
UPLINKS = 32  # of a teaming policy
UPLINK_NAME = 81  # bytes
TEAMING = struct.Struct("=6I")  # version, algorithm, fail back, notify, counts of active and standby uplinks


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
class Vlan:
    """The VLAN policy of a port: in one VLAN (`id`, 0 for untagged), or a trunk of ranges like "100-199" or "300"."""

    id: int = 0
    priority: int | None = None
    trunk: tuple[str, ...] = ()
    option: bool = False


@dataclass(frozen=True)
class Security:
    """The security policy of a port."""

    addressed_only: bool = True
    lock_address: bool = False
    static_only: bool = False


@dataclass(frozen=True)
class Teaming:
    """How ports find their uplinks; `algorithm` is "port", "source-mac", "ip", "l4" or "order"."""

    algorithm: str = "port"
    active: tuple[str, ...] = ()
    standby: tuple[str, ...] = ()
    failback: bool = False
    notify: bool = False


@dataclass(frozen=True)
class Uplink:
    """An uplink of a switch: its name and the id of its port."""

    name: str
    port: str


def _range(text: str) -> VLANRange:
    first, _, last = text.partition("-")
    return VLANRange(int(first), int(last or first))


def _read_vlan(switch: str, port: str) -> Vlan:
    (record, ranges), priority = _operations.VSDVS_GetPortVLANPolicy(switch, port)
    trunk = tuple(str(r.first) if r.first == r.last else f"{r.first}-{r.last}" for r in ranges)
    return Vlan(record.vlanId, priority if record.flags & VLAN_FLAG_PRIORITY else None,
                trunk if record.flags & VLAN_FLAG_TRUNK else (), bool(record.flags & VLAN_FLAG_OPTION))


def _write_vlan(switch: str, port: str, vlan: Vlan) -> None:
    priority = VLAN_PRIORITY_NONE if vlan.priority is None else vlan.priority
    _operations.VSDVS_SetPortVLANPolicy(switch, port, vlan.id, priority, bool(vlan.trunk), vlan.option,
                                        [_range(text) for text in vlan.trunk])


def _vlan_json(vlan: Vlan) -> dict[str, Any]:
    return {"id": vlan.id, "priority": "none" if vlan.priority is None else vlan.priority,
            "trunk": list(vlan.trunk) or "none", "option": vlan.option}


def _read_security(switch: str, port: str) -> Security:
    flags = _operations.VSDVS_GetPortSecurity(switch, port)
    return Security(bool(flags & 1), bool(flags & 2), bool(flags & 4))


def _write_security(switch: str, port: str, security: Security) -> None:
    flags = security.addressed_only | security.lock_address << 1 | security.static_only << 2
    _operations.VSDVS_SetPortSecurity(switch, port, flags)


def _security_json(security: Security) -> dict[str, Any]:
    return {"addressed-only": security.addressed_only, "lock-address": security.lock_address,
            "static-only": security.static_only}


def _teaming_of(data: bytes) -> Teaming:
    _, algorithm, failback, notify, active, standby = TEAMING.unpack_from(data)
    names = [_library.as_text(data[at:at + UPLINK_NAME])
             for at in range(TEAMING.size, TEAMING.size + UPLINKS * UPLINK_NAME, UPLINK_NAME)]
    return Teaming(ALGORITHMS[algorithm], tuple(names[:active]), tuple(names[active:active + standby]),
                   bool(failback), bool(notify))


def _teaming_bytes(teaming: Teaming) -> bytes:
    names = [_library.encoded("an uplink", name) for name in (*teaming.active, *teaming.standby)]
    if len(names) > UPLINKS or any(len(name) >= UPLINK_NAME for name in names):
        raise ValueError(f"a teaming policy has at most {UPLINKS} uplinks with names of {UPLINK_NAME - 1} bytes")
    head = TEAMING.pack(1, ALGORITHMS.index(teaming.algorithm), teaming.failback, teaming.notify, len(teaming.active),
                        len(teaming.standby))
    size = TEAMING.size + UPLINKS * UPLINK_NAME
    return (head + b"".join(name.ljust(UPLINK_NAME, b"\0") for name in names)).ljust(size, b"\0")


def _teaming_json(teaming: Teaming) -> dict[str, Any]:
    return {"algorithm": teaming.algorithm, "active": list(teaming.active), "standby": list(teaming.standby),
            "failback": teaming.failback, "notify": teaming.notify}


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


@dataclass
class Policy(Generic[Value]):
    """An attribute of a switch or port that the host keeps. In a transaction a write waits for the end."""

    doc: str
    read: Callable[..., Value]
    write: Callable[..., None]
    json: Callable[[Value], Any] = field(default=lambda value: value)
    key: str = ""

    def __set_name__(self, owner: type, name: str) -> None:
        self.__doc__, self.key = self.doc, name.replace("_", "-")

    def __get__(self, place: Any, owner: type) -> Value:
        if place is None:
            return self  # type: ignore[return-value]
        return self.read(*place.names)

    def __set__(self, place: Any, value: Value) -> None:
        changes = place.host.changes
        if changes is None:
            self.write(*place.names, value)
        else:
            place.entry(changes)[self.key] = self.json(value)


class Port(_Place):
    """A port of a switch. Its policies are attributes."""

    @property
    def id(self) -> str:
        """Its id."""
        return self.names[1]

    @property
    def number(self) -> int:
        """Its number in the kernel."""
        return _operations.VSDVS_DvPortIDToPortID(*self.names)

    vlan = Policy[Vlan]("Its VLAN policy.", _read_vlan, _write_vlan, _vlan_json)
    security = Policy[Security]("Its security policy.", _read_security, _write_security, _security_json)
    nested_vlan = Policy[bool]("Whether it sends and gets nested VLAN tags.",
                               _operations.VSDVS_GetPortNestedVLANTagging, _operations.VSDVS_SetPortNestedVLANTagging)
    sink = Policy[bool]("Whether it gets unicast to unknown addresses.", _operations.VSDVS_IsSinkPortEnabled,
                        _operations.VSDVS_ConfigureSinkPort)
    teaming = Policy[Teaming]("Its teaming policy, where it has one.",
                              lambda *names: _teaming_of(_operations.VSDVS_GetPortTeamingPolicy(*names)),
                              lambda s, p, v: _operations.VSDVS_SetPortTeamingPolicy(s, p, _teaming_bytes(v)),
                              _teaming_json)


class _HostPort(ctypes.Structure):
    _fields_ = [("id", ctypes.c_char * 48), ("number", ctypes.c_uint32), ("isUplink", ctypes.c_uint32),
                ("nic", ctypes.c_char * 32), ("nicMade", ctypes.c_uint32), ("nicMtu", ctypes.c_uint32),
                ("nicAdminUp", ctypes.c_uint32), ("interface", ctypes.c_char * 16), ("properties", ctypes.c_uint64)]


def _port_ids(switch: str, switch_id: str) -> list[str]:
    _library.library()
    try:
        list_ports = ctypes.CDLL("liborkPublic.so").vshost_list_ports
    except (OSError, AttributeError):
        raise PortsNotListed(f"the ports of switch {switch!r} cannot be listed on this platform") from None
    count, capacity = ctypes.c_size_t(), 0
    while True:
        ports = (_HostPort * max(capacity, 1))()
        error = list_ports(switch_id.encode("utf-8", "surrogateescape"), ports, ctypes.c_size_t(capacity),
                           ctypes.byref(count))
        if error:
            raise OSError(error, f"the ports of switch {switch!r} cannot be listed")
        if count.value <= capacity:
            return [_library.as_text(port.id) for port in ports[:count.value]]
        capacity = count.value


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

    mtu = Policy[int]("MTU of the switch and its uplinks, in bytes.", _operations.VSDVS_GetMTU,
                      _operations.VSDVS_SetMTU)
    multicast = Policy[str]('"legacy" or "snooping".',
                            lambda name: MODES[_operations.VSDVS_GetMcastFilterMode(name)],
                            lambda name, mode: _operations.VSDVS_SetMcastFilterMode(
                                name, next(number for number, text in MODES.items() if text == mode)))
    learn_static = Policy[bool]("Whether static addresses are learned too.", _operations.VSDVS_GetLearnStatic,
                                _operations.VSDVS_SetLearnStatic)
    teaming = Policy[Teaming]("Its teaming policy, where it has one.",
                              lambda name: _teaming_of(_operations.VSDVS_GetTeamingPolicy(name)),
                              lambda name, value: _operations.VSDVS_SetTeamingPolicy(name, _teaming_bytes(value)),
                              _teaming_json)

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
        return _Objects(lambda: _port_ids(self.name, self.id), self._port)

    def _port(self, port: str) -> Port:
        if not _operations.DVPortExist(self.id, port):
            raise Missing(f"switch {self.name!r} has no port {port!r}")
        return Port(self.host, (self.name, port))


class Host:
    """This host. Its argument `vsctl` is the command that makes transactions."""

    def __init__(self, vsctl: str = "vsctl"):
        self.vsctl = vsctl
        self.changes: dict[str, Any] | None = None
        _operations.LibraryInit()

    @property
    def switches(self) -> Mapping[str, Switch]:
        """The running switches by their aliases."""
        return _Objects(self._aliases, self._switch)

    def _aliases(self) -> list[str]:
        aliases = []
        for portset in _operations.VSZOR_GetSwitches(1):
            try:
                aliases.append(_operations.VSDVS_GetAliasFromPortset(_library.as_text(portset)))
            except NotFound:
                pass  # a portset that runs without a switch
        return aliases

    def _switch(self, name: str) -> Switch:
        try:
            _operations.DVSAliasToSwitchId(name)
        except NotFound:
            raise Missing(f"there is no switch {name!r}") from None
        return Switch(self, (name,))

    @contextmanager
    def transaction(self) -> Iterator[None]:
        """All writes to attributes within it are made together at its end: all or nothing.

        A read within it gives the value before the transaction. An exception within it discards the writes.
        `vsctl apply` makes the change; TransactionFailed says why it did not.
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
        done = subprocess.run([self.vsctl, "apply", "-", "--json"], input=json.dumps(changes), capture_output=True,
                              text=True)
        if done.returncode == 0:
            return
        try:
            error = json.loads(done.stderr)["error"]
        except (ValueError, KeyError):
            error = {"problem": done.stderr.strip() or "vsctl failed", "advice": ""}
        raise TransactionFailed(error["problem"], error["advice"], done.returncode)
