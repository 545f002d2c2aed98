// What must hold before a change, looked at before its first write.
#pragma once

#include "cli/change/step.h"

namespace vsctl {

// Goes through the steps in order, and throws what the first of them would fail with: a switch, port or
// uplink that is not there by then, a name, id or portset that is in use, an object of another kind.
void CheckSteps(const std::vector<Step> &steps);

}
