// Properties by their key: one protocol at three levels.
#include "tests/family.h"

namespace {

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
