// Which interfaces the store wants at which ports.
#pragma once

#include <map>
#include <string>

#include "platform/host/plugs.h"
#include "platform/live/links.h"
#include "platform/live/store_config.h"

namespace live {

using Plugs = std::map<std::string, vshost::Plug>; // by interface
using Wanted = std::map<std::string, Plugged>;     // by switch

// Plugs of the machine's last start have ended with it.
vshost::VsStatus ReadPlugs(vshost::Reader &reader, Plugs &plugs);

// The uplink port of a NIC is the one that it is bound to.
Wanted ReadWanted(vshost::Reader &reader, const Plugs &plugs, const Links &links);

}
