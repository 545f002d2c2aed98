// What is needed to undo or finish a change of several steps, on disk before its first step: all steps,
// with what was there before each. Nothing is noted while it runs, because undoing and finishing both look
// at what is there.
#pragma once

#include <optional>

#include "cli/change/step.h"

namespace vsctl {

// One change at a time on a host.
class ChangeLock {
public:
    ChangeLock(); // waits for the other one, within the time limit
    ChangeLock(const ChangeLock &) = delete;
    ChangeLock &operator=(const ChangeLock &) = delete;
    ~ChangeLock();

private:
    int descriptor;
};

struct Journal {
    std::string id;
    std::string command;
    std::vector<Step> steps;
    bool awaitsConfirmation = false; // done, and to be undone unless confirmed
    int64_t confirmBy = 0;           // seconds since the epoch

    void Write() const;
    static std::optional<Journal> Read();
    static void Remove();
};

// Where the lock and the journal are.
std::string StateDirectory();

}
