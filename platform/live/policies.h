// The policy records of the store (vswitch_policy.h) as the data path takes them. A record that is not whole,
// or of another version, is not enforced: it counts as absent.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/live/config.h"

namespace live {

// The numbers of a switch's uplink ports by their names.
using UplinkNumbers = std::map<std::string, uint32_t, std::less<>>;

void DecodeSecurity(std::string_view value, PortConfig &port);
void DecodeFilter(std::string_view value, PortConfig &port);
std::vector<PrivateVlan> DecodePrivateVlans(std::string_view value);

// Uplinks that the switch doesn't have are left out.
std::optional<Team> DecodeTeam(std::string_view value, const UplinkNumbers &uplinks);

// The policy of that name in a table of logical switches; empty when there is none.
std::string_view FindNamedTeam(std::string_view table, std::string_view name);

}
