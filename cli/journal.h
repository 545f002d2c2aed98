// What is needed to undo or finish a change of several steps, on disk before its first step: all steps,
// with what was there before each. Nothing is noted while it runs, because undoing and finishing both look
// at what is there.
#ifndef CLI_JOURNAL_H
#define CLI_JOURNAL_H

#include <optional>

#include "step.h"

namespace vsctl {

// One change at a time on a host.
class HostLock {
public:
    HostLock(); // waits for the other one, within the time limit
    HostLock(const HostLock &) = delete;
    HostLock &operator=(const HostLock &) = delete;
    ~HostLock();

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
#endif
