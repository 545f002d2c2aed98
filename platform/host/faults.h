// What a test wants of the platform: calls that fail, answers given instead of the host's own, calls
// recorded. platform/testing/ implements it; the platform's entry points ask it through InterceptedCall.
#pragma once

#include <vshost.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vshost {

class Control;

// What a recorded call shows besides its outcome. Pointers belong to the caller and must stay valid until the
// call is over; the `text` parts are joined by one space, a null part shows as "-".
struct CallDetails {
    const char *text[3] = {};
    size_t textCount = 3;
    uint32_t length = 0;
    uint32_t flags = 0;
    const void *input = nullptr;
    size_t inputLength = 0;
    bool canFail = true; // false: the call is recorded, but no rule fails it
};

class Faults {
public:
    // What a call meets that is about to run.
    struct Effect {
        bool fails = false;
        bool recorded = false;
        uint32_t outcome = 0; // of a call that fails
        uint64_t index = 0;   // of a call that is recorded
    };

    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;
    virtual ~Faults() = default;

    // Whether nothing is to fail and nothing to be recorded: one relaxed load.
    bool AreIdle() const { return active.load(std::memory_order_relaxed) == 0; }

    virtual Effect Enter(vshost_kind kind, const char *operation, bool canFail) = 0;
    virtual void Record(uint64_t index, const struct vshost_call &call) = 0;

    // What a rule would make of the next call, which isn't counted; false when no rule would fail it.
    virtual bool NextFails(vshost_kind kind, const char *operation, uint32_t &outcome) const = 0;

    // The answer set for a driver command or a shell verb, used up by one; false when there is none.
    virtual bool NextAnswer(uint32_t command, std::string &bytes) = 0;
    virtual bool NextShellOutput(std::string_view verb, std::string &bytes) = 0;

protected:
    explicit Faults(std::atomic<uint32_t> &active) : active(active) {}

    std::atomic<uint32_t> &active; // shared by all processes of the host
};

// Makes the faults of a host, which are kept in its control file. `control` owns them.
std::unique_ptr<Faults> MakeFaults(Control &control);

// Every store operation, shell command, driver command and device call passes through one of these:
//     InterceptedCall call(host.GetFaults(), VSHOST_DRIVER, "4106", details);
//     if (call.Fails()) return call.Outcome();
//     return call.Return(DoIt());
// `faults` may be null. A call that is destroyed without Return() has the outcome 0.
class InterceptedCall {
public:
    InterceptedCall(Faults *faults, vshost_kind kind, const char *operation, const CallDetails &details)
        : faults(faults), kind(kind), operation(operation), details(details)
    {
        if (faults && !faults->AreIdle()) effect = faults->Enter(kind, operation, details.canFail);
    }
    InterceptedCall(const InterceptedCall &) = delete;
    InterceptedCall &operator=(const InterceptedCall &) = delete;
    ~InterceptedCall()
    {
        if (effect.recorded) Record();
    }

    bool Fails() const { return effect.fails; }
    uint32_t Outcome() const { return effect.outcome; }
    uint32_t Return(uint32_t result)
    {
        effect.outcome = result;
        return result;
    }

private:
    void Record() const;

    Faults *const faults;
    const vshost_kind kind;
    const char *const operation;
    const CallDetails &details;
    Faults::Effect effect;
};

}
