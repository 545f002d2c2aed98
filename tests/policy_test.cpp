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

}
