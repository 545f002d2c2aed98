"""manage.c in Python: failing statuses are exceptions, lists are lists."""

import sys

import vswitchctl as v


def configure(alias):
    v.VSDVS_SetPortVLANPolicy(alias, "port0", 100, v.VLAN_PRIORITY_NONE, False, False, [])
    v.VSDVS_SetPortVLANPolicy(alias, "port1", 0, v.VLAN_PRIORITY_NONE, True, False, [v.VLANRange(200, 299)])
    v.VSDVS_SetMTU(alias, 9000)


def show(alias):
    print(f"switch {alias}: MTU {v.VSDVS_GetMTU(alias)}")
    for name in v.VSDVS_GetSwitchUplinkPorts(alias)[0]:
        print(f"uplink {name}")
    for port in ("port0", "port1"):
        (record, ranges), _ = v.VSDVS_GetPortVLANPolicy(alias, port)
        trunk = record.flags & v.VLAN_FLAG_TRUNK
        print(f"{port}: " + (f"trunk {ranges[0].first}-{ranges[0].last}" if trunk else f"VLAN {record.vlanId}"))


def main(alias="office"):
    v.VSDVS_CreateVSwitch(alias, None, None, 1, False, 64, 2, 2)
    try:
        configure(alias)
        show(alias)
    except v.StatusError:
        v.VSDVS_DestroyVSwitch(alias)
        raise


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except v.StatusError as error:
        sys.exit(f"manage: {error}")
