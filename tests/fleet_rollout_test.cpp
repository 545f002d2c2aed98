// Rollouts on real members of etcd, and what operators see of them.
#include "tests/fleet_rollout.h"

#include <random>

namespace {

TEST_F(RolloutTest, APushReachesAllHosts)
{
    AddHosts(3);
    // Nothing is lost while no driver leads, and the push says so.
    Await([](const Fleet &fleet) { return fleet.hosts.size() == 3; });
    const Said early = Push("net", "port0.toml", "--select site=a --canary 1 --batch 50% --detach");
    EXPECT_EQ(early.exitCode, 0) << early.text;
    EXPECT_NE(early.text.find("no driver leads"), std::string::npos) << early.text;
    StartDriver();
    EXPECT_EQ(AwaitEnd("net").state, RolloutState::DONE);
    AwaitRevisions("net", {1, 1, 1});

    const Said said = Push("net", "port1.toml", "--canary 1 --batch 1");
    EXPECT_EQ(said.exitCode, 0) << said.text;
    for (const Json &row : said.Result())
        EXPECT_EQ(row["turn"], "confirmed");
    AwaitRevisions("net", {2, 2, 2});
    for (const auto &agent : agents)
        EXPECT_EQ(agent->Changes().size(), 2u);
}

TEST_F(RolloutTest, FailuresBringItBack)
{
    Begin(4);
    agents[1]->Behave(Habit::FAILS);
    agents[2]->Behave(Habit::IGNORES);
    const std::string options = "--select site=a --batch 1 --deadline 1s --max-failures ";
    Said said = Push("net", "port1.toml", options + "1");
    EXPECT_EQ(said.exitCode, 1);
    EXPECT_NE(said.text.find("2 hosts failed, and 1 may: host1: no port of that name"), std::string::npos)
        << said.text;
    AwaitRevisions("net", {1, 1, 1, 1});
    EXPECT_EQ(Now().heads.at("net").record.document.revision, 1);
    EXPECT_EQ(agents[3]->Changes().size(), 1u); // its turn has never come

    said = Push("net", "port1.toml", options + "2");
    EXPECT_EQ(said.exitCode, 0) << said.text;
    AwaitRevisions("net", {3, 1, 1, 3});
    EXPECT_EQ(Run("status net --json").Result()[1]["error"], "no port of that name");

    // A plan that can't be carried out anywhere stops it before anything is changed.
    agents[3]->Behave(Habit::REFUSES_PLAN);
    said = Push("net", "port2.toml");
    EXPECT_EQ(said.exitCode, 1);
    EXPECT_NE(said.text.find("no host was changed"), std::string::npos) << said.text;
    EXPECT_NE(said.text.find("host3: no uplink of that name"), std::string::npos) << said.text;
    EXPECT_EQ(agents[0]->Changes().size(), 4u);
}

TEST_F(RolloutTest, OperatorsLookAndSteer)
{
    Begin(3);
    const Said diff = Run("diff net " + Path("port1.toml") + " --json");
    EXPECT_EQ(diff.exitCode, 10) << diff.text;
    EXPECT_EQ(diff.Result()[1]["steps"][0]["after"], "host1");
    AwaitRevisions("net", {1, 1, 1});
    for (const auto &agent : agents)
        EXPECT_EQ(agent->Changes().size(), 1u);

    // Paused after the canary, resumed, and aborted.
    ASSERT_EQ(Push("net", "port1.toml", "--canary 1 --batch 1 --soak 1h --detach").exitCode, 0);
    Await([](const Fleet &fleet) { return fleet.LastRollout("net")->record.started == 1; });
    EXPECT_EQ(Push("net", "port2.toml").exitCode, 1); // one is running
    EXPECT_EQ(Run("pause net").exitCode, 0);
    Await([](const Fleet &f) { return f.LastRollout("net")->record.state == RolloutState::PAUSED; });
    EXPECT_EQ(Run("resume net").exitCode, 0);
    Await([](const Fleet &f) { return f.LastRollout("net")->record.state == RolloutState::RUNNING; });
    EXPECT_EQ(Run("abort net").exitCode, 0);
    EXPECT_EQ(AwaitEnd("net").state, RolloutState::ABORTED);
    AwaitRevisions("net", {1, 1, 1});
    EXPECT_EQ(Run("pause net").exitCode, 3);

    ASSERT_EQ(Push("net", "port2.toml").exitCode, 0);
    EXPECT_EQ(Run("rollback net").exitCode, 0);
    AwaitRevisions("net", {1, 1, 1});
    EXPECT_EQ(Run("rollback net 77").exitCode, 3);

    // A host's labels are changed: it follows no longer, and another one does.
    EXPECT_EQ(Run("label host2 site=b").exitCode, 0);
    AwaitRevisions("net", {1, 1, 0});
    EXPECT_EQ(Run("label host2 site=a role=edge").exitCode, 0);
    AwaitRevisions("net", {1, 1, 1});
    EXPECT_EQ(Run("label nobody site=a").exitCode, 3);
    EXPECT_EQ(Run("hosts --json").Result()[2]["labels"], (Json{{"site", "a"}, {"role", "edge"}}));
    EXPECT_EQ(Run("status --json").Result()[0]["following"], 3);

    EXPECT_EQ(Run("remove net --prune").exitCode, 0);
    AwaitRevisions("net", {0, 0, 0});
    EXPECT_EQ(Now().hosts.at("host0").target.record.prune, std::vector<std::string>{"net"});

    const Json history = Run("history net --diff --json").Result();
    std::vector<std::string> actions;
    for (const Json &row : history) {
        actions.push_back(row["action"]);
        EXPECT_NE(row["author"].get<std::string>().find('@'), std::string::npos);
    }
    // Of the same second in any order.
    for (const char *action :
         {"push", "diff", "pause", "resume", "abort", "aborted", "rollback", "remove", "done"})
        EXPECT_NE(std::find(actions.begin(), actions.end(), action), actions.end()) << action;
    bool isShown = false;
    for (const Json &row : history)
        isShown = isShown ||
                  (row["action"] == "push" && row["difference"].dump().find("port2") != std::string::npos);
    EXPECT_TRUE(isShown) << history.dump();
}

TEST_F(RolloutTest, APushIsRefusedWithItsReason)
{
    Begin(2);
    Write("bad.toml", "[switches.lab]\nuplinks = [\"uplink0\"]\nmtu = \"big\"\n");
    Write("broken.json", "{\"switches\": {");
    // Names that don't compress: as many as etcd takes, and too many.
    std::mt19937 random(1);
    Json switches = Json::object();
    for (int i = 1; i <= 13000; i++) {
        std::string name(127, ' ');
        for (char &c : name)
            c = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-"[random() % 64];
        switches[name] = {{"mtu", 1500}};
        if (i == 5000) Write("fits.json", Json{{"switches", switches}}.dump());
    }
    Write("large.json", Json{{"switches", switches}}.dump());
    const int64_t before = Now().heads.at("net").modified;
    const struct {
        const char *words;
        int exitCode;
        std::vector<std::string> says;
    } rows[] = {
        {"push other port1.toml --select site=a", 5, {"'net'", "'other'", "'lab'", "host0"}},
        {"push net bad.toml", 5, {"bad.toml:3", "mtu"}},
        {"push net broken.json", 5, {"broken.json"}},
        {"push net large.json", 5, {"bytes in etcd", "split it"}},
        {"push net missing.toml", 3, {"missing.toml"}},
        {"push a/b port0.toml --all", 5, {"'a/b'"}},
        {"push new port0.toml", 2, {"--select"}},
        {"push net port0.toml --batch 0", 2, {"--batch"}},
        {"push net port0.toml --select site", 2, {"'site'"}},
        {"push net port0.toml --soak soon", 5, {"--soak"}},
        {"rollback nothing", 3, {"'nothing'"}},
        {"status nothing", 3, {"'nothing'"}},
        {"history nothing", 3, {"'nothing'"}},
        {"release nobody", 3, {"'nobody'"}},
    };
    std::filesystem::current_path(directory);
    for (const auto &row : rows) {
        const Said said = Run(row.words);
        EXPECT_EQ(said.exitCode, row.exitCode) << row.words << ": " << said.text;
        for (const std::string &word : row.says)
            EXPECT_NE(said.text.find(word), std::string::npos) << row.words << ": " << said.text;
        EXPECT_EQ(std::count(said.text.begin(), said.text.end(), '\n'), 1) << said.text;
    }
    std::filesystem::current_path("/");
    EXPECT_EQ(Now().heads.at("net").modified, before);
    EXPECT_EQ(Now().rollouts.size(), 1u);

    // Two documents that don't meet may name the same switch, until labels bring them together.
    ASSERT_EQ(Run("label host1 site=b").exitCode, 0);
    ASSERT_EQ(Push("other", "port1.toml", "--select site=b").exitCode, 0);
    const Said both = Push("other", "port1.toml", "--all");
    EXPECT_EQ(both.exitCode, 5) << both.text;
    const Said fits = Push("fits", "fits.json", "--select site=b");
    EXPECT_EQ(fits.exitCode, 0) << fits.text;
}

TEST_F(RolloutTest, ADriverGoesOnWhereAnotherStopped)
{
    std::array<pid_t, 2> running = {Begin(5), StartDriver()};
    for (const int signal : {SIGKILL, SIGSTOP}) {
        const int64_t leader = Now().leader;
        ASSERT_EQ(Push("net", "port1.toml", "--canary 1 --batch 1 --soak 1s --detach").exitCode, 0);
        Await([](const Fleet &fleet) { return fleet.LastRollout("net")->record.started == 2; });
        kill(running[0], signal);
        EXPECT_EQ(AwaitEnd("net").state, RolloutState::DONE);
        const Fleet after = Now();
        EXPECT_NE(after.leader, leader);
        EXPECT_NE(after.leader, 0);
        std::map<std::string, int64_t> targets;
        for (const auto &[host, view] : after.hosts)
            targets[host] = view.target.modified;
        if (signal == SIGKILL) {
            waitpid(running[0], nullptr, 0);
            std::erase(drivers, running[0]);
            running = {running[1], StartDriver()};
        } else {
            // What the stopped one meant to do is refused: another one was elected since.
            kill(running[0], SIGCONT);
            std::this_thread::sleep_for(std::chrono::seconds(2));
            EXPECT_EQ(Now().leader, after.leader);
        }
        for (const auto &[host, view] : Now().hosts)
            EXPECT_EQ(view.target.modified, targets[host]) << host;
    }
    AwaitRevisions("net", {3, 3, 3, 3, 3});
    for (const auto &agent : agents)
        EXPECT_EQ(agent->Changes().size(), 3u) << agent->host; // each had its turn once
}

TEST_F(RolloutTest, RolesKeepEachToItsOwn)
{
    // The authority that etcd knows, as `vsfleet setup` would have made it.
    const std::string authority = directory + "/authority";
    std::filesystem::create_directories(authority);
    Write("authority/ca.pem", etcd.Authority().certificate);
    Write("authority/ca.key", etcd.Authority().key);
    std::filesystem::copy(config, authority + "/fleet.toml");
    for (const char *user : {"driver", "operator", "reader"})
        WriteConfig(user);
    ASSERT_EQ(Run("setup --roles --directory " + authority).exitCode, 0);
    for (const char *host : {"host1", "host10", "host1"}) { // the last one is a renewal
        const Said said = Run(fmt::format("enroll {} site=a --directory {} --json", host, authority));
        ASSERT_EQ(said.exitCode, 0) << said.text;
    }
    Client root(etcd.Endpoints());
    const auto as = [&](const std::string &user) {
        Endpoints endpoints = etcd.Endpoints();
        const std::string own = user.starts_with("host") ? authority + "/hosts/" + user + "/host" : "";
        if (own.empty()) return Client(etcd.Endpoints(user));
        endpoints.certificate = own + ".pem";
        endpoints.key = own + ".key";
        return Client(endpoints);
    };
    enum Right { NOTHING, READ, WRITE };
    const struct {
        std::string key;
        std::map<std::string, Right> rights;
    } rows[] = {
        {keys::Head("net"), {{"host1", READ}, {"operator", WRITE}, {"reader", READ}, {"driver", WRITE}}},
        {keys::Target("host1"),
         {{"host1", READ}, {"host10", NOTHING}, {"operator", READ}, {"driver", WRITE}}},
        {keys::Target("host10"), {{"host1", NOTHING}, {"host10", READ}, {"reader", READ}}},
        {keys::Labels("host1"),
         {{"host1", READ}, {"host10", NOTHING}, {"operator", WRITE}, {"reader", READ}}},
        {keys::Claim("host1"),
         {{"host1", WRITE}, {"host10", NOTHING}, {"operator", WRITE}, {"reader", READ}}},
        {keys::Machine("host1"), {{"host1", WRITE}, {"host10", NOTHING}, {"operator", WRITE}}},
        {keys::Status("host1"),
         {{"host1", WRITE}, {"host10", NOTHING}, {"operator", READ}, {"reader", READ}}},
        {keys::Status("host10"), {{"host1", NOTHING}, {"host10", WRITE}}},
        {keys::Plan("host10", "r"), {{"host1", NOTHING}, {"host10", WRITE}, {"operator", READ}}},
        {keys::Status("host2"), {{"host1", NOTHING}, {"host10", NOTHING}}},
        {keys::Rollout("r"), {{"host1", NOTHING}, {"operator", WRITE}, {"reader", READ}, {"driver", WRITE}}},
        {keys::LEADER, {{"host1", NOTHING}, {"operator", READ}, {"driver", WRITE}}},
        {keys::AUDIT + "x", {{"host1", NOTHING}, {"operator", WRITE}, {"reader", READ}, {"driver", WRITE}}},
        {keys::ADOPTED, {{"host1", READ}, {"operator", WRITE}, {"reader", READ}}},
    };
    for (const auto &row : rows) {
        for (const auto &[user, right] : row.rights) {
            Client client = as(user);
            Right has = NOTHING;
            try {
                client.Get(row.key);
                has = READ;
                // The value that there is, so that a key that may be written stays as it is.
                const auto entry = root.Get(row.key);
                client.Commit(Transaction().Put(row.key, entry ? entry->value : "{}"));
                has = WRITE;
                if (!entry) root.Commit(Transaction().Delete(row.key));
            } catch (const EtcdError &error) {
                EXPECT_EQ(error.kind, EtcdError::Kind::DENIED) << error.what();
            }
            EXPECT_EQ(has, right) << user << " " << row.key;
        }
    }

    // They are enough for the work.
    config = Path("driver.toml");
    StartDriver();
    for (const char *host : {"host1", "host10"}) {
        Endpoints endpoints = etcd.Endpoints();
        endpoints.certificate = authority + "/hosts/" + host + "/host.pem";
        endpoints.key = authority + "/hosts/" + host + "/host.key";
        agents.push_back(std::make_unique<LightAgent>(endpoints, host, LEASE));
    }
    Await([](const Fleet &fleet) {
        return fleet.leader && fleet.hosts.at("host1").IsHere() && fleet.hosts.at("host10").IsHere();
    });
    Said said = Run("push net " + Path("port0.toml") + " --all", "operator");
    EXPECT_EQ(said.exitCode, 0) << said.text;
    said = Run("diff net " + Path("port1.toml"), "operator");
    EXPECT_EQ(said.exitCode, 10) << said.text;
    EXPECT_EQ(Run("label host1 site=b", "operator").exitCode, 0);
    EXPECT_EQ(Run("release host1", "operator").exitCode, 0);
    EXPECT_EQ(Run("adopt", "operator").exitCode, 0);
    EXPECT_EQ(Run("status", "reader").exitCode, 0);
    EXPECT_EQ(Run("push net " + Path("port1.toml"), "reader").exitCode, 7);
    EXPECT_EQ(Run("label host1 site=c", "reader").exitCode, 7);
    EXPECT_EQ(Run("release host10 --forget", "operator").exitCode, 7);
    agents.clear();
    EXPECT_EQ(Run("release host10 --forget").exitCode, 0);
    EXPECT_FALSE(Now().hosts.contains("host10"));
}

// Hosts with switches: real agents, which run vsctl on throw-away hosts.
class RealHosts : public RolloutTest {
protected:
    ~RealHosts() override
    {
        for (const pid_t process : processes)
            End(process, SIGKILL);
        KillAllOn(directory + "/h");
    }

    std::string OnHost(int number) const
    {
        return fmt::format("{}/platform/vshost run --state {}/h{} --durability process --", BUILD, directory,
                           number);
    }

    // An agent, whose vsctl obeys files of the test: with fail0, host 0 fails to apply port1; with slow0, it
    // takes long for it; with older0, it doesn't know port2.
    void StartHost(int number)
    {
        const std::string vsctl = Path(fmt::format("vsctl{}", number));
        Write(fmt::format("vsctl{}", number), fmt::format(R"(#!/bin/sh
has() {{ [ -e {0}/$1{1} ] && grep -q "$2" "$3"; }}
case "$*" in
plan*|apply*.json*) has older port2 "$2" && {{
    echo "{{\"error\":{{\"problem\":\"$2: switches/lab/ports/port2 is not a known key\"}}}}" >&2; exit 5; }} ;;
esac
case "$*" in
*--dry-run*) ;;
apply*.json*)
    if has fail port1 "$2"; then echo 'vsctl: no such luck' >&2; exit 1; fi
    if has slow port1 "$2"; then sleep {3}; fi ;;
esac
exec {2} "$@"
)",
                                                          directory, number, VSCTL, SlowTime()));
        std::filesystem::permissions(vsctl, std::filesystem::perms::owner_all);
        std::string text = Text("root.toml");
        text.replace(text.find(VSCTL), strlen(VSCTL), vsctl);
        text.replace(text.find("/state"), 6, fmt::format("/state{}", number));
        Write(fmt::format("host{}.toml", number),
              text + fmt::format("host = \"host{}\"\ndrift-interval = 1\n", number));
        Client(etcd.Endpoints())
            .Commit(Transaction().Put(keys::Labels(fmt::format("host{}", number)),
                                      ToText(Labels{{"site", "a"}})));
        processes.push_back(Spawn(
            fmt::format("{} {} agent --config {}/host{}.toml", OnHost(number), VSFLEET, directory, number),
            Path("agents.log")));
    }

    // Seconds that a slow host takes.
    static std::string SlowTime()
    {
        const char *given = getenv("FLEET_SLOW");
        return given ? given : "4";
    }

    // Whether the host has this port, and its switch.
    bool HasPort(int host, const std::string &port) const
    {
        return !system(
            fmt::format("{} {} port security lab {} >/dev/null 2>&1", OnHost(host), VSCTL, port).c_str());
    }

    const std::string BUILD = std::filesystem::path(VSFLEET).parent_path();
    std::vector<pid_t> processes;
};

TEST_F(RealHosts, FollowARolloutAndGoBack)
{
    for (int host = 0; host < 3; host++)
        StartHost(host);
    StartDriver();
    Await([](const Fleet &fleet) {
        return fleet.leader && fleet.hosts.size() == 3 && fleet.hosts.at("host0").IsHere() &&
               fleet.hosts.at("host1").IsHere() && fleet.hosts.at("host2").IsHere();
    });
    const Said first = Push("net", "port0.toml", "--select site=a --canary 1");
    EXPECT_EQ(first.exitCode, 0) << first.text << Text("agents.log");
    const Said diff = Run("diff net " + Path("port1.toml") + " --allow-removals --json");
    EXPECT_EQ(diff.exitCode, 10) << diff.text;
    for (int host = 0; host < 3; host++) {
        EXPECT_TRUE(HasPort(host, "port0"));
        EXPECT_FALSE(HasPort(host, "port1"));
        EXPECT_NE(diff.Result()[static_cast<size_t>(host)]["steps"].dump().find("port1"), std::string::npos);
    }

    Write("fail2", "");
    const Said failed = Push("net", "port1.toml", "--batch 1 --allow-removals");
    EXPECT_EQ(failed.exitCode, 1) << failed.text;
    EXPECT_NE(failed.text.find("rolled back: 1 host failed, and 0 may: host2"), std::string::npos)
        << failed.text;
    EXPECT_NE(failed.text.find("no such luck"), std::string::npos) << failed.text;
    AwaitRevisions("net", {1, 1, 1});
    for (int host = 0; host < 3; host++) {
        EXPECT_TRUE(HasPort(host, "port0"));
        EXPECT_FALSE(HasPort(host, "port1"));
    }
    std::filesystem::remove(Path("fail2"));

    // A host with an older version refuses what it doesn't know. The others can go on without it.
    Write("older1", "");
    const Said unknown = Push("net", "port2.toml", "--allow-removals");
    EXPECT_EQ(unknown.exitCode, 1) << unknown.text;
    for (const char *word :
         {"no host was changed", "host1: document 'net', revision ", "port2 is not a known"})
        EXPECT_NE(unknown.text.find(word), std::string::npos) << word << ": " << unknown.text;
    EXPECT_EQ(Push("net", "port2.toml", "--allow-removals --max-failures 1").exitCode, 0);
    const int64_t now = Now().heads.at("net").record.document.revision;
    AwaitRevisions("net", {now, 1, now});
    EXPECT_TRUE(HasPort(1, "port0"));
    EXPECT_FALSE(HasPort(1, "port2"));
    std::filesystem::remove(Path("older1"));
    EXPECT_EQ(Push("net", "port0.toml", "--allow-removals").exitCode, 0);

    // A slow one is waited for.
    Write("slow0", "");
    EXPECT_EQ(Push("net", "port1.toml", "--batch 1 --allow-removals").exitCode, 0);
    EXPECT_EQ(Run("remove net --prune").exitCode, 0);
    for (int host = 0; host < 3; host++)
        EXPECT_FALSE(HasPort(host, "port1"));
}

}
