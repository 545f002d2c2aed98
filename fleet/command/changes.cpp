// push, diff, rollback, remove, pause, resume, abort: what operators do with documents.
#include <CLI/CLI.hpp>
#include <cmath>
#include <fmt/format.h>

#include "fleet/command/commands.h"
#include "fleet/command/follow.h"
#include "fleet/command/plan_file.h"
#include "fleet/protocol/certificates.h"
#include "fleet/protocol/documents.h"
#include "fleet/protocol/keys.h"
#include "fleet/rollout/desired.h"

namespace vsfleet {

namespace {

// How a rollout is to go, as words of the command line.
struct WaveArguments {
    int64_t canary = 0, maxFailures = 0;
    std::string batch, soak = "0s", deadline = "5m";
    bool noRollback = false, detach = false, wait = false;
};

void AddWaves(CLI::App &app, WaveArguments &given)
{
    app.add_option("--canary", given.canary, "Hosts of the first wave")->check(CLI::NonNegativeNumber);
    app.add_option("--batch", given.batch, "Hosts of each further wave, like 10 or 25%; all without it");
    app.add_option("--soak", given.soak, "Time between two waves, like 30s or 5m");
    app.add_option("--max-failures", given.maxFailures, "Failures in the whole rollout that don't stop it")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--deadline", given.deadline, "Time in which a host has to confirm the change (5m)");
    app.add_flag("--no-rollback", given.noRollback, "When it stops, leave the hosts as they are");
    CLI::Option *detach = app.add_flag("--detach", given.detach, "Don't wait for the end");
    app.add_flag("--wait", given.wait, "Wait for the end, which is what happens without --detach")
        ->excludes(detach);
}

int64_t WholeSeconds(const std::string &option, const std::string &text)
{
    return std::llround(std::ceil(ParseSeconds(option, text, 0)));
}

RolloutOptions OptionsOf(const WaveArguments &given)
{
    RolloutOptions options;
    options.canary = given.canary;
    options.maxFailures = given.maxFailures;
    options.soak = WholeSeconds("--soak", given.soak);
    options.deadline = WholeSeconds("--deadline", given.deadline);
    options.rollBack = !given.noRollback;
    if (options.deadline < 1) throw Error(Exit::USAGE, "--deadline: give a second or more");
    if (given.batch.empty()) return options;
    std::string digits = given.batch;
    const bool isPercent = digits.back() == '%';
    if (isPercent) digits.pop_back();
    const bool isNumber =
        !digits.empty() && digits.size() < 9 && digits.find_first_not_of("0123456789") == std::string::npos;
    const int64_t number = isNumber ? std::stoll(digits) : 0;
    if (number < 1 || (isPercent && number > 100))
        throw Error(Exit::USAGE, fmt::format("--batch: '{}' is not a number of hosts", given.batch),
                    "write it like 10 or 25%");
    (isPercent ? options.batchPercent : options.batch) = number;
    return options;
}

// A change of what a document is, which becomes a rollout.
struct Change {
    Rollout rollout;
    std::string action;
    std::optional<StoredDocument> document; // that is new
};

// What holds now, and again after a roll-back.
Head HeadNow(const Fleet &fleet, const std::string &name)
{
    const Held<Rollout> *last = fleet.LastRollout(name);
    const auto found = fleet.heads.find(name);
    Head head;
    if (last && last->record.state != RolloutState::DONE)
        head = last->record.before; // the last rollout was stopped on its way
    else if (found != fleet.heads.end())
        head = found->second.record;
    return head.isRemoved ? Head() : head;
}

const Head &RequireHead(const Fleet &fleet, const std::string &name)
{
    const auto found = fleet.heads.find(name);
    if (found == fleet.heads.end())
        throw Error(Exit::NOT_FOUND, fmt::format("there is no document '{}'", name),
                    "`vsfleet status` lists them");
    return found->second.record;
}

int64_t NextRevision(const Fleet &fleet, const std::string &name)
{
    int64_t last = 0;
    if (const auto documents = fleet.documents.find(name);
        documents != fleet.documents.end() && !documents->second.empty())
        last = documents->second.rbegin()->first;
    for (const auto &[id, rollout] : fleet.rollouts) {
        if (rollout.record.head.document.name == name)
            last = std::max(last, rollout.record.head.document.revision);
    }
    return last + 1;
}

void RefuseWhileRunning(const Fleet &fleet, const std::string &name)
{
    const Held<Rollout> *last = fleet.LastRollout(name);
    if (!last || !IsActive(last->record.state)) return;
    throw Error(Exit::FAILURE,
                fmt::format("a rollout of '{}' by {} is {}", name, last->record.author,
                            Json(last->record.state).get<std::string>()),
                fmt::format("wait for it, or `vsfleet abort {}`", name));
}

// Refuses documents of which two would name one switch on a host.
void RefuseConflicts(Fleet fleet, const Change &change)
{
    const DocumentRevision &document = change.rollout.head.document;
    if (change.document) fleet.documents[document.name][document.revision] = *change.document;
    const Desired desired(fleet, {&change.rollout, true});
    for (const auto &[host, view] : fleet.hosts) {
        const Target target = desired.Of(host);
        if (target.reason.find("'" + document.name + "'") != std::string::npos)
            throw Error(Exit::BAD_VALUE, fmt::format("{}, on host {}", target.reason, host),
                        "take the switch out of one of them, or select other hosts");
    }
}

// "for site=a, canary 1, batch 25%", for the history.
std::string DetailOf(const Rollout &rollout)
{
    const RolloutOptions &options = rollout.options;
    const std::string selector = Join(rollout.head.selector);
    std::string text = "for " + (selector.empty() ? "every host" : selector);
    const auto add = [&](const char *name, int64_t value, const char *unit = "") {
        if (value) text += fmt::format(", {} {}{}", name, value, unit);
    };
    add("canary", options.canary);
    add("batch", options.batch);
    add("batch", options.batchPercent, "%");
    add("soak", options.soak, "s");
    add("at most", options.maxFailures, " failures");
    if (!options.rollBack) text += ", without a roll-back";
    if (rollout.head.repair) text += ", with repair";
    if (rollout.head.allowRemovals) text += ", removals allowed";
    if (rollout.head.prune) text += ", its switches too";
    return text;
}

// Writes the change; the driver does the rest.
void Submit(Console &console, Change &change)
{
    Rollout &rollout = change.rollout;
    const DocumentRevision &document = rollout.head.document;
    rollout.id = RandomId();
    rollout.author = Author();
    rollout.before = HeadNow(console.fleet, document.name);
    rollout.head.previous = rollout.before.document.revision;
    RefuseConflicts(console.fleet, change);

    const auto head = console.fleet.heads.find(document.name);
    Transaction transaction;
    transaction.IfModified(keys::Head(document.name),
                           head == console.fleet.heads.end() ? 0 : head->second.modified);
    if (const Held<Rollout> *last = console.fleet.LastRollout(document.name))
        transaction.IfModified(keys::Rollout(last->record.id), last->modified);
    if (change.document) {
        const std::string key = keys::Revision(document.name, document.revision);
        transaction.IfModified(key, 0).Put(key, ToText(*change.document));
    }
    if (!rollout.options.planOnly) transaction.Put(keys::Head(document.name), ToText(rollout.head));
    transaction.Put(keys::Rollout(rollout.id), ToText(rollout));
    Audit audit = console.NewAudit(change.action);
    audit.document = document;
    audit.previous = rollout.head.previous;
    audit.rollout = rollout.id;
    audit.detail = DetailOf(rollout);
    if (!console.Commit(transaction, audit))
        throw Error(Exit::FAILURE, fmt::format("somebody else changed '{}' at the same time", document.name),
                    fmt::format("look at `vsfleet status {}` and try again", document.name));
    if (!console.fleet.leader)
        Note("no driver leads, so nothing happens until one does; start `vsfleet drive` "
             "(vsfleet-drive.service)");
}

Exit SubmitAndFollow(Console &console, Change &change, bool detach)
{
    Submit(console, change);
    if (!detach) return Report(console, Follow(console, change.rollout.id));
    const DocumentRevision &document = change.rollout.head.document;
    console.PrintRows({{{"name", document.name},
                        {"revision", document.revision},
                        {"rollout", change.rollout.id},
                        {"state", Json(change.rollout.state).get<std::string>()}}});
    return Exit::DONE;
}

Labels ParseSelector(const std::string &text)
{
    try {
        return ParseLabels(text);
    } catch (const std::runtime_error &error) {
        throw Error(Exit::USAGE, error.what());
    }
}

StoredDocument StoreOrRefuse(const std::string &text)
{
    try {
        return Store(text);
    } catch (const std::runtime_error &error) {
        throw Error(Exit::BAD_VALUE, error.what());
    }
}

struct PushArguments {
    std::string name, file, select;
    bool all = false, repair = false, allowRemovals = false;
    WaveArguments waves;
};

void AddSelection(CLI::App &app, PushArguments &given)
{
    app.add_option("NAME", given.name, "The document")->required();
    app.add_option("FILE", given.file, "A plan file of vsctl")->required();
    CLI::Option *all = app.add_flag("--all", given.all, "For every host");
    app.add_option("--select", given.select, "For hosts with these labels, like site=a,role=edge")
        ->excludes(all);
    app.add_flag("--allow-removals", given.allowRemovals, "The document may remove ports and switches");
}

// The change that pushes the file.
Change ChangeOf(Console &console, const PushArguments &given)
{
    CheckName(given.name, "a document's name");
    Change change;
    change.document = StoreOrRefuse(ReadPlanFile(console.config.vsctl, given.file));
    console.ReadFleet();
    const Head now = HeadNow(console.fleet, given.name);
    Head &head = change.rollout.head;
    head.document = {given.name, NextRevision(console.fleet, given.name), change.document->sum};
    head.selector = given.select.empty() ? now.selector : ParseSelector(given.select);
    if (given.all) head.selector.clear();
    if (given.select.empty() && !given.all && !now.document.revision)
        throw Error(Exit::USAGE, fmt::format("'{}' is new", given.name),
                    "say which hosts follow it: --select LABELS or --all");
    head.repair = given.repair;
    head.allowRemovals = given.allowRemovals;
    return change;
}

Exit Push(Console &console, const PushArguments &given)
{
    const RolloutOptions options = OptionsOf(given.waves);
    Change change = ChangeOf(console, given);
    RefuseWhileRunning(console.fleet, given.name);
    change.action = console.command;
    change.rollout.options = options;
    return SubmitAndFollow(console, change, given.waves.detach);
}

// The steps that a host plans, and what keeps it from planning.
Rows DiffRows(const Fleet &fleet, const Rollout &rollout)
{
    Rows rows = Rows::array();
    for (const std::string &host : rollout.hosts) {
        const auto turn = rollout.turns.find(host);
        Rows row = {{"host", host}, {"changes", nullptr}, {"steps", Rows::array()}, {"error", ""}};
        if (turn != rollout.turns.end() && turn->second == Turn::ABSENT) row["error"] = "unreachable";
        const auto view = fleet.hosts.find(host);
        if (view == fleet.hosts.end()) continue;
        const auto plan = view->second.plans.find(rollout.id);
        if (plan != view->second.plans.end()) {
            row["changes"] = plan->second.record.changes;
            row["steps"] = plan->second.record.steps;
            row["error"] = plan->second.record.error;
        } else if (row["error"] == "") {
            row["error"] = "no answer in time";
        }
        rows.push_back(row);
    }
    return rows;
}

// As people read it: a line for each step.
Rows DiffLines(const Rows &hosts)
{
    Rows lines = Rows::array();
    for (const Rows &row : hosts) {
        if (row["error"] != "") lines.push_back({{"host", row["host"]}, {"error", row["error"]}});
        for (const Rows &step : row["steps"]) {
            Rows line = {{"host", row["host"]}};
            for (const char *column : {"switch", "port", "item", "before", "after"})
                line[column] = step.contains(column) ? step[column] : Rows();
            lines.push_back(line);
        }
    }
    return lines;
}

Exit Diff(Console &console, const PushArguments &given)
{
    Change change = ChangeOf(console, given);
    RefuseWhileRunning(console.fleet, given.name);
    change.action = console.command;
    change.rollout.options.planOnly = true;
    change.rollout.options.withoutAbsent = true;
    change.rollout.options.deadline = WholeSeconds("--deadline", given.waves.deadline);
    Submit(console, change);
    const Rollout rollout = Follow(console, change.rollout.id);
    const Rows rows = DiffRows(console.fleet, rollout);
    if (console.json)
        console.PrintRows(rows);
    else
        console.PrintRows(DiffLines(rows));
    if (rollout.state != RolloutState::DONE) return Report(console, rollout);
    bool isAny = false;
    for (const Rows &row : rows) {
        if (row["error"] != "")
            throw Error(Exit::FAILURE, fmt::format("{}: {}", row["host"].get<std::string>(),
                                                   row["error"].get<std::string>()));
        isAny = isAny || row["changes"] != 0;
    }
    if (!isAny) Note(rows.empty() ? "no host has these labels" : "nothing to change");
    return isAny ? Exit::PENDING : Exit::DONE;
}

// A change of the present head, as far as all such changes are alike.
Change ChangeOfHead(Console &console, const std::string &name, const WaveArguments &waves)
{
    Change change;
    change.action = console.command;
    change.rollout.options = OptionsOf(waves);
    console.ReadFleet();
    change.rollout.head = RequireHead(console.fleet, name);
    RefuseWhileRunning(console.fleet, name);
    return change;
}

struct RollbackArguments {
    std::string name;
    int64_t revision = 0;
    WaveArguments waves;
};

Exit RollBack(Console &console, const RollbackArguments &given)
{
    Change change = ChangeOfHead(console, given.name, given.waves);
    Head &head = change.rollout.head;
    const int64_t revision = given.revision ? given.revision : head.previous;
    if (!revision)
        throw Error(Exit::NOT_FOUND,
                    fmt::format("'{}' has no revision before {}", given.name, head.document.revision));
    const auto &revisions = console.fleet.documents[given.name];
    const auto document = revisions.find(revision);
    if (document == revisions.end())
        throw Error(Exit::NOT_FOUND, fmt::format("'{}' has no revision {}", given.name, revision),
                    fmt::format("`vsfleet history {}` lists them", given.name));
    head.document = {given.name, revision, document->second.sum};
    head.isRemoved = head.prune = false;
    head.allowRemovals = true; // of what the later revision has added
    return SubmitAndFollow(console, change, given.waves.detach);
}

struct RemoveArguments {
    std::string name;
    bool prune = false;
    WaveArguments waves;
};

Exit Remove(Console &console, const RemoveArguments &given)
{
    Change change = ChangeOfHead(console, given.name, given.waves);
    Head &head = change.rollout.head;
    if (head.isRemoved && head.prune == given.prune)
        throw Error(Exit::EXISTS, fmt::format("'{}' has been removed", given.name),
                    "hosts that have been absent follow when they are back");
    head.isRemoved = true;
    head.prune = given.prune;
    head.allowRemovals = given.prune;
    return SubmitAndFollow(console, change, given.waves.detach);
}

// Asks the driver for something in a running rollout.
Exit Ask(Console &console, const std::string &name, Wish wish, bool withoutAbsent)
{
    static const std::map<Wish, const char *> ACTIONS = {
        {Wish::PAUSE, "pause"}, {Wish::GO_ON, "resume"}, {Wish::ABORT, "abort"}};
    console.ReadFleet();
    const Held<Rollout> *last = console.fleet.LastRollout(name);
    if (!last || !IsActive(last->record.state))
        throw Error(Exit::NOT_FOUND, fmt::format("no rollout of '{}' is running", name));
    Rollout rollout = last->record;
    if (wish == Wish::PAUSE && rollout.state == RolloutState::ROLLING_BACK)
        throw Error(Exit::FAILURE, fmt::format("'{}' is rolling back, which can't be paused", name));
    if (rollout.wish == Wish::ABORT && wish != Wish::ABORT)
        throw Error(Exit::FAILURE, fmt::format("'{}' has been aborted already", name));
    rollout.wish = wish;
    rollout.options.withoutAbsent = rollout.options.withoutAbsent || withoutAbsent;
    Transaction transaction;
    const std::string key = keys::Rollout(rollout.id);
    transaction.IfModified(key, last->modified).Put(key, ToText(rollout));
    Audit audit = console.NewAudit(ACTIONS.at(wish));
    audit.document = rollout.head.document;
    audit.previous = rollout.before.document.revision;
    audit.rollout = rollout.id;
    if (!console.Commit(transaction, audit)) return Ask(console, name, wish, withoutAbsent); // it went on
    console.PrintRows({{{"name", name},
                        {"revision", rollout.head.document.revision},
                        {"wish", Json(wish).get<std::string>()}}});
    return Exit::DONE;
}

template<Wish WISH> Action AddAsk(CLI::App &app, const char *command)
{
    const auto name = std::make_shared<std::string>();
    const auto withoutAbsent = std::make_shared<bool>();
    const auto json = AddJson(app);
    app.add_option("NAME", *name, "The document")->required();
    if (WISH == Wish::GO_ON)
        app.add_flag("--without-absent", *withoutAbsent, "Don't wait for hosts that are unreachable");
    return Guarded(command, json,
                   [=](Console &console) { return Ask(console, *name, WISH, *withoutAbsent); });
}

}

std::shared_ptr<bool> AddJson(CLI::App &app)
{
    const auto json = std::make_shared<bool>(false);
    app.add_flag("--json", *json, "Print JSON");
    return json;
}

Action AddPush(CLI::App &app)
{
    const auto given = std::make_shared<PushArguments>();
    const auto json = AddJson(app);
    AddSelection(app, *given);
    app.add_flag("--repair", given->repair, "Bring hosts back that differ from the document later");
    AddWaves(app, given->waves);
    return Guarded("push", json, [=](Console &console) { return Push(console, *given); });
}

Action AddDiff(CLI::App &app)
{
    const auto given = std::make_shared<PushArguments>();
    const auto json = AddJson(app);
    AddSelection(app, *given);
    given->waves.deadline = "30s";
    app.add_option("--deadline", given->waves.deadline, "Time in which a host has to answer (30s)");
    return Guarded("diff", json, [=](Console &console) { return Diff(console, *given); });
}

Action AddRollback(CLI::App &app)
{
    const auto given = std::make_shared<RollbackArguments>();
    const auto json = AddJson(app);
    app.add_option("NAME", given->name, "The document")->required();
    app.add_option("REVISION", given->revision, "The revision to go to; without it the one before");
    AddWaves(app, given->waves);
    return Guarded("rollback", json, [=](Console &console) { return RollBack(console, *given); });
}

Action AddRemove(CLI::App &app)
{
    const auto given = std::make_shared<RemoveArguments>();
    const auto json = AddJson(app);
    app.add_option("NAME", given->name, "The document")->required();
    app.add_flag("--prune", given->prune, "Remove its switches from the hosts too");
    AddWaves(app, given->waves);
    return Guarded("remove", json, [=](Console &console) { return Remove(console, *given); });
}

Action AddPause(CLI::App &app) { return AddAsk<Wish::PAUSE>(app, "pause"); }
Action AddResume(CLI::App &app) { return AddAsk<Wish::GO_ON>(app, "resume"); }
Action AddAbort(CLI::App &app) { return AddAsk<Wish::ABORT>(app, "abort"); }

}
