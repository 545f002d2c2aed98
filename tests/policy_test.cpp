// Policies of one property: what is written, how any stored value is read, and clearing an absent property.
#include "tests/family.h"

namespace {

std::string Pattern(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; i++)
        bytes[i] = static_cast<char>(i * 7 + i / 256 + 1);
    return bytes;
}
template<typename Record> const Record *As(const std::string &bytes)
{
    return reinterpret_cast<const Record *>(bytes.data());
}

// Writes the count of the returned table, which identifies the stored table.
VsStatus GetTable(VsStatus (*get)(const char *, LSTeamingPolicyTable **), const char *name, char *out)
{
    auto *const untouched = reinterpret_cast<LSTeamingPolicyTable *>(8);
    LSTeamingPolicyTable *table = untouched;
    const VsStatus status = get(name, &table);
    EXPECT_EQ(table == untouched, status != STATUS_OK);
    if (status != STATUS_OK) return status;
    memcpy(out, table, sizeof(*table));
    VSDVS_FreeMemory(table);
    return status;
}

TEST_F(LabTest, ATableIsAsLongAsItsCountSaysIn32Bits)
{
    // 4 + 2748 * 1562943 is 72 in 32 bits.
    const std::string wrapped = Word(1562943) + Pattern(68);
    EXPECT_EQ(VSDVS_SetLSTeamingPolicy(LAB, As<LSTeamingPolicyTable>(wrapped)), STATUS_OK);
    EXPECT_EQ(Read(SWITCH_LS_TEAMING), (Stored{wrapped, 0x10}));
}

TEST_F(LabTest, AValueOutOfRangeIsRefusedBeforeTheSwitchIsLookedUp)
{
    const uint32_t eight = 8, high = 0x80000001;
    const SwitchMACLearningRecord over = {{0x41, 0x42, 0x0f}, 0, 0}, most = {{0xff, 0xff, 0xff}, 0, 0};
    for (const char *alias : {LAB, "unknown"}) {
        const Steps steps = StepsOf([&] {
            EXPECT_EQ(VSDVS_SetPortSecurity(alias, PORT, &eight), STATUS_BAD_PARAM);
            EXPECT_EQ(VSDVS_SetPortSecurity(alias, PORT, &high), STATUS_BAD_PARAM);
            EXPECT_EQ(VSDVS_SetMACLearning(alias, &over), STATUS_BAD_PARAM);
            EXPECT_EQ(VSDVS_SetMACLearning(alias, &most), STATUS_BAD_PARAM);
            for (const int32_t mode : {-1, 2, INT32_MIN})
                EXPECT_EQ(VSDVS_SetMcastFilterMode(alias, mode), STATUS_BAD_PARAM);
        });
        EXPECT_EQ(steps, Steps{});
    }
}

TEST_F(LabTest, AStoredValueIsReadByItsRule)
{
    const std::optional<std::string> absent;
    const std::string on = "\1", off = "\0"s, filter = Pattern(200), teaming = Pattern(3000), none;
    const std::string text(140, 't');
    const std::vector<Reading::Case> tables = {{absent, STATUS_NOT_FOUND, none},
                                               {Word(0), STATUS_OK, Word(0)},
                                               {Word(5) + "ABCDEF", STATUS_OK, Word(5)},
                                               {Word(0).substr(1), STATUS_FAILURE, none},
                                               {"", STATUS_FAILURE, none}};
    const Reading readings[] = {
        {PORT_SECURITY,
         OnPort(VSDVS_GetPortSecurity),
         {{absent, STATUS_OK, Word(1)},
          {Word(0xfffffff0), STATUS_OK, Word(0xfffffff0)},
          {Hex("07 00 00"), STATUS_FAILURE, none},
          {Hex("07 00 00 00 00"), STATUS_FAILURE, none}}},
        {PORT_ETH_FILTER,
         OnPort(VSDVS_GetExtraEthFilter),
         {{absent, STATUS_NOT_FOUND, none},
          {filter, STATUS_OK, filter},
          {filter.substr(0, 199), STATUS_FAILURE, none},
          {filter + '\0', STATUS_FAILURE, none}}},
        {PORT_ETH_FILTER,
         OnPort(VSDVS_IsSinkPortEnabled),
         {{absent, STATUS_OK, off},
          {Field(Word(0x00010000), 200), STATUS_OK, on},
          {Field(Word(0xffffffff), 200), STATUS_OK, on},
          {Field(Word(0x00000001), 200), STATUS_OK, off},
          {Field(Word(0xfffeffff), 200), STATUS_OK, off},
          {Field(Word(0x00010000), 199), STATUS_FAILURE, none},
          {Field(Word(0x00010000), 201), STATUS_FAILURE, none}}},
        {PORT_MAC_MANAGEMENT,
         OnPort(VSDVS_GetPortMACLearning),
         {{absent, STATUS_OK, Hex("00 00 00 10 00 00 00 00 00 00")},
          {Pattern(11), STATUS_OK, Pattern(11).substr(1)},
          {Pattern(10), STATUS_FAILURE, none},
          {Pattern(12), STATUS_FAILURE, none}}},
        {HOST_MAC_LEARNING,
         OnSwitch(VSDVS_GetMACLearning),
         {{absent, STATUS_OK, Hex("58 02 00 ee 00 00 01 00")},
          {Pattern(8), STATUS_OK, Pattern(8)},
          {Pattern(7), STATUS_FAILURE, none},
          {Pattern(9), STATUS_FAILURE, none}}},
        {HOST_LEARN_STATIC,
         OnSwitch(VSDVS_GetLearnStatic),
         {{absent, STATUS_OK, off},
          {"true", STATUS_OK, on},
          {"truest", STATUS_OK, on},
          {"tru", STATUS_OK, off},
          {"TRUE", STATUS_OK, off},
          {" true", STATUS_OK, off},
          {"1", STATUS_OK, off},
          {"", STATUS_OK, off}}},
        {PORT_NESTED_VLAN,
         OnPort(VSDVS_GetPortNestedVLANTagging),
         {{absent, STATUS_OK, off},
          {Word(7), STATUS_OK, on},
          {Word(0x80000000), STATUS_OK, on},
          {Word(0), STATUS_OK, off},
          {"\1\0\0"s, STATUS_FAILURE, none},
          {"\1\0\0\0\0"s, STATUS_FAILURE, none}}},
        {SWITCH_TEAMING,
         OnSwitch(VSDVS_GetTeamingPolicy),
         {{absent, STATUS_NOT_FOUND, none},
          {teaming.substr(0, 2616), STATUS_OK, teaming.substr(0, 2616)},
          {teaming.substr(0, 2615), STATUS_FAILURE, none},
          {teaming.substr(0, 2617), STATUS_FAILURE, none}}},
        {SWITCH_TEAMING,
         [](char *out) {
             return VSDVS_GetTeamingPolicyFromDVSID(LAB_ID, reinterpret_cast<TeamingPolicy *>(out));
         },
         {{absent, STATUS_NOT_FOUND, none},
          {teaming.substr(1, 2616), STATUS_OK, teaming.substr(1, 2616)},
          {teaming.substr(0, 2615), STATUS_FAILURE, none}}},
        {PORT_TEAMING,
         OnPort(VSDVS_GetPortTeamingPolicy),
         {{absent, STATUS_NOT_FOUND, none},
          {teaming.substr(0, 7), STATUS_FAILURE, none},
          {teaming.substr(0, 8), STATUS_OK, teaming.substr(0, 8)},
          {teaming.substr(0, 100), STATUS_OK, teaming.substr(0, 100)},
          {teaming.substr(0, 2616), STATUS_OK, teaming.substr(0, 2616)},
          {teaming.substr(0, 2617), STATUS_FAILURE, none}}},
        {PORT_TX_UPLINK,
         OnPort(VSDVS_GetTxUplinkAlways),
         {{absent, STATUS_NOT_FOUND, none},
          {Text("always"), STATUS_OK, on},
          {Text("always") + "more", STATUS_OK, on},
          {"always", STATUS_OK, off},
          {Text("alwaysmore"), STATUS_OK, off},
          {Text("Always"), STATUS_OK, off},
          {Text("normal"), STATUS_OK, off},
          {"", STATUS_OK, off}}},
        {PORT_TEAMING_OVERRIDE,
         OnPort(VSDVS_GetPortTeamingOverride),
         {{absent, STATUS_NOT_FOUND, Field("", 81)},
          {Text("nic1"), STATUS_OK, Field("nic1", 81)},
          {Text(text.substr(0, 80)), STATUS_OK, Text(text.substr(0, 80))},
          {text.substr(0, 81), STATUS_OK, Text(text.substr(0, 80))},
          {Text(text.substr(0, 81)), STATUS_FAILURE, Field("", 81)}}},
        {PORT_LS_TEAMING,
         OnPort(VSDVS_GetPortLSTeamingPolicyName),
         {{absent, STATUS_NOT_FOUND, Field("", 136)},
          {Text("gold"), STATUS_OK, Field("gold", 136)},
          {Text(text.substr(0, 135)), STATUS_OK, Text(text.substr(0, 135))},
          {text.substr(0, 136), STATUS_OK, text.substr(0, 136)},
          {Text(text.substr(0, 136)), STATUS_FAILURE, Field("", 136)}}},
        {SWITCH_LS_TEAMING, [](char *out) { return GetTable(VSDVS_GetLSTeamingPolicyTable, LAB, out); },
         tables},
        {SWITCH_LS_TEAMING,
         [](char *out) { return GetTable(VSDVS_GetLSTeamingPolicyTableFromDVSID, LAB_ID, out); }, tables},
        {SWITCH_MCAST_FILTER,
         OnSwitch(VSDVS_GetMcastFilterMode),
         {{Text("legacyFiltering"), STATUS_OK, Word(0)},
          {Text("legacyFiltering") + "x", STATUS_OK, Word(0)},
          {Text("snooping"), STATUS_OK, Word(1)},
          {"legacyFiltering", STATUS_FAILURE, none},
          {"snooping", STATUS_FAILURE, none},
          {Text("Snooping"), STATUS_FAILURE, none},
          {Text("snoopings"), STATUS_FAILURE, none},
          {"", STATUS_FAILURE, none}}},
    };
    for (const Reading &reading : readings)
        reading.Check();
}

TEST_F(LabTest, ASinkPortIsOneBitOfItsFilter)
{
    const std::string port = " lab-id port0 "s + PORT_ETH_FILTER.key;
    const Steps look = {"PortDataGet" + port}, change = {look[0], "PortDataSet" + port};
    const std::string rest = Pattern(196);
    const struct {
        std::optional<std::string> stored;
        uint8_t enable;
        VsStatus status;
        Steps steps;
        std::optional<std::string> after;
    } cases[] = {
        {{}, 0x80, STATUS_OK, change, Field(Word(0x00010000), 200)},
        {{}, 0, STATUS_OK, change, Field(Word(0), 200)},
        {Word(0xfffeffff) + rest, 1, STATUS_OK, change, Word(0xffffffff) + rest},
        {Word(0xffffffff) + rest, 0, STATUS_OK, change, Word(0xfffeffff) + rest},
        {Word(0xffffffff) + rest, 1, STATUS_OK, look, Word(0xffffffff) + rest},
        {Word(0xfffeffff) + rest, 0, STATUS_OK, look, Word(0xfffeffff) + rest},
        {std::string(199, '\0'), 1, STATUS_FAILURE, look, std::string(199, '\0')},
        {std::string(201, '\0'), 0, STATUS_FAILURE, look, std::string(201, '\0')},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        Store(PORT_ETH_FILTER, row.stored);
        EXPECT_EQ(StepsOf([&] { EXPECT_EQ(VSDVS_ConfigureSinkPort(LAB, PORT, row.enable), row.status); }),
                  row.steps);
        EXPECT_EQ(Read(PORT_ETH_FILTER)->bytes, row.after);
    }
}

TEST_F(LabTest, AMACRecordNotesTheSecurityOfItsMoment)
{
    const PortMACLearningConfig config = {1, 2, 0x06050403, 0x0a090807};
    const std::string bytes = Hex("01 02 03 04 05 06 07 08 09 0a");
    const struct {
        std::optional<std::string> security;
        bool derived;
    } cases[] = {
        {{}, false},      {Word(0), true},    {Word(1), true},        {Word(2), false},
        {Word(3), false}, {Word(4), true},    {Word(5), true},        {Word(6), false},
        {Word(7), false}, {"\0\0\0"s, false}, {"\0\0\0\0\0"s, false}, {"", false},
    };
    const auto expectSet = [&](bool derived) {
        ASSERT_EQ(VSDVS_SetPortMACLearning(LAB, PORT, &config), STATUS_OK);
        EXPECT_EQ(Read(StoreLevel::PORT, "com.talpex.vswitch.port.macManagement"),
                  (Stored{(derived ? '\1' : '\0') + bytes, 0x10}));
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        Store(PORT_SECURITY, row.security);
        expectSet(row.derived);
    }
    Write(PORT_SECURITY, Word(1));
    vshost_fail(VSHOST_STORE, "DVSZOR_PortDataGet", 1, 1, STATUS_IO_ERROR);
    expectSet(false);
    expectSet(true);
    Write(PORT_SECURITY, Word(2)); // a later change does not change the record
    EXPECT_EQ(Read(PORT_MAC_MANAGEMENT)->bytes, '\1' + bytes);
}

TEST_F(LabTest, WithoutAStoredModeTheDriverIsAsked)
{
    uint32_t mode = 9;
    vshost_answer(4103, 1, Word(1).data(), 4);
    EXPECT_EQ(VSDVS_GetMcastFilterMode(LAB, &mode), STATUS_OK);
    EXPECT_EQ(mode, 1u);
    vshost_fail(VSHOST_DRIVER, "4103", 1, 1, 16);
    EXPECT_EQ(VSDVS_GetMcastFilterMode(LAB, &mode), STATUS_BUSY);
    vshost_fail(VSHOST_STORE, "DVSZOR_GlobalPropGet", 1, 1, STATUS_IO_ERROR);
    vshost_record(1);
    EXPECT_EQ(VSDVS_GetMcastFilterMode(LAB, &mode), STATUS_IO_ERROR);
    EXPECT_TRUE(Calls(VSHOST_DRIVER).empty());
    EXPECT_EQ(VSDVS_GetMcastFilterMode(LAB, &mode), STATUS_OK);
    ASSERT_EQ(Calls(VSHOST_DRIVER).size(), 1u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(Calls(VSHOST_DRIVER)[0].input), 128),
              Field(LAB_PORTSET, 128));
}

}
