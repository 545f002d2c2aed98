// The fleet as etcd holds it, kept up to date by events.
#include "fleet/rollout/fleet.h"

#include <algorithm>
#include <charconv>
#include <fmt/chrono.h>

#include "fleet/protocol/keys.h"

namespace vsfleet {

namespace {

// The parts of a key below a prefix; empty: the key is not below it.
std::vector<std::string> PartsBelow(const std::string &key, const std::string &prefix)
{
    std::vector<std::string> parts;
    if (!key.starts_with(prefix)) return parts;
    for (size_t begin = prefix.size(); begin <= key.size();) {
        const size_t end = std::min(key.find('/', begin), key.size());
        parts.push_back(key.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

template<class Record> void Hold(Held<Record> &held, const KeyEvent &event)
{
    if (event.isDeleted)
        held = {};
    else
        held = {FromText<Record>(event.entry.value), event.entry.modified, event.entry.created};
}

template<class Record>
void Hold(std::map<std::string, Held<Record>> &all, const std::string &name, const KeyEvent &event)
{
    if (event.isDeleted)
        all.erase(name);
    else
        Hold(all[name], event);
}

void TakeHost(HostView &host, const std::vector<std::string> &parts, const KeyEvent &event)
{
    if (parts.size() == 3 && parts[1] == "plan") return Hold(host.plans, parts[2], event);
    if (parts.size() != 2) return;
    if (parts[1] == "labels") Hold(host.labels, event);
    if (parts[1] == "target") Hold(host.target, event);
    if (parts[1] == "claim") Hold(host.claim, event);
    if (parts[1] == "status") Hold(host.status, event);
}

bool IsEmpty(const HostView &host)
{
    return !host.labels.modified && !host.target.modified && !host.claim.modified && !host.status.modified &&
           host.plans.empty();
}

}

const Status *HostView::Answer() const
{
    return target.modified && status.record.target == target.modified ? &status.record : nullptr;
}

void Fleet::Read(const Snapshot &snapshot)
{
    *this = {};
    for (const Entry &entry : snapshot.entries)
        Take({entry, false});
}

void Fleet::Take(const KeyEvent &event)
{
    const std::string &key = event.entry.key;
    if (key == keys::LEADER) leader = event.isDeleted ? 0 : event.entry.created;
    if (const auto parts = PartsBelow(key, keys::ROLLOUTS); parts.size() == 1)
        Hold(rollouts, parts[0], event);
    if (const auto parts = PartsBelow(key, keys::HOSTS); parts.size() > 1) {
        HostView &host = hosts[parts[0]];
        TakeHost(host, parts, event);
        if (IsEmpty(host)) hosts.erase(parts[0]);
    }
    const auto parts = PartsBelow(key, keys::DESIRED);
    if (parts.size() != 2) return;
    if (parts[1] == "head") return Hold(heads, parts[0], event);
    int64_t revision = 0;
    std::from_chars(parts[1].data(), parts[1].data() + parts[1].size(), revision);
    if (event.isDeleted) {
        documents[parts[0]].erase(revision);
        return;
    }
    StoredDocument &document = documents[parts[0]][revision] = FromText<StoredDocument>(event.entry.value);
    document.compressed.clear();
    document.compressed.shrink_to_fit();
}

std::vector<std::string> Fleet::RolloutsInOrder() const
{
    std::vector<std::string> ids;
    for (const auto &[id, rollout] : rollouts)
        ids.push_back(id);
    std::sort(ids.begin(), ids.end(), [this](const std::string &a, const std::string &b) {
        return std::pair(rollouts.at(a).created, a) < std::pair(rollouts.at(b).created, b);
    });
    return ids;
}

const Held<Rollout> *Fleet::LastRollout(const std::string &name) const
{
    const Held<Rollout> *last = nullptr;
    for (const auto &[id, rollout] : rollouts) {
        if (rollout.record.head.document.name != name || rollout.record.options.planOnly) continue;
        if (!last || last->created < rollout.created) last = &rollout;
    }
    return last;
}

const std::vector<std::string> &Fleet::Switches(const DocumentRevision &document) const
{
    static const std::vector<std::string> NONE;
    const auto revisions = documents.find(document.name);
    if (revisions == documents.end()) return NONE;
    const auto found = revisions->second.find(document.revision);
    return found == revisions->second.end() ? NONE : found->second.switches;
}

bool IsActive(RolloutState state)
{
    return state == RolloutState::PLANNING || state == RolloutState::RUNNING ||
           state == RolloutState::PAUSED || state == RolloutState::ROLLING_BACK;
}

std::string TimeText()
{
    const auto now = std::chrono::system_clock::now();
    const auto part = std::chrono::duration_cast<Milliseconds>(now.time_since_epoch()).count() % 1000;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(now)),
                       part);
}

}
