// What the store says of a switch, as the data path takes it.
#pragma once

#include <map>
#include <string>

#include "platform/host/tables.h"
#include "platform/live/config.h"

namespace live {

struct Interface {
    uint32_t ifindex = 0; // 0: it is away
    bool isUp = false;    // with a carrier
};

// The ports that have an interface, by port id.
using Plugged = std::map<std::string, Interface>;

// STATUS_NOT_FOUND: the switch doesn't run. Ports that the switch doesn't have are left out.
vshost::VsStatus ReadSwitchConfig(vshost::Reader &reader, const std::string &switchId, const Plugged &plugged,
                                  SwitchConfig &config);

// Policies of a port, and its static addresses. The rest of `port` stays as it is.
vshost::VsStatus ReadPortPolicies(vshost::Reader &reader, const vshost::PortName &name, PortConfig &port);
vshost::VsStatus ReadPortAddresses(vshost::Reader &reader, const vshost::PortName &name, PortConfig &port);

vshost::VsStatus ReadHostConfig(vshost::Reader &reader, HostConfig &config);

}
