// The file of a desired state: what it may hold, and the steps from the present state to it.
#ifndef CLI_PLAN_H
#define CLI_PLAN_H

#include "document.h"
#include "step.h"

namespace vsctl {

// The steps that make the host as the file says, in a safe order, removals last. Only reads.
std::vector<Step> PlanSteps(const Document &document);
Json PlanSchema();
// A file that describes switches and ports as they are.
Json ExportFile(const std::vector<Target> &targets);

}
#endif
