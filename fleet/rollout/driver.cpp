// Feeds the decisions from etcd, and carries them out as transactions that only the elected driver can make.
#include "fleet/rollout/driver.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <random>
#include <thread>
#include <unistd.h>

#include "fleet/protocol/certificates.h"
#include "fleet/protocol/keys.h"

namespace vsfleet {

namespace {

using Kind = EtcdError::Kind;

constexpr Milliseconds TURN{200};      // between looks at what time has brought
constexpr Milliseconds GATHERING{20};  // events that come together are decided on together
constexpr Milliseconds MAX_REST{5000}; // after an error
constexpr std::chrono::hours CLEARANCE{1};
constexpr int64_t KEPT_REVISIONS = 20000;
constexpr size_t KEPT_RECORDS = 10000; // of who did what

// What a driver remembers: the etcd that it knows and, when it has met another state, the adoption that was
// there then. A later one is an operator's word that this state holds.
struct Memory {
    uint64_t cluster = 0;
    int64_t revision = 0;
    std::string record; // the last one of the history that was seen
    bool isRestored = false;
    std::string adoption;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Memory, cluster, revision, record, isRestored, adoption)

std::string FileOf(const Config &config) { return config.state + "/driver.json"; }

Memory ReadMemory(const Config &config)
{
    std::ifstream file(FileOf(config));
    std::ostringstream text;
    text << file.rdbuf();
    return FromText<Memory>(text.str());
}

void WriteMemory(const Config &config, const Memory &memory)
{
    std::error_code ignored;
    std::filesystem::create_directories(config.state, ignored);
    const std::string path = FileOf(config), part = fmt::format("{}.{}", path, getpid());
    std::ofstream(part) << ToText(memory);
    std::filesystem::rename(part, path, ignored);
}

// Drivers that fail together try again at different times.
Milliseconds Rest(int failures)
{
    static std::mt19937 random{std::random_device{}()};
    const auto longest = std::min<int64_t>(MAX_REST.count(), 100LL << std::min(failures, 10));
    return Milliseconds(std::uniform_int_distribution<int64_t>(longest / 2, longest)(random));
}

Identity KnownTo(const Config &config)
{
    const Memory memory = ReadMemory(config);
    return {memory.cluster, memory.revision};
}

}

Driver::Driver(const Config &given)
    : config(given), client(given.endpoints, KnownTo(given)), decisions(given.lease),
      record(ReadMemory(given).record)
{}

void Driver::Say(const std::string &what)
{
    if (what != said) fmt::print(stderr, "vsfleet: {}\n", what);
    said = what;
}

void Driver::Run(const std::atomic<bool> &isStopped)
{
    for (int failures = 0; !isStopped;) {
        if (Attempt(isStopped))
            failures = 0;
        else
            std::this_thread::sleep_for(Rest(failures++));
    }
    if (!elected) return;
    try {
        client.RevokeLease(lease); // another one leads at once
    } catch (const EtcdError &) {
    }
}

// False: there is nothing to do but to try again later.
bool Driver::Attempt(const std::atomic<bool> &isStopped)
{
    try {
        if (!MayFollow()) return false;
        if (Elect())
            Lead(isStopped);
        else
            WaitForElection(isStopped);
        return true;
    } catch (const EtcdError &error) {
        watch.reset();
        client.Reconnect();
        if (error.kind == Kind::DENIED) throw;
        isRestored = isRestored || error.kind == Kind::RESTORED;
        Say(error.kind == Kind::NO_SPACE
                ? "etcd is full: run `etcdctl compact`, `etcdctl defrag` and `etcdctl alarm disarm`"
                : error.what());
        return false;
    }
}

// Another state of etcd is followed once an operator has said so after it was noticed.
bool Driver::MayFollow()
{
    Memory memory = ReadMemory(config);
    if (!isRestored && !memory.isRestored) return true;
    Client present(config.endpoints);
    const auto entry = present.Get(keys::ADOPTED);
    const std::string adoption = entry ? FromText<Adoption>(entry->value).id : "";
    if (!memory.isRestored) {
        memory.isRestored = true;
        memory.adoption = adoption;
        WriteMemory(config, memory);
    }
    if (memory.adoption == adoption) {
        Say("etcd was restored from a backup, or is another one: changes nothing until `vsfleet adopt`");
        return false;
    }
    Say("follows the restored etcd");
    client.Adopt(keys::ADOPTED);
    record.clear();
    WriteMemory(config, {client.Known().cluster, client.Known().revision, record, false, adoption});
    isRestored = false;
    elected = 0;
    return true;
}

// ---- Election ----

bool Driver::Elect()
{
    if (elected) {
        // Still the one that leads?
        const auto leader = client.Get(keys::LEADER);
        if (leader && leader->created == elected) return true;
        Say("another driver leads now");
        elected = 0;
    }
    if (!lease || !client.KeepAlive(lease)) lease = client.GrantLease(config.lease);
    renewed = Clock::now();
    const Json self = {{"host", MachineName()}, {"process", getpid()}};
    const Outcome outcome =
        client.Commit(Transaction().IfModified(keys::LEADER, 0).Put(keys::LEADER, self.dump(), lease));
    if (!outcome.isDone) return false;
    elected = outcome.revision;
    Say("leads");
    return true;
}

void Driver::WaitForElection(const std::atomic<bool> &isStopped)
{
    const auto leader = client.Get(keys::LEADER);
    if (!leader) return;
    if (leader->lease == lease) { // the election whose answer was lost
        elected = leader->created;
        return;
    }
    Say("another driver leads; waits");
    // Its own revision may be compacted by now.
    Watch wait(client, keys::LEADER, client.Known().revision + 1);
    while (!isStopped) {
        for (const KeyEvent &event : wait.Next(TURN)) {
            if (event.isDeleted) return;
        }
        KeepLease();
    }
}

void Driver::KeepLease()
{
    if (Clock::now() - renewed < config.lease / 3) return;
    if (!client.KeepAlive(lease)) throw EtcdError(Kind::FAILED, "the lease of this driver has ended");
    renewed = Clock::now();
    WriteMemory(config, {client.Known().cluster, client.Known().revision, record, false, ""});
}

// ---- Leading ----

// A restored etcd may have as many revisions again, but not what the history has lost.
void Driver::ReadFleet()
{
    if (!record.empty() && !client.Get(record))
        throw EtcdError(Kind::RESTORED, "etcd has lost a part of the history");
    const Snapshot snapshot = client.GetPrefix(keys::ROOT);
    fleet.Read(snapshot);
    for (const Entry &entry : snapshot.entries)
        Remember(entry.key);
    watch = std::make_unique<Watch>(client, keys::ROOT, snapshot.revision + 1);
}

void Driver::Remember(const std::string &key)
{
    if (key.starts_with(keys::AUDIT)) record = key;
}

// The events of the time given, or those that come together.
void Driver::TakeEvents(Milliseconds time)
{
    const Clock::time_point end = Clock::now() + time;
    for (std::vector<KeyEvent> events = watch->Next(time); !events.empty(); events = watch->Next(GATHERING)) {
        for (const KeyEvent &event : events) {
            fleet.Take(event);
            if (!event.isDeleted) Remember(event.entry.key);
        }
        if (Clock::now() >= end) return;
    }
}

// Until this driver no longer leads.
void Driver::Lead(const std::atomic<bool> &isStopped)
{
    decisions.BeginAnew();
    ReadFleet();
    while (!isStopped) {
        KeepLease();
        const auto now = std::chrono::duration_cast<Milliseconds>(Clock::now().time_since_epoch());
        const Step step = decisions.Next(fleet, now);
        if (step.IsEmpty()) {
            if (Clock::now() >= nextClearance) Clear();
            TakeEvents(TURN);
        } else if (!Carry(step)) {
            return;
        }
    }
}

// False: the driver no longer leads, or the rollout has changed meanwhile.
bool Driver::Carry(const Step &step)
{
    Transaction transaction;
    transaction.IfCreated(keys::LEADER, elected);
    if (!step.rollout.empty()) transaction.IfModified(step.rollout, step.modified);
    for (const Write &write : step.writes) {
        if (write.modified) transaction.IfModified(write.key, *write.modified);
        if (write.isDeleted)
            transaction.Delete(write.key);
        else
            transaction.Put(write.key, write.value);
    }
    if (step.audit) {
        Audit audit = *step.audit;
        audit.time = TimeText();
        audit.author = "driver@" + MachineName();
        transaction.Put(keys::AUDIT + audit.time + "-" + RandomId(), ToText(audit));
        Say(fmt::format("{} {}: {} {}", audit.document.name, audit.document.revision, audit.action,
                        audit.detail));
    }
    const Outcome outcome = client.Commit(transaction);
    if (!outcome.isDone) {
        TakeEvents(TURN);
        return false;
    }
    // What is decided next has seen this.
    while (watch->NextRevision() <= outcome.revision)
        TakeEvents(TURN);
    return true;
}

// What grows with time.
void Driver::Clear()
{
    nextClearance = Clock::now() + CLEARANCE;
    if (client.Known().revision > KEPT_REVISIONS) client.Compact(client.Known().revision - KEPT_REVISIONS);
    const std::vector<Entry> records = client.GetPrefix(keys::AUDIT).entries;
    if (records.size() <= KEPT_RECORDS) return;
    Transaction transaction;
    transaction.IfCreated(keys::LEADER, elected)
        .DeleteRange(keys::AUDIT, records[records.size() - KEPT_RECORDS].key);
    client.Commit(transaction);
}

}
