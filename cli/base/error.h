// Statuses of the library and the errors made from them.
#pragma once

#include <span>
#include <vswitchctl.h>

#include "frontend/error.h"

namespace vsctl {

using namespace frontend;

inline constexpr int EXITS = 11;

struct StatusText {
    VsStatus status;
    const char *name;
    const char *meaning;
};
// The statuses of the library's header, with what it says of them.
std::span<const StatusText> StatusTexts();

struct StatusInfo {
    const char *name;
    const char *meaning;
    Exit exit;
};

// Name, meaning and exit code of a status. An unknown status is a failure.
StatusInfo Describe(VsStatus status);
// The error of a library call that returned this status.
Error WithStatus(Error error, VsStatus status);

// The object of an action: a switch, a port of a switch or (both empty) the host.
struct Target {
    std::string alias;
    std::string port;

    std::string Text() const;
    const char *Alias() const { return alias.c_str(); }
    const char *Port() const { return port.c_str(); }
    bool operator==(const Target &) const = default;
};

// Throws unless `status` is STATUS_OK. `action` reads like "reading the VLAN policy of".
// `listed` is the advice for something missing other than the target.
void Check(VsStatus status, std::string_view action, const Target &target, const std::string &listed = "");
const char *AdviceFor(Exit exit);
// What the exit code says.
const char *MeaningOf(Exit exit);

// 0, or the errno of opening the device.
int DeviceError(const char *device);

}
