// Mirror sessions: copies of what source ports send and get, for the sessions' destinations.
//
// They are the last that is made of a frame, because some cut it short. So a frame that is mirrored reaches
// its receivers as copies, too. Only such frames pay: a global function is verified once, whatever led to its
// call.
#pragma once

enum MirrorList { MIRRORS_FROM, MIRRORS_TO, MIRRORS_OWN };

// The sessions in a port's record.
__noinline uint64_t MirrorsOf(uint32_t switchIndex, uint32_t slot, uint32_t list)
{
    const struct LivePort *port = FindPort(slot);
    void *snapshot = bpf_map_lookup_elem(&snapshots, &switchIndex);
    if (!port || !snapshot) return 0;
    const uint32_t element = LIVE_FIRST_RECORD + READ_WORD(port->position);
    const struct LivePortRecord *record = bpf_map_lookup_elem(snapshot, &element);
    if (!record || record->slot != slot) return 0;
    if (list == MIRRORS_FROM) return record->mirrorsFrom;
    return list == MIRRORS_TO ? record->mirrorsTo : record->mirrorsOwn;
}

static __always_inline bool IsMirrored(const struct Frame *frame)
{
    return frame->mirrored.from || frame->mirrored.to;
}

static __always_inline void NoteSender(struct Frame *frame)
{
    frame->mirrored.from = MirrorsOf(frame->source.switchIndex, frame->slot, MIRRORS_FROM);
}

static __always_inline void NoteReceiver(struct Frame *frame, uint32_t slot)
{
    frame->mirrored.to |= MirrorsOf(frame->source.switchIndex, slot, MIRRORS_TO);
    frame->mirrored.own |= MirrorsOf(frame->source.switchIndex, slot, MIRRORS_OWN);
}

struct MirrorWalk {
    struct __sk_buff *skb;
    struct Mirrored *mirrored;
    void *snapshot;
    const struct LiveSnapshotHeader *header;
    const struct LiveMirror *mirror;
    struct LiveMirrorCounters *counters;
    uint32_t length; // of the whole frame without tags around it
    bool isOwn;      // a destination has got the frame itself, as a source port
};

static __always_inline uint32_t LengthNow(const struct __sk_buff *skb)
{
    return skb->len + (skb->vlan_present ? 4 : 0);
}

static __always_inline void CountCopy(const struct MirrorWalk *walk, uint32_t slot)
{
    struct LiveCounters *row = FindCounters(slot);
    walk->counters->values[LIVE_MIRROR_SENT_PACKETS]++;
    walk->counters->values[LIVE_MIRROR_SENT_BYTES] += LengthNow(walk->skb);
    if (!row) return;
    row->values[LIVE_TO_PACKETS]++;
    row->values[LIVE_TO_BYTES] += LengthNow(walk->skb);
    if (walk->mirrored->destinationKind == MULTICAST) row->values[LIVE_TO_MULTICAST]++;
    if (walk->mirrored->destinationKind == BROADCAST) row->values[LIVE_TO_BROADCAST]++;
}

static __always_inline void CountDropped(const struct MirrorWalk *walk)
{
    walk->counters->values[LIVE_MIRROR_DROPPED_PACKETS]++;
    walk->counters->values[LIVE_MIRROR_DROPPED_BYTES] += LengthNow(walk->skb);
}

// A destination gets nothing that it has sent, nor what it has got already as a source of the session.
static long CopyToDestination(uint32_t index, struct MirrorWalk *walk)
{
    const uint32_t place = index & (LIVE_MIRROR_DESTINATIONS - 1);
    const uint32_t slot = walk->mirror->slots[place];
    if (slot == walk->mirrored->slot) return 0;
    if (walk->isOwn && walk->mirror->ownDestinations >> place & 1) return 0;
    const struct LivePort *port = FindPort(slot);
    const uint32_t ifindex = port ? READ_WORD(port->ifindex) : 0;
    if (!ifindex || READ_WORD(port->switchIndex) != walk->mirrored->switchIndex)
        walk->counters->values[LIVE_MIRROR_UNREACHABLE]++;
    else if (READ_WORD(port->flags) & LIVE_PORT_BLOCKED || Send(walk->skb, ifindex))
        CountDropped(walk);
    else
        CountCopy(walk, slot);
    return 0;
}

#define CUT_STEP 4u   // bytes
#define CUT_TRIES 64u // for headers of up to 256 bytes

// The kernel cuts nothing within headers whose checksum the interface is to fill in.
static long TryCut(uint32_t index, struct MirrorWalk *walk)
{
    const uint32_t length = walk->mirror->snapLength + index * CUT_STEP;
    return length >= walk->skb->len || bpf_skb_change_tail(walk->skb, length, 0) == 0;
}

static __always_inline bool Cut(struct MirrorWalk *walk)
{
    const uint32_t snapLength = walk->mirror->snapLength;
    if (!snapLength || walk->length <= snapLength) return true;
    walk->counters->values[LIVE_MIRROR_TRUNCATED]++;
    return bpf_loop(CUT_TRIES, TryCut, walk, 0) < CUT_TRIES;
}

// Counts frames of the session's source ports; false: this one is not copied.
static __always_inline bool IsChosen(const struct MirrorWalk *walk, uint64_t bit)
{
    const uint32_t slot = walk->mirror->slot;
    struct LiveMirrorSlot *state = bpf_map_lookup_elem(&mirrors, &slot);
    if (walk->mirrored->from & bit) {
        walk->counters->values[LIVE_MIRROR_FROM_PACKETS]++;
        walk->counters->values[LIVE_MIRROR_FROM_BYTES] += walk->length + (walk->mirrored->tag ? 4 : 0);
    }
    if (walk->mirrored->to & bit) {
        walk->counters->values[LIVE_MIRROR_TO_PACKETS]++;
        walk->counters->values[LIVE_MIRROR_TO_BYTES] += walk->length + (walk->mirrored->tag ? 4 : 0);
    }
    const uint32_t sampling = walk->mirror->sampling;
    if (sampling <= 1) return true;
    return state && (__sync_fetch_and_add(&state->seen, 1) + 1) % sampling == 0;
}

// Gives the frame the tags of the session's copies and takes the outer one off again. False: it is not known
// which tags the frame has now.
static __always_inline bool MakeCopies(struct MirrorWalk *walk)
{
    struct Mirrored *mirrored = walk->mirrored;
    const uint16_t outerVlan = walk->mirror->outerVlan;
    if (!ChangeTag(walk->skb, &mirrored->tagNow, mirrored->tag)) return false;
    if (!Cut(walk)) {
        CountDropped(walk);
        return true;
    }
    if (!ChangeTag(walk->skb, &mirrored->tagNow, walk->mirror->stripsTag ? 0 : mirrored->tag)) return false;
    if (outerVlan && bpf_skb_vlan_push(walk->skb, bpf_htons(ETH_P_8021Q), outerVlan)) return false;
    bpf_loop(walk->mirror->count, CopyToDestination, walk, 0);
    return !outerVlan || bpf_skb_vlan_pop(walk->skb) == 0;
}

static long MirrorForSession(uint32_t index, struct MirrorWalk *walk)
{
    const uint32_t element = walk->header->mirrors.first + index / LIVE_MIRRORS_IN_ELEMENT;
    const struct LiveMirrors *found = bpf_map_lookup_elem(walk->snapshot, &element);
    if (!found) return 1;
    walk->mirror = &found->mirrors[index & (LIVE_MIRRORS_IN_ELEMENT - 1)];
    const uint64_t bit = 1ull << (walk->mirror->place & (LIVE_MIRROR_PLACES - 1));
    if (!((walk->mirrored->from | walk->mirrored->to) & bit)) return 0;
    const uint32_t slot = walk->mirror->slot;
    walk->counters = bpf_map_lookup_elem(&mirror_counters, &slot);
    if (!walk->counters) return 0;
    walk->isOwn = walk->mirrored->own & bit;
    if (!IsChosen(walk, bit) || MakeCopies(walk)) return 0;
    walk->counters->values[LIVE_MIRROR_NOT_TAGGED]++;
    return 1;
}

__noinline int MirrorFrame(struct __sk_buff *skb, struct Mirrored *mirrored)
{
    if (!mirrored) return 0;
    const uint32_t switchIndex = mirrored->switchIndex, first = 0;
    struct MirrorWalk walk = {.skb = skb, .mirrored = mirrored};
    walk.snapshot = bpf_map_lookup_elem(&snapshots, &switchIndex);
    if (!walk.snapshot) return 0;
    walk.header = bpf_map_lookup_elem(walk.snapshot, &first);
    if (!walk.header || !ChangeTag(skb, &mirrored->tagNow, mirrored->tag)) return 0;
    walk.length = skb->len;
    bpf_loop(walk.header->mirrors.count, MirrorForSession, &walk, 0);
    return 0;
}

static __always_inline void Mirror(struct Frame *frame)
{
    struct Mirrored *mirrored = &frame->mirrored;
    mirrored->switchIndex = frame->source.switchIndex;
    mirrored->slot = frame->slot;
    mirrored->tag = frame->tag;
    mirrored->tagNow = frame->tagNow;
    mirrored->destinationKind = frame->destinationKind;
    MirrorFrame(frame->skb, mirrored);
}
