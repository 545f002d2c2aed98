// Switches and ports, created and destroyed: what is stored, in which order, and what a failure leaves.
#include "tests/command_lines.h"
#include "tests/family.h"

namespace {

using Lifecycle = HostTest;

constexpr char CREATE[] = "-e set /net/create lab 128\n vswitch";
constexpr char DESTROY[] = "-e set /net/portsets/lab/destroy destroy";

VsStatus CreateSmall() { return VSDVS_CreateVSwitch(LAB, "id", nullptr, 7, 1, 0, 1, 2); }

std::string Id(const char *alias)
{
    char id[SWITCH_ID_SIZE] = {};
    EXPECT_EQ(DVSAliasToSwitchId(alias, id), STATUS_OK) << alias;
    return id;
}

TEST_F(Lifecycle, AnIdIsMadeOfFifteenCharactersOfTheAlias)
{
    const std::pair<const char *, const char *> cases[] = {
        {"lab", "6c 61 62 00 00 00 00 00-00 00 00 00 00 00 00 00"},
        {"", "00 00 00 00 00 00 00 00-00 00 00 00 00 00 00 00"},
        {"J\x7f\xe9\xff!", "4a 7f e9 ff 21 00 00 00-00 00 00 00 00 00 00 00"},
        {"abcdefghijklmno", "61 62 63 64 65 66 67 68-69 6a 6b 6c 6d 6e 6f 00"},
        {"ABCDEFGHIJKLMNOP", "41 42 43 44 45 46 47 48-49 4a 4b 4c 4d 4e 4f 00"},
        {"0123456789abcdefghij", "30 31 32 33 34 35 36 37-38 39 61 62 63 64 65 00"}};
    for (const auto &[alias, id] : cases) {
        const std::string portset(id, 2);
        EXPECT_EQ(VSDVS_CreateVSwitch(alias, nullptr, portset.c_str(), 1, 0, 8, 0, 0), STATUS_OK) << alias;
        EXPECT_EQ(Id(alias), id);
    }
    EXPECT_EQ(VSDVS_CreateVSwitch("abcdefghijklmno 2", nullptr, "p", 1, 0, 8, 0, 0), STATUS_EXISTS);
}

TEST_F(Lifecycle, StepsAreTakenInOrder)
{
    TakeCommandLines();
    EXPECT_EQ(StepsOf([] { ASSERT_EQ(CreateSmall(), STATUS_OK); }),
              (Steps{CREATE, "SwitchAdd id - -", "GlobalPropSet id - com.talpex.common.alias",
                     "GlobalPropSet id - com.talpex.common.version",
                     "GlobalPropSet id - com.talpex.common.opaqueDvs",
                     "HostPropSet id - com.talpex.common.host.portset", "SwitchAssociate id - -",
                     "PortAdd id uplink0 -", "GlobalPropSet id - com.talpex.common.uplinkPorts",
                     "HostPropSet id - com.talpex.common.host.uplinkPorts", "PortAdd id port0 -",
                     "PortAdd id port1 -"}));
    EXPECT_EQ(StepsOf([] { ASSERT_EQ(VSDVS_DestroyVSwitch(LAB), STATUS_OK); }),
              (Steps{"SwitchDissociate id - -", "SwitchRemove id - -", DESTROY}));
    EXPECT_EQ(TakeCommandLines(),
              (Steps{"/bin/tybel -e set /net/create lab \"128\n\" vswitch 2>/dev/null",
                     "/bin/tybel -e set /net/portsets/lab/destroy destroy 2> /dev/null"}));
}

TEST_F(Lifecycle, ASwitchIsStoredWithItsNames)
{
    const struct {
        uint32_t version;
        uint8_t opaque;
        uint32_t maxPorts;
        std::string portset, storedOpaque, ports;
    } cases[] = {{0xFFFFFFFF, 0, 64, "net:1", Text("false"), "64"}, {0, 0x80, 0, "p", Text("true"), "128"}};
    for (const auto &row : cases) {
        ASSERT_EQ(VSDVS_CreateVSwitch(LAB, LAB_ID, row.portset.c_str(), row.version, row.opaque, row.maxPorts,
                                      0, 0),
                  STATUS_OK);
        EXPECT_EQ(Read(StoreLevel::GLOBAL, "com.talpex.common.alias"), (Stored{Text(LAB), 0x10}));
        EXPECT_EQ(Read(StoreLevel::GLOBAL, "com.talpex.common.version"), (Stored{Word(row.version), 0x10}));
        EXPECT_EQ(Read(StoreLevel::GLOBAL, "com.talpex.common.opaqueDvs"), (Stored{row.storedOpaque, 0x10}));
        EXPECT_EQ(Read(StoreLevel::HOST, "com.talpex.common.host.portset"),
                  (Stored{Text(row.portset), 0x10}));
        EXPECT_EQ(Read(SWITCH_UPLINK_NAMES), std::nullopt);
        EXPECT_NE(TakeCommandLines().back().find("create " + row.portset + " \"" + row.ports + '\n'),
                  std::string::npos);
        ASSERT_EQ(VSDVS_DestroyVSwitch(LAB), STATUS_OK);
    }
}

TEST_F(Lifecycle, EveryStepOfACreationIsUndone)
{
    ExpectUndone({"DVSZOR_SwitchAdd", "DVSZOR_GlobalPropSet", "DVSZOR_HostPropSet", "DVSZOR_SwitchAssociate",
                  "DVSZOR_PortAdd", "DVSData_Alloc", "DVSData_Serialize"},
                 17, CreateSmall, [] { ASSERT_EQ(VSDVS_DestroyVSwitch(LAB), STATUS_OK); });
    // Failures of the undo do not change the status and do not end the undo.
    vshost_fail(VSHOST_STORE, "DVSZOR_PortAdd", 3, 1, STATUS_BUSY);
    vshost_fail(VSHOST_STORE, "DVSZOR_SwitchDissociate", 1, 1, STATUS_IO_ERROR);
    vshost_fail(VSHOST_STORE, "DVSZOR_SwitchRemove", 1, 1, STATUS_IO_ERROR);
    vshost_fail(VSHOST_SHELL, "destroy", 1, 1, 1);
    const Steps steps = StepsOf([] { EXPECT_EQ(CreateSmall(), STATUS_BUSY); });
    EXPECT_EQ(Steps(steps.end() - 4, steps.end()),
              (Steps{"PortAdd id port1 -", "SwitchDissociate id - -", "SwitchRemove id - -", DESTROY}));
}

TEST_F(Lifecycle, NothingIsStoredWhenThePortsetCannotBeMade)
{
    const uint64_t before = vshost_fingerprint();
    for (const uint32_t outcome : {1u, 255u, VSHOST_SHELL_KILLED, VSHOST_SHELL_NOT_STARTED}) {
        vshost_fail(VSHOST_SHELL, "create", 1, 1, outcome);
        EXPECT_EQ(StepsOf([] { EXPECT_EQ(CreateSmall(), STATUS_FAILURE); }), Steps{CREATE}) << outcome;
        EXPECT_EQ(vshost_fingerprint(), before);
    }
    ASSERT_EQ(CreateSmall(), STATUS_OK);
    const uint64_t created = vshost_fingerprint();
    EXPECT_EQ(CreateSmall(), STATUS_FAILURE) << "the portset runs";
    EXPECT_EQ(VSDVS_CreateVSwitch(LAB, "other", "other", 7, 1, 0, 1, 2), STATUS_EXISTS);
    EXPECT_EQ(VSDVS_CreateVSwitch("other", "id", "other", 7, 1, 0, 1, 2), STATUS_EXISTS);
    EXPECT_EQ(vshost_fingerprint(), created);
}

TEST_F(Lifecycle, ADestructionStopsAtItsFirstFailure)
{
    ASSERT_EQ(CreateSmall(), STATUS_OK);
    const struct {
        vshost_kind kind;
        const char *operation;
        uint32_t outcome;
        VsStatus status;
        size_t steps;
    } cases[] = {{VSHOST_STORE, "DVSZOR_SwitchDissociate", STATUS_BUSY, STATUS_BUSY, 1},
                 {VSHOST_STORE, "DVSZOR_SwitchRemove", STATUS_FAILURE, STATUS_FAILURE, 2},
                 {VSHOST_SHELL, "destroy", 1, STATUS_FAILURE, 3}};
    for (const auto &row : cases) {
        const uint64_t before = vshost_fingerprint();
        vshost_fail(row.kind, row.operation, 1, 1, row.outcome);
        EXPECT_EQ(StepsOf([&] { EXPECT_EQ(VSDVS_DestroyVSwitch(LAB), row.status); }).size(), row.steps);
        EXPECT_EQ(vshost_fingerprint() == before, row.steps == 1) << row.operation;
        EXPECT_EQ(Read(SWITCH_ALIAS, nullptr, "id").has_value(), row.steps < 3) << row.operation;
    }
    EXPECT_EQ(StepsOf([] { EXPECT_EQ(VSDVS_DestroyVSwitch(LAB), STATUS_NOT_FOUND); }), Steps{});
}

// The changes depend on the source of the status, the library or the store.
TEST_F(LabTest, TheStoreMayAnswerWithAStatusThatTheLibraryHasToo)
{
    const auto destroy = [] { return VSDVS_DestroyVSwitch(LAB); };
    const auto setPriority = [] { return VSDVS_SetPortVLANPolicy(LAB, PORT, 5, 3, 0, 0, nullptr, 0); };
    const auto removeUplink = [] { return VSDVS_RemoveSwitchUplinkPort(LAB, "uplink0"); };
    const struct {
        const char *operation;
        unsigned nth;
        VsStatus status;
        std::function<VsStatus()> call;
        Steps changed;
    } cases[] = {
        {"DVSZOR_PortDataSet", 1, STATUS_NO_MEMORY, setPriority, {}},
        {"DVSZOR_PortDataSet", 2, STATUS_NO_MEMORY, setPriority, {"vlan"}},
        {"DVSZOR_PortRemove", 1, STATUS_NOT_FOUND, removeUplink, {}},
        {"DVSZOR_GlobalPropSet", 1, STATUS_NOT_FOUND, removeUplink, {"uplink0"}},
        {"DVSZOR_HostPropSet", 1, STATUS_NOT_FOUND, removeUplink, {"uplink0", "names"}},
        {"DVSZOR_SwitchDissociate", 1, STATUS_FAILURE, destroy, {}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.operation + " "s + std::to_string(row.nth));
        StartHost();
        ASSERT_EQ(CreateLab(), STATUS_OK);
        const auto vlan = Read(PORT_VLAN), names = Read(SWITCH_UPLINK_NAMES);
        const uint64_t before = vshost_fingerprint();
        vshost_fail(VSHOST_STORE, row.operation, row.nth, 1, row.status);
        EXPECT_EQ(row.call(), row.status);
        EXPECT_EQ(vshost_fingerprint() == before, row.changed.empty());
        Steps changed;
        if (Read(PORT_VLAN) != vlan) changed.push_back("vlan");
        if (!DVPortExist(LAB_ID, "uplink0")) changed.push_back("uplink0");
        if (Read(SWITCH_UPLINK_NAMES) != names) changed.push_back("names");
        EXPECT_EQ(changed, row.changed);
    }
}

TEST_F(LabTest, APortComesWithAllItsProperties)
{
    vshost_record(1);
    ASSERT_EQ(VSDVS_AddDVPort(LAB, "p", 7), STATUS_OK);
    vshost_record(0);
    std::vector<uint32_t> bundleKinds;
    for (const Call &call : Calls(VSHOST_STORE))
        if (call.operation == "DVSData_Serialize"s) bundleKinds.push_back(call.flags);
    EXPECT_EQ(bundleKinds, std::vector<uint32_t>{5});
    ASSERT_EQ(VSDVS_AddOpaqueDVPort(LAB, "o", "vnic \xff"), STATUS_OK);
    const std::string external = "com.talpex.port.extraConfig.vnic.external.id", zeros(128, '\0');
    const struct {
        const char *port;
        uint32_t connectId;
        std::string vlan;
        std::optional<Stored> externalId;
    } cases[] = {{"p", 7, zeros.substr(0, 8), {}},
                 {"o", 1, zeros.substr(0, 8), {{Text("vnic \xff"), 0x10}}},
                 {"port1", 1, zeros.substr(0, 8), {}},
                 {"uplink1", 1, Hex("01 00 00 00 00 00 01 00 01 00 fe 0f"), {}}};
    for (const auto &row : cases) {
        SCOPED_TRACE(row.port);
        const auto read = [&](const char *key) { return Read(StoreLevel::PORT, key, row.port); };
        EXPECT_EQ(read("com.talpex.common.port.alias"), (Stored{Text(row.port), 0x10}));
        EXPECT_EQ(read("com.talpex.common.port.connectid"), (Stored{Word(row.connectId), 0x10}));
        EXPECT_EQ(read("com.talpex.common.port.block"), (Stored{Text("false"), 0x10}));
        EXPECT_EQ(read("com.talpex.common.port.statistics"), (Stored{zeros, 0x20}));
        EXPECT_EQ(read("com.talpex.vswitch.port.vlan"), (Stored{row.vlan, 0x08}));
        EXPECT_EQ(read(external.c_str()), row.externalId);
    }
    EXPECT_EQ(VSDVS_AddDVPort(LAB, "p", 7), STATUS_EXISTS);
    EXPECT_EQ(VSDVS_RemoveDVPort(LAB, "none"), STATUS_NOT_FOUND);
    ExpectUndone(
        {"DVSZOR_PortAdd", "DVSData_Alloc", "DVSData_Serialize"}, 3,
        [] { return VSDVS_AddDVPort(LAB, "q", 1); }, [] { VSDVS_RemoveDVPort(LAB, "q"); });
    vshost_fail(VSHOST_STORE, "DVSZOR_PortDataSet", 1, 1, STATUS_BUSY);
    EXPECT_EQ(VSDVS_AddOpaqueDVPort(LAB, "kept", "vnic"), STATUS_BUSY);
    EXPECT_EQ(DVPortExist(LAB_ID, "kept"), 1);
}

TEST_F(LabTest, APortNumberStandsInTheStatusRecord)
{
    const std::string record = std::string(16, '\xff') + Word(42) + "more", none;
    const std::vector<Reading::Case> cases = {{record.substr(0, 20), STATUS_OK, Word(42)},
                                              {record, STATUS_OK, Word(42)},
                                              {record.substr(0, 19), STATUS_FAILURE, none},
                                              {"", STATUS_FAILURE, none},
                                              {{}, STATUS_NOT_FOUND, none}};
    Reading{PORT_STATUS, OnPort(VSDVS_DvPortIDToPortID), cases}.Check();
    const auto byId = [](char *out) {
        return VSDVS_DvPortIDToPortIDFromDVSID(LAB_ID, PORT, reinterpret_cast<uint32_t *>(out));
    };
    Reading{PORT_STATUS, byId, cases}.Check();
}

}
