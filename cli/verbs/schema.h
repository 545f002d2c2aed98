// The JSON schema of what --json prints, made from the table of verbs.
#pragma once

#include "cli/base/library.h"

namespace vsctl {

Json OutputSchema();

}
