// The mount of the devices. The supervisor holds it, so that it outlives the daemon that answers.
#pragma once

#include <string>

#include "platform/live/device.h"

namespace live {

class DeviceMount {
public:
    explicit DeviceMount(std::string path) : path(std::move(path)) {}
    DeviceMount(const DeviceMount &) = delete;
    DeviceMount &operator=(const DeviceMount &) = delete;
    ~DeviceMount() { Remove(); }

    // False: `message` says why, in one line.
    bool Make(std::string &message);

    // To be called while nobody serves. Requests that a killed daemon has read go to the next one; a kernel
    // before 6.9 can't do so, and there they fail.
    bool RecoverRequests(std::string &message);

    void Remove();

    const DeviceConnection &Connection() const { return connection; }

private:
    const std::string path;
    DeviceConnection connection;
};

// Removes what killed processes have left mounted there.
void RemoveDeviceMounts(const std::string &path);

}
