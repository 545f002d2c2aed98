#pragma once

#include "vswitchctl.h"

inline constexpr uint32_t DEFAULT_CONNECT_ID = 1;

// The only place that creates ports: with all their initial properties at once.
VsStatus AddDVPortByUUID(const char *switchId, const char *dvPortId, uint32_t connectId, bool uplink);
