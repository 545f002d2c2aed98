// The documents of a host, by the labels of the host and the rollouts that are under way.
#include "fleet/rollout/desired.h"

#include <algorithm>
#include <fmt/format.h>

#include "fleet/protocol/documents.h"

namespace vsfleet {

namespace {

bool Has(const std::vector<std::string> &names, const std::string &name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

}

bool IsTouched(Turn turn)
{
    return turn == Turn::STARTED || turn == Turn::CONFIRMED || turn == Turn::FAILED ||
           turn == Turn::UNREACHABLE || turn == Turn::SILENT;
}

Desired::Desired(const Fleet &fleet, const Proposal &proposal) : fleet(fleet)
{
    for (const auto &[name, head] : fleet.heads)
        all[name].head = &head.record;
    for (const auto &[id, held] : fleet.rollouts) {
        const std::string &name = held.record.head.document.name;
        if (held.record.options.planOnly || fleet.LastRollout(name) != &held) continue;
        // Hosts that a rollout has not reached, or that it has left again, are as they were before.
        if (held.record.state != RolloutState::DONE)
            all[name] = {&held.record.head, &held.record.before, &held.record};
    }
    if (!proposal.rollout) return;
    const Rollout &rollout = *proposal.rollout;
    all[rollout.head.document.name] = {proposal.isNew ? &rollout.head : &rollout.before};
}

const Head *Desired::HeadFor(const Heads &heads, const std::string &host) const
{
    if (!heads.rollout) return heads.head;
    const auto turn = heads.rollout->turns.find(host);
    return turn != heads.rollout->turns.end() && IsTouched(turn->second) ? heads.head : heads.before;
}

// Names two documents that name one switch; empty: there are none.
std::string Desired::Conflict(const std::vector<DocumentRevision> &documents) const
{
    std::map<std::string, std::string> owners;
    for (const DocumentRevision &document : documents) {
        for (const std::string &alias : fleet.Switches(document)) {
            const auto [owner, isNew] = owners.emplace(alias, document.name);
            if (!isNew)
                return fmt::format("the documents '{}' and '{}' both name the switch '{}'", owner->second,
                                   document.name, alias);
        }
    }
    return "";
}

Target Desired::Of(const std::string &host) const
{
    Target target;
    target.phase = Phase::APPLY;
    const auto found = fleet.hosts.find(host);
    if (found == fleet.hosts.end()) return target;
    target.repair = true;
    for (const auto &[name, heads] : all) {
        const Head *head = HeadFor(heads, host);
        if (!head || !head->document.revision || !Matches(head->selector, found->second.labels.record))
            continue;
        target.allowRemovals = target.allowRemovals || head->allowRemovals;
        if (head->isRemoved) {
            if (head->prune) target.prune.push_back(name);
            continue;
        }
        target.documents.push_back(head->document);
        target.repair = target.repair && head->repair;
    }
    target.repair = target.repair && !target.documents.empty();
    target.reason = Conflict(target.documents);
    if (!target.reason.empty()) target.phase = Phase::HOLD;
    return target;
}

bool AsksForTheSame(const Target &present, const Target &desired)
{
    return present.phase == desired.phase && present.documents == desired.documents &&
           std::all_of(desired.prune.begin(), desired.prune.end(),
                       [&](const std::string &name) { return Has(present.prune, name); }) &&
           present.reason == desired.reason && present.repair == desired.repair &&
           (present.allowRemovals || !desired.allowRemovals);
}

}
