// What steps find and what they leave, one after another.
#pragma once

#include "cli/change/step.h"

namespace vsctl {

struct Preview {
    Json rows = Json::array(); // of output, one for each step
    bool changes = false;      // some step leaves something else than it finds
};

// `before` of each step holds what was there before the first of them.
Preview PreviewOf(const std::vector<Step> &steps);

}
