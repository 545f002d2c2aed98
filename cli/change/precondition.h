// The checks of a change before its first write.
#pragma once

#include "cli/change/step.h"

namespace vsctl {

// Checks the steps in their order, and throws the error of the first step that would fail: a switch, port or
// uplink that does not exist by then, a name, id or portset in use, an object of another kind.
void CheckSteps(std::vector<Step> &steps);

}
