// The agent: makes its host follow the documents that its target in etcd names.
#pragma once

#include "fleet/protocol/config.h"

namespace vsfleet {

// Runs until a signal ends it.
Action AddAgent(CLI::App &command);

}
