// Multicast snooping: which ports of a VLAN want the frames of a group, and which have a router that asks for
// groups. Messages of IGMP and MLD say so; the switch sends none of its own.
//
// Memberships follow the rules of a router of IGMPv3 or MLDv2, kept for each port. A source of a group has a
// time until which the port wants it. A group has a time until which the port wants all sources but those
// whose time is over; after it the port wants those sources alone whose time is not over.
//
// The functions that read messages are global ones, which the kernel's verifier looks at only once.
#pragma once

#include <linux/ip.h>
#include <linux/ipv6.h>

#define SECOND_NS 1000000000ull
#define MS_NS 1000000ull
// Of a querier that says nothing else.
#define USUAL_ROBUSTNESS 2u
#define USUAL_INTERVAL_MS 125000u
#define USUAL_RESPONSE_MS 10000u
#define LAST_MEMBER_MS 1000u // in which members answer after another one has left, for each query

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, 65536);
    __type(key, struct LiveGroupKey);
    __type(value, struct LiveGroup);
} groups SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, 65536);
    __type(key, struct LiveSourceKey);
    __type(value, struct LiveSource);
} group_sources SEC(".maps");

// Scratch of the processor: it is too large for the stack.
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, struct GroupKeys);
} group_keys SEC(".maps");

// ---- Room ----
// Each port has a share of a table that no other port takes. What it has beyond its share counts in the part
// that all have together.

static __always_inline bool ReserveEntry(uint32_t *count, uint32_t *shared)
{
    const struct LiveHost *limits = FindHost();
    if (!limits) return false;
    const uint32_t share = READ_WORD(limits->groupShare);
    const uint32_t before = __sync_fetch_and_add(count, 1);
    if (before < READ_WORD(limits->groupLimit)) {
        if (before < share) return true;
        if (ReserveBelow(shared, READ_WORD(limits->sharedGroupLimit))) return true;
    }
    // Another processor that released an entry meanwhile has taken this one for one beyond the share.
    if (__sync_fetch_and_add(count, -1) <= share && before >= share) __sync_fetch_and_add(shared, 1);
    return false;
}

static __always_inline void ReleaseEntry(uint32_t *count, uint32_t *shared)
{
    const struct LiveHost *limits = FindHost();
    if (!limits) return;
    if (__sync_fetch_and_add(count, -1) > READ_WORD(limits->groupShare)) Release(shared);
}

// ---- What is known ----

static __always_inline bool IsOver(uint64_t until, uint64_t now) { return (int64_t)(until - now) <= 0; }

static __always_inline uint32_t GroupEpoch(const struct LivePort *port)
{
    return READ_WORD(port->groupEpoch);
}

// The times that hold in a VLAN are an entry, too.
static __always_inline bool IsVlanEntry(const struct LiveGroupKey *key)
{
    return key->slot & LIVE_VLAN_ENTRY;
}

static __always_inline bool IsCurrentSource(const struct LiveGroup *group, const struct LiveSource *source,
                                            uint64_t now)
{
    const uint64_t mark = READ_WORD(source->mark);
    if (READ_WORD(source->epoch) != READ_WORD(group->epoch)) return false;
    if (mark >= READ_WORD(group->serial)) return true;
    return mark >= READ_WORD(group->formerSerial) && !IsOver(READ_WORD(group->formerUntil), now);
}

// Whether the port wants the frame of a group. `key` has the port's slot.
static __always_inline bool IsMember(const struct LiveSourceKey *key, const struct LivePort *port,
                                     uint64_t now)
{
    const struct LiveGroup *group = bpf_map_lookup_elem(&groups, &key->group);
    if (!group || READ_WORD(group->epoch) != GroupEpoch(port)) return false;
    const bool wantsOthers = !IsOver(READ_WORD(group->until), now);
    if (!READ_WORD(group->hasSources)) return wantsOthers;
    const struct LiveSource *source = bpf_map_lookup_elem(&group_sources, key);
    if (!source || !IsCurrentSource(group, source, now)) return wantsOthers;
    return !IsOver(READ_WORD(source->until), now);
}

static __always_inline bool HasQuerier(const struct LiveGroupKey *key, const struct LivePort *port,
                                       uint64_t now)
{
    if (!READ_WORD(port->queriers)) return false;
    const struct LiveGroup *querier = bpf_map_lookup_elem(&groups, key);
    return querier && READ_WORD(querier->epoch) == GroupEpoch(port) &&
           !IsOver(READ_WORD(querier->until), now);
}

// A port for which something could not be kept gets all groups for as long as it would have been kept.
static __always_inline bool GetsAllGroups(const struct LivePort *port, uint64_t now)
{
    return READ_WORD(port->allGroupsUntil) > (uint32_t)(now / SECOND_NS);
}

static __always_inline void RefuseEntry(struct LivePort *port, uint32_t slot, uint64_t until)
{
    CountAt(slot, LIVE_GROUPS_REFUSED);
    port->allGroupsUntil = (uint32_t)(until / SECOND_NS) + 1;
}

// Whether a port other than an uplink gets a frame of the selection.
static __always_inline bool IsSelected(struct Frame *frame, const struct LivePort *port, uint32_t slot)
{
    if (frame->selection == EVERY_PORT || READ_WORD(port->flags) & LIVE_PORT_ALL_FRAMES) return true;
    struct GroupKeys *keys = frame->groupKeys;
    if (!keys) return true;
    keys->querier.slot = keys->group.group.slot = slot;
    if (GetsAllGroups(port, frame->now) || HasQuerier(&keys->querier, port, frame->now)) return true;
    if (frame->selection == QUERIER_PORTS || !READ_WORD(port->groups)) return false;
    return IsMember(&keys->group, port, frame->now);
}

// ---- Entries ----

// As IGMPv3 and MLDv2 number them.
enum RecordType { IS_IN = 1, IS_EX, TO_IN, TO_EX, ALLOW, BLOCK };

// What is known of a message while it is read. It is too large for the stack.
struct Report {
    uint32_t slot; // that the message came from
    uint32_t epoch;
    uint64_t now;
    uint64_t membership; // the times of the VLAN
    uint64_t lastMember;
    uint32_t queries; // that the VLAN has had
    uint32_t offset;  // what is to be read next
    uint32_t end;
    uint32_t recordsLeft;
    uint32_t sourcesLeft;
    uint32_t type;       // of the record; 0: it has no effect
    uint32_t afterwards; // where the next record is
    uint32_t hasSources;
    uint32_t isJoining;
    uint64_t until;  // of the group before the record
    uint64_t mark;   // that its sources get
    uint64_t latest; // of the sources' times
    struct LiveSourceKey key;
    struct LiveGroup group; // as it is added
    struct LiveSource source;
};

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, struct Report);
} reports SEC(".maps");

struct Reader {
    struct __sk_buff *skb;
    struct LivePort *port;
    struct LiveHost *host;
    struct Report *report;
};

// VLAN and EtherType in one word.
static __always_inline uint16_t VlanOf(uint32_t segment) { return (uint16_t)segment; }
static __always_inline uint16_t FamilyOf(uint32_t segment) { return (uint16_t)(segment >> 16); }

static __always_inline void SetGroupKey(struct LiveGroupKey *key, uint32_t slot, uint32_t segment)
{
    __builtin_memset(key, 0, sizeof(*key));
    key->slot = slot;
    key->vlan = VlanOf(segment);
    key->family = FamilyOf(segment);
}

static __always_inline bool StartReport(struct Reader *reader, uint32_t slot, uint32_t segment)
{
    const uint32_t first = 0;
    struct Report *report = bpf_map_lookup_elem(&reports, &first);
    reader->report = report;
    reader->port = FindPort(slot);
    reader->host = FindHost();
    if (!report || !reader->port || !reader->host) return false;
    __builtin_memset(report, 0, sizeof(*report));
    report->slot = slot;
    report->epoch = GroupEpoch(reader->port);
    report->now = Now(reader->host);
    SetGroupKey(&report->key.group, LIVE_VLAN_ENTRY | READ_WORD(reader->port->switchIndex), segment);
    return true;
}

// Those of the VLAN's entry, to which the key leads.
static __always_inline void FindTimes(struct Report *report)
{
    const struct LiveGroup *vlan = bpf_map_lookup_elem(&groups, &report->key.group);
    const bool isKnown = vlan && !IsOver(READ_WORD(vlan->until), report->now);
    report->membership = isKnown ? READ_WORD(vlan->membershipNs)
                                 : (USUAL_ROBUSTNESS * USUAL_INTERVAL_MS + USUAL_RESPONSE_MS) * MS_NS;
    report->lastMember = isKnown ? READ_WORD(vlan->lastMemberNs) : USUAL_ROBUSTNESS * LAST_MEMBER_MS * MS_NS;
    report->queries = vlan ? READ_WORD(vlan->queries) : 0;
}

// The entry of the key as it is now: made, or made anew if it is of a time before the port's epoch.
static __always_inline struct LiveGroup *FindOrAddGroup(struct Reader *reader, bool *isAdded)
{
    struct Report *report = reader->report;
    const struct LiveGroupKey *key = &report->key.group;
    struct LiveGroup *group = bpf_map_lookup_elem(&groups, key), *added = &report->group;
    *isAdded = false;
    if (group && (IsVlanEntry(key) || READ_WORD(group->epoch) == report->epoch)) return group;
    *isAdded = true;
    __builtin_memset(added, 0, sizeof(*added));
    added->owner = report->slot;
    added->epoch = report->epoch;
    added->serial = added->formerSerial = report->now;
    added->queries = report->queries;
    if (group) {
        added->isQuerier = READ_WORD(group->isQuerier);
        bpf_map_update_elem(&groups, key, added, BPF_EXIST);
    } else {
        if (!ReserveEntry(&reader->port->groups, &reader->host->sharedGroups)) return 0;
        if (bpf_map_update_elem(&groups, key, added, BPF_NOEXIST)) {
            ReleaseEntry(&reader->port->groups, &reader->host->sharedGroups);
            *isAdded = false; // another processor was faster
        }
    }
    return bpf_map_lookup_elem(&groups, key);
}

// ---- Reports ----

static __always_inline bool IsFloodedGroup(const struct LiveGroupKey *key)
{
    if (key->family == ETH_P_IP) return key->group[0] == 224 && !key->group[1] && !key->group[2];
    return (key->group[1] & 15) <= 2;
}

static __always_inline bool IsMulticastGroup(const struct LiveGroupKey *key)
{
    return key->family == ETH_P_IP ? key->group[0] >> 4 == 14 : key->group[0] == 0xff;
}

static __always_inline bool IsExclusion(uint32_t type) { return type == IS_EX || type == TO_EX; }

// The group of a record: one that is to be joined is added.
static __always_inline struct LiveGroup *FindRecordsGroup(struct Reader *reader)
{
    struct Report *report = reader->report;
    bool isAdded = false;
    if (!IsExclusion(report->type) && (report->type == BLOCK || report->sourcesLeft == 0)) {
        struct LiveGroup *group = bpf_map_lookup_elem(&groups, &report->key.group);
        return group && READ_WORD(group->epoch) == report->epoch ? group : 0;
    }
    struct LiveGroup *group = FindOrAddGroup(reader, &isAdded);
    if (!group) {
        RefuseEntry(reader->port, report->slot, report->now + report->membership);
        return 0;
    }
    report->isJoining = isAdded || (IsOver(READ_WORD(group->until), report->now) &&
                                    IsOver(READ_WORD(group->sourcesUntil), report->now));
    return group;
}

// What the record says of the group as a whole, as far as the sources need it.
static __always_inline void BeginRecord(struct Reader *reader)
{
    struct Report *report = reader->report;
    report->isJoining = 0;
    report->latest = 0;
    report->hasSources = report->sourcesLeft != 0;
    const struct LiveGroup *group = FindRecordsGroup(reader);
    const bool hasOlderHosts = group && !IsOver(READ_WORD(group->olderUntil), report->now);
    const bool hasOldestHosts = group && !IsOver(READ_WORD(group->oldestUntil), report->now);
    const uint32_t type = report->type;
    if (!group || (type == BLOCK && hasOlderHosts) || (type == TO_IN && hasOldestHosts)) {
        report->type = 0;
        return;
    }
    if (IsExclusion(type) && hasOlderHosts) report->hasSources = 0;
    report->until = READ_WORD(group->until);
    report->mark = READ_WORD(group->serial) + (IsExclusion(type) || type == TO_IN ? 1 : 0);
}

static __always_inline uint64_t Earlier(uint64_t a, uint64_t b) { return IsOver(a, b) ? a : b; }
static __always_inline uint64_t Later(uint64_t a, uint64_t b) { return IsOver(a, b) ? b : a; }

// Until when the port wants a source of the record. `old` is null for a source that the group didn't have.
static __always_inline uint64_t SourceUntil(const struct Report *report, const struct LiveSource *old)
{
    const uint64_t soon = report->now + report->lastMember;
    const bool wantsOthers = !IsOver(report->until, report->now);
    const uint64_t until = old ? READ_WORD(old->until) : 0;
    switch (report->type) {
    case IS_EX:
        return old || !wantsOthers ? until : report->now + report->membership;
    case TO_EX:
    case BLOCK: // other hosts at the port may answer the querier
        return !old && wantsOthers ? soon : Earlier(until, soon);
    default:
        return report->now + report->membership;
    }
}

static __always_inline bool AddSource(struct Reader *reader)
{
    struct Report *report = reader->report;
    uint32_t *count = &reader->port->groupSources, *shared = &reader->host->sharedSources;
    if (!ReserveEntry(count, shared)) return false;
    if (bpf_map_update_elem(&group_sources, &report->key, &report->source, BPF_NOEXIST))
        ReleaseEntry(count, shared);
    return true;
}

static __always_inline void TakeSource(struct Reader *reader)
{
    struct Report *report = reader->report;
    struct LiveSource *source = bpf_map_lookup_elem(&group_sources, &report->key);
    const struct LiveGroup *group = bpf_map_lookup_elem(&groups, &report->key.group);
    const bool isCurrent = group && source && IsCurrentSource(group, source, report->now);
    // Where only some sources are wanted, one that is not needs no entry.
    if (report->type == BLOCK && !isCurrent && IsOver(report->until, report->now)) return;
    const uint64_t until = SourceUntil(report, isCurrent ? source : 0);
    report->source.until = until;
    report->source.mark = report->mark;
    report->source.epoch = report->epoch;
    if (source) {
        source->until = until;
        source->mark = report->mark;
        source->epoch = report->epoch;
    } else if (!AddSource(reader)) {
        if (IsOver(until, report->now))
            CountAt(report->slot, LIVE_GROUPS_REFUSED); // the port gets what it doesn't want
        else
            RefuseEntry(reader->port, report->slot, until);
        return;
    }
    report->latest = Later(report->latest, until);
}

// Sources get their marks before the group's serial makes the others obsolete, so that none is lost
// meanwhile.
static __always_inline void EndRecord(struct Reader *reader)
{
    const struct Report *report = reader->report;
    struct LiveGroup *group = bpf_map_lookup_elem(&groups, &report->key.group);
    const uint64_t soon = report->now + report->lastMember;
    if (!group) return;
    if (report->hasSources) group->hasSources = 1;
    group->sourcesUntil = Later(READ_WORD(group->sourcesUntil), report->latest);
    if (report->isJoining) group->joins++;
    if (IsExclusion(report->type)) {
        group->until = report->now + report->membership;
        group->formerSerial = report->mark;
        group->serial = report->mark;
        if (!report->hasSources) group->hasSources = 0;
    }
    if (report->type == TO_IN) {
        // All that the record doesn't name stays until other hosts at the port may have asked for it.
        if (IsOver(READ_WORD(group->formerUntil), report->now)) group->formerSerial = group->serial;
        group->formerUntil = soon;
        group->serial = report->mark;
        group->until = Earlier(READ_WORD(group->until), soon);
        group->sourcesUntil = Earlier(READ_WORD(group->sourcesUntil), Later(soon, report->latest));
        if (!report->hasSources) group->leaves++;
    }
}

static __always_inline uint32_t AddressLength(uint32_t family) { return family == ETH_P_IP ? 4 : 16; }

static __always_inline bool ReadAddress(struct __sk_buff *skb, uint32_t offset, uint32_t family,
                                        uint8_t *address)
{
    return family == ETH_P_IP ? !bpf_skb_load_bytes(skb, offset, address, 4)
                              : !bpf_skb_load_bytes(skb, offset, address, 16);
}

// A record that claims more than the message has ends the report.
static __always_inline bool ReadRecord(struct Reader *reader)
{
    struct Report *report = reader->report;
    const uint32_t family = report->key.group.family, width = AddressLength(family);
    struct {
        uint8_t type;
        uint8_t words; // of further data
        uint16_t sources;
    } head;
    if (report->recordsLeft == 0 || report->offset + sizeof(head) + width > report->end) return false;
    report->recordsLeft--;
    if (bpf_skb_load_bytes(reader->skb, report->offset, &head, sizeof(head))) return false;
    if (!ReadAddress(reader->skb, report->offset + sizeof(head), family, report->key.group.group))
        return false;
    report->type = head.type;
    report->sourcesLeft = bpf_ntohs(head.sources);
    report->offset += sizeof(head) + width;
    report->afterwards = report->offset + report->sourcesLeft * width + head.words * 4u;
    if (report->afterwards > report->end) return false;
    if (report->type < IS_IN || report->type > BLOCK) report->type = 0;
    if (!IsMulticastGroup(&report->key.group) || IsFloodedGroup(&report->key.group)) report->type = 0;
    return true;
}

// Takes the head of a record, or one of its sources.
static long TakeNext(uint32_t index, struct Reader *reader)
{
    struct Report *report = reader->report;
    if (report->sourcesLeft == 0) {
        if (!ReadRecord(reader)) return 1;
        if (report->type) BeginRecord(reader);
        if (!report->type || !report->hasSources) report->sourcesLeft = 0;
    } else {
        const uint32_t family = report->key.group.family;
        if (!ReadAddress(reader->skb, report->offset, family, report->key.source)) return 1;
        report->offset += AddressLength(family);
        report->sourcesLeft--;
        TakeSource(reader);
    }
    if (report->sourcesLeft) return 0;
    if (report->type) EndRecord(reader);
    report->offset = report->afterwards;
    return 0;
}

// Offset and length of a message in one word.
static __always_inline uint32_t OffsetOf(uint32_t message) { return message & 0xffff; }
static __always_inline uint32_t LengthOf(uint32_t message) { return message >> 16; }

// Of IGMPv3 and MLDv2.
__noinline int TakeReport(struct __sk_buff *skb, uint32_t message, uint32_t slot, uint32_t segment)
{
    struct Reader reader = {.skb = skb};
    uint16_t records = 0;
    if (!StartReport(&reader, slot, segment)) return 0;
    if (bpf_skb_load_bytes(skb, OffsetOf(message) + 6, &records, sizeof(records))) return 0;
    FindTimes(reader.report);
    reader.report->key.group.slot = slot;
    reader.report->offset = OffsetOf(message) + 8;
    reader.report->end = OffsetOf(message) + LengthOf(message);
    reader.report->recordsLeft = bpf_ntohs(records);
    bpf_loop(LengthOf(message) / 4, TakeNext, &reader, 0);
    return 0;
}

enum OldReport { OLDEST_REPORT, OLD_REPORT, OLD_LEAVE };

// Of IGMPv1, IGMPv2 and MLDv1; `address` is where the group stands.
__noinline int TakeOldReport(struct __sk_buff *skb, uint32_t address, uint32_t kind, uint32_t slot,
                             uint32_t segment)
{
    struct Reader reader = {.skb = skb};
    if (!StartReport(&reader, slot, segment)) return 0;
    struct Report *report = reader.report;
    FindTimes(report);
    report->key.group.slot = slot;
    report->type = kind == OLD_LEAVE ? TO_IN : IS_EX;
    if (!ReadAddress(skb, address, FamilyOf(segment), report->key.group.group)) return 0;
    if (!IsMulticastGroup(&report->key.group) || IsFloodedGroup(&report->key.group)) return 0;
    BeginRecord(&reader);
    if (!report->type) return 0;
    EndRecord(&reader);
    struct LiveGroup *group = bpf_map_lookup_elem(&groups, &report->key.group);
    const uint64_t until = report->now + report->membership;
    if (group && kind != OLD_LEAVE) group->olderUntil = until;
    if (group && kind == OLDEST_REPORT) group->oldestUntil = until;
    return 0;
}

// ---- Queries ----

// A number of `bits` bits whose top one says that three bits below it are an exponent.
static __always_inline uint32_t CodedNumber(uint32_t code, uint32_t bits)
{
    const uint32_t mantissa = bits - 4;
    if (code < 1u << (bits - 1)) return code;
    return ((code & ((1u << mantissa) - 1)) | 1u << mantissa) << ((code >> mantissa & 7) + 3);
}

struct Query {
    uint32_t isGeneral;
    uint32_t robustness;
    uint32_t intervalMs;
    uint32_t responseMs;
};

struct QueryTail {
    uint8_t flags;
    uint8_t interval;
};

static __always_inline bool ReadQueryTail(struct __sk_buff *skb, uint32_t offset, struct Query *query)
{
    struct QueryTail tail;
    if (bpf_skb_load_bytes(skb, offset, &tail, sizeof(tail))) return false;
    if (tail.flags & 7) query->robustness = tail.flags & 7;
    if (tail.interval) query->intervalMs = CodedNumber(tail.interval, 8) * 1000;
    return true;
}

static __always_inline bool ReadIgmpQuery(struct __sk_buff *skb, uint32_t message, struct Query *query)
{
    uint8_t head[8];
    if (LengthOf(message) != 8 && LengthOf(message) < 12) return false;
    if (bpf_skb_load_bytes(skb, OffsetOf(message), head, sizeof(head))) return false;
    const bool isLatest = LengthOf(message) != 8;
    query->isGeneral = !*(uint32_t *)(head + 4);
    if (head[1]) query->responseMs = (isLatest ? CodedNumber(head[1], 8) : head[1]) * 100;
    return !isLatest || ReadQueryTail(skb, OffsetOf(message) + 8, query);
}

static __always_inline bool ReadMldQuery(struct __sk_buff *skb, uint32_t message, struct Query *query)
{
    uint32_t group[4];
    uint16_t code = 0;
    if (LengthOf(message) != 24 && LengthOf(message) < 28) return false;
    if (bpf_skb_load_bytes(skb, OffsetOf(message) + 4, &code, sizeof(code))) return false;
    if (bpf_skb_load_bytes(skb, OffsetOf(message) + 8, group, sizeof(group))) return false;
    const bool isLatest = LengthOf(message) != 24;
    query->isGeneral = !(group[0] | group[1] | group[2] | group[3]);
    query->responseMs = isLatest ? CodedNumber(bpf_ntohs(code), 16) : bpf_ntohs(code);
    return !isLatest || ReadQueryTail(skb, OffsetOf(message) + 24, query);
}

// The longest times win, so that no sender of queries makes others' memberships end early.
static __always_inline void KeepTimes(struct LiveGroup *vlan, const struct Query *query, uint64_t now)
{
    const uint64_t known = query->robustness * (uint64_t)query->intervalMs;
    const uint64_t membership = (known + query->responseMs) * MS_NS;
    if (!IsOver(READ_WORD(vlan->until), now) && membership < READ_WORD(vlan->membershipNs)) return;
    const uint32_t robustness = query->robustness < USUAL_ROBUSTNESS ? USUAL_ROBUSTNESS : query->robustness;
    vlan->membershipNs = membership;
    vlan->lastMemberNs = robustness * LAST_MEMBER_MS * MS_NS;
    vlan->until = now + (known + query->responseMs / 2) * MS_NS;
}

// The querier of a port other than an uplink. Only a general query has the querier's own times.
static __always_inline void KeepQuerier(struct Reader *reader, const struct Query *query)
{
    const uint64_t known = query->robustness * (uint64_t)query->intervalMs + query->responseMs / 2;
    const uint64_t until = reader->report->now + known * MS_NS;
    bool isAdded = false;
    reader->report->key.group.slot = reader->report->slot;
    struct LiveGroup *querier = FindOrAddGroup(reader, &isAdded);
    if (!querier) return RefuseEntry(reader->port, reader->report->slot, until);
    if (!READ_WORD(querier->isQuerier) && !__sync_lock_test_and_set(&querier->isQuerier, 1))
        __sync_fetch_and_add(&reader->port->queriers, 1);
    querier->until = query->isGeneral ? until : Later(READ_WORD(querier->until), until);
}

// `isNamed`: the querier has an address. What a switch asks on behalf of a querier has none.
__noinline int TakeQuery(struct __sk_buff *skb, uint32_t message, uint32_t slot, uint32_t segment,
                         uint32_t isNamed)
{
    struct Query query = {
        .robustness = USUAL_ROBUSTNESS, .intervalMs = USUAL_INTERVAL_MS, .responseMs = USUAL_RESPONSE_MS};
    struct Reader reader = {.skb = skb};
    bool isAdded = false;
    if (FamilyOf(segment) == ETH_P_IP ? !ReadIgmpQuery(skb, message, &query)
                                      : !ReadMldQuery(skb, message, &query))
        return 0;
    if (!isNamed || !StartReport(&reader, slot, segment)) return 1;
    struct LiveGroup *vlan = FindOrAddGroup(&reader, &isAdded);
    if (vlan) {
        __sync_fetch_and_add(&vlan->queries, 1);
        if (query.isGeneral) KeepTimes(vlan, &query, reader.report->now);
    }
    if (!(READ_WORD(reader.port->flags) & LIVE_PORT_UPLINK)) KeepQuerier(&reader, &query);
    return 1;
}

// ---- Messages ----

struct Sum {
    struct __sk_buff *skb;
    uint32_t offset;
    uint32_t left;
    uint64_t sum;
};

#define SUM_STEP 32u

static long AddToSum(uint32_t index, struct Sum *sum)
{
    uint32_t words[SUM_STEP / 4] = {};
    uint32_t length = sum->left;
    if (length == 0) return 1;
    if (length >= SUM_STEP) {
        length = SUM_STEP;
        if (bpf_skb_load_bytes(sum->skb, sum->offset, words, SUM_STEP)) return 1;
    } else if (bpf_skb_load_bytes(sum->skb, sum->offset, words, (length & (SUM_STEP - 1)) ?: 1)) {
        return 1;
    }
    for (uint32_t i = 0; i < SUM_STEP / 4; i++)
        sum->sum += words[i];
    sum->offset += length;
    sum->left -= length;
    return 0;
}

static __always_inline uint32_t Fold(uint64_t sum)
{
    sum = (sum & 0xffffffff) + (sum >> 32);
    sum = (sum & 0xffffffff) + (sum >> 32);
    sum = (sum & 0xffff) + (sum >> 16);
    return (uint32_t)((sum & 0xffff) + (sum >> 16));
}

// The sum of the Internet checksum, in network order. 0 as a whole frame's is never right.
__noinline uint32_t SumOf(struct __sk_buff *skb, uint32_t offset, uint32_t length)
{
    struct Sum sum = {.skb = skb, .offset = offset, .left = length};
    bpf_loop(length / SUM_STEP + 1, AddToSum, &sum, 0);
    return sum.left ? 0 : Fold(sum.sum);
}

// What becomes of a frame that may hold a message.
enum Message { NO_MESSAGE, REPORT, QUERY };

static __always_inline bool IsSourceOfMessages(uint32_t address)
{
    const uint32_t first = bpf_ntohl(address) >> 24;
    return first != 127 && first < 224;
}

// A message in an IPv4 packet that holds IGMP. Reports of the network are of no interest: what they ask for
// doesn't come from here.
__noinline uint32_t TakeIgmp(struct __sk_buff *skb, uint32_t ip, uint32_t slot, uint32_t vlan)
{
    struct iphdr header;
    uint8_t type = 0;
    uint32_t group = 0;
    if (bpf_skb_load_bytes(skb, ip, &header, sizeof(header))) return NO_MESSAGE;
    const uint32_t headerLength = header.ihl * 4u, total = bpf_ntohs(header.tot_len);
    if (header.version != 4 || headerLength < sizeof(header) || total < headerLength + 8) return NO_MESSAGE;
    if (ip + total > skb->len || header.frag_off & bpf_htons(0x3fff)) return NO_MESSAGE;
    if (header.ttl != 1 || !IsSourceOfMessages(header.saddr)) return NO_MESSAGE;
    const uint32_t offset = ip + headerLength, length = total - headerLength;
    if (SumOf(skb, ip, headerLength) != 0xffff || SumOf(skb, offset, length) != 0xffff) return NO_MESSAGE;
    if (bpf_skb_load_bytes(skb, offset, &type, 1)) return NO_MESSAGE;
    if (bpf_skb_load_bytes(skb, offset + 4, &group, sizeof(group))) return NO_MESSAGE;
    const uint32_t message = offset | length << 16, segment = vlan | (uint32_t)ETH_P_IP << 16;
    const struct LivePort *port = FindPort(slot);
    const bool isLocal = port && !(READ_WORD(port->flags) & LIVE_PORT_UPLINK);
    switch (type) {
    case 0x11:
        return TakeQuery(skb, message, slot, segment, header.saddr != 0) ? QUERY : NO_MESSAGE;
    case 0x12:
    case 0x16:
        if (group != header.daddr) return NO_MESSAGE;
        if (isLocal) TakeOldReport(skb, offset + 4, type == 0x12 ? OLDEST_REPORT : OLD_REPORT, slot, segment);
        return REPORT;
    case 0x17:
        if (isLocal) TakeOldReport(skb, offset + 4, OLD_LEAVE, slot, segment);
        return REPORT;
    case 0x22:
        if (isLocal) TakeReport(skb, message, slot, segment);
        return REPORT;
    default:
        return NO_MESSAGE;
    }
}

// Among the options of a hop-by-hop header, with the value for MLD.
static __always_inline bool HasRouterAlert(struct __sk_buff *skb, uint32_t offset, uint32_t end)
{
    for (uint32_t i = 0; i < 8; i++) {
        uint8_t option[4] = {};
        if (offset + 2 > end || bpf_skb_load_bytes(skb, offset, option, 2)) return false;
        if (option[0] == 0) { // one byte of padding
            offset++;
            continue;
        }
        if (option[0] == 5)
            return option[1] == 2 && offset + 4 <= end && !bpf_skb_load_bytes(skb, offset, option, 4) &&
                   !option[2] && !option[3];
        offset += 2u + option[1];
    }
    return false;
}

static __always_inline bool IsLinkLocal(const struct in6_addr *address)
{
    return address->s6_addr[0] == 0xfe && (address->s6_addr[1] & 0xc0) == 0x80;
}

static __always_inline bool IsUnspecified(const struct in6_addr *address)
{
    const uint32_t *words = address->s6_addr32;
    return !(words[0] | words[1] | words[2] | words[3]);
}

static __always_inline bool IsMldChecksumRight(struct __sk_buff *skb, uint32_t ip, uint32_t offset,
                                               uint32_t length)
{
    const uint64_t pseudo = SumOf(skb, ip + 8, 32) + bpf_htons((uint16_t)length) + bpf_htons(IPPROTO_ICMPV6);
    return Fold(pseudo + SumOf(skb, offset, length)) == 0xffff;
}

// A message in an IPv6 packet with a hop-by-hop header. A host that has no address yet may report.
__noinline uint32_t TakeMld(struct __sk_buff *skb, uint32_t ip, uint32_t slot, uint32_t vlan)
{
    struct ipv6hdr header;
    uint8_t options[2] = {}, type = 0;
    if (bpf_skb_load_bytes(skb, ip, &header, sizeof(header))) return NO_MESSAGE;
    uint32_t offset = ip + sizeof(header);
    const uint32_t end = offset + bpf_ntohs(header.payload_len);
    const bool isNamed = IsLinkLocal(&header.saddr);
    if (header.version != 6 || header.hop_limit != 1 || end > skb->len) return NO_MESSAGE;
    if (!isNamed && !IsUnspecified(&header.saddr)) return NO_MESSAGE;
    if (bpf_skb_load_bytes(skb, offset, options, sizeof(options))) return NO_MESSAGE;
    const uint32_t optionsEnd = offset + (options[1] + 1u) * 8;
    if (options[0] != IPPROTO_ICMPV6 || optionsEnd + 8 > end) return NO_MESSAGE;
    if (!HasRouterAlert(skb, offset + 2, optionsEnd)) return NO_MESSAGE;
    offset = optionsEnd;
    const uint32_t length = end - offset;
    if (!IsMldChecksumRight(skb, ip, offset, length)) return NO_MESSAGE;
    if (bpf_skb_load_bytes(skb, offset, &type, 1)) return NO_MESSAGE;
    const uint32_t message = offset | length << 16, segment = vlan | (uint32_t)ETH_P_IPV6 << 16;
    const struct LivePort *port = FindPort(slot);
    const bool isLocal = port && !(READ_WORD(port->flags) & LIVE_PORT_UPLINK);
    switch (type) {
    case 130:
        return isNamed && TakeQuery(skb, message, slot, segment, true) ? QUERY : NO_MESSAGE;
    case 131:
    case 132:
        if (length < 24) return NO_MESSAGE;
        if (isLocal) TakeOldReport(skb, offset + 8, type == 131 ? OLD_REPORT : OLD_LEAVE, slot, segment);
        return REPORT;
    case 143:
        if (isLocal) TakeReport(skb, message, slot, segment);
        return REPORT;
    default:
        return NO_MESSAGE;
    }
}

// Which ports a multicast frame goes to. What is not IP, or not to a group, goes to all, as do the groups of
// a link.
static __always_inline void SelectPorts(struct Frame *frame)
{
    struct __sk_buff *skb = frame->skb;
    const bool isIpv4 = frame->etherType == ETH_P_IP;
    const uint32_t first = 0, ip = ETH_HLEN;
    uint8_t protocol = 0;
    // Behind a tag of the guest's own is another network.
    if ((!isIpv4 && frame->etherType != ETH_P_IPV6) || frame->payloadTagLength) return;
    struct GroupKeys *keys = frame->groupKeys = bpf_map_lookup_elem(&group_keys, &first);
    if (!keys) return;
    __builtin_memset(keys, 0, sizeof(*keys));
    struct LiveGroupKey *key = &keys->group.group;
    keys->querier.vlan = key->vlan = frame->source.vlan;
    keys->querier.family = key->family = frame->etherType;
    if (!ReadAddress(skb, ip + (isIpv4 ? 16 : 24), key->family, key->group)) return;
    if (!ReadAddress(skb, ip + (isIpv4 ? 12 : 8), key->family, keys->group.source)) return;
    if (!IsMulticastGroup(key) || bpf_skb_load_bytes(skb, ip + (isIpv4 ? 9 : 6), &protocol, 1)) return;
    uint32_t message = NO_MESSAGE;
    if (isIpv4 && protocol == IPPROTO_IGMP) message = TakeIgmp(skb, ip, frame->slot, key->vlan);
    if (!isIpv4 && protocol == IPPROTO_HOPOPTS) message = TakeMld(skb, ip, frame->slot, key->vlan);
    if (message == REPORT)
        frame->selection = QUERIER_PORTS;
    else if (message == NO_MESSAGE && !IsFloodedGroup(key))
        frame->selection = GROUP_MEMBERS;
}

// ---- Ageing ----

static __always_inline void RemoveGroup(const struct LiveGroupKey *key, const struct LiveGroup *group)
{
    struct LivePort *port = FindPort(READ_WORD(group->owner));
    struct LiveHost *state = FindHost();
    const bool isQuerier = READ_WORD(group->isQuerier);
    if (bpf_map_delete_elem(&groups, key) || !port || !state) return;
    ReleaseEntry(&port->groups, &state->sharedGroups);
    if (isQuerier) Release(&port->queriers);
}

static __always_inline bool IsGroupOver(const struct LiveGroupKey *key, const struct LiveGroup *group,
                                        uint64_t now)
{
    const struct LivePort *port = FindPort(READ_WORD(group->owner));
    if (!port || !READ_WORD(port->inUse)) return true;
    if (!IsVlanEntry(key) && READ_WORD(group->epoch) != GroupEpoch(port)) return true;
    return IsOver(READ_WORD(group->until), now) && IsOver(READ_WORD(group->sourcesUntil), now);
}

static long SweepGroup(uint32_t index, struct Sweep *sweep)
{
    struct LiveGroupKey key;
    const uint32_t offset = LIVE_COMMAND_KEYS_OFFSET + index * sizeof(key);
    if (bpf_skb_load_bytes(sweep->skb, offset, &key, sizeof(key))) return 1;
    const struct LiveGroup *group = bpf_map_lookup_elem(&groups, &key);
    if (group && IsGroupOver(&key, group, sweep->now)) RemoveGroup(&key, group);
    return 0;
}

// A source of a group that gets all others stays after its time: it is the one that the port doesn't want.
static __always_inline bool IsSourceOver(const struct LiveSourceKey *key, const struct LiveSource *source,
                                         uint64_t now)
{
    const struct LivePort *port = FindPort(key->group.slot);
    const struct LiveGroup *group = bpf_map_lookup_elem(&groups, &key->group);
    if (!port || !group || READ_WORD(group->epoch) != GroupEpoch(port)) return true;
    if (!IsCurrentSource(group, source, now)) return true;
    return IsOver(READ_WORD(source->until), now) && IsOver(READ_WORD(group->until), now);
}

static long SweepSource(uint32_t index, struct Sweep *sweep)
{
    struct LiveSourceKey key;
    const uint32_t offset = LIVE_COMMAND_KEYS_OFFSET + index * sizeof(key);
    if (bpf_skb_load_bytes(sweep->skb, offset, &key, sizeof(key))) return 1;
    const struct LiveSource *source = bpf_map_lookup_elem(&group_sources, &key);
    if (!source || !IsSourceOver(&key, source, sweep->now)) return 0;
    struct LivePort *port = FindPort(key.group.slot);
    struct LiveHost *state = FindHost();
    if (bpf_map_delete_elem(&group_sources, &key) || !port || !state) return 0;
    ReleaseEntry(&port->groupSources, &state->sharedSources);
    return 0;
}

static __always_inline int SweepGroups(struct __sk_buff *skb, uint32_t count, uint64_t now)
{
    struct Sweep sweep = {skb, now};
    bpf_loop(count < LIVE_COMMAND_KEYS ? count : LIVE_COMMAND_KEYS, SweepGroup, &sweep, 0);
    return LIVE_DONE;
}

static __always_inline int SweepSources(struct __sk_buff *skb, uint32_t count, uint64_t now)
{
    struct Sweep sweep = {skb, now};
    bpf_loop(count < LIVE_COMMAND_SOURCES ? count : LIVE_COMMAND_SOURCES, SweepSource, &sweep, 0);
    return LIVE_DONE;
}
