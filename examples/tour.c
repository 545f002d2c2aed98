/*
 * A tour through the library, one verb per run, so that each step can run in its own process:
 *   tour create | show | live | write LOG | check LOG | policies | link UPLINK up|down | destroy
 * On a real host, only `live` differs: it decodes the records of the embedded host's driver.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <vswitch_driver.h>
#include <vswitchctl.h>

#define SWITCH "lab"
#define PORTS 8

static void Require(const char *what, VsStatus status)
{
    if (status == STATUS_OK) return;
    fprintf(stderr, "tour: %s: status 0x%08X\n", what, status);
    exit(1);
}

static void Create(void)
{
    Require("creating the switch", VSDVS_CreateVSwitch(SWITCH, NULL, NULL, 1, 0, 64, 2, PORTS));
    const VLANRange ranges[] = {{100, 199}, {300, 300}};
    Require("VLAN trunk of port0", VSDVS_SetPortVLANPolicy(SWITCH, "port0", 0, 5, 1, 0, ranges, 2));
    const PVLANMapEntry map[] = {{{100, 0, 101, 0, 1}}, {{100, 0, 102, 0, 2}}};
    Require("private VLAN map", VSDVS_SetPrivateVLANMap(SWITCH, map, 2));
    printf("switch %s: 2 uplinks, %d ports; port0 is a trunk of VLANs 100-199,300 with priority 5; "
           "2 private VLANs\n",
           SWITCH, PORTS);
}

static void ShowUplinks(void)
{
    UplinkNameList *names = NULL;
    UplinkPortIdList *ids = NULL;
    Require("uplinks", VSDVS_GetSwitchUplinkPorts(SWITCH, &names, &ids));
    for (uint32_t i = 0; i < ids->count; i++) {
        const UplinkPortId *id = (const UplinkPortId *)(ids + 1) + i;
        uint32_t number = 0;
        Require("port number", VSDVS_DvPortIDToPortID(SWITCH, id->text, &number));
        printf("uplink port %s is kernel port %u\n", id->text, number);
    }
    VSDVS_FreeMemory(names);
    VSDVS_FreeMemory(ids);
}

static void Show(void)
{
    char id[SWITCH_ID_SIZE];
    char portset[PORTSET_NAME_SIZE];
    Require("switch id", DVSAliasToSwitchId(SWITCH, id));
    Require("portset name", DVSAliasToPortsetName(SWITCH, portset));
    printf("switch %s has id %s and portset %s\n", SWITCH, id, portset);
    ShowUplinks();

    PortVLANRecord *vlan = NULL;
    uint32_t priority = 0;
    Require("VLAN policy of port0", VSDVS_GetPortVLANPolicy(SWITCH, "port0", &vlan, &priority));
    const VLANRange *ranges = (const VLANRange *)(vlan + 1);
    printf("port0 is a trunk of");
    for (uint16_t i = 0; i < vlan->rangeCount; i++)
        printf(" %u-%u", ranges[i].first, ranges[i].last);
    printf(", priority %u\n", priority);
    VSDVS_FreeMemory(vlan);

    PVLANMapEntry *map = NULL;
    uint32_t count = 0;
    Require("private VLAN map", VSDVS_GetPrivateVLANMap(SWITCH, &map, &count));
    printf("the private VLAN map has %u entries\n", count);
    VSDVS_FreeMemory(map);
}

static void Live(void)
{
    VSwitchInfo info;
    Require("live switch", VSZOR_GetVSInfo(SWITCH, &info));
    printf("portset %s runs with MTU %u, %u of %u ports in use\n", info.portset, info.mtu, info.usedPorts,
           info.ports);
    void *uplinks = NULL;
    Require("live uplinks", VSZOR_GetUplinks(SWITCH, &uplinks));
    const ZorListHeader *header = uplinks;
    const VSwitchUplink *entries = (const VSwitchUplink *)(header + 1);
    for (uint32_t i = 0; i < header->count; i++) {
        char port[DV_PORT_ID_SIZE];
        uint32_t linkUp = 0;
        Require("link", VSZOR_GetUplinkLinkState(SWITCH, entries[i].name, &linkUp));
        Require("port of the uplink", VSZOR_GetUplinkDVPortID(entries[i].name, port));
        printf("%s carries uplink port %s, link %s\n", entries[i].name, port, linkUp ? "up" : "down");
    }
    VSZOR_FreeMemory(uplinks);
}

static void Link(const char *uplink, const char *state)
{
    const int32_t up = strcmp(state, "up") == 0;
    Require("administrative link state", VSZOR_SetUplinkAdminLinkState(SWITCH, uplink, up));
    printf("%s set %s\n", uplink, up ? "up" : "down");
}

static void MacTable(void)
{
    const VSwitchMacEntry added = {{0x02, 0, 0, 0, 0, 0x17}, VSWITCH_MAC_STATIC, 0, 100, 0, 0};
    ZorMacTableEntry entry;
    memcpy(&entry, &added, sizeof(entry));
    Require("MAC entry", VSZOR_SetPortMACTable(SWITCH, "port0", &entry));
    void *table = NULL;
    Require("MAC table", VSZOR_GetPortMACTable(SWITCH, "port0", VSWITCH_MAC_ANY, &table));
    const ZorListHeader *header = table;
    const VSwitchMacEntry *entries = (const VSwitchMacEntry *)(header + 1);
    for (uint32_t i = 0; i < header->count; i++) {
        printf("MAC table of port0: %02x:%02x:%02x:%02x:%02x:%02x on VLAN %u\n", entries[i].address[0],
               entries[i].address[1], entries[i].address[2], entries[i].address[3], entries[i].address[4],
               entries[i].address[5], entries[i].vlanId);
    }
    VSZOR_FreeMemory(table);
}

static void Policies(void)
{
    const uint32_t security = 3;
    uint32_t mode = 0;
    int32_t mtu = 0;
    Require("port security", VSDVS_SetPortSecurity(SWITCH, "port1", &security));
    Require("sink port", VSDVS_ConfigureSinkPort(SWITCH, "port2", 1));
    Require("transmit uplink", VSDVS_SetTxUplinkAlways(SWITCH, "port3", 1));
    Require("multicast mode", VSDVS_SetMcastFilterMode(SWITCH, MCAST_FILTER_SNOOPING));
    Require("multicast mode of the driver", VSZOR_GetMcastFilterMode(SWITCH, &mode));
    Require("setting the MTU", VSDVS_SetMTU(SWITCH, 9000));
    Require("the MTU in force", VSDVS_GetMTU(SWITCH, &mtu));
    printf("port1 has security flags 3, port2 is a sink port, port3 always has a transmit uplink\n");
    printf("the driver filters multicast by %s; the MTU in force is %d\n",
           mode == MCAST_FILTER_SNOOPING ? "snooping" : "legacy filtering", mtu);
    MacTable();
}

/* Writes VLAN after VLAN to the ports in turn; a line in the log stands for each STATUS_OK. */
static void Write(const char *path)
{
    FILE *log = fopen(path, "w");
    if (!log) exit(1);
    setvbuf(log, NULL, _IONBF, 0);
    for (uint32_t i = 0;; i++) {
        char port[16];
        snprintf(port, sizeof(port), "port%u", i % PORTS);
        Require("writing", VSDVS_SetPortVLANPolicy(SWITCH, port, (uint16_t)(1 + i / PORTS % 4094),
                                                   VLAN_PRIORITY_NONE, 0, 0, NULL, 0));
        fprintf(log, "%u\n", i);
    }
}

/* Every acknowledged write must be stored; one more may be, if the process died before it wrote the log. */
static void Check(const char *path)
{
    FILE *log = fopen(path, "r");
    uint32_t last = 0, acknowledged = 0;
    if (!log) exit(1);
    while (fscanf(log, "%u", &last) == 1)
        acknowledged++;
    fclose(log);
    if (acknowledged <= PORTS) Require("the writer had no time to write", STATUS_FAILURE);
    for (uint32_t i = last + 1 - PORTS; i <= last; i++) {
        char port[16];
        PortVLANRecord *record = NULL;
        uint32_t priority = 0;
        snprintf(port, sizeof(port), "port%u", i % PORTS);
        Require(port, VSDVS_GetPortVLANPolicy(SWITCH, port, &record, &priority));
        const uint16_t written = (uint16_t)(1 + i / PORTS % 4094);
        const uint16_t next = (uint16_t)(1 + (i + PORTS) / PORTS % 4094);
        const int oneMore = i == last + 1 - PORTS && record->vlanId == next;
        if (record->vlanId != written && !oneMore)
            Require("an acknowledged write is missing", STATUS_FAILURE);
        VSDVS_FreeMemory(record);
    }
    printf("all %u acknowledged writes are there\n", acknowledged);
}

int main(int argc, char **argv)
{
    const char *verb = argc > 1 ? argv[1] : "";
    if (strcmp(verb, "create") == 0)
        Create();
    else if (strcmp(verb, "show") == 0)
        Show();
    else if (strcmp(verb, "live") == 0)
        Live();
    else if (strcmp(verb, "policies") == 0)
        Policies();
    else if (strcmp(verb, "write") == 0 && argc == 3)
        Write(argv[2]);
    else if (strcmp(verb, "check") == 0 && argc == 3)
        Check(argv[2]);
    else if (strcmp(verb, "link") == 0 && argc == 4)
        Link(argv[2], argv[3]);
    else if (strcmp(verb, "destroy") == 0) {
        Require("destroying the switch", VSDVS_DestroyVSwitch(SWITCH));
        printf("switch %s is gone\n", SWITCH);
    } else {
        fprintf(stderr,
                "usage: tour create|show|live|policies|write LOG|check LOG|link UPLINK up|down|destroy\n");
        return 2;
    }
    return 0;
}
