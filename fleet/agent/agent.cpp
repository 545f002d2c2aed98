// The agent: a loop over its target in etcd and its host, in one thread.
#include "fleet/agent/agent.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <random>

#include "fleet/agent/change.h"
#include "fleet/etcd/watch.h"

namespace vsfleet {

namespace {

constexpr Milliseconds IDLE_STEP{1000}, FIRST_PAUSE{500}, LONGEST_PAUSE{30000};

volatile sig_atomic_t isAskedToEnd = 0;

void AskToEnd(int) { isAskedToEnd = 1; }

// Pauses between attempts: each twice as long as the one before, and of a random length up to that, so that
// the agents of a fleet don't come back all at once.
class Pauses {
public:
    void Restart() { longest = FIRST_PAUSE; }
    void Pause()
    {
        std::uniform_int_distribution<int64_t> any(longest.count() / 10, longest.count());
        poll(nullptr, 0, static_cast<int>(any(random))); // a signal ends it
        longest = std::min(longest * 2, LONGEST_PAUSE);
    }

private:
    Milliseconds longest = FIRST_PAUSE;
    std::minstd_rand random{std::random_device()()};
};

class Agent {
public:
    explicit Agent(const Config &config)
        : config(config), state(config.state), session(this->config, state),
          changer(this->config, state, session, [] { return !isAskedToEnd; })
    {
        state.memory.status.version = VSWITCHCTL_VERSION;
    }

    void Run();

private:
    void Attempt();
    void Follow();
    void AwaitAdoption();
    void Handle(const Entry *entry);
    void LookForDrift();
    void RequireNoLostRevision(const Entry *entry) const;
    void Remember();
    void Log(const std::string &text);
    Order OrderOf(int64_t number) const;

    Config config;
    State state;
    Session session;
    Changer changer;
    Pauses pauses;
    Target target;       // what is asked for now
    int64_t number = 0;  // of the target; 0: none
    int64_t planned = 0; // number of the target that was planned last
    Clock::time_point nextLook;
    std::string logged;
};

// Each problem once, however often it is met.
void Agent::Log(const std::string &text)
{
    if (text == logged) return;
    logged = text;
    fprintf(stderr, "vsfleet agent: %s\n", text.c_str());
}

void Agent::Run()
{
    while (!isAskedToEnd) {
        Attempt();
        if (!isAskedToEnd) pauses.Pause();
    }
}

void Agent::Attempt()
{
    try {
        if (!changer.Recover()) return Log("the host's switches can't be reached: 'vsctl doctor' says why");
        session.Reset();
        if (state.memory.isRestored)
            AwaitAdoption();
        else
            Follow();
    } catch (const EtcdError &error) {
        if (error.kind == EtcdError::Kind::RESTORED) {
            state.memory.isRestored = true;
            state.Save();
            pauses.Restart();
        }
        if (error.kind == EtcdError::Kind::NO_SPACE)
            return Log("etcd is out of space, and takes no writes: compact and defragment it, then run "
                       "'etcdctl alarm "
                       "disarm'; until then nothing is changed");
        Log(error.what());
    } catch (const std::runtime_error &error) {
        Log(error.what()); // of the claim, or of the agent's own files
    }
}

// etcd has lost revisions that this agent has seen. It follows nothing from it until an operator has looked.
void Agent::AwaitAdoption()
{
    session.Adopt();
    const bool isAdopted = session.TakeAdoption();
    if (!isAdopted) {
        session.Begin();
        Status status = state.memory.status;
        status.state = HostState::HELD;
        status.error =
            "etcd was restored from a backup, or is another one: 'vsfleet adopt' lets all hosts follow it";
        session.Report(status);
        Log(status.error);
        Watch watch(session.Etcd(), keys::ADOPTED, session.Etcd().Known().revision + 1);
        while (watch.Next(IDLE_STEP).empty()) {
            if (isAskedToEnd) return;
            session.Tick();
        }
        if (!session.TakeAdoption()) return;
    }
    Log("follows the adopted etcd");
    state.memory.isRestored = false;
    state.memory.status.target = number = planned = 0; // numbers begin anew
    Remember();
    pauses.Restart();
}

// What this agent knows etcd by.
void Agent::Remember()
{
    const Identity &known = session.Etcd().Known();
    if (state.memory.cluster == known.cluster && state.memory.revision == known.revision) return;
    state.memory.cluster = known.cluster;
    state.memory.revision = known.revision;
    state.Save();
}

void Agent::Follow()
{
    session.TakeAdoption();
    session.Begin();
    auto entry = session.Target();
    int64_t next = session.Etcd().Known().revision + 1;
    RequireNoLostRevision(entry.get());
    Remember();
    Log(fmt::format("follows etcd as {}", config.host));
    pauses.Restart();
    Handle(entry.get());
    nextLook = std::max(nextLook, Clock::now());
    while (!isAskedToEnd) {
        Watch watch(session.Etcd(), keys::Target(config.host), next);
        std::vector<KeyEvent> events;
        while (events.empty() && !isAskedToEnd && Clock::now() < nextLook) {
            events = watch.Next(IDLE_STEP);
            session.Tick();
        }
        next = watch.NextRevision();
        if (!events.empty())
            Handle(events.back().isDeleted ? nullptr : &events.back().entry);
        else if (!isAskedToEnd)
            LookForDrift();
    }
}

// A cluster that was restored keeps its id, and may have as many revisions again.
void Agent::RequireNoLostRevision(const Entry *entry) const
{
    const int64_t seen = std::max(number, state.memory.status.target);
    if (entry && entry->modified < seen)
        throw EtcdError(EtcdError::Kind::RESTORED, "the target is an older one than before");
}

void Agent::Handle(const Entry *entry)
{
    number = entry ? entry->modified : 0;
    target = entry ? FromText<Target>(entry->value) : Target();
    Memory &memory = state.memory;
    const bool isAnswered = memory.status.target == number;
    if (number && target.phase == Phase::HOLD && !isAnswered) {
        memory.status.state = HostState::HELD;
        memory.status.target = number;
        memory.status.error = target.reason;
        state.Save();
    } else if (number && target.phase == Phase::PLAN && planned != number) {
        if (session.ReportPlan(target.rollout, changer.PlanFor(OrderOf(number)))) planned = number;
    } else if (number && target.phase == Phase::APPLY && !isAnswered) {
        changer.CarryOut(OrderOf(number));
        nextLook = Clock::now() + config.driftInterval;
    }
    session.Report(memory.status);
    Remember();
    malloc_trim(0);
}

Order Agent::OrderOf(int64_t of) const
{
    Order order;
    order.target = of;
    order.documents = target.documents;
    order.prune = target.prune;
    order.allowRemovals = target.allowRemovals;
    order.deadline = std::chrono::seconds(std::max<int64_t>(target.deadline, 1));
    order.confirm = std::chrono::seconds(std::max<int64_t>(target.confirm, 1));
    return order;
}

// Compares the host with its documents, and etcd's target with the one that is known here.
void Agent::LookForDrift()
{
    nextLook = Clock::now() + config.driftInterval;
    session.CheckClaim();
    const auto entry = session.Target();
    RequireNoLostRevision(entry.get());
    if ((entry ? entry->modified : 0) != number) return Handle(entry.get());
    Remember();
    Status &status = state.memory.status;
    if ((status.state != HostState::CONFIRMED && status.state != HostState::DRIFTED) ||
        status.documents.empty())
        return;
    const VsctlAnswer answer = changer.Drift();
    if (answer.exit != Exit::DONE && answer.exit != Exit::PENDING) return Log(answer.problem);
    const Status before = status;
    const bool hasDrifted = answer.exit == Exit::PENDING;
    status.state = hasDrifted ? HostState::DRIFTED : HostState::CONFIRMED;
    status.drift = FirstSteps(answer.rows);
    if (!hasDrifted) status.error.clear();
    if (hasDrifted && target.repair && target.phase == Phase::APPLY && status.target == number) {
        Order order = OrderOf(number);
        order.documents = state.memory.documents;
        order.isRepair = true;
        changer.CarryOut(order);
    } else if (ToText(before) != ToText(status)) {
        state.Save();
    }
    session.Report(status);
    malloc_trim(0);
}

}

Action AddAgent(CLI::App &)
{
    return [](const std::string &configFile) {
        // One thread does the work; gRPC's own do little.
        mallopt(M_ARENA_MAX, 1);
        struct sigaction action = {};
        action.sa_handler = AskToEnd;
        sigaction(SIGTERM, &action, nullptr);
        sigaction(SIGINT, &action, nullptr);
        signal(SIGPIPE, SIG_IGN);
        Agent(ReadConfig(configFile)).Run();
        return 0;
    };
}

}
