// The data path: one program at the ingress of each plugged interface. It finds the port that a frame comes
// from, decides to which VLAN the frame belongs, learns its source, and sends it to other ports. It keeps
// every frame: none reaches the machine's own stack.
//
// A frame goes through the sections of this file from top to bottom. What the program knows of a frame is in
// struct Frame; what it knows of ports and switches is in the maps (maps.h).
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/pkt_cls.h>
#include <stdbool.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "platform/live/maps.h"

// The kernel refuses helpers that need the GPL to a program that doesn't claim it.
char LICENSE[] SEC("license") = "Proprietary";

// ---- Maps ----
// The sizes are defaults: the loader sets its own.

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, 8192);
    __type(key, uint32_t);   // ifindex
    __type(value, uint32_t); // slot
} interfaces SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 8192);
    __type(key, uint32_t);
    __type(value, struct LivePort);
} ports SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 8192);
    __type(key, uint32_t);
    __type(value, struct LiveCounters);
} counters SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1024);
    __type(key, uint32_t);
    __type(value, struct LiveSwitch);
} switches SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, struct LiveHost);
} host SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, 131072);
    __type(key, struct LiveAddressKey);
    __type(value, struct LiveAddress);
} addresses SEC(".maps");

// When ports have sent from addresses that are not in the table.
struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 4096);
    __type(key, struct LiveAddressKey);
    __type(value, uint64_t);
} unlisted SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1024);
    __type(key, uint32_t);
    __type(value, struct LiveMirrorSlot);
} mirrors SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1024);
    __type(key, uint32_t);
    __type(value, struct LiveMirrorCounters);
} mirror_counters SEC(".maps");

struct Snapshot {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_INNER_MAP | BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __uint(key_size, sizeof(uint32_t));
    __uint(value_size, LIVE_ELEMENT_SIZE);
};

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
    __uint(max_entries, 1024);
    __type(key, uint32_t);
    __array(values, struct Snapshot);
} snapshots SEC(".maps");

// Each word is read once and whole, as user space may write it at any time.
#define READ_WORD(word) (*(volatile const typeof(word) *)&(word))

// ---- The world outside: sending, time, where a frame comes from ----

#ifdef LIVE_TEST_RUN
#include "platform/live/test_run.bpf.h"
#else

// In ticks, as the kernel's clocks cost more than the rest of a look-up. So an address is written at most
// once a tick, however many frames it sends.
static __always_inline uint64_t Now(const struct LiveHost *limits)
{
    return bpf_jiffies64() * READ_WORD(limits->nsPerTick);
}

static __always_inline uint32_t IngressInterface(struct __sk_buff *skb) { return skb->ifindex; }

// Sends a copy. Not 0: it was not sent (1: the interface's queue is full; 2: it has no carrier; negative: it
// is gone).
static __always_inline long Send(struct __sk_buff *skb, uint32_t ifindex)
{
    return bpf_clone_redirect(skb, ifindex, 0);
}

// Sends the frame itself, which costs no copy. Whether that works shows only after the program's end.
static __always_inline int SendLast(struct __sk_buff *skb, uint32_t ifindex)
{
    return (int)bpf_redirect(ifindex, 0);
}

#endif

// ---- A frame on its way ----

#define PASS (-1)
#define NOT_SENT (-1)
#define QUEUE_FULL 1         // NET_XMIT_DROP of the kernel
#define TAGGED 0x10000u      // beside the 16 bits of a tag
#define SERVICE_TAG 0x20000u // an 802.1ad tag

enum Destination { UNICAST, MULTICAST, BROADCAST };

// What mirror sessions make copies of. Bits are those of LivePortRecord.
struct Mirrored {
    uint64_t from;
    uint64_t to;
    uint64_t own;
    uint32_t switchIndex;
    uint32_t slot; // of the sender
    uint32_t tag;  // of the frame's VLAN, see Frame
    uint32_t tagNow;
    uint32_t destinationKind;
    uint32_t reserved;
};
// Which of the ports of its VLAN a multicast frame goes to.
enum Selection { EVERY_PORT, QUERIER_PORTS, GROUP_MEMBERS };

// What is looked up of each port for a selection.
struct GroupKeys {
    struct LiveSourceKey group; // and source of the frame
    struct LiveGroupKey querier;
};

struct Frame {
    struct __sk_buff *skb;
    struct LivePort *sender;
    struct LiveCounters *counters; // of the sender
    struct LiveHost *host;
    struct LiveSwitch *vswitch;
    void *snapshot;
    const struct LiveSnapshotHeader *header;
    uint64_t now;
    uint32_t slot;     // of the sender
    uint32_t origin;   // slot of the port that has the source address, or of the sender
    uint32_t flags;    // of the sender
    uint32_t identity; // of the frame's VLAN: with whose VLAN id it leaves, under which VLAN addresses are
    uint32_t tag;      // with which it leaves by ports that carry tags: TAGGED and the tag, or 0
    uint32_t tagNow;
    uint32_t length; // without a tag
    uint16_t etherType;
    uint16_t destinationKind;
    uint8_t payloadTagLength; // bytes of a guest's tag that is not in `length`
    uint8_t comesByEach;      // uplink: a flood from the network. The verifier knows bools too exactly
    bool sentToPorts;         // other than uplinks
    bool queueWasFull;        // of an uplink that should have taken the frame
    struct LiveAddressKey source;
    struct LiveAddressKey destination;
    struct Mirrored mirrored;
    enum Selection selection;
    struct GroupKeys *groupKeys; // of a selection
};

// A command that removes what is over from a table.
struct Sweep {
    struct __sk_buff *skb;
    uint64_t now;
};

static __always_inline bool FromNetwork(const struct Frame *frame) { return frame->flags & LIVE_PORT_UPLINK; }

static __always_inline struct LiveHost *FindHost(void)
{
    const uint32_t first = 0;
    return bpf_map_lookup_elem(&host, &first);
}

static __always_inline struct LivePort *FindPort(uint32_t slot) { return bpf_map_lookup_elem(&ports, &slot); }

static __always_inline struct LiveCounters *FindCounters(uint32_t slot)
{
    return bpf_map_lookup_elem(&counters, &slot);
}

static __always_inline void CountAt(uint32_t slot, enum LiveCounter counter)
{
    struct LiveCounters *row = FindCounters(slot);
    if (row) row->values[counter]++;
}

static __always_inline void Count(struct Frame *frame, enum LiveCounter counter)
{
    frame->counters->values[counter]++;
}

// The port, its switch and the switch's snapshot. All decisions about a frame are made on one snapshot.
static __always_inline bool FindSenderAt(struct Frame *frame, uint32_t slot)
{
    frame->slot = frame->origin = slot;
    frame->sender = FindPort(slot);
    frame->counters = FindCounters(slot);
    if (!frame->sender || !frame->counters) return false;
    frame->flags = READ_WORD(frame->sender->flags);

    const uint32_t switchIndex = READ_WORD(frame->sender->switchIndex);
    frame->vswitch = bpf_map_lookup_elem(&switches, &switchIndex);
    frame->snapshot = bpf_map_lookup_elem(&snapshots, &switchIndex);
    frame->source.switchIndex = switchIndex;
    frame->destination.switchIndex = switchIndex;
    return frame->vswitch && frame->snapshot;
}

static __always_inline bool FindSender(struct Frame *frame)
{
    const uint32_t ifindex = IngressInterface(frame->skb);
    const uint32_t *slot = bpf_map_lookup_elem(&interfaces, &ifindex);
    // A hash may hand out the value of another key that is being put in its place.
    return slot && FindSenderAt(frame, *slot) && READ_WORD(frame->sender->ifindex) == ifindex;
}

// Addresses are copied in two steps that are wide enough for the compiler to keep them whole.
static __always_inline void CopyAddress(struct LiveAddressKey *key, const uint8_t *mac)
{
    *(uint16_t *)key->mac = *(const uint16_t *)mac;
    *(uint32_t *)(key->mac + 2) = *(const uint32_t *)(mac + 2);
}

static __always_inline uint16_t DestinationKind(const uint8_t *mac)
{
    if (!(mac[0] & 1)) return UNICAST;
    const bool broadcast = *(const uint16_t *)mac == 0xffff && *(const uint32_t *)(mac + 2) == 0xffffffff;
    return broadcast ? BROADCAST : MULTICAST;
}

static __always_inline bool ReadEthernetHeader(struct Frame *frame)
{
    const uint8_t *data = (const uint8_t *)(long)frame->skb->data;
    const uint8_t *end = (const uint8_t *)(long)frame->skb->data_end;
    if (data + ETH_HLEN > end) return false;
    frame->destinationKind = DestinationKind(data);
    CopyAddress(&frame->destination, data);
    CopyAddress(&frame->source, data + ETH_ALEN);
    frame->etherType = bpf_ntohs(*(const uint16_t *)(data + 2 * ETH_ALEN));
    frame->length = frame->skb->len;
    // The kernel has moved the outer tag out of the bytes.
    if (frame->skb->vlan_present) {
        frame->tagNow = TAGGED | (frame->skb->vlan_tci & 0xffff);
        if (frame->skb->vlan_proto == bpf_htons(ETH_P_8021AD)) frame->tagNow |= SERVICE_TAG;
    }
    return true;
}

static __always_inline void CountFrom(struct Frame *frame)
{
    Count(frame, LIVE_FROM_PACKETS);
    frame->counters->values[LIVE_FROM_BYTES] += frame->length + (frame->tagNow ? 4 : 0);
    if (frame->destinationKind == MULTICAST) Count(frame, LIVE_FROM_MULTICAST);
    if (frame->destinationKind == BROADCAST) Count(frame, LIVE_FROM_BROADCAST);
}

// ---- VLANs ----

static __always_inline bool TrunkCarries(void *snapshot, const struct LivePort *port, uint32_t slot,
                                         uint32_t vlan)
{
    const uint32_t element = LIVE_FIRST_RECORD + READ_WORD(port->position);
    const struct LivePortRecord *record = bpf_map_lookup_elem(snapshot, &element);
    if (!record || record->slot != slot) return false;
    return record->vlans[vlan / 64 % (LIVE_VLANS / 64)] >> vlan % 64 & 1;
}

static __always_inline uint32_t WithPriority(uint32_t tci, uint32_t vlanWord)
{
    const uint32_t priority = vlanWord >> LIVE_PORT_PRIORITY_SHIFT & LIVE_PORT_PRIORITY_MASK;
    return priority < LIVE_PORT_NO_PRIORITY ? (tci & 0x1fff) | priority << 13 : tci;
}

// The identity of a VLAN that a tag names.
static __always_inline uint32_t IdentityOf(const struct Frame *frame, uint32_t vlan)
{
    const uint32_t open = vlan | vlan << LIVE_PRIMARY_SHIFT;
    if (!READ_WORD(frame->vswitch->hasPrivateVlans)) return open;
    const uint32_t first = 0;
    const struct LiveSnapshotHeader *header = bpf_map_lookup_elem(frame->snapshot, &first);
    if (!header || header->privateVlans.count == 0) return open;
    const uint32_t element = header->privateVlans.first + vlan / LIVE_IDENTITIES;
    const struct LiveIdentities *table = bpf_map_lookup_elem(frame->snapshot, &element);
    return table ? table->identities[vlan & (LIVE_IDENTITIES - 1)] : open;
}

static __always_inline bool ClassifyAtTrunk(struct Frame *frame, uint32_t word)
{
    const uint32_t vlan = frame->tagNow & LIVE_VLAN_ID_MASK;
    if (frame->tagNow & SERVICE_TAG && (vlan == 0 || !FromNetwork(frame))) return false;
    if (!TrunkCarries(frame->snapshot, frame->sender, frame->slot, vlan)) return false;
    frame->identity = IdentityOf(frame, vlan);
    if (frame->tagNow) frame->tag = (frame->tagNow & ~0xffffu) | WithPriority(frame->tagNow & 0xffff, word);
    return true;
}

static __always_inline bool ClassifyAtAccess(struct Frame *frame, uint32_t word)
{
    const uint32_t access = word & LIVE_VLAN_ID_MASK;
    if (frame->tagNow & (SERVICE_TAG | LIVE_VLAN_ID_MASK) || access > LIVE_VLAN_MAX) return false;
    frame->identity = word & LIVE_IDENTITY_MASK;
    if (access != 0) frame->tag = TAGGED | WithPriority(access, word);
    return true;
}

// The guest's tag becomes part of the bytes, behind the port's.
static __always_inline bool ClassifyAtNested(struct Frame *frame, uint32_t word)
{
    const uint32_t tci = WithPriority(word & LIVE_VLAN_ID_MASK, word);
    frame->identity = word & LIVE_IDENTITY_MASK;
    frame->tag = TAGGED | SERVICE_TAG | tci;
    if (!frame->tagNow) return true;
    if (bpf_skb_vlan_push(frame->skb, bpf_htons(ETH_P_8021AD), (uint16_t)tci)) return false;
    frame->tagNow = frame->tag;
    frame->payloadTagLength = 4;
    return true;
}

// Decides to which VLAN the frame belongs and which tag it leaves with. False: the port doesn't carry it.
static __always_inline bool Classify(struct Frame *frame)
{
    const uint32_t word = READ_WORD(frame->sender->vlan);
    const bool hasInnerTag = frame->etherType == ETH_P_8021Q || frame->etherType == ETH_P_8021AD;
    bool isCarried;
    if (word & LIVE_PORT_NESTED) isCarried = ClassifyAtNested(frame, word);
    // Taking off a priority tag around another tag would make a frame of that tag's VLAN.
    else if (hasInnerTag && !(frame->tagNow & LIVE_VLAN_ID_MASK))
        isCarried = false;
    else if (word & LIVE_PORT_TRUNK)
        isCarried = ClassifyAtTrunk(frame, word);
    else
        isCarried = ClassifyAtAccess(frame, word);
    frame->source.vlan = (uint16_t)LivePrimaryVlan(frame->identity);
    frame->destination.vlan = frame->source.vlan;
    return isCarried;
}

// Whether frames of one identity reach an access port of another one in the same primary VLAN.
static __always_inline bool Reaches(uint32_t from, uint32_t to)
{
    if ((from & LIVE_ROLE_MASK) == LIVE_ROLE_OPEN || (to & LIVE_ROLE_MASK) == LIVE_ROLE_OPEN) return true;
    return (from & LIVE_ROLE_MASK) == LIVE_ROLE_COMMUNITY && from == to;
}

enum Carriage { NOT_CARRIED, CARRIED_UNTAGGED, CARRIED_TAGGED };

// Whether a port gets frames of a VLAN, and how.
static __always_inline enum Carriage CarriageIn(void *snapshot, uint32_t identity,
                                                const struct LivePort *port, uint32_t slot)
{
    if (READ_WORD(port->ifindex) == 0) return NOT_CARRIED;
    const uint32_t word = READ_WORD(port->vlan);
    if (!(word & LIVE_PORT_TRUNK)) {
        if (LivePrimaryVlan(word) != LivePrimaryVlan(identity)) return NOT_CARRIED;
        return Reaches(identity, word & LIVE_IDENTITY_MASK) ? CARRIED_UNTAGGED : NOT_CARRIED;
    }
    const uint32_t vlan = identity & LIVE_VLAN_ID_MASK;
    return TrunkCarries(snapshot, port, slot, vlan) ? CARRIED_TAGGED : NOT_CARRIED;
}

static __always_inline enum Carriage CarriageAt(const struct Frame *frame, const struct LivePort *port,
                                                uint32_t slot)
{
    if (READ_WORD(port->switchIndex) != frame->source.switchIndex) return NOT_CARRIED;
    return CarriageIn(frame->snapshot, frame->identity, port, slot);
}

// Gives the frame the tag that it has to leave with. The kernel keeps it beside the bytes: cheap.
static __always_inline bool ChangeTag(struct __sk_buff *skb, uint32_t *tagNow, uint32_t tag)
{
    if (*tagNow == tag) return true;
    if (*tagNow && bpf_skb_vlan_pop(skb)) return false;
    *tagNow = 0;
    const uint16_t type = tag & SERVICE_TAG ? bpf_htons(ETH_P_8021AD) : bpf_htons(ETH_P_8021Q);
    if (tag && bpf_skb_vlan_push(skb, type, (uint16_t)tag)) return false;
    *tagNow = tag;
    return true;
}

static __always_inline bool SetTag(struct Frame *frame, uint32_t tag)
{
    return ChangeTag(frame->skb, &frame->tagNow, tag);
}

// ---- Filters for EtherTypes ----

static __always_inline bool IsVlanType(uint16_t etherType)
{
    return etherType == bpf_htons(ETH_P_8021Q) || etherType == bpf_htons(ETH_P_8021AD);
}

// The EtherType behind the tags that are in the bytes.
__noinline uint32_t InnermostType(struct __sk_buff *skb)
{
    uint16_t etherType = 0;
    for (uint32_t tag = 0; tag < 4; tag++) {
        if (bpf_skb_load_bytes(skb, 2 * ETH_ALEN + 4 * tag, &etherType, sizeof(etherType))) return 0;
        if (!IsVlanType(etherType)) break;
    }
    return bpf_ntohs(etherType);
}

static __always_inline bool IsDropped(const struct LiveFilter *filter, uint16_t etherType, uint8_t direction)
{
    const uint32_t place = LiveFilterPlace(filter->multiplier, etherType) & (LIVE_FILTER_PLACES - 1);
    if (filter->types[place] != etherType) return filter->others & direction;
    return (direction == VSWITCH_FILTER_TO_PORT ? filter->dropsTo : filter->dropsFrom) >> place & 1;
}

// A port that has rules but not the snapshot's record lets nothing pass.
static __always_inline bool PassesFilter(const struct Frame *frame, const struct LivePort *port,
                                         uint32_t slot, uint8_t direction)
{
    if (!(READ_WORD(port->flags) & LIVE_PORT_FILTERED)) return true;
    const uint32_t element = LIVE_FIRST_RECORD + READ_WORD(port->position);
    const struct LivePortRecord *record = bpf_map_lookup_elem(frame->snapshot, &element);
    if (!record || record->slot != slot) return false;
    const bool hasInnerTag = IsVlanType(bpf_htons(frame->etherType));
    const uint16_t etherType = hasInnerTag ? (uint16_t)InnermostType(frame->skb) : frame->etherType;
    return !IsDropped(&record->filter, etherType, direction);
}

// ---- What a port may send ----

// The IP header of a frame that has one behind the port's tag.
static __always_inline uint32_t IpOffset(const struct Frame *frame)
{
    // A guest's tag is among the bytes only while another one stands around it.
    return ETH_HLEN + (frame->tagNow ? frame->payloadTagLength : 0);
}

#define USUAL_HEADER_LENGTH 40 // of IPv4 and TCP

// Length of the headers that each segment of an offloaded frame gets, from the IP header on.
__noinline uint32_t SegmentHeaderLength(struct __sk_buff *skb, uint32_t ip, uint32_t etherType)
{
    const bool isIpv6 = etherType == ETH_P_IPV6;
    uint8_t first = 0, protocol = 0, dataOffset = 0;
    if (!isIpv6 && etherType != ETH_P_IP) return USUAL_HEADER_LENGTH;
    bpf_skb_load_bytes(skb, ip, &first, 1);
    bpf_skb_load_bytes(skb, ip + (isIpv6 ? 6 : 9), &protocol, 1);
    const uint32_t ipLength = isIpv6 ? 40 : (first & 15u) * 4;
    if (protocol == IPPROTO_UDP) return ipLength + 8;
    if (protocol != IPPROTO_TCP) return USUAL_HEADER_LENGTH;
    bpf_skb_load_bytes(skb, ip + ipLength + 12, &dataOffset, 1);
    return ipLength + (dataOffset >> 4) * 4;
}

// An offloaded frame is longer than what it becomes on the wire.
static __always_inline bool IsTooLong(const struct Frame *frame)
{
    const uint32_t mtu = READ_WORD(frame->vswitch->mtu);
    if (frame->length <= mtu + ETH_HLEN) return false;
    const uint32_t segment = frame->skb->gso_size;
    if (segment == 0) return true;
    return segment + SegmentHeaderLength(frame->skb, IpOffset(frame), frame->etherType) > mtu;
}

static __always_inline bool IsStationAddress(const uint8_t *mac)
{
    return !(mac[0] & 1) && (*(const uint16_t *)mac || *(const uint32_t *)(mac + 2));
}

// The row of the counter that a frame is dropped for, or PASS.
static __always_inline int Check(struct Frame *frame)
{
    if (frame->flags & LIVE_PORT_BLOCKED) return LIVE_DROP_BLOCKED;
    if (!Classify(frame)) return LIVE_DROP_VLAN;
    if (!IsStationAddress(frame->source.mac)) return LIVE_DROP_FILTER;
    if (!PassesFilter(frame, frame->sender, frame->slot, VSWITCH_FILTER_FROM_PORT)) return LIVE_DROP_FILTER;
    if (IsTooLong(frame)) return LIVE_DROP_LENGTH;
    return PASS;
}

// ---- The address table ----
// An entry belongs to the side that exchanges its owner: that side, and no other, changes the counts. So the
// number of a port's entries stays right whatever runs at the same time.

static __always_inline uint32_t SlotOf(uint64_t owner) { return (uint32_t)owner; }

// A static address was set by a command or kept when it was learned. The latter count as learned.
static __always_inline bool IsCounted(uint64_t owner) { return owner >> 32 != LIVE_EPOCH_STATIC; }

static __always_inline bool IsStatic(uint64_t owner)
{
    return !IsCounted(owner) || owner >> 32 == LIVE_EPOCH_KEPT;
}

static __always_inline uint64_t OwnerNow(uint32_t slot, const struct LivePort *port)
{
    return (uint64_t)(READ_WORD(port->epoch) & LIVE_EPOCH_MASK) << 32 | slot;
}

// Whether the port still has the address, or has forgotten it.
static __always_inline bool IsCurrent(uint64_t owner, uint32_t slot, const struct LivePort *port)
{
    return IsStatic(owner) || owner == OwnerNow(slot, port);
}

static __always_inline bool ExchangeOwner(struct LiveAddress *address, uint64_t from, uint64_t to)
{
    return __sync_val_compare_and_swap(&address->owner, from, to) == from;
}

static __always_inline void Touch(struct LiveAddress *address, uint64_t now)
{
    if (READ_WORD(address->lastSeen) != now) address->lastSeen = now;
}

static __always_inline bool ReserveBelow(uint32_t *count, uint32_t limit)
{
    if (READ_WORD(*count) >= limit) return false;
    if (__sync_fetch_and_add(count, 1) < limit) return true;
    __sync_fetch_and_add(count, -1);
    return false;
}

static __always_inline void Release(uint32_t *count) { __sync_fetch_and_add(count, -1); }

// Addresses of the network may fill half of a table, so that they leave room for local ones.
static __always_inline uint32_t ShareOf(const struct Frame *frame, uint32_t limit)
{
    return FromNetwork(frame) ? limit / 2 : limit;
}

static __always_inline bool IsShareFull(const struct Frame *frame)
{
    return READ_WORD(frame->vswitch->learned) > ShareOf(frame, READ_WORD(frame->vswitch->addressLimit)) ||
           READ_WORD(frame->host->learned) > ShareOf(frame, READ_WORD(frame->host->addressLimit));
}

static __always_inline bool ReserveAtPort(struct Frame *frame)
{
    const bool single = !(frame->flags & (LIVE_PORT_LEARNING | LIVE_PORT_UPLINK));
    const uint32_t limit = single ? LIVE_SINGLE_ADDRESS_LIMIT : READ_WORD(frame->sender->addressLimit);
    return ReserveBelow(&frame->sender->learned, limit);
}

static __always_inline bool ReserveAddress(struct Frame *frame)
{
    if (!ReserveAtPort(frame)) return false;
    if (ReserveBelow(&frame->vswitch->learned, ShareOf(frame, READ_WORD(frame->vswitch->addressLimit)))) {
        if (ReserveBelow(&frame->host->learned, ShareOf(frame, READ_WORD(frame->host->addressLimit))))
            return true;
        Release(&frame->vswitch->learned);
    }
    Release(&frame->sender->learned);
    return false;
}

static __always_inline void ReleaseAtPort(uint32_t slot)
{
    struct LivePort *port = FindPort(slot);
    if (port) Release(&port->learned);
}

static __always_inline void ReleaseAddress(uint32_t slot, uint32_t switchIndex)
{
    struct LiveSwitch *vswitch = bpf_map_lookup_elem(&switches, &switchIndex);
    struct LiveHost *limits = FindHost();
    ReleaseAtPort(slot);
    if (vswitch) Release(&vswitch->learned);
    if (limits) Release(&limits->learned);
}

static __always_inline bool RemoveAddress(const struct LiveAddressKey *key, struct LiveAddress *address,
                                          uint64_t owner)
{
    if (!ExchangeOwner(address, owner, LIVE_OWNER_NONE)) return false;
    bpf_map_delete_elem(&addresses, key);
    if (IsCounted(owner)) ReleaseAddress(SlotOf(owner), key->switchIndex);
    return true;
}

// ---- Learning ----

// What comes back from the network is to be known also if its address is not.
__noinline int NoteUnlisted(const struct LiveAddressKey *source, uint64_t now)
{
    struct LiveHost *state = FindHost();
    if (!source || !state) return 0;
    if (READ_WORD(state->lastUnlisted) != now) state->lastUnlisted = now;
    uint64_t *seen = bpf_map_lookup_elem(&unlisted, source);
    if (!seen) return (int)bpf_map_update_elem(&unlisted, source, &now, BPF_ANY);
    if (*seen != now) *seen = now;
    return 0;
}

static __always_inline bool IsRecent(uint64_t then, uint64_t now)
{
    return then && (int64_t)(now - then) < (int64_t)LIVE_REFLECTION_NS;
}

__noinline uint32_t WasSentFromHere(const struct LiveAddressKey *source, uint64_t now)
{
    const struct LiveHost *state = FindHost();
    if (!source || !state || !IsRecent(READ_WORD(state->lastUnlisted), now)) return 0;
    const uint64_t *seen = bpf_map_lookup_elem(&unlisted, source);
    return seen && IsRecent(*seen, now);
}

static __always_inline int RefuseAddress(struct Frame *frame)
{
    Count(frame, LIVE_REFUSED);
    if (FromNetwork(frame)) return PASS;
    if ((frame->flags & (LIVE_PORT_LEARNING | LIVE_PORT_FORWARDS_OVER_LIMIT)) == LIVE_PORT_LEARNING)
        return LIVE_DROP_LEARNING_LIMIT;
    NoteUnlisted(&frame->source, frame->now);
    return PASS;
}

// As what the sender gets an address.
static __always_inline uint64_t NewOwner(const struct Frame *frame)
{
    const bool isKept =
        frame->flags & LIVE_PORT_LEARNING && !FromNetwork(frame) && READ_WORD(frame->vswitch->learnsStatic);
    return isKept ? (uint64_t)LIVE_EPOCH_KEPT << 32 | frame->slot : OwnerNow(frame->slot, frame->sender);
}

static __always_inline int AddAddress(struct Frame *frame)
{
    if (!ReserveAddress(frame)) return RefuseAddress(frame);
    const struct LiveAddress address = {NewOwner(frame), frame->now};
    const long error = bpf_map_update_elem(&addresses, &frame->source, &address, BPF_NOEXIST);
    if (error == 0) {
        Count(frame, LIVE_LEARNED);
        return PASS;
    }
    ReleaseAddress(frame->slot, frame->source.switchIndex);
    const bool isFull = error != -17; // EEXIST: another processor was faster
    return isFull ? RefuseAddress(frame) : PASS;
}

// Takes an address over from `owner`: another port, or this one before it forgot its addresses.
static __always_inline int TakeAddress(struct Frame *frame, struct LiveAddress *address, uint64_t owner,
                                       bool isCurrent)
{
    const bool wasHere = SlotOf(owner) == frame->slot;
    if (!wasHere && !ReserveAtPort(frame)) return RefuseAddress(frame);
    if (!ExchangeOwner(address, owner, NewOwner(frame))) {
        if (!wasHere) Release(&frame->sender->learned);
        return PASS; // another processor was faster; the next frame learns
    }
    if (!wasHere) ReleaseAtPort(SlotOf(owner));
    Touch(address, frame->now);
    Count(frame, isCurrent ? LIVE_MOVED : LIVE_LEARNED);
    return PASS;
}

// A port that doesn't learn has the address last seen, in each VLAN that it was seen in. A new one takes the
// place of the old one: the epoch makes the port forget all its VLANs' entries, of which one is removed here
// and the others, if there are any, by the next sweep.
static __always_inline void ReplaceSingleAddress(struct Frame *frame)
{
    const uint64_t word = LiveAddressWord(&frame->source);
    if (((READ_WORD(frame->sender->address) ^ word) << 16) == 0) return;
    const uint64_t old = __sync_lock_test_and_set(&frame->sender->address, word);
    if (old == 0) return;
    __sync_fetch_and_add(&frame->sender->epoch, 1);

    struct LiveAddressKey key = {.switchIndex = frame->source.switchIndex};
    LiveReadAddressWord(old, &key);
    struct LiveAddress *address = bpf_map_lookup_elem(&addresses, &key);
    if (!address) return;
    const uint64_t owner = READ_WORD(address->owner);
    if (SlotOf(owner) == frame->slot && !IsStatic(owner)) RemoveAddress(&key, address, owner);
}

// The first address that a port with the lock sends from is its only one.
static __always_inline bool IsLockedOut(struct Frame *frame)
{
    if (!(frame->flags & LIVE_PORT_ADDRESS_LOCK)) return false;
    const uint64_t mac = LiveAddressWord(&frame->source) & 0xffffffffffffull;
    uint64_t locked = READ_WORD(frame->sender->lockedAddress);
    if (locked == 0) locked = __sync_val_compare_and_swap(&frame->sender->lockedAddress, 0, mac);
    return locked != 0 && locked != mac;
}

static __always_inline int LearnFromPort(struct Frame *frame, struct LiveAddress *address)
{
    const uint64_t owner = address ? READ_WORD(address->owner) : 0;
    const bool isHere = address && SlotOf(owner) == frame->slot;
    if (frame->flags & LIVE_PORT_STATIC_ONLY && !(isHere && IsStatic(owner))) return LIVE_DROP_SECURITY;
    if (IsLockedOut(frame)) return LIVE_DROP_SECURITY;
    if (isHere && (IsStatic(owner) || owner == OwnerNow(frame->slot, frame->sender))) {
        const uint64_t wanted = NewOwner(frame);
        if (owner != wanted && !IsStatic(owner)) ExchangeOwner(address, owner, wanted);
        Touch(address, frame->now);
        return PASS;
    }
    if (address && (IsStatic(owner) || owner == LIVE_OWNER_NONE)) return PASS;
    if (!READ_WORD(frame->host->learningEnabled)) {
        NoteUnlisted(&frame->source, frame->now);
        return PASS;
    }
    if (!(frame->flags & LIVE_PORT_LEARNING)) ReplaceSingleAddress(frame);
    if (!address) return AddAddress(frame);
    const struct LivePort *holder = FindPort(SlotOf(owner));
    return TakeAddress(frame, address, owner, holder && IsCurrent(owner, SlotOf(owner), holder));
}

static __always_inline int DropReflected(struct Frame *frame)
{
    Count(frame, LIVE_REFLECTED);
    return LIVE_DROP_FILTER;
}

// A frame from the network with the address of a local port came back from there, or the machine has moved.
// It has not moved if the port was heard a moment ago.
static __always_inline int LearnFromNetwork(struct Frame *frame, struct LiveAddress *address)
{
    const bool learns = READ_WORD(frame->host->learningEnabled);
    if (!address) {
        if (WasSentFromHere(&frame->source, frame->now)) return DropReflected(frame);
        return learns ? AddAddress(frame) : PASS;
    }
    const uint64_t owner = READ_WORD(address->owner);
    const struct LivePort *holder = FindPort(SlotOf(owner));
    if (!holder) return PASS;
    const bool isCurrent = IsCurrent(owner, SlotOf(owner), holder);
    if (isCurrent && READ_WORD(holder->flags) & LIVE_PORT_UPLINK) {
        // The network may bring it by any uplink.
        if (learns) Touch(address, frame->now);
        return PASS;
    }
    if (isCurrent && IsRecent(READ_WORD(address->lastSeen), frame->now)) return DropReflected(frame);
    if (IsStatic(owner) || !learns) {
        if (isCurrent) frame->origin = SlotOf(owner);
        return PASS;
    }
    const int verdict =
        IsShareFull(frame) ? RefuseAddress(frame) : TakeAddress(frame, address, owner, isCurrent);
    // Without room for it among the network's addresses it is no longer at the port either.
    if (READ_WORD(address->owner) == owner) RemoveAddress(&frame->source, address, owner);
    return verdict;
}

static __always_inline int Learn(struct Frame *frame)
{
    struct LiveAddress *address = bpf_map_lookup_elem(&addresses, &frame->source);
    return FromNetwork(frame) ? LearnFromNetwork(frame, address) : LearnFromPort(frame, address);
}

#include "platform/live/mirror.bpf.h"
#include "platform/live/multicast.bpf.h"

// ---- Sending ----

static __always_inline void CountTo(const struct Frame *frame, uint32_t slot)
{
    struct LiveCounters *row = FindCounters(slot);
    if (!row) return;
    row->values[LIVE_TO_PACKETS]++;
    row->values[LIVE_TO_BYTES] += frame->length + frame->payloadTagLength + (frame->tagNow ? 4 : 0);
    if (frame->destinationKind == MULTICAST) row->values[LIVE_TO_MULTICAST]++;
    if (frame->destinationKind == BROADCAST) row->values[LIVE_TO_BROADCAST]++;
}

static __always_inline uint32_t TagAt(const struct Frame *frame, enum Carriage carriage)
{
    return carriage == CARRIED_TAGGED ? frame->tag : 0;
}

// One copy to a port. Not 0: it was not sent, see Send().
static __always_inline long SendCopy(struct Frame *frame, const struct LivePort *port, uint32_t slot,
                                     enum Carriage carriage)
{
    if (!SetTag(frame, TagAt(frame, carriage))) return NOT_SENT;
    const long result = Send(frame->skb, READ_WORD(port->ifindex));
    if (result) return result;
    CountTo(frame, slot);
    if (READ_WORD(port->flags) & LIVE_PORT_MIRRORED) NoteReceiver(frame, slot);
    return 0;
}

// The frame itself to a port, as the program's last step.
static __always_inline int SendItself(struct Frame *frame, const struct LivePort *port, uint32_t slot,
                                      enum Carriage carriage)
{
    if (!SetTag(frame, TagAt(frame, carriage))) {
        CountAt(slot, LIVE_DROP_NOT_SENT);
        return TC_ACT_SHOT;
    }
    CountTo(frame, slot);
    return SendLast(frame->skb, READ_WORD(port->ifindex));
}

// ---- What the network sends by each uplink ----
// The functions are global ones, which the kernel's verifier looks at only once.

// Whether a frame for several ports comes from the network while the words that depend on links are true.
__noinline uint32_t IsFlood(uint32_t senderFlags, uint64_t now)
{
    const struct LiveHost *state = FindHost();
    return state && senderFlags & LIVE_PORT_UPLINK && (int64_t)(READ_WORD(state->servedUntil) - now) > 0;
}

// Whether the port gets the frame by another uplink than this one.
__noinline uint32_t IsBroughtByAnother(uint32_t slot, uint32_t uplinkSlot, uint32_t identity,
                                       uint32_t destinationKind)
{
    const struct LivePort *port = FindPort(slot);
    const uint32_t word = port ? READ_WORD(port->networkUplink) : 0;
    const uint32_t wanted = (word & LIVE_NETWORK_SLOT_MASK) - 1;
    if (!port || word == 0 || wanted == uplinkSlot) return false;
    if (word & LIVE_NETWORK_ALL_UNICAST && destinationKind == UNICAST) return false;
    if (word & LIVE_NETWORK_ALL_MULTICAST && destinationKind == MULTICAST) return false;
    const uint32_t switchIndex = READ_WORD(port->switchIndex);
    const struct LivePort *uplink = FindPort(wanted);
    void *snapshot = bpf_map_lookup_elem(&snapshots, &switchIndex);
    if (!uplink || !snapshot || READ_WORD(uplink->flags) & LIVE_PORT_BLOCKED) return false;
    if (READ_WORD(uplink->switchIndex) != switchIndex) return false;
    return CarriageIn(snapshot, identity, uplink, wanted) != NOT_CARRIED;
}

static __always_inline bool ComesByAnother(const struct Frame *frame, uint32_t slot)
{
    if (!frame->comesByEach) return false;
    return IsBroughtByAnother(slot, frame->slot, frame->identity, frame->destinationKind);
}

struct ListWalk {
    struct Frame *frame;
    struct LiveSection list;
    uint32_t except; // the slot of a port that gets no copy
};

// A list is as old as the snapshot; the words of each port are of this moment, and they decide.
static long SendToListed(uint32_t index, struct ListWalk *walk)
{
    struct Frame *frame = walk->frame;
    const uint32_t element = walk->list.first + (index >> LIVE_SLOTS_SHIFT);
    const struct LiveSlots *slots = bpf_map_lookup_elem(frame->snapshot, &element);
    if (!slots) return 1;
    const uint32_t slot = slots->slots[index & (LIVE_SLOTS - 1)];
    const struct LivePort *port = FindPort(slot);
    if (!port || slot == frame->origin) return 0;
    if (READ_WORD(port->flags) & LIVE_PORT_BLOCKED || slot == walk->except) return 0;
    const enum Carriage carriage = CarriageAt(frame, port, slot);
    if (carriage == NOT_CARRIED || ComesByAnother(frame, slot) || !IsSelected(frame, port, slot)) return 0;
    if (!PassesFilter(frame, port, slot, VSWITCH_FILTER_TO_PORT))
        CountAt(slot, LIVE_DROP_FILTER);
    else if (SendCopy(frame, port, slot, carriage))
        CountAt(slot, LIVE_DROP_NOT_SENT);
    else
        frame->sentToPorts = true;
    return 0;
}

// ---- Uplinks ----

static __always_inline uint32_t MixBytes(struct __sk_buff *skb, uint32_t hash, uint32_t offset,
                                         uint32_t words)
{
    uint32_t word = 0;
    for (uint32_t i = 0; i < words; i++) {
        if (bpf_skb_load_bytes(skb, offset + 4 * i, &word, sizeof(word))) break;
        hash = LiveMix(hash, word);
    }
    return hash;
}

static __always_inline uint32_t MixPorts(struct __sk_buff *skb, uint32_t hash, uint32_t ip, bool isIpv6)
{
    uint8_t first = 0, protocol = 0;
    uint16_t fragment = 0;
    bpf_skb_load_bytes(skb, ip + (isIpv6 ? 6 : 9), &protocol, 1);
    if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) return hash;
    if (isIpv6) return MixBytes(skb, hash, ip + 40, 1);
    bpf_skb_load_bytes(skb, ip, &first, 1);
    bpf_skb_load_bytes(skb, ip + 6, &fragment, sizeof(fragment));
    // Of a packet in fragments only the first one has ports.
    return fragment & bpf_htons(0x3fff) ? hash : MixBytes(skb, hash, ip + (first & 15u) * 4, 1);
}

__noinline uint32_t HashOfIp(struct __sk_buff *skb, uint32_t ip, uint32_t etherType, uint32_t algorithm)
{
    const bool isIpv6 = etherType == ETH_P_IPV6;
    const uint32_t hash = isIpv6 ? MixBytes(skb, 0, ip + 8, 8) : MixBytes(skb, 0, ip + 12, 2);
    return algorithm == VSWITCH_TEAMING_L4 ? MixPorts(skb, hash, ip, isIpv6) : hash;
}

static __always_inline uint32_t HashOf(const struct Frame *frame, uint8_t algorithm)
{
    if (algorithm == VSWITCH_TEAMING_ORDER) return 0;
    if (algorithm == VSWITCH_TEAMING_PORT) return READ_WORD(frame->sender->number);
    const bool isIp = frame->etherType == ETH_P_IP || frame->etherType == ETH_P_IPV6;
    if (isIp && algorithm != VSWITCH_TEAMING_SOURCE_MAC)
        return HashOfIp(frame->skb, IpOffset(frame), frame->etherType, algorithm);
    const uint8_t *mac = frame->source.mac;
    return LiveMix(*(const uint16_t *)mac, *(const uint32_t *)(mac + 2));
}

// How the frame finds its uplink.
struct UplinkChoice {
    struct Frame *frame;
    const struct LiveTeam *team; // null: all uplinks in their order
    uint32_t count;
    uint32_t activeCount;
    uint32_t preferred; // among the active ones
    uint32_t members;   // bits of the uplinks in the team
    uint32_t left;      // LivePort.leftUplinks
    uint32_t passed;    // bits of uplinks that don't work
    bool failBack;
    bool isSent;
};

// Counts what the sender's way has become.
static __always_inline void NoteUplink(const struct UplinkChoice *choice, uint32_t uplink, uint32_t slot)
{
    struct LivePort *sender = choice->frame->sender;
    const uint32_t bit = 1u << uplink;
    if (READ_WORD(sender->uplinkSlot) != slot + 1) sender->uplinkSlot = slot + 1;
    const uint32_t passed = choice->passed & ~bit;
    const uint32_t left = (choice->left | passed) & ~bit;
    if (left == choice->left) return;
    if (__sync_val_compare_and_swap(&sender->leftUplinks, choice->left, left) != choice->left) return;
    if (passed & ~choice->left)
        CountAt(slot, LIVE_FAILOVERS);
    else if (choice->left & bit)
        CountAt(slot, LIVE_FAILBACKS);
}

enum Round { WORKING, LEFT, UNKNOWN_STATE, OTHERS, OTHERS_OF_UNKNOWN_STATE };

// Tries an uplink in its round: those that work, those that the port has left for good, and those that are
// known not to work, as user space may be away. An interface whose queue is full may be about to lose its
// carrier: the frame takes the next uplink, but the port has not changed.
static __always_inline bool TryUplink(struct UplinkChoice *choice, uint32_t uplink, enum Round round)
{
    struct Frame *frame = choice->frame;
    const uint32_t bit = 1u << uplink;
    const uint32_t slot = frame->header->uplinkSlots[uplink];
    const struct LivePort *port = FindPort(slot);
    if (!port || READ_WORD(port->flags) & LIVE_PORT_BLOCKED) return false;
    const enum Carriage carriage = CarriageAt(frame, port, slot);
    if (carriage == NOT_CARRIED) return false;

    const bool isActive = READ_WORD(frame->vswitch->activeUplinks) & bit;
    const bool isLeft = !choice->failBack && choice->left & bit;
    if (!isActive) choice->passed |= bit;
    if (round == WORKING && (!isActive || isLeft)) return false;
    if (round == LEFT && !(isActive && isLeft)) return false;
    if (round == OTHERS && !isActive) return false;
    if ((round == UNKNOWN_STATE || round == OTHERS_OF_UNKNOWN_STATE) && isActive) return false;
    if (!PassesFilter(frame, port, slot, VSWITCH_FILTER_TO_PORT)) {
        CountAt(slot, LIVE_DROP_FILTER);
        return false;
    }

    const long result = SendCopy(frame, port, slot, carriage);
    if (result == QUEUE_FULL)
        frame->queueWasFull = true;
    else if (result)
        choice->passed |= bit;
    if (result) return false;
    if (!frame->queueWasFull) NoteUplink(choice, uplink, slot);
    choice->isSent = true;
    return true;
}

static __always_inline uint32_t UplinkAt(const struct UplinkChoice *choice, uint32_t place)
{
    return (choice->team ? choice->team->uplinks[place & (LIVE_UPLINKS - 1)] : place) & (LIVE_UPLINKS - 1);
}

// The team's uplinks round by round: the active ones from the preferred one on, then the standby ones.
static long TryMember(uint32_t index, struct UplinkChoice *choice)
{
    if (choice->count == 0) return 1;
    uint32_t place = index % choice->count;
    if (place < choice->activeCount) place = (choice->preferred + place) % choice->activeCount;
    return TryUplink(choice, UplinkAt(choice, place), (enum Round)(index / choice->count));
}

// Uplinks that are not in the team.
static long TryOther(uint32_t index, struct UplinkChoice *choice)
{
    const uint32_t count = choice->frame->header->uplinkCount;
    if (count == 0) return 1;
    const uint32_t uplink = index % count & (LIVE_UPLINKS - 1);
    if (choice->members >> uplink & 1) return 0;
    return TryUplink(choice, uplink, index < count ? OTHERS : OTHERS_OF_UNKNOWN_STATE);
}

// The team in the sender's record; null for none.
static __always_inline const struct LiveTeam *FindTeam(const struct Frame *frame)
{
    if (frame->header->teams.count == 0) return 0;
    uint32_t element = LIVE_FIRST_RECORD + READ_WORD(frame->sender->position);
    const struct LivePortRecord *record = bpf_map_lookup_elem(frame->snapshot, &element);
    if (!record || record->slot != frame->slot || record->team == 0) return 0;
    const uint32_t place = record->team - 1;
    element = frame->header->teams.first + place / LIVE_TEAMS;
    const struct LiveTeams *teams = bpf_map_lookup_elem(frame->snapshot, &element);
    return teams ? &teams->teams[place & (LIVE_TEAMS - 1)] : 0;
}

static __always_inline bool SendToUplink(struct Frame *frame)
{
    const struct LiveTeam *team = FindTeam(frame);
    const uint32_t uplinks = frame->header->uplinkCount;
    struct UplinkChoice choice = {
        .frame = frame,
        .team = team,
        .count = team ? team->count : uplinks,
        .activeCount = team ? team->activeCount : uplinks,
        .members = team ? team->members : UINT32_MAX,
        .left = READ_WORD(frame->sender->leftUplinks),
        .failBack = !team || team->failBack,
    };
    if (choice.activeCount)
        choice.preferred = HashOf(frame, team ? team->algorithm : VSWITCH_TEAMING_PORT) % choice.activeCount;
    if (choice.count) bpf_loop(3 * choice.count, TryMember, &choice, 0);
    if (!choice.isSent && team && team->anyUplink) bpf_loop(2 * uplinks, TryOther, &choice, 0);
    return choice.isSent;
}

// ---- Forwarding ----

static __always_inline bool IsFloodAllowed(struct Frame *frame)
{
    const uint32_t limit = READ_WORD(frame->host->floodLimit);
    if (limit == 0) return true;
    const uint32_t second = (uint32_t)(frame->now / 1000000000);
    if (READ_WORD(frame->sender->floodSecond) != second) {
        frame->sender->floodSecond = second;
        frame->sender->floodCount = 0;
    }
    return __sync_fetch_and_add(&frame->sender->floodCount, 1) < limit;
}

static __always_inline bool FindHeader(struct Frame *frame)
{
    const uint32_t first = 0;
    frame->header = bpf_map_lookup_elem(frame->snapshot, &first);
    return frame->header;
}

enum List { ALL_PORTS, PORTS_FOR_UNKNOWN, PORTS_FOR_ALL_FRAMES };

static __always_inline void SendToList(struct Frame *frame, enum List list, uint32_t except)
{
    struct ListWalk walk = {.frame = frame, .except = except};
    walk.list = list == ALL_PORTS           ? frame->header->flood
                : list == PORTS_FOR_UNKNOWN ? frame->header->unknown
                                            : frame->header->allFrames;
    if (walk.list.count) bpf_loop(walk.list.count, SendToListed, &walk, 0);
}

// Copies of a frame that goes to one port, for those that get all frames.
static __always_inline void SendToObservers(struct Frame *frame, uint32_t receiver)
{
    if (READ_WORD(frame->vswitch->hasAllFramesPorts) && FindHeader(frame))
        SendToList(frame, PORTS_FOR_ALL_FRAMES, receiver);
}

// To the ports of a list, then, from a local port, to its uplink.
static __always_inline int SendToMany(struct Frame *frame, enum List list)
{
    if (!FindHeader(frame)) return TC_ACT_SHOT;
    frame->comesByEach = IsFlood(frame->flags, frame->now);
    SendToList(frame, list, frame->slot);
    if (FromNetwork(frame)) return TC_ACT_SHOT;
    const uint32_t uplinks = frame->header->uplinkCount;
    const bool isLost = frame->destinationKind == UNICAST && !frame->sentToPorts;
    if (!(uplinks && SendToUplink(frame)) && (uplinks || isLost)) Count(frame, LIVE_DROP_NOT_SENT);
    return TC_ACT_SHOT;
}

// The port that has the destination's address now; null for none.
static __always_inline struct LivePort *FindDestination(struct Frame *frame, uint32_t *slot)
{
    const struct LiveAddress *address = bpf_map_lookup_elem(&addresses, &frame->destination);
    if (!address) return 0;
    const uint64_t owner = READ_WORD(address->owner);
    *slot = SlotOf(owner);
    struct LivePort *port = FindPort(*slot);
    return port && IsCurrent(owner, *slot, port) ? port : 0;
}

// Sends a frame to the one port that has its destination, or chooses the list of ports for it: PASS.
static __always_inline int ForwardUnicast(struct Frame *frame, enum List *list)
{
    uint32_t slot = 0;
    *list = PORTS_FOR_UNKNOWN;
    const struct LivePort *port = FindDestination(frame, &slot);
    if (!port) return PASS;
    const uint32_t flags = READ_WORD(port->flags);
    if (slot != frame->slot && flags & LIVE_PORT_UPLINK) {
        *list = PORTS_FOR_ALL_FRAMES;
        return PASS;
    }
    const enum Carriage carriage = CarriageAt(frame, port, slot);
    if (slot != frame->slot && carriage == NOT_CARRIED) return PASS;
    SendToObservers(frame, slot);
    if (slot == frame->slot || slot == frame->origin) return TC_ACT_SHOT; // it is there already
    if (flags & LIVE_PORT_BLOCKED)
        CountAt(slot, LIVE_DROP_BLOCKED);
    else if (!PassesFilter(frame, port, slot, VSWITCH_FILTER_TO_PORT))
        CountAt(slot, LIVE_DROP_FILTER);
    else if (!IsMirrored(frame) && !(flags & LIVE_PORT_MIRRORED))
        return SendItself(frame, port, slot, carriage);
    else if (SendCopy(frame, port, slot, carriage))
        CountAt(slot, LIVE_DROP_NOT_SENT);
    return TC_ACT_SHOT;
}

static __always_inline int Forward(struct Frame *frame)
{
    enum List list = ALL_PORTS;
    if (frame->destinationKind == UNICAST) {
        const int verdict = ForwardUnicast(frame, &list);
        if (verdict != PASS) return verdict;
    } else if (!IsFloodAllowed(frame)) {
        Count(frame, LIVE_DROP_FLOOD_LIMIT);
        frame->mirrored.from = 0;
        return TC_ACT_SHOT;
    } else if (frame->destinationKind == MULTICAST && READ_WORD(frame->vswitch->snooping)) {
        SelectPorts(frame);
    }
    return SendToMany(frame, list);
}

static __always_inline int Switch(struct __sk_buff *skb)
{
    struct Frame frame = {.skb = skb, .host = FindHost()};
    if (!frame.host) return TC_ACT_SHOT;
    frame.now = Now(frame.host);
    if (!FindSender(&frame) || !ReadEthernetHeader(&frame)) return TC_ACT_SHOT;
    CountFrom(&frame);
    int reason = Check(&frame);
    if (reason == PASS) reason = Learn(&frame);
    if (reason != PASS) {
        Count(&frame, (enum LiveCounter)reason);
        return TC_ACT_SHOT;
    }
    if (frame.flags & LIVE_PORT_MIRRORED) NoteSender(&frame);
    const int verdict = Forward(&frame);
    if (IsMirrored(&frame)) Mirror(&frame);
    return verdict;
}

#ifndef LIVE_TEST_RUN

SEC("tc") int vswitch(struct __sk_buff *skb) { return Switch(skb); }

#else

// A test gives all of a frame as bytes. The kernel would have moved the outer tag out of them.
SEC("tc") int vswitch(struct __sk_buff *skb)
{
    uint16_t tag[2] = {0, 0};
    bpf_skb_load_bytes(skb, 2 * ETH_ALEN, tag, sizeof(tag)); // fails for a frame of a header alone: no tag
    if (tag[0] == bpf_htons(ETH_P_8021Q) || tag[0] == bpf_htons(ETH_P_8021AD))
        if (bpf_skb_vlan_pop(skb) || bpf_skb_vlan_push(skb, tag[0], bpf_ntohs(tag[1]))) return TC_ACT_SHOT;
    return Switch(skb);
}

#endif

// ---- Commands: what user space has done to the tables ----

static __always_inline bool ReadKey(struct __sk_buff *skb, uint32_t index, struct LiveAddressKey *key)
{
    return !bpf_skb_load_bytes(skb, LIVE_COMMAND_KEYS_OFFSET + index * sizeof(*key), key, sizeof(*key));
}

static __always_inline bool IsOld(const struct LiveAddressKey *key, const struct LiveAddress *address,
                                  uint64_t now)
{
    const uint32_t switchIndex = key->switchIndex;
    const struct LiveSwitch *vswitch = bpf_map_lookup_elem(&switches, &switchIndex);
    const uint64_t ageing = vswitch ? READ_WORD(vswitch->ageingSeconds) : 0;
    return ageing && (int64_t)(now - READ_WORD(address->lastSeen)) >= (int64_t)(ageing * 1000000000);
}

// An entry without an owner is being deleted at this moment, unless its deletion met a place in the table
// that had been given to another address: then it stays and is removed here, long after.
static __always_inline bool IsLeftOver(uint64_t owner, const struct LiveAddress *address, uint64_t now)
{
    return owner == LIVE_OWNER_NONE && (int64_t)(now - READ_WORD(address->lastSeen)) > 10000000000ll;
}

// User space has chosen the keys, but they may have changed since.
static long SweepKey(uint32_t index, struct Sweep *sweep)
{
    struct LiveAddressKey key;
    if (!ReadKey(sweep->skb, index, &key)) return 1;
    struct LiveAddress *address = bpf_map_lookup_elem(&addresses, &key);
    if (!address) return 0;
    const uint64_t owner = READ_WORD(address->owner);
    const uint32_t slot = SlotOf(owner);
    if (IsLeftOver(owner, address, sweep->now)) bpf_map_delete_elem(&addresses, &key);
    const struct LivePort *port = FindPort(slot);
    if (!port) return 0;
    const bool isForgotten = !READ_WORD(port->inUse) || !IsCurrent(owner, slot, port);
    const bool isAged = !isForgotten && !IsStatic(owner) && IsOld(&key, address, sweep->now);
    if ((isForgotten || isAged) && RemoveAddress(&key, address, owner) && isAged) CountAt(slot, LIVE_AGED);
    return 0;
}

static __always_inline int SweepKeys(struct __sk_buff *skb, uint32_t count, uint64_t now)
{
    struct Sweep sweep = {skb, now};
    bpf_loop(count < LIVE_COMMAND_KEYS ? count : LIVE_COMMAND_KEYS, SweepKey, &sweep, 0);
    return LIVE_DONE;
}

static __always_inline int AddStatic(const struct LiveAddressKey *key, uint32_t slot)
{
    const uint64_t owner = (uint64_t)LIVE_EPOCH_STATIC << 32 | slot;
    struct LiveAddress *address = bpf_map_lookup_elem(&addresses, key);
    if (!address) {
        const struct LiveAddress added = {owner, 0};
        return bpf_map_update_elem(&addresses, key, &added, BPF_NOEXIST) ? LIVE_FULL : LIVE_DONE;
    }
    const uint64_t old = READ_WORD(address->owner);
    if (old == LIVE_OWNER_NONE || !ExchangeOwner(address, old, owner)) return LIVE_FULL;
    if (IsCounted(old)) ReleaseAddress(SlotOf(old), key->switchIndex);
    return LIVE_DONE;
}

static __always_inline int RemoveOne(const struct LiveAddressKey *key, uint32_t slot)
{
    struct LiveAddress *address = bpf_map_lookup_elem(&addresses, key);
    if (!address) return LIVE_NOT_FOUND;
    const uint64_t owner = READ_WORD(address->owner);
    if (SlotOf(owner) != slot) return LIVE_NOT_FOUND;
    return RemoveAddress(key, address, owner) ? LIVE_DONE : LIVE_NOT_FOUND;
}

static __always_inline void ReadClocks(struct LiveHost *state)
{
    state->now = Now(state);
    state->ticks = bpf_jiffies64();
    state->clockNs = bpf_ktime_get_coarse_ns();
}

SEC("tc") int change_addresses(struct __sk_buff *skb)
{
    struct LiveCommand command;
    struct LiveAddressKey key = {};
    struct LiveHost *state = FindHost();
    if (!state || bpf_skb_load_bytes(skb, LIVE_COMMAND_OFFSET, &command, sizeof(command)))
        return LIVE_BAD_COMMAND;
    if (command.count && !ReadKey(skb, 0, &key)) return LIVE_BAD_COMMAND;
    ReadClocks(state);
    switch (command.kind) {
    case LIVE_COMMAND_SWEEP:
        return SweepKeys(skb, command.count, state->now);
    case LIVE_COMMAND_ADD_STATIC:
        return AddStatic(&key, command.slot);
    case LIVE_COMMAND_REMOVE_ADDRESS:
        return RemoveOne(&key, command.slot);
    case LIVE_COMMAND_READ_CLOCKS:
        return LIVE_DONE;
    case LIVE_COMMAND_SWEEP_GROUPS:
        return SweepGroups(skb, command.count, state->now);
    case LIVE_COMMAND_SWEEP_SOURCES:
        return SweepSources(skb, command.count, state->now);
    default:
        return LIVE_BAD_COMMAND;
    }
}

// ---- Announcements ----

// Whether the frame's source is an address that the port has in this VLAN.
static __always_inline bool IsOfSender(const struct Frame *frame, uint32_t vlan)
{
    const struct LiveAddress *address = bpf_map_lookup_elem(&addresses, &frame->source);
    if (!address || frame->source.vlan != vlan) return false;
    const uint64_t owner = READ_WORD(address->owner);
    return SlotOf(owner) == frame->slot && IsCurrent(owner, frame->slot, frame->sender);
}

// By an uplink that user space has chosen as the data path would.
static __always_inline int AnnounceBy(struct UplinkChoice *choice, uint32_t slot, uint32_t uplink)
{
    struct Frame *frame = choice->frame;
    const struct LivePort *port = FindPort(slot);
    if (!port || !(READ_WORD(port->flags) & LIVE_PORT_UPLINK)) return LIVE_NOT_CARRIED;
    const enum Carriage carriage = CarriageAt(frame, port, slot);
    if (carriage == NOT_CARRIED || READ_WORD(port->flags) & LIVE_PORT_BLOCKED) return LIVE_NOT_CARRIED;
    if (!PassesFilter(frame, port, slot, VSWITCH_FILTER_TO_PORT)) return LIVE_NOT_CARRIED;
    if (SendCopy(frame, port, slot, carriage)) return LIVE_NOT_SENT;
    NoteUplink(choice, uplink, slot);
    return LIVE_DONE;
}

// Sends the frame as if the port had sent it to the network. User space has chosen the address, but it may be
// elsewhere since.
SEC("tc") int announce(struct __sk_buff *skb)
{
    const uint32_t vlan = skb->cb[LIVE_ANNOUNCED_VLAN], slot = skb->cb[LIVE_ANNOUNCED_UPLINK];
    const uint32_t uplink = skb->cb[LIVE_ANNOUNCED_PLACE] & (LIVE_UPLINKS - 1);
    struct Frame frame = {.skb = skb, .host = FindHost()};
    struct UplinkChoice choice = {.frame = &frame, .passed = skb->cb[LIVE_ANNOUNCED_PASSED]};
    if (!FindSenderAt(&frame, skb->cb[LIVE_ANNOUNCED_SLOT])) return LIVE_NOT_FOUND;
    if (vlan && READ_WORD(frame.sender->vlan) & LIVE_PORT_TRUNK)
        if (bpf_skb_vlan_push(skb, bpf_htons(ETH_P_8021Q), (uint16_t)vlan)) return LIVE_BAD_COMMAND;
    if (!ReadEthernetHeader(&frame)) return LIVE_BAD_COMMAND;
    if (frame.flags & LIVE_PORT_BLOCKED || !Classify(&frame) || !IsOfSender(&frame, vlan))
        return LIVE_NOT_FOUND;
    choice.left = READ_WORD(frame.sender->leftUplinks);
    return AnnounceBy(&choice, slot, uplink);
}
