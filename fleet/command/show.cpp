// status, hosts, watch, history: what operators see.
#include <CLI/CLI.hpp>
#include <fmt/chrono.h>
#include <fstream>

#include "fleet/command/commands.h"
#include "fleet/command/follow.h"
#include "fleet/protocol/certificates.h"
#include "fleet/protocol/documents.h"
#include "fleet/protocol/keys.h"

namespace vsfleet {

namespace {

constexpr int WARNING_DAYS = 30;
constexpr time_t SECONDS_OF_DAY = 86400;

std::string StateText(const HostView &view)
{
    const std::string state = Json(view.status.record.state).get<std::string>();
    if (!view.IsHere()) return view.status.modified ? "unreachable, was " + state : "unreachable";
    return state;
}

// The revision of a document that a host follows; 0: none.
int64_t RevisionAt(const HostView &view, const std::string &name)
{
    for (const DocumentRevision &document : view.status.record.documents) {
        if (document.name == name) return document.revision;
    }
    return 0;
}

// A row for each document: how many hosts follow it, and its last rollout.
Rows DocumentRows(const Fleet &fleet)
{
    Rows rows = Rows::array();
    for (const auto &[name, held] : fleet.heads) {
        const Head &head = held.record;
        int64_t all = 0, follow = 0, drifted = 0;
        for (const auto &[host, view] : fleet.hosts) {
            if (!Matches(head.selector, view.labels.record)) continue;
            all++;
            const bool isHere = RevisionAt(view, name) == (head.isRemoved ? 0 : head.document.revision);
            follow += isHere;
            drifted += isHere && view.status.record.state == HostState::DRIFTED;
        }
        Rows row = {{"name", name},
                    {"revision", head.document.revision},
                    {"selector", Join(head.selector)},
                    {"hosts", all},
                    {"following", follow},
                    {"drifted", drifted}};
        if (head.isRemoved) row["selector"] = "removed";
        const Held<Rollout> *last = fleet.LastRollout(name);
        row["rollout"] = last ? Rows(Json(last->record.state).get<std::string>()) : Rows();
        row["turns"] = last ? TurnCounts(last->record) : Rows();
        row["message"] = last ? Rows(last->record.message) : Rows();
        rows.push_back(row);
    }
    return rows;
}

// A row for each host that a document is for, or that follows it.
Rows DocumentHostRows(const Fleet &fleet, const std::string &name)
{
    const auto head = fleet.heads.find(name);
    const Held<Rollout> *last = fleet.LastRollout(name);
    if (head == fleet.heads.end() && !last)
        throw Error(Exit::NOT_FOUND, fmt::format("there is no document '{}'", name),
                    "`vsfleet status` lists them");
    Rows rows = Rows::array();
    for (const auto &[host, view] : fleet.hosts) {
        const bool isMeant =
            head != fleet.heads.end() && Matches(head->second.record.selector, view.labels.record);
        const int64_t revision = RevisionAt(view, name);
        const bool isInRollout = last && std::find(last->record.hosts.begin(), last->record.hosts.end(),
                                                   host) != last->record.hosts.end();
        if (!isMeant && !revision && !isInRollout) continue;
        Rows row = {{"host", host}, {"revision", revision ? Rows(revision) : Rows()}};
        Rows turn;
        if (isInRollout) {
            const auto found = last->record.turns.find(host);
            turn = Json(found == last->record.turns.end() ? Turn::WAITING : found->second).get<std::string>();
        }
        row["turn"] = turn;
        row["state"] = StateText(view);
        row["error"] = view.target.record.phase == Phase::HOLD && view.target.modified
                           ? view.target.record.reason
                           : view.status.record.error;
        row["drift"] = view.status.record.drift;
        rows.push_back(row);
    }
    return rows;
}

Rows HostListRows(const Fleet &fleet)
{
    Rows rows = Rows::array();
    for (const auto &[host, view] : fleet.hosts) {
        Rows documents = Rows::object();
        for (const DocumentRevision &document : view.status.record.documents)
            documents[document.name] = document.revision;
        Rows labels = Rows::object();
        for (const auto &[name, value] : view.labels.record)
            labels[name] = value;
        rows.push_back({{"host", host},
                        {"state", StateText(view)},
                        {"documents", documents},
                        {"labels", labels},
                        {"version", view.status.record.version},
                        {"certificate", view.status.record.certificate},
                        {"error", view.target.record.phase == Phase::HOLD && view.target.modified
                                      ? view.target.record.reason
                                      : view.status.record.error}});
    }
    return rows;
}

// Of certificates that end soon.
void WarnOfCertificates(const Console &console)
{
    const std::string soon =
        fmt::format("{:%Y-%m-%d}", fmt::gmtime(time(nullptr) + WARNING_DAYS * SECONDS_OF_DAY));
    std::ifstream file(console.config.endpoints.certificate);
    const std::string own = EndOf({std::istreambuf_iterator<char>(file), {}});
    if (own < soon)
        Note(fmt::format("the certificate of this command ends on {}; `vsfleet setup --member …` renews it",
                         own));
    for (const auto &[host, view] : console.fleet.hosts) {
        const std::string &end = view.status.record.certificate;
        if (!end.empty() && end < soon)
            Note(
                fmt::format("the certificate of {0} ends on {1}; `vsfleet enroll {0}` renews it", host, end));
    }
}

Exit ShowStatus(Console &console, const std::string &name)
{
    console.ReadFleet();
    console.PrintRows(name.empty() ? DocumentRows(console.fleet) : DocumentHostRows(console.fleet, name));
    WarnOfCertificates(console);
    if (!console.fleet.leader) Note("no driver leads; start `vsfleet drive` (vsfleet-drive.service)");
    return Exit::DONE;
}

// ---- watch ----

Rows WatchedRows(const Fleet &fleet, const std::string &name)
{
    return name.empty() ? DocumentRows(fleet) : DocumentHostRows(fleet, name);
}

// The rows that are new or have changed. Each is known by its first member.
Rows ChangedRows(const Rows &before, const Rows &after)
{
    Rows changed = Rows::array();
    for (const Rows &row : after) {
        if (std::find(before.begin(), before.end(), row) == before.end()) changed.push_back(row);
    }
    return changed;
}

std::string LiveStatus(const Fleet &fleet, const std::string &name, const Rows &rows)
{
    std::string text;
    for (const auto &[id, held] : fleet.rollouts) {
        const bool isMeant = name.empty() || held.record.head.document.name == name;
        if (isMeant && IsActive(held.record.state)) text += ProgressText(fleet, held.record) + "\n";
    }
    return text + TableText(Readable(rows), {"wide"}); // lines, which are cut where they are drawn
}

Exit WatchFleet(Console &console, const std::string &name)
{
    const bool isLive = !console.json && CanDraw();
    LiveText live;
    Rows shown = Rows::array();
    for (;;) {
        console.ReadFleet();
        Watch watch(console.client, keys::ROOT, console.revision + 1);
        try {
            for (;;) {
                const Rows rows = WatchedRows(console.fleet, name);
                if (isLive)
                    live.Show(LiveStatus(console.fleet, name, rows));
                else if (const Rows changed = ChangedRows(shown, rows); !changed.empty())
                    console.PrintRows(changed);
                shown = rows;
                std::vector<KeyEvent> events = watch.Next(Milliseconds(600000));
                for (; !events.empty(); events = watch.Next(Milliseconds(20))) {
                    for (const KeyEvent &event : events)
                        console.fleet.Take(event);
                }
            }
        } catch (const EtcdError &error) {
            if (error.kind != EtcdError::Kind::UNREACHABLE && error.kind != EtcdError::Kind::COMPACTED) throw;
            Note(fmt::format("{}; reads everything anew", error.what()));
            console.client.Reconnect();
        }
    }
}

// ---- history ----

// What has become different between two revisions of a document, as a JSON patch (RFC 6902).
Rows Difference(Console &console, const DocumentRevision &document, int64_t previous)
{
    const auto text = [&](int64_t revision) -> std::optional<Json> {
        if (!revision) return Json::object();
        const auto entry = console.client.Get(keys::Revision(document.name, revision));
        if (!entry) return std::nullopt;
        return Json::parse(Restore(FromText<StoredDocument>(entry->value)));
    };
    const std::optional<Json> before = text(previous), after = text(document.revision);
    if (!before || !after) return nullptr;
    return Rows::parse(Json::diff(*before, *after).dump());
}

Exit History(Console &console, const std::string &name, bool withDifference)
{
    Rows rows = Rows::array();
    for (const Entry &entry : console.client.GetPrefix(keys::AUDIT).entries) {
        const auto audit = FromText<Audit>(entry.value);
        if (audit.document.name != name) continue;
        Rows row = {{"time", audit.time},
                    {"author", audit.author},
                    {"action", audit.action},
                    {"revision", audit.document.revision},
                    {"previous", audit.previous ? Rows(audit.previous) : Rows()},
                    {"detail", audit.detail}};
        const bool isChange = audit.action == "push" || audit.action == "rollback";
        if (withDifference)
            row["difference"] = isChange ? Difference(console, audit.document, audit.previous) : Rows();
        rows.push_back(row);
    }
    if (rows.empty())
        throw Error(Exit::NOT_FOUND, fmt::format("there is no document '{}'", name),
                    "`vsfleet status` lists them");
    console.PrintRows(rows);
    return Exit::DONE;
}

}

Action AddStatus(CLI::App &app)
{
    const auto name = std::make_shared<std::string>();
    app.add_option("NAME", *name, "A document; without it all of them");
    return Guarded("status", AddJson(app), [=](Console &console) { return ShowStatus(console, *name); });
}

Action AddHosts(CLI::App &app)
{
    return Guarded("hosts", AddJson(app), [](Console &console) {
        console.ReadFleet();
        console.PrintRows(HostListRows(console.fleet));
        return Exit::DONE;
    });
}

Action AddWatch(CLI::App &app)
{
    const auto name = std::make_shared<std::string>();
    app.add_option("NAME", *name, "A document; without it all of them");
    return Guarded("watch", AddJson(app), [=](Console &console) { return WatchFleet(console, *name); });
}

Action AddHistory(CLI::App &app)
{
    const auto name = std::make_shared<std::string>();
    const auto withDifference = std::make_shared<bool>();
    app.add_option("NAME", *name, "The document")->required();
    app.add_flag("--diff", *withDifference, "With what each change made different, as JSON patches");
    return Guarded("history", AddJson(app),
                   [=](Console &console) { return History(console, *name, *withDifference); });
}

}
