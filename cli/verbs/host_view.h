// What is on the host, as one document that `show`, `topology` and `top` draw.
#pragma once

#include "cli/verbs/verb.h"

namespace vsctl {

// The host: {"switches": […], "free-nics": […]}. With SWITCH, the same of that switch, without the free NICs;
// throws when it does not exist.
Json Describe(const Arguments &arguments);
// The uplinks of a switch, with their NICs where the platform lists those.
Json DescribeUplinks(const std::string &alias, const std::string &switchId);
// The NICs of the host; empty where the platform does not list them.
Json DescribeNics();

// What differs from the defaults: {"vlan id=100 priority=3", "security 5"}.
std::vector<std::string> PolicyTexts(const Json &policies, bool ofPort);
// The fields of a table that differ from the defaults.
Json WithoutDefaults(std::span<const Field> fields, Json value);
// "10 Gb/s full duplex, MTU 9000".
std::string NicText(const Json &nic);

}
