// Waits for a rollout, and shows how far it is.
#pragma once

#include "fleet/command/console.h"

namespace vsfleet {

// "net 5  running  12 of 40 hosts …" and the hosts that something is to be said of.
std::string ProgressText(const Fleet &fleet, const Rollout &rollout);
// A row for each host of the rollout.
Rows HostRows(const Fleet &fleet, const Rollout &rollout);
Rows TurnCounts(const Rollout &rollout);

// Until the rollout has ended, with a live table on a terminal.
Rollout Follow(Console &console, const std::string &id);
// Prints its hosts, or throws how it ended.
Exit Report(const Console &console, const Rollout &rollout);

}
