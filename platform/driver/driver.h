// The switch driver, which the preload and the live host's devices call.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace vshost {

enum class Device { SWITCH, RTM };

// Opens the file that represents the device on this process's host; -1 with errno.
int OpenDevice(Device device, int flags, unsigned mode);

// Runs the command whose VSwitchRequest is at `header`; 0 or an errno value.
int RunCommand(Device device, uint32_t number, void *header);
// The same for another process: the header and the addresses in it are in that process's memory.
int RunCommandOf(pid_t caller, Device device, uint32_t number, uint64_t header);

}
