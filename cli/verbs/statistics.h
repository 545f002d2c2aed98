// Counters of ports.
#pragma once

#include <vswitch_driver.h>

#include "cli/base/library.h"

namespace vsctl {

// What the port has counted. Throws where the platform does not publish its counters.
VSwitchPortStatistics ReadStatistics(const Target &port);
uint64_t DroppedOf(const VSwitchPortStatistics &statistics);

}
