// What the store says of a switch, as the data path takes it.
#pragma once

#include <map>
#include <string>

#include "platform/host/tables.h"
#include "platform/live/config.h"

namespace live {

// The ports that have an interface, by port id; 0: it is away.
using Plugged = std::map<std::string, uint32_t>;

// STATUS_NOT_FOUND: the switch doesn't run. Ports that the switch doesn't have are left out.
vshost::VsStatus ReadSwitchConfig(vshost::Reader &reader, const std::string &switchId, const Plugged &plugged,
                                  SwitchConfig &config);

vshost::VsStatus ReadHostConfig(vshost::Reader &reader, HostConfig &config);

}
