/**
 * @file
 * The maps between the data path in the kernel and the process that configures it: C for the one, C++ for
 * the other.
 *
 * There are three ways to tell the data path something.
 *   Words      The 32-bit fields of LivePort, LiveSwitch and LiveHost. User space maps these arrays into
 *              its memory and stores a word whole; the next packet sees it.
 *   Snapshots  Everything longer. A snapshot holds all that a switch has, never changes, and is replaced
 *              by another one. The kernel waits until no packet is under way with the old one.
 *   Commands   Changes of the address table, which are the program's own work: it alone counts addresses.
 *
 * A pinned map outlives the process that made it, and the next process may be another version. A change of
 * the layout of a key or a value raises LIVE_LAYOUT_VERSION.
 */
#pragma once

#include <stdint.h>

#include "platform/include/vswitch_policy.h"

#ifdef __cplusplus
#define LIVE_ASSERT(condition) static_assert(condition, #condition)
#else
#define LIVE_ASSERT(condition) _Static_assert(condition, #condition)
#endif

#define LIVE_LAYOUT_VERSION 3u

#define LIVE_VLANS 4096u
#define LIVE_VLAN_MAX 4094u /* a larger access VLAN carries nothing */
#define LIVE_UPLINKS 32u    /* of one switch */

/** Bits of LivePort.flags. */
enum LivePortFlag {
    LIVE_PORT_UPLINK = 1,              /* leads to the physical network */
    LIVE_PORT_BLOCKED = 2,             /* nothing in, nothing out */
    LIVE_PORT_LEARNING = 4,            /* keeps several addresses; else the one last seen */
    LIVE_PORT_FORWARDS_OVER_LIMIT = 8, /* frames from addresses over the limit pass */
    LIVE_PORT_ALL_FRAMES = 16,         /* gets all frames of its VLANs, also those that are not for it */
    LIVE_PORT_ADDRESS_LOCK = 32,       /* may send from its first address alone */
    LIVE_PORT_STATIC_ONLY = 64,        /* may send from its static addresses alone */
    LIVE_PORT_FILTERED = 128,          /* its record has rules for EtherTypes */
    LIVE_PORT_MIRRORED = 256,          /* its record names mirror sessions */
    LIVE_PORT_GETS_COPIES = 512        /* of user space: it is a destination of a mirror session */
};

/*
 * LivePort.vlan is one word, so that no frame meets a port that is half in one VLAN and half in another. Its
 * identity says where the port is: its VLAN id, the primary VLAN under which its addresses are known (for a
 * VLAN that is not private the id again), and its role in that.
 */
#define LIVE_VLAN_ID_MASK 0xfffu
#define LIVE_PRIMARY_SHIFT 16
#define LIVE_ROLE_MASK 0x30000000u
#define LIVE_ROLE_OPEN 0u /* of a promiscuous port, and in a VLAN that is not private */
#define LIVE_ROLE_ISOLATED 0x10000000u
#define LIVE_ROLE_COMMUNITY 0x20000000u
#define LIVE_IDENTITY_MASK (LIVE_ROLE_MASK | LIVE_VLAN_ID_MASK << LIVE_PRIMARY_SHIFT | LIVE_VLAN_ID_MASK)
#define LIVE_PORT_PRIORITY_SHIFT 12
#define LIVE_PORT_PRIORITY_MASK 0xfu
#define LIVE_PORT_NO_PRIORITY 8u
#define LIVE_PORT_NESTED 0x40000000u /* the tags of the port's frames are payload */
#define LIVE_PORT_TRUNK 0x80000000u

static inline uint32_t LivePrimaryVlan(uint32_t identity)
{
    return identity >> LIVE_PRIMARY_SHIFT & LIVE_VLAN_ID_MASK;
}

/*
 * LivePort.networkUplink: 1 + the slot of the uplink by which the port gets what the network sends by every
 * uplink; 0: by all of them.
 */
#define LIVE_NETWORK_SLOT_MASK 0x3fffffffu
#define LIVE_NETWORK_ALL_MULTICAST 0x40000000u /* multicast by all uplinks even so */
#define LIVE_NETWORK_ALL_UNICAST 0x80000000u   /* unknown unicast, too */

/**
 * A port that has an interface. Its index in the array, the slot, is its name in the other maps and stays
 * the same while the data path has the port. The first cache line is what every packet to or from the port
 * reads.
 */
struct LivePort {
    /* Words, written by user space. */
    uint32_t ifindex;      /* 0: no interface is plugged */
    uint32_t flags;        /* LIVE_PORT_… */
    uint32_t vlan;         /* an identity and LIVE_PORT_… */
    uint32_t switchIndex;  /* of LiveSwitch */
    uint32_t position;     /* in the snapshot's records */
    uint32_t number;       /* the port's kernel number, unique on the host */
    uint32_t addressLimit; /* of learned addresses, with LIVE_PORT_LEARNING */
    uint32_t inUse;        /* of user space: 0: the slot is free */
    /* The epoch that the port's multicast groups must have; raised by user space, as the next one. */
    uint32_t groupEpoch;
    uint32_t networkUplink; /* by which the port gets the network's floods: LIVE_NETWORK_… */
    uint32_t reserved[5];
    /* The epoch that the port's learned addresses must have: raising it forgets them all at once. Raised
     * atomically, by either side. */
    uint32_t epoch;

    /* State, written by the data path. */
    uint64_t address;     /* without LIVE_PORT_LEARNING: the one last seen, LiveAddressWord() */
    uint32_t learned;     /* entries of the address table that name this slot, static ones left out */
    uint32_t uplinkSlot;  /* 1 + the uplink that the port last sent by; 0: none yet */
    uint32_t floodSecond; /* the second that floodCount counts in */
    uint32_t floodCount;
    uint64_t lockedAddress; /* with LIVE_PORT_ADDRESS_LOCK: the first one, LiveAddressWord() without VLAN */
    uint32_t leftUplinks;   /* bit i: the port went past uplink i of the snapshot, which didn't work */
    /* Entries of the tables of multicast groups and sources that name this slot, and of the former ones those
     * that are queriers. */
    uint32_t groups;
    uint32_t groupSources;
    uint32_t queriers;
    uint32_t allGroupsUntil; /* s: until then the port gets all groups, as it has no room for its own */
    uint32_t stateReserved;

    /* Of user space alone. */
    uint32_t toldUplinks; /* bit i: uplink i worked when the network was last told of the port's uplink */
    uint32_t userReserved;
};
LIVE_ASSERT(sizeof(struct LivePort) == 128 && __builtin_offsetof(struct LivePort, address) == 64);

/** A switch with plugged ports. Its index in the array is its name in the other maps. */
struct LiveSwitch {
    uint32_t inUse;
    uint32_t mtu; /* longer frames are dropped */
    uint32_t addressLimit;
    uint32_t ageingSeconds; /* 0: addresses don't age */
    uint32_t activeUplinks; /* bit i: uplink i of the snapshot is to be preferred */
    uint32_t learned;       /* written by the data path */
    uint32_t hasPrivateVlans;
    uint32_t hasAllFramesPorts; /* some port has LIVE_PORT_ALL_FRAMES */
    uint32_t learnsStatic;      /* what learning ports learn neither ages nor moves */
    uint32_t snooping;          /* multicast goes to the members of its group */
    uint32_t reserved[2];
    uint64_t announced;    /* frames that told the network of an address; counted by user space */
    uint64_t notAnnounced; /* those that no uplink took */
    char id[64];           /* for user space: which switch of the store this is */
};
LIVE_ASSERT(sizeof(struct LiveSwitch) == 128);

/** What holds for all switches. */
struct LiveHost {
    uint32_t learningEnabled; /* 0: no port learns */
    uint32_t addressLimit;    /* of learned addresses over all switches */
    uint32_t floodLimit;      /* multicast and broadcast frames from a port in a second; 0: no limit */
    uint32_t nsPerTick;       /* the kernel's tick, by which the data path measures time */
    uint32_t learned;         /* written by the data path */
    /* Of each of the tables of multicast groups and sources: what a port may have at most, what it has for
     * certain, and what all may have together beyond that. */
    uint32_t groupLimit;
    uint32_t groupShare;
    uint32_t sharedGroupLimit;
    /* Written by each command. */
    uint64_t now;   /* the data path's time in ns */
    uint64_t ticks; /* the same moment in ticks and in ns of another clock of the kernel's */
    uint64_t clockNs;
    uint32_t sharedGroups; /* written by the data path */
    uint32_t sharedSources;
    /* Until then user space looks after the words that depend on links, in ns of the data path's time. */
    uint64_t servedUntil;
    uint64_t lastUnlisted; /* when a port last sent from an address that is not in the table */
    uint64_t reservedClocks[6];
};
LIVE_ASSERT(sizeof(struct LiveHost) == 128);

/** Key of the address table. */
struct LiveAddressKey {
    uint32_t switchIndex;
    uint16_t vlan; /* 0: untagged */
    uint8_t mac[6];
};
LIVE_ASSERT(sizeof(struct LiveAddressKey) == 12);

/** Value of the address table. */
struct LiveAddress {
    /* The slot in the low half, the epoch in the high one. Compared and exchanged as a whole: the side that
     * exchanges it does the counting. */
    uint64_t owner;
    uint64_t lastSeen; /* ns, see LiveHost.now; 0: a static address that was never seen */
};
LIVE_ASSERT(sizeof(struct LiveAddress) == 16);

#define LIVE_EPOCH_MASK 0x7fffffffu
#define LIVE_EPOCH_STATIC 0xffffffffu         /* static addresses have no epoch */
#define LIVE_EPOCH_KEPT 0xfffffffdu           /* nor have those that were learned as static ones */
#define LIVE_OWNER_NONE 0xfffffffeffffffffull /* the entry is about to be deleted */

/** Value of LivePort.address: a MAC address in network order and its VLAN. */
static inline uint64_t LiveAddressWord(const struct LiveAddressKey *key)
{
    return (uint64_t)key->mac[0] << 40 | (uint64_t)key->mac[1] << 32 | (uint64_t)key->mac[2] << 24 |
           (uint64_t)key->mac[3] << 16 | (uint64_t)key->mac[4] << 8 | (uint64_t)key->mac[5] |
           (uint64_t)key->vlan << 48;
}

/** The same back again; the switch is not in it. */
static inline void LiveReadAddressWord(uint64_t word, struct LiveAddressKey *key)
{
    for (int i = 0; i < 6; i++)
        key->mac[i] = (uint8_t)(word >> (40 - 8 * i));
    key->vlan = (uint16_t)(word >> 48);
}

/** Key of the table of multicast groups. */
struct LiveGroupKey {
    uint32_t slot;     /* of the member, or LIVE_VLAN_ENTRY and the index of a switch */
    uint16_t vlan;     /* the primary one; 0: untagged */
    uint16_t family;   /* EtherType of IPv4 or IPv6 */
    uint8_t group[16]; /* an IPv4 address in its first 4 bytes; all 0: the port has a querier */
};
LIVE_ASSERT(sizeof(struct LiveGroupKey) == 24);

#define LIVE_VLAN_ENTRY 0x80000000u /* what queriers say of a VLAN's times */

/**
 * Value of the table of multicast groups. Until `until` the port wants all sources but those whose time is
 * over, then only those whose time is not. All times are in ns, see LiveHost.now.
 */
struct LiveGroup {
    uint32_t owner;        /* the slot as whose entry it counts */
    uint32_t epoch;        /* LivePort.groupEpoch */
    uint64_t until;        /* a querier, and a VLAN's times: known so long */
    uint64_t sourcesUntil; /* no source is wanted longer */
    /* Sources that have a mark from `serial` on are the group's; until `formerUntil` also those that have one
     * from `formerSerial` on. */
    uint64_t serial;
    uint64_t formerSerial;
    uint64_t formerUntil;
    uint64_t olderUntil;   /* hosts that know of no sources are there */
    uint64_t oldestUntil;  /* hosts that don't say that they leave are there */
    uint64_t membershipNs; /* a VLAN's times: how long a report holds */
    uint64_t lastMemberNs; /* how long a membership holds after a host has left */
    uint32_t joins;
    uint32_t leaves;
    uint32_t queries; /* in the VLAN; of a member: when it joined */
    uint32_t isQuerier;
    uint32_t hasSources;
    uint32_t reserved;
};
LIVE_ASSERT(sizeof(struct LiveGroup) == 104);

/** Key of the table of sources. */
struct LiveSourceKey {
    struct LiveGroupKey group;
    uint8_t source[16]; /* an IPv4 address in its first 4 bytes */
};
LIVE_ASSERT(sizeof(struct LiveSourceKey) == 40);

/** Value of the table of sources. */
struct LiveSource {
    uint64_t until; /* ns: the port wants it */
    uint64_t mark;  /* see LiveGroup.serial */
    uint32_t epoch; /* LivePort.groupEpoch */
    uint32_t reserved;
};
LIVE_ASSERT(sizeof(struct LiveSource) == 24);

/* A port without learning may have its one address in each of its VLANs. */
#define LIVE_SINGLE_ADDRESS_LIMIT LIVE_VLANS

/** A daemon that has not been heard of for so long doesn't follow links. */
#define LIVE_SERVED_NS 1000000000ull

/** A frame from the network is one of ours that came back if its source was here so recently. */
#define LIVE_REFLECTION_NS 1000000000ull

/** Rows of a port's counters. The first 16 are the port statistics. */
enum LiveCounter {
    LIVE_FROM_PACKETS, /* what the port sent, dropped frames included */
    LIVE_FROM_BYTES,   /* with the tag where there is one */
    LIVE_TO_PACKETS,
    LIVE_TO_BYTES,
    LIVE_FROM_MULTICAST,
    LIVE_FROM_BROADCAST,
    LIVE_TO_MULTICAST,
    LIVE_TO_BROADCAST,
    LIVE_DROP_BLOCKED,        /* from a blocked port, or to one whose address it is */
    LIVE_DROP_VLAN,           /* of a VLAN that the port doesn't carry */
    LIVE_DROP_SECURITY,       /* from an address that the port may not have */
    LIVE_DROP_LEARNING_LIMIT, /* from an address over the limit */
    LIVE_DROP_FILTER,         /* malformed, with a source that is not an address, come back, or by a rule */
    LIVE_DROP_LENGTH,         /* longer than the MTU */
    LIVE_DROP_FLOOD_LIMIT,
    LIVE_DROP_NOT_SENT, /* no uplink took it, or the port's interface refused it */
    LIVE_LEARNED,
    LIVE_MOVED, /* learned addresses that another port had */
    LIVE_AGED,
    LIVE_REFUSED,        /* addresses not learned for a limit */
    LIVE_REFLECTED,      /* of LIVE_DROP_FILTER, those that came back */
    LIVE_FAILOVERS,      /* at an uplink: ports that came to it because they lost theirs */
    LIVE_FAILBACKS,      /* at an uplink: ports that came back to it */
    LIVE_GROUPS_REFUSED, /* multicast groups, sources and queriers not kept for a limit */
    LIVE_COUNTERS
};

struct LiveCounters {
    uint64_t values[LIVE_COUNTERS];
};
LIVE_ASSERT(sizeof(struct LiveCounters) == 192 && LIVE_DROP_NOT_SENT == 15);

/**
 * A snapshot is an array of elements of one size: the header, then the ports' records by their positions,
 * then other sections. The header says where these are, so that further sections need no new layout.
 */
#define LIVE_ELEMENT_SIZE 768u
#define LIVE_FIRST_RECORD 1u

/** `count` entries of a list from element `first` on. */
struct LiveSection {
    uint32_t first;
    uint32_t count;
};

struct LiveSnapshotHeader {
    struct LiveSection flood;        /* LiveSlots: every port but the uplinks */
    struct LiveSection unknown;      /* LiveSlots: those of them that get unknown unicast */
    struct LiveSection allFrames;    /* LiveSlots: those of them that get all frames */
    struct LiveSection teams;        /* LiveTeam */
    struct LiveSection privateVlans; /* LiveIdentities of all VLANs, or nothing */
    struct LiveSection mirrors;      /* LiveMirror: whole copies first, then the longest cut first */
    struct LiveSection reserved[2];
    uint32_t uplinkCount;
    uint32_t headerReserved[15];
    uint32_t uplinkSlots[LIVE_UPLINKS];
    uint8_t rest[512];
};
LIVE_ASSERT(sizeof(struct LiveSnapshotHeader) == LIVE_ELEMENT_SIZE);

#define LIVE_FILTER_PLACES 64u
#define LIVE_FILTER_SHIFT 26

/**
 * The rules of an Ethernet filter, so that one look tells what becomes of a frame. Directions are
 * VSWITCH_FILTER_FROM_PORT and VSWITCH_FILTER_TO_PORT as bits.
 */
struct LiveFilter {
    uint64_t dropsFrom;  /* bit i: frames of the type at place i that the port sends are dropped */
    uint64_t dropsTo;    /* the same for those that it gets */
    uint32_t multiplier; /* gives each type that a rule names a place of its own */
    uint32_t others;     /* directions in which all other types are dropped */
    uint16_t types[LIVE_FILTER_PLACES]; /* 0 where there is none: its bits are those of `others` */
};

static inline uint32_t LiveFilterPlace(uint32_t multiplier, uint16_t etherType)
{
    return etherType * multiplier >> LIVE_FILTER_SHIFT;
}

/** What a port has besides its words. */
struct LivePortRecord {
    uint32_t slot; /* the record is of this port, or of none */
    uint32_t team; /* 1 + its place in the section of teams; 0: all uplinks by the port's number */
    uint32_t recordReserved[8];
    /* Bits of mirror sessions, by LiveMirror.place. */
    uint64_t mirrorsFrom;            /* copy what the port sends */
    uint64_t mirrorsTo;              /* copy what it gets */
    uint64_t mirrorsOwn;             /* those of mirrorsTo that have the port as a destination too */
    uint64_t vlans[LIVE_VLANS / 64]; /* of a trunk: bit v of word v / 64 for VLAN v; bit 0: untagged */
    struct LiveFilter filter;
    uint8_t rest[40];
};
LIVE_ASSERT(sizeof(struct LivePortRecord) == LIVE_ELEMENT_SIZE);

/** An element of a list of ports. */
#define LIVE_SLOTS 128u
#define LIVE_SLOTS_SHIFT 7

struct LiveSlots {
    uint32_t slots[LIVE_SLOTS];
    uint8_t rest[256];
};
LIVE_ASSERT(sizeof(struct LiveSlots) == LIVE_ELEMENT_SIZE);

/** How a port finds its uplink. */
struct LiveTeam {
    uint8_t algorithm; /* VSwitchTeamingAlgorithm */
    uint8_t failBack;
    uint8_t anyUplink; /* when none of the team works, any other uplink of the switch may */
    uint8_t activeCount;
    uint8_t count; /* of active and standby uplinks together */
    uint8_t teamReserved[3];
    uint32_t members;              /* bits of `uplinks` */
    uint8_t uplinks[LIVE_UPLINKS]; /* active ones, then standby ones: places in uplinkSlots */
    uint32_t moreReserved;
};
LIVE_ASSERT(sizeof(struct LiveTeam) == 48);

#define LIVE_TEAMS 16u /* in an element */

struct LiveTeams {
    struct LiveTeam teams[LIVE_TEAMS];
};
LIVE_ASSERT(sizeof(struct LiveTeams) == LIVE_ELEMENT_SIZE);

#define LIVE_MIRRORS 32u /* sessions of a switch */
#define LIVE_MIRROR_PLACES                                                                                   \
    64u /* twice as many: a session that comes never takes the place of one that goes */
#define LIVE_MIRROR_DESTINATIONS 32u /* of a session */
#define LIVE_MIRROR_SHORTEST 18u     /* copies aren't cut within an Ethernet header with a tag */

/**
 * A mirror session. It keeps its place and its slot in the maps `mirrors` and `mirror_counters` for as long
 * as it exists, so that a frame that meets two snapshots means the same session in both.
 */
struct LiveMirror {
    uint32_t slot;
    uint32_t place;
    uint32_t snapLength; /* bytes of a copy without tags that are put around it; 0: all */
    uint32_t sampling;   /* every n-th frame is copied; not 0 */
    uint16_t outerVlan;  /* 0: no tag around that of the frame */
    uint8_t stripsTag;
    uint8_t count;                            /* of destinations */
    uint32_t ownDestinations;                 /* bit i: what destination i gets is copied, too */
    uint32_t slots[LIVE_MIRROR_DESTINATIONS]; /* of ports; UINT32_MAX: it has no interface */
    uint32_t mirrorReserved[10];
};
LIVE_ASSERT(sizeof(struct LiveMirror) == 192);

#define LIVE_MIRRORS_IN_ELEMENT 4u

struct LiveMirrors {
    struct LiveMirror mirrors[LIVE_MIRRORS_IN_ELEMENT];
};
LIVE_ASSERT(sizeof(struct LiveMirrors) == LIVE_ELEMENT_SIZE);

/** Which session has a slot. */
struct LiveMirrorSlot {
    uint32_t inUse;
    uint32_t switchIndex;
    uint32_t place;
    uint32_t isEnabled;
    char id[32];
    uint64_t seen; /* written by the data path: frames of which every n-th is copied */
    uint64_t slotReserved;
};
LIVE_ASSERT(sizeof(struct LiveMirrorSlot) == 64);

/** What a session has done. */
enum LiveMirrorCounter {
    LIVE_MIRROR_FROM_PACKETS, /* from source ports, whether they were copied or not */
    LIVE_MIRROR_FROM_BYTES,
    LIVE_MIRROR_TO_PACKETS, /* to source ports */
    LIVE_MIRROR_TO_BYTES,
    LIVE_MIRROR_SENT_PACKETS, /* copies that destinations took */
    LIVE_MIRROR_SENT_BYTES,
    LIVE_MIRROR_DROPPED_PACKETS, /* copies that a destination refused, and frames that could not be cut */
    LIVE_MIRROR_DROPPED_BYTES,
    LIVE_MIRROR_TRUNCATED,   /* frames of which copies were cut */
    LIVE_MIRROR_NOT_TAGGED,  /* frames that could not be given the tags of a copy */
    LIVE_MIRROR_UNREACHABLE, /* copies whose destination has no interface */
    LIVE_MIRROR_COUNTERS
};

struct LiveMirrorCounters {
    uint64_t values[LIVE_MIRROR_COUNTERS];
    uint64_t countersReserved[5];
};
LIVE_ASSERT(sizeof(struct LiveMirrorCounters) == 128);

/** Mixes a word into a hash, by which flows are spread. */
static inline uint32_t LiveMix(uint32_t hash, uint32_t word)
{
    hash ^= word;
    hash = (hash ^ hash >> 16) * 0x85ebca6bu;
    hash = (hash ^ hash >> 13) * 0xc2b2ae35u;
    return hash ^ hash >> 16;
}

/** The identities of some VLANs, for frames that come with their tag. */
#define LIVE_IDENTITIES 128u

struct LiveIdentities {
    uint32_t identities[LIVE_IDENTITIES];
    uint8_t rest[256];
};
LIVE_ASSERT(sizeof(struct LiveIdentities) == LIVE_ELEMENT_SIZE);

/** What the second program does with the tables; it answers a LiveResult. */
enum LiveCommandKind {
    LIVE_COMMAND_SWEEP, /* removes those of the keys that are too old, or that their port has forgotten */
    LIVE_COMMAND_ADD_STATIC,     /* makes the key a static address of `slot` */
    LIVE_COMMAND_REMOVE_ADDRESS, /* removes the key if it belongs to `slot` */
    LIVE_COMMAND_READ_CLOCKS,    /* nothing but what each command does: it writes LiveHost.now */
    LIVE_COMMAND_SWEEP_GROUPS,   /* removes those of the LiveGroupKeys that are over */
    LIVE_COMMAND_SWEEP_SOURCES   /* removes those of the LiveSourceKeys that are over */
};

/** The program gets it as a packet, behind an Ethernet header of zeros; `count` keys follow. */
struct LiveCommand {
    uint32_t kind;
    uint32_t slot;
    uint32_t count;
    uint32_t reserved;
};
LIVE_ASSERT(sizeof(struct LiveCommand) == 16);

#define LIVE_COMMAND_OFFSET 14u
#define LIVE_COMMAND_KEYS_OFFSET (LIVE_COMMAND_OFFSET + 16u)
/* Keys at most, so that packets don't wait for a command, and that it fits into a test run. */
#define LIVE_COMMAND_KEYS 128u
#define LIVE_COMMAND_SOURCES 80u

/* The third program sends a frame by an uplink of a port's choice, to tell the network of an address. It
 * answers a LiveResult: LIVE_NOT_FOUND, the port doesn't have the address; LIVE_NOT_CARRIED, frames of the
 * port don't leave by this uplink; LIVE_NOT_SENT, the uplink doesn't take it. Words of the frame's control
 * block: */
enum LiveAnnouncement {
    LIVE_ANNOUNCED_SLOT,   /* of the port */
    LIVE_ANNOUNCED_VLAN,   /* under which the address is known */
    LIVE_ANNOUNCED_UPLINK, /* the uplink's slot */
    LIVE_ANNOUNCED_PLACE,  /* its place in the snapshot */
    LIVE_ANNOUNCED_PASSED  /* bits of those that the port would have preferred, and that don't work */
};

enum LiveResult { LIVE_DONE, LIVE_NOT_FOUND, LIVE_FULL, LIVE_BAD_COMMAND, LIVE_NOT_CARRIED, LIVE_NOT_SENT };
