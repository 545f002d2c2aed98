// What a host is to be: the documents that hold for it, as a target.
#pragma once

#include "fleet/rollout/fleet.h"

namespace vsfleet {

// The turn has changed the host, and the change has not been undone.
bool IsTouched(Turn turn);

// A rollout's own head in place of the one that its hosts follow: the new one or the one before.
struct Proposal {
    const Rollout *rollout = nullptr;
    bool isNew = true;
};

class Desired {
public:
    explicit Desired(const Fleet &fleet, const Proposal &proposal = {});
    // The target that applies all documents of a host, or holds because two of them name one switch.
    Target Of(const std::string &host) const;

private:
    // The heads of one document: which of them holds for a host depends on its turn.
    struct Heads {
        const Head *head = nullptr;
        const Head *before = nullptr;
        const Rollout *rollout = nullptr; // null: `head` holds for all
    };
    const Head *HeadFor(const Heads &heads, const std::string &host) const;
    std::string Conflict(const std::vector<DocumentRevision> &documents) const;

    const Fleet &fleet;
    std::map<std::string, Heads> all;
};

// Whether the target asks for the same. The rollout and the time limits do not count.
bool AsksForTheSame(const Target &present, const Target &desired);

}
