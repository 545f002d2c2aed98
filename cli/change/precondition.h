// The checks of a change before its first write.
#pragma once

#include "cli/change/preview.h"

namespace vsctl {

// Checks the steps in their order, reads the state before them and returns what each finds and leaves. Throws
// the error of the first step that would fail: a switch, port or uplink that does not exist by then, a name,
// id or portset in use, an object of another kind. What is done already leaves the optional steps.
Preview CheckSteps(std::vector<Step> &steps);

}
