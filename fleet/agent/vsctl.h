// `vsctl` as a child process: its JSON and its exit codes.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fleet/protocol/records.h"
#include "frontend/error.h"

namespace vsfleet {

using frontend::Exit;

struct VsctlAnswer {
    std::optional<Exit> exit; // nothing: a signal has ended it
    Json rows = Json::array();
    std::string problem; // of an exit code that says so
};

// Far more than any host needs: vsctl hangs.
inline constexpr std::chrono::seconds USUAL_LIMIT{300};

class Vsctl {
public:
    // `tick` is called now and then while a child runs. It does not throw.
    Vsctl(std::string program, std::function<void()> tick)
        : program(std::move(program)), tick(std::move(tick))
    {}

    // Waits for the end of `vsctl WORDS --json`. When the agent dies meanwhile, or the time is over, vsctl is
    // told to stop, and undoes what it has begun. It is killed when it doesn't.
    VsctlAnswer Run(std::vector<std::string> words, std::chrono::seconds limit = USUAL_LIMIT);

private:
    std::string program;
    std::function<void()> tick;
};

}
