#include "tests/fleet_hosts.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>

#include "fleet/protocol/keys.h"

using namespace vsfleet;

LightAgent::LightAgent(Endpoints endpoints, const std::string &host, std::chrono::seconds lease,
                       bool isPatient)
    : host(host), endpoints(std::move(endpoints)), lease(lease), isPatient(isPatient)
{
    Start();
}

void LightAgent::Start()
{
    isStopped = false;
    thread = std::thread([this] { Run(); });
}

void LightAgent::Stop()
{
    AskToStop();
    if (thread.joinable()) thread.join();
}

std::vector<std::vector<DocumentRevision>> LightAgent::Changes() const
{
    const std::lock_guard lock(mutex);
    return changes;
}

void LightAgent::Run()
{
    // Hosts that fail together come back at different times.
    std::minstd_rand random(static_cast<unsigned>(std::hash<std::string>()(host)));
    Milliseconds longest{100};
    while (!isStopped) {
        const Clock::time_point begin = Clock::now();
        try {
            Live();
        } catch (const EtcdError &) {
            if (Clock::now() - begin > lease) longest = Milliseconds(100);
            std::this_thread::sleep_for(longest / 2 +
                                        Milliseconds(random() % static_cast<unsigned>(longest.count())));
            longest = std::min(longest * 2, Milliseconds(lease) / 3);
        }
    }
}

void LightAgent::Live()
{
    client = std::make_unique<Client>(endpoints);
    const int64_t claim = client->GrantLease(lease);
    client->Commit(
        Transaction().Put(keys::Claim(host), ToText(Claim{"m-" + host, "boot", host, "test"}), claim));
    Clock::time_point renewed = Clock::now();
    const auto entry = client->Get(keys::Target(host));
    const int64_t seen = client->Known().revision;
    if (entry) Answer(*entry);
    Watch watch(*client, keys::Target(host), seen + 1);
    const Milliseconds turn =
        std::min<Milliseconds>(Milliseconds(lease) / 4, isPatient ? lease : Milliseconds(200));
    while (!isStopped) {
        for (const KeyEvent &event : watch.Next(turn)) {
            if (!event.isDeleted) Answer(event.entry);
        }
        if (Clock::now() - renewed < Milliseconds(lease) / 4) continue;
        if (!client->KeepAlive(claim)) return;
        renewed = Clock::now();
    }
}

void LightAgent::Answer(const Entry &entry)
{
    const auto target = FromText<Target>(entry.value);
    if (target.phase == Phase::PLAN) {
        Plan plan;
        plan.target = entry.modified;
        plan.changes = 1;
        plan.steps = Json::array({{{"switch", "lab"}, {"after", host}}});
        if (habit == Habit::REFUSES_PLAN) plan.error = "no uplink of that name";
        client->Commit(Transaction().Put(keys::Plan(host, target.rollout), ToText(plan)));
        return;
    }
    if (target.phase == Phase::HOLD) return Report(HostState::HELD, entry.modified, target.reason);
    if (answered == entry.modified) return;
    if (target.documents == status.documents) return Report(HostState::CONFIRMED, entry.modified);
    if (habit == Habit::IGNORES) return;
    if (habit == Habit::FAILS) {
        const std::lock_guard lock(mutex);
        return Report(HostState::FAILED, entry.modified, reason);
    }
    status.documents = target.documents;
    {
        const std::lock_guard lock(mutex);
        changes.push_back(target.documents);
    }
    Report(HostState::CONFIRMED, entry.modified);
}

void LightAgent::Report(HostState state, int64_t number, const std::string &error)
{
    status.state = state;
    status.target = number;
    status.error = error;
    status.version = "test";
    client->Commit(Transaction().Put(keys::Status(host), ToText(status)));
    answered = number;
}

void KillAllOn(const std::string &directory)
{
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string pid = entry.path().filename();
        if (!isdigit(pid[0])) continue;
        std::ifstream file(entry.path() / "environ");
        const std::string environment{std::istreambuf_iterator<char>(file), {}};
        if (environment.find("VSHOST_DIR=" + directory) != std::string::npos)
            kill(atoi(pid.c_str()), SIGKILL);
    }
}
