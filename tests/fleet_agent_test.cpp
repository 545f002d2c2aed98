// The agent on throw-away hosts: real agents, real vsctl, a real etcd with TLS.
#include "tests/fleet_etcd.h"

#include <csignal>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "fleet/etcd/watch.h"
#include "fleet/protocol/documents.h"
#include "fleet/protocol/keys.h"
#include "tests/fleet_hosts.h"
#include "tests/fleet_relay.h"

namespace {

using namespace vsfleet;
namespace fs = std::filesystem;

const fs::path BUILD = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
// A test that waits this long has failed. What it waits for takes a few seconds on an idle machine.
constexpr std::chrono::seconds PATIENCE{60};

template<class Condition> void Await(const std::string &what, Condition condition)
{
    const Clock::time_point end = Clock::now() + PATIENCE;
    while (!condition()) {
        if (Clock::now() > end) throw std::runtime_error("waited in vain for " + what);
        std::this_thread::sleep_for(Milliseconds(20));
    }
}

// A host with its agent.
class Host {
public:
    // `lease` and the time between looks for drift in seconds.
    Host(const std::string &name, const Endpoints &endpoints, int lease = 2, int drift = 1) : name(name)
    {
        std::string made = "/dev/shm/agent-XXXXXX";
        if (!mkdtemp(made.data())) abort();
        directory = made;
        Write("fleet.toml", ConfigOf(endpoints) +
                                fmt::format("host = \"{0}\"\nstate = \"{1}/state\"\nvsctl = \"{1}/vsctl\"\n"
                                            "lease = {2}\ndrift-interval = {3}\n",
                                            name, directory.string(), lease, drift));
        Interpose("");
    }
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    ~Host()
    {
        Kill();
        KillOthers();
        if (testing::Test::HasFailure() || std::uncaught_exceptions())
            fprintf(stderr, "--- %s ---\n%s", name.c_str(), Log().c_str());
        fs::remove_all(directory);
    }

    // With what stands before the command.
    void Start(const std::string &before = "")
    {
        process = Spawn(fmt::format("{0} {1}/platform/vshost run --state {2}/host --durability process -- "
                                    "{1}/vsfleet agent --config {2}/fleet.toml",
                                    before, BUILD.string(), directory.string()),
                        Path("log"));
    }
    void Signal(int number) const { kill(process, number); }
    void Kill()
    {
        if (process > 0) Signal(SIGKILL);
        AwaitEnd();
    }
    int AwaitEnd()
    {
        int status = 0;
        if (process > 0) waitpid(std::exchange(process, -1), &status, 0);
        return status;
    }
    // All that runs on the host, such as what guards an unconfirmed change.
    void KillOthers() const { KillAllOn(Path("host")); }

    // What the agent runs as vsctl: the script, which may call `vsctl`, or vsctl itself.
    void Interpose(const std::string &script)
    {
        Write("vsctl.new",
              fmt::format("#!/bin/sh\nvsctl() {{ {0}/vsctl \"$@\"; }}\ncd {1}\n{2}\nexec {0}/vsctl \"$@\"\n",
                          BUILD.string(), directory.string(), script));
        chmod(Path("vsctl.new").c_str(), 0700);
        fs::rename(Path("vsctl.new"), Path("vsctl"));
    }
    Said Vsctl(const std::string &words) const
    {
        return RunCommand(
            fmt::format("{0}/platform/vshost run --state {1}/host --durability process -- {0}/vsctl {2}",
                        BUILD.string(), directory.string(), words));
    }
    // Whether the host is as the document says, and has no other switch.
    bool Is(const Json &document) const
    {
        Write("wanted.json", document.dump());
        const Json switches = Json::parse(Vsctl("switch list --json").text)["result"];
        return switches.size() == document["switches"].size() &&
               Vsctl("plan " + Path("wanted.json")).exitCode == 0;
    }
    bool HasUnfinishedChange() const { return fs::exists(directory / "host/vsctl/journal.cbor"); }

    void Write(const std::string &file, const std::string &text) const
    {
        std::ofstream(directory / file) << text;
    }
    std::string Path(const std::string &file) const { return directory / file; }
    bool Has(const std::string &file) const { return fs::exists(directory / file); }
    std::string Log() const { return ReadText(Path("log")); }

    const std::string name;

private:
    fs::path directory;
    pid_t process = -1;
};

// Switch lab with ports 0 to `ports` - 1 in a VLAN.
Json Lab(int vlan, int ports = 4, const std::string &alias = "lab")
{
    return {
        {"switches",
         {{alias, {{"ports", {{fmt::format("port0..port{}", ports - 1), {{"vlan", {{"id", vlan}}}}}}}}}}}};
}

class Agent : public testing::Test {
protected:
    Agent() : client(etcd.Endpoints()) {}

    DocumentRevision Store(const std::string &name, const Json &document)
    {
        const StoredDocument stored = vsfleet::Store(document.dump());
        const DocumentRevision revision{name, ++revisions, stored.sum};
        client.Commit(Transaction().Put(keys::Revision(name, revision.revision), ToText(stored)));
        return revision;
    }
    // Returns the number of the target.
    int64_t Ask(const Host &host, Target target)
    {
        if (target.reason.empty()) target.phase = Phase::APPLY;
        return client.Commit(Transaction().Put(keys::Target(host.name), ToText(target))).revision;
    }
    int64_t Ask(const Host &host, const Json &document, bool allowRemovals = false)
    {
        Target target = TargetOf(document);
        target.allowRemovals = allowRemovals;
        return Ask(host, target);
    }
    // What the host plans for the target.
    Plan PlanOf(Target target, const std::string &rollout = "r1")
    {
        target.phase = Phase::PLAN;
        target.rollout = rollout;
        const int64_t number =
            client.Commit(Transaction().Put(keys::Target("host1"), ToText(target))).revision;
        Plan plan;
        Await("the plan", [&] {
            const auto entry = client.Get(keys::Plan("host1", rollout));
            plan = entry ? FromText<Plan>(entry->value) : Plan();
            return plan.target == number;
        });
        return plan;
    }
    // A target of one document.
    Target TargetOf(const Json &document)
    {
        Target target;
        target.documents = {Store("doc", document)};
        return target;
    }
    // The claim as of an earlier start of the machine.
    void AgeClaim()
    {
        const auto entry = client.Get(keys::Claim("host1"));
        Claim claim = FromText<Claim>(entry->value);
        claim.boot = "another";
        client.Commit(Transaction().Put(keys::Claim("host1"), ToText(claim), entry->lease));
    }
    Status StatusOf(const Host &host)
    {
        const auto entry = client.Get(keys::Status(host.name));
        return entry ? FromText<Status>(entry->value) : Status();
    }
    Status AwaitState(const Host &host, HostState state, int64_t target)
    {
        Status status;
        Await(fmt::format("{} of target {}", Json(state).dump(), target), [&] {
            status = StatusOf(host);
            return status.target == target && status.state == state;
        });
        return status;
    }
    // The host is confirmed to be as the document says.
    void Confirmed(const Host &host, const Json &document, int64_t target)
    {
        AwaitState(host, HostState::CONFIRMED, target);
        EXPECT_TRUE(host.Is(document));
        EXPECT_FALSE(host.HasUnfinishedChange());
    }
    // The host has refused or undone a change, and is as this document says.
    Status Failed(const Host &host, const Json &document, int64_t target, const std::string &reason)
    {
        const Status status = AwaitState(host, HostState::FAILED, target);
        EXPECT_TRUE(status.error.find(reason) != std::string::npos) << status.error;
        EXPECT_TRUE(host.Is(document));
        EXPECT_FALSE(host.HasUnfinishedChange());
        return status;
    }

    // With users, of which the agent has no more rights than it needs.
    Endpoints AsAgent()
    {
        const std::string own = keys::Host("host1");
        client.AddRole("root");
        client.AddUser("root", "root");
        client.AddRole("agent");
        for (const std::string &key : {keys::DESIRED, keys::ADOPTED, keys::Target("host1")})
            client.Permit("agent", key, false);
        for (const std::string &key :
             {keys::Claim("host1"), keys::Status("host1"), keys::Machine("host1"), own + "plan/"})
            client.Permit("agent", key, true);
        client.AddUser("agent", "agent");
        client.EnableAuth();
        return etcd.Endpoints("agent");
    }

    EtcdCluster etcd;
    Client client;
    int64_t revisions = 0;
};

// With a host that follows a first document.
class Follower : public Agent {
protected:
    void SetUp() override
    {
        host.Start();
        Confirmed(host, Lab(7), Ask(host, Lab(7)));
    }

    Host host{"host1", etcd.Endpoints()};
};

TEST_F(Follower, FollowsItsTarget)
{
    EXPECT_EQ(StatusOf(host).documents.at(0).revision, 1);
    // Fewer ports: a removal, which has to be allowed.
    Failed(host, Lab(7), Ask(host, Lab(8, 2)), "--allow-removals");
    EXPECT_EQ(StatusOf(host).documents.at(0).revision, 1);
    Confirmed(host, Lab(8, 2), Ask(host, Lab(8, 2), true));
    EXPECT_EQ(host.Vsctl("port vlan lab port3").exitCode, 3);

    // Of two documents, one goes with its switch, the other leaves its switch behind.
    const Json both = {
        {"switches", {{"lab", Lab(8, 2)["switches"]["lab"]}, {"wan", Lab(9, 2, "wan")["switches"]["wan"]}}}};
    Target target;
    target.documents = {Store("doc", Lab(8, 2)), Store("wan", Lab(9, 2, "wan"))};
    Confirmed(host, both, Ask(host, target));
    target.documents.erase(target.documents.begin());
    Confirmed(host, both, Ask(host, target));
    target.documents.clear();
    target.prune = {"wan"};
    target.allowRemovals = true;
    Confirmed(host, Lab(8, 2), Ask(host, target));
}

TEST_F(Follower, RefusesWhatItCannotFollow)
{
    const Json newer = {{"switches", {{"lab", {{"teleport", true}}}}}};
    const DocumentRevision damaged = Store("doc", Lab(8)), missing{"doc", 99, damaged.sum};
    StoredDocument bytes =
        FromText<StoredDocument>(client.Get(keys::Revision("doc", damaged.revision))->value);
    bytes.compressed[5] ^= 1;
    client.Commit(Transaction().Put(keys::Revision("doc", damaged.revision), ToText(bytes)));
    const DocumentRevision later = Store("doc", Lab(8));
    bytes = FromText<StoredDocument>(client.Get(keys::Revision("doc", later.revision))->value);
    bytes.format = 2;
    client.Commit(Transaction().Put(keys::Revision("doc", later.revision), ToText(bytes)));
    const struct {
        std::vector<DocumentRevision> documents;
        const char *reason;
    } rows[] = {
        {{Store("doc", newer)}, "document 'doc', revision 4: switches/lab/teleport is not a known key"},
        {{Store("a", Lab(1)), Store("b", Lab(2))}, "'a' and 'b' both name the switch 'lab'"},
        {{damaged}, "damaged"},
        {{later}, "revision 3 of document 'doc' has format 2, and vsfleet"},
        {{missing}, "revision 99 of document 'doc' is not in etcd"}};
    for (const auto &row : rows) {
        Target target;
        target.documents = row.documents;
        Failed(host, Lab(7), Ask(host, target), row.reason);
        const Plan plan = PlanOf(target);
        EXPECT_NE(plan.error.find(row.reason), std::string::npos) << plan.error;
    }

    // A plan changes nothing.
    const Plan plan = PlanOf(TargetOf(Lab(9)), "r2");
    EXPECT_EQ(plan.error, "");
    EXPECT_EQ(plan.changes, 4);
    EXPECT_EQ(plan.steps.at(0)["item"], "vlan");
    EXPECT_TRUE(host.Is(Lab(7)));

    Target target;
    target.reason = "two documents name one switch";
    EXPECT_EQ(AwaitState(host, HostState::HELD, Ask(host, target)).error, target.reason);
    EXPECT_TRUE(host.Is(Lab(7)));

    // What only a later driver asks for.
    Json unknown = target;
    unknown["phase"] = "migrate";
    unknown["speed"] = 3;
    AwaitState(host, HostState::HELD,
               client.Commit(Transaction().Put(keys::Target("host1"), unknown.dump())).revision);
    EXPECT_TRUE(host.Is(Lab(7)));
}

// The agent, and with it all that runs on the host or nothing else, is killed at each step of a change.
struct Death {
    const char *name;
    const char *script; // in place of vsctl; "die" kills
    bool isConfirmed;   // what becomes of the change
};

class Deaths : public Follower, public testing::WithParamInterface<std::tuple<Death, bool>> {};

TEST_P(Deaths, LeaveAWholeRevision)
{
    const auto &[death, takesAll] = GetParam();
    host.Interpose(std::string("die() { touch died; kill -9 $PPID; sleep 1; exit 1; }\n") + death.script);
    const int64_t target = Ask(host, Lab(8, 6));
    Await("the death", [&] { return host.Has("died"); });
    host.AwaitEnd();
    if (takesAll) host.KillOthers();
    host.Interpose("");
    host.Start();
    if (death.isConfirmed)
        Confirmed(host, Lab(8, 6), target);
    else
        Failed(host, Lab(7), target, "undone");
    Confirmed(host, Lab(9, 6), Ask(host, Lab(9, 6)));
}

constexpr const char *APPLIES = "case \"$*\" in apply*--confirm-within*) ";
const std::string BEFORE = std::string(APPLIES) + "die;; esac",
                  WITHIN = std::string(APPLIES) +
                           "export LD_PRELOAD=" + (BUILD / "tests/libkill_at.so").string() +
                           ":$LD_PRELOAD VSCTL_TEST_KILL_AT=20; vsctl \"$@\"; die;; esac",
                  AFTER = std::string(APPLIES) + "vsctl \"$@\"; die;; esac";

INSTANTIATE_TEST_SUITE_P(
    Steps, Deaths,
    testing::Combine(
        testing::Values(Death{"before", BEFORE.c_str(), false}, Death{"within", WITHIN.c_str(), false},
                        Death{"after", AFTER.c_str(), false},
                        Death{"unconfirmed", "[ \"$1\" = confirm ] && [ \"$2\" = --json ] && die", true},
                        Death{"confirmed",
                              "[ \"$1\" = confirm ] && [ \"$2\" = --json ] && vsctl confirm && die", true}),
        testing::Bool()),
    [](const auto &info) {
        return std::string(std::get<0>(info.param).name) + (std::get<1>(info.param) ? "_with_all" : "_alone");
    });

// Holds the agent up after it has applied a change.
const std::string PAUSES =
    std::string(APPLIES) +
    "vsctl \"$@\" || exit; touch applied; while [ ! -e go ]; do sleep 0.05; done; exit 0;; esac";

TEST_F(Follower, UndoesWhatItCannotConfirm)
{
    Target target = TargetOf(Lab(8));
    target.confirm = 5;

    // The confirmation comes too late.
    host.Interpose("[ \"$1\" = confirm ] && [ \"$2\" = --json ] && sleep 6");
    int64_t number = Ask(host, target);
    Failed(host, Lab(7), number, "not confirmed in time");

    // The machine is started again within the time to confirm, and undoes the change before the agent starts.
    target.confirm = 600;
    host.Interpose(PAUSES);
    number = Ask(host, target);
    Await("the change", [&] { return host.Has("applied"); });
    host.Kill();
    host.KillOthers();
    std::string journal = ReadText(host.Path("host/vsctl/journal.cbor"));
    std::string boot = ReadText("/proc/sys/kernel/random/boot_id");
    boot.pop_back();
    ASSERT_NE(journal.find(boot), std::string::npos);
    journal.replace(journal.find(boot), boot.size(), std::string(boot.size(), '0'));
    host.Write("host/vsctl/journal.cbor", journal);
    EXPECT_EQ(host.Vsctl("confirm").exitCode, 8);
    EXPECT_EQ(host.Vsctl("apply --undo --if-rebooted").exitCode, 0);
    host.Interpose("");
    host.Start();
    Failed(host, Lab(7), number, "undone");

    // Another target comes before the report: nobody confirms the first.
    host.Interpose("[ \"$1\" = confirm ] && [ \"$2\" = --json ] && echo >>confirmed\n" + PAUSES);
    fs::remove(host.Path("applied"));
    Ask(host, target);
    Await("the change", [&] { return host.Has("applied"); });
    number = Ask(host, Lab(9));
    host.Write("go", "");
    Confirmed(host, Lab(9), number);
    EXPECT_EQ(ReadText(host.Path("confirmed")), "\n");
}

TEST_F(Agent, KeepsItsClaimDuringALongChange)
{
    Host host("host1", etcd.Endpoints(), 5);
    host.Start();
    host.Interpose(PAUSES);
    const int64_t number = Ask(host, Lab(7));
    Await("the change", [&] { return host.Has("applied"); });
    const auto claim = client.Get(keys::Claim("host1"));
    std::this_thread::sleep_for(std::chrono::seconds(7));
    host.Write("go", "");
    Confirmed(host, Lab(7), number);
    EXPECT_EQ(client.Get(keys::Claim("host1"))->modified, claim->modified);
}

TEST_F(Agent, UndoesAChangeThatOnlyItsOldConnectionSurvives)
{
    Endpoints endpoints = etcd.Endpoints();
    Relay relay(endpoints.addresses[0]);
    endpoints.addresses = {relay.Address()};
    Host host("host1", endpoints);
    host.Start();
    Confirmed(host, Lab(7), Ask(host, Lab(7)));
    host.Interpose(PAUSES);
    Target target = TargetOf(Lab(8));
    target.confirm = 4;
    const int64_t number = Ask(host, target);
    Await("the change", [&] { return host.Has("applied"); });
    // The lease is kept over the old connection all the time.
    relay.takesNew = false;
    host.Write("go", "");
    Await("the undo", [&] { return !host.HasUnfinishedChange(); });
    EXPECT_TRUE(host.Is(Lab(7)));
    relay.takesNew = true;
    Failed(host, Lab(7), number, "undone");
}

// The report of a change's beginning is sent, not answered in time and sent again. It arrives a second time
// when the change is over.
TEST_F(Agent, ReportsThatArriveLateAreRefused)
{
    Endpoints endpoints = etcd.Endpoints();
    Relay relay(endpoints.addresses[0]);
    endpoints.addresses = {relay.Address()};
    Host host("host1", endpoints, 30, 3600);
    host.Start();
    Confirmed(host, Lab(7), Ask(host, Lab(7)));
    Target target = TargetOf(Lab(8));
    PlanOf(target); // it fetches the document
    relay.Delay(Milliseconds(12000));
    const int64_t number = Ask(host, target);
    Confirmed(host, Lab(8), number);
    EXPECT_GE(relay.Held(), 200u); // it has not arrived yet
    Await("the late report", [&] { return !relay.Held(); });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(StatusOf(host).state, HostState::CONFIRMED);
    Confirmed(host, Lab(9), Ask(host, Lab(9)));
}

// vsctl that doesn't end doesn't keep the agent.
TEST_F(Follower, EndsAVsctlThatHangs)
{
    Target target = TargetOf(Lab(8));
    target.deadline = 1;
    for (const char *hangs : {"sleep 3600", "vsctl \"$@\"; trap '' TERM; sleep 3600"}) {
        host.Interpose(std::string(APPLIES) + hangs + ";; esac");
        Failed(host, Lab(7), Ask(host, target), "took longer than 2 s");
    }
    host.Interpose("case \"$*\" in *--dry-run*) sleep 3600;; esac");
    EXPECT_NE(PlanOf(target).error.find("took longer than 1 s"), std::string::npos);
    host.Interpose("");
    Confirmed(host, Lab(9), Ask(host, Lab(9)));
}

// An agent, its vsctl and what guards a change, with a clock of their own.
TEST_F(Agent, DoesNotCareWhatTheClockSays)
{
    const char *library = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";
    ASSERT_TRUE(fs::exists(library)) << "install the package faketime";
    const struct {
        const char *name, *clock, *step;
        bool isConfirmed;
    } rows[] = {{"host1", "-1h", "+1h", true}, {"host2", "+1h", "-1h", false}};
    for (const auto &row : rows) {
        Host host(row.name, etcd.Endpoints());
        const auto set = [&](const char *clock) {
            host.Write("clock.new", clock);
            fs::rename(host.Path("clock.new"), host.Path("clock"));
        };
        set(row.clock);
        host.Start(fmt::format("env LD_PRELOAD={} FAKETIME_TIMESTAMP_FILE={} FAKETIME_NO_CACHE=1 "
                               "FAKETIME_DONT_FAKE_MONOTONIC=1",
                               library, host.Path("clock")));
        host.Interpose("date +%s >date");
        Confirmed(host, Lab(7), Ask(host, Lab(7)));
        EXPECT_GE(std::abs(std::stol(ReadText(host.Path("date"))) - time(nullptr)), 3000)
            << "the clock is right";

        // The clock is set within the time to confirm, in which etcd is there or not.
        Target target = TargetOf(Lab(8));
        target.confirm = row.isConfirmed ? 600 : 5;
        host.Interpose(PAUSES);
        const int64_t number = Ask(host, target);
        Await("the change", [&] { return host.Has("applied"); });
        set(row.step);
        if (!row.isConfirmed) etcd.Signal(0, SIGSTOP);
        host.Write("go", "");
        if (!row.isConfirmed) {
            Await("the undo", [&] { return !host.HasUnfinishedChange(); });
            etcd.Signal(0, SIGCONT);
            Failed(host, Lab(7), number, "undone");
        } else {
            Confirmed(host, Lab(8), number);
        }
    }
}

TEST_F(Agent, NeedsNoMoreThanItsRole)
{
    Host host("host1", AsAgent(), 20);
    host.Start();
    const Target target = TargetOf(Lab(7));
    PlanOf(target);
    Confirmed(host, Lab(7), Ask(host, target));
    host.Signal(SIGTERM);
    EXPECT_EQ(host.AwaitEnd(), 0);
    AgeClaim(); // it is made anew
    host.Start();
    Confirmed(host, Lab(8), Ask(host, Lab(8)));
}

TEST_F(Follower, CatchesUpWhenEtcdIsBack)
{
    // What it missed is compacted away, and its lease has run out.
    host.Signal(SIGSTOP);
    for (int vlan = 10; vlan < 20; vlan++)
        Ask(host, Lab(vlan));
    const int64_t number = Ask(host, Lab(20));
    client.Compact(number);
    Await("the end of the claim", [&] { return !client.Get(keys::Claim("host1")); });
    host.Signal(SIGCONT);
    Confirmed(host, Lab(20), number);

    etcd.Signal(0, SIGKILL);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_TRUE(host.Is(Lab(20)));
    etcd.Start(0);
    Await("etcd", [&] {
        try {
            return Ask(host, Lab(21)) > 0;
        } catch (const EtcdError &) {
            return false;
        }
    });
    AwaitState(host, HostState::CONFIRMED, client.Get(keys::Target("host1"))->modified);
    EXPECT_TRUE(host.Is(Lab(21)));
}

TEST_F(Agent, FollowsARestoredEtcdOnlyWhenItIsAdopted)
{
    Host host("host1", AsAgent());
    host.Start();
    for (bool isRunning : {true, false}) {
        Confirmed(host, Lab(7), Ask(host, Lab(7)));
        const std::string adoption = isRunning ? "first" : "second";
        client.Commit(Transaction().Put(keys::ADOPTED, ToText(Adoption{"before " + adoption, "", ""})));
        const int64_t old = client.Get(keys::Target("host1"))->modified;
        etcd.BackUp();
        Confirmed(host, Lab(8), Ask(host, Lab(8)));
        client.Compact(client.Known().revision);
        if (!isRunning) host.Kill();
        etcd.Restore();
        client.Adopt();
        // As many revisions as before don't make it the same etcd.
        for (int i = 0; i < 100 && !isRunning; i++)
            client.Commit(Transaction().Put("/other", "x"));
        if (!isRunning) host.Start();
        Status status;
        Await("the hold", [&] { return (status = StatusOf(host)).state == HostState::HELD; });
        EXPECT_NE(status.error.find("vsfleet adopt"), std::string::npos) << status.error;
        for (int i = 0; i < 100; i++)
            client.Commit(Transaction().Put("/other", "x"));
        host.Kill();
        host.Start();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        EXPECT_EQ(StatusOf(host).state, HostState::HELD);
        EXPECT_TRUE(host.Is(Lab(8)));
        EXPECT_EQ(client.Get(keys::Target("host1"))->modified, old);
        client.Commit(Transaction().Put(keys::ADOPTED, ToText(Adoption{adoption, "", ""})));
        Confirmed(host, Lab(7), old);
    }
    Confirmed(host, Lab(9), Ask(host, Lab(9)));
}

TEST_F(Agent, IsRefusedWhereAnotherMachineHasItsName)
{
    // The first keeps its claim for long, and looks at nothing but its target.
    Host first("host1", etcd.Endpoints(), 20, 3600), second("host1", etcd.Endpoints());
    first.Start();
    Confirmed(first, Lab(7), Ask(first, Lab(7)));
    std::ofstream(second.Path("machine-id")) << "00000000000000000000000000000002\n";
    const std::string otherMachine = fmt::format(
        "unshare -m sh -c 'mount --bind {} /etc/machine-id && exec \"$@\"' sh", second.Path("machine-id"));
    std::string id;
    std::ifstream("/etc/machine-id") >> id;
    second.Start(otherMachine);
    Await("the refusal", [&] { return second.Log().find("host1 is machine " + id) != std::string::npos; });
    EXPECT_NE(second.Log().find("vsfleet release host1"), std::string::npos);

    // The first gets its name back at once, also while the other one tries.
    const auto claim = client.Get(keys::Claim("host1"));
    first.Kill();
    first.Start();
    Confirmed(first, Lab(8), Ask(first, Lab(8)));
    EXPECT_EQ(client.Get(keys::Claim("host1"))->modified, claim->modified);
    // And when the machine was started again: its claim may still be there, or be gone.
    for (bool isThere : {true, false}) {
        first.Kill();
        AgeClaim();
        if (!isThere) {
            client.RevokeLease(client.Get(keys::Claim("host1"))->lease);
            // The name is the first one's all the same.
            const size_t before = second.Log().size();
            second.Kill();
            second.Start(otherMachine);
            Await("the refusal", [&] { return second.Log().find(id, before) != std::string::npos; });
        }
        first.Start();
        Confirmed(first, Lab(7 + isThere), Ask(first, Lab(7 + isThere)));
    }
    EXPECT_TRUE(second.Is({{"switches", Json::object()}}));

    // An agent with the same machine id and without the claim: a copy of the machine.
    Host copy("host1", etcd.Endpoints());
    copy.Start();
    Await("the refusal", [&] { return copy.Log().find("the same machine id") != std::string::npos; });

    // A released name is another machine's, although the first one is still there.
    copy.Kill();
    client.Commit(Transaction().Delete(keys::Claim("host1")).Delete(keys::Machine("host1")));
    second.Kill();
    second.Start(otherMachine);
    Await("the other claim", [&] { return client.Get(keys::Machine("host1")) != nullptr; });
    Confirmed(second, Lab(9), Ask(second, Lab(9)));
    Await("the refusal", [&] { return first.Log().find("host1 is machine 00000") != std::string::npos; });
    Confirmed(second, Lab(10), Ask(second, Lab(10)));
    EXPECT_TRUE(first.Is(Lab(7)));
}

TEST_F(Agent, ShowsAndRepairsDrift)
{
    Host host("host1", etcd.Endpoints());
    host.Start();
    Target target = TargetOf(Lab(7));
    int64_t number = Ask(host, target);
    Confirmed(host, Lab(7), number);
    EXPECT_EQ(host.Vsctl("port vlan lab port2 99").exitCode, 0);
    const Status status = AwaitState(host, HostState::DRIFTED, number);
    EXPECT_EQ(status.drift.at(0)["port"], "port2");
    EXPECT_EQ(status.drift.at(0)["before"]["id"], 99);
    EXPECT_EQ(host.Vsctl("port vlan lab port2 7").exitCode, 0);
    EXPECT_TRUE(AwaitState(host, HostState::CONFIRMED, number).drift.empty());

    target.repair = true;
    number = Ask(host, target);
    AwaitState(host, HostState::CONFIRMED, number);
    EXPECT_EQ(host.Vsctl("port vlan lab port2 99").exitCode, 0);
    Await("the repair", [&] { return host.Is(Lab(7)); });
    AwaitState(host, HostState::CONFIRMED, number);

    // Somebody's own change on the host that waits for confirmation is not the agent's to undo or confirm.
    host.Write("own.json", Lab(55, 1, "own").dump());
    EXPECT_EQ(host.Vsctl("apply " + host.Path("own.json") + " --confirm-within 600s").exitCode, 0);
    const int64_t blocked = Ask(host, Lab(8));
    EXPECT_NE(AwaitState(host, HostState::FAILED, blocked).error.find("waits for confirmation"),
              std::string::npos);
    EXPECT_TRUE(host.HasUnfinishedChange());
    EXPECT_EQ(host.Vsctl("apply --undo").exitCode, 0);
    Confirmed(host, Lab(8), Ask(host, Lab(8)));
}

TEST(FullEtcd, IsNoReasonToChangeAnything)
{
    EtcdCluster etcd(1, "--quota-backend-bytes 1000000");
    Client client(etcd.Endpoints());
    Host host("host1", etcd.Endpoints());
    host.Start();
    Await("the agent", [&] { return client.Get(keys::Status("host1")) != nullptr; });
    host.Signal(SIGSTOP);
    const StoredDocument stored = Store(Lab(7).dump());
    Target target;
    target.phase = Phase::APPLY;
    target.documents = {{"doc", 1, stored.sum}};
    client.Commit(Transaction()
                      .Put(keys::Revision("doc", 1), ToText(stored))
                      .Put(keys::Target("host1"), ToText(target)));
    EtcdError::Kind kind = EtcdError::Kind::FAILED;
    while (kind != EtcdError::Kind::NO_SPACE) {
        try {
            client.Commit(Transaction().Put("/filler", std::string(100000, 'x')));
        } catch (const EtcdError &error) {
            kind = error.kind;
        }
    }
    host.Signal(SIGCONT);
    Await("the message", [&] { return host.Log().find("etcdctl alarm disarm") != std::string::npos; });
    EXPECT_TRUE(host.Is({{"switches", Json::object()}}));
    client.Compact(client.Known().revision);
    EXPECT_EQ(etcd.Control("defrag"), 0);
    EXPECT_EQ(etcd.Control("alarm disarm"), 0);
    Await("the change", [&] { return host.Is(Lab(7)); });
}

}
