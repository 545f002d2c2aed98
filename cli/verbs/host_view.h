// What is on the host, as one document that `show`, `topology` and `top` draw.
#pragma once

#include "cli/base/library.h"

namespace vsctl {

// The host: {"switches": […], "free-nics": […]}.
Json DescribeHost();
// The same of one switch, without the free NICs. Throws when it does not exist.
Json DescribeOnly(const std::string &alias);
// The uplinks of a switch, with their NICs where the platform lists those.
Json DescribeUplinks(const std::string &alias, const std::string &switchId);
// The NICs of the host; empty where the platform does not list them.
Json DescribeNics();

// What differs from the defaults: {"vlan id=100 priority=3", "security 5"}.
std::vector<std::string> PolicyTexts(const Json &policies, bool ofPort);
std::string SessionName(const Json &session);
// "10 Gb/s full duplex, MTU 9000".
std::string NicText(const Json &nic);

}
