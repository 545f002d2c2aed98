// What the data path has done: addresses, counters and uplinks, as they stand in its maps. Any thread reads
// them at any time.
#pragma once

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

using VisitAddress = std::function<void(const LiveAddressKey &, const LiveAddress &)>;

// Every entry of the map of addresses, in batches, so that no packet waits for the whole table.
VsStatus VisitAddresses(int map, const VisitAddress &visit);

// STATUS_NOT_FOUND: the data path has no such switch or port.
class KernelTables {
public:
    explicit KernelTables(KernelPart &kernel) : kernel(kernel) {}

    VsStatus WalkAddresses(const VisitAddress &visit) const;

    VsStatus ReadAddresses(const std::string &switchId, std::vector<AddressEntry> &entries) const;
    VsStatus ReadCounters(uint32_t portNumber, LiveCounters &counters) const;
    VsStatus ReadMirrors(const std::string &switchId, std::vector<MirrorEntry> &entries) const;
    // The numbers of ports that get frames which are not for them: destinations of sessions that are enabled,
    // and ports that get all frames.
    VsStatus ReadObservers(const std::string &switchId, std::set<uint32_t> &portNumbers) const;
    // The port of the uplink that a port last sent by. STATUS_NOT_FOUND: it has sent by none.
    VsStatus ReadUplink(uint32_t portNumber, uint32_t &uplinkNumber) const;
    VsStatus ReadAnnouncements(const std::string &switchId, uint64_t &sent, uint64_t &failed) const;

private:
    VsStatus FindSwitch(const std::string &switchId, uint32_t &index) const;
    VsStatus FindPort(uint32_t portNumber, uint32_t &slot) const;

    KernelPart &kernel;
};

}
