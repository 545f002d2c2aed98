// Link aggregation: the kernel's bonds, and the LAGs that they are.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/include/vswitch_driver.h"

struct nlmsghdr;

namespace live {

struct Link;

// What the kernel says of a bond.
struct Bond {
    uint8_t mode = 0; // the kernel's BOND_MODE_…
    uint8_t hashPolicy = 0;
    bool isActive = true; // LACP: sends without being asked
    bool isFast = false;  // LACP: each second
    bool operator==(const Bond &) const = default;
};

// What it says of an interface in a bond.
struct BondMember {
    uint32_t bond = 0; // its ifindex
    bool isUp = false; // as the bond has found
    bool operator==(const BondMember &) const = default;
};

// What a message about an interface (RTM_NEWLINK) says of these.
struct Bonding {
    std::optional<Bond> bond;
    std::optional<BondMember> member;
    bool operator==(const Bonding &) const = default;
};
Bonding ReadBonding(const nlmsghdr &message);

// The LAGs among the interfaces: bonds whose other end is an aggregate, each with its first 16 members. Bonds
// that use one member at a time, or for each peer, are none.
std::vector<VSwitchLag> LagsOf(const std::map<uint32_t, Link> &links);

// The machine's LAGs for threads that answer requests.
class SharedLags {
public:
    void Set(std::vector<VSwitchLag> present)
    {
        const std::lock_guard guard(lock);
        lags = std::move(present);
    }
    std::vector<VSwitchLag> Get() const
    {
        const std::lock_guard guard(lock);
        return lags;
    }

private:
    mutable std::mutex lock;
    std::vector<VSwitchLag> lags;
};

}
