"""Code that `mypy --strict` must accept, and faults that it must find: an unused "ignore" is an error."""

from vswitchctl import (BadParam, DriverList, Exists, NoMemory, NotFound, Record, Status, StatusError, VLANRange,
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


def mistakes() -> None:
    VSDVS_GetMTU(5)  # type: ignore[arg-type]
    VSDVS_GetMTU(None)  # type: ignore[arg-type]
    VSDVS_GetMTU("lab", 1)  # type: ignore[call-arg]
    VSDVS_GetMTU("lab").upper()  # type: ignore[attr-defined]
