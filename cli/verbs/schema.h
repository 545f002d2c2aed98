// The JSON schema of what --json prints, made from the table of verbs.
#pragma once

#include "cli/verbs/verb.h"

namespace vsctl {

Json OutputSchema();
// The properties of the rows that the verb prints.
std::vector<std::string> ColumnNames(const Verb &verb);

}
