// What the platform offers beside the library. The functions that only a platform of ours has are looked up
// at run time, never linked.
#pragma once

#include <vshost.h>

#include <optional>
#include <string>
#include <vector>

namespace vsctl {

// Whether this is a platform of ours, whose records are documented and whose ports can be listed.
bool IsEmbedded();

// The ports of the stored switch with this id, in the order of their numbers; nothing when there is no such
// switch. Only on a platform of ours.
std::optional<std::vector<vshost_port>> ListPorts(const std::string &switchId);

// The properties of the stored switch with this id, or of one of its ports; nothing when there is no such
// switch or port. Only on a platform of ours.
std::optional<std::vector<vshost_property_name>> ListProperties(const std::string &switchId,
                                                                const std::string &port);

// Gives a port its number and NIC; 0, or an errno value. Only on a platform of ours.
int RestorePlace(const std::string &switchId, const vshost_port &port);

// Sets a node of the platform's shell, as the library does it; whether that went well.
bool SetNode(const std::string &node, const std::string &value);

}
