// What a driver does next. It looks at the fleet as etcd holds it, so that any driver goes on where another
// one has stopped; of its own it remembers only since when it waits for something.
#pragma once

#include "fleet/rollout/desired.h"

namespace vsfleet {

inline constexpr size_t MAX_WRITES = 100; // in a transaction; etcd takes 128

struct Write {
    std::string key;
    std::string value;
    bool isDeleted = false;
    std::optional<int64_t> modified = {}; // the revision of the key that was seen, if it matters
};

// Writes that are made together, as long as what they are decided on is still what was seen: the rollout that
// they are of, or the keys themselves.
struct Step {
    std::vector<Write> writes;
    std::string rollout;        // key; empty: they are of no rollout
    int64_t modified = 0;       // of the rollout
    std::optional<Audit> audit; // without its time

    bool IsEmpty() const { return writes.empty(); }
};

class Decisions {
public:
    // A host counts as gone when its claim has been gone for the time of a lease, and as silent when its
    // answer is that late.
    explicit Decisions(Milliseconds lease) : lease(lease) {}

    // Empty: there is nothing to do until something happens or time passes. `now` never goes back.
    Step Next(const Fleet &fleet, Milliseconds now);
    // The fleet was out of sight: all waiting begins anew.
    void BeginAnew();

private:
    // What a driver has waited for in a rollout, and since when.
    struct Waits {
        std::map<std::string, Milliseconds> turns;
        std::optional<Milliseconds> soak;
    };
    struct Work; // a rollout that is advanced by one step

    void LookForClaims();
    bool IsHere(const std::string &host) const;
    bool IsGone(const std::string &host) const;
    bool IsLate(Work &work, const std::string &host);
    std::vector<std::string> HostsOf(const Rollout &rollout) const;
    std::string BlockedBy(const std::string &id) const;
    std::string ManyGone(const Rollout &rollout) const;
    std::string Failures(const Rollout &rollout) const;
    std::string ReasonOf(const Rollout &rollout, const std::string &host) const;

    Step Advance(const std::string &id);
    void Decide(Work &work);
    void Abort(Work &work);
    void Select(Work &work);
    void AskForPlans(Work &work);
    void EndPlanning(Work &work);
    void TakeAnswers(Work &work, bool mayBeLate);
    void Run(Work &work);
    void BeginWave(Work &work, int64_t end);
    void Stop(Work &work, const std::string &message);
    void RollBack(Work &work);
    void Finish(Work &work, RolloutState state, const std::string &message);

    bool IsFollowed(const Held<Rollout> &held) const;
    Step Converge() const;
    Step Tidy() const;

    Milliseconds lease;
    std::map<std::string, Milliseconds> goneSince; // hosts without a claim
    std::map<std::string, Waits> waits;            // by rollout
    const Fleet *fleet = nullptr;                  // of the present call
    Milliseconds now{0};
};

}
