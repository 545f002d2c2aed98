// Errors: one line for people, an exit code for scripts.
#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <vector>
#include <vswitchctl.h>

namespace vsctl {

enum class Exit {
    DONE = 0,
    FAILURE = 1,
    USAGE = 2,
    NOT_FOUND = 3,
    EXISTS = 4,
    BAD_VALUE = 5,
    UNREACHABLE = 6,
    PERMISSION = 7,
    TIMED_OUT = 8,
    PARTLY_UNDONE = 9,
    PENDING = 10
};
inline constexpr int EXITS = 11;

struct StatusInfo {
    VsStatus status;
    const char *name;
    const char *meaning;
    Exit exit;
};

// Name, meaning and exit code of a status. An unknown status is a failure.
StatusInfo Describe(VsStatus status);

struct Error : std::exception {
    Error(Exit exit, std::string problem, std::string advice = "");
    // Says more of the same failure.
    Error(const Error &cause, std::string problem, std::string advice);
    const char *what() const noexcept override { return message.c_str(); }

    Exit exit;
    std::string problem;
    std::string advice; // what to try
    std::string message;
    VsStatus status = STATUS_OK;     // of the library call that failed, if one did
    std::vector<std::string> undone; // the steps that were undone because of it
    std::vector<std::string> more;   // further problems of the same kind
};

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

// "did you mean 'uplink'?", or an empty text when no name is near.
template<class Names> std::string Suggest(std::string_view given, const Names &names);
size_t EditDistance(std::string_view a, std::string_view b);

template<class Names> std::string Suggest(std::string_view given, const Names &names)
{
    std::string_view best;
    size_t bestDistance = given.size() / 3 + 2;
    for (std::string_view name : names) {
        const size_t distance = EditDistance(given, name);
        if (distance < bestDistance) {
            bestDistance = distance;
            best = name;
        }
    }
    return best.empty() ? "" : "did you mean '" + std::string(best) + "'?";
}

}
