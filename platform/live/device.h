// The driver's devices as files that any program can open: a FUSE file system with one file for each.
#pragma once

#include <string>

namespace live {

// The connection to the kernel outlives the process that serves it. So each one gets the kernel's greeting,
// its first request, which only the first process could have read.
struct DeviceConnection {
    int fd = -1; // of /dev/fuse
    std::string greeting;
};

// Serves the devices on threads of its own until the process ends. `directory` has the plain files that say
// who may open the devices. False: `message` says why.
bool ServeDevices(const DeviceConnection &connection, const std::string &directory, std::string &message);

}
