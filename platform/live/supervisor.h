// Mounts the devices, starts the daemon that answers them, and starts it anew when it dies.
#pragma once

#include <string>

#include "platform/live/kernel_part.h"

namespace live {

struct SupervisorOptions {
    std::string directory;
    Capacity capacity;       // what is in the kernel keeps its own until it is removed
    bool isMachines = false; // the machine's own host: see machine.h
};

// Runs until SIGTERM or SIGINT; returns the exit code. The switches go on forwarding afterwards.
int Supervise(const SupervisorOptions &options);

// Compares the kernel with the store, in vshostd's network namespace when it runs; returns the exit code.
int CheckLiveHost(const std::string &directory);

// Takes away what stays when no process of the host runs; returns the exit code.
int RemoveLiveHost(const std::string &directory);

}
