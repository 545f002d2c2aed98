// What the data path is told of switches: plain values that stand for the policies in the store.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/policy_records.h"
#include "platform/host/teaming.h"
#include "platform/live/maps.h"

namespace live {

struct VlanRange {
    uint16_t first;
    uint16_t last; // smaller than the first: the range is empty
    bool operator==(const VlanRange &) const = default;
};

// A MAC address that a command has given to a port, in network order.
struct StaticAddress {
    uint16_t vlan; // the primary one; 0: untagged
    uint8_t mac[6];
    auto operator<=>(const StaticAddress &) const = default;
};

using vshost::FilterRule;
using vshost::MirrorSession;
using vshost::PrivateVlan;
using vshost::PrivateVlanType;
using vshost::Team;

struct PortConfig {
    uint32_t number = 0;  // the port's kernel number, unique on the host
    uint32_t ifindex = 0; // of the plugged interface; 0: the interface is away
    bool uplink = false;
    bool uplinkActive = true; // an uplink: preferred to those that are not
    bool blocked = false;

    bool trunk = false;
    uint16_t vlanId = 0;           // no trunk: 0 is untagged everywhere, over LIVE_VLAN_MAX carries nothing
    bool nested = false;           // no trunk: tags of the port's frames are payload
    std::vector<VlanRange> ranges; // a trunk: what it carries; VLAN 0 stands for untagged frames
    uint32_t priority = LIVE_PORT_NO_PRIORITY; // 0 to 7: of frames from the port that leave tagged

    bool learning = false; // has several addresses; else the one last seen. Uplinks always learn
    uint32_t addressLimit = 4096;
    bool forwardsOverLimit = false; // frames from addresses over the limit pass
    bool takesUnknown = false;      // gets unicast to addresses that no port has
    bool sink = false;              // so does a sink port

    std::vector<StaticAddress> addresses; // in order, each once

    // Of a port that is not an uplink.
    bool getsAllFrames = false; // of its VLANs, also those that are not for it
    bool addressLock = false;   // sends from its first address alone
    bool staticOnly = false;    // sends from its static addresses alone

    std::optional<Team> team; // none: all uplinks, by the port's number

    std::vector<FilterRule> filter; // at most VSWITCH_FILTER_RULES; the first that matches decides

    bool operator==(const PortConfig &) const = default;
};

struct SwitchConfig {
    std::string id; // 1 to 64 bytes, unique on the host
    uint32_t mtu = 1500;
    uint32_t addressLimit = 65536;
    uint32_t ageingSeconds = 600;          // 0: addresses don't age
    bool learnsStatic = false;             // addresses of learning ports neither age nor move
    bool snooping = false;                 // multicast goes to the members of its group
    std::vector<PrivateVlan> privateVlans; // the first one with a secondary VLAN holds
    std::vector<MirrorSession> mirrors;    // at most LIVE_MIRRORS, each id once
    std::vector<PortConfig> ports;

    bool operator==(const SwitchConfig &) const = default;
};

struct HostConfig {
    bool learningEnabled = true;
    // Of learned addresses over all switches; half of the address table is kept for static ones.
    uint32_t addressLimit = 65536;
    uint32_t floodLimit = 0; // multicast and broadcast frames from a port in a second; 0: no limit
};

}
