// Repeating a reading verb, and showing what has changed.
#ifndef CLI_WATCH_H
#define CLI_WATCH_H

#include "parser.h"

namespace vsctl {

Result Watch(const Verb &watch, const Arguments &arguments);
// What differs between two results: {"object", "field", "before", "after"}.
Json Differences(const Json &before, const Json &after);

}
#endif
