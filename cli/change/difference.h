// A change as a difference for people: what comes (+), changes (~) and goes (-), by switch.
#pragma once

#include "cli/base/library.h"

namespace vsctl {

// The lines of the rows of a change. Ports that change alike stand on one line.
std::string DifferenceText(const Json &rows);
// "3 to add, 2 to change, 1 to remove"; of a change that is made, "3 added, …".
std::string SummaryText(const Json &rows, bool isMade);

}
