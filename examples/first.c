#include <stdio.h>
#include <vswitchctl.h>

int main(void)
{
    char id[SWITCH_ID_SIZE];
    void *switches = NULL;
    if (VSZOR_GetSwitches(1, &switches) != STATUS_OK) {
        fprintf(stderr, "first: no switch driver answers; start this program with vshost run\n");
        return 1;
    }
    VSZOR_FreeMemory(switches);
    if (DVSAliasToSwitchId("lab", id) == STATUS_OK) {
        fprintf(stderr, "first: switch lab exists already, with id %s\n", id);
        return 1;
    }

    VsStatus status = VSDVS_CreateVSwitch("lab", NULL, NULL, 1, 0, 64, 2, 8);
    if (status == STATUS_OK)
        status = VSDVS_SetPortVLANPolicy("lab", "port0", 100, VLAN_PRIORITY_NONE, 0, 0, NULL, 0);
    printf("switch lab, port0 on VLAN 100: status 0x%08X\n", status);
    return status != STATUS_OK;
}
