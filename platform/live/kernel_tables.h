// What the data path has done: addresses, counters and uplinks, as they stand in its maps. Any thread reads
// them at any time.
#pragma once

#include <array>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "platform/live/kernel_part.h"

namespace live {

struct AddressEntry {
    uint32_t portNumber;
    uint16_t vlan; // 0: untagged
    uint8_t mac[6];
    bool isStatic;
    bool isKept; // static, but learned
    bool isOnUplink;
    uint64_t ageNs; // since the port was last seen to have it; a static address never seen: 0
};

// Who has an address, read from its entry.
struct Owner {
    explicit Owner(const LiveAddress &address)
        : slot(static_cast<uint32_t>(address.owner)), epoch(static_cast<uint32_t>(address.owner >> 32)),
          isStatic(epoch == LIVE_EPOCH_STATIC || epoch == LIVE_EPOCH_KEPT), isKept(epoch == LIVE_EPOCH_KEPT)
    {}
    bool IsCurrent(LivePort &port) const { return epoch == (ReadWord(port.epoch) & LIVE_EPOCH_MASK); }

    uint32_t slot;
    uint32_t epoch;
    bool isStatic;
    bool isKept;
};

// A mirror session that the data path has.
struct MirrorEntry {
    std::string id;
    bool isEnabled = false;
    LiveMirrorCounters counters = {};
};

template<typename Key, typename Value> using VisitEntry = std::function<void(const Key &, const Value &)>;
using VisitAddress = VisitEntry<LiveAddressKey, LiveAddress>;

// Every entry of a map, in batches, so that no packet waits for the whole table.
template<typename Key, typename Value> VsStatus VisitEntries(int map, const VisitEntry<Key, Value> &visit);

inline VsStatus VisitAddresses(int map, const VisitAddress &visit)
{
    return VisitEntries<LiveAddressKey, LiveAddress>(map, visit);
}

using GroupAddress = std::array<uint8_t, 16>; // an IPv4 address in its first 4 bytes

// A multicast group with members in a VLAN of a switch, over all of its ports.
struct GroupEntry {
    uint16_t vlan;   // 0: untagged
    uint16_t family; // EtherType of IPv4 or IPv6
    GroupAddress group;
    uint32_t joins;
    uint32_t leaves;
    uint32_t queries;
    uint32_t ports;
    bool excludes; // the sources are those that no port wants; else they alone are wanted
    std::vector<GroupAddress> sources;
};

// STATUS_NOT_FOUND: the data path has no such switch or port.
class KernelTables {
public:
    explicit KernelTables(KernelPart &kernel) : kernel(kernel) {}

    VsStatus WalkAddresses(const VisitAddress &visit) const;

    VsStatus ReadAddresses(const std::string &switchId, std::vector<AddressEntry> &entries) const;
    // In the order of VLANs and addresses.
    VsStatus ReadGroups(const std::string &switchId, std::vector<GroupEntry> &entries) const;
    // What of multicast groups and their sources is over, as far as can be seen from here.
    VsStatus FindEndedGroups(std::vector<LiveGroupKey> &groups, std::vector<LiveSourceKey> &sources) const;
    VsStatus ReadCounters(uint32_t portNumber, LiveCounters &counters) const;
    VsStatus ReadMirrors(const std::string &switchId, std::vector<MirrorEntry> &entries) const;
    // The numbers of ports that get frames which are not for them: destinations of sessions that are enabled,
    // and ports that get all frames.
    VsStatus ReadObservers(const std::string &switchId, std::set<uint32_t> &portNumbers) const;
    // The port of the uplink that a port last sent by. STATUS_NOT_FOUND: it has sent by none.
    VsStatus ReadUplink(uint32_t portNumber, uint32_t &uplinkNumber) const;
    // Removes an address that a port has learned, also one that has become static.
    VsStatus ForgetAddress(uint32_t portNumber, uint16_t vlan, const uint8_t mac[6]) const;
    VsStatus ReadAnnouncements(const std::string &switchId, uint64_t &sent, uint64_t &failed) const;

private:
    VsStatus WalkGroups(const VisitEntry<LiveGroupKey, LiveGroup> &visitGroup,
                        const VisitEntry<LiveSourceKey, LiveSource> &visitSource) const;
    bool HasGroups() const;
    VsStatus FindSwitch(const std::string &switchId, uint32_t &index) const;
    VsStatus FindPort(uint32_t portNumber, uint32_t &slot) const;

    KernelPart &kernel;
};

}
