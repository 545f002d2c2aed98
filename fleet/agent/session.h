// What the agent does in etcd: it claims its host's name, keeps the claim, and reports.
#pragma once

#include "fleet/agent/state.h"
#include "fleet/protocol/config.h"
#include "fleet/protocol/keys.h"

namespace vsfleet {

// The claim is gone: the lease has run out, or somebody has removed it.
struct ClaimLost : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Another machine is this host.
struct ClaimRefused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Session {
public:
    Session(const Config &config, State &state);

    // Claims the name, and reads what etcd has of this host.
    void Begin();
    // Keeps the claim when it is time. Throws ClaimLost.
    void Tick();
    // Throws ClaimLost when somebody has removed or replaced the claim.
    void CheckClaim();
    // Writes the status if etcd has another one. With the number of a target, writes nothing and returns
    // false when the host has another target by now. Throws ClaimLost.
    void Report(const Status &status);
    bool Report(const Status &status, int64_t target);
    bool ReportPlan(const std::string &rollout, const Plan &plan);

    std::unique_ptr<Entry> Target() { return client.Get(keys::Target(config.host)); }
    // From etcd or from the state. Throws std::runtime_error when it is missing or damaged.
    std::string Text(const DocumentRevision &document);
    // Whether there is an adoption that was not seen before. Remembers it.
    bool TakeAdoption();

    // Opens a new connection: Begin is next.
    void Reset() { client.Reconnect(); }
    // Takes etcd for what it is now, whatever was known.
    void Adopt() { client.Adopt(keys::ADOPTED); }
    Client &Etcd() { return client; }

private:
    void TakeClaim();
    bool Commit(Transaction &transaction, int64_t target);

    const Config &config;
    State &state;
    Client client;
    Claim self;
    int64_t claim = 0;  // the revision of our claim; 0: there is none
    int64_t status = 0; // the revision of the status that etcd has
    std::string reported;
    Clock::time_point nextKeepAlive;
};

}
