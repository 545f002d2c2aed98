// Properties by their key: one protocol at three levels.
#include "tests/family.h"

namespace {

constexpr char KEY[] = "com.example.key";

// The three operations of a level, with the port that only one of them takes.
struct Level {
    StoreLevel level;
    std::string step;
    VsStatus (*get)(const char *alias, const char *key, PropValueBuffer *value, const char *id, uint8_t use);
    VsStatus (*set)(const char *alias, const char *key, const void *data, uint32_t length, const char *id,
                    uint8_t use);
    VsStatus (*clear)(const char *alias, const char *key, const char *id, uint8_t use);
};

const Level LEVELS[] = {
    {StoreLevel::GLOBAL, "GlobalProp", VSDVS_GetGlobProp, VSDVS_SetGlobProp, VSDVS_ClearGlobProp},
    {StoreLevel::HOST, "HostProp", VSDVS_GetHostProp, VSDVS_SetHostProp, VSDVS_ClearHostProp},
    {StoreLevel::PORT, "PortData",
     [](auto alias, auto... rest) { return VSDVS_GetPortProp(alias, PORT, rest...); },
     [](auto alias, auto... rest) { return VSDVS_SetPortProp(alias, PORT, rest...); },
     [](auto alias, auto... rest) { return VSDVS_ClearPortProp(alias, PORT, rest...); }},
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
    for (const Level &level : LEVELS) {
        for (const auto &row : cases) {
            Store({KEY, level.level, 0x10}, row.stored);
            for (const int32_t length : row.lengths) {
                SCOPED_TRACE(level.step + " into " + std::to_string(length));
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

TEST_F(LabTest, APropertyIsWrittenAndClearedInOneCall)
{
    for (const Level &level : LEVELS) {
        // Typed operations store the second property with other flags.
        for (const std::string key : {KEY, "com.talpex.vswitch.port.vlan"}) {
            const std::string where =
                " "s + LAB_ID + (level.level == StoreLevel::PORT ? " port0 " : " - ") + key;
            EXPECT_EQ(
                StepsOf([&] { EXPECT_EQ(level.set(LAB, key.c_str(), "v", 2, "ignored", 1), STATUS_OK); }),
                Steps{level.step + "Set" + where});
            EXPECT_EQ(Read(level.level, key.c_str()), (Stored{Text("v"), 0x10}));
            EXPECT_EQ(level.set("ignored", key.c_str(), nullptr, 0, LAB_ID, 0), STATUS_OK);
            EXPECT_EQ(Read(level.level, key.c_str()), (Stored{"", 0x10}));
            EXPECT_EQ(StepsOf([&] { EXPECT_EQ(level.clear(nullptr, key.c_str(), LAB_ID, 0), STATUS_OK); }),
                      Steps{level.step + "Clear" + where});
            EXPECT_EQ(level.clear(LAB, key.c_str(), nullptr, 1), STATUS_NOT_FOUND);
        }
        // An id that fits is used as it is; the store is not asked for a longer id.
        for (const size_t length : {63u, 64u}) {
            const std::string id(length, 'i');
            const VsStatus status = length == 63 ? STATUS_NOT_FOUND : STATUS_BAD_PARAM;
            const Steps steps = StepsOf([&] { EXPECT_EQ(level.clear(nullptr, KEY, id.c_str(), 0), status); });
            EXPECT_EQ(steps.size(), length == 63 ? 1u : 0u);
        }
    }
}

}
