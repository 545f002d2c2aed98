// The journal of a change: all steps with the state before each, on disk before the first step. Nothing is
// added while the change runs, because undoing and finishing both look at the present state.
#pragma once

#include <optional>

#include "cli/change/step.h"

namespace vsctl {

// Lets one change run at a time on a host.
class ChangeLock {
public:
    ChangeLock(); // waits for another change, within the time limit
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
    bool awaitsConfirmation = false; // all steps are done, and are undone unless confirmed
    int64_t confirmBy = 0;           // seconds since boot; 0: the change needs no confirmation
    std::string boot = "";           // during which the change was made

    void Write() const;
    static std::optional<Journal> Read();
    static void Remove();
    // Keeps the journal of a change that is made, for `vsctl undo`, until the next one is made.
    static void Keep();
    static std::optional<Journal> ReadLast();
    // Makes the kept journal that of a change that is not finished, as its undo begins.
    static void Reopen();
};

// Where the lock and the journal are.
std::string StateDirectory();

}
