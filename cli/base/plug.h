// Network interfaces of the machine at ports.
#pragma once

#include <string>

namespace vsctl {

// Plugs a network interface of the machine to a port, for good, or unplugs it. Returns what is wrong; empty
// when it is done. Only on an embedded host.
std::string Plug(const std::string &alias, const std::string &port, const std::string &interface);
std::string Unplug(const std::string &interface);

}
