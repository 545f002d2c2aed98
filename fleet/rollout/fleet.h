// The fleet as etcd holds it: documents, rollouts and hosts, each with the revision of its last change.
#pragma once

#include <optional>
#include <set>

#include "fleet/etcd/watch.h"
#include "fleet/protocol/records.h"

namespace vsfleet {

// A record and the revision of its last change; 0: etcd doesn't hold it.
template<class Record> struct Held {
    Record record;
    int64_t modified = 0;
    int64_t created = 0;
};

struct HostView {
    Held<Labels> labels;
    Held<Target> target; // its number is `modified`
    Held<Claim> claim;
    Held<Status> status;
    std::map<std::string, Held<Plan>> plans; // by rollout

    bool IsHere() const { return claim.modified; }
    // What the agent says of the present target; null while it has said nothing.
    const Status *Answer() const;
};

struct Fleet {
    std::map<std::string, HostView> hosts;
    std::map<std::string, Held<Head>> heads;
    std::map<std::string, Held<Rollout>> rollouts;                      // by id
    std::map<std::string, std::map<int64_t, StoredDocument>> documents; // by name and revision; without text
    int64_t leader = 0; // revision at which the driver that leads was elected; 0: none leads

    void Read(const Snapshot &snapshot);
    void Take(const KeyEvent &event);

    // Ids in the order in which the rollouts were made.
    std::vector<std::string> RolloutsInOrder() const;
    // The last rollout of a document, those that only ask for plans left out; null: none.
    const Held<Rollout> *LastRollout(const std::string &name) const;
    // The switches that a revision names.
    const std::vector<std::string> &Switches(const DocumentRevision &document) const;
};

bool IsActive(RolloutState state);
// Now, for the record of an action: such texts sort by time.
std::string TimeText();

}
