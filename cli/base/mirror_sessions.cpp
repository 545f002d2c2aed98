// Mirror sessions: from JSON to the lists of the library, and back.
#include "cli/base/policy.h"

#include <fmt/format.h>

#include "cli/base/records.h"

namespace vsctl {

namespace {

struct EntryKind {
    const char *name;
    uint32_t (*count)(const MirrorSessionRecord &);
};

constexpr EntryKind ENTRY_KINDS[] = {
    {"entries-a", [](const MirrorSessionRecord &session) -> uint32_t { return session.entryCountA; }},
    {"entries-b", [](const MirrorSessionRecord &session) -> uint32_t { return session.entryCountB; }},
    {"entries-c", [](const MirrorSessionRecord &session) -> uint32_t { return session.entryCountC; }},
};

Json SessionToJson(const MirrorSessionRecord &session, std::span<const MirrorPortEntry> entries)
{
    Json value = {{"id", Name(session.sessionId, sizeof session.sessionId)},
                  {"settings", ToText(session.settings)}};
    uint64_t next = session.firstPortEntry;
    for (const EntryKind &kind : ENTRY_KINDS) {
        const uint64_t count = kind.count(session);
        if (next + count > entries.size()) {
            throw Error(Exit::FAILURE,
                        fmt::format("mirror session {} counts more port entries than the list holds",
                                    Name(session.sessionId, sizeof session.sessionId)));
        }
        value[kind.name] = ListToJson(entries.subspan(next, count));
        next += count;
    }
    return value;
}

uint32_t EntryCount(const Json &session, const char *kind)
{
    return session.contains(kind) ? static_cast<uint32_t>(session[kind].size()) : 0;
}

}

Json SessionsToJson(const MirrorSessionList *list)
{
    const auto sessions = Entries<MirrorSessionRecord>(list, list->sessionCount);
    const auto *first = reinterpret_cast<const MirrorPortEntry *>(sessions.data() + sessions.size());
    Json value = Json::array();
    for (const MirrorSessionRecord &session : sessions)
        value.push_back(SessionToJson(session, {first, list->portEntryCount}));
    return value;
}

namespace {

MirrorSessionRecord SessionRecord(const Json &session, uint32_t firstPortEntry)
{
    MirrorSessionRecord record{};
    const std::string &id = session["id"].get_ref<const std::string &>();
    memcpy(record.sessionId, id.data(), std::min(id.size(), sizeof record.sessionId));
    const Bytes settings = FromHex(session.value("settings", ""));
    std::copy_n(settings.begin(), std::min(settings.size(), sizeof record.settings), record.settings);
    record.entryCountA = EntryCount(session, "entries-a");
    record.entryCountB = EntryCount(session, "entries-b");
    record.entryCountC = EntryCount(session, "entries-c");
    record.firstPortEntry = firstPortEntry;
    return record;
}

}

Bytes SessionsFromJson(const Json &sessions)
{
    std::vector<MirrorSessionRecord> records;
    std::vector<MirrorPortEntry> entries;
    for (const Json &session : sessions) {
        records.push_back(SessionRecord(session, static_cast<uint32_t>(entries.size())));
        for (const EntryKind &kind : ENTRY_KINDS) {
            const auto more = ListFromJson<MirrorPortEntry>(session.value(kind.name, Json::array()));
            entries.insert(entries.end(), more.begin(), more.end());
        }
    }
    const MirrorSessionList header{MIRROR_LIST_MAGIC, MIRROR_LIST_VERSION,
                                   static_cast<uint32_t>(records.size()),
                                   static_cast<uint32_t>(entries.size()), 0};
    const size_t recordBytes = records.size() * sizeof(MirrorSessionRecord);
    const size_t entryBytes = entries.size() * sizeof(MirrorPortEntry);
    Bytes list(sizeof header + recordBytes + entryBytes);
    memcpy(list.data(), &header, sizeof header);
    if (recordBytes) memcpy(list.data() + sizeof header, records.data(), recordBytes);
    if (entryBytes) memcpy(list.data() + sizeof header + recordBytes, entries.data(), entryBytes);
    return list;
}

}
