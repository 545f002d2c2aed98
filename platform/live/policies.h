// The policy records of the store (vswitch_policy.h) as the data path takes them. A record that is not whole,
// or of another version, is not enforced: it counts as absent.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/live/config.h"

namespace live {

void DecodeSecurity(std::string_view value, PortConfig &port);
void DecodeFilter(std::string_view value, PortConfig &port);
std::vector<PrivateVlan> DecodePrivateVlans(std::string_view value);

// The numbers of a switch's ports by their ids; UINT32_MAX: it has no such port.
using FindPortNumber = std::function<uint32_t(const std::string &portId)>;

// Adds the sessions of a list whose ids are not there yet.
void DecodeMirrors(std::string_view list, const FindPortNumber &findPort,
                   std::vector<MirrorSession> &sessions);

}
