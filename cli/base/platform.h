// What vsctl asks the platform for without the library. Functions that only an embedded host has are looked
// up at run time, never linked.
#pragma once

#include <vshost.h>

#include <optional>
#include <string>
#include <vector>

namespace vsctl {

// Whether the platform is an embedded host, which publishes its records and lists its ports.
bool IsEmbedded();

// The ports of the stored switch with this id, in the order of their numbers; nothing when the switch does
// not exist. Only on an embedded host.
std::optional<std::vector<vshost_port>> ListPorts(const std::string &switchId);

// The physical NICs of the host; none on another platform.
std::vector<vshost_nic> ListNics();

// The properties of the stored switch with this id, or of one of its ports; nothing when the switch or port
// does not exist. Only on an embedded host.
std::optional<std::vector<vshost_property_name>> ListProperties(const std::string &switchId,
                                                                const std::string &port);

// The records of the stored switch with this id, and of its ports, that the platform keeps and doesn't
// enforce; none where it cannot tell.
std::vector<vshost_policy_fault> ListPolicyFaults(const std::string &switchId);

// Gives a port its number and NIC. Returns 0 or an errno value. Only on an embedded host.
int RestorePlace(const std::string &switchId, const vshost_port &port);

// While it lives, the platform stores this process's writes one by one and forwards by all of them at its
// end, where it can do so.
class Bulk {
public:
    Bulk();
    Bulk(const Bulk &) = delete;
    Bulk &operator=(const Bulk &) = delete;
    ~Bulk();
};

// Plugs a network interface of the machine to a port, for good, or unplugs it. Returns what is wrong; empty
// when it is done. Only on an embedded host.
std::string Plug(const std::string &alias, const std::string &port, const std::string &interface);
std::string Unplug(const std::string &interface);

// Sets a node in the platform's shell, as the library does. Returns whether that succeeded.
bool SetNode(const std::string &node, const std::string &value);

}
