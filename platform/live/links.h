// The network interfaces of this process's network namespace, as the kernel has them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/live/bonds.h"

struct nl_msg;
struct nl_object;
struct nl_sock;

namespace live {

struct Link {
    std::string name;
    uint32_t ifindex = 0;
    bool adminUp = false;
    bool carrier = false; // whatever the administrative state
    bool promiscuous = false;
    bool fullDuplex = true;
    uint32_t speed = 0; // Mb/s; 0: the interface doesn't say
    uint32_t mtu = 0;
    int32_t numaNode = -1; // -1: none
    Bonding bonding;

    bool IsUp() const { return adminUp && carrier; }
    bool operator==(const Link &) const = default;
};

class Links {
public:
    Links();
    ~Links();

    // False: `message` says why, in one line.
    bool Open(std::string &message);

    int EventDescriptor() const; // readable when Update() has something to do

    // Follows what has happened since. False: nothing has changed.
    bool Update();

    // Interfaces that have been deleted since the last call, as far as is known: by now there may be another
    // one of the same number and name.
    std::set<uint32_t> TakeDeleted() { return std::exchange(deleted, {}); }

    // Interfaces whose link has been lost since the last call; they may have one again.
    std::set<uint32_t> TakeLost() { return std::exchange(lost, {}); }

    // The kernel tells of a changed carrier up to a second late; this asks it now. False: it is as it was.
    bool PollCarrier(uint32_t ifindex);

    // Null: there is none.
    const Link *Find(const std::string &name) const;
    const std::map<uint32_t, Link> &All() const { return links; } // by ifindex

    // Whether the interface has the queueing discipline that filters need.
    bool HasClsact(uint32_t ifindex) const;

    // Features by the kernel's names ("rx-lro"). On: the interface has it, and it can be turned off.
    bool IsFeatureOn(uint32_t ifindex, const char *name) const;
    int SetFeature(uint32_t ifindex, const char *name, bool on) const;
    bool IsIpv6On(uint32_t ifindex) const;
    int SetIpv6(uint32_t ifindex, bool on) const;

    // 0 or an errno value. Update() sees the change.
    int SetAdminUp(uint32_t ifindex, bool up);
    int SetMtu(uint32_t ifindex, uint32_t mtu);
    int SetPromiscuous(uint32_t ifindex, bool promiscuous);

private:
    struct Release {
        void operator()(nl_sock *socket) const;
    };
    struct Change;
    struct Message;

    static int TakeMessage(nl_msg *message, void *self);
    static void TakeObject(nl_object *object, void *message);
    bool Follow(Link link);
    void Forget(uint32_t ifindex);
    void ForgetName(const Link &link);
    uint32_t FeatureBit(const std::string &interface, const char *name) const;
    std::string NameOf(uint32_t ifindex) const;
    bool ReadAll();
    void AddDetails(Link &link) const;
    int Apply(uint32_t ifindex, const Change &change);

    std::unique_ptr<nl_sock, Release> events, requests;
    int control = -1;                                    // for ioctl
    mutable std::map<std::string, uint32_t> featureBits; // of every interface the same
    mutable uint32_t featureCount = 0;
    std::map<uint32_t, Link> links;
    std::unordered_map<std::string, uint32_t> ifindexes; // by name
    std::set<uint32_t> deleted;
    std::set<uint32_t> lost;
    bool hasChanged = false;
};

}
