// Mirror sessions: lists of a port, or of this host's view of the switch for its uplinks.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "core/property.h"

namespace {

static_assert(sizeof(MirrorSessionList) == 20 && offsetof(MirrorSessionList, sessionCount) == 8 &&
              offsetof(MirrorSessionList, portEntryCount) == 12);
static_assert(sizeof(MirrorSessionRecord) == 232 && offsetof(MirrorSessionRecord, settings) == 32 &&
              offsetof(MirrorSessionRecord, entryCountA) == 216 &&
              offsetof(MirrorSessionRecord, firstPortEntry) == 228);
static_assert(sizeof(MirrorPortEntry) == 52);

constexpr MirrorSessionList EMPTY_LIST = {MIRROR_LIST_MAGIC, MIRROR_LIST_VERSION, 0, 0, 0};

uint64_t EntryCount(const MirrorSessionRecord &session)
{
    return uint64_t{session.entryCountA} + session.entryCountB + session.entryCountC;
}

bool SameId(const MirrorSessionRecord &session, const char *sessionId)
{
    return strncmp(session.sessionId, sessionId, sizeof(session.sessionId)) == 0;
}

MirrorSessionRecord *Sessions(MirrorSessionList *list)
{
    return reinterpret_cast<MirrorSessionRecord *>(list + 1);
}

const MirrorSessionRecord *Sessions(const MirrorSessionList *list)
{
    return reinterpret_cast<const MirrorSessionRecord *>(list + 1);
}

const MirrorPortEntry *PortEntries(const MirrorSessionList *list)
{
    return reinterpret_cast<const MirrorPortEntry *>(Sessions(list) + list->sessionCount);
}

// Sums of 32-bit counts times record sizes do not overflow 64 bits.
uint64_t Size(uint64_t sessions, uint64_t portEntries)
{
    return sizeof(MirrorSessionList) + sessions * sizeof(MirrorSessionRecord) +
           portEntries * sizeof(MirrorPortEntry);
}

// A stored list may be longer than its counts say, but not shorter.
bool FitsLength(const StoreValue &value)
{
    if (!value.data || value.length < sizeof(MirrorSessionList)) return false;
    const auto *list = value.As<MirrorSessionList>();
    return Size(list->sessionCount, list->portEntryCount) <= value.length;
}

// A caller's list: each block lies inside the port entries, and the blocks together hold as many entries.
bool SumsAddUp(const MirrorSessionList *list)
{
    uint64_t sum = 0;
    for (uint32_t i = 0; i < list->sessionCount; i++) {
        const MirrorSessionRecord &session = Sessions(list)[i];
        if (session.firstPortEntry + EntryCount(session) > list->portEntryCount) return false;
        sum += EntryCount(session);
    }
    return sum == list->portEntryCount;
}

// Whether the sessions' blocks lie in the list and follow one another without overlap. A session without
// entries does not have a block and may point anywhere.
bool BlocksAreInOrder(const MirrorSessionList *list)
{
    uint64_t next = 0;
    for (uint32_t i = 0; i < list->sessionCount; i++) {
        const MirrorSessionRecord &session = Sessions(list)[i];
        const uint64_t count = EntryCount(session);
        if (count == 0) continue;
        if (session.firstPortEntry < next) return false;
        next = session.firstPortEntry + count;
    }
    return next <= list->portEntryCount;
}

bool FindSession(const MirrorSessionList *list, const char *sessionId, uint32_t *index)
{
    for (uint32_t i = 0; i < list->sessionCount; i++) {
        if (!SameId(Sessions(list)[i], sessionId)) continue;
        *index = i;
        return true;
    }
    return false;
}

bool ShareASession(const MirrorSessionList *stored, const MirrorSessionList *added)
{
    uint32_t index = 0;
    for (uint32_t i = 0; i < added->sessionCount; i++) {
        if (FindSession(stored, Sessions(added)[i].sessionId, &index)) return true;
    }
    return false;
}

// Appends piece after piece.
struct Writer {
    void Append(const void *data, uint64_t size)
    {
        memcpy(next, data, size);
        next += size;
    }
    uint8_t *next;
};

void Merge(const MirrorSessionList *stored, const MirrorSessionList *added, MirrorSessionList *merged)
{
    Writer writer = {reinterpret_cast<uint8_t *>(merged)};
    writer.Append(stored, sizeof(*stored));
    writer.Append(Sessions(stored), stored->sessionCount * sizeof(MirrorSessionRecord));
    writer.Append(Sessions(added), added->sessionCount * sizeof(MirrorSessionRecord));
    writer.Append(PortEntries(stored), stored->portEntryCount * sizeof(MirrorPortEntry));
    writer.Append(PortEntries(added), added->portEntryCount * sizeof(MirrorPortEntry));
    merged->sessionCount += added->sessionCount;
    merged->portEntryCount += added->portEntryCount;
    for (uint32_t i = stored->sessionCount; i < merged->sessionCount; i++)
        Sessions(merged)[i].firstPortEntry += stored->portEntryCount;
}

// Closes the gaps in place; the list's blocks are in order.
void CutSession(MirrorSessionList *list, uint32_t index)
{
    MirrorSessionRecord *cut = Sessions(list) + index;
    const auto count = static_cast<uint32_t>(EntryCount(*cut));
    const uint32_t first = count > 0 ? cut->firstPortEntry : 0;
    for (uint32_t i = index + 1; i < list->sessionCount; i++) {
        MirrorSessionRecord &later = Sessions(list)[i];
        // A session without entries may point anywhere.
        later.firstPortEntry -= later.firstPortEntry < count ? later.firstPortEntry : count;
    }

    const MirrorPortEntry *entries = PortEntries(list);
    auto *end = reinterpret_cast<uint8_t *>(cut);
    const auto moveUp = [&end](const void *from, const void *to) {
        const auto size =
            static_cast<size_t>(static_cast<const uint8_t *>(to) - static_cast<const uint8_t *>(from));
        memmove(end, from, size);
        end += size;
    };
    moveUp(cut + 1, entries + first);
    moveUp(entries + first + count, entries + list->portEntryCount);
    list->sessionCount -= 1;
    list->portEntryCount -= count;
}

// The place of a list. Without a port id it is the host's list for its uplinks.
struct MirrorPlace {
    explicit MirrorPlace(const char *dvPortId) : dvPortId(dvPortId && *dvPortId ? dvPortId : nullptr) {}

    VsStatus Resolve(const char *alias) { return scope.Resolve(alias, dvPortId); }

    VsStatus Read(StoreValue *list) const
    {
        const VsStatus status =
            dvPortId ? scope.Get(PORT_MIRRORS, list) : scope.Get(HOST_UPLINK_MIRRORS, list);
        if (status != STATUS_OK) return status;
        return FitsLength(*list) ? STATUS_OK : STATUS_FAILURE;
    }

    VsStatus Write(const MirrorSessionList *list) const
    {
        const auto size = static_cast<uint32_t>(Size(list->sessionCount, list->portEntryCount));
        return dvPortId ? scope.Set(PORT_MIRRORS, list, size) : scope.Set(HOST_UPLINK_MIRRORS, list, size);
    }

    VsStatus Clear() const { return dvPortId ? scope.Clear(PORT_MIRRORS) : scope.Clear(HOST_UPLINK_MIRRORS); }

    const char *dvPortId;
    PropertyScope scope;
};

VsStatus Append(const MirrorPlace &place, const MirrorSessionList *stored, const MirrorSessionList *added)
{
    if (ShareASession(stored, added)) return STATUS_EXISTS;
    const uint64_t size = Size(uint64_t{stored->sessionCount} + added->sessionCount,
                               uint64_t{stored->portEntryCount} + added->portEntryCount);
    auto *merged = static_cast<MirrorSessionList *>(size <= UINT32_MAX ? malloc(size) : nullptr);
    if (!merged) return STATUS_NO_MEMORY;
    Merge(stored, added, merged);
    const VsStatus status = place.Write(merged);
    free(merged);
    return status;
}

}

VsStatus VSDVS_GetDVMirrorSessions(const char *alias, const char *dvPortId, MirrorSessionList **list)
{
    if (!alias || !list) return STATUS_BAD_PARAM;
    MirrorPlace place(dvPortId);
    if (place.Resolve(alias) != STATUS_OK) return STATUS_FAILURE;
    StoreValue stored;
    if (VsStatus status = place.Read(&stored)) return status;
    *list = stored.HandOver<MirrorSessionList>();
    return STATUS_OK;
}

VsStatus VSDVS_AppendDVMirrorSessions(const char *alias, const char *dvPortId, const MirrorSessionList *list)
{
    if (!alias || !list || !SumsAddUp(list)) return STATUS_BAD_PARAM;
    MirrorPlace place(dvPortId);
    if (VsStatus status = place.Resolve(alias)) return status;
    StoreValue stored;
    const VsStatus status = place.Read(&stored);
    if (status == STATUS_NOT_FOUND) return Append(place, &EMPTY_LIST, list);
    return status != STATUS_OK ? status : Append(place, stored.As<MirrorSessionList>(), list);
}

VsStatus VSDVS_RemoveDVMirrorSession(const char *alias, const char *dvPortId, const char *sessionId)
{
    if (!alias || !sessionId) return STATUS_BAD_PARAM;
    MirrorPlace place(dvPortId);
    if (VsStatus status = place.Resolve(alias)) return status;
    StoreValue stored;
    if (VsStatus status = place.Read(&stored)) return status;
    auto *list = stored.As<MirrorSessionList>();
    uint32_t index = 0;
    if (!FindSession(list, sessionId, &index)) return STATUS_NOT_FOUND;
    if (list->sessionCount == 1) return place.Clear();
    if (!BlocksAreInOrder(list)) return STATUS_FAILURE;
    CutSession(list, index);
    return place.Write(list);
}

VsStatus VSDVS_ClearDVMirrorSessions(const char *alias, const char *dvPortId)
{
    if (!alias) return STATUS_BAD_PARAM;
    MirrorPlace place(dvPortId);
    if (VsStatus status = place.Resolve(alias)) return status;
    return OkIfAbsent(place.Clear());
}
