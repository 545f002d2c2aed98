// The kernel's queue of received frames for each processor: a flood to more ports than it holds loses copies.
#pragma once

#include "platform/host/engine.h"
#include "platform/live/scribe.h"

namespace live {

// Raises net.core.netdev_max_backlog if it is small, or says that it can't. What it was is stored first.
void RaiseBacklog(Scribe &scribe);

// Unless somebody has changed it since.
void PutBackBacklog(vshost::Engine &engine);

}
