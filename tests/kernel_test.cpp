// Requests to the driver: every byte as the driver sees it, and lists with every possible answer. What a
// running host answers is in driver_test, and through the library in model_test.
#include <cerrno>
#include <cstring>
#include <malloc.h>
#include <stdexcept>

#include "tests/operations.h"

namespace {

constexpr uint32_t COMMON = 212;
constexpr uint8_t IPV6_GROUP[16] = {0xFF, 2};

struct Field {
    size_t offset;
    std::string bytes;
};

// The request of a row of the operations' table: its input, zero except for the fields, and the room for each
// answer.
struct RequestRow {
    const char *operation;
    uint32_t number;
    std::vector<Field> fields;
    std::vector<uint32_t> outLengths;
    uint32_t inLength = COMMON;
    const char *device = ZOR_DEVICE;
};

std::string Word(uint32_t value) { return Bytes(value); }

const Field PORTSET = {0, LAB_PORTSET}, SWITCH = {0, LAB_ID}, DV_PORT = {128, PORT}, NUMBER = {128, Word(1)};
const Field UPLINK = {176, NIC}, SELECTOR = {176, Word(5)}, KIND = {180, Word(ADDRESS_KIND_IPV4)};

const RequestRow REQUESTS[] = {
    {"VSDVS_GetMcastFilterMode", 4103, {PORTSET}, {4}},
    {"ZORIoctl", 4120, {}, {9}},
    {"VSZOR_GetSwitches", 4126, {{0, Word(0)}}, {8, 8 + 2 * 81}, 4},
    {"VSZOR_GetSwitches", 4126, {{0, Word(1)}}, {8, 8 + 2 * 128}, 4},
    {"VSZOR_GetVSInfo", 4111, {PORTSET}, {208}},
    {"VSZOR_GetUplinks", 4106, {PORTSET}, {8, 80}},
    {"VSZOR_GetUplinkLinkState", 4107, {PORTSET, UPLINK}, {4}},
    {"VSZOR_GetUplinkLACPLinkState", 4108, {PORTSET, UPLINK}, {4}},
    {"VSZOR_SetUplinkAdminLinkState", 8194, {PORTSET, UPLINK, {208, Word(1)}}, {0}},
    {"VSZOR_GetLAGTable", 4109, {PORTSET}, {35588}},
    {"VSZOR_PortGetTeamUplinkHint", 4122, {NUMBER}, {32}},
    {"VSZOR_GetUplinkDVPortID", 4123, {UPLINK}, {48}},
    {"VSZOR_RefreshDevNUMAInfo", 8198, {PORTSET}, {0}},
    {"VSZOR_GetPortMACTable", 4117, {SWITCH, DV_PORT, {182, "\1"}}, {8, 26}},
    {"VSZOR_SetPortMACTable", 8195, {SWITCH, DV_PORT, {176, Bytes(OTHER_MAC_ENTRY)}}, {0}},
    {"VSZOR_ClearPortMACTable", 8196, {SWITCH, DV_PORT, {176, Bytes(MAC_ENTRY)}}, {0}},
    {"VSZOR_GetTeamMACTable", 4118, {PORTSET, {182, "\1"}}, {8, 26}},
    {"VSZOR_GetPortMACLearningStats", 4119, {SWITCH, DV_PORT}, {28}},
    {"VSZOR_GetGlobalMACLearningProps", 4120, {}, {9}},
    {"VSZOR_SetGlobalMACLearningProps", 8197, {{176, Bytes(LEARNING_PROPS)}}, {0}},
    {"VSZOR_GetSwitchMACLearningInfo", 4121, {PORTSET}, {52}},
    {"VSZOR_GetMcastFilterMode", 4103, {PORTSET}, {4}},
    {"VSZOR_GetMcastFilters", 4104, {PORTSET, SELECTOR, KIND}, {8, 12}},
    {"VSZOR_GetMcastFilterStats", 4105, {PORTSET, SELECTOR, KIND, {184, Bytes(GROUP)}}, {28, 32}},
    {"VSZOR_GetDVMirrorSessionIDs", 4101, {PORTSET}, {8, 72}},
    {"VSZOR_GetDVMirrorSessionStats", 4102, {PORTSET, {176, SESSION}}, {121}},
    {"VSZOR_GetPromiscSessionActiveDsts", 4100, {PORTSET}, {8, 12}},
    {"VSZOR_GetRARPStats", 4097, {PORTSET}, {16}},
    {"VSZOR_GetServicePortTeamingStats", 4098, {PORTSET}, {48}},
    {"VSZOR_GetRuntimeOptions", 4099, {{0, Bytes(OPTION_IDS)}}, {4096}, 2},
    {"VSZOR_GetRuntimeOptions", 4099, {}, {4096}, 0},
    {"VSZOR_SetRuntimeOptions", 8193, {{0, Bytes(OPTIONS)}}, {0}, sizeof(OPTIONS)},
    {"VSZOR_GetPortLSTeamingPolicyName", 4124, {NUMBER}, {136}},
    {"VSZOR_GetLSTeamingPolicyTable", 4125, {PORTSET}, {4, 5500}},
    {"VSZOR_RTMOp", 0x80000001, {{0, Bytes(RTM_RECORD)}}, {0}, 9 + 128, ZOR_RTM_DEVICE},
};

// The row of the operations' table for a request: both tables have the same order.
class RequestRows {
public:
    const Operation &Next(const RequestRow &row)
    {
        for (; next != Operations().end(); ++next)
            if (next->name == row.operation &&
                next->calls.find(std::to_string(row.number)) != std::string::npos)
                return *next++;
        throw std::out_of_range("the rows must stand in the order of the operations' table");
    }

private:
    std::vector<Operation>::const_iterator next = Operations().begin();
};

void ExpectRequest(const Call &call, const RequestRow &row, uint32_t outLength)
{
    std::string input(std::min<size_t>(row.inLength, sizeof(call.input)), '\0');
    for (const Field &field : row.fields)
        input.replace(field.offset, field.bytes.size(), field.bytes);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(call.input), input.size()), input);
    EXPECT_STREQ(call.operation, std::to_string(row.number).c_str());
    EXPECT_STREQ(call.text, row.device);
    EXPECT_EQ(call.length, row.inLength);
    EXPECT_EQ(call.flags, outLength);
}

TEST_F(HostTest, RequestsReachTheDriverToTheByte)
{
    RequestRows rows;
    for (const RequestRow &row : REQUESTS) {
        SCOPED_TRACE(row.operation);
        const Operation &operation = rows.Next(row);
        StartPreparedHost(operation);
        EXPECT_EQ(Invoke(operation), STATUS_OK);
        std::string kinds;
        for (const Call &call : Calls()) {
            if (call.kind == VSHOST_OPEN) kinds += 'o';
            if (call.kind == VSHOST_DRIVER) kinds += 'r';
            if (call.kind == VSHOST_CLOSE) kinds += 'c';
        }
        EXPECT_EQ(kinds, row.outLengths.size() == 1 ? "orc" : "orcorc");
        const std::vector<Call> calls = Calls(VSHOST_DRIVER);
        ASSERT_EQ(calls.size(), row.outLengths.size());
        for (size_t i = 0; i < calls.size(); i++)
            ExpectRequest(calls[i], row, row.outLengths[i]);
    }
}

TEST_F(HostTest, LongNamesAreCutToTheirFields)
{
    constexpr struct {
        const char *argument;
        size_t offset, size;
    } FIELDS[] = {{LAB_PORTSET, 0, 128}, {PORT, 128, 48}, {NIC, 176, 32}, {SESSION, 176, 32}};
    StartPreparedHost(Operations().front());
    unsigned cases = 0;
    for (const Operation &operation : Operations()) {
        if (!operation.name.starts_with("VSZOR")) continue;
        for (const auto &field : FIELDS) {
            for (const size_t length : {field.size - 2, field.size - 1, field.size, size_t{4000}}) {
                const std::string name(length, '#');
                Invoke(operation, {.replaced = field.argument, .text = name.c_str()});
                const std::vector<Call> calls = Calls(VSHOST_DRIVER);
                if (calls.empty() || calls[0].input[field.offset] != '#') continue;
                SCOPED_TRACE(operation.name + ", length " + std::to_string(length));
                std::string expected = name.substr(0, field.size - 1);
                expected.resize(field.size);
                EXPECT_EQ(
                    std::string(reinterpret_cast<const char *>(calls[0].input) + field.offset, field.size),
                    expected);
                cases++;
            }
        }
    }
    EXPECT_GE(cases, 4u * 22);
}

struct ListCommand {
    const char *name;
    uint32_t number, headerSize, entrySize;
    VsStatus (*query)(void **list);
    uint32_t countOffset = 0;
};

const ListCommand LISTS[] = {
    {"switches", 4126, 8, 81, [](void **list) { return VSZOR_GetSwitches(0, list); }},
    {"portsets", 4126, 8, 128, [](void **list) { return VSZOR_GetSwitches(1, list); }},
    {"uplinks", 4106, 8, 36, [](void **list) { return VSZOR_GetUplinks(LAB_PORTSET, list); }},
    {"port MACs", 4117, 8, 18, [](void **list) { return VSZOR_GetPortMACTable(LAB, PORT, 0, list); }},
    {"team MACs", 4118, 8, 18, [](void **list) { return VSZOR_GetTeamMACTable(LAB, 0, list); }},
    {"Ethernet groups", 4104, 8, 6,
     [](void **list) { return VSZOR_GetMcastFilters(LAB_PORTSET, 0, 0, list); }},
    {"IPv4 groups", 4104, 8, 4, [](void **list) { return VSZOR_GetMcastFilters(LAB_PORTSET, 0, 2, list); }},
    {"IPv6 groups", 4104, 8, 16, [](void **list) { return VSZOR_GetMcastFilters(LAB_PORTSET, 0, 3, list); }},
    {"IPv4 sources", 4105, 28, 4,
     [](void **list) { return VSZOR_GetMcastFilterStats(LAB_PORTSET, 0, 2, GROUP, list); }, 20},
    {"IPv6 sources", 4105, 28, 16,
     [](void **list) { return VSZOR_GetMcastFilterStats(LAB_PORTSET, 0, 3, IPV6_GROUP, list); }, 20},
    {"mirror sessions", 4101, 8, 32, [](void **list) { return VSZOR_GetDVMirrorSessionIDs(LAB, list); }},
    {"destinations", 4100, 8, 4, [](void **list) { return VSZOR_GetPromiscSessionActiveDsts(LAB, list); }},
    {"policies", 4125, 4, 2748,
     [](void **list) {
         return VSZOR_GetLSTeamingPolicyTable(LAB, reinterpret_cast<LSTeamingPolicyTable **>(list));
     }},
};

class Lists : public LabTest {
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        mallopt(M_PERTURB, 0x5A); // makes uncleared memory visible
    }

    // The driver's answer: a header with this count, and as many entries.
    static std::string Answer(const ListCommand &command, uint32_t count, uint32_t entries)
    {
        std::string answer(command.headerSize, 'h');
        answer.replace(command.countOffset, sizeof(count), Bytes(count));
        return answer + std::string(entries * command.entrySize, 'e');
    }

    static void Give(const ListCommand &command, std::string_view answer)
    {
        ASSERT_EQ(vshost_answer(command.number, 1, answer.data(), static_cast<uint32_t>(answer.size())), 0);
    }

    // Gives the answers, and expects a list of these bytes after these requests.
    static void Expect(const ListCommand &command, const std::vector<std::string> &answers,
                       const std::string &bytes, const std::vector<uint32_t> &outLengths)
    {
        SCOPED_TRACE(command.name);
        for (const std::string &answer : answers)
            Give(command, answer);
        vshost_record(1);
        void *list = nullptr;
        EXPECT_EQ(command.query(&list), STATUS_OK);
        ASSERT_TRUE(list);
        EXPECT_EQ(std::string(static_cast<const char *>(list), bytes.size()), bytes);
        VSZOR_FreeMemory(list);
        std::vector<uint32_t> lengths;
        for (const Call &call : Calls(VSHOST_DRIVER))
            lengths.push_back(call.flags);
        EXPECT_EQ(lengths, outLengths);
        vshost_clear();
    }
};

TEST_F(Lists, HoldWhatTheDriverAnswers)
{
    for (const ListCommand &command : LISTS) {
        const auto room = [&](uint32_t count) { return command.headerSize + count * command.entrySize; };
        const std::string three = Answer(command, 3, 3), one = Answer(command, 1, 1),
                          none = Answer(command, 0, 0);
        // An empty list of switches holds the kind, whatever the driver answered.
        std::string empty = none;
        if (command.number == 4126) empty = Word(0) + Word(command.entrySize == 128);
        Expect(command, {three, three}, three, {command.headerSize, room(3)});
        Expect(command, {none}, empty, {command.headerSize});
        // Grown since the first request: cut. Shrunk: the rest is zero.
        Expect(command, {one, three}, three.substr(0, room(1)), {command.headerSize, room(1)});
        Expect(command, {three, one}, one + std::string(2 * command.entrySize, '\0'),
               {command.headerSize, room(3)});
        Expect(command, {three, ""}, std::string(room(3), '\0'), {command.headerSize, room(3)});
        // A count whose length does not fit 32 bits: only the remainder is used.
        const auto wrapping = static_cast<uint32_t>((uint64_t{1} << 32) / command.entrySize + 1);
        Expect(command, {Answer(command, wrapping, 0), three}, three.substr(0, room(wrapping)),
               {command.headerSize, room(wrapping)});
    }
}

TEST_F(Lists, WithoutAnAnswerAreEmptyOrRefused)
{
    for (const ListCommand &command : LISTS) {
        SCOPED_TRACE(command.name);
        Give(command, "");
        void *list = nullptr;
        const bool refused = command.number == 4126;
        EXPECT_EQ(command.query(&list), refused ? STATUS_FAILURE : STATUS_OK);
        EXPECT_EQ(list == nullptr, refused);
        VSZOR_FreeMemory(list);
        vshost_clear();
    }
}

TEST_F(Lists, AndTablesAreZeroWhereNothingWasWritten)
{
    const auto options = [](void **table) { return VSZOR_GetRuntimeOptions(nullptr, 0, table); };
    const auto lags = [](void **table) { return VSZOR_GetLAGTable(LAB_PORTSET, table); };
    const ListCommand tables[] = {{"options", 4099, RUNTIME_OPTIONS_SIZE, 0, options},
                                  {"LAGs", 4109, LAG_TABLE_SIZE, 0, lags}};
    for (const ListCommand &table : tables)
        Expect(table, {"h"}, 'h' + std::string(table.headerSize - 1, '\0'), {table.headerSize});
}

TEST_F(Lists, OfGroupsKnowThreeKinds)
{
    const ListCommand groups = {"", 4104, 8, 4, nullptr};
    for (const int kind : {1, 4, -1}) {
        void *list = &list;
        vshost_record(1);
        Give(groups, Answer(groups, 2, 2));
        EXPECT_EQ(VSZOR_GetMcastFilters(LAB_PORTSET, 0, kind, &list), STATUS_BAD_PARAM);
        EXPECT_EQ(Calls(VSHOST_DRIVER).size(), 1u);
        vshost_fail(VSHOST_DRIVER, nullptr, 1, 1, EBUSY);
        EXPECT_EQ(VSZOR_GetMcastFilters(LAB_PORTSET, 0, kind, &list), STATUS_BUSY);
        vshost_clear();
        EXPECT_EQ(list, &list);
    }
    for (const int kind : {0, 1, 4, -1}) {
        void *stats = &stats;
        vshost_record(1);
        EXPECT_EQ(VSZOR_GetMcastFilterStats(LAB_PORTSET, 0, kind, GROUP, &stats), STATUS_BAD_PARAM);
        EXPECT_EQ(vshost_call_count(), 0u);
        EXPECT_EQ(stats, &stats);
        vshost_clear();
    }
}

TEST_F(LabTest, LinkStatesAreReducedToOneBit)
{
    constexpr uint32_t FIVE = 5, OTHERS = 0;
    for (const uint32_t number : {4107u, 4108u}) {
        const auto query = number == 4107 ? VSZOR_GetUplinkLinkState : VSZOR_GetUplinkLACPLinkState;
        for (const uint32_t *state : {&FIVE, &OTHERS}) {
            uint32_t linkUp = 7;
            vshost_answer(number, 1, state, sizeof(*state));
            EXPECT_EQ(query(LAB_PORTSET, NIC, &linkUp), STATUS_OK);
            EXPECT_EQ(linkUp, *state != 0);
        }
    }
}

TEST_F(LabTest, RuntimeOptionsWithoutIdsHaveNoInput)
{
    for (const auto &[ids, count] : {std::pair{OPTION_IDS, 0}, {static_cast<const uint16_t *>(nullptr), 3}}) {
        void *options = nullptr;
        vshost_record(1);
        EXPECT_EQ(VSZOR_GetRuntimeOptions(ids, static_cast<uint16_t>(count), &options), STATUS_OK);
        EXPECT_EQ(Calls(VSHOST_DRIVER).at(0).length, 0u);
        VSZOR_FreeMemory(options);
        vshost_clear();
    }
}

}
