// Rollouts while etcd and the way to it fail.
#include "tests/fleet_relay.h"
#include "tests/fleet_rollout.h"

#include <random>

namespace {

// A number that the long run sets.
int64_t Given(const char *name, int64_t usual)
{
    const char *text = getenv(name);
    return text ? std::stoll(text) : usual;
}

class ThreeMembers : public RolloutTest {
protected:
    ThreeMembers() : RolloutTest(3) {}
};

// etcd is away in the middle of a rollout, so long that all leases end: nothing is rolled back.
struct Outage {
    const char *name;
    int members; // that fail
    int signal;
    bool hostsStayAway; // for some time when etcd is back
};

class Outages : public ThreeMembers, public testing::WithParamInterface<Outage> {};

TEST_P(Outages, PauseARollout)
{
    const Outage &row = GetParam();
    Begin(4);
    StartDriver();
    ASSERT_EQ(Push("net", "port1.toml", "--canary 1 --batch 1 --soak 1s --deadline 1s --detach").exitCode, 0);
    Await([](const Fleet &fleet) { return fleet.LastRollout("net")->record.started == 2; });
    for (int member = 0; member < row.members; member++)
        etcd.Signal(member, row.signal);
    if (row.hostsStayAway) {
        for (const auto &agent : agents)
            agent->AskToStop();
    }
    std::this_thread::sleep_for(std::chrono::seconds(Given("FLEET_OUTAGE", 4)));
    for (int member = 0; member < row.members; member++) {
        if (row.signal == SIGKILL)
            etcd.Start(member);
        else
            etcd.Signal(member, SIGCONT);
    }
    if (row.hostsStayAway) {
        Await([](const Fleet &fleet) {
            const Rollout &rollout = fleet.LastRollout("net")->record;
            return rollout.state == RolloutState::PAUSED &&
                   rollout.message.find("unreachable at once") != std::string::npos;
        });
        std::this_thread::sleep_for(2 * LEASE);
        for (const auto &agent : agents) {
            agent->Stop();
            agent->Start();
        }
    }
    const Rollout rollout = AwaitEnd("net");
    EXPECT_EQ(rollout.state, RolloutState::DONE) << rollout.message;
    AwaitRevisions("net", {2, 2, 2, 2});
    for (const auto &agent : agents)
        EXPECT_EQ(agent->Changes().size(), 2u) << agent->host; // none went back
}

INSTANTIATE_TEST_SUITE_P(Of, Outages,
                         testing::Values(Outage{"stopped", 3, SIGSTOP, false},
                                         Outage{"killed", 3, SIGKILL, false},
                                         Outage{"no_quorum", 2, SIGSTOP, false},
                                         Outage{"hosts", 3, SIGSTOP, true}),
                         [](const auto &info) { return info.param.name; });

// A driver's write arrives late: over a connection that the driver has given up, or after another driver was
// elected. What was decided since holds.
struct LateWrite {
    const char *name;
    std::chrono::seconds lease;
    bool isStopped; // the driver is
};

class LateWrites : public RolloutTest, public testing::WithParamInterface<LateWrite> {};

TEST_P(LateWrites, AreRefused)
{
    const LateWrite &row = GetParam();
    Relay relay(etcd.Endpoints().addresses[0]);
    WriteConfig("slow", {relay.Address()}, row.lease);
    const pid_t driver = Begin(2, "slow");
    const int64_t leader = Now().leader;
    const auto target = [](const Fleet &fleet) { return fleet.hosts.at("host1").target; };
    const auto isEmpty = [&](const Fleet &fleet) { return target(fleet).record.documents.empty(); };
    const auto isFull = [&](const Fleet &fleet) { return !isEmpty(fleet); };
    int64_t number = target(Now()).modified;

    relay.Delay(Milliseconds(8000));
    ASSERT_EQ(Run("label host1 site=b").exitCode, 0);
    // The write is more than questions whether etcd is there. If one of those comes first, the driver has a
    // new connection when it writes: once more.
    while (relay.Held() < 250) {
        if (isFull(Now())) continue;
        ASSERT_EQ(Run("label host1 site=a").exitCode, 0);
        number = target(Await(isFull)).modified;
        relay.Delay(Milliseconds(8000));
        ASSERT_EQ(Run("label host1 site=b").exitCode, 0);
    }
    if (row.isStopped) {
        kill(driver, SIGSTOP);
        ASSERT_EQ(Run("label host1 site=a").exitCode, 0);
        StartDriver();
        Await([&](const Fleet &fleet) { return fleet.leader && fleet.leader != leader; });
    } else {
        Await([&](const Fleet &fleet) { return target(fleet).record.documents.empty(); });
        ASSERT_EQ(Run("label host1 site=a").exitCode, 0);
        number = target(Await([&](const Fleet &fleet) {
                     return !target(fleet).record.documents.empty();
                 })).modified;
    }
    EXPECT_GE(relay.Held(), 250u); // it has not arrived yet
    while (relay.Held())
        std::this_thread::sleep_for(Milliseconds(10));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(target(Now()).modified, number);
    kill(driver, SIGCONT);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(target(Now()).modified, number);
    AwaitRevisions("net", {1, 1});
}

INSTANTIATE_TEST_SUITE_P(Of, LateWrites,
                         testing::Values(LateWrite{"the_one_that_leads", std::chrono::seconds(20), false},
                                         LateWrite{"a_stopped_one", std::chrono::seconds(6), true}),
                         [](const auto &info) { return info.param.name; });

TEST_F(RolloutTest, ACompactionStopsNoDriver)
{
    const pid_t first = Begin(2);
    const int64_t leader = Now().leader;
    Client client(etcd.Endpoints());
    client.Compact(client.GetPrefix(keys::ROOT).revision);
    const pid_t second = StartDriver();
    while (!HasLogged("waits"))
        std::this_thread::sleep_for(Milliseconds(20));

    // What the first misses is compacted away.
    kill(first, SIGSTOP);
    ASSERT_EQ(Push("net", "port1.toml", "--canary 1 --soak 1s").exitCode, 0);
    EXPECT_NE(Now().leader, leader);
    client.Compact(client.GetPrefix(keys::ROOT).revision);
    kill(first, SIGCONT);
    End(second, SIGKILL);
    std::erase(drivers, second);
    EXPECT_EQ(Push("net", "port2.toml").exitCode, 0);
    AwaitRevisions("net", {3, 3});
    EXPECT_FALSE(HasLogged("no longer keeps the revision")) << Text("drivers.log");
}

// A driver that runs, or is started when there are as many revisions again.
class Restored : public RolloutTest, public testing::WithParamInterface<bool> {};

TEST_P(Restored, IsFollowedOnlyWhenItIsAdopted)
{
    const bool isRunning = GetParam();
    const pid_t first = Begin(2);
    etcd.BackUp();
    ASSERT_EQ(Push("net", "port1.toml").exitCode, 0);
    std::this_thread::sleep_for(LEASE);
    for (const auto &agent : agents)
        agent->Stop();
    const auto end = [&] {
        End(first, SIGKILL);
        std::erase(drivers, first);
    };
    if (!isRunning) end();
    etcd.Restore();
    const int64_t number = Now().hosts.at("host1").target.modified;
    const auto holds = [&] {
        while (!HasLogged("until `vsfleet adopt`"))
            std::this_thread::sleep_for(Milliseconds(20));
    };
    if (isRunning) holds();
    // What an operator does now is not the driver's to carry out.
    ASSERT_EQ(Run("label host1 site=b").exitCode, 0);
    Client client(etcd.Endpoints());
    for (int i = 0; i < 200; i++)
        client.Commit(Transaction().Put("/other", "x"));
    std::this_thread::sleep_for(LEASE);
    if (isRunning) end();
    StartDriver();
    holds();
    std::this_thread::sleep_for(2 * LEASE);
    EXPECT_EQ(Now().hosts.at("host1").target.modified, number);
    EXPECT_EQ(Run("adopt").exitCode, 0);
    Await([](const Fleet &fleet) { return fleet.hosts.at("host1").target.record.documents.empty(); });
    EXPECT_TRUE(HasLogged("follows the restored etcd"));
}

INSTANTIATE_TEST_SUITE_P(By, Restored, testing::Bool(),
                         [](const auto &info) { return info.param ? "one_that_runs" : "one_that_starts"; });

class SmallEtcd : public RolloutTest {
protected:
    SmallEtcd() : RolloutTest(1, "--quota-backend-bytes 2000000") {}
};

TEST_F(SmallEtcd, ThatIsFullHoldsARollout)
{
    Begin(3);
    ASSERT_EQ(Push("net", "port1.toml", "--canary 1 --batch 1 --soak 3s --detach").exitCode, 0);
    Await([](const Fleet &fleet) { return fleet.LastRollout("net")->record.started == 1; });
    Client client(etcd.Endpoints());
    for (bool isFull = false; !isFull;) {
        try {
            client.Commit(Transaction().Put("/filler", std::string(100000, 'x')));
        } catch (const EtcdError &error) {
            isFull = error.kind == EtcdError::Kind::NO_SPACE;
        }
    }
    const Said refused = Run("label host0 site=a role=edge");
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.text.find("etcdctl alarm disarm"), std::string::npos) << refused.text;
    while (!HasLogged("etcd is full"))
        std::this_thread::sleep_for(Milliseconds(20));
    EXPECT_EQ(agents[2]->Changes().size(), 1u);
    client.Compact(client.Known().revision);
    EXPECT_EQ(etcd.Control("defrag"), 0);
    EXPECT_EQ(etcd.Control("alarm disarm"), 0);
    const Rollout rollout = AwaitEnd("net");
    EXPECT_EQ(rollout.state, RolloutState::DONE) << rollout.message;
    AwaitRevisions("net", {2, 2, 2});
}

// Faults by chance. Whatever they do, in the end all hosts follow one revision, each change was whole, no
// rollout has passed its limit, and no host has been changed twice by one.
TEST_F(ThreeMembers, ChanceFindsNothing)
{
    constexpr size_t HOSTS = 5;
    std::array<pid_t, 2> running = {Begin(HOSTS), StartDriver()};
    const auto first = static_cast<unsigned>(Given("FLEET_FIRST_SCHEDULE", 1)),
               schedules = static_cast<unsigned>(Given("FLEET_SCHEDULES", 4));
    for (unsigned seed = first; seed < first + schedules; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const auto pick = [&](int below) {
            return static_cast<int>(random() % static_cast<unsigned>(below));
        };
        const int limit = pick(3);
        const auto before = Now().heads.at("net").record.document;
        const Said said = Push("net", pick(2) ? "port1.toml" : "port2.toml",
                               fmt::format("--canary {} --batch {} --deadline 1s --max-failures {} --detach",
                                           pick(3), 1 + pick(3), limit));
        ASSERT_EQ(said.exitCode, 0) << said.text;
        const auto pushed = Now().heads.at("net").record.document;
        int stopped = -1;
        std::set<int> away;
        for (int faults = 1 + pick(4); faults > 0; faults--) {
            std::this_thread::sleep_for(Milliseconds(pick(400)));
            const int host = pick(HOSTS), fault = pick(6);
            LightAgent &agent = *agents[static_cast<size_t>(host)];
            if (fault == 0) {
                pid_t &driver = running[static_cast<size_t>(pick(2))];
                End(driver, SIGKILL);
                std::erase(drivers, driver);
                driver = StartDriver();
            } else if (fault == 1 && stopped < 0) {
                stopped = pick(3);
                etcd.Signal(stopped, pick(2) ? SIGSTOP : SIGKILL);
            } else if (fault == 2 && away.size() < 2) {
                if (away.insert(host).second) agent.Stop();
            } else if (fault == 3) {
                agent.Behave(Habit::FAILS);
            } else if (fault == 4) {
                agent.Behave(Habit::IGNORES);
            } else {
                kill(running[static_cast<size_t>(pick(2))], SIGSTOP);
            }
        }
        // Everything heals but for what the hosts think of this revision.
        std::this_thread::sleep_for(Milliseconds(pick(2000)));
        for (const pid_t driver : running)
            kill(driver, SIGCONT);
        if (stopped >= 0) {
            etcd.Signal(stopped, SIGKILL);
            etcd.Start(stopped);
        }
        for (const int host : away)
            agents[static_cast<size_t>(host)]->Start();
        const Rollout rollout = AwaitEnd("net");
        const int64_t failures =
            std::count_if(rollout.turns.begin(), rollout.turns.end(), [](const auto &item) {
                return item.second == Turn::FAILED || item.second == Turn::SILENT ||
                       item.second == Turn::REFUSED || item.second == Turn::UNREACHABLE;
            });
        EXPECT_TRUE(rollout.state != RolloutState::DONE || failures <= limit) << ToText(rollout);
        const auto holds = rollout.state == RolloutState::DONE ? pushed : before;
        EXPECT_EQ(Now().heads.at("net").record.document, holds) << ToText(rollout);
        // Whoever has refused it so far does it when it is asked again.
        for (const auto &agent : agents) {
            int times = 0;
            for (const auto &documents : agent->Changes()) {
                EXPECT_EQ(documents.size(), 1u);
                times += documents == std::vector{pushed};
            }
            EXPECT_LE(times, 1) << agent->host;
            agent->Behave(Habit::CONFIRMS);
        }
        const Said last = Push("net", "port0.toml", "--deadline 20s");
        ASSERT_EQ(last.exitCode, 0) << last.text;
        const int64_t revision = Now().heads.at("net").record.document.revision;
        AwaitRevisions("net", std::vector<int64_t>(HOSTS, revision));
    }
}

}
