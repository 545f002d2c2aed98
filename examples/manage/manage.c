/* manage SWITCH: creates a switch with VLANs and a large MTU, and prints what the host then has. When a step
 * fails, the switch is destroyed. The same program in C, C++ and Python: manage.c, manage.cpp, manage.py. */
#include <stdio.h>
#include <vswitchctl.h>

static VsStatus Configure(const char *alias)
{
    const VLANRange trunk[] = {{200, 299}};
    VsStatus status = VSDVS_SetPortVLANPolicy(alias, "port0", 100, VLAN_PRIORITY_NONE, 0, 0, NULL, 0);
    if (status == STATUS_OK)
        status = VSDVS_SetPortVLANPolicy(alias, "port1", 0, VLAN_PRIORITY_NONE, 1, 0, trunk, 1);
    if (status == STATUS_OK) status = VSDVS_SetMTU(alias, 9000);
    return status;
}

static VsStatus ShowVLAN(const char *alias, const char *port)
{
    PortVLANRecord *record = NULL;
    uint32_t priority = 0;
    VsStatus status = VSDVS_GetPortVLANPolicy(alias, port, &record, &priority);
    if (status != STATUS_OK) return status;
    const VLANRange *range = (const VLANRange *)(record + 1);
    if (record->flags & VLAN_FLAG_TRUNK)
        printf("%s: trunk %u-%u\n", port, range->first, range->last);
    else
        printf("%s: VLAN %u\n", port, record->vlanId);
    VSDVS_FreeMemory(record);
    return STATUS_OK;
}

static VsStatus ShowUplinks(const char *alias)
{
    UplinkNameList *names = NULL;
    UplinkPortIdList *ids = NULL;
    VsStatus status = VSDVS_GetSwitchUplinkPorts(alias, &names, &ids);
    if (status != STATUS_OK) return status;
    const UplinkName *name = (const UplinkName *)(names + 1);
    for (uint32_t i = 0; i < names->count; i++)
        printf("uplink %s\n", name[i].text);
    VSDVS_FreeMemory(names);
    VSDVS_FreeMemory(ids);
    return STATUS_OK;
}

static VsStatus Show(const char *alias)
{
    int32_t mtu = 0;
    VsStatus status = VSDVS_GetMTU(alias, &mtu);
    if (status == STATUS_OK) printf("switch %s: MTU %d\n", alias, mtu);
    if (status == STATUS_OK) status = ShowUplinks(alias);
    if (status == STATUS_OK) status = ShowVLAN(alias, "port0");
    if (status == STATUS_OK) status = ShowVLAN(alias, "port1");
    return status;
}

int main(int argc, char **argv)
{
    const char *alias = argc > 1 ? argv[1] : "office";
    VsStatus status = VSDVS_CreateVSwitch(alias, NULL, NULL, 1, 0, 64, 2, 2);
    if (status == STATUS_OK) {
        status = Configure(alias);
        if (status == STATUS_OK) status = Show(alias);
        if (status != STATUS_OK) VSDVS_DestroyVSwitch(alias);
    }
    if (status != STATUS_OK) fprintf(stderr, "manage: switch %s: status 0x%08X\n", alias, status);
    return status != STATUS_OK;
}
