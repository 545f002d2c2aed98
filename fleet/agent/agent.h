// The agent: makes its host follow the documents that its target in etcd names.
//
// A change goes through these stages. The journal has the stage on disk before it begins, and is the truth;
// the status in etcd is its report.
//
//   idle      Nothing is under way. A change begins once etcd has taken the status "applying" for the same
//             target, so nothing changes where etcd can't be reached.
//   applying  `vsctl apply --confirm-within` runs, or has run. The result is written to etcd over a new
//             connection, in a transaction that compares the target. An agent that dies here undoes the
//             change when it is started again. So does a process of vsctl's own when the time to confirm is
//             over, and vsctl-boot.service when the machine is started again.
//   reported  etcd has the result: `vsctl confirm`. An agent that dies here confirms when it is started, or
//             finds out what has become of the change.
//
// The claim outlives the agent for as long as its lease: an agent that is started again goes on with it, and
// one that is ended doesn't give it up. An etcd that has lost revisions which the agent has seen is not
// followed until `vsfleet adopt`, also when it has as many revisions again.
#pragma once

#include "fleet/protocol/config.h"

namespace vsfleet {

// Runs until a signal ends it.
Action AddAgent(CLI::App &command);

}
