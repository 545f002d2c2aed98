// A change of the host: applied, reported over a new connection to etcd, and only then confirmed.
#pragma once

#include "fleet/agent/session.h"
#include "fleet/agent/vsctl.h"

namespace vsfleet {

// Which documents a host gets, and how.
struct Order {
    int64_t target = 0; // number of the target
    std::vector<DocumentRevision> documents;
    std::vector<std::string> prune; // names of documents whose switches are to go
    bool allowRemovals = false;
    bool isRepair = false;
    std::chrono::seconds deadline{300}, confirm{60};
};

class Changer {
public:
    // `mayGoOn` says whether the agent has not been asked to end.
    Changer(const Config &config, State &state, Session &session, std::function<bool()> mayGoOn);

    // What the order would change. Reads the host alone.
    Plan PlanFor(const Order &order);
    // Carries the order out, and leaves the result in the memory's status. Throws EtcdError or ClaimLost when
    // it has not begun.
    void CarryOut(const Order &order);
    // Ends a change that was cut short, by undoing it or, when it was reported, by confirming it. False: the
    // host can't be reached yet.
    bool Recover();

    // Steps that would bring the host back to its documents; an exit code of vsctl.
    VsctlAnswer Drift();

private:
    enum class Reported { YES, OTHER_TARGET, TOO_LATE, RESTORED };

    void Prepare(const Order &order);
    bool Begin(const Order &order);
    std::string Explained(const Order &order, const VsctlAnswer &answer);
    Reported ReportOnNewConnection(const Order &order, Clock::time_point until);
    void Confirm(const Order &order);
    void Settle(const Order &order);
    void End(const Order &order, HostState state, const std::string &error);
    void UndoAndEnd(const Order &order, const std::string &why);
    bool IsOwnChangePending();
    std::string Undo();

    State &state;
    Session &session;
    std::function<bool()> mayGoOn;
    Vsctl vsctl;
};

// The first rows of a list of steps, as many as a record in etcd should have.
Json FirstSteps(const Json &rows);

}
