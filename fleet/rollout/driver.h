// The driver: one of any number of processes that carry rollouts out. One does at a time; etcd elects it.
#pragma once

#include <atomic>

#include "fleet/protocol/config.h"
#include "fleet/rollout/decisions.h"

namespace vsfleet {

class Driver {
public:
    explicit Driver(const Config &config);

    // Until `isStopped`, which is looked at several times a second. Throws what no waiting helps against:
    // EtcdError DENIED.
    void Run(const std::atomic<bool> &isStopped);

private:
    bool Attempt(const std::atomic<bool> &isStopped);
    bool MayFollow();
    bool Elect();
    void WaitForElection(const std::atomic<bool> &isStopped);
    void Lead(const std::atomic<bool> &isStopped);
    void ReadFleet();
    void Remember(const std::string &key);
    void TakeEvents(Milliseconds time);
    bool Carry(const Step &step);
    void KeepLease();
    void Clear();
    void Say(const std::string &what);

    Config config;
    Client client;
    Decisions decisions;
    Fleet fleet;
    std::unique_ptr<Watch> watch;
    int64_t lease = 0;
    std::string record;      // the last one of the history that was seen
    bool isRestored = false; // etcd is not the one that was known
    int64_t elected = 0;     // revision at which this driver was elected; 0: it does not lead
    Clock::time_point renewed, nextClearance;
    std::string said; // last, so that nothing is said twice in a row
};

}
