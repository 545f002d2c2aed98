// What a driver decides, without etcd: a store of keys, agents that answer as a row of a table says, and
// time that passes when nothing else is left to happen.
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <set>

#include "fleet/protocol/keys.h"
#include "fleet/rollout/decisions.h"

namespace {

using namespace vsfleet;
using enum RolloutState;

constexpr Milliseconds LEASE{2000};

// How the agent of a host answers, by the letter that a row has for it.
enum class Habit : char {
    WELL = 'w',
    NO_PLAN = 'p',    // its plan has an error
    FAILS = 'f',      // changes nothing
    FAILS_BACK = 'b', // fails, and fails to go back
    SILENT = 's',     // plans, and never answers a change
    LEAVES = 'l',     // plans, and goes away with the change
    AWAY = 'a',       // was never there
    LATE = 't',       // plans, and answers the change long after its time
};

const DocumentRevision OLD{"net", 1, "one"}, NEW{"net", 2, "two"};

class Simulation {
public:
    Simulation() : decisions(LEASE)
    {
        Put(keys::Revision("net", 1), ToText(Document({"lab"})));
        Put(keys::Revision("net", 2), ToText(Document({"lab"})));
    }

    static StoredDocument Document(const std::vector<std::string> &switches)
    {
        StoredDocument document;
        document.switches = switches;
        return document;
    }

    // A host that follows the old document.
    void AddHost(const std::string &host, Habit habit, const std::string &site = "a")
    {
        habits[host] = habit;
        Put(keys::Labels(host), ToText(Labels{{"site", site}}));
        if (habit != Habit::AWAY) Put(keys::Claim(host), ToText(Claim{"m", "b", "n", "1"}));
    }

    static Head HeadOf(const DocumentRevision &document)
    {
        Head head;
        head.document = document;
        head.selector = {{"site", "a"}};
        return head;
    }

    // The old document holds, and all hosts follow it.
    void Begin()
    {
        const std::map<std::string, Habit> kept = habits;
        for (auto &[host, habit] : habits)
            habit = Habit::WELL;
        Put(keys::Head("net"), ToText(HeadOf(OLD)));
        Settle(Milliseconds(10000));
        habits = kept;
    }

    void Push(const RolloutOptions &options, const std::string &id = "r1")
    {
        Rollout rollout;
        rollout.id = id;
        rollout.head = HeadOf(NEW);
        rollout.before = HeadOf(OLD);
        rollout.options = options;
        if (!options.planOnly) Put(keys::Head("net"), ToText(rollout.head));
        Put(keys::Rollout(id), ToText(rollout));
    }

    void Want(Wish wish, const std::string &id = "r1")
    {
        Rollout rollout = RolloutOf(id);
        rollout.wish = wish;
        Put(keys::Rollout(id), ToText(rollout));
    }

    // Until nothing happens for the time given.
    void Settle(Milliseconds time = Milliseconds(900000))
    {
        for (Milliseconds end = now + time; now < end;) {
            const Step step = decisions.Next(fleet, now);
            if (!step.IsEmpty()) {
                Carry(step);
                continue;
            }
            if (!AgentsAnswer()) now += Milliseconds(500);
        }
    }

    // The same, with another driver after each so many transactions.
    void SettleWithDeaths(int transactions)
    {
        deaths = transactions;
        Settle();
    }

    void Put(const std::string &key, const std::string &value)
    {
        revision++;
        const auto present = store.find(key);
        const int64_t created = present == store.end() ? revision : present->second.created;
        store[key] = {key, value, created, revision, 0};
        fleet.Take({store[key], false});
    }

    void Delete(const std::string &key)
    {
        revision++;
        store.erase(key);
        fleet.Take({{key, "", 0, revision, 0}, true});
    }

    const Rollout &RolloutOf(const std::string &id = "r1") const { return fleet.rollouts.at(id).record; }
    std::vector<DocumentRevision> DocumentsOf(const std::string &host) const
    {
        return fleet.hosts.at(host).status.record.documents;
    }
    const Target &TargetOf(const std::string &host) const { return fleet.hosts.at(host).target.record; }

    Fleet fleet;
    std::map<std::string, Habit> habits;
    std::map<std::string, int> applications; // changes that an agent was asked for by the rollout
    std::map<std::string, Entry> store;
    int steps = 0;
    size_t largest = 0;
    std::function<void(const Step &)> onStep = [](const Step &) {};
    Milliseconds now{0};

private:
    void Carry(const Step &step)
    {
        largest = std::max(largest, step.writes.size());
        for (const Write &write : step.writes) {
            if (write.isDeleted)
                Delete(write.key);
            else
                Put(write.key, write.value);
        }
        onStep(step);
        steps++;
        ASSERT_LT(steps, 5000) << "the driver writes in circles";
        if (!deaths || steps % deaths) return;
        decisions = Decisions(LEASE);
        Snapshot snapshot{revision, {}};
        for (const auto &[key, entry] : store)
            snapshot.entries.push_back(entry);
        fleet.Read(snapshot);
    }

    void Answer(const std::string &host, HostState state, const std::string &error = "")
    {
        const HostView view = fleet.hosts.at(host);
        Status status = view.status.record;
        status.state = state;
        status.target = view.target.modified;
        status.error = error;
        if (state == HostState::CONFIRMED) status.documents = view.target.record.documents;
        Put(keys::Status(host), ToText(status));
    }

    bool AgentAnswers(const std::string &host, Habit habit)
    {
        const HostView view = fleet.hosts.at(host);
        const Target &target = view.target.record;
        if (!view.IsHere() || !view.target.modified) return false;
        const bool isWayBack = !fleet.rollouts.contains("r1") || RolloutOf().state == ROLLING_BACK;
        if (target.phase == Phase::PLAN) {
            const auto plan = view.plans.find(target.rollout);
            if (plan != view.plans.end() && plan->second.record.target == view.target.modified) return false;
            Plan answer;
            answer.target = view.target.modified;
            if (habit == Habit::NO_PLAN) answer.error = "no such uplink";
            Put(keys::Plan(host, target.rollout), ToText(answer));
            return true;
        }
        if (view.Answer()) return false;
        const bool isNew =
            std::find(target.documents.begin(), target.documents.end(), NEW) != target.documents.end();
        if (isNew) applications[host] += asked[host] != view.target.modified;
        asked[host] = view.target.modified;
        if (target.phase == Phase::HOLD) {
            Answer(host, HostState::HELD, target.reason);
        } else if (habit == Habit::LEAVES && isNew) {
            Delete(keys::Claim(host));
        } else if (habit == Habit::SILENT && isNew) {
            return false;
        } else if (habit == Habit::LATE && isNew) {
            const auto [begin, first] = lateSince.emplace(host, now);
            if (now - begin->second < Milliseconds(20000)) return false;
            Answer(host, HostState::CONFIRMED);
        } else if ((habit == Habit::FAILS && isNew) || (habit == Habit::FAILS_BACK && (isNew || isWayBack))) {
            Answer(host, HostState::FAILED, "no such port");
        } else {
            Answer(host, HostState::CONFIRMED);
        }
        return true;
    }

    bool AgentsAnswer()
    {
        bool isAny = false;
        for (const auto &[host, habit] : habits)
            isAny = AgentAnswers(host, habit) || isAny;
        return isAny;
    }

    Decisions decisions;
    int deaths = 0;
    int64_t revision = 10;
    std::map<std::string, int64_t> asked;
    std::map<std::string, Milliseconds> lateSince;
};

RolloutOptions Options(int64_t canary, int64_t batch, int64_t maxFailures, bool rollBack = true)
{
    RolloutOptions options;
    options.canary = canary;
    options.batch = batch;
    options.maxFailures = maxFailures;
    options.deadline = 5;
    options.rollBack = rollBack;
    return options;
}

// A letter for the turn of each host, in the order of their names: '.' waits.
std::string Turns(const Rollout &rollout)
{
    static const std::map<Turn, char> LETTERS = {
        {Turn::STARTED, '*'},     {Turn::CONFIRMED, 'C'},   {Turn::FAILED, 'F'},
        {Turn::REFUSED, 'P'},     {Turn::SILENT, 'S'},      {Turn::ABSENT, 'A'},
        {Turn::UNREACHABLE, 'U'}, {Turn::ROLLED_BACK, 'R'}, {Turn::ROLL_BACK_FAILED, 'X'}};
    std::string turns;
    for (const std::string &host : std::set(rollout.hosts.begin(), rollout.hosts.end())) {
        const auto turn = rollout.turns.find(host);
        turns +=
            turn == rollout.turns.end() || turn->second == Turn::WAITING ? '.' : LETTERS.at(turn->second);
    }
    return turns;
}

struct Row {
    const char *name;
    std::string habits; // of h0, h1, …
    RolloutOptions options;
    RolloutState state;
    std::string turns;
    int follow; // hosts that follow the new document at the end
};

const Row ROWS[] = {
    {"all at once", "www", Options(0, 0, 0), DONE, "CCC", 3},
    {"in waves", "wwwww", Options(1, 2, 0), DONE, "CCCCC", 5},
    {"failures at the limit", "wfwfw", Options(1, 1, 2), DONE, "CFCFC", 3},
    {"one over the limit", "wfwfw", Options(1, 1, 1), ROLLED_BACK, "RRRR.", 0},
    {"one over, without a roll-back", "wfwfw", Options(1, 1, 1, false), FAILED, "CFCF.", 2},
    {"a plan over the limit", "wpw", Options(0, 0, 0), FAILED, ".P.", 0},
    // The host has no turn. When the rollout is done, it is asked to follow like any other.
    {"a plan at the limit", "wpw", Options(0, 0, 1), DONE, "CPC", 3},
    {"a failed plan counts with failures", "wpf", Options(0, 0, 1), ROLLED_BACK, "RPR", 0},
    {"silent, unreachable and failed at the limit", "wslfww", Options(0, 1, 3), DONE, "CSUFCC", 3},
    {"silent, unreachable and failed, one over", "wssfww", Options(0, 1, 2), ROLLED_BACK, "RRRR..", 0},
    {"a late success is not counted twice", "wtww", Options(0, 1, 1), DONE, "CSCC", 4},
    {"a late success doesn't advance what was rolled back", "wtww", Options(0, 1, 0), ROLLED_BACK, "RR..", 0},
    {"a roll-back that fails", "wbw", Options(0, 0, 0), FAILED, "RXR", 0},
    {"one that can't be reached for the roll-back", "wflw", Options(0, 0, 0), FAILED, "RRXR", 0},
    {"an absent host is no failure", "waw", Options(0, 0, 0), DONE, "CAC", 2},
};

class Rollouts : public testing::TestWithParam<Row> {};

void Check(const Row &row, Simulation &simulation, const std::string &where)
{
    SCOPED_TRACE(where);
    const Rollout &rollout = simulation.RolloutOf();
    EXPECT_EQ(rollout.state, row.state) << ToText(rollout);
    EXPECT_EQ(Turns(rollout), row.turns) << ToText(rollout);
    int follow = 0;
    for (size_t i = 0; i < row.habits.size(); i++) {
        const std::string host = "h" + std::to_string(i);
        const auto documents = simulation.DocumentsOf(host);
        follow += documents == std::vector{NEW};
        EXPECT_LE(documents.size(), 1u);
        // No host is asked twice, but for those that come after the rollout.
        EXPECT_LE(simulation.applications[host], 1) << host;
    }
    EXPECT_EQ(follow, row.follow);
    const bool isBack = row.state == ROLLED_BACK || (row.state == FAILED && row.options.rollBack);
    EXPECT_EQ(simulation.fleet.heads.at("net").record.document, isBack ? OLD : NEW);
}

void Play(const Row &row, int deaths)
{
    Simulation simulation;
    for (size_t i = 0; i < row.habits.size(); i++)
        simulation.AddHost("h" + std::to_string(i), Habit{row.habits[i]});
    simulation.Begin();
    simulation.Push(row.options);
    simulation.SettleWithDeaths(deaths);
    Check(row, simulation, deaths ? "a driver dies after each " + std::to_string(deaths) : "one driver");
}

TEST_P(Rollouts, EndAsTheyShould)
{
    for (int deaths = 0; deaths < 5; deaths++)
        Play(GetParam(), deaths);
}

INSTANTIATE_TEST_SUITE_P(Table, Rollouts, testing::ValuesIn(ROWS), [](const auto &info) {
    std::string name = info.param.name;
    std::erase_if(name, [](char c) { return !isalnum(static_cast<unsigned char>(c)); });
    return name;
});

// Five hosts that follow the old document.
class Five : public testing::Test {
protected:
    Five()
    {
        for (int i = 0; i < 5; i++)
            simulation.AddHost("h" + std::to_string(i), Habit::WELL);
        simulation.Begin();
    }

    // Does something before the driver's transaction after which so many hosts have had their turn begun.
    void When(int64_t started, std::function<void()> happens, const std::string &id = "r1")
    {
        simulation.onStep = [this, started, happens, id, isDone = false](const Step &) mutable {
            if (isDone || !simulation.fleet.rollouts.contains(id) ||
                simulation.RolloutOf(id).started < started)
                return;
            isDone = true;
            happens();
        };
    }

    void Settle(RolloutState state, const std::string &id = "r1")
    {
        simulation.Settle();
        EXPECT_EQ(simulation.RolloutOf(id).state, state);
    }

    int Following(const DocumentRevision &document) const
    {
        int count = 0;
        for (const auto &[host, habit] : simulation.habits)
            count += simulation.DocumentsOf(host) == std::vector{document};
        return count;
    }

    Simulation simulation;
};

TEST_F(Five, PauseAtOnceWhenManyGo)
{
    When(2, [this] {
        for (const char *host : {"h1", "h2", "h3"})
            simulation.Delete(keys::Claim(host));
    });
    simulation.Push(Options(1, 1, 0));
    Settle(PAUSED);
    EXPECT_NE(simulation.RolloutOf().message.find("3 of 5"), std::string::npos);
    EXPECT_EQ(Turns(simulation.RolloutOf()).find('U'), std::string::npos);
    // Another driver, that has not seen them go, waits as well.
    simulation.SettleWithDeaths(1);
    EXPECT_EQ(simulation.RolloutOf().state, PAUSED);
    for (const char *host : {"h1", "h2", "h3"})
        simulation.Put(keys::Claim(host), "{}");
    Settle(DONE);
    EXPECT_EQ(Following(NEW), 5);
}

TEST_F(Five, WaitForTheirHostsWhenMostAreAbsent)
{
    for (const char *host : {"h1", "h2", "h3"})
        simulation.Delete(keys::Claim(host));
    simulation.Push(Options(0, 0, 0));
    simulation.Settle(Milliseconds(20000));
    EXPECT_EQ(simulation.RolloutOf().state, PLANNING);
    Rollout rollout = simulation.RolloutOf();
    rollout.options.withoutAbsent = true;
    simulation.Put(keys::Rollout("r1"), ToText(rollout));
    Settle(DONE);
    EXPECT_EQ(Following(NEW), 2);
}

TEST_F(Five, DoWhatAnOperatorWants)
{
    When(2, [this] { simulation.Want(Wish::PAUSE); });
    simulation.Push(Options(1, 1, 0));
    Settle(PAUSED);
    EXPECT_EQ(Following(NEW), 2);
    simulation.Want(Wish::ABORT);
    Settle(ABORTED);
    EXPECT_EQ(Following(OLD), 5);
    EXPECT_EQ(simulation.fleet.heads.at("net").record.document, OLD);

    When(
        2, [this] { simulation.Want(Wish::ABORT, "r2"); }, "r2");
    simulation.Push(Options(1, 1, 0, false), "r2");
    Settle(ABORTED, "r2");
    EXPECT_EQ(Following(NEW), 2);
    EXPECT_EQ(Following(OLD), 3);
}

TEST_F(Five, OfTwoRolloutsTheLaterOneWaits)
{
    simulation.Put(keys::Revision("mtu", 1), ToText(Simulation::Document({"other"})));
    Rollout second;
    second.id = "r2";
    second.head = Simulation::HeadOf({"mtu", 1, "x"});
    second.options = Options(0, 0, 0);
    When(2, [this, second] {
        simulation.Put(keys::Head("mtu"), ToText(second.head));
        simulation.Put(keys::Rollout("r2"), ToText(second));
    });
    simulation.onStep = [this, before = simulation.onStep](const Step &step) {
        before(step);
        if (!simulation.fleet.rollouts.contains("r2")) return;
        EXPECT_TRUE(simulation.RolloutOf("r2").hosts.empty() || !IsActive(simulation.RolloutOf().state));
    };
    simulation.Push(Options(1, 1, 0));
    Settle(DONE, "r2");
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(simulation.DocumentsOf("h" + std::to_string(i)).size(), 2u);
}

TEST_F(Five, FollowTheirLabels)
{
    // In a rollout: one leaves before its turn, one comes.
    When(2, [this] {
        simulation.Put(keys::Labels("h4"), ToText(Labels{{"site", "b"}}));
        simulation.AddHost("h9", Habit::WELL);
    });
    simulation.Push(Options(1, 1, 0));
    Settle(DONE);
    EXPECT_EQ(Following(NEW), 5);
    EXPECT_TRUE(simulation.DocumentsOf("h4").empty());
    EXPECT_EQ(simulation.DocumentsOf("h9"), std::vector{NEW});

    // Another document names the same switch: where both meet, the host holds, and says both names.
    simulation.Put(keys::Revision("mtu", 1), ToText(Simulation::Document({"lab"})));
    Head head = Simulation::HeadOf({"mtu", 1, "x"});
    head.selector = {{"site", "b"}};
    simulation.Put(keys::Head("mtu"), ToText(head));
    simulation.Settle(Milliseconds(5000));
    EXPECT_EQ(simulation.DocumentsOf("h4"), (std::vector<DocumentRevision>{{"mtu", 1, "x"}}));
    head.selector = {};
    simulation.Put(keys::Head("mtu"), ToText(head));
    simulation.Settle(Milliseconds(5000));
    EXPECT_EQ(simulation.TargetOf("h1").phase, Phase::HOLD);
    EXPECT_EQ(simulation.TargetOf("h1").reason, "the documents 'mtu' and 'net' both name the switch 'lab'");
    EXPECT_EQ(simulation.DocumentsOf("h1"), std::vector{NEW});
    simulation.Put(keys::Labels("h1"), ToText(Labels{{"site", "c"}}));
    simulation.Settle(Milliseconds(5000));
    EXPECT_EQ(simulation.TargetOf("h1").phase, Phase::APPLY);
    EXPECT_EQ(simulation.DocumentsOf("h1"), (std::vector<DocumentRevision>{{"mtu", 1, "x"}}));
}

TEST_F(Five, PlanWithoutAChange)
{
    RolloutOptions options = Options(0, 0, 0);
    options.planOnly = true;
    simulation.Push(options);
    Settle(DONE);
    for (int i = 0; i < 5; i++) {
        const HostView &view = simulation.fleet.hosts.at("h" + std::to_string(i));
        EXPECT_TRUE(view.plans.contains("r1"));
        EXPECT_EQ(view.target.record.phase, Phase::APPLY);
    }
    EXPECT_EQ(Following(OLD), 5);
    // A later rollout follows it: nothing of it is kept.
    simulation.Push(Options(0, 0, 0), "r2");
    simulation.Settle();
    EXPECT_FALSE(simulation.fleet.rollouts.contains("r1"));
    EXPECT_FALSE(simulation.fleet.hosts.at("h0").plans.contains("r1"));
    EXPECT_EQ(Following(NEW), 5);
}

TEST_F(Five, LoseADocumentThatIsRemoved)
{
    simulation.Delete(keys::Claim("h4"));
    Rollout rollout;
    rollout.id = "r1";
    rollout.before = rollout.head = Simulation::HeadOf(OLD);
    rollout.head.isRemoved = rollout.head.prune = true;
    rollout.options = Options(0, 0, 0);
    simulation.Put(keys::Head("net"), ToText(rollout.head));
    simulation.Put(keys::Rollout("r1"), ToText(rollout));
    Settle(DONE);
    EXPECT_EQ(simulation.TargetOf("h0").prune, std::vector<std::string>{"net"});
    // A host that comes later is told what to remove as well.
    simulation.Put(keys::Claim("h4"), "{}");
    simulation.Settle(Milliseconds(5000));
    EXPECT_EQ(simulation.TargetOf("h4").prune, std::vector<std::string>{"net"});
    EXPECT_EQ(Following(OLD) + Following(NEW), 0);
}

TEST(ManyHosts, TakeTransactionsThatEtcdTakes)
{
    for (const int deaths : {0, 20}) {
        Simulation simulation;
        for (int i = 0; i < 250; i++)
            simulation.AddHost("h" + std::to_string(i), i == 200 ? Habit::FAILS : Habit::WELL);
        simulation.Begin();
        RolloutOptions options = Options(10, 0, 0);
        options.batchPercent = 50;
        simulation.Push(options);
        simulation.SettleWithDeaths(deaths);
        EXPECT_EQ(simulation.RolloutOf().state, ROLLED_BACK) << simulation.RolloutOf().message;
        EXPECT_LE(simulation.largest, MAX_WRITES);
        int count = 0;
        for (const auto &[host, habit] : simulation.habits)
            count += simulation.DocumentsOf(host) == std::vector{OLD};
        EXPECT_EQ(count, 250);
    }
}

}
