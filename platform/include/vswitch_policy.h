/*
 * The policy records that the library stores as bytes, as hosts of ours read them: what a live host enforces
 * for packets and what an emulated host reports. vswitchctl.h has the records whose fields the library itself
 * names (VLANs, MAC learning).
 *
 * Each record is packed, in the host's byte order, and its size is asserted at the end of this file. A text
 * ends in a NUL. Reserved bytes are zero. A record is kept and not enforced if it begins with a version other
 * than the one given here, or has another length, a count that its array doesn't hold, or a value that the
 * comments don't list.
 */
#ifndef VSWITCH_POLICY_H
#define VSWITCH_POLICY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VSWITCH_POLICY_PACKED __attribute__((packed))

/* ---- Private VLANs: "com.talpex.vswitch.pvlanMap" is an array of entries ---- */

/** What a port may reach whose VLAN id is an entry's secondary VLAN. */
enum VSwitchPvlanType {
    VSWITCH_PVLAN_PROMISCUOUS = 0, /**< every port of the primary VLAN; its secondary is the primary itself */
    VSWITCH_PVLAN_ISOLATED = 1,    /**< promiscuous ports alone */
    VSWITCH_PVLAN_COMMUNITY = 2    /**< promiscuous ports and ports of the same secondary VLAN */
};

/**
 * One role in a private VLAN. A port has the role whose secondary VLAN is the port's VLAN id. Addresses are
 * learned under the primary VLAN, and frames leave by uplinks with the VLAN id of the sender. Of several
 * entries with one secondary VLAN the first holds.
 */
typedef struct VSWITCH_POLICY_PACKED VSwitchPvlanEntry {
    uint16_t primary;   /**< 1 to 4094 */
    uint16_t secondary; /**< 1 to 4094 */
    uint8_t type;       /**< VSWITCH_PVLAN_… */
    uint8_t reserved[3];
} VSwitchPvlanEntry;

/* ---- Security: "com.talpex.vswitch.port.security" is a word of these bits; absent, it is the first one ----
 */

/** The port gets frames to its own addresses, multicast and broadcast; without it all frames of its VLANs. */
#define VSWITCH_SECURITY_ADDRESSED_ONLY 1u
/** Frames from another source than the first one that the port has used are dropped. Wins over learning. */
#define VSWITCH_SECURITY_ADDRESS_LOCK 2u
/** Frames from sources that are not static addresses of the port are dropped. */
#define VSWITCH_SECURITY_STATIC_ONLY 4u

/* ---- Ethernet filter: "com.talpex.vswitch.port.extraEthFRP" ---- */

#define VSWITCH_FILTER_SINK 0x00010000u /**< the port gets unicast to unknown addresses of its VLANs */
#define VSWITCH_FILTER_RULES 24

enum VSwitchFilterDirection {
    VSWITCH_FILTER_BOTH = 0,
    VSWITCH_FILTER_FROM_PORT = 1, /**< frames that the port sends */
    VSWITCH_FILTER_TO_PORT = 2    /**< frames that the port gets */
};

enum VSwitchFilterAction { VSWITCH_FILTER_PASS = 0, VSWITCH_FILTER_DROP = 1 };

/** The first rule that matches a frame decides; a frame that no rule matches passes. */
typedef struct VSWITCH_POLICY_PACKED VSwitchFilterRule {
    uint16_t etherType; /**< behind all tags; 0: any */
    uint8_t direction;  /**< VSWITCH_FILTER_BOTH, … */
    uint8_t action;     /**< VSWITCH_FILTER_PASS, … */
    uint32_t reserved;
} VSwitchFilterRule;

/** The sink bit has its effect whatever the rules are. */
typedef struct VSWITCH_POLICY_PACKED VSwitchFilter {
    uint32_t flags;     /**< VSWITCH_FILTER_SINK; the other bits are kept and have no effect */
    uint32_t ruleCount; /**< 0 to VSWITCH_FILTER_RULES */
    VSwitchFilterRule rules[VSWITCH_FILTER_RULES];
} VSwitchFilter;

/* ---- Mirror sessions: what vswitchctl.h calls a session's settings and a port entry ---- */

#define VSWITCH_MIRROR_VERSION 1u

/**
 * A session copies frames that its source ports send (entries A) or get (entries B) to its destinations
 * (entries C). Policies of a destination, other than its block, don't concern a copy, which is neither
 * learned from nor copied again. Where the original is offloaded, its copy may be longer than the MTU. Of
 * sessions of a switch with the same id the first one holds, the host's list before those of ports.
 */
typedef struct VSWITCH_POLICY_PACKED VSwitchMirrorSettings {
    uint32_t version;    /**< VSWITCH_MIRROR_VERSION */
    uint8_t enabled;     /**< 1; 0: the session copies nothing */
    uint8_t stripTag;    /**< 1: copies have no tag; 0: they have the tag of their VLAN */
    uint16_t outerVlan;  /**< 1 to 4094: copies get this tag around theirs; 0: none */
    uint32_t snapLength; /**< bytes of a copy without the tags around it; 0: all of it, else at least 18 */
    uint32_t sampling;   /**< every n-th frame is copied; 0 and 1: every one */
    uint8_t reserved[168];
} VSwitchMirrorSettings;

typedef struct VSWITCH_POLICY_PACKED VSwitchMirrorPort {
    char dvPortId[48];
    uint32_t number; /**< not looked at where dvPortId is not empty; else the port's kernel number */
} VSwitchMirrorPort;

/* ---- Teaming: "com.talpex.vswitch.teaming", "com.talpex.vswitch.port.teaming.policy" ---- */

#define VSWITCH_TEAMING_VERSION 1u
#define VSWITCH_TEAMING_UPLINKS 32

/** How a port finds its uplink among the active ones. */
enum VSwitchTeamingAlgorithm {
    VSWITCH_TEAMING_PORT = 0,       /**< by the port's number */
    VSWITCH_TEAMING_SOURCE_MAC = 1, /**< by a hash of the frame's source address */
    VSWITCH_TEAMING_IP = 2,         /**< by a hash of both IP addresses; other frames as SOURCE_MAC */
    VSWITCH_TEAMING_L4 = 3,         /**< of TCP and UDP by addresses and ports; other frames as IP */
    VSWITCH_TEAMING_ORDER = 4       /**< the first active uplink that works */
};

/**
 * Active uplinks are used while at least one of them works, then the standby uplinks in their order. Uplinks
 * that the policy doesn't name are not used by it.
 */
typedef struct VSWITCH_POLICY_PACKED VSwitchTeamingPolicy {
    uint32_t version;   /**< VSWITCH_TEAMING_VERSION */
    uint32_t algorithm; /**< VSWITCH_TEAMING_PORT, … */
    uint32_t failBack; /**< 1: traffic returns to an uplink that works again; 0: when the present one fails */
    uint32_t notify;   /**< 1: after a change of uplink the network is told by RARP frames */
    uint32_t activeCount;                      /**< names from the first on */
    uint32_t standbyCount;                     /**< names behind the active ones; both together at most 32 */
    char uplinks[VSWITCH_TEAMING_UPLINKS][81]; /**< uplink port ids of the switch */
} VSwitchTeamingPolicy;

/** An entry of "com.talpex.vswitch.logicalswitch.teaming"; ports name it. A longer name matches nothing. */
typedef struct VSWITCH_POLICY_PACKED VSwitchNamedTeaming {
    char name[132];
    VSwitchTeamingPolicy policy;
} VSwitchNamedTeaming;

#ifdef __cplusplus
}
#define VSWITCH_POLICY_ASSERT_SIZE(type, size) static_assert(sizeof(type) == (size), #type)
#else
#define VSWITCH_POLICY_ASSERT_SIZE(type, size) typedef char type##Size[sizeof(type) == (size) ? 1 : -1]
#endif

VSWITCH_POLICY_ASSERT_SIZE(VSwitchPvlanEntry, 8);
VSWITCH_POLICY_ASSERT_SIZE(VSwitchFilterRule, 8);
VSWITCH_POLICY_ASSERT_SIZE(VSwitchFilter, 200);
VSWITCH_POLICY_ASSERT_SIZE(VSwitchMirrorSettings, 184);
VSWITCH_POLICY_ASSERT_SIZE(VSwitchMirrorPort, 52);
VSWITCH_POLICY_ASSERT_SIZE(VSwitchTeamingPolicy, 2616);
VSWITCH_POLICY_ASSERT_SIZE(VSwitchNamedTeaming, 2748);

#undef VSWITCH_POLICY_ASSERT_SIZE
#endif
