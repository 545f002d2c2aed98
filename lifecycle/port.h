#pragma once

#include "vswitchctl.h"

inline constexpr uint32_t DEFAULT_CONNECT_ID = 1;

// The one place where ports come into being: with all their first properties at once.
VsStatus AddDVPortByUUID(const char *switchId, const char *dvPortId, uint32_t connectId, bool uplink);
