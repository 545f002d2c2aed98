// Which policy records hosts of ours don't enforce, and why (see vswitch_policy.h).
#pragma once

#include <string_view>

#include "platform/include/vswitch_policy.h"

namespace vshost {

// Null when the record, or each record of the value, is enforced; and for a property that isn't a policy
// record.
const char *PolicyFault(std::string_view key, std::string_view value);

const char *FaultOf(const VSwitchTeamingPolicy &policy);
const char *FaultOf(const VSwitchNamedTeaming &entry);
const char *FaultOf(const VSwitchFilter &filter);
const char *FaultOf(const VSwitchPvlanEntry &entry);
const char *FaultOf(const VSwitchMirrorSettings &settings);
const char *FaultOfSecurity(uint32_t bits);

}
