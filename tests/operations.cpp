#include "tests/operations.h"

#include <algorithm>
#include <cstring>

namespace {

using Kind = Argument::Kind;

constexpr uint8_t FILL = 0xA5;
constexpr size_t GUARD = 16;

template<typename... Parameters, size_t... I>
VsStatus Apply(VsStatus (*function)(Parameters...), const uint64_t *values, std::index_sequence<I...>)
{
    (void)values;
    return function(To<Parameters>(values[I])...);
}

template<typename... Parameters>
Operation Row(const char *name, VsStatus (*function)(Parameters...), std::vector<Argument> arguments,
              const char *calls)
{
    EXPECT_EQ(arguments.size(), sizeof...(Parameters)) << name;
    const auto call = [function](const uint64_t *values) {
        return Apply(function, values, std::index_sequence_for<Parameters...>());
    };
    return {name, call, std::move(arguments), calls};
}

Argument Alias(const char *alias = LAB) { return {Kind::ALIAS, reinterpret_cast<uint64_t>(alias)}; }
Argument Passed(const void *pointer) { return {Kind::OPTIONAL, reinterpret_cast<uint64_t>(pointer)}; }
Argument Out(uint64_t size, Failed failed = Failed::UNTOUCHED) { return {Kind::BUFFER, size, failed}; }
Argument List(Failed failed = Failed::UNTOUCHED) { return {Kind::LIST, sizeof(void *), failed}; }
const Argument VALUE = {Kind::VALUE_BUFFER, 64};

constexpr char BARE[] = "bare", BARE_ID[] = "bare-id";
constexpr uint32_t PORT_NUMBER = 1;
constexpr char KEY[] = "org.example.key";
constexpr TeamingPolicy TEAMING = {{1, 2, 3}};
constexpr PVLANMapEntry PVLANS[2] = {};
constexpr VLANRange RANGES[] = {{1, 10}, {20, 30}};
constexpr uint32_t SECURITY = 3;
constexpr ExtraEthFilterRecord SINK_FILTER = {SINK_PORT_BIT, {}}, FILTER = {1, {}};
constexpr PortMACLearningConfig PORT_LEARNING = {1, 1, 2, 3};
constexpr SwitchMACLearningRecord SWITCH_LEARNING = {{1, 0, 0}, 0, 5};

const MirrorList<1> ONE_SESSION(SESSION), OTHER_SESSION("other");
const MirrorList<2> TWO_SESSIONS(SESSION, "second");

struct [[gnu::packed]] {
    UplinkNameList names = {2};
    UplinkName name[2] = {{"up0"}, {"up1"}};
    UplinkPortIdList ids = {2};
    UplinkPortId id[2] = {{"up0"}, {"up1"}};
} const UPLINKS;

struct LSTable {
    LSTeamingPolicyTable header = {2};
    LSTeamingPolicyEntry entries[2] = {};
} const LS_TABLE;

void RemoveLastButOneUplink() { ASSERT_EQ(VSDVS_RemoveSwitchUplinkPort(LAB, "uplink1"), STATUS_OK); }
void RemoveMcastMode() { Remove(SWITCH_MCAST_FILTER); }

constexpr char SCENARIO[] = R"({
    "portsets": {"lab-portset": {"groups": [{"group": "224.0.0.9", "vlan": 5, "sources": ["10.0.0.1"]}]}},
    "options": {"7": 1}
})";

void PrepareStore()
{
    ASSERT_EQ(CreateLab(), STATUS_OK);
    ASSERT_EQ(VSDVS_CreateVSwitch(BARE, BARE_ID, "bare-portset", 1, 0, 0, 0, 1), STATUS_OK);
    for (const StoreLevel level : {StoreLevel::GLOBAL, StoreLevel::HOST, StoreLevel::PORT})
        Write({KEY, level, GENERIC_FLAGS}, "value");
    Write(SWITCH_MCAST_FILTER, Text("snooping"));
    Write(PORT_MIRRORS, Bytes(TWO_SESSIONS));
    Write(HOST_UPLINK_MIRRORS, Bytes(ONE_SESSION));
    Write(SWITCH_PVLAN_MAP, std::string(8, 'p'));
    Write(PORT_PRIORITY, Bytes(uint32_t{3}));
    Write(PORT_NESTED_VLAN, Bytes(uint32_t{1}));
    Write(PORT_SECURITY, Bytes(uint32_t{1}));
    Write(PORT_ETH_FILTER, Bytes(SINK_FILTER));
    Write(PORT_MAC_MANAGEMENT, std::string(11, 'm'));
    Write(HOST_MAC_LEARNING, std::string(8, 'm'));
    Write(HOST_LEARN_STATIC, Text("true"));
    Write(SWITCH_TEAMING, std::string(2616, 't'));
    Write(PORT_TX_UPLINK, Text("normal"));
    Write(PORT_TEAMING, std::string(2616, 't'));
    Write(PORT_TEAMING_OVERRIDE, Text("stored"));
    Write(SWITCH_LS_TEAMING, Bytes(LS_TABLE));
    Write(PORT_LS_TEAMING, Text("stored"));
}

void PrepareDriver()
{
    ASSERT_EQ(vshost_scenario(SCENARIO), 0) << vshost_error();
    ASSERT_EQ(VSZOR_SetPortMACTable(LAB, PORT, &MAC_ENTRY), STATUS_OK);
    ASSERT_EQ(VSZOR_SetPortMACTable(LAB, "uplink0", &MAC_ENTRY), STATUS_OK);
}

std::vector<Operation> MakeOperations()
{
#define ROW(function, ...) Row(#function, function, __VA_ARGS__)
    const Argument alias = Alias(), bare = Alias(BARE);
    // clang-format off
    return {
        // Start-up, release, hooks
        Row("LibraryInit", +[] { LibraryInit(); return STATUS_OK; }, {}, "StateGet")
            .Ignores("DVSState_ConfigReset").Ignores("DVSZOR_StateGet").Ignores("DVSState_ConfigDeserialize"),
        Row("VSDVS_FreeMemory", +[] { VSDVS_FreeMemory(nullptr); return STATUS_OK; }, {}, ""),
        Row("VSZOR_FreeMemory", +[] { VSZOR_FreeMemory(nullptr); return STATUS_OK; }, {}, ""),
        Row("Log", +[] { Log("%d", 1); return STATUS_OK; }, {}, ""),
        Row("Warning", +[] { Warning("%d", 1); return STATUS_OK; }, {}, ""),
        Row("Panic", +[] { Panic("%d", 1); return STATUS_OK; }, {}, ""),

        // Switch identity
        ROW(DVSAliasToSwitchId, {alias, Out(SWITCH_ID_SIZE)}, ""),
        ROW(DVSAliasToPortsetName, {alias, Out(PORTSET_NAME_SIZE)}, "").Ignores("DVSState_HostPropLookup"),
        ROW(DVSPortsetNameToAlias, {LAB_PORTSET, Out(SWITCH_ALIAS_SIZE)}, "").Ignores("DVSState_SwitchForEach")
            .Ignores("DVSState_HostPropLookup").Ignores("DVSState_GlobalPropLookup"),
        ROW(VSDVS_GetAliasFromPortset, {LAB_PORTSET, Out(SWITCH_ALIAS_SIZE)}, "").Ignores("DVSState_SwitchForEach")
            .Ignores("DVSState_HostPropLookup").Ignores("DVSState_GlobalPropLookup"),
        Row("DVPortExist", +[](const char *switchId, const char *portId) {
            return DVPortExist(switchId, portId) ? STATUS_OK : STATUS_NOT_FOUND;
        }, {Passed(LAB_ID), Passed(PORT)}, "").Except({"DVSState_PortFind", 0, ANY_STATUS, STATUS_NOT_FOUND}),

        // Properties by key
        ROW(VSDVS_GetPortProp, {alias, PORT, KEY, VALUE, nullptr, 1}, "PortDataGet"),
        ROW(VSDVS_GetPortProp, {nullptr, PORT, KEY, VALUE, LAB_ID, 0}, "PortDataGet"),
        ROW(VSDVS_GetHostProp, {alias, KEY, VALUE, nullptr, 1}, "HostPropGet"),
        ROW(VSDVS_GetHostProp, {nullptr, KEY, VALUE, LAB_ID, 0}, "HostPropGet"),
        ROW(VSDVS_GetGlobProp, {alias, KEY, VALUE, nullptr, 1}, "GlobalPropGet"),
        ROW(VSDVS_GetGlobProp, {nullptr, KEY, VALUE, LAB_ID, 0}, "GlobalPropGet"),
        ROW(VSDVS_SetPortProp, {alias, PORT, KEY, Passed("new"), 3, nullptr, 1}, "PortDataSet"),
        ROW(VSDVS_SetPortProp, {nullptr, PORT, KEY, Passed("new"), 3, LAB_ID, 0}, "PortDataSet"),
        ROW(VSDVS_SetHostProp, {alias, KEY, Passed("new"), 3, nullptr, 1}, "HostPropSet"),
        ROW(VSDVS_SetHostProp, {nullptr, KEY, Passed("new"), 3, LAB_ID, 0}, "HostPropSet"),
        ROW(VSDVS_SetGlobProp, {alias, KEY, Passed("new"), 3, nullptr, 1}, "GlobalPropSet"),
        ROW(VSDVS_SetGlobProp, {nullptr, KEY, Passed("new"), 3, LAB_ID, 0}, "GlobalPropSet"),
        ROW(VSDVS_ClearPortProp, {alias, PORT, KEY, nullptr, 1}, "PortDataClear"),
        ROW(VSDVS_ClearPortProp, {nullptr, PORT, KEY, LAB_ID, 0}, "PortDataClear"),
        ROW(VSDVS_ClearHostProp, {alias, KEY, nullptr, 1}, "HostPropClear"),
        ROW(VSDVS_ClearHostProp, {nullptr, KEY, LAB_ID, 0}, "HostPropClear"),
        ROW(VSDVS_ClearGlobProp, {alias, KEY, nullptr, 1}, "GlobalPropClear"),
        ROW(VSDVS_ClearGlobProp, {nullptr, KEY, LAB_ID, 0}, "GlobalPropClear"),

        // Switches
        ROW(VSDVS_CreateVSwitch, {"made", Passed("made-id"), Passed("made-portset"), 1, 0, 64, 2, 2},
            "create SwitchAdd GlobalPropSet GlobalPropSet GlobalPropSet HostPropSet SwitchAssociate "
            "PortAdd PortAdd GlobalPropSet HostPropSet PortAdd PortAdd"),
        ROW(VSDVS_CreateVSwitch, {"made", nullptr, nullptr, 1, 1, 0, 0, 0},
            "create SwitchAdd GlobalPropSet GlobalPropSet GlobalPropSet HostPropSet SwitchAssociate"),
        ROW(VSDVS_DestroyVSwitch, {alias}, "SwitchDissociate SwitchRemove destroy").Remains("DVSZOR_SwitchRemove")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_FAILURE, true}).Remains("destroy"),

        // Distributed ports
        ROW(VSDVS_AddDVPort, {alias, "added", 7}, "PortAdd"),
        ROW(VSDVS_AddOpaqueDVPort, {alias, "added", "external"}, "PortAdd PortDataSet").Remains("DVSZOR_PortDataSet"),
        ROW(VSDVS_RemoveDVPort, {alias, "port1"}, "PortRemove"),
        ROW(VSDVS_DvPortIDToPortIDFromDVSID, {LAB_ID, PORT, Out(4)}, "PortDataGet"),
        ROW(VSDVS_DvPortIDToPortID, {alias, PORT, Out(4)}, "PortDataGet"),

        // Uplink ports
        ROW(SetNumSwitchUplinkPortsByUUID, {BARE_ID, 2}, "PortAdd PortAdd GlobalPropSet HostPropSet"),
        ROW(VSDVS_SetSwitchUplinkPorts, {bare, &UPLINKS.names, &UPLINKS.ids},
            "PortAdd PortAdd GlobalPropSet HostPropSet"),
        ROW(VSDVS_GetSwitchUplinkPorts, {alias, List(Failed::NULLED_LATER), List(Failed::NULLED_LATER)},
            "GlobalPropGet HostPropGet PortDataGet PortDataGet"),
        ROW(VSDVS_AddSwitchUplinkPort, {alias, "added"},
            "GlobalPropGet HostPropGet PortDataGet PortDataGet PortAdd GlobalPropSet HostPropSet").Absent("DVSZOR_GlobalPropGet").Absent("DVSZOR_HostPropGet")
            .Absent("DVSZOR_PortDataGet"),
        ROW(VSDVS_AddSwitchUplinkPort, {bare, "added"}, "GlobalPropGet PortAdd GlobalPropSet HostPropSet").Absent("DVSZOR_GlobalPropGet").Remains("DVSZOR_HostPropSet"),
        ROW(VSDVS_RemoveSwitchUplinkPort, {alias, "uplink1"},
            "GlobalPropGet HostPropGet PortDataGet PortDataGet PortDataGet PortRemove GlobalPropSet HostPropSet")
            .Remains("DVSZOR_GlobalPropSet").Remains("DVSZOR_HostPropSet"),
        ROW(VSDVS_RemoveSwitchUplinkPort, {alias, "uplink0"},
            "GlobalPropGet HostPropGet PortDataGet PortDataGet PortRemove GlobalPropClear HostPropClear")
            .Prepare(RemoveLastButOneUplink).Remains("DVSZOR_GlobalPropClear").Remains("DVSZOR_HostPropClear"),
        ROW(VSDVS_ClearSwitchUplinkPorts, {alias}, "HostPropClear GlobalPropClear")
            .Ignores("DVSZOR_HostPropClear").Ignores("DVSZOR_GlobalPropClear"),

        // Multicast filter mode
        ROW(VSDVS_GetMcastFilterMode, {alias, Out(4)}, "GlobalPropGet").Absent("DVSZOR_GlobalPropGet"),
        ROW(VSDVS_GetMcastFilterMode, {alias, Out(4)}, "GlobalPropGet 4103").Prepare(RemoveMcastMode)
            .Absent("DVSZOR_GlobalPropGet").Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_NOT_FOUND}),
        ROW(VSDVS_SetMcastFilterMode, {alias, MCAST_FILTER_LEGACY}, "GlobalPropSet"),

        // Mirror sessions
        ROW(VSDVS_GetDVMirrorSessions, {alias, Passed(PORT), List()}, "PortDataGet").Unknown(STATUS_FAILURE),
        ROW(VSDVS_GetDVMirrorSessions, {alias, nullptr, List()}, "HostPropGet").Unknown(STATUS_FAILURE),
        ROW(VSDVS_AppendDVMirrorSessions, {alias, Passed(PORT), &OTHER_SESSION}, "PortDataGet PortDataSet")
            .Absent("DVSZOR_PortDataGet"),
        ROW(VSDVS_AppendDVMirrorSessions, {alias, Passed("port1"), &OTHER_SESSION}, "PortDataGet PortDataSet")
            .Absent("DVSZOR_PortDataGet"),
        ROW(VSDVS_AppendDVMirrorSessions, {alias, nullptr, &OTHER_SESSION}, "HostPropGet HostPropSet")
            .Absent("DVSZOR_HostPropGet"),
        ROW(VSDVS_RemoveDVMirrorSession, {alias, Passed(PORT), SESSION}, "PortDataGet PortDataSet"),
        ROW(VSDVS_RemoveDVMirrorSession, {alias, nullptr, SESSION}, "HostPropGet HostPropClear"),
        ROW(VSDVS_ClearDVMirrorSessions, {alias, Passed(PORT)}, "PortDataClear").Absent("DVSZOR_PortDataClear"),
        ROW(VSDVS_ClearDVMirrorSessions, {alias, nullptr}, "HostPropClear").Absent("DVSZOR_HostPropClear"),

        // VLAN policies
        ROW(VSDVS_GetPrivateVLANMap, {alias, List(), Out(4)}, "GlobalPropGet"),
        ROW(VSDVS_SetPrivateVLANMap, {alias, PVLANS, 2}, "GlobalPropSet"),
        ROW(VSDVS_SetPrivateVLANMap, {alias, nullptr, 0}, "GlobalPropClear"),
        ROW(VSDVS_GetPortVLANPolicy, {alias, PORT, List(), Out(4)}, "PortDataGet PortDataGet")
            .Ignores("DVSZOR_PortDataGet", 2),
        ROW(VSDVS_SetPortVLANPolicy, {alias, PORT, 5, 6, 1, 1, RANGES, 2}, "PortDataSet PortDataSet")
            .Remains("DVSZOR_PortDataSet", 2),
        ROW(VSDVS_SetPortVLANPolicy, {alias, PORT, 5, VLAN_PRIORITY_NONE, 1, 0, nullptr, 0},
            "PortDataSet PortDataGet PortDataClear").Ignores("DVSZOR_PortDataGet").Absent("DVSZOR_PortDataClear")
            .Remains("DVSZOR_PortDataClear"),
        ROW(VSDVS_ClearPortVLANPolicy, {alias, PORT}, "PortDataClear PortDataClear").Absent("DVSZOR_PortDataClear")
            .Remains("DVSZOR_PortDataClear", 2),
        ROW(VSDVS_GetPortNestedVLANTagging, {alias, PORT, Out(1)}, "PortDataGet").Absent("DVSZOR_PortDataGet"),
        ROW(VSDVS_SetPortNestedVLANTagging, {alias, PORT, 0}, "PortDataSet"),

        // Port security, extra Ethernet filter, sink port
        ROW(VSDVS_GetPortSecurity, {alias, PORT, Out(4)}, "PortDataGet").Absent("DVSZOR_PortDataGet"),
        ROW(VSDVS_SetPortSecurity, {alias, PORT, &SECURITY}, "PortDataSet"),
        ROW(VSDVS_GetExtraEthFilter, {alias, PORT, Out(sizeof(FILTER))}, "PortDataGet").Unknown(STATUS_FAILURE),
        ROW(VSDVS_SetExtraEthFilter, {alias, PORT, &FILTER}, "PortDataSet"),
        ROW(VSDVS_ClearExtraEthFilter, {alias, PORT}, "PortDataClear").Absent("DVSZOR_PortDataClear"),
        ROW(VSDVS_IsSinkPortEnabled, {alias, PORT, Out(1)}, "PortDataGet").Unknown(STATUS_FAILURE)
            .Absent("DVSZOR_PortDataGet"),
        ROW(VSDVS_ConfigureSinkPort, {alias, PORT, 0}, "PortDataGet PortDataSet").Unknown(STATUS_FAILURE)
            .Absent("DVSZOR_PortDataGet")
            .Except({"DVSState_SwitchFindByAlias", 2, ANY_STATUS, STATUS_NOT_FOUND}),
        ROW(VSDVS_ConfigureSinkPort, {alias, PORT, 1}, "PortDataGet").Unknown(STATUS_FAILURE)
            .Absent("DVSZOR_PortDataGet"),

        // MAC learning
        ROW(VSDVS_GetPortMACLearning, {alias, PORT, Out(10)}, "PortDataGet").Absent("DVSZOR_PortDataGet"),
        ROW(VSDVS_SetPortMACLearning, {alias, PORT, &PORT_LEARNING}, "PortDataGet PortDataSet")
            .Ignores("DVSZOR_PortDataGet"),
        ROW(VSDVS_GetMACLearning, {alias, Out(8)}, "HostPropGet").Absent("DVSZOR_HostPropGet"),
        ROW(VSDVS_SetMACLearning, {alias, &SWITCH_LEARNING}, "HostPropSet"),
        ROW(VSDVS_ClearMACLearning, {alias}, "HostPropClear"),
        ROW(VSDVS_GetLearnStatic, {alias, Out(1)}, "HostPropGet").Absent("DVSZOR_HostPropGet"),
        ROW(VSDVS_SetLearnStatic, {alias, 0}, "HostPropSet"),
        ROW(VSDVS_ClearLearnStatic, {alias}, "HostPropClear"),

        // Teaming policies
        ROW(VSDVS_GetTeamingPolicyFromDVSID, {LAB_ID, Out(sizeof(TEAMING))}, "GlobalPropGet"),
        ROW(VSDVS_GetTeamingPolicy, {alias, Out(sizeof(TEAMING))}, "GlobalPropGet"),
        ROW(VSDVS_SetTeamingPolicy, {alias, &TEAMING}, "GlobalPropSet"),
        ROW(VSDVS_ClearTeamingPolicy, {alias}, "GlobalPropClear").Absent("DVSZOR_GlobalPropClear"),
        ROW(VSDVS_GetTxUplinkAlways, {alias, PORT, Out(1)}, "PortDataGet"),
        ROW(VSDVS_SetTxUplinkAlways, {alias, PORT, 1}, "PortDataSet"),
        ROW(VSDVS_GetPortTeamingPolicy, {alias, PORT, Out(sizeof(TEAMING))}, "PortDataGet"),
        ROW(VSDVS_SetPortTeamingPolicy, {alias, PORT, &TEAMING}, "PortDataSet"),
        ROW(VSDVS_ClearPortTeamingPolicy, {alias, PORT}, "PortDataClear").Absent("DVSZOR_PortDataClear"),
        ROW(VSDVS_GetPortTeamingOverride, {alias, PORT, Out(81, Failed::CLEARED)}, "PortDataGet"),
        ROW(VSDVS_SetPortTeamingOverride, {alias, PORT, "new"}, "PortDataSet"),
        ROW(VSDVS_ClearPortTeamingOverride, {alias, PORT}, "PortDataClear").Absent("DVSZOR_PortDataClear"),

        // Logical-switch teaming
        ROW(VSDVS_GetLSTeamingPolicyTableFromDVSID, {LAB_ID, List()}, "GlobalPropGet"),
        ROW(VSDVS_GetLSTeamingPolicyTable, {alias, List()}, "GlobalPropGet"),
        ROW(VSDVS_SetLSTeamingPolicy, {alias, &LS_TABLE}, "GlobalPropSet"),
        ROW(VSDVS_ClearLSTeamingPolicy, {alias}, "GlobalPropClear").Absent("DVSZOR_GlobalPropClear"),
        ROW(VSDVS_GetPortLSTeamingPolicyName, {alias, PORT, Out(136, Failed::CLEARED)}, "PortDataGet"),
        ROW(VSDVS_SetPortLSTeamingPolicy, {alias, PORT, "new"}, "PortDataSet"),
        ROW(VSDVS_ClearPortLSTeamingPolicy, {alias, PORT}, "PortDataClear").Absent("DVSZOR_PortDataClear"),

        // MTU
        ROW(VSDVS_GetMTU, {alias, Out(4)}, "get")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_FAILURE}),
        ROW(VSDVS_SetMTU, {alias, 9000}, "get ls set set set GlobalPropSet GlobalPropSet")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_FAILURE}).Ignores("DVSZOR_GlobalPropSet", 2)
            .Except({"ls", 0, 1, STATUS_OK}).Except({"ls", 0, VSHOST_SHELL_KILLED, STATUS_OK}),

        // Running switches and uplinks
        Row("ZORIoctl", +[](const char *path) {
            char input[212] = {}, output[9];
            ZorRequestHeader header = {sizeof(input), sizeof(output), reinterpret_cast<uint64_t>(input),
                                       reinterpret_cast<uint64_t>(output)};
            return ZORIoctl(path, 4120, &header);
        }, {ZOR_DEVICE}, "4120"),
        ROW(VSZOR_GetSwitches, {0, List(Failed::NULLED)}, "4126 4126")
            .Except({"request", 1, ANY_STATUS, STATUS_FAILURE}),
        ROW(VSZOR_GetSwitches, {1, List(Failed::NULLED)}, "4126 4126")
            .Except({"request", 1, ANY_STATUS, STATUS_FAILURE}),
        ROW(VSZOR_GetVSInfo, {LAB_PORTSET, Out(208, Failed::CLEARED_BY_REQUEST)}, "4111"),
        ROW(VSZOR_GetUplinks, {LAB_PORTSET, List(Failed::NULLED_LATER)}, "4106 4106"),
        ROW(VSZOR_GetUplinkLinkState, {LAB_PORTSET, NIC, Out(4)}, "4107"),
        ROW(VSZOR_GetUplinkLACPLinkState, {LAB_PORTSET, NIC, Out(4)}, "4108"),
        ROW(VSZOR_SetUplinkAdminLinkState, {LAB_PORTSET, NIC, -1}, "8194"),
        ROW(VSZOR_GetLAGTable, {LAB_PORTSET, List()}, "4109"),
        ROW(VSZOR_PortGetTeamUplinkHint, {PORT_NUMBER, Out(32, Failed::CLEARED_BY_REQUEST)}, "4122"),
        ROW(VSZOR_GetUplinkDVPortID, {NIC, Out(48, Failed::CLEARED_BY_REQUEST)}, "4123"),
        ROW(VSZOR_RefreshDevNUMAInfo, {LAB_PORTSET}, "8198"),

        // MAC tables
        ROW(VSZOR_GetPortMACTable, {alias, PORT, 1, List(Failed::NULLED_LATER)}, "4117 4117"),
        ROW(VSZOR_SetPortMACTable, {alias, PORT, &OTHER_MAC_ENTRY}, "8195"),
        ROW(VSZOR_ClearPortMACTable, {alias, PORT, &MAC_ENTRY}, "8196"),
        ROW(VSZOR_GetTeamMACTable, {alias, 0x101, List(Failed::NULLED_LATER)}, "4118 4118")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_NOT_FOUND}),
        ROW(VSZOR_GetPortMACLearningStats, {PORT, alias, Out(28, Failed::CLEARED_BY_REQUEST)}, "4119"),
        ROW(VSZOR_GetGlobalMACLearningProps, {Out(9)}, "4120"),
        ROW(VSZOR_SetGlobalMACLearningProps, {&LEARNING_PROPS}, "8197"),
        ROW(VSZOR_GetSwitchMACLearningInfo, {LAB_PORTSET, Out(52)}, "4121"),

        // Multicast and mirroring
        ROW(VSZOR_GetMcastFilterMode, {LAB_PORTSET, Out(4)}, "4103"),
        ROW(VSZOR_GetMcastFilters, {LAB_PORTSET, 5, ADDRESS_KIND_IPV4, List(Failed::NULLED_LATER)}, "4104 4104"),
        ROW(VSZOR_GetMcastFilterStats, {LAB_PORTSET, 5, ADDRESS_KIND_IPV4, GROUP, List(Failed::NULLED_LATER)},
            "4105 4105"),
        ROW(VSZOR_GetDVMirrorSessionIDs, {alias, List(Failed::NULLED_LATER)}, "4101 4101")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_NOT_FOUND}),
        ROW(VSZOR_GetDVMirrorSessionStats, {alias, SESSION, Out(121)}, "4102")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_NOT_FOUND}),
        ROW(VSZOR_GetPromiscSessionActiveDsts, {alias, List(Failed::NULLED_LATER)}, "4100 4100")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_NOT_FOUND}),

        // Teaming statistics, runtime options, RTM
        ROW(VSZOR_GetRARPStats, {LAB_PORTSET, Out(16, Failed::CLEARED_BY_REQUEST)}, "4097"),
        ROW(VSZOR_GetServicePortTeamingStats, {LAB_PORTSET, Out(48, Failed::CLEARED_BY_REQUEST)}, "4098"),
        ROW(VSZOR_GetRuntimeOptions, {Passed(OPTION_IDS), 1, List(Failed::NULLED)}, "4099"),
        ROW(VSZOR_GetRuntimeOptions, {nullptr, 0, List(Failed::NULLED)}, "4099"),
        ROW(VSZOR_SetRuntimeOptions, {&OPTIONS}, "8193"),
        ROW(VSZOR_GetPortLSTeamingPolicyName, {PORT_NUMBER, Out(136, Failed::CLEARED_BY_REQUEST)}, "4124"),
        ROW(VSZOR_GetLSTeamingPolicyTable, {alias, List(Failed::NULLED_LATER)}, "4125 4125")
            .Except({"DVSState_HostPropLookup", 0, ANY_STATUS, STATUS_NOT_FOUND}),
        ROW(VSZOR_RTMOp, {&RTM_RECORD, 0x80000001}, "2147483649"),
    };
    // clang-format on
#undef ROW
}

// One argument, and the memory behind it if it is an output.
class Slot {
public:
    Slot(const Argument &argument, const Invocation &invocation, size_t index)
        : argument(argument), isNull(invocation.null == index), value(argument.value)
    {
        if (argument.kind == Kind::ALIAS && invocation.alias)
            value = reinterpret_cast<uint64_t>(invocation.alias);
        if (invocation.replaced && value == reinterpret_cast<uint64_t>(invocation.replaced))
            value = reinterpret_cast<uint64_t>(invocation.text);
        if (!IsOutput()) return;
        memory.assign(argument.value + sizeof(PropValueBuffer) + GUARD, FILL);
        value = reinterpret_cast<uint64_t>(memory.data());
        if (argument.kind == Kind::VALUE_BUFFER) {
            const PropValueBuffer buffer = {static_cast<int32_t>(argument.value),
                                            memory.data() + sizeof(PropValueBuffer)};
            memcpy(memory.data(), &buffer, sizeof(buffer));
        }
        before = memory;
    }

    uint64_t Value() const { return isNull ? 0 : value; }

    void ExpectWritten(void (*release)(void *)) const
    {
        if (!IsOutput()) return;
        EXPECT_NE(memory, before) << "an output is not written";
        EXPECT_TRUE(std::equal(memory.end() - GUARD, memory.end(), before.end() - GUARD))
            << "written beyond its end";
        if (argument.kind == Kind::LIST) release(*reinterpret_cast<void *const *>(memory.data()));
    }

    void ExpectFailed(const Invocation &invocation)
    {
        if (!IsOutput()) return;
        if (!isNull && IsZeroed(invocation)) std::fill_n(before.begin(), argument.value, 0);
        EXPECT_EQ(memory, before) << "an output is not as documented after a failure";
    }

private:
    bool IsOutput() const { return argument.kind >= Kind::BUFFER; }

    bool IsZeroed(const Invocation &invocation) const
    {
        switch (argument.failed) {
        case Failed::UNTOUCHED:
            return false;
        case Failed::CLEARED:
            return true;
        case Failed::CLEARED_BY_REQUEST:
            return !Calls(VSHOST_OPEN).empty();
        case Failed::NULLED:
            return invocation.null == Invocation::NONE;
        case Failed::NULLED_LATER:
            break;
        }
        const std::vector<Call> calls = Calls();
        return std::any_of(calls.begin(), calls.end(), [](const Call &call) {
            return call.outcome == STATUS_OK &&
                   (call.kind == VSHOST_DRIVER || std::string_view(call.operation).ends_with("PropGet"));
        });
    }

    const Argument &argument;
    bool isNull;
    uint64_t value;
    std::vector<uint8_t> memory, before;
};

}

Exception Operation::Expect(const std::string &failed, unsigned nth, uint32_t failing, VsStatus usual) const
{
    Exception expected = {"", 0, failing, failed == "DVSState_SwitchFindByAlias" ? unknownAlias : usual};
    for (const Exception &exception : exceptions) {
        if (failed != exception.call || (exception.nth && exception.nth != nth)) continue;
        if (exception.failing != ANY_STATUS && exception.failing != failing) continue;
        expected.remains = exception.remains;
        if (exception.result != SAME_STATUS) expected.result = exception.result;
        break;
    }
    return expected;
}

const std::vector<Operation> &Operations()
{
    static const std::vector<Operation> operations = MakeOperations();
    return operations;
}

void StartPreparedHost(const Operation &operation)
{
    StartHost();
    PrepareStore();
    PrepareDriver();
    if (operation.prepare) operation.prepare();
}

VsStatus Invoke(const Operation &operation, const Invocation &invocation)
{
    std::vector<Slot> slots;
    std::vector<uint64_t> values;
    for (size_t i = 0; i < operation.arguments.size(); i++) {
        slots.emplace_back(operation.arguments[i], invocation, i);
        values.push_back(slots.back().Value());
    }
    vshost_record(0);
    vshost_record(1);
    const VsStatus status = operation.call(values.data());
    vshost_record(0);
    const auto release = operation.name.starts_with("VSZOR") ? VSZOR_FreeMemory : VSDVS_FreeMemory;
    for (Slot &slot : slots)
        status == STATUS_OK ? slot.ExpectWritten(release) : slot.ExpectFailed(invocation);
    return status;
}

std::string Trace()
{
    std::string trace;
    for (const Call &call : Calls()) {
        std::string_view name = call.operation;
        if (call.kind == VSHOST_STORE && (!name.starts_with("DVSZOR_") || name == "DVSZOR_DataFree"))
            continue;
        if (call.kind == VSHOST_STORE) name.remove_prefix(strlen("DVSZOR_"));
        if (call.kind != VSHOST_STORE && call.kind != VSHOST_SHELL && call.kind != VSHOST_DRIVER) continue;
        if (!trace.empty()) trace += ' ';
        trace += name;
    }
    return trace;
}
