// Random walks over all operations, on a host and on a model of it side by side: each status, each output
// and, time and again, all that is stored and runs must agree to the byte.
//
// A walk is a function of its seed. When one fails, it prints its steps, and the command that takes them
// again.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/model.h"

namespace {

using model::Key;
using model::KEYS;
using model::Model;

constexpr char FILL = '\xA5', FOREIGN[] = "foreign-id";
constexpr size_t GUARD = 16, VALUE_ROOM = 3000;
constexpr unsigned STEPS = 250, STEPS_BETWEEN_CHECKS = 50;

// What an argument is made from.
// clang-format off
enum class From {
    ALIAS, NEW_ALIAS, SWITCH_ID, NEW_SWITCH_ID, PORTSET, NEW_PORTSET, PORT, PORT_OR_NULL, NEW_PORT, NAME, NIC, SESSION,
    DEVICE,
    GLOBAL_KEY, HOST_KEY, PORT_KEY,
    FLAG, FEW, UPLINKS, PORTS, NUMBER, COUNT, MODE, MTU, VLAN_ID, PRIORITY, KIND, SELECTOR, COMMAND, ANY_NUMBER,
    RECORD, SMALL_WORD, DATA, RANGES, PVLANS, IDS, NAMES_LIST, IDS_LIST, MIRRORS, LS_TABLE, MAC, GROUP, LEARNING, OPTIONS,
    RTM,
    OUT, LIST, VALUE, // outputs
};
// clang-format on

struct Kind {
    Kind(From from, size_t size = 0) : from(from), size(size) {}
    From from;
    size_t size;
};

struct Row {
    std::string name;
    std::function<VsStatus(const uint64_t *)> real;
    std::function<void(Model &, const uint64_t *)> model;
    std::vector<Kind> kinds;

    bool Reads() const { return Has("Get") || Has("To") || Has("Is"); }
    bool Clears() const { return Has("_Clear"); }
    bool Has(const char *part) const { return name.find(part) != std::string::npos; }
};

template<typename... P, size_t... I>
Row MakeRow(const char *name, VsStatus (*real)(P...), void (Model::*model)(P...), std::vector<Kind> kinds,
            std::index_sequence<I...>)
{
    EXPECT_EQ(kinds.size(), sizeof...(P)) << name;
    return {name, [=](const uint64_t *values) { return (void)values, real(To<P>(values[I])...); },
            [=](Model &on, const uint64_t *values) { (void)values, (on.*model)(To<P>(values[I])...); },
            std::move(kinds)};
}

template<typename... P>
Row MakeRow(const char *name, VsStatus (*real)(P...), std::type_identity_t<void (Model::*)(P...)> model,
            std::vector<Kind> kinds)
{
    return MakeRow(name, real, model, std::move(kinds), std::index_sequence_for<P...>());
}

VsStatus Start() { return LibraryInit(), STATUS_OK; }
VsStatus ReleaseNothing() { return VSDVS_FreeMemory(nullptr), VSZOR_FreeMemory(nullptr), STATUS_OK; }
VsStatus CallHooks() { return Log("%d", 1), Warning("%d", 1), Panic("%d", 1), STATUS_OK; }
VsStatus PortExists(const char *id, const char *port)
{
    return DVPortExist(id, port) ? STATUS_OK : STATUS_NOT_FOUND;
}
VsStatus Ioctl(const char *path, int32_t command, void *out)
{
    char input[212] = {};
    ZorRequestHeader header = {sizeof(input), 9, reinterpret_cast<uint64_t>(input),
                               reinterpret_cast<uint64_t>(out)};
    return ZORIoctl(path, command, &header);
}

const std::vector<Row> &Rows()
{
#define ROW(function, ...) MakeRow(#function, function, &Model::function, {__VA_ARGS__})
    using enum From;
    // clang-format off
    static const std::vector<Row> rows = {
        MakeRow("LibraryInit", Start, &Model::Init, {}),
        MakeRow("FreeMemory", ReleaseNothing, &Model::Nothing, {}),
        MakeRow("Log", CallHooks, &Model::Nothing, {}),
        ROW(DVSAliasToSwitchId, ALIAS, {OUT, 64}),
        ROW(DVSAliasToPortsetName, ALIAS, {OUT, 128}),
        ROW(DVSPortsetNameToAlias, PORTSET, {OUT, 128}),
        MakeRow("VSDVS_GetAliasFromPortset", VSDVS_GetAliasFromPortset, &Model::DVSPortsetNameToAlias, {PORTSET, {OUT, 128}}),
        MakeRow("DVPortExist", PortExists, &Model::PortExists, {SWITCH_ID, PORT}),
        MakeRow("VSDVS_GetPortProp", VSDVS_GetPortProp, &Model::GetOfPort<StoreLevel::PORT>, {ALIAS, PORT, PORT_KEY, VALUE, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_GetHostProp", VSDVS_GetHostProp, &Model::GetOfSwitch<StoreLevel::HOST>, {ALIAS, HOST_KEY, VALUE, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_GetGlobProp", VSDVS_GetGlobProp, &Model::GetOfSwitch<StoreLevel::GLOBAL>, {ALIAS, GLOBAL_KEY, VALUE, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_SetPortProp", VSDVS_SetPortProp, &Model::SetOfPort<StoreLevel::PORT>, {ALIAS, PORT, PORT_KEY, DATA, COUNT, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_SetHostProp", VSDVS_SetHostProp, &Model::SetOfSwitch<StoreLevel::HOST>, {ALIAS, HOST_KEY, DATA, COUNT, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_SetGlobProp", VSDVS_SetGlobProp, &Model::SetOfSwitch<StoreLevel::GLOBAL>, {ALIAS, GLOBAL_KEY, DATA, COUNT, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_ClearPortProp", VSDVS_ClearPortProp, &Model::ClearOfPort<StoreLevel::PORT>, {ALIAS, PORT, PORT_KEY, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_ClearHostProp", VSDVS_ClearHostProp, &Model::ClearOfSwitch<StoreLevel::HOST>, {ALIAS, HOST_KEY, SWITCH_ID, FLAG}),
        MakeRow("VSDVS_ClearGlobProp", VSDVS_ClearGlobProp, &Model::ClearOfSwitch<StoreLevel::GLOBAL>, {ALIAS, GLOBAL_KEY, SWITCH_ID, FLAG}),
        ROW(VSDVS_CreateVSwitch, NEW_ALIAS, NEW_SWITCH_ID, NEW_PORTSET, ANY_NUMBER, FLAG, PORTS, UPLINKS, FEW),
        ROW(VSDVS_DestroyVSwitch, ALIAS),
        ROW(VSDVS_AddDVPort, ALIAS, NEW_PORT, ANY_NUMBER),
        ROW(VSDVS_AddOpaqueDVPort, ALIAS, NEW_PORT, NAME),
        ROW(VSDVS_RemoveDVPort, ALIAS, PORT),
        ROW(VSDVS_DvPortIDToPortIDFromDVSID, SWITCH_ID, PORT, {OUT, 4}),
        ROW(VSDVS_DvPortIDToPortID, ALIAS, PORT, {OUT, 4}),
        ROW(SetNumSwitchUplinkPortsByUUID, SWITCH_ID, UPLINKS),
        ROW(VSDVS_SetSwitchUplinkPorts, ALIAS, NAMES_LIST, IDS_LIST),
        ROW(VSDVS_GetSwitchUplinkPorts, ALIAS, LIST, LIST),
        ROW(VSDVS_AddSwitchUplinkPort, ALIAS, NEW_PORT),
        ROW(VSDVS_RemoveSwitchUplinkPort, ALIAS, PORT),
        ROW(VSDVS_ClearSwitchUplinkPorts, ALIAS),
        ROW(VSDVS_GetMcastFilterMode, ALIAS, {OUT, 4}),
        ROW(VSDVS_SetMcastFilterMode, ALIAS, MODE),
        ROW(VSDVS_GetDVMirrorSessions, ALIAS, PORT_OR_NULL, LIST),
        ROW(VSDVS_AppendDVMirrorSessions, ALIAS, PORT_OR_NULL, MIRRORS),
        ROW(VSDVS_RemoveDVMirrorSession, ALIAS, PORT_OR_NULL, SESSION),
        ROW(VSDVS_ClearDVMirrorSessions, ALIAS, PORT_OR_NULL),
        ROW(VSDVS_GetPrivateVLANMap, ALIAS, LIST, {OUT, 4}),
        ROW(VSDVS_SetPrivateVLANMap, ALIAS, PVLANS, COUNT),
        ROW(VSDVS_GetPortVLANPolicy, ALIAS, PORT, LIST, {OUT, 4}),
        ROW(VSDVS_SetPortVLANPolicy, ALIAS, PORT, VLAN_ID, PRIORITY, FLAG, FLAG, RANGES, COUNT),
        ROW(VSDVS_ClearPortVLANPolicy, ALIAS, PORT),
        ROW(VSDVS_GetPortNestedVLANTagging, ALIAS, PORT, {OUT, 1}),
        ROW(VSDVS_SetPortNestedVLANTagging, ALIAS, PORT, FLAG),
        ROW(VSDVS_GetPortSecurity, ALIAS, PORT, {OUT, 4}),
        ROW(VSDVS_SetPortSecurity, ALIAS, PORT, SMALL_WORD),
        ROW(VSDVS_GetExtraEthFilter, ALIAS, PORT, {OUT, 200}),
        MakeRow("VSDVS_SetExtraEthFilter", VSDVS_SetExtraEthFilter, &Model::StoreAtPort<model::ETH_FILTER>, {ALIAS, PORT, {RECORD, 200}}),
        MakeRow("VSDVS_ClearExtraEthFilter", VSDVS_ClearExtraEthFilter, &Model::ForgetAtPort<model::ETH_FILTER>, {ALIAS, PORT}),
        ROW(VSDVS_IsSinkPortEnabled, ALIAS, PORT, {OUT, 1}),
        ROW(VSDVS_ConfigureSinkPort, ALIAS, PORT, FLAG),
        ROW(VSDVS_GetPortMACLearning, ALIAS, PORT, {OUT, 10}),
        ROW(VSDVS_SetPortMACLearning, ALIAS, PORT, {RECORD, 10}),
        ROW(VSDVS_GetMACLearning, ALIAS, {OUT, 8}),
        ROW(VSDVS_SetMACLearning, ALIAS, LEARNING),
        MakeRow("VSDVS_ClearMACLearning", VSDVS_ClearMACLearning, &Model::Forget<model::LEARNING>, {ALIAS}),
        ROW(VSDVS_GetLearnStatic, ALIAS, {OUT, 1}),
        ROW(VSDVS_SetLearnStatic, ALIAS, FLAG),
        MakeRow("VSDVS_ClearLearnStatic", VSDVS_ClearLearnStatic, &Model::Forget<model::LEARN_STATIC>, {ALIAS}),
        MakeRow("VSDVS_GetTeamingPolicyFromDVSID", VSDVS_GetTeamingPolicyFromDVSID, &Model::CopyById<model::TEAMING>, {SWITCH_ID, {OUT, 2616}}),
        MakeRow("VSDVS_GetTeamingPolicy", VSDVS_GetTeamingPolicy, &Model::Copy<model::TEAMING>, {ALIAS, {OUT, 2616}}),
        MakeRow("VSDVS_SetTeamingPolicy", VSDVS_SetTeamingPolicy, &Model::Store<model::TEAMING>, {ALIAS, {RECORD, 2616}}),
        MakeRow("VSDVS_ClearTeamingPolicy", VSDVS_ClearTeamingPolicy, &Model::ForgetIfThere<model::TEAMING>, {ALIAS}),
        ROW(VSDVS_GetTxUplinkAlways, ALIAS, PORT, {OUT, 1}),
        ROW(VSDVS_SetTxUplinkAlways, ALIAS, PORT, FLAG),
        ROW(VSDVS_GetPortTeamingPolicy, ALIAS, PORT, {OUT, 2616}),
        MakeRow("VSDVS_SetPortTeamingPolicy", VSDVS_SetPortTeamingPolicy, &Model::StoreAtPort<model::PORT_TEAMING>, {ALIAS, PORT, {RECORD, 2616}}),
        MakeRow("VSDVS_ClearPortTeamingPolicy", VSDVS_ClearPortTeamingPolicy, &Model::ForgetAtPort<model::PORT_TEAMING>, {ALIAS, PORT}),
        ROW(VSDVS_GetPortTeamingOverride, ALIAS, PORT, {OUT, 81}),
        MakeRow("VSDVS_SetPortTeamingOverride", VSDVS_SetPortTeamingOverride, &Model::StoreText<model::OVERRIDE>, {ALIAS, PORT, NAME}),
        MakeRow("VSDVS_ClearPortTeamingOverride", VSDVS_ClearPortTeamingOverride, &Model::ForgetAtPort<model::OVERRIDE>, {ALIAS, PORT}),
        MakeRow("VSDVS_GetLSTeamingPolicyTableFromDVSID", VSDVS_GetLSTeamingPolicyTableFromDVSID, &Model::HandOutTable, {SWITCH_ID, LIST}),
        ROW(VSDVS_GetLSTeamingPolicyTable, ALIAS, LIST),
        ROW(VSDVS_SetLSTeamingPolicy, ALIAS, LS_TABLE),
        MakeRow("VSDVS_ClearLSTeamingPolicy", VSDVS_ClearLSTeamingPolicy, &Model::ForgetIfThere<model::LS_TABLE>, {ALIAS}),
        ROW(VSDVS_GetPortLSTeamingPolicyName, ALIAS, PORT, {OUT, 136}),
        MakeRow("VSDVS_SetPortLSTeamingPolicy", VSDVS_SetPortLSTeamingPolicy, &Model::StoreText<model::LS_POLICY>, {ALIAS, PORT, NAME}),
        MakeRow("VSDVS_ClearPortLSTeamingPolicy", VSDVS_ClearPortLSTeamingPolicy, &Model::ForgetAtPort<model::LS_POLICY>, {ALIAS, PORT}),
        ROW(VSDVS_GetMTU, ALIAS, {OUT, 4}),
        ROW(VSDVS_SetMTU, ALIAS, MTU),
        MakeRow("ZORIoctl", Ioctl, &Model::Ioctl, {DEVICE, COMMAND, {OUT, 9}}),
        ROW(VSZOR_GetSwitches, KIND, LIST),
        MakeRow("VSZOR_GetVSInfo", VSZOR_GetVSInfo, &Model::AskCleared<4111, 208, &Model::Info>, {PORTSET, {OUT, 208}}),
        MakeRow("VSZOR_GetUplinks", VSZOR_GetUplinks, &Model::AskForList<4106, &Model::UplinkList>, {PORTSET, LIST}),
        ROW(VSZOR_GetUplinkLinkState, PORTSET, NIC, {OUT, 4}),
        ROW(VSZOR_GetUplinkLACPLinkState, PORTSET, NIC, {OUT, 4}),
        ROW(VSZOR_SetUplinkAdminLinkState, PORTSET, NIC, FLAG),
        ROW(VSZOR_GetLAGTable, PORTSET, LIST),
        ROW(VSZOR_PortGetTeamUplinkHint, NUMBER, {OUT, 32}),
        ROW(VSZOR_GetUplinkDVPortID, NIC, {OUT, 48}),
        ROW(VSZOR_RefreshDevNUMAInfo, PORTSET),
        ROW(VSZOR_GetPortMACTable, ALIAS, PORT, SELECTOR, LIST),
        ROW(VSZOR_SetPortMACTable, ALIAS, PORT, MAC),
        ROW(VSZOR_ClearPortMACTable, ALIAS, PORT, MAC),
        ROW(VSZOR_GetTeamMACTable, ALIAS, SELECTOR, LIST),
        ROW(VSZOR_GetPortMACLearningStats, PORT, ALIAS, {OUT, 28}),
        ROW(VSZOR_GetGlobalMACLearningProps, {OUT, 9}),
        ROW(VSZOR_SetGlobalMACLearningProps, {RECORD, 9}),
        MakeRow("VSZOR_GetSwitchMACLearningInfo", VSZOR_GetSwitchMACLearningInfo, &Model::Ask<4121, &Model::LearningInfo>, {PORTSET, {OUT, 52}}),
        ROW(VSZOR_GetMcastFilterMode, PORTSET, {OUT, 4}),
        ROW(VSZOR_GetMcastFilters, PORTSET, VLAN_ID, KIND, LIST),
        ROW(VSZOR_GetMcastFilterStats, PORTSET, VLAN_ID, KIND, GROUP, LIST),
        MakeRow("VSZOR_GetDVMirrorSessionIDs", VSZOR_GetDVMirrorSessionIDs, &Model::AskByAlias<4101, 8, &Model::SessionList>, {ALIAS, LIST}),
        ROW(VSZOR_GetDVMirrorSessionStats, ALIAS, SESSION, {OUT, 121}),
        MakeRow("VSZOR_GetPromiscSessionActiveDsts", VSZOR_GetPromiscSessionActiveDsts, &Model::AskByAlias<4100, 8, &Model::Observers>, {ALIAS, LIST}),
        MakeRow("VSZOR_GetRARPStats", VSZOR_GetRARPStats, &Model::AskCleared<4097, 16, &Model::NoStatistics<16>>, {PORTSET, {OUT, 16}}),
        MakeRow("VSZOR_GetServicePortTeamingStats", VSZOR_GetServicePortTeamingStats, &Model::AskCleared<4098, 48, &Model::NoStatistics<48>>, {PORTSET, {OUT, 48}}),
        ROW(VSZOR_GetRuntimeOptions, IDS, COUNT, LIST),
        ROW(VSZOR_SetRuntimeOptions, OPTIONS),
        ROW(VSZOR_GetPortLSTeamingPolicyName, NUMBER, {OUT, 136}),
        MakeRow("VSZOR_GetLSTeamingPolicyTable", VSZOR_GetLSTeamingPolicyTable, &Model::AskByAlias<4125, 4, &Model::LsTable>, {ALIAS, LIST}),
        ROW(VSZOR_RTMOp, RTM, COMMAND),
    };
    // clang-format on
#undef ROW
    return rows;
}

// One argument: the same for both, or memory for each to write to.
struct Slot {
    explicit Slot(Kind kind) : kind(kind) {}

    bool IsOutput() const { return kind.from >= From::OUT; }

    void MakeRoom(int32_t length)
    {
        const size_t size = kind.from == From::OUT    ? kind.size
                            : kind.from == From::LIST ? sizeof(void *)
                                                      : 12 + VALUE_ROOM;
        for (std::string *memory : {&real, &modelled}) {
            memory->assign(size + GUARD, FILL);
            if (kind.from != From::VALUE) continue;
            const PropValueBuffer buffer = {length, memory->data() + sizeof(buffer)};
            memcpy(memory->data(), &buffer, sizeof(buffer));
        }
    }

    void PointTo(const std::optional<std::string> &bytes)
    {
        shown = bytes ? testing::PrintToString(bytes->substr(0, 60)) + " of " + std::to_string(bytes->size())
                      : "null";
        if (!bytes) return;
        input = *bytes;
        value = reinterpret_cast<uint64_t>(input.c_str());
    }

    uint64_t Value(std::string &memory) const
    {
        return IsOutput() ? reinterpret_cast<uint64_t>(memory.data()) : value;
    }

    Kind kind;
    uint64_t value = 0;
    std::string input, real, modelled, shown;
};

struct Variant {
    const char *name;
    bool faults = false, takesTurns = false, reopens = false;
};

class Walk {
public:
    Walk(uint32_t seed, const Variant &variant) : variant(variant), random(seed)
    {
        std::string folder = "/dev/shm/vswitchctl-model-XXXXXX";
        if (variant.reopens) directory = mkdtemp(folder.data());
        Open();
        LibraryInit(); // an earlier walk may have ended without
        EXPECT_EQ(vshost_scenario(model::SCENARIO), 0) << vshost_error();
        model.ApplyScenario();
        // Another program's switch, of another class.
        EXPECT_EQ(DVSZOR_SwitchAdd(FOREIGN, "vswitchx", 8, 1), STATUS_OK);
        model.SwitchAdd(FOREIGN, "vswitchx", 8);
        Write(KEYS[model::ALIAS], Text("foreign"), "", FOREIGN);
        model.Set(KEYS[model::ALIAS], FOREIGN, "", Text("foreign"));
        if (variant.takesTurns) Split();
    }

    ~Walk()
    {
        if (child == 0 && variant.takesTurns) _exit(testing::Test::HasFailure());
        int ended = 0;
        if (variant.takesTurns) {
            close(peer);
            waitpid(child, &ended, 0);
        }
        EXPECT_EQ(ended, 0) << "the other process failed";
        vshost_clear();
        ExpectNothingLeft();
        vshost_stop();
        if (variant.reopens) std::filesystem::remove_all(directory);
    }

    // Whether host and model agreed to the end.
    bool Run(unsigned steps)
    {
        for (step = 1; step <= steps; step++) {
            const bool mine = !variant.takesTurns || (random() % 2 == 0) == (child == 0);
            if (!Step(mine) || !Meet(true)) break;
            if (step % STEPS_BETWEEN_CHECKS == 0 && (!CheckAll() || !Meet(true))) break;
        }
        const bool agreed = step > steps && CheckFromFreshProcess();
        return Meet(agreed) && agreed;
    }

    const std::vector<std::string> &Log() const { return log; }
    unsigned LastStep() const { return step; }

private:
    // ---- The host ----

    void Open()
    {
        ASSERT_EQ(vshost_start(directory.empty() ? nullptr : directory.c_str(), 0), 0) << vshost_error();
        vshost_shell_in_process(1);
    }

    // Another process walks along with a model of its own; each takes the steps that fall to it.
    void Split()
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        child = fork();
        peer = ends[child == 0];
        close(ends[child != 0]);
    }

    // Waits for the other process; false when one of them has failed.
    bool Meet(bool agreed) const
    {
        if (!variant.takesTurns) return agreed;
        const char said = agreed ? 'y' : 'n';
        char heard = 'n';
        return send(peer, &said, 1, MSG_NOSIGNAL) == 1 && read(peer, &heard, 1) == 1 && heard == 'y' &&
               agreed;
    }

    // ---- Arguments ----

    uint32_t UpTo(uint32_t most) { return static_cast<uint32_t>(random() % (most + 1)); }
    bool OneIn(uint32_t count) { return UpTo(count - 1) == 0; }
    template<typename Value> Value Pick(std::initializer_list<Value> values)
    {
        return values.begin()[UpTo(static_cast<uint32_t>(values.size()) - 1)];
    }
    template<typename Value> Value PickFrom(const std::vector<Value> &values)
    {
        return values[UpTo(static_cast<uint32_t>(values.size()) - 1)];
    }
    template<typename Map> std::string PickKey(const Map &map)
    {
        return map.empty() ? "" : std::next(map.begin(), UpTo(static_cast<uint32_t>(map.size()) - 1))->first;
    }
    std::string Noise(size_t size)
    {
        std::string bytes(size, static_cast<char>('a' + UpTo(25)));
        for (size_t i = 0; i < size; i += 1 + UpTo(64))
            bytes[i] = static_cast<char>(UpTo(4));
        return bytes;
    }

    std::string AnyName(From from)
    {
        static const std::map<From, std::vector<std::string>> NAMES = {
            {From::ALIAS,
             {"alpha", "beta", "a name", "same-15-letters-1", "same-15-letters-2", "none", "",
              std::string(130, 'y'), "foreign"}},
            {From::SWITCH_ID, {"none", "", std::string(64, 'i')}},
            {From::NEW_SWITCH_ID, {"id-1", "id-2", "id-3", std::string(63, 'i'), std::string(64, 'i')}},
            {From::PORTSET, {"alpha", "alphabet", "none", ""}},
            {From::NEW_PORTSET,
             {"alpha", "alpha", "al", "alpha-2", "beta-set", "a set", "-set", "a/b", std::string(127, 'p'),
              std::string(128, 'p')}},
            {From::PORT,
             {"port0", "port1", "port2", "uplink0", "uplink1", "uplink9", std::string(47, 'p'),
              std::string(48, 'p'), "p q", ""}},
            {From::NIC, {"nic7", "", std::string(40, 'n')}},
            {From::SESSION, {"one", "two", "three", std::string(32, 's'), std::string(40, 's')}},
            {From::DEVICE, {ZOR_DEVICE, ZOR_DEVICE, ZOR_DEVICE, "/dev/none"}},
            {From::NAME,
             {"", "name", "always", std::string(80, 'o'), std::string(81, 'o'), std::string(135, 'o'),
              std::string(136, 'o'), std::string(200, 'o')}}};
        return PickFrom(NAMES.at(from));
    }

    std::string MirrorList()
    {
        std::string sessions, entries;
        uint32_t count = UpTo(3), first = 0;
        for (uint32_t i = 0; i < count; i++) {
            const uint32_t counts[3] = {UpTo(2), UpTo(1), UpTo(1)};
            // Of a version that the driver understands, most of the time.
            const std::string settings =
                OneIn(3) ? Noise(184) : Word(1) + Word(UpTo(1) | UpTo(1) << 8 | UpTo(9) << 16) + Noise(176);
            sessions += Field(AnyName(From::SESSION).substr(0, 32), 32) + settings + Bytes(counts) +
                        Word(OneIn(12) ? UpTo(3) : first);
            first += counts[0] + counts[1] + counts[2];
        }
        for (uint32_t i = 0; i < first; i++)
            entries += OneIn(3) ? Noise(52) : Field(AnyName(From::PORT).substr(0, 48), 48) + Word(UpTo(9));
        return Word(Pick({0xFACEBEEFu, 7u})) + Word(2) + Word(count) + Word(OneIn(12) ? first + 1 : first) +
               Word(UpTo(1)) + sessions + entries;
    }

    // A list of uplinks with fields of this width; a long name leaves no NUL in its field.
    std::string UplinkList(size_t width)
    {
        std::string list = Word(static_cast<uint32_t>(uplinks.size()));
        for (const std::string &uplink : uplinks)
            list += Field(uplink.substr(0, width), width);
        return list;
    }
    void DrawUplinks()
    {
        uplinks.clear();
        for (uint32_t count = UpTo(3); uplinks.size() < count;)
            uplinks.push_back(OneIn(10) ? std::string(90, 'x') : AnyName(From::PORT));
    }

    std::string LsTable()
    {
        const uint32_t count = UpTo(2);
        return Word(count) + Noise(2748 * count);
    }

    // A value for any key: of the right form for some, of the wrong form for most.
    std::string AnyValue()
    {
        DrawUplinks();
        std::string values[] = {
            Noise(Pick<size_t>(
                {0, 1, 3, 4, 5, 7, 8, 10, 11, 12, 20, 81, 82, 136, 137, 199, 200, 201, 2615, 2616, 2617})),
            Text(Pick({"true", "truest", "false", "always", "alwaysly", "normal", "snooping", "Snooping",
                       "legacyFiltering", "alpha", "al", "beta", "port0", "uplink0"})),
            Word(Pick({0x00010000u, UpTo(9)})) + (OneIn(3) ? "" : Noise(196)),
            MirrorList(),
            UplinkList(Pick<size_t>({48, 48, 81})),
            LsTable(),
            Word(UpTo(7)) + Word(UpTo(2) << 16) + Noise(4 * UpTo(2))};
        std::string value = values[UpTo(std::size(values) - 1)];
        if (!value.empty() && OneIn(4)) value.resize(value.size() + UpTo(2) - 1, 'z');
        return value;
    }

    // A name that means something on the host, most of the time.
    std::optional<std::string> DrawName(From from)
    {
        using enum From;
        const auto &ports = model.switches[chosen].ports;
        const auto portset = model.PortsetOf(chosen);
        if (from == PORT_OR_NULL) return OneIn(4) ? std::nullopt : DrawName(PORT);
        if ((from == NEW_SWITCH_ID || from == NEW_PORTSET) && OneIn(3)) return std::nullopt;
        if (from == NEW_ALIAS || from == NEW_PORT) return AnyName(from == NEW_PORT ? PORT : ALIAS);
        if (OneIn(8)) return AnyName(from);
        if (from == ALIAS) return model.TextOf(model::ALIAS, chosen);
        if (from == SWITCH_ID) return chosen;
        if (from == PORTSET && portset && !portset->empty()) return portset;
        if (from == PORT && !ports.empty()) return ports.contains(port) ? port : PickKey(ports);
        const auto uplinks = model.Uplinks(chosen), sessions = model.Sessions(chosen);
        if (from == NIC && !uplinks.empty()) return PickFrom(uplinks);
        if (from == SESSION && !sessions.empty()) return PickFrom(sessions);
        return AnyName(from);
    }

    const char *DrawKey(From from)
    {
        const auto level = from == From::GLOBAL_KEY ? StoreLevel::GLOBAL
                           : from == From::HOST_KEY ? StoreLevel::HOST
                                                    : StoreLevel::PORT;
        for (;;) {
            const Property &key = KEYS[UpTo(std::size(KEYS) - 1)];
            if (key.level == level) return key.key;
        }
    }

    uint64_t DrawNumber(From from)
    {
        static const std::map<From, std::vector<uint64_t>> NUMBERS = {
            {From::FLAG, {0, 1, 1, 0x80}},
            {From::FEW, {0, 1, 2, 3}},
            // The last is the smallest number of names that doesn't fit 32 bits.
            {From::UPLINKS, {0, 0, 0, 0, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, UINT32_MAX, 53024288}},
            {From::PORTS, {0, 1, 64, 64, 0x80000000}},
            {From::MODE, {0, 1, 2, UINT32_MAX}},
            {From::MTU, {1279, 1280, 2000, 8000, 9000, 9001, UINT32_MAX}},
            {From::VLAN_ID, {0, 5, 4095}},
            {From::PRIORITY, {0, 7, VLAN_PRIORITY_NONE}},
            {From::KIND, {0, 1, 2, 3}},
            {From::SELECTOR, {0, 1, 2, 0x102}},
            {From::COMMAND, {4120, 4120, 5000}}};
        if (from == From::COUNT) return count;
        if (!NUMBERS.contains(from)) return from == From::NUMBER ? UpTo(20) : UpTo(UINT32_MAX - 1);
        return PickFrom(NUMBERS.at(from));
    }

    // Bytes that a pointer points to.
    std::string DrawBytes(Kind kind)
    {
        using enum From;
        const auto records = [&](uint32_t most, size_t size) {
            return count = UpTo(most), Noise(count * size);
        };
        const auto noted = [&](const std::string &bytes) {
            return count = static_cast<uint32_t>(bytes.size()), bytes;
        };
        switch (kind.from) {
        case RECORD:
            return Noise(kind.size);
        case SMALL_WORD:
            return Word(Pick({UpTo(7), 8u, 0x80000000u}));
        case DATA:
            return noted(AnyValue());
        case RANGES:
            return records(3, 4);
        case PVLANS:
            return records(3, 8);
        case IDS:
            return DrawIds();
        case NAMES_LIST:
            return DrawUplinks(), UplinkList(81);
        case IDS_LIST:
            return DrawOtherOrder(), UplinkList(48);
        case MIRRORS:
            return MirrorList() + Noise(52);
        case LS_TABLE:
            return LsTable();
        case MAC:
            return DrawMac();
        case GROUP:
            return Noise(16);
        case LEARNING:
            return Word(Pick({600u, 1000000u, 1000001u}) | UpTo(9) << 24) + Word(UpTo(99));
        case OPTIONS:
            return DrawOptions();
        default:
            return count = UpTo(2), Word(count) + Noise(5 + 128 * count);
        }
    }
    std::string DrawIds()
    {
        std::string ids;
        for (count = UpTo(3); ids.size() < count * 2;)
            ids += Bytes(Pick<uint16_t>({7, 7, 300, 9}));
        return ids;
    }
    void DrawOtherOrder()
    {
        if (OneIn(10)) DrawUplinks();
        std::reverse(uplinks.begin(), uplinks.end());
    }
    std::string DrawMac()
    {
        const auto address =
            Pick({"\2\0\0\0\0\1"s, "\2\0\0\0\0\1"s, "\2\0\0\0\0\2"s, "\3\0\0\0\0\1"s, std::string(6, '\0')});
        return address + Pick({'\0', '\1', '\2', '\3'}) + '\1' +
               Bytes(Pick<uint16_t>({0, 0, 0, 4094, 4095})) + Word(UpTo(9)) + Word(9);
    }
    std::string DrawOptions()
    {
        std::string list;
        for (count = UpTo(2); list.size() < 8 * count;)
            list += Word(Pick({7u, 8u, 8u, 0u, 0x10007u})) + Word(UpTo(9));
        return Word(8 + 8 * count) + Word(OneIn(6) ? count + 1 : count) + list;
    }

    void Draw(Slot &slot)
    {
        using enum From;
        const From from = slot.kind.from;
        if (slot.IsOutput()) {
            const auto length = Pick<int32_t>({0, 0, 4, 12, 2616, VALUE_ROOM, -1});
            slot.MakeRoom(length);
            slot.shown = from == VALUE ? "{" + std::to_string(length) + "}" : "out";
        } else if (from >= FLAG && from <= ANY_NUMBER) {
            slot.value = DrawNumber(from);
            slot.shown = std::to_string(slot.value);
        } else {
            std::optional<std::string> bytes;
            if (from <= DEVICE)
                bytes = DrawName(from);
            else if (from <= PORT_KEY)
                bytes = DrawKey(from);
            else if (const std::string drawn = DrawBytes(slot.kind); !drawn.empty() || OneIn(2))
                bytes = drawn;
            slot.PointTo(bytes);
        }
    }

    // ---- Steps ----

    bool Step(bool mine)
    {
        if (variant.reopens && OneIn(25)) return Reopen();
        if (OneIn(200)) return Reset(mine);
        if (!model.switches.contains(chosen) || OneIn(12)) chosen = PickKey(model.switches);
        if (chosen == FOREIGN) chosen = PickKey(model.switches);
        const auto &ports = model.switches[chosen].ports;
        if (!ports.contains(port) || OneIn(8)) port = PickKey(ports);
        return Take(Choose(), mine, variant.faults && !OneIn(3));
    }

    // Often an operation near the last one in the table, so that those of a family meet.
    const Row &Choose()
    {
        static const auto count = static_cast<uint32_t>(Rows().size());
        const auto isCreation = [](const Row &row) { return row.name == "VSDVS_CreateVSwitch"; };
        if (model.switches.size() < 4 && OneIn(6))
            return *std::find_if(Rows().begin(), Rows().end(), isCreation);
        do
            index = OneIn(4) ? UpTo(count - 1) : (index + count + UpTo(6) - 3) % count;
        while ((Rows()[index].Reads() || Rows()[index].Clears()) && !OneIn(4));
        return Rows()[index];
    }

    // This process leaves the host and comes back.
    bool Reopen()
    {
        log.push_back("reopen");
        vshost_stop();
        Open();
        return true;
    }

    // The host reboots.
    bool Reset(bool mine)
    {
        log.push_back("reset");
        EXPECT_EQ(mine ? vshost_reset() : 0, 0);
        model.Reset();
        return true;
    }

    static VsStatus TakeOn(Model &on, const Row &row, const std::vector<uint64_t> &values)
    {
        try {
            row.model(on, values.data());
            return STATUS_OK;
        } catch (const model::Failure &failure) {
            return failure.status;
        }
    }

    // One operation on both; `mine`: this process is to call it.
    bool Take(const Row &row, bool mine, bool withFault)
    {
        std::deque<Slot> slots;
        std::string text;
        for (const Kind &kind : row.kinds) {
            Draw(slots.emplace_back(kind));
            text += (text.empty() ? "" : ", ") + slots.back().shown;
        }
        log.push_back(row.name + "(" + text + ")");
        if (withFault) PlanFault(row, slots);
        std::vector<uint64_t> real, modelled;
        for (Slot &slot : slots) {
            real.push_back(slot.Value(slot.real));
            modelled.push_back(slot.Value(slot.modelled));
        }
        const VsStatus status = mine ? row.real(real.data()) : STATUS_OK;
        const bool failed = withFault && EndFault();
        const VsStatus expected = TakeOn(model, row, modelled);
        model.fault = {};
        if (!mine) return true;
        const bool agreed = Agree(row, slots, status, expected);
        return agreed && (!failed || CheckStored());
    }

    // Lets one of the calls that the operation is about to make fail.
    void PlanFault(const Row &row, std::deque<Slot> &slots)
    {
        Model rehearsal = model;
        rehearsal.gates.clear();
        std::vector<uint64_t> values;
        for (Slot &slot : slots)
            values.push_back(slot.Value(slot.modelled));
        const std::deque<Slot> before = slots;
        TakeOn(rehearsal, row, values);
        for (size_t i = 0; i < slots.size(); i++)
            memcpy(slots[i].modelled.data(), before[i].modelled.data(), before[i].modelled.size());
        if (rehearsal.gates.empty()) return;
        const size_t chosenGate = UpTo(static_cast<uint32_t>(rehearsal.gates.size()) - 1);
        const auto &gate = rehearsal.gates[chosenGate];
        const auto nth = static_cast<unsigned>(std::count(
            rehearsal.gates.begin(), rehearsal.gates.begin() + static_cast<ptrdiff_t>(chosenGate) + 1, gate));
        model::Fault &fault = model.fault;
        fault = {gate.first, gate.second, nth, 0};
        switch (gate.first) {
        case VSHOST_STORE:
            fault.outcome = Pick({STATUS_NOT_FOUND, STATUS_EXISTS, STATUS_IO_ERROR, STATUS_READ_ONLY,
                                  STATUS_NO_MEMORY, STATUS_FAILURE});
            break;
        case VSHOST_SHELL:
            fault.outcome = Pick({1u, VSHOST_SHELL_KILLED, VSHOST_SHELL_NOT_STARTED});
            break;
        default:
            fault.outcome = static_cast<uint32_t>(Pick({EBUSY, EPERM, ENOENT, ENOMEM}));
        }
        // Which of the library's allocations fails makes no difference that is documented.
        if (fault.kind == VSHOST_ALLOCATION) fault.nth = 1 + UpTo(1);
        const char *operation = fault.kind == VSHOST_ALLOCATION ? nullptr : fault.operation.c_str();
        vshost_fail(static_cast<vshost_kind>(fault.kind), operation, fault.nth, 1, fault.outcome);
        log.back() += " with " + fault.operation + " " + std::to_string(fault.nth) + " failing, " +
                      std::to_string(fault.outcome);
    }

    bool EndFault()
    {
        const bool failed = vshost_failed() > 0;
        vshost_clear();
        model::Fault &fault = model.fault;
        if (fault.kind == VSHOST_ALLOCATION) fault.nth = failed;
        EXPECT_TRUE(failed || fault.kind == 0 || fault.kind == VSHOST_ALLOCATION)
            << "the call is not made: " << log.back();
        return failed;
    }

    bool Agree(const Row &row, std::deque<Slot> &slots, VsStatus status, VsStatus expected)
    {
        bool agreed = status == expected;
        EXPECT_EQ(status, expected) << log.back();
        for (Slot &slot : slots) {
            if (!slot.IsOutput()) continue;
            const bool same = slot.kind.from == From::LIST    ? SameList(row, slot, status)
                              : slot.kind.from == From::VALUE ? SameValue(slot)
                                                              : slot.real == slot.modelled;
            EXPECT_TRUE(same) << log.back()
                              << ", output: " << testing::PrintToString(slot.real.substr(0, 300))
                              << "\nexpected: " << testing::PrintToString(slot.modelled.substr(0, 300));
            agreed &= same;
        }
        return agreed;
    }

    bool SameList(const Row &row, const Slot &slot, VsStatus status)
    {
        void *real, *modelled;
        memcpy(&real, slot.real.data(), sizeof(real));
        memcpy(&modelled, slot.modelled.data(), sizeof(modelled));
        const std::string *bytes = model.HandedOut(modelled);
        if (!bytes || status != STATUS_OK) return real == modelled;
        const bool same = real && memcmp(real, bytes->data(), bytes->size()) == 0;
        (row.name.starts_with("VSZOR") ? VSZOR_FreeMemory : VSDVS_FreeMemory)(real);
        return same;
    }

    // The length and the bytes; the pointers differ.
    static bool SameValue(const Slot &slot)
    {
        return slot.real.substr(0, 4) == slot.modelled.substr(0, 4) &&
               slot.real.substr(12) == slot.modelled.substr(12);
    }

    // ---- The whole state ----

    bool CheckAll() { return CheckStored() && CheckTree() && CheckReads(); }

    bool CheckStored() const
    {
        const bool failedBefore = testing::Test::HasFailure();
        for (const auto &row : model.Everything())
            EXPECT_EQ(Read(row.key, row.port.c_str(), row.id.c_str()), row.stored)
                << log.back() << ": " << row.id << ' ' << row.port << ' ' << row.key.key;
        return failedBefore || !testing::Test::HasFailure();
    }

    bool CheckTree()
    {
        bool agreed = true;
        for (const auto &[command, expected] : model.Tree()) {
            FILE *pipe = popen(("tybel -e " + command).c_str(), "r");
            std::string printed(65536, '\0');
            printed.resize(fread(printed.data(), 1, printed.size(), pipe));
            pclose(pipe);
            EXPECT_EQ(printed, expected) << command;
            agreed &= printed == expected;
        }
        return agreed;
    }

    // Each operation that only reads, on each port of each switch.
    bool CheckReads()
    {
        const std::vector<std::string> before = log;
        bool agreed = true;
        for (const std::string &id : model.Walk()) {
            chosen = id;
            std::vector<std::string> ports = {""};
            for (const auto &[port, entry] : model.switches[id].ports)
                ports.push_back(port);
            for (const std::string &each : ports) {
                port = each;
                for (const Row &row : Rows())
                    if (row.Reads() && agreed) agreed = Take(row, true, false);
            }
        }
        if (agreed) log = before;
        return agreed;
    }

    // What another process finds that has just been started.
    bool CheckFromFreshProcess() const
    {
        const std::string file = vshost_directory() + "/expected."s + std::to_string(getpid());
        std::ofstream out(file, std::ios::binary);
        const auto put = [&](const std::string &field) {
            out << Word(static_cast<uint32_t>(field.size())) << field;
        };
        for (const auto &row : model.Everything()) {
            put(row.key.key);
            put(std::string(1, static_cast<char>(row.key.level)));
            put(row.id);
            put(row.port);
            put(row.stored ? Word(row.stored->flags) + row.stored->bytes : "");
        }
        out.close();
        const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
        const int ended =
            system(("VSWITCHCTL_MODEL_EXPECTED=" + file + " '" + program +
                    "' --gtest_brief=1 --gtest_also_run_disabled_tests --gtest_filter=FreshProcess.*")
                       .c_str());
        EXPECT_EQ(ended, 0) << "a fresh process reads something else";
        return ended == 0;
    }

    const Variant variant;
    std::mt19937 random;
    Model model;
    std::string directory; // empty: a throw-away host
    pid_t child = -1;
    int peer = -1;
    unsigned step = 0;
    uint32_t index = 0; // of the last row
    std::vector<std::string> log;

    // While arguments are drawn:
    std::string chosen, port; // the switch that names speak of, and its port
    uint32_t count = 0;       // of the records drawn last
    std::vector<std::string> uplinks;
};

// Not a test by itself: a walk starts it in a process of its own.
TEST(FreshProcess, DISABLED_ReadsWhatIsStored)
{
    using model::WordAt;
    std::ifstream in(getenv("VSWITCHCTL_MODEL_EXPECTED"), std::ios::binary);
    const auto take = [&] {
        std::string length(4, '\0'), field;
        in.read(length.data(), 4);
        field.resize(WordAt(length, 0));
        in.read(field.data(), static_cast<std::streamsize>(field.size()));
        return field;
    };
    for (std::string key = take(); in; key = take()) {
        const auto level = static_cast<StoreLevel>(take()[0]);
        const std::string id = take(), port = take(), stored = take();
        const auto read = Read(level, key.c_str(), port.c_str(), id.c_str());
        EXPECT_EQ(read ? Word(read->flags) + read->bytes : "", stored) << id << ' ' << port << ' ' << key;
    }
}

unsigned FromEnvironment(const char *name, unsigned otherwise)
{
    const char *value = getenv(name);
    return value ? static_cast<unsigned>(strtoul(value, nullptr, 10)) : otherwise;
}

class ModelTest : public testing::Test {
protected:
    // VSWITCHCTL_MODEL_SEEDS: so many walks; VSWITCHCTL_MODEL_SEED: this one.
    static void WalkSeeds(const Variant &variant, unsigned usual)
    {
        const unsigned only = FromEnvironment("VSWITCHCTL_MODEL_SEED", 0);
        const unsigned last = only ? only : FromEnvironment("VSWITCHCTL_MODEL_SEEDS", usual);
        for (unsigned seed = only ? only : 1; seed <= last && !HasFailure(); seed++) {
            Walk walk(seed, variant);
            if (walk.Run(STEPS)) continue;
            for (size_t i = 0; i < walk.Log().size(); i++)
                std::cout << i + 1 << ": " << walk.Log()[i] << std::endl;
            ADD_FAILURE() << "failed in step " << walk.LastStep()
                          << "; to take the steps again:\nVSWITCHCTL_MODEL_SEED=" << seed
                          << " build/release/tests/model_test --gtest_filter=ModelTest." << variant.name;
        }
    }
};

TEST_F(ModelTest, Plain) { WalkSeeds({"Plain"}, 12); }
TEST_F(ModelTest, TwoProcessesTakeTurns)
{
    WalkSeeds({.name = "TwoProcessesTakeTurns", .takesTurns = true}, 12);
}
TEST_F(ModelTest, FaultsLeaveWhatIsDocumented)
{
    WalkSeeds({.name = "FaultsLeaveWhatIsDocumented", .faults = true}, 20);
}
TEST_F(ModelTest, HostIsReopened) { WalkSeeds({.name = "HostIsReopened", .reopens = true}, 12); }

}
