// The commands of operators, and the driver. Each Add gives a command its arguments.
#pragma once

#include <memory>

#include "fleet/protocol/config.h"

namespace vsfleet {

Action AddPush(CLI::App &app);
Action AddDiff(CLI::App &app);
Action AddRollback(CLI::App &app);
Action AddRemove(CLI::App &app);
Action AddPause(CLI::App &app);
Action AddResume(CLI::App &app);
Action AddAbort(CLI::App &app);

Action AddStatus(CLI::App &app);
Action AddHosts(CLI::App &app);
Action AddWatch(CLI::App &app);
Action AddHistory(CLI::App &app);

Action AddLabel(CLI::App &app);
Action AddEnroll(CLI::App &app);
Action AddRelease(CLI::App &app);
Action AddAdopt(CLI::App &app);
Action AddSetup(CLI::App &app);
Action AddDrive(CLI::App &app);

// The option that all of them have.
std::shared_ptr<bool> AddJson(CLI::App &app);

}
