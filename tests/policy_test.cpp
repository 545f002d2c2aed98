// Policies at the ends of their ranges: the greatest counts, stored values that are not as long as a record,
// and the two calls that read a property.
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
    };
    for (const Reading &reading : readings)
        reading.Check();
}

// ---- Properties by their key: one protocol at three levels ----

constexpr char KEY[] = "com.example.key";

const struct {
    StoreLevel level;
    VsStatus (*get)(const char *alias, const char *key, PropValueBuffer *value, const char *id, uint8_t use);
} LEVELS[] = {
    {StoreLevel::GLOBAL, VSDVS_GetGlobProp},
    {StoreLevel::HOST, VSDVS_GetHostProp},
    {StoreLevel::PORT, [](auto alias, auto... rest) { return VSDVS_GetPortProp(alias, PORT, rest...); }},
};

TEST_F(LabTest, APropertyIsReadInTwoCalls)
{
    const std::string five = "\1\0\2\0\3"s;
    const struct {
        std::optional<std::string> stored;
        std::vector<int32_t> lengths;
        VsStatus status, withoutData;
    } cases[] = {
        {{}, {0, 5, -1}, STATUS_NOT_FOUND, STATUS_NOT_FOUND},
        {five, {0}, STATUS_OK, STATUS_OK},
        {five, {5, 6, 16, INT32_MAX}, STATUS_OK, STATUS_BAD_PARAM},
        {five, {4, 1, -1, INT32_MIN}, STATUS_NO_MEMORY, STATUS_NO_MEMORY},
        {"", {0, 4}, STATUS_OK, STATUS_OK},
        {"", {-1}, STATUS_NO_MEMORY, STATUS_NO_MEMORY},
    };
    for (const auto &level : LEVELS) {
        for (const auto &row : cases) {
            Store({KEY, level.level, 0x10}, row.stored);
            for (const int32_t length : row.lengths) {
                SCOPED_TRACE(std::to_string(static_cast<int>(level.level)) + " into " +
                             std::to_string(length));
                std::string buffer(16, '#');
                const bool asked = row.status == STATUS_OK && length == 0;
                const int32_t after = asked ? static_cast<int32_t>(row.stored->size()) : length;
                PropValueBuffer value = {length, buffer.data()}, withoutData = {length, nullptr};
                EXPECT_EQ(level.get(LAB, KEY, &value, nullptr, 1), row.status);
                const std::string read = row.status == STATUS_OK && !asked ? *row.stored : "";
                EXPECT_EQ(buffer, read + std::string(16 - read.size(), '#'));
                EXPECT_EQ(value.length, after);
                EXPECT_EQ(level.get(LAB, KEY, &withoutData, nullptr, 1), row.withoutData);
                EXPECT_EQ(withoutData.length, after);
            }
        }
        PropValueBuffer withoutData = {5, nullptr};
        EXPECT_EQ(level.get("unknown", KEY, &withoutData, nullptr, 1), STATUS_NOT_FOUND);
    }
}

}
