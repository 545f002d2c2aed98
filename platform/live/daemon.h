// The daemon of a live host, which the supervisor starts, and starts anew when it dies.
#pragma once

#include <string>

#include "platform/live/device.h"
#include "platform/live/kernel_part.h"

namespace live {

struct DaemonOptions {
    std::string directory; // of the host
    Capacity capacity;
    DeviceConnection devices;
    int requests = -1;   // a socket that listens
    int ready = -1;      // a pipe: one byte says that the daemon works
    bool isFirst = true; // of this vshostd
};

// Exit codes besides 0.
inline constexpr int DAEMON_CANNOT_WORK = 1;

// Runs until SIGTERM, which is blocked; returns the exit code. The switches go on forwarding.
int RunDaemon(const DaemonOptions &options);

// Takes what the daemons have left in the kernel away. False: `message` says why it stays.
bool RemoveForwarding(const std::string &directory, std::string &message);

// Compares kernel and store; a line on standard output for each difference. Returns the exit code: 0 when
// they agree.
int CheckForwarding(const std::string &directory);

// A line of the log.
[[gnu::format(printf, 1, 2)]] void Say(const char *format, ...);

}
