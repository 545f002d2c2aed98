// What goes when one file replaces another.
#pragma once

#include "cli/base/library.h"

namespace vsctl {

// Adds to the switches of a checked file that what the replaced file names and this one doesn't is to go:
// switches and ports are absent, policies are cleared, fields of a policy get their defaults. Ranges of ports
// are taken apart.
void AddRemovals(Json &switches, const Json &replaced);

}
