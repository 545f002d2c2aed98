// A change of the host, in the stages of the journal.
#include "fleet/agent/change.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <poll.h>

namespace vsfleet {

namespace {

// Files of the state.
constexpr const char *NEXT = "next.json";         // what the host is to be
constexpr const char *CHECKED = "checked.json";   // one document
constexpr const char *PRESENT = "present.json";   // the documents that it follows
constexpr const char *REPLACED = "replaced.json"; // what it was: what only this file names goes

constexpr const char *NOT_IN_TIME = "the change was not confirmed in time, and is undone";
constexpr size_t MAX_STEPS = 20, MAX_STEP_SIZE = 2000;
constexpr Milliseconds RETRY{250};

std::string Seconds(std::chrono::seconds time) { return fmt::format("{}s", time.count()); }

// Throws when two documents name one switch: neither of them would be followed whole.
Json MergeDistinct(const std::vector<DocumentRevision> &documents, const std::vector<std::string> &texts)
{
    std::map<std::string, std::string> owners;
    std::vector<Json> files;
    for (size_t i = 0; i < texts.size(); i++) {
        files.push_back(Json::parse(texts[i]));
        const Json switches = files.back().value("switches", Json::object());
        for (const auto &[alias, entry] : switches.items()) {
            const auto [owner, isNew] = owners.emplace(alias, documents[i].name);
            if (!isNew)
                throw std::runtime_error(fmt::format("the documents '{}' and '{}' both name the switch '{}'",
                                                     owner->second, documents[i].name, alias));
        }
    }
    return Merge(files);
}

bool Names(const Order &order, const std::string &document)
{
    return std::find(order.prune.begin(), order.prune.end(), document) != order.prune.end() ||
           std::any_of(order.documents.begin(), order.documents.end(),
                       [&](const DocumentRevision &other) { return other.name == document; });
}

}

Json FirstSteps(const Json &rows)
{
    Json steps = Json::array();
    for (const Json &row : rows) {
        if (steps.size() == MAX_STEPS) break;
        steps.push_back(row);
        if (row.dump().size() <= MAX_STEP_SIZE) continue;
        for (const char *value : {"before", "after"}) {
            if (row.contains(value) && row[value].dump().size() > MAX_STEP_SIZE / 2)
                steps.back()[value] = "…";
        }
    }
    return steps;
}

Changer::Changer(const Config &config, State &state, Session &session, std::function<bool()> mayGoOn)
    : state(state), session(session), mayGoOn(std::move(mayGoOn)), vsctl(config.vsctl, [&session] {
          try {
              session.Tick();
          } catch (const std::runtime_error &) {
              // The change goes on. What comes after it notices that etcd or the claim is gone.
          }
      })
{}

// Writes what the host is to be and what it was. Documents that the order no longer names stay as they are.
void Changer::Prepare(const Order &order)
{
    std::vector<std::string> texts;
    for (const DocumentRevision &document : order.documents)
        texts.push_back(session.Text(document));
    state.Write(NEXT, MergeDistinct(order.documents, texts).dump());

    std::vector<Json> replaced;
    for (const DocumentRevision &document : state.memory.documents) {
        if (Names(order, document.name)) replaced.push_back(Json::parse(session.Text(document)));
    }
    state.Write(REPLACED, Merge(replaced).dump());
}

namespace {

std::vector<std::string> ApplyWords(const State &state, const Order &order)
{
    std::vector<std::string> words = {"apply", state.Path(NEXT), "--replaces", state.Path(REPLACED)};
    if (order.allowRemovals) words.push_back("--allow-removals");
    return words;
}

}

// The problem, with the name of the document that this version of vsctl doesn't understand.
std::string Changer::Explained(const Order &order, const VsctlAnswer &answer)
{
    if (answer.exit != Exit::BAD_VALUE) return answer.problem;
    for (const DocumentRevision &document : order.documents) {
        state.Write(CHECKED, session.Text(document));
        const VsctlAnswer check = vsctl.Run({"plan", state.Path(CHECKED), "--check"});
        if (check.exit != Exit::BAD_VALUE) continue;
        const std::string path = state.Path(CHECKED) + ": ";
        const size_t place = check.problem.starts_with(path) ? path.size() : 0;
        return fmt::format("document '{}', revision {}: {}", document.name, document.revision,
                           check.problem.substr(place));
    }
    return answer.problem;
}

Plan Changer::PlanFor(const Order &order)
{
    Plan plan;
    plan.target = order.target;
    try {
        Prepare(order);
    } catch (const EtcdError &) {
        throw;
    } catch (const std::runtime_error &error) {
        plan.error = error.what();
        return plan;
    }
    std::vector<std::string> words = ApplyWords(state, order);
    words.push_back("--dry-run");
    const VsctlAnswer answer = vsctl.Run(words, order.deadline);
    plan.error = Explained(order, answer);
    plan.changes = static_cast<int64_t>(answer.rows.size());
    plan.steps = FirstSteps(answer.rows);
    return plan;
}

// False: nothing was begun, and what there is to say of it is said.
bool Changer::Begin(const Order &order)
{
    try {
        Prepare(order);
    } catch (const EtcdError &) {
        throw;
    } catch (const std::runtime_error &error) {
        End(order, HostState::FAILED, error.what());
        return false;
    }
    // etcd must be there, and the order still be the last one.
    Memory &memory = state.memory;
    Status status = memory.status;
    status.state = HostState::APPLYING;
    status.target = order.target;
    status.error.clear();
    if (!session.Report(status, order.target)) return false;
    if (const std::string problem = Undo(); !problem.empty()) {
        End(order, HostState::PARTLY_UNDONE, "the change before this one is not undone: " + problem);
        return false;
    }
    memory.stage = Stage::APPLYING;
    memory.target = order.target;
    memory.next = order.documents;
    state.Save();
    return true;
}

void Changer::CarryOut(const Order &order)
{
    if (!Begin(order)) return;
    std::vector<std::string> words = ApplyWords(state, order);
    words.insert(words.end(),
                 {"--confirm-within", Seconds(order.confirm), "--deadline", Seconds(order.deadline)});
    // vsctl ends by itself when the time is over, and takes its time to undo what it has done.
    const VsctlAnswer answer = vsctl.Run(words, 2 * order.deadline);
    const Clock::time_point until = Clock::now() + order.confirm - order.confirm / 5;
    if (answer.exit == Exit::PARTLY_UNDONE) return End(order, HostState::PARTLY_UNDONE, answer.problem);
    // Killed, or refused.
    if (answer.exit != Exit::DONE) return UndoAndEnd(order, Explained(order, answer));

    switch (ReportOnNewConnection(order, until)) {
    case Reported::YES:
        break;
    case Reported::OTHER_TARGET:
        return UndoAndEnd(order, "another target came before this change was reported");
    case Reported::TOO_LATE:
        return UndoAndEnd(order, "etcd could not be reached after the change, which was undone");
    case Reported::RESTORED:
        return UndoAndEnd(order, "etcd was restored from a backup during the change, which was undone");
    }
    state.memory.stage = Stage::REPORTED;
    state.Save();
    if (answer.rows.empty()) return End(order, HostState::CONFIRMED, "");
    Confirm(order);
}

// A connection from before the change may live although the change keeps every new one from being made.
Changer::Reported Changer::ReportOnNewConnection(const Order &order, Clock::time_point until)
{
    Status status = state.memory.status;
    status.state = HostState::UNCONFIRMED;
    status.target = order.target;
    status.error.clear();
    do {
        try {
            session.Reset();
            session.Begin();
            return session.Report(status, order.target) ? Reported::YES : Reported::OTHER_TARGET;
        } catch (const EtcdError &error) {
            if (error.kind == EtcdError::Kind::RESTORED) return Reported::RESTORED;
        } catch (const ClaimLost &) {
        } catch (const ClaimRefused &) {
            return Reported::TOO_LATE;
        }
        poll(nullptr, 0, static_cast<int>(RETRY.count()));
    } while (Clock::now() < until && mayGoOn());
    return Reported::TOO_LATE;
}

void Changer::Confirm(const Order &order)
{
    const VsctlAnswer answer = vsctl.Run({"confirm"});
    if (answer.exit == Exit::DONE) return End(order, HostState::CONFIRMED, "");
    if (!IsOwnChangePending()) return Settle(order);
    UndoAndEnd(order, answer.exit == Exit::TIMED_OUT ? NOT_IN_TIME : answer.problem);
}

// The change was confirmed, or undone before it could be.
void Changer::Settle(const Order &order)
{
    const bool isAsBefore = vsctl.Run({"plan", state.Path(REPLACED)}).exit == Exit::DONE;
    const bool isThere =
        vsctl.Run({"plan", state.Path(NEXT), "--replaces", state.Path(REPLACED)}).exit == Exit::DONE;
    if (isThere || !isAsBefore)
        End(order, HostState::CONFIRMED, "");
    else
        End(order, HostState::FAILED, NOT_IN_TIME);
}

void Changer::End(const Order &order, HostState end, const std::string &error)
{
    Memory &memory = state.memory;
    memory.stage = Stage::IDLE;
    memory.next.clear();
    Status &status = memory.status;
    if (end == HostState::CONFIRMED) memory.documents = order.documents;
    // A repair that fails leaves the host as it was: not as its documents say.
    status.state = order.isRepair && end == HostState::FAILED ? HostState::DRIFTED : end;
    status.target = order.target;
    status.documents = memory.documents;
    status.error = error;
    if (status.state != HostState::DRIFTED) status.drift = Json::array();
    state.Save();
    if (end == HostState::CONFIRMED) state.RemoveOthers();
}

void Changer::UndoAndEnd(const Order &order, const std::string &why)
{
    const std::string problem = Undo();
    if (problem.empty()) return End(order, HostState::FAILED, why);
    End(order, HostState::PARTLY_UNDONE, fmt::format("{}; {}", why, problem));
}

// Somebody's own change on this host is not ours to undo or confirm.
bool Changer::IsOwnChangePending()
{
    for (const Json &part : vsctl.Run({"doctor"}).rows) {
        if (part.value("part", "") == "changes")
            return part.value("state", "").find(state.Path(NEXT)) != std::string::npos;
    }
    return false;
}

// Undoes our change, if there is one. Returns what is wrong; empty: nothing is left of it.
std::string Changer::Undo()
{
    if (!IsOwnChangePending()) return "";
    const VsctlAnswer answer = vsctl.Run({"apply", "--undo"});
    // The process that guards the change may have come first.
    return answer.exit == Exit::DONE || answer.exit == Exit::NOT_FOUND ? "" : answer.problem;
}

bool Changer::Recover()
{
    Memory &memory = state.memory;
    if (memory.stage == Stage::IDLE) return true;
    if (vsctl.Run({"switch", "list"}).exit == Exit::UNREACHABLE) return false;
    Order order;
    order.target = memory.target;
    order.documents = memory.next;
    if (memory.stage == Stage::APPLYING) {
        UndoAndEnd(order, "the agent ended during the change, which was undone");
    } else if (IsOwnChangePending()) {
        Confirm(order);
    } else {
        Settle(order);
    }
    return true;
}

VsctlAnswer Changer::Drift()
{
    std::vector<Json> files;
    for (const DocumentRevision &document : state.memory.documents)
        files.push_back(Json::parse(session.Text(document)));
    state.Write(PRESENT, Merge(files).dump());
    return vsctl.Run({"plan", state.Path(PRESENT)});
}

}
