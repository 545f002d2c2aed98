// Stored records that another program wrote: uplink lists, mirror lists, VLAN records, tables, status
// records.
#include "tests/fuzz/host.h"

namespace {

constexpr const char *PORT_KEYS[] = {
    "com.talpex.vswitch.port.vlan",           "com.talpex.vswitch.port.priority",
    "com.talpex.vswitch.port.mirrorSessions", "com.talpex.common.port.volatile.status",
    "com.talpex.vswitch.port.teaming.policy", "com.talpex.vswitch.port.teaming.override",
    "com.talpex.vswitch.port.txUplink",       "com.talpex.vswitch.port.logicalswitch.teaming",
    "com.talpex.vswitch.port.macManagement",  "com.talpex.vswitch.port.extraEthFRP",
    "com.talpex.vswitch.port.security",       "com.talpex.common.port.alias"};
constexpr const char *GLOBAL_KEYS[] = {"com.talpex.common.uplinkPorts", "com.talpex.vswitch.pvlanMap",
                                       "com.talpex.vswitch.logicalswitch.teaming",
                                       "com.talpex.vswitch.multicastFilter", "com.talpex.vswitch.teaming"};
constexpr const char *HOST_KEYS[] = {
    "com.talpex.common.host.uplinkPorts", "com.talpex.vswitch.uplinkMirrorSessions",
    "com.talpex.vswitch.macLearning", "com.talpex.vswitch.macLearning.learnStatic"};

template<typename T> void Release(T *buffer)
{
    if (buffer) VSDVS_FreeMemory(buffer);
}

// Reads each byte that the record's own counts promise.
template<typename T> void Touch(const T *data, size_t count)
{
    volatile uint8_t sum = 0;
    for (size_t i = 0; i < count * sizeof(T); i++)
        sum = sum + reinterpret_cast<const uint8_t *>(data)[i];
}

void ReadUplinks()
{
    UplinkNameList *names = nullptr;
    UplinkPortIdList *ids = nullptr;
    if (VSDVS_GetSwitchUplinkPorts(SWITCH, &names, &ids) == STATUS_OK) {
        Touch(reinterpret_cast<UplinkName *>(names + 1), names->count);
        Touch(reinterpret_cast<UplinkPortId *>(ids + 1), ids->count);
    }
    Release(names);
    Release(ids);
    VSDVS_AddSwitchUplinkPort(SWITCH, "added");
    VSDVS_RemoveSwitchUplinkPort(SWITCH, "added");
    VSDVS_RemoveSwitchUplinkPort(SWITCH, "uplink0");
    VSDVS_RemoveDVPort(SWITCH, "added");
}

void ReadMirrors(const char *dvPortId)
{
    MirrorSessionList *list = nullptr;
    if (VSDVS_GetDVMirrorSessions(SWITCH, dvPortId, &list) == STATUS_OK) {
        Touch(list, 1);
        Touch(reinterpret_cast<MirrorSessionRecord *>(list + 1), list->sessionCount);
        char first[33] = {};
        if (list->sessionCount > 0) memcpy(first, list + 1, 32);
        VSDVS_RemoveDVMirrorSession(SWITCH, dvPortId, first);
    }
    Release(list);
    const MirrorSessionList empty = {0, 0, 0, 0, 0};
    VSDVS_AppendDVMirrorSessions(SWITCH, dvPortId, &empty);
}

void ReadPort()
{
    PortVLANRecord *vlan = nullptr;
    uint32_t word = 0;
    uint8_t flag = 0;
    char text[256];
    TeamingPolicy policy;
    PortMACLearningConfig config;
    if (VSDVS_GetPortVLANPolicy(SWITCH, PORT, &vlan, &word) == STATUS_OK)
        Touch(reinterpret_cast<VLANRange *>(vlan + 1), vlan->rangeCount);
    Release(vlan);
    VSDVS_DvPortIDToPortID(SWITCH, PORT, &word);
    VSDVS_GetPortTeamingPolicy(SWITCH, PORT, &policy);
    VSDVS_GetPortTeamingOverride(SWITCH, PORT, text);
    VSDVS_GetPortLSTeamingPolicyName(SWITCH, PORT, text);
    VSDVS_GetTxUplinkAlways(SWITCH, PORT, &flag);
    VSDVS_GetPortMACLearning(SWITCH, PORT, &config);
    VSDVS_GetPortSecurity(SWITCH, PORT, &word);
    VSDVS_ConfigureSinkPort(SWITCH, PORT, 1);
}

void ReadSwitch()
{
    PVLANMapEntry *map = nullptr;
    LSTeamingPolicyTable *table = nullptr;
    TeamingPolicy policy;
    SwitchMACLearningRecord learning;
    uint32_t count = 0;
    uint8_t flag = 0;
    if (VSDVS_GetPrivateVLANMap(SWITCH, &map, &count) == STATUS_OK) Touch(map, count);
    if (VSDVS_GetLSTeamingPolicyTable(SWITCH, &table) == STATUS_OK) Touch(table, 1);
    Release(map);
    Release(table);
    VSDVS_GetTeamingPolicy(SWITCH, &policy);
    VSDVS_GetMcastFilterMode(SWITCH, &count);
    VSDVS_GetMACLearning(SWITCH, &learning);
    VSDVS_GetLearnStatic(SWITCH, &flag);
}

// Two records in one input, so that lists that belong together can disagree.
void Store(Input *input)
{
    const uint8_t level = input->Byte();
    const uint8_t key = input->Byte();
    const Input value = input->Take(size_t{input->Byte()} * 8 + input->Byte() % 8);
    if (level % 3 == 0)
        DVSZOR_PortDataSet(SWITCH, level & 4 ? "uplink0" : PORT, PORT_KEYS[key % std::size(PORT_KEYS)],
                           value.data, value.Length(), 8);
    else if (level % 3 == 1)
        DVSZOR_GlobalPropSet(SWITCH, GLOBAL_KEYS[key % std::size(GLOBAL_KEYS)], value.data, value.Length(),
                             8);
    else
        DVSZOR_HostPropSet(SWITCH, HOST_KEYS[key % std::size(HOST_KEYS)], value.data, value.Length(), 8);
}

}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    StartHostOnce();
    Input input = {data, size};
    Store(&input);
    Store(&input);
    ReadUplinks();
    ReadMirrors(PORT);
    ReadMirrors(nullptr);
    ReadPort();
    ReadSwitch();
    Require(vshost_values_lent() == 0);
    return 0;
}
