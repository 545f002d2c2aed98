// Mirror sessions: from JSON to the lists of the library, and back.
#include "cli/base/records.h"

#include <charconv>
#include <fmt/format.h>
#include <vswitch_fields.h>
#include <vswitch_policy.h>

namespace vsctl {

namespace {

// How many entries of each kind a session has, in the order in which they follow each other.
constexpr vswitch::RecordField ENTRY_COUNTS[] = {
    {"from", offsetof(MirrorSessionRecord, entryCountA), sizeof(uint32_t)},
    {"received-by", offsetof(MirrorSessionRecord, entryCountB), sizeof(uint32_t)},
    {"to", offsetof(MirrorSessionRecord, entryCountC), sizeof(uint32_t)},
};

std::optional<VSwitchMirrorPort> NamedEntry(const std::string &text)
{
    VSwitchMirrorPort port{};
    if (const auto number = PortEntryNumber(text))
        port.number = *number;
    else if (text.size() < sizeof port.dvPortId)
        text.copy(port.dvPortId, sizeof port.dvPortId);
    else
        return {};
    return port;
}

Json SessionToJson(const MirrorSessionRecord &session, std::span<const MirrorPortEntry> entries)
{
    Json value = {{"session", Name(session.sessionId, sizeof session.sessionId)},
                  {"settings", Hex(session.settings, sizeof session.settings)}};
    uint64_t next = session.firstPortEntry;
    for (const vswitch::RecordField &kind : ENTRY_COUNTS) {
        const uint64_t count = NumberOf(kind, &session);
        if (next + count > entries.size()) {
            throw Error(Exit::FAILURE,
                        fmt::format("mirror session {} counts more port entries than the list holds",
                                    Name(session.sessionId, sizeof session.sessionId)));
        }
        Json &list = value[kind.name] = Json::array();
        for (const MirrorPortEntry &entry : entries.subspan(next, count))
            list.push_back(PortEntryText(entry));
        next += count;
    }
    return value;
}

MirrorSessionRecord SessionRecord(const Json &session, uint32_t firstPortEntry)
{
    MirrorSessionRecord record{};
    session["session"].get_ref<const std::string &>().copy(record.sessionId, sizeof record.sessionId);
    const Bytes settings = RecordFromJson(MIRROR_SESSION, session.value("settings", session));
    memcpy(record.settings, settings.data(), sizeof record.settings);
    for (const vswitch::RecordField &kind : ENTRY_COUNTS)
        SetNumber(kind, &record, session.value(kind.name, Json::array()).size());
    record.firstPortEntry = firstPortEntry;
    return record;
}

}

std::optional<uint32_t> PortEntryNumber(const std::string &text)
{
    uint32_t number = 0;
    const char *const end = text.data() + text.size();
    if (!text.starts_with("#")) return {};
    const auto [stop, error] = std::from_chars(text.data() + 1, end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

MirrorPortEntry PortEntryOf(const std::string &text)
{
    MirrorPortEntry entry{};
    if (const auto port = NamedEntry(text))
        memcpy(&entry, &*port, sizeof entry);
    else
        memcpy(&entry, FromHex(text).data(), sizeof entry);
    return entry;
}

std::string PortEntryText(const MirrorPortEntry &entry)
{
    VSwitchMirrorPort port;
    memcpy(&port, &entry, sizeof port);
    const uint32_t number = port.number;
    const std::string name = Name(port.dvPortId, sizeof port.dvPortId);
    const std::string text = name.empty() ? fmt::format("#{}", number) : name;
    if (IsEmbedded() && text.size() < sizeof port.dvPortId) {
        const MirrorPortEntry again = PortEntryOf(text);
        if (memcmp(&again, &entry, sizeof entry) == 0) return text;
    }
    return Hex(&entry, sizeof entry);
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

Bytes SessionsFromJson(const Json &sessions)
{
    std::vector<MirrorSessionRecord> records;
    std::vector<MirrorPortEntry> entries;
    for (const Json &session : sessions) {
        records.push_back(SessionRecord(session, static_cast<uint32_t>(entries.size())));
        for (const vswitch::RecordField &kind : ENTRY_COUNTS) {
            for (const Json &entry : session.value(kind.name, Json::array()))
                entries.push_back(PortEntryOf(entry));
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
