// The state before and after each step of a change.
#pragma once

#include "cli/change/step.h"

namespace vsctl {

struct Preview {
    Json rows = Json::array(); // one for each step
    bool changes = false;      // whether any step changes something
};

// `before` of each step holds the state before the whole change.
Preview PreviewOf(const std::vector<Step> &steps);

// Throws unless the uplinks that a step puts into a teaming policy are the switch's by then.
void RequireUplinks(const std::vector<Step> &steps, const Json &rows);

}
