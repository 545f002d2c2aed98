/*
 * The records of the embedded host's switch driver: what its commands take and what they answer.
 *
 * Each record is packed, in the host's byte order, and its size is asserted at the end of this file. A name
 * ends in a NUL; only a session id may fill its whole field without one. Reserved bytes are zero.
 *
 * A command is one ioctl on the driver's device, with the command's number and the address of a
 * VSwitchRequest. The driver reads `inLength` bytes at `input` and writes at most `outLength` bytes at
 * `output`; it cuts a longer answer there. A list begins with a header that holds the number of all its
 * entries, however many fit. As many whole entries follow as fit.
 *
 * A request that is refused changes and writes nothing. The errno says why:
 *   EFAULT   an address cannot be read or written
 *   EINVAL   an inLength that the command doesn't accept, a name without a NUL, a value out of range
 *   ENOENT   no such portset or switch, multicast group, mirror session, MAC entry or option
 *   ENODEV   no such uplink on that portset (or on the host), or no such port
 *   ENOSPC   a table is full, or the data path of a live host
 *   EBUSY    the daemon of a live host, which must follow a change, has not answered for 5 seconds
 *   ENOTTY   no such command
 *   EIO      the host's database can't be read or written
 */
#ifndef VSWITCH_DRIVER_H
#define VSWITCH_DRIVER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VSWITCH_DRIVER_PACKED __attribute__((packed))

/** The driver's devices. The second accepts any command number, see VSwitchRtmRecord. */
#define VSWITCH_DRIVER_DEVICE "/dev/vswitch"
#define VSWITCH_DRIVER_RTM_DEVICE "/krem/devices/char/zordriver/rtm"

/**
 * Command numbers. Each comment lists the fields of VSwitchInput that the command reads and, after the arrow,
 * its answer. Four commands take another input, which the comment names. Commands from 8193 on have no
 * answer.
 */
enum VSwitchCommand {
    VSWITCH_GET_RARP_STATS = 4097,            /**< portset -> VSwitchRarpStats */
    VSWITCH_GET_SERVICE_TEAMING_STATS = 4098, /**< portset -> VSwitchTeamingStats */
    VSWITCH_GET_OPTIONS = 4099,               /**< u16 ids, or no input for all -> VSwitchOptions */
    VSWITCH_GET_PROMISCUOUS_PORTS = 4100,     /**< portset -> list of u32 port numbers */
    VSWITCH_GET_MIRROR_SESSIONS = 4101,       /**< portset -> list of char[32] session ids */
    VSWITCH_GET_MIRROR_STATS = 4102,          /**< portset, sessionId -> VSwitchMirrorStats */
    VSWITCH_GET_MCAST_MODE = 4103,            /**< portset -> u32: 0 legacy filtering, 1 snooping */
    VSWITCH_GET_MCAST_GROUPS = 4104,          /**< portset, mcast -> list of group addresses */
    VSWITCH_GET_MCAST_STATS = 4105,           /**< portset, mcast -> VSwitchMcastStats, source addresses */
    VSWITCH_GET_UPLINKS = 4106,               /**< portset -> list of VSwitchUplink */
    VSWITCH_GET_UPLINK_LINK = 4107,           /**< portset, uplink -> u32: 1 when the link is up */
    VSWITCH_GET_UPLINK_LACP = 4108,           /**< portset, uplink -> u32: 1 in a LAG, with its link up */
    VSWITCH_GET_LAGS = 4109,                  /**< portset -> VSwitchLagTable */
    VSWITCH_GET_INFO = 4111,                  /**< portset -> VSwitchInfo */
    VSWITCH_GET_PORT_MACS = 4117,             /**< switchId, dvPortId, mac.type -> list of VSwitchMacEntry */
    VSWITCH_GET_TEAM_MACS = 4118,             /**< portset, mac.type -> list of VSwitchMacEntry */
    VSWITCH_GET_PORT_LEARNING_STATS = 4119,   /**< switchId, dvPortId -> VSwitchPortLearningStats */
    VSWITCH_GET_LEARNING_PROPS = 4120,        /**< no field -> VSwitchLearningProps */
    VSWITCH_GET_LEARNING_INFO = 4121,         /**< portset -> VSwitchLearningInfo */
    VSWITCH_GET_UPLINK_HINT = 4122,           /**< portId -> char[32]: the uplink that the port sends on */
    VSWITCH_GET_UPLINK_PORT = 4123,           /**< uplink -> char[48]: dvPortId, empty when it is free */
    VSWITCH_GET_PORT_LS_POLICY = 4124,        /**< portId -> char[136]: the logical switch's policy
                                                   that the port follows, empty for another one */
    VSWITCH_GET_LS_POLICIES = 4125,           /**< portset -> u32 count, entries of 2748 bytes as stored */
    VSWITCH_GET_SWITCHES = 4126,              /**< u32 kind -> list, see VSWITCH_LIST_PORTSETS */
    VSWITCH_GET_PORT_STATISTICS = 4127,       /**< switchId, dvPortId -> VSwitchPortStatistics */
    VSWITCH_SET_OPTIONS = 8193,               /**< VSwitchOptions; inLength is its length */
    VSWITCH_SET_UPLINK_ADMIN = 8194,          /**< portset, uplink with adminUp */
    VSWITCH_SET_PORT_MAC = 8195,              /**< switchId, dvPortId, mac: adds or replaces it */
    VSWITCH_CLEAR_PORT_MAC = 8196,            /**< switchId, dvPortId, mac: address and vlanId only; on a live
                                                   host it removes learned addresses too */
    VSWITCH_SET_LEARNING_PROPS = 8197,        /**< learning */
    VSWITCH_REFRESH_NUMA = 8198               /**< portset: reads its uplinks' NUMA nodes again */
};

/** Header of a request. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchRequest {
    uint32_t inLength;
    uint32_t outLength;
    uint64_t input;
    uint64_t output;
} VSwitchRequest;

/** One entry of a MAC table. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchMacEntry {
    uint8_t address[6];
    uint8_t type;    /**< VSWITCH_MAC_…; in a request for a table it selects the entries */
    uint8_t flags;   /**< reserved; the driver keeps what is set */
    uint16_t vlanId; /**< 0: untagged; at most 4094 */
    uint32_t age;    /**< seconds since the address was last seen; 0 for a static one */
    uint32_t portId; /**< kernel number of the port; filled by the driver */
} VSwitchMacEntry;

#define VSWITCH_MAC_ANY 0     /**< in a request: entries of every type; to set an entry: static */
#define VSWITCH_MAC_STATIC 1  /**< set by a command */
#define VSWITCH_MAC_LEARNED 2 /**< seen on the port; on a live host no command sets such an entry */

/** Properties of MAC learning, of all switches of the host together. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchLearningProps {
    uint8_t enabled;
    uint32_t agingSeconds;
    uint32_t limit; /**< addresses of all ports together */
} VSwitchLearningProps;

/** Selects multicast groups: by their VLAN and by their kind of address. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchMcastSelector {
    uint32_t vlanId;      /**< 0: every VLAN */
    uint32_t addressKind; /**< VSWITCH_ADDRESS_…; another kind has no groups */
    uint8_t group[16];    /**< VSWITCH_GET_MCAST_STATS only: the address, in its first 4, 6 or 16 bytes */
} VSwitchMcastSelector;

#define VSWITCH_ADDRESS_ETHERNET 0 /**< 6 bytes */
#define VSWITCH_ADDRESS_IPV4 2     /**< 4 bytes, network order */
#define VSWITCH_ADDRESS_IPV6 3     /**< 16 bytes */

/** One uplink. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchUplinkArgument {
    char name[32];    /**< name of the physical NIC */
    uint32_t adminUp; /**< VSWITCH_SET_UPLINK_ADMIN only: 1 up, 0 down */
} VSwitchUplinkArgument;

/** Input of every command whose comment names no other input. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchInput {
    union {
        char portset[128];
        char switchId[64];
    } name;
    union {
        char dvPortId[48];
        uint32_t portId; /**< kernel number */
    } port;
    union {
        VSwitchUplinkArgument uplink;
        VSwitchMcastSelector mcast;
        VSwitchMacEntry mac;
        VSwitchLearningProps learning;
        char sessionId[32];
    } args;
} VSwitchInput;

/** Header of a list; the entries follow. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchListHeader {
    uint32_t count;
    uint32_t aux; /**< of VSWITCH_GET_SWITCHES the kind, of VSWITCH_GET_MCAST_GROUPS the kind of address,
                       of all others 0 */
} VSwitchListHeader;

#define VSWITCH_LIST_PORTSETS                                                                                \
    1u /**< kind 1: names of the portsets, char[128]. Any other kind: aliases of their switches,             \
            char[81]; the portset's name when no switch of the store names it */

/** VSWITCH_GET_INFO. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchInfo {
    char portset[128];
    char switchId[64];  /**< empty when no switch of the store names this portset */
    uint32_t ports;     /**< capacity of the portset */
    uint32_t usedPorts; /**< ports of the switch */
    uint32_t mtu;       /**< bytes */
    uint16_t uplinks;   /**< physical NICs bound to the switch */
    uint16_t flags;     /**< VSWITCH_INFO_… */
} VSwitchInfo;

#define VSWITCH_INFO_ASSOCIATED 1u   /**< the switch is associated with this host */
#define VSWITCH_INFO_SNOOPING 2u     /**< multicast mode is snooping */
#define VSWITCH_INFO_MIRRORING 4u    /**< the switch has mirror sessions */
#define VSWITCH_INFO_MAC_LEARNING 8u /**< at least one port learns addresses */

/** Entry of VSWITCH_GET_UPLINKS. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchUplink {
    char name[32];  /**< name of the physical NIC */
    uint32_t flags; /**< VSWITCH_UPLINK_… */
} VSwitchUplink;

#define VSWITCH_UPLINK_LINK_UP 1u     /**< has a carrier and is administratively up */
#define VSWITCH_UPLINK_ADMIN_UP 2u    /**< administratively up */
#define VSWITCH_UPLINK_FULL_DUPLEX 4u /**< full duplex */
#define VSWITCH_UPLINK_IN_LAG 8u      /**< member of a LAG, or a LAG itself */

/** One link aggregation group. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchLag {
    char name[32];
    uint8_t mode;        /**< LACP: 0 passive, 1 active */
    uint8_t fastTimeout; /**< LACP: 1 short, 0 long */
    uint8_t
        loadBalance; /**< number of the hash algorithm: a scenario's, or the kernel's (xmit_hash_policy) */
    uint8_t linkUp;  /**< 1 when at least one member has a link */
    uint32_t memberCount; /**< 0 to 16 */
    uint32_t linkMask;    /**< bit i: member i has a link */
    char members[16][32]; /**< names of physical NICs */
} VSwitchLag;

/** VSWITCH_GET_LAGS: always 64 entries; those from `count` on are zero. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchLagTable {
    uint32_t count;
    VSwitchLag lags[64];
} VSwitchLagTable;

/**
 * VSWITCH_GET_PORT_LEARNING_STATS. Entries and limit are the port's own; the counters are the data path's on
 * a live host and come from a scenario on an emulated one.
 */
typedef struct VSWITCH_DRIVER_PACKED VSwitchPortLearningStats {
    uint32_t entries; /**< addresses in the port's table, static ones included */
    uint32_t limit;   /**< from the port's MAC learning policy, 4096 by default */
    uint32_t learned; /**< addresses learned in total */
    uint32_t moved;   /**< addresses that moved here from another port */
    uint32_t aged;    /**< addresses removed because of their age */
    uint32_t refused; /**< addresses refused because of the limit */
    uint32_t dropped; /**< packets dropped with refused addresses */
} VSwitchPortLearningStats;

/**
 * VSWITCH_GET_PORT_STATISTICS, and the value of a port's property "com.talpex.common.port.statistics". On a
 * live host they count the frames of the port's interface since it was plugged; both answers are then the
 * same. On an emulated host they are the bytes of that property, zero at first.
 */
typedef struct VSWITCH_DRIVER_PACKED VSwitchPortStatistics {
    uint64_t fromPackets; /**< frames that the port sent, the dropped ones included */
    uint64_t fromBytes;   /**< of these, tags included */
    uint64_t toPackets;   /**< frames that the port got */
    uint64_t toBytes;
    uint64_t fromMulticast;  /**< of `fromPackets` */
    uint64_t fromBroadcast;  /**< of `fromPackets` */
    uint64_t toMulticast;    /**< of `toPackets` */
    uint64_t toBroadcast;    /**< of `toPackets` */
    uint64_t droppedBlocked; /**< from a blocked port, or to one at which its address is */
    uint64_t droppedVlan;    /**< of a VLAN that the port doesn't carry */
    uint64_t droppedSecurity;
    uint64_t droppedLearningLimit; /**< from an address over the limit */
    uint64_t droppedFilter;        /**< malformed, from an address that no station has, or come back */
    uint64_t droppedLength;        /**< longer than the MTU */
    uint64_t droppedFloodLimit;    /**< multicast and broadcast over VSWITCH_OPTION_FLOOD_LIMIT */
    uint64_t droppedNotSent;       /**< no uplink took it, or the interface of the port refused it */
} VSwitchPortStatistics;

/** VSWITCH_GET_LEARNING_INFO. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchLearningInfo {
    uint32_t agingSeconds;   /**< from the switch's MAC learning policy, 600 by default */
    uint32_t limit;          /**< from that policy, 65536 by default */
    uint8_t policyByte;      /**< from that policy; kept, without an effect */
    uint8_t learnStatic;     /**< 1: on a live host an address that a learning port learns becomes static: it
                                  neither ages nor moves until VSWITCH_CLEAR_PORT_MAC or the port's end */
    uint8_t reserved[2];     /**< 0 */
    uint32_t learningPorts;  /**< ports whose policy lets them learn */
    uint32_t entries;        /**< addresses in all tables of the switch */
    uint32_t staticEntries;  /**< static ones of these */
    uint32_t learnedEntries; /**< learned ones of these */
    uint32_t teamEntries;    /**< ones of these behind the uplinks */
    uint32_t learned;        /**< sum over the ports, like the following; see VSwitchPortLearningStats */
    uint32_t moved;          /**< sum over the ports */
    uint32_t aged;           /**< sum over the ports */
    uint32_t refused;        /**< sum over the ports */
    uint32_t dropped;        /**< sum over the ports */
} VSwitchLearningInfo;

/**
 * VSWITCH_GET_RARP_STATS: announcements of a moved port's address to the physical network. On a live host
 * they are those that were sent since the switch has interfaces; on an emulated one they come from a
 * scenario.
 */
typedef struct VSWITCH_DRIVER_PACKED VSwitchRarpStats {
    uint64_t sent;
    uint64_t failed; /**< no uplink took it */
} VSwitchRarpStats;

/** VSWITCH_GET_SERVICE_TEAMING_STATS. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchTeamingStats {
    uint64_t txPackets;
    uint64_t txBytes;
    uint64_t rxPackets;
    uint64_t rxBytes;
    uint64_t failovers; /**< changes away from an uplink that lost its link */
    uint64_t failbacks; /**< changes back to an uplink that has its link again */
} VSwitchTeamingStats;

/** VSWITCH_GET_MIRROR_STATS. On an emulated host the counters come from a scenario. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchMirrorStats {
    char sessionId[32];
    uint8_t active;           /**< 1: the portset runs the session */
    uint64_t mirroredPackets; /**< copies that destinations got */
    uint64_t mirroredBytes;
    uint64_t droppedPackets; /**< copies that a destination refused */
    uint64_t droppedBytes;
    uint64_t txPackets; /**< packets to source ports (entries B), copied or not */
    uint64_t txBytes;   /**< with the tag of their VLAN, as rxBytes */
    uint64_t rxPackets; /**< packets from source ports (entries A), copied or not */
    uint64_t rxBytes;
    uint64_t truncated;           /**< packets of which copies were cut */
    uint64_t encapsulationErrors; /**< packets that could not be given the tags of a copy */
    uint64_t unreachable;         /**< copies whose destination has no interface */
} VSwitchMirrorStats;

/**
 * VSWITCH_GET_MCAST_STATS; `count` source addresses of the group's kind follow. On a live host groups are
 * those that hosts at the ports have joined by IGMP or MLD while the switch snoops; an Ethernet address
 * stands for all IP addresses that it is used for, without sources.
 */
typedef struct VSWITCH_DRIVER_PACKED VSwitchMcastStats {
    uint32_t joins;   /**< how often a port became a member */
    uint32_t leaves;  /**< messages that a host leaves */
    uint32_t queries; /**< in the VLAN since the group has a member */
    uint32_t ports;   /**< ports that are members */
    uint32_t vlanId;  /**< VLAN of the group, the primary one of private VLANs */
    uint32_t count;   /**< sources */
    uint32_t filter;  /**< 0: packets of the sources only; 1: all packets except those of the sources */
} VSwitchMcastStats;

/** One runtime option. */
typedef struct VSWITCH_DRIVER_PACKED VSwitchOption {
    uint16_t id; /**< 1 to 65535 */
    uint16_t reserved;
    uint32_t value;
} VSwitchOption;

/**
 * Runtime options, in the order of their ids. VSWITCH_SET_OPTIONS accepts what VSWITCH_GET_OPTIONS answers. A
 * host holds at most VSWITCH_OPTIONS_MAX options.
 */
typedef struct VSWITCH_DRIVER_PACKED VSwitchOptions {
    uint32_t length; /**< 8 + 8 * count */
    uint32_t count;
    /* followed by `count` VSwitchOption */
} VSwitchOptions;

#define VSWITCH_OPTIONS_MAX 511

/**
 * The one option with an effect, on a live host: how many multicast and broadcast frames of a port are
 * forwarded in a second, the rest being dropped. 0 or absent: no limit.
 */
#define VSWITCH_OPTION_FLOOD_LIMIT 1

/**
 * Input of every command of the RTM device: 9 + 128 * count bytes; another inLength is EINVAL. The driver
 * keeps the last input of each command number.
 */
typedef struct VSWITCH_DRIVER_PACKED VSwitchRtmRecord {
    uint32_t count;
    uint8_t header[5];
    /* followed by `count` entries of 128 bytes */
} VSwitchRtmRecord;

#ifdef __cplusplus
}
#define VSWITCH_DRIVER_ASSERT_SIZE(type, size) static_assert(sizeof(type) == (size), #type)
#else
#define VSWITCH_DRIVER_ASSERT_SIZE(type, size) typedef char type##Size[sizeof(type) == (size) ? 1 : -1]
#endif

VSWITCH_DRIVER_ASSERT_SIZE(VSwitchRequest, 24);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchInput, 212);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchListHeader, 8);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchMacEntry, 18);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchLearningProps, 9);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchMcastSelector, 24);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchInfo, 208);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchUplink, 36);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchLag, 556);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchLagTable, 35588);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchPortLearningStats, 28);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchLearningInfo, 52);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchPortStatistics, 128);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchRarpStats, 16);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchTeamingStats, 48);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchMirrorStats, 121);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchMcastStats, 28);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchOption, 8);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchOptions, 8);
VSWITCH_DRIVER_ASSERT_SIZE(VSwitchRtmRecord, 9);

#undef VSWITCH_DRIVER_ASSERT_SIZE
#endif
