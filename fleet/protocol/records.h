// What agents, driver and command tell each other through etcd. Each record is a JSON object; a reader
// ignores members that it doesn't know, and takes the default for those that are missing.
//
// Nobody compares clocks: a time limit is a number of seconds that each side counts for itself.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vsfleet {

using Json = nlohmann::json;

// A revision of a document. It never changes.
struct DocumentRevision {
    std::string name;
    int64_t revision = 0;
    std::string sum; // SHA-256 of the text
    auto operator<=>(const DocumentRevision &) const = default;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(DocumentRevision, name, revision, sum)

inline constexpr int64_t FORMAT = 1; // of stored documents; an agent refuses a later one

// desired/NAME/REVISION: a plan file, as `vsctl plan --check --json` printed it when it was pushed.
struct StoredDocument {
    int64_t format = FORMAT;
    std::string sum;                   // SHA-256 of the text
    int64_t size = 0;                  // of the text
    std::string compressed;            // the text: zlib, base64
    std::vector<std::string> switches; // that it names
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(StoredDocument, format, sum, size, compressed, switches)

using Labels = std::map<std::string, std::string>;

// desired/NAME/head: what the hosts are to follow.
struct Head {
    DocumentRevision document;
    Labels selector;        // hosts with all these labels; empty: every host
    int64_t previous = 0;   // the revision before; 0: none
    bool repair = false;    // a host that has drifted is brought back
    bool isRemoved = false; // the document is on its way out of the hosts
    bool prune = false;     // its switches go with it
    bool allowRemovals = false;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Head, document, selector, previous, repair, isRemoved, prune,
                                                allowRemovals)

// ---- The driver and an agent ----

enum class Phase {
    HOLD, // change nothing
    PLAN, // say what would change
    APPLY
};
NLOHMANN_JSON_SERIALIZE_ENUM(Phase, {{Phase::HOLD, "hold"}, {Phase::PLAN, "plan"}, {Phase::APPLY, "apply"}})

// hosts/H/target: all that a host is to be. Written by the driver. The revision of its last change is its
// number: an agent's answer names it.
struct Target {
    Phase phase = Phase::HOLD;
    std::string rollout;                     // empty: no rollout asks for this
    std::vector<DocumentRevision> documents; // all that hold for the host
    std::vector<std::string> prune;          // names of documents whose switches are to go
    std::string reason;                      // of HOLD
    bool allowRemovals = false;
    bool repair = false;
    int64_t deadline = 300; // seconds for the whole change
    int64_t confirm = 60;   // seconds in which the agent has to reach etcd again, or the change is undone
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Target, phase, rollout, documents, prune, reason,
                                                allowRemovals, repair, deadline, confirm)

// hosts/H/claim: the agent that is this host now. With a lease, so that it is gone when the agent is.
// hosts/H/machine: the machine that this host is for good, until an operator removes the key, which is how a
// reinstalled machine, or another one, gets the name.
struct Claim {
    std::string machine; // machine id
    std::string boot;    // boot id
    std::string node;    // the machine's own name
    std::string version;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Claim, machine, boot, node, version)

// fleet/adopted: an operator's word that the state of etcd is to be followed although it is an older one, or
// another cluster's: agents hold otherwise. Each adoption has an id of its own.
struct Adoption {
    std::string id; // a RandomId
    std::string author;
    std::string time;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Adoption, id, author, time)

// hosts/H/plan/ROLLOUT: what the target would change.
struct Plan {
    int64_t target = 0; // number of the target
    std::string error;  // why it can't be done; empty: it can
    int64_t changes = 0;
    Json steps = Json::array(); // the first of them, as `vsctl plan --json` prints them
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Plan, target, error, changes, steps)

enum class HostState {
    IDLE, // no target yet
    APPLYING,
    UNCONFIRMED, // applied, and undone unless the agent confirms it
    CONFIRMED,
    FAILED,        // it has changed nothing, or undone it
    PARTLY_UNDONE, // it failed, and so did its undo: somebody has to look
    HELD,          // see `error`
    DRIFTED        // confirmed, and changed since by somebody else
};
NLOHMANN_JSON_SERIALIZE_ENUM(HostState, {{HostState::IDLE, "idle"},
                                         {HostState::APPLYING, "applying"},
                                         {HostState::UNCONFIRMED, "unconfirmed"},
                                         {HostState::CONFIRMED, "confirmed"},
                                         {HostState::FAILED, "failed"},
                                         {HostState::PARTLY_UNDONE, "partly-undone"},
                                         {HostState::HELD, "held"},
                                         {HostState::DRIFTED, "drifted"}})

// hosts/H/status: written by the agent when it changes.
struct Status {
    HostState state = HostState::IDLE;
    int64_t target = 0;                      // number of the target that this answers
    std::vector<DocumentRevision> documents; // which the host follows now
    std::string error;
    Json drift = Json::array(); // the first steps that would bring it back
    std::string version;        // of the agent
    std::string certificate;    // the day on which the agent's ends
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Status, state, target, documents, error, drift, version,
                                                certificate)

// ---- The driver and an operator ----

enum class RolloutState {
    PLANNING,
    RUNNING,
    PAUSED, // by an operator, or because etcd was away: `message` says it
    ROLLING_BACK,
    DONE,
    ROLLED_BACK,
    FAILED, // stopped where it was, or the roll-back failed on a host
    ABORTED
};
NLOHMANN_JSON_SERIALIZE_ENUM(RolloutState, {{RolloutState::PLANNING, "planning"},
                                            {RolloutState::RUNNING, "running"},
                                            {RolloutState::PAUSED, "paused"},
                                            {RolloutState::ROLLING_BACK, "rolling-back"},
                                            {RolloutState::DONE, "done"},
                                            {RolloutState::ROLLED_BACK, "rolled-back"},
                                            {RolloutState::FAILED, "failed"},
                                            {RolloutState::ABORTED, "aborted"}})

// What an operator wants of a running rollout.
enum class Wish { GO_ON, PAUSE, ABORT };
NLOHMANN_JSON_SERIALIZE_ENUM(Wish, {{Wish::GO_ON, "go-on"}, {Wish::PAUSE, "pause"}, {Wish::ABORT, "abort"}})

struct RolloutOptions {
    int64_t canary = 0;         // hosts of the first wave; 0: no wave of its own
    int64_t batch = 0;          // hosts of each further wave; 0: all
    int64_t batchPercent = 0;   // the same as a part of the hosts
    int64_t soak = 0;           // seconds between waves
    int64_t maxFailures = 0;    // of the whole rollout; one more stops it
    int64_t deadline = 300;     // seconds for a host
    bool rollBack = true;       // when it stops
    bool planOnly = false;      // ask the hosts for their plans and end
    bool withoutAbsent = false; // go on though most of the hosts are absent
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(RolloutOptions, canary, batch, batchPercent, soak,
                                                maxFailures, deadline, rollBack, planOnly, withoutAbsent)

// What became of a host's turn. A host has one turn.
enum class Turn {
    WAITING,
    ABSENT,  // its agent wasn't there: it was asked for nothing, follows later, and is not a failure
    REFUSED, // it can't carry out the plan, or has given none in time: it was not changed
    STARTED,
    CONFIRMED,
    FAILED,
    UNREACHABLE, // its agent went away after the turn began
    SILENT,      // its agent is there and has not answered in time
    ROLLING_BACK,
    ROLLED_BACK,
    ROLL_BACK_FAILED
};
NLOHMANN_JSON_SERIALIZE_ENUM(Turn, {{Turn::WAITING, "waiting"},
                                    {Turn::ABSENT, "absent"},
                                    {Turn::REFUSED, "refused"},
                                    {Turn::STARTED, "started"},
                                    {Turn::CONFIRMED, "confirmed"},
                                    {Turn::FAILED, "failed"},
                                    {Turn::UNREACHABLE, "unreachable"},
                                    {Turn::SILENT, "silent"},
                                    {Turn::ROLLING_BACK, "rolling-back"},
                                    {Turn::ROLLED_BACK, "rolled-back"},
                                    {Turn::ROLL_BACK_FAILED, "roll-back-failed"}})

// rollout/ID: made by `push`, `rollback` and `remove`; then only the driver writes it, but for the wish.
struct Rollout {
    std::string id;
    Head head;   // what is rolled out
    Head before; // what holds again after a roll-back; its revision is 0 where there was nothing
    RolloutOptions options;
    RolloutState state = RolloutState::PLANNING;
    RolloutState pausedIn = RolloutState::RUNNING; // the state in which a paused rollout goes on
    Wish wish = Wish::GO_ON;
    std::string author;
    std::string message;            // what it waits for, or how it ended
    std::string reason;             // why it goes back
    std::vector<std::string> hosts; // in the order of their turns, then those without a turn
    std::map<std::string, Turn> turns;
    int64_t started = 0; // how many of `hosts` have had their turn begun
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Rollout, id, head, before, options, state, pausedIn, wish,
                                                author, message, reason, hosts, turns, started)

// audit/TIME-ID: who did what. Written in the transaction of the change.
struct Audit {
    std::string time; // of the author's clock
    std::string author;
    std::string action; // "push", "rollback", …
    DocumentRevision document;
    int64_t previous = 0; // revision
    std::string rollout;
    std::string detail;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Audit, time, author, action, document, previous, rollout,
                                                detail)

// A record as etcd holds it. A text that is not such a record gives the defaults.
template<class Record> std::string ToText(const Record &record) { return Json(record).dump(); }
template<class Record> Record FromText(const std::string &text)
{
    const Json json = Json::parse(text, nullptr, false);
    try {
        return json.is_object() ? json.get<Record>() : Record();
    } catch (const nlohmann::json::exception &) {
        return Record();
    }
}

}
