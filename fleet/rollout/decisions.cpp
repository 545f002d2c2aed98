// The states of a rollout, and what leads from one to the next.
#include "fleet/rollout/decisions.h"

#include <algorithm>
#include <fmt/format.h>

#include "fleet/protocol/documents.h"
#include "fleet/protocol/keys.h"

namespace vsfleet {

namespace {

constexpr int64_t MAX_CONFIRM = 60; // seconds

Turn TurnOf(const Rollout &rollout, const std::string &host)
{
    const auto turn = rollout.turns.find(host);
    return turn == rollout.turns.end() ? Turn::WAITING : turn->second;
}

bool IsFailure(Turn turn)
{
    return turn == Turn::REFUSED || turn == Turn::FAILED || turn == Turn::UNREACHABLE || turn == Turn::SILENT;
}

int64_t Count(const Rollout &rollout, bool (*is)(Turn))
{
    return std::count_if(rollout.hosts.begin(), rollout.hosts.end(),
                         [&](const std::string &host) { return is(TurnOf(rollout, host)); });
}

bool IsWaiting(Turn turn) { return turn == Turn::WAITING; }
bool IsConfirmed(Turn turn) { return turn == Turn::CONFIRMED; }
bool IsUndecided(Turn turn) { return turn == Turn::STARTED || turn == Turn::ROLLING_BACK; }

// Where the wave ends that begins at a number of hosts or goes on there.
int64_t WaveEnd(const RolloutOptions &options, int64_t position, int64_t all)
{
    if (position < options.canary) return std::min(options.canary, all);
    int64_t batch = options.batch;
    if (options.batchPercent) batch = std::max<int64_t>(1, (all * options.batchPercent + 99) / 100);
    if (!batch) return all;
    const int64_t waves = (position - options.canary) / batch + 1;
    return std::min(options.canary + waves * batch, all);
}

std::string DocumentKey(const DocumentRevision &document)
{
    return keys::Revision(document.name, document.revision);
}

// Whether anything but the rollout refers to the document.
bool IsUsed(const Fleet &fleet, const DocumentRevision &document, const std::string &exceptFor)
{
    const auto head = fleet.heads.find(document.name);
    if (head != fleet.heads.end() && head->second.record.document == document) return true;
    return std::any_of(fleet.rollouts.begin(), fleet.rollouts.end(), [&](const auto &item) {
        const Rollout &rollout = item.second.record;
        return item.first != exceptFor &&
               (rollout.head.document == document || rollout.before.document == document);
    });
}

Target AsAsked(Target target, Phase phase, const Rollout &rollout)
{
    target.phase = phase;
    target.rollout = rollout.id;
    target.deadline = rollout.options.deadline;
    target.confirm = std::min(MAX_CONFIRM, rollout.options.deadline);
    return target;
}

}

struct Decisions::Work {
    Rollout rollout;
    Waits &waits;
    std::vector<Write> writes;
    std::optional<Audit> audit;

    // Room for the rollout's own record, its head and the record of who did it.
    bool IsFull() const { return writes.size() + 3 >= MAX_WRITES; }
    void Put(const std::string &key, const std::string &value) { writes.push_back({key, value}); }
    void SetTurn(const std::string &host, Turn turn)
    {
        rollout.turns[host] = turn;
        waits.turns.erase(host);
    }
};

Step Decisions::Next(const Fleet &present, Milliseconds time)
{
    fleet = &present;
    now = time;
    LookForClaims();
    std::erase_if(waits, [&](const auto &item) { return !present.rollouts.contains(item.first); });
    for (const std::string &id : present.RolloutsInOrder()) {
        if (!IsActive(present.rollouts.at(id).record.state)) continue;
        if (Step step = Advance(id); !step.IsEmpty()) return step;
    }
    if (Step step = Converge(); !step.IsEmpty()) return step;
    return Tidy();
}

void Decisions::BeginAnew()
{
    goneSince.clear();
    waits.clear();
}

// ---- Who is there ----

void Decisions::LookForClaims()
{
    for (const auto &[host, view] : fleet->hosts) {
        if (view.IsHere())
            goneSince.erase(host);
        else
            goneSince.try_emplace(host, now);
    }
    std::erase_if(goneSince, [this](const auto &item) { return !fleet->hosts.contains(item.first); });
}

bool Decisions::IsHere(const std::string &host) const
{
    const auto found = fleet->hosts.find(host);
    return found != fleet->hosts.end() && found->second.IsHere();
}

bool Decisions::IsGone(const std::string &host) const
{
    if (IsHere(host)) return false;
    const auto gone = goneSince.find(host);
    return gone == goneSince.end() || now - gone->second >= lease;
}

// Whether what is waited for from the host should have come.
bool Decisions::IsLate(Work &work, const std::string &host)
{
    const auto [begin, isNew] = work.waits.turns.try_emplace(host, now);
    return now - begin->second > std::chrono::seconds(work.rollout.options.deadline) + lease;
}

// The hosts that a rollout is about, by name.
std::vector<std::string> Decisions::HostsOf(const Rollout &rollout) const
{
    if (!rollout.hosts.empty()) return rollout.hosts;
    std::vector<std::string> hosts;
    for (const auto &[host, view] : fleet->hosts) {
        const Labels &labels = view.labels.record;
        if (!view.labels.modified && !view.claim.modified) continue;
        if (Matches(rollout.head.selector, labels) ||
            (rollout.before.document.revision && Matches(rollout.before.selector, labels)))
            hosts.push_back(host);
    }
    return hosts;
}

// A host has one target: rollouts that share a host run one after the other.
std::string Decisions::BlockedBy(const std::string &id) const
{
    const std::vector<std::string> list = HostsOf(fleet->rollouts.at(id).record);
    const std::set<std::string> hosts(list.begin(), list.end());
    for (const std::string &other : fleet->RolloutsInOrder()) {
        if (other == id) return "";
        const Rollout &rollout = fleet->rollouts.at(other).record;
        if (!IsActive(rollout.state)) continue;
        const std::vector<std::string> others = HostsOf(rollout);
        if (std::any_of(others.begin(), others.end(),
                        [&](const std::string &host) { return hosts.contains(host); }))
            return fmt::format("waits for the rollout of '{}', which has hosts in common",
                               rollout.head.document.name);
    }
    return "";
}

// When most hosts of a rollout are gone, then etcd was away, or the network to it, and not each of them.
std::string Decisions::ManyGone(const Rollout &rollout) const
{
    int64_t gone = 0, all = 0;
    for (const std::string &host : rollout.hosts) {
        if (TurnOf(rollout, host) == Turn::ABSENT) continue;
        all++;
        gone += !IsHere(host);
    }
    if (gone < 2 || gone * 2 <= all) return "";
    return fmt::format("{} of {} hosts are unreachable at once; the rollout goes on when they are back", gone,
                       all);
}

std::string Decisions::ReasonOf(const Rollout &rollout, const std::string &host) const
{
    switch (TurnOf(rollout, host)) {
    case Turn::SILENT:
        return "no answer in time";
    case Turn::UNREACHABLE:
        return "unreachable since its turn";
    default:
        break;
    }
    const auto found = fleet->hosts.find(host);
    if (found == fleet->hosts.end()) return "gone";
    const HostView &view = found->second;
    if (const Status *answer = view.Answer(); answer && !answer->error.empty()) return answer->error;
    const auto plan = view.plans.find(rollout.id);
    if (plan != view.plans.end() && !plan->second.record.error.empty()) return plan->second.record.error;
    return "no answer in time";
}

// "2 hosts failed, at most 1 may: host3: …".
std::string Decisions::Failures(const Rollout &rollout) const
{
    const auto first = std::find_if(rollout.hosts.begin(), rollout.hosts.end(), [&](const std::string &host) {
        return IsFailure(TurnOf(rollout, host));
    });
    const int64_t count = Count(rollout, IsFailure);
    return fmt::format("{} {} failed, and {} may: {}: {}", count, count == 1 ? "host" : "hosts",
                       rollout.options.maxFailures, *first, ReasonOf(rollout, *first));
}

// ---- A rollout ----

Step Decisions::Advance(const std::string &id)
{
    const Held<Rollout> &held = fleet->rollouts.at(id);
    Work work{held.record, waits[id], {}, {}};
    Decide(work);
    const std::string text = ToText(work.rollout);
    if (text != ToText(held.record)) work.Put(keys::Rollout(id), text);
    if (!IsActive(work.rollout.state)) waits.erase(id);
    return {std::move(work.writes), keys::Rollout(id), held.modified, work.audit};
}

void Decisions::Decide(Work &work)
{
    Rollout &rollout = work.rollout;
    const bool isWayBack = (rollout.state == RolloutState::PAUSED ? rollout.pausedIn : rollout.state) ==
                           RolloutState::ROLLING_BACK;
    if (rollout.wish == Wish::ABORT && !isWayBack) return Abort(work);
    if (rollout.state == RolloutState::PAUSED) {
        TakeAnswers(work, false);
        const std::string many = ManyGone(rollout);
        rollout.message = rollout.wish == Wish::PAUSE && !isWayBack ? "paused by an operator" : many;
        if (!rollout.message.empty()) return;
        rollout.state = rollout.pausedIn;
        work.waits = {}; // the time of the pause does not count
    }
    std::string pause = ManyGone(rollout);
    if (rollout.wish == Wish::PAUSE && !isWayBack) pause = "paused by an operator";
    if (!pause.empty()) {
        rollout.pausedIn = rollout.state;
        rollout.state = RolloutState::PAUSED;
        rollout.message = pause;
        return;
    }
    if (rollout.state == RolloutState::ROLLING_BACK) return RollBack(work);
    if (rollout.state == RolloutState::RUNNING) return Run(work);
    rollout.message = BlockedBy(rollout.id);
    if (!rollout.message.empty()) return;
    if (rollout.hosts.empty())
        Select(work);
    else
        AskForPlans(work);
}

void Decisions::Abort(Work &work)
{
    if (!Count(work.rollout, IsTouched))
        return Finish(work, RolloutState::ABORTED, "aborted by an operator; no host was changed");
    if (!work.rollout.options.rollBack)
        return Finish(work, RolloutState::ABORTED, "aborted by an operator; nothing was rolled back");
    work.rollout.state = RolloutState::ROLLING_BACK;
    work.rollout.reason = "aborted by an operator";
    work.waits = {};
}

// ---- Planning ----

// Settles whom the rollout is about.
void Decisions::Select(Work &work)
{
    Rollout &rollout = work.rollout;
    const std::vector<std::string> hosts = HostsOf(rollout);
    if (hosts.empty()) return Finish(work, RolloutState::DONE, "no host has these labels");
    int64_t absent = 0;
    for (const std::string &host : hosts) {
        if (IsHere(host)) continue;
        if (!IsGone(host)) return; // it may be back in a moment
        absent++;
    }
    const bool isMost = absent == std::ssize(hosts) || (absent > 1 && absent * 2 > std::ssize(hosts));
    if (isMost && !rollout.options.withoutAbsent) {
        rollout.message = fmt::format("{} of {} hosts are unreachable; waits for them, or for "
                                      "`vsfleet resume {} --without-absent`",
                                      absent, hosts.size(), rollout.head.document.name);
        return;
    }
    rollout.hosts = hosts;
    for (const std::string &host : hosts) {
        if (!IsHere(host)) rollout.turns[host] = Turn::ABSENT;
    }
}

void Decisions::AskForPlans(Work &work)
{
    Rollout &rollout = work.rollout;
    const Desired desired(*fleet, {&rollout, true});
    bool isComplete = true;
    for (const std::string &host : rollout.hosts) {
        if (TurnOf(rollout, host) != Turn::WAITING) continue;
        const auto found = fleet->hosts.find(host);
        if (IsGone(host) || found == fleet->hosts.end()) {
            work.SetTurn(host, Turn::ABSENT);
            continue;
        }
        const Target target = desired.Of(host);
        if (target.phase == Phase::HOLD) {
            work.SetTurn(host, Turn::REFUSED);
            continue;
        }
        const HostView &view = found->second;
        const Target &present = view.target.record;
        const bool isAsked = present.rollout == rollout.id && present.phase == Phase::PLAN &&
                             present.documents == target.documents;
        const auto plan = view.plans.find(rollout.id);
        if (!isAsked) {
            isComplete = false;
            if (work.IsFull()) break;
            work.Put(keys::Target(host), ToText(AsAsked(target, Phase::PLAN, rollout)));
        } else if (plan != view.plans.end() && plan->second.record.target == view.target.modified) {
            if (!plan->second.record.error.empty()) work.SetTurn(host, Turn::REFUSED);
        } else if (IsLate(work, host)) {
            work.SetTurn(host, IsHere(host) ? Turn::REFUSED : Turn::ABSENT);
        } else {
            isComplete = false;
        }
    }
    if (isComplete) EndPlanning(work);
}

void Decisions::EndPlanning(Work &work)
{
    Rollout &rollout = work.rollout;
    if (rollout.options.planOnly) return Finish(work, RolloutState::DONE, "");
    if (Count(rollout, IsFailure) > rollout.options.maxFailures)
        return Finish(work, RolloutState::FAILED, "no host was changed: " + Failures(rollout));
    std::stable_partition(rollout.hosts.begin(), rollout.hosts.end(),
                          [&](const std::string &host) { return TurnOf(rollout, host) == Turn::WAITING; });
    rollout.state = RolloutState::RUNNING;
    work.waits = {};
}

// ---- Waves ----

void Decisions::TakeAnswers(Work &work, bool mayBeLate)
{
    Rollout &rollout = work.rollout;
    for (const std::string &host : rollout.hosts) {
        const Turn turn = TurnOf(rollout, host);
        if (!IsUndecided(turn)) continue;
        const bool isWayBack = turn == Turn::ROLLING_BACK;
        const auto found = fleet->hosts.find(host);
        const Status *answer = found == fleet->hosts.end() ? nullptr : found->second.Answer();
        const HostState state = answer ? answer->state : HostState::APPLYING;
        if (state == HostState::CONFIRMED || state == HostState::DRIFTED)
            work.SetTurn(host, isWayBack ? Turn::ROLLED_BACK : Turn::CONFIRMED);
        else if (state == HostState::FAILED || state == HostState::PARTLY_UNDONE || state == HostState::HELD)
            work.SetTurn(host, isWayBack ? Turn::ROLL_BACK_FAILED : Turn::FAILED);
        else if (mayBeLate && IsLate(work, host) && (IsHere(host) || IsGone(host)))
            work.SetTurn(host, isWayBack      ? Turn::ROLL_BACK_FAILED
                               : IsHere(host) ? Turn::SILENT
                                              : Turn::UNREACHABLE);
    }
}

void Decisions::Run(Work &work)
{
    Rollout &rollout = work.rollout;
    rollout.message.clear();
    TakeAnswers(work, true);
    if (Count(rollout, IsFailure) > rollout.options.maxFailures) return Stop(work, Failures(rollout));
    const bool isComplete = !Count(rollout, IsUndecided);
    const bool isLast = !Count(rollout, IsWaiting);
    if (isLast && isComplete) return Finish(work, RolloutState::DONE, "");
    if (isLast) return;
    const int64_t all = rollout.started + Count(rollout, IsWaiting);
    const int64_t end = WaveEnd(rollout.options, rollout.started, all);
    const bool isBetween = !rollout.started || WaveEnd(rollout.options, rollout.started - 1, all) < end;
    if (isBetween && !isComplete) return;
    if (isBetween && rollout.started) {
        if (!work.waits.soak) work.waits.soak = now;
        if (now - *work.waits.soak < std::chrono::seconds(rollout.options.soak)) return;
    }
    BeginWave(work, end);
}

void Decisions::BeginWave(Work &work, int64_t end)
{
    Rollout &rollout = work.rollout;
    const Desired desired(*fleet, {&rollout, true});
    for (; rollout.started < end && !work.IsFull(); rollout.started++) {
        const std::string &host = rollout.hosts[static_cast<size_t>(rollout.started)];
        if (IsGone(host)) {
            work.SetTurn(host, Turn::ABSENT);
            continue;
        }
        if (!IsHere(host)) break; // it may be back in a moment
        const Target target = desired.Of(host);
        work.SetTurn(host, target.phase == Phase::HOLD ? Turn::REFUSED : Turn::STARTED);
        if (target.phase != Phase::HOLD)
            work.Put(keys::Target(host), ToText(AsAsked(target, Phase::APPLY, rollout)));
    }
    work.waits.soak.reset();
}

void Decisions::Stop(Work &work, const std::string &message)
{
    if (!work.rollout.options.rollBack) return Finish(work, RolloutState::FAILED, message);
    work.rollout.state = RolloutState::ROLLING_BACK;
    work.rollout.reason = message;
    work.waits = {};
}

// ---- The way back ----

void Decisions::RollBack(Work &work)
{
    Rollout &rollout = work.rollout;
    rollout.message = rollout.reason;
    const Desired desired(*fleet, {&rollout, false});
    for (const std::string &host : rollout.hosts) {
        if (!IsTouched(TurnOf(rollout, host)) || work.IsFull()) continue;
        Target target = desired.Of(host);
        if (target.phase == Phase::APPLY) {
            target.allowRemovals = true; // of what the rollout has added
            target = AsAsked(target, Phase::APPLY, rollout);
        }
        work.Put(keys::Target(host), ToText(target));
        work.SetTurn(host, Turn::ROLLING_BACK);
    }
    if (!work.writes.empty()) return;
    TakeAnswers(work, true);
    if (Count(rollout, IsUndecided)) return;
    const auto failed =
        std::find_if(rollout.hosts.begin(), rollout.hosts.end(), [&](const std::string &host) {
            return TurnOf(rollout, host) == Turn::ROLL_BACK_FAILED;
        });
    if (failed != rollout.hosts.end())
        return Finish(work, RolloutState::FAILED,
                      fmt::format("the roll-back failed on {}: {} ({})", *failed, ReasonOf(rollout, *failed),
                                  rollout.reason));
    const bool isAborted = rollout.wish == Wish::ABORT;
    Finish(work, isAborted ? RolloutState::ABORTED : RolloutState::ROLLED_BACK, rollout.reason);
}

void Decisions::Finish(Work &work, RolloutState state, const std::string &message)
{
    Rollout &rollout = work.rollout;
    rollout.state = state;
    rollout.message = message;
    if (rollout.options.planOnly) return;

    // Without a host that follows it, the new head holds no longer.
    const std::string &name = rollout.head.document.name;
    const auto head = fleet->heads.find(name);
    const bool isOurs = head != fleet->heads.end() && head->second.record.document == rollout.head.document;
    const bool isUndone = state != RolloutState::DONE && !Count(rollout, IsTouched);
    // Hosts that come later have to be told what to remove.
    const bool isGone = state == RolloutState::DONE && rollout.head.isRemoved &&
                        (!rollout.head.prune || Count(rollout, IsConfirmed) == std::ssize(rollout.hosts));
    if (isOurs && isUndone && rollout.before.document.revision)
        work.Put(keys::Head(name), ToText(rollout.before));
    else if (isOurs && (isUndone || isGone))
        work.writes.push_back({keys::Head(name), "", true});

    Audit audit;
    audit.action = Json(state).get<std::string>();
    audit.document = rollout.head.document;
    audit.previous = rollout.before.document.revision;
    audit.rollout = rollout.id;
    audit.detail = message;
    work.audit = audit;
}

// ---- Outside of rollouts ----

// Hosts that no rollout holds get what their labels say.
Step Decisions::Converge() const
{
    std::set<std::string> held;
    for (const auto &[id, rollout] : fleet->rollouts) {
        if (!IsActive(rollout.record.state)) continue;
        for (const std::string &host : rollout.record.hosts) {
            const Turn turn = TurnOf(rollout.record, host);
            if (turn != Turn::ABSENT && turn != Turn::REFUSED) held.insert(host);
        }
    }
    const Desired desired(*fleet);
    Step step;
    for (const auto &[host, view] : fleet->hosts) {
        if (step.writes.size() == MAX_WRITES) break;
        if (held.contains(host)) continue;
        const Target target = desired.Of(host);
        const bool isNothing = target.documents.empty() && target.prune.empty();
        if (view.target.modified ? AsksForTheSame(view.target.record, target) : isNothing) continue;
        step.writes.push_back({keys::Target(host), ToText(target), false, view.target.modified});
    }
    return step;
}

// Whether a later rollout of the document has followed.
bool Decisions::IsFollowed(const Held<Rollout> &held) const
{
    return std::any_of(fleet->rollouts.begin(), fleet->rollouts.end(), [&](const auto &item) {
        const Held<Rollout> &other = item.second;
        return other.record.head.document.name == held.record.head.document.name &&
               other.created > held.created &&
               (held.record.options.planOnly || !other.record.options.planOnly);
    });
}

// Removes rollouts that are over and done with, and plans without a rollout.
Step Decisions::Tidy() const
{
    Step step;
    for (const auto &[id, held] : fleet->rollouts) {
        if (IsActive(held.record.state) || !IsFollowed(held)) continue;
        step.rollout = keys::Rollout(id); // a number that is free again may be another document's soon
        step.modified = held.modified;
        step.writes.push_back({step.rollout, "", true});
        const DocumentRevision &document = held.record.head.document;
        if (held.record.options.planOnly && !IsUsed(*fleet, document, id))
            step.writes.push_back({DocumentKey(document), "", true});
        return step;
    }
    for (const auto &[host, view] : fleet->hosts) {
        for (const auto &[id, plan] : view.plans) {
            if (fleet->rollouts.contains(id) || step.writes.size() == MAX_WRITES) continue;
            step.writes.push_back({keys::Plan(host, id), "", true});
        }
    }
    return step;
}

}
