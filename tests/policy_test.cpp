// Policies at the ends of their ranges: the greatest counts, and stored values that are not as long as a
// record.
#include "tests/family.h"

namespace {

std::string Pattern(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; i++)
        bytes[i] = static_cast<char>(i * 7 + i / 256 + 1);
    return bytes;
}

TEST_F(LabTest, ATableIsAsLongAsItsCountSaysIn32Bits)
{
    // 4 + 2748 * 1562943 is 72 in 32 bits.
    const std::string wrapped = Word(1562943) + Pattern(68);
    const auto *table = reinterpret_cast<const LSTeamingPolicyTable *>(wrapped.data());
    EXPECT_EQ(VSDVS_SetLSTeamingPolicy(LAB, table), STATUS_OK);
    EXPECT_EQ(Read(SWITCH_LS_TEAMING), (Stored{wrapped, 0x10}));
}

TEST_F(LabTest, APolicyHasAnyNumberOfRanges)
{
    const std::vector<VLANRange> most(65535, {1, 2});
    ASSERT_EQ(VSDVS_SetPortVLANPolicy(LAB, PORT, 0xffff, 0xfffffffe, 0, 0, most.data(), 65535), STATUS_OK);
    const std::string stored = Read(PORT_VLAN)->bytes;
    EXPECT_EQ(stored.size(), 8u + 4u * 65535u);
    EXPECT_EQ(stored.substr(0, 12), Hex("04 00 ff ff 00 00 ff ff 01 00 02 00"));
    EXPECT_EQ(Read(PORT_PRIORITY)->bytes, Word(0xfffffffe));
}

TEST_F(LabTest, LengthsOfPrivateVLANMapsAre32BitValues)
{
    EXPECT_EQ(VSDVS_SetPrivateVLANMap(LAB, nullptr, 0), STATUS_NOT_FOUND);
    const std::string three = "\1\2\3\4\5\6\7\10ABCDEFGHabcdefgh"s;
    const auto *entries = reinterpret_cast<const PVLANMapEntry *>(three.data());
    // Lengths are 32-bit values: this many entries and one are the same.
    for (const uint32_t count : {1u, 3u, 0x20000001u}) {
        ASSERT_EQ(VSDVS_SetPrivateVLANMap(LAB, entries, count), STATUS_OK);
        EXPECT_EQ(Read(StoreLevel::GLOBAL, "com.talpex.vswitch.pvlanMap"),
                  (Stored{three.substr(0, count == 3 ? 24 : 8), 0x08}));
    }
}

TEST_F(LabTest, AStoredValueIsReadByItsRule)
{
    const std::optional<std::string> absent;
    const std::string on = "\1", off = "\0"s, teaming = Pattern(3000), none;
    const std::string text(140, 't');
    const Reading readings[] = {
        {PORT_SECURITY,
         OnPort(VSDVS_GetPortSecurity),
         {{absent, STATUS_OK, Word(1)},
          {Word(0xfffffff0), STATUS_OK, Word(0xfffffff0)},
          {Hex("07 00 00"), STATUS_FAILURE, none},
          {Hex("07 00 00 00 00"), STATUS_FAILURE, none}}},
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
