"""Code that `mypy --strict` must accept, and faults that it must find: an unused "ignore" is an error."""

from vswitchctl import (BadParam, DriverList, EthFilter, Exists, FilterRule, Host, MirrorSession, NoMemory, NotFound,
                        PrivateVlan, Record, Security, Status, StatusError, Switch, Teaming, Vlan, VLANRange,
                        VSDVS_GetMTU, VSDVS_GetPortVLANPolicy, VSDVS_SetPortVLANPolicy, VSZOR_GetUplinks, as_text)


def mtu(alias: str) -> int | None:
    try:
        return VSDVS_GetMTU(alias)
    except (BadParam, Exists, NoMemory, NotFound):
        return None
    except StatusError as error:
        if error.status == Status.BUSY:
            raise SystemExit(f"{error.operation} of {error.arguments['alias']}")
        raise


def trunk(alias: str, port: str, ranges: list[VLANRange]) -> list[VLANRange]:
    VSDVS_SetPortVLANPolicy(alias, port, 0, 3, True, False, ranges)
    (record, stored), _ = VSDVS_GetPortVLANPolicy(alias, port)
    found: Record = record
    return stored if bytes(found) else []


def nics(portset: str) -> list[str]:
    uplinks: DriverList = VSZOR_GetUplinks(portset)
    return [as_text(uplink) for uplink in uplinks]


def vlans(host: Host) -> dict[str, Vlan | None]:
    with host.transaction():
        for switch in host.switches.values():
            switch.mtu = max(switch.mtu, 9000)
            for port in switch.ports.values():
                port.security = Security(lock_address=True)
                port.eth_filter = EthFilter((*port.eth_filter.rules, FilterRule(0x806)))
                port.mirror = (MirrorSession("span", to=(port.id,)),)
                port.teaming = port.override = None
        made: Switch = host.create("made", ports=4)
        made.pvlan = (PrivateVlan(100, 101, "isolated"),)
        made.ls_teaming = {"gold": Teaming("order", ("uplink0",))}
    return {name: port.vlan for name, port in host.switches["lab"].ports.items()}


def mistakes() -> None:
    lab = Host().switches["lab"]
    lab.mtu = "9000"  # type: ignore[assignment]
    lab.ports["port0"].vlan = 100  # type: ignore[assignment]
    lab.ports[0].vlan  # type: ignore[index]
    lab.name = "other"  # type: ignore[misc]
    lab.pvlan = (Teaming(),)  # type: ignore[assignment]
    lab.ports["port0"].security = None  # type: ignore[assignment]
    VSDVS_GetMTU(5)  # type: ignore[arg-type]
    VSDVS_GetMTU(None)  # type: ignore[arg-type]
    VSDVS_GetMTU("lab", 1)  # type: ignore[call-arg]
    VSDVS_GetMTU("lab").upper()  # type: ignore[attr-defined]
