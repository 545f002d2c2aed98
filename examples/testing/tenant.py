"""tenant.cpp in Python."""

import vswitchctl as v


def add_tenant(alias, tenant, count, vlan_id):
    """Puts ports of a tenant on a VLAN: all of them or none."""
    added = []
    try:
        for index in range(count):
            v.VSDVS_AddDVPort(alias, f"{tenant}-{index}", 1)
            added.append(f"{tenant}-{index}")
            v.VSDVS_SetPortVLANPolicy(alias, added[-1], vlan_id, v.VLAN_PRIORITY_NONE, False, False, [])
    except v.StatusError:
        for port in reversed(added):
            v.VSDVS_RemoveDVPort(alias, port)
        raise


def live_uplinks(portset):
    names = [v.as_text(entry[:32]) for entry in v.VSZOR_GetUplinks(portset)]
    return [name for name in names if v.VSZOR_GetUplinkLinkState(portset, name)]
