// Calls every operation once over the null platform, and its peer written by hand, so that
// callgrind can count the instructions of each call: one dump a call, named after the operation.
#include <alloca.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <valgrind/callgrind.h>
#include <vector>

#include "by_hand.h"
#include "core/property.h"
#include "null_platform.h"
#include "vswitchctl.h"

namespace {

// libc handles texts at the end of a page in another way.
alignas(64) constexpr char ALIAS[] = "lab";
alignas(64) constexpr char ID[] = "73 77 69 74 63 68 2d 30-30 30 30 30 30 30 30 00";
alignas(64) constexpr char PORT[] = "port0";
alignas(64) constexpr char PORTSET[] = "lab-portset";
alignas(64) constexpr char UPLINK[] = "nic0";
alignas(64) constexpr char KEY[] = "com.talpex.vswitch.port.security";

VsStatus status;
uint32_t word = 1;
uint32_t secondWord;
uint8_t byte;
int32_t mtu;
char text[256];
uint8_t buffer[4096];
uint8_t record[16];
void *list;  // the caller's
void *spare; // to be released
UplinkNameList *names;
UplinkPortIdList *ids;
MirrorSessionList *mirrors;
PortVLANRecord *vlan;
PVLANMapEntry *map;
LSTeamingPolicyTable *table;
PropValueBuffer value;
TeamingPolicy teaming;
ExtraEthFilterRecord filter;
PortMACLearningConfig portLearning;
SwitchMACLearningRecord switchLearning;
ZorMacTableEntry macEntry;
ZorMacLearningProps macProps;
const VLANRange ranges[] = {{1, 100}, {200, 300}};
const PVLANMapEntry mapEntries[4] = {};

struct Uplinks {
    UplinkNameList names = {1};
    UplinkName name = {"uplink0"};
    UplinkPortIdList ids = {1};
    UplinkPortId id = {"uplink0"};
} uplinks;

// Sessions with one port entry each.
std::vector<uint8_t> MirrorList(const char *prefix, uint32_t count)
{
    std::vector<uint8_t> bytes(sizeof(MirrorSessionList) +
                               count * (sizeof(MirrorSessionRecord) + sizeof(MirrorPortEntry)));
    const MirrorSessionList header = {MIRROR_LIST_MAGIC, MIRROR_LIST_VERSION, count, count, 0};
    memcpy(bytes.data(), &header, sizeof(header));
    for (uint32_t i = 0; i < count; i++) {
        MirrorSessionRecord session = {};
        snprintf(session.sessionId, sizeof(session.sessionId), "%s%u", prefix, i);
        session.entryCountA = 1;
        session.firstPortEntry = i;
        memcpy(bytes.data() + sizeof(header) + i * sizeof(session), &session, sizeof(session));
    }
    return bytes;
}

std::vector<uint8_t> storedMirrors;
const std::vector<uint8_t> added = MirrorList("added", 1);
char removed[32];

const MirrorSessionList *AddedMirrors() { return reinterpret_cast<const MirrorSessionList *>(added.data()); }

struct Row {
    const char *operation;
    uint32_t size; // entries in each list that the platform gives
    void (*call)();
    void (*byHand)();
};

// clang-format off
#define NO_STATUS(name, ...) {#name, 1, [] { name(__VA_ARGS__); }, nullptr}
#define ALONE_OF(size, name, ...) {#name, size, [] { status = name(__VA_ARGS__); }, nullptr}
#define ALONE(...) ALONE_OF(1, __VA_ARGS__)
#define PAIR_OF(size, name, ...) \
    {#name, size, [] { status = name(__VA_ARGS__); }, [] { status = Hand_##name(__VA_ARGS__); }}
#define PAIR(...) PAIR_OF(1, __VA_ARGS__)

const Row ROWS[] = {
    NO_STATUS(LibraryInit),
    NO_STATUS(VSDVS_FreeMemory, buffer),
    NO_STATUS(VSZOR_FreeMemory, std::exchange(spare, nullptr)),
    NO_STATUS(Log, "text"),
    NO_STATUS(Warning, "text"),
    NO_STATUS(Panic, "text"),

    PAIR(DVSAliasToSwitchId, ALIAS, text),
    ALONE(DVSAliasToPortsetName, ALIAS, text),
    ALONE(DVSPortsetNameToAlias, PORTSET, text),
    ALONE(VSDVS_GetAliasFromPortset, PORTSET, text),
    NO_STATUS(DVPortExist, ID, PORT),

    ALONE(VSDVS_GetPortProp, ALIAS, PORT, KEY, &value, nullptr, 1),
    ALONE(VSDVS_GetHostProp, ALIAS, KEY, &value, nullptr, 1),
    ALONE(VSDVS_GetGlobProp, ALIAS, KEY, &value, nullptr, 1),
    PAIR(VSDVS_SetPortProp, ALIAS, PORT, KEY, &word, 4, nullptr, 1),
    ALONE(VSDVS_SetHostProp, ALIAS, KEY, &word, 4, nullptr, 1),
    ALONE(VSDVS_SetGlobProp, ALIAS, KEY, &word, 4, nullptr, 1),
    ALONE(VSDVS_ClearPortProp, ALIAS, PORT, KEY, nullptr, 1),
    ALONE(VSDVS_ClearHostProp, ALIAS, KEY, nullptr, 1),
    ALONE(VSDVS_ClearGlobProp, ALIAS, KEY, nullptr, 1),

    ALONE(VSDVS_CreateVSwitch, ALIAS, nullptr, nullptr, 1, 0, 128, 2, 16),
    ALONE(VSDVS_DestroyVSwitch, ALIAS),
    PAIR(VSDVS_AddDVPort, ALIAS, PORT, 1),
    ALONE(VSDVS_AddOpaqueDVPort, ALIAS, PORT, "vif-1"),
    ALONE(VSDVS_RemoveDVPort, ALIAS, PORT),
    ALONE(VSDVS_DvPortIDToPortIDFromDVSID, ID, PORT, &word),
    ALONE(VSDVS_DvPortIDToPortID, ALIAS, PORT, &word),
    ALONE(SetNumSwitchUplinkPortsByUUID, ID, 4),
    ALONE(VSDVS_SetSwitchUplinkPorts, ALIAS, &uplinks.names, &uplinks.ids),
    ALONE(VSDVS_GetSwitchUplinkPorts, ALIAS, &names, &ids),
    ALONE(VSDVS_AddSwitchUplinkPort, ALIAS, "uplink1"),
    ALONE(VSDVS_RemoveSwitchUplinkPort, ALIAS, "uplink0"),
    ALONE(VSDVS_ClearSwitchUplinkPorts, ALIAS),

    ALONE(VSDVS_GetMcastFilterMode, ALIAS, &word),
    ALONE(VSDVS_SetMcastFilterMode, ALIAS, MCAST_FILTER_SNOOPING),
    ALONE(VSDVS_GetDVMirrorSessions, ALIAS, PORT, &mirrors),
    PAIR(VSDVS_AppendDVMirrorSessions, ALIAS, PORT, AddedMirrors()),
    PAIR_OF(100, VSDVS_AppendDVMirrorSessions, ALIAS, PORT, AddedMirrors()),
    PAIR_OF(1000, VSDVS_AppendDVMirrorSessions, ALIAS, PORT, AddedMirrors()),
    ALONE(VSDVS_RemoveDVMirrorSession, ALIAS, PORT, removed),
    ALONE_OF(100, VSDVS_RemoveDVMirrorSession, ALIAS, PORT, removed),
    ALONE_OF(1000, VSDVS_RemoveDVMirrorSession, ALIAS, PORT, removed),
    ALONE(VSDVS_ClearDVMirrorSessions, ALIAS, PORT),
    ALONE(VSDVS_GetPrivateVLANMap, ALIAS, &map, &word),
    ALONE(VSDVS_SetPrivateVLANMap, ALIAS, mapEntries, 4),
    ALONE(VSDVS_GetPortVLANPolicy, ALIAS, PORT, &vlan, &secondWord),
    ALONE(VSDVS_SetPortVLANPolicy, ALIAS, PORT, 0, 3, 1, 0, ranges, 2),
    ALONE(VSDVS_ClearPortVLANPolicy, ALIAS, PORT),
    ALONE(VSDVS_GetPortNestedVLANTagging, ALIAS, PORT, &byte),
    ALONE(VSDVS_SetPortNestedVLANTagging, ALIAS, PORT, 1),
    PAIR(VSDVS_GetPortSecurity, ALIAS, PORT, &word),
    PAIR(VSDVS_SetPortSecurity, ALIAS, PORT, &word),
    ALONE(VSDVS_GetExtraEthFilter, ALIAS, PORT, &filter),
    ALONE(VSDVS_SetExtraEthFilter, ALIAS, PORT, &filter),
    ALONE(VSDVS_ClearExtraEthFilter, ALIAS, PORT),
    ALONE(VSDVS_IsSinkPortEnabled, ALIAS, PORT, &byte),
    ALONE(VSDVS_ConfigureSinkPort, ALIAS, PORT, 1),
    ALONE(VSDVS_GetPortMACLearning, ALIAS, PORT, &portLearning),
    ALONE(VSDVS_SetPortMACLearning, ALIAS, PORT, &portLearning),
    ALONE(VSDVS_GetMACLearning, ALIAS, &switchLearning),
    ALONE(VSDVS_SetMACLearning, ALIAS, &switchLearning),
    ALONE(VSDVS_ClearMACLearning, ALIAS),
    ALONE(VSDVS_GetLearnStatic, ALIAS, &byte),
    ALONE(VSDVS_SetLearnStatic, ALIAS, 1),
    ALONE(VSDVS_ClearLearnStatic, ALIAS),
    ALONE(VSDVS_GetTeamingPolicyFromDVSID, ID, &teaming),
    ALONE(VSDVS_GetTeamingPolicy, ALIAS, &teaming),
    ALONE(VSDVS_SetTeamingPolicy, ALIAS, &teaming),
    ALONE(VSDVS_ClearTeamingPolicy, ALIAS),
    ALONE(VSDVS_GetTxUplinkAlways, ALIAS, PORT, &byte),
    ALONE(VSDVS_SetTxUplinkAlways, ALIAS, PORT, 1),
    ALONE(VSDVS_GetPortTeamingPolicy, ALIAS, PORT, &teaming),
    ALONE(VSDVS_SetPortTeamingPolicy, ALIAS, PORT, &teaming),
    ALONE(VSDVS_ClearPortTeamingPolicy, ALIAS, PORT),
    ALONE(VSDVS_GetPortTeamingOverride, ALIAS, PORT, text),
    ALONE(VSDVS_SetPortTeamingOverride, ALIAS, PORT, "uplink0"),
    ALONE(VSDVS_ClearPortTeamingOverride, ALIAS, PORT),
    ALONE(VSDVS_GetLSTeamingPolicyTableFromDVSID, ID, &table),
    ALONE(VSDVS_GetLSTeamingPolicyTable, ALIAS, &table),
    ALONE(VSDVS_SetLSTeamingPolicy, ALIAS, table),
    ALONE(VSDVS_ClearLSTeamingPolicy, ALIAS),
    ALONE(VSDVS_GetPortLSTeamingPolicyName, ALIAS, PORT, text),
    ALONE(VSDVS_SetPortLSTeamingPolicy, ALIAS, PORT, "gold"),
    ALONE(VSDVS_ClearPortLSTeamingPolicy, ALIAS, PORT),
    ALONE(VSDVS_GetMTU, ALIAS, &mtu),
    ALONE(VSDVS_SetMTU, ALIAS, 9000),

    ALONE(ZORIoctl, ZOR_DEVICE, 4096, reinterpret_cast<ZorRequestHeader *>(record)),
    ALONE(VSZOR_GetSwitches, 1, &list),
    ALONE(VSZOR_GetVSInfo, PORTSET, buffer),
    PAIR(VSZOR_GetUplinks, PORTSET, &list),
    PAIR_OF(100, VSZOR_GetUplinks, PORTSET, &list),
    PAIR_OF(10000, VSZOR_GetUplinks, PORTSET, &list),
    ALONE(VSZOR_GetUplinkLinkState, PORTSET, UPLINK, &word),
    ALONE(VSZOR_GetUplinkLACPLinkState, PORTSET, UPLINK, &word),
    ALONE(VSZOR_SetUplinkAdminLinkState, PORTSET, UPLINK, 1),
    ALONE(VSZOR_GetLAGTable, PORTSET, &list),
    ALONE(VSZOR_PortGetTeamUplinkHint, 1, buffer),
    ALONE(VSZOR_GetUplinkDVPortID, UPLINK, text),
    ALONE(VSZOR_RefreshDevNUMAInfo, PORTSET),
    ALONE(VSZOR_GetPortMACTable, ALIAS, PORT, 0, &list),
    PAIR(VSZOR_SetPortMACTable, ALIAS, PORT, &macEntry),
    ALONE(VSZOR_ClearPortMACTable, ALIAS, PORT, &macEntry),
    ALONE(VSZOR_GetTeamMACTable, ALIAS, 0, &list),
    ALONE(VSZOR_GetPortMACLearningStats, PORT, ALIAS, buffer),
    ALONE(VSZOR_GetGlobalMACLearningProps, &macProps),
    ALONE(VSZOR_SetGlobalMACLearningProps, &macProps),
    ALONE(VSZOR_GetSwitchMACLearningInfo, PORTSET, buffer),
    ALONE(VSZOR_GetMcastFilterMode, PORTSET, &word),
    ALONE(VSZOR_GetMcastFilters, PORTSET, 0, ADDRESS_KIND_IPV4, &list),
    ALONE(VSZOR_GetMcastFilterStats, PORTSET, 0, ADDRESS_KIND_IPV4, record, &list),
    ALONE(VSZOR_GetDVMirrorSessionIDs, ALIAS, &list),
    ALONE(VSZOR_GetDVMirrorSessionStats, ALIAS, "session", buffer),
    ALONE(VSZOR_GetPromiscSessionActiveDsts, ALIAS, &list),
    ALONE(VSZOR_GetRARPStats, PORTSET, buffer),
    ALONE(VSZOR_GetServicePortTeamingStats, PORTSET, buffer),
    ALONE(VSZOR_GetRuntimeOptions, nullptr, 0, &list),
    ALONE(VSZOR_SetRuntimeOptions, record),
    ALONE(VSZOR_GetPortLSTeamingPolicyName, 1, text),
    ALONE(VSZOR_GetLSTeamingPolicyTable, ALIAS, reinterpret_cast<LSTeamingPolicyTable **>(&list)),
    ALONE(VSZOR_RTMOp, record, 1),
};
// clang-format on

void Answer(const Property &property, const void *data, size_t length)
{
    NullPlatform_Answer(property.key, data, static_cast<uint32_t>(length));
}

void AnswerStore()
{
    static const uint8_t ZEROS[sizeof(LSTeamingPolicyTable) + sizeof(LSTeamingPolicyEntry)] = {1};
    static const PortVLANRecord ACCESS_VLAN = {0, 7, 0, 0};
    Answer(SWITCH_ALIAS, ALIAS, sizeof(ALIAS));
    Answer(SWITCH_PORTSET, PORTSET, sizeof(PORTSET));
    Answer(SWITCH_UPLINK_NAMES, &uplinks.names, sizeof(uplinks.names) + sizeof(uplinks.name));
    Answer(HOST_UPLINK_IDS, &uplinks.ids, sizeof(uplinks.ids) + sizeof(uplinks.id));
    Answer(PORT_ALIAS, uplinks.name.text, strlen(uplinks.name.text) + 1);
    Answer(SWITCH_MCAST_FILTER, "snooping", sizeof("snooping"));
    Answer(SWITCH_PVLAN_MAP, mapEntries, sizeof(mapEntries));
    Answer(SWITCH_TEAMING, ZEROS, sizeof(TeamingPolicy));
    Answer(SWITCH_LS_TEAMING, ZEROS, sizeof(ZEROS));
    Answer(HOST_MAC_LEARNING, ZEROS, sizeof(SwitchMACLearningRecord));
    Answer(HOST_LEARN_STATIC, "true", sizeof("true"));
    Answer(PORT_STATUS, ZEROS, 20);
    Answer(PORT_VLAN, &ACCESS_VLAN, sizeof(ACCESS_VLAN));
    Answer(PORT_PRIORITY, ZEROS, sizeof(uint32_t));
    Answer(PORT_NESTED_VLAN, ZEROS, sizeof(uint32_t));
    Answer(PORT_SECURITY, ZEROS, sizeof(uint32_t));
    Answer(PORT_ETH_FILTER, ZEROS, sizeof(ExtraEthFilterRecord));
    Answer(PORT_MAC_MANAGEMENT, ZEROS, 11);
    Answer(PORT_TX_UPLINK, "always", sizeof("always"));
    Answer(PORT_TEAMING, ZEROS, sizeof(TeamingPolicy));
    Answer(PORT_TEAMING_OVERRIDE, "uplink0", sizeof("uplink0"));
    Answer(PORT_LS_TEAMING, "gold", sizeof("gold"));
    NullPlatform_SetShellOutput("1500\n");
}

// Restores the same state before each call.
void Prepare(uint32_t size)
{
    storedMirrors = MirrorList("session", size);
    Answer(PORT_MIRRORS, storedMirrors.data(), storedMirrors.size());
    NullPlatform_SetListCount(size);
    NullPlatform_Reset();
    snprintf(removed, sizeof(removed), "session%u", size / 2);
    free(std::exchange(list, nullptr));
    if (!spare) spare = malloc(64);
    table = nullptr;
    VSDVS_GetLSTeamingPolicyTable(ALIAS, &table);
    word = 1;
    value = {4, buffer};
    memset(record, 0, sizeof(record));
    memset(&filter, 0, sizeof(filter));
    memset(&switchLearning, 0, sizeof(switchLearning));
    memset(&portLearning, 0, sizeof(portLearning));
    NullPlatform_Reset();
}

// The first call warms up, the second one counts. Returns the platform's trace.
uint64_t Measure(const char *dump, uint32_t size, void (*call)())
{
    for (int round = 0; round < 2; round++) {
        Prepare(size);
        status = STATUS_OK;
        CALLGRIND_ZERO_STATS;
        CALLGRIND_TOGGLE_COLLECT;
        call();
        CALLGRIND_TOGGLE_COLLECT;
    }
    CALLGRIND_DUMP_STATS_AT(dump);
    if (status != STATUS_OK) fprintf(stderr, "%s: status 0x%08X\n", dump, status);
    return status == STATUS_OK ? NullPlatform_Trace() : 0;
}

}

int main()
{
    // libc's string functions look at where a text lies in its page: the stack begins at the same place
    // there, however long the environment is.
    constexpr size_t PAGE = 4096;
    *static_cast<volatile char *>(
        alloca(reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) % PAGE + 1)) = 0;
    // Every large list is mapped anew, so that memory freed earlier does not change its cost.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    AnswerStore();
    bool failed = false;
    for (const Row &row : ROWS) {
        std::string name = row.operation;
        if (row.size != 1) name.append("/").append(std::to_string(row.size));
        const uint64_t trace = Measure(name.c_str(), row.size, row.call);
        failed |= trace == 0;
        if (!row.byHand) continue;
        const std::string handName = std::string("Hand_").append(name);
        if (Measure(handName.c_str(), row.size, row.byHand) != trace) {
            fprintf(stderr, "%s: the peer written by hand makes other calls to the platform\n", name.c_str());
            failed = true;
        }
    }
    return failed;
}
