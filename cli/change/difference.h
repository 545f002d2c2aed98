// A change as a difference for people: what comes (+), changes (~) and goes (-), by switch.
#pragma once

#include "cli/base/library.h"

namespace vsctl {

struct FieldChange {
    std::string field;
    Json before, after; // null: not there
};

// The fields that differ between two rows.
std::vector<FieldChange> FieldChanges(const Json &before, const Json &after);
// The lines of the rows of a change. Ports that change alike stand on one line.
std::string DifferenceText(const Json &rows);
// "3 to add, 2 to change, 1 to remove"; of a change that is made, "3 added, …".
std::string SummaryText(const Json &rows, bool isMade);

}
