// Mirror lists beside a model: sessions with their own entries, written out as one list. Random edits of them
// are among the walks of model_test.
#include <algorithm>
#include <random>

#include "tests/family.h"

namespace {

struct Session {
    std::string id;
    std::string settings = std::string(184, 's');
    uint32_t counts[3] = {};
    std::string entries; // 52 bytes each
};
using Model = std::vector<Session>;

struct Header {
    uint32_t magic = MIRROR_LIST_MAGIC, version = MIRROR_LIST_VERSION, reserved = 0;
};

std::string List(const Model &model, const Header &header = {})
{
    std::string sessions, entries;
    for (const Session &session : model) {
        sessions += Field(session.id, 32) + session.settings + Bytes(session.counts) +
                    Word(static_cast<uint32_t>(entries.size() / 52));
        entries += session.entries;
    }
    return Word(header.magic) + Word(header.version) + Word(static_cast<uint32_t>(model.size())) +
           Word(static_cast<uint32_t>(entries.size() / 52)) + Word(header.reserved) + sessions + entries;
}

// A session of this many entries, each with different bytes.
Session Made(const std::string &id, uint32_t a, uint32_t b = 0, uint32_t c = 0)
{
    Session session = {id, std::string(184, id[0]), {a, b, c}, {}};
    for (uint32_t i = 0; i < a + b + c; i++)
        session.entries += Field(id.substr(0, 20) + ':' + std::to_string(i), 52);
    return session;
}

std::optional<std::string> StoredList()
{
    const auto stored = Read(PORT_MIRRORS);
    return stored ? std::optional(stored->bytes) : std::nullopt;
}
VsStatus Append(const std::string &list)
{
    return VSDVS_AppendDVMirrorSessions(LAB, PORT, reinterpret_cast<const MirrorSessionList *>(list.data()));
}
VsStatus RemoveSession(const char *id) { return VSDVS_RemoveDVMirrorSession(LAB, PORT, id); }

void ExpectRead(VsStatus status, const std::string &list)
{
    MirrorSessionList *const untouched = reinterpret_cast<MirrorSessionList *>(8), *read = untouched;
    EXPECT_EQ(VSDVS_GetDVMirrorSessions(LAB, PORT, &read), status);
    EXPECT_EQ(read == untouched, status != STATUS_OK);
    if (status != STATUS_OK) return;
    EXPECT_EQ(memcmp(read, list.data(), list.size()), 0);
    VSDVS_FreeMemory(read);
}

TEST_F(LabTest, ACallersListMustAddUp)
{
    const auto list = [](uint32_t a, uint32_t b, uint32_t c, uint32_t first, uint32_t entries) {
        std::string bytes = List({Made("a", 2), Made("b", 1)});
        const uint32_t counts[] = {a, b, c, first};
        memcpy(bytes.data() + 20 + 232 + 216, counts, sizeof(counts));
        memcpy(bytes.data() + 12, &entries, sizeof(entries));
        return bytes;
    };
    const struct {
        std::string list;
        VsStatus status;
    } cases[] = {
        {list(1, 0, 0, 2, 3), STATUS_OK},
        {list(0, 0, 1, 0, 3), STATUS_OK},                 // order, gaps and overlaps are not checked
        {list(0xffffffff, 2, 0, 0, 3), STATUS_BAD_PARAM}, // sums that would wrap to 1
        {list(0xffffffff, 0, 2, 2, 3), STATUS_BAD_PARAM},
        {list(1, 0, 0, 0xffffffff, 3), STATUS_BAD_PARAM},
        {Word(0) + Word(0) + Word(0) + Word(1) + Word(0), STATUS_BAD_PARAM},
        {Word(0) + Word(0) + Word(0) + Word(0) + Word(9), STATUS_OK},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        const auto *list = reinterpret_cast<const MirrorSessionList *>(row.list.data());
        EXPECT_EQ(Append(row.list), row.status);
        EXPECT_EQ(StoredList().has_value(), row.status == STATUS_OK);
        EXPECT_EQ(VSDVS_AppendDVMirrorSessions("none", PORT, list),
                  row.status == STATUS_OK ? STATUS_NOT_FOUND : STATUS_BAD_PARAM);
        Store(PORT_MIRRORS, std::nullopt);
    }
}

TEST_F(LabTest, AStoredListMustHoldWhatItCounts)
{
    const Model two = {Made("a", 1), Made("b", 1)};
    const Header others = {1, 9, 0xabcdef};
    const std::string list = List(two, others);
    const struct {
        std::string stored;
        VsStatus status;
    } cases[] = {
        {"", STATUS_FAILURE},
        {List({}).substr(0, 19), STATUS_FAILURE},
        {List({}), STATUS_OK},
        {list.substr(0, list.size() - 1), STATUS_FAILURE},
        {list, STATUS_OK},
        {list + "extra", STATUS_OK},
        {list.substr(0, 8) + Word(0xffffffff) + list.substr(12), STATUS_FAILURE},
        {list.substr(0, 12) + Word(0xffffffff) + list.substr(16), STATUS_FAILURE},
        // 232 times this is 0 in 32 bits
        {list.substr(0, 8) + Word(0x20000000) + list.substr(12), STATUS_FAILURE},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        Store(PORT_MIRRORS, row.stored);
        ExpectRead(row.status, row.stored);
        if (row.status == STATUS_OK) continue;
        EXPECT_EQ(Append(List({Made("c", 1)})), STATUS_FAILURE);
        EXPECT_EQ(RemoveSession("a"), STATUS_FAILURE);
        EXPECT_EQ(StoredList(), row.stored);
    }
    // Edits keep the list's header, and no bytes beyond its counts.
    Store(PORT_MIRRORS, list + "extra");
    ASSERT_EQ(Append(List({Made("c", 1)}, {7, 7, 7})), STATUS_OK);
    EXPECT_EQ(StoredList(), List({two[0], two[1], Made("c", 1)}, others));
    Store(PORT_MIRRORS, list + "extra");
    ASSERT_EQ(RemoveSession("a"), STATUS_OK);
    EXPECT_EQ(StoredList(), List({two[1]}, others));
}

TEST_F(LabTest, ASessionWithoutEntriesMayPointAnywhere)
{
    // The list, and where each session points.
    const auto list = [](const Model &model, const std::vector<uint32_t> &firsts) {
        std::string bytes = List(model);
        for (size_t i = 0; i < firsts.size(); i++)
            memcpy(&bytes[20 + 232 * i + 228], &firsts[i], 4);
        return bytes;
    };
    const Session a = Made("a", 2), b = Made("b", 0), c = Made("c", 1), d = Made("d", 0);
    const struct {
        std::vector<uint32_t> firsts; // of a to d
        const char *gone;
        Model left;
        std::vector<uint32_t> firstsLeft;
    } cases[] = {
        {{0, 0, 2, 0}, "a", {b, c, d}, {0, 0, 0}}, // a first that would wrap becomes 0
        {{0, 1, 2, 3}, "a", {b, c, d}, {0, 0, 1}},
        {{0, 0, 2, 0}, "b", {a, c, d}, {0, 2, 0}},
        {{0, 0, 2, 0}, "c", {a, b, d}, {0, 0, 0}},
        {{0, 0, 2, 1}, "d", {a, b, c}, {0, 0, 2}},
        {{0, 3, 2, 2}, "b", {a, c, d}, {0, 2, 2}},
        {{0, 3, 2, 2}, "c", {a, b, d}, {0, 3, 1}},
        {{0, 0xffffffff, 2, 0x80000000}, "a", {b, c, d}, {0xfffffffd, 0, 0x7ffffffe}},
        {{0, 0xffffffff, 2, 0x80000000}, "b", {a, c, d}, {0, 2, 0x80000000}},
        {{0, 0xffffffff, 2, 0x80000000}, "d", {a, b, c}, {0, 0xffffffff, 2}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        const std::string before = list({a, b, c, d}, row.firsts);
        Store(PORT_MIRRORS, std::nullopt);
        const bool inList = *std::max_element(row.firsts.begin(), row.firsts.end()) <= 3;
        EXPECT_EQ(Append(before), inList ? STATUS_OK : STATUS_BAD_PARAM);
        Store(PORT_MIRRORS, before);
        EXPECT_EQ(RemoveSession(row.gone), STATUS_OK);
        EXPECT_EQ(StoredList(), list(row.left, row.firstsLeft));
    }
}

TEST_F(LabTest, FiveHundredSessionsAreCutDownToNone)
{
    Model model;
    for (uint32_t i = 0; i < 500; i++)
        model.push_back(Made(std::to_string(i), i % 3, i % 2, i % 5));
    ASSERT_EQ(Append(List(model)), STATUS_OK);
    for (std::mt19937 random(1); !model.empty();) {
        const auto gone = model.begin() + static_cast<ptrdiff_t>(random() % model.size());
        ASSERT_EQ(RemoveSession(gone->id.c_str()), STATUS_OK);
        model.erase(gone);
        const auto stored = StoredList();
        ASSERT_EQ(stored.has_value(), !model.empty());
        ASSERT_TRUE(!stored || *stored == List(model));
    }
}

}
