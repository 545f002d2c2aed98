// Repeats a verb that reads, and shows what has changed.
#pragma once

#include "cli/verbs/parser.h"

namespace vsctl {

Result Watch(const Verb &watch, const Arguments &arguments);
// What differs between two results: {"object", "field", "before", "after"}.
Json Differences(const Json &before, const Json &after);

}
