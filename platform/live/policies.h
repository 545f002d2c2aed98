// The policy records of the store (vswitch_policy.h) as the data path takes them. A record that is not whole,
// or of another version, is not enforced: it counts as absent.
#pragma once

#include <string_view>
#include <vector>

#include "platform/live/config.h"

namespace live {

void DecodeSecurity(std::string_view value, PortConfig &port);
void DecodeFilter(std::string_view value, PortConfig &port);
std::vector<PrivateVlan> DecodePrivateVlans(std::string_view value);

}
