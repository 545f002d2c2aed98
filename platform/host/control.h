// The control block: what all processes of a host share in memory. It holds the change counter of the
// store, the faults and answers that tests ask for, and the calls that were recorded.
#ifndef PLATFORM_HOST_CONTROL_H
#define PLATFORM_HOST_CONTROL_H

#include <vshost.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/host/engine.h"

namespace vshost {

struct ControlBlock;

// What a recorded call shows besides its outcome. Pointers are the caller's and must live until the
// call is over; `text` parts are joined by one space, null ones show as "-".
struct CallDetails {
    const char *text[3] = {};
    size_t textCount = 3;
    uint32_t length = 0;
    uint32_t flags = 0;
    const void *input = nullptr;
    size_t inputLength = 0;
};

class Control {
public:
    static VsStatus Open(const std::string &directory, std::unique_ptr<Control> &control,
                         std::string &message);
    Control(const Control &) = delete;
    Control &operator=(const Control &) = delete;
    ~Control();

    std::atomic<uint64_t> &Changes();
    StoreCounters Counters();
    void ReopenAfterFork();

    // Whether the host has started what it runs, since the machine did.
    bool HasStarted() const;
    void SetStarted();

    // The functions of vshost.h of the same names: 0 or an errno value.
    int Fail(vshost_kind kind, const char *operation, unsigned nth, unsigned times, uint32_t outcome);
    unsigned Failed() const;
    // How many more rules can stand.
    size_t FreeFaults() const;
    // What a rule would make of the next call, which isn't counted; false when none would fail it.
    bool NextFails(vshost_kind kind, const char *operation, uint32_t &outcome) const;
    int Answer(uint32_t command, unsigned times, const void *bytes, uint32_t length);
    int ShellOutput(const char *verb, const void *bytes, uint32_t length);
    void Clear();
    void Record(bool on);
    size_t CallCount() const;
    int Call(size_t index, struct vshost_call &call) const;

    // The standing answer to a driver command or shell verb, used up by one; false when there is none.
    bool TakeAnswer(uint32_t command, std::string &bytes);
    bool TakeShellOutput(std::string_view verb, std::string &bytes);

private:
    friend class CallGate;
    Control(std::string path, int fd, ControlBlock *block);
    bool MustFail(vshost_kind kind, const char *operation, uint32_t &outcome);
    uint64_t ReserveCall();
    void WriteCall(uint64_t index, const struct vshost_call &call);
    bool Idle() const;

    const std::string path;
    int fd;
    ControlBlock *const block;
    std::mutex mutex; // with the file's lock: changes of rules, answers and recording
};

// The one gate that every store operation, shell command, driver command and device passes:
//     CallGate gate(control, VSHOST_DRIVER, "4106", details);
//     if (gate.Refused()) return gate.Outcome();
//     return gate.Return(DoIt());
// One relaxed load when there is nothing to fail and nothing to record. `control` may be null.
// Destroying the gate without Return() records the outcome 0.
class CallGate {
public:
    CallGate(Control *control, vshost_kind kind, const char *operation, const CallDetails &details,
             bool canFail = true)
        : control(control), kind(kind), operation(operation), details(details)
    {
        if (control && !control->Idle()) Enter(canFail);
    }
    CallGate(const CallGate &) = delete;
    CallGate &operator=(const CallGate &) = delete;
    ~CallGate()
    {
        if (recorded) Record();
    }

    bool Refused() const { return refused; }
    uint32_t Outcome() const { return outcome; }
    uint32_t Return(uint32_t result)
    {
        outcome = result;
        return result;
    }

private:
    void Enter(bool canFail);
    void Record();

    Control *const control;
    const vshost_kind kind;
    const char *const operation;
    const CallDetails &details;
    uint64_t index = 0;
    uint32_t outcome = 0;
    bool refused = false;
    bool recorded = false;
};

} // namespace vshost

#endif
