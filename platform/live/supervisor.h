// Mounts the devices, starts the daemon that answers them, and starts it anew when it dies.
#pragma once

#include <string>

#include "platform/live/kernel_part.h"

namespace live {

// Runs until SIGTERM or SIGINT; returns the exit code. The switches go on forwarding afterwards. What they
// have in the kernel keeps its capacity until it is removed.
int Supervise(const std::string &directory, const Capacity &capacity);

// Compares the kernel with the store, in vshostd's network namespace when it runs; returns the exit code.
int CheckLiveHost(const std::string &directory);

// Takes away what stays when no process of the host runs; returns the exit code.
int RemoveLiveHost(const std::string &directory);

}
