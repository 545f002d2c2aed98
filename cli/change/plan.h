// The file of a desired state: what it may hold, and the steps from the present state to it.
#pragma once

#include "cli/base/document.h"
#include "cli/change/step.h"

namespace vsctl {

// The steps that make the host as the file says, in a safe order, removals last. Only reads.
std::vector<Step> PlanSteps(const Document &document);
Json PlanSchema();
// A file that describes switches and ports as they are.
Json ExportFile(const std::vector<Target> &targets);

}
