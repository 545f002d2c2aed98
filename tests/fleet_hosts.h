// Hosts without switches: light agents that speak the protocol, and answer as a test says.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "fleet/etcd/watch.h"
#include "fleet/protocol/records.h"

class LightAgent {
public:
    // What becomes of a change that names the revision.
    enum class Habit { CONFIRMS, FAILS, IGNORES, REFUSES_PLAN };

    // A patient one looks only seldom whether it is to stop.
    LightAgent(vsfleet::Endpoints endpoints, const std::string &host, std::chrono::seconds lease,
               bool isPatient = false);
    LightAgent(const LightAgent &) = delete;
    LightAgent &operator=(const LightAgent &) = delete;
    ~LightAgent() { Stop(); }

    // Ends without a word: the claim goes with its lease. Start is the same host again.
    void Stop();
    void AskToStop() { isStopped = true; }
    void Start();
    void Behave(Habit habit) { this->habit = habit; }
    // Why it fails.
    void Explain(const std::string &text)
    {
        const std::lock_guard lock(mutex);
        reason = text;
    }
    // The documents of each change that the host has confirmed, in order.
    std::vector<std::vector<vsfleet::DocumentRevision>> Changes() const;

    const std::string host;

private:
    void Run();
    void Live();
    void Answer(const vsfleet::Entry &entry);
    void Report(vsfleet::HostState state, int64_t number, const std::string &error = "");

    vsfleet::Endpoints endpoints;
    std::chrono::seconds lease;
    bool isPatient;
    std::atomic<Habit> habit = Habit::CONFIRMS;
    std::atomic<bool> isStopped = true;
    std::unique_ptr<vsfleet::Client> client;
    vsfleet::Status status;
    int64_t answered = 0;
    mutable std::mutex mutex;
    std::string reason = "no port of that name";
    std::vector<std::vector<vsfleet::DocumentRevision>> changes;
    std::thread thread;
};

// Kills what runs on throw-away hosts whose directories begin so.
void KillAllOn(const std::string &directory);
