// Errors: one line for people, an exit code for scripts.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace frontend {

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

struct Error : std::runtime_error {
    Error(Exit exit, std::string problem, std::string advice = "");
    // Says more of the same failure.
    Error(const Error &cause, std::string problem, std::string advice);

    Exit exit;
    std::string problem;
    std::string advice;              // what to try
    std::string message;             // both
    uint32_t status = 0;             // of the library call that failed, if one did
    std::string statusName = "";     // of that status
    std::vector<std::string> undone; // the steps that were undone because of it
    std::vector<std::string> more;   // further problems of the same kind
};

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

// The seconds in "500ms", "30s", "2m", "1h" or a number, at least so many. `name` is the option that gives
// them.
double ParseSeconds(const std::string &name, const std::string &text, double least = 0.001);

}
