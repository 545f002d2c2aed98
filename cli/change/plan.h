// The file of a desired state: its schema, and the steps from the present state to it.
#pragma once

#include "cli/change/step.h"
#include "frontend/document.h"

namespace vsctl {

// The steps that make the host match the file, removals last. Reads the host and changes nothing.
std::vector<Step> PlanSteps(const Document &document);
// The same, and what the replaced file names and this one doesn't goes.
std::vector<Step> PlanSteps(const Document &document, const Document &replaced);
// Throws when the file doesn't describe a state, on whatever host. Reads no host.
void CheckDocument(const Document &document);
Json PlanSchema();
// The file that describes these switches and ports as they are.
Json ExportFile(const std::vector<Target> &targets);

}
