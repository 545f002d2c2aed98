"""Code that `mypy --strict` must accept, and faults that it must find: an unused "ignore" is an error."""

from vswitchctl import (BadParam, DriverList, Exists, Host, NoMemory, NotFound, Record, Security, Status, StatusError,
                        Vlan, VLANRange, VSDVS_GetMTU, VSDVS_GetPortVLANPolicy, VSDVS_SetPortVLANPolicy,
                        VSZOR_GetUplinks, as_text)


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


def vlans(host: Host) -> dict[str, Vlan]:
    with host.transaction():
        for switch in host.switches.values():
            switch.mtu = max(switch.mtu, 9000)
            for port in switch.ports.values():
                port.security = Security(lock_address=True)
    return {name: port.vlan for name, port in host.switches["lab"].ports.items()}


def mistakes() -> None:
    lab = Host().switches["lab"]
    lab.mtu = "9000"  # type: ignore[assignment]
    lab.ports["port0"].vlan = 100  # type: ignore[assignment]
    lab.ports[0].vlan  # type: ignore[index]
    lab.name = "other"  # type: ignore[misc]
    VSDVS_GetMTU(5)  # type: ignore[arg-type]
    VSDVS_GetMTU(None)  # type: ignore[arg-type]
    VSDVS_GetMTU("lab", 1)  # type: ignore[call-arg]
    VSDVS_GetMTU("lab").upper()  # type: ignore[attr-defined]
