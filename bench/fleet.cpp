// A fleet at scale: hosts as light clients of the same protocol code, and real agents with hosts of their
// own, against three members of etcd on this machine. Time from a push to the last confirmation without
// waves, load while nothing happens, memory of an agent. Prints one table.
//
//   fleet_bench [LIGHT CLIENTS [AGENTS]]
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fleet/protocol/certificates.h"
#include "fleet/protocol/documents.h"
#include "fleet/protocol/keys.h"
#include "fleet/rollout/driver.h"
#include "tests/fleet_etcd.h"
#include "tests/fleet_hosts.h"

namespace {

using namespace vsfleet;

constexpr std::chrono::seconds LEASE{30};
constexpr std::chrono::seconds IDLE{30};
// Between the starts of two hosts: the handshakes of both ends are made by this machine.
constexpr Milliseconds BETWEEN{10};

double Seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

// Processor time of a process, in seconds.
double Used(pid_t process)
{
    std::ifstream file(fmt::format("/proc/{}/stat", process));
    std::string text{std::istreambuf_iterator<char>(file), {}};
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string word;
    long user = 0, system = 0;
    for (int field = 3; field < 14; field++)
        fields >> word;
    fields >> user >> system;
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Memory that a process shares with no other, in MB.
double PrivateMemory(pid_t process)
{
    std::ifstream file(fmt::format("/proc/{}/smaps_rollup", process));
    double sum = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("Private_")) sum += std::stod(line.substr(line.find(':') + 1)) / 1024;
    }
    return sum;
}

const std::string DIRECTORY = "/dev/shm/fleet-bench";

std::string HostName(int number) { return fmt::format("host{:05}", number); }

class Bench {
public:
    Bench(int hosts, bool isReal) : etcd(3), client(etcd.Endpoints()), hosts(hosts), isReal(isReal)
    {
        std::filesystem::remove_all(DIRECTORY);
        std::filesystem::create_directories(DIRECTORY);
        for (int begin = 0; begin < hosts; begin += 100) {
            Transaction transaction;
            for (int i = begin; i < std::min(begin + 100, hosts); i++)
                transaction.Put(keys::Labels(HostName(i)), ToText(Labels{{"site", "a"}}));
            client.Commit(transaction);
        }
    }

    ~Bench()
    {
        isStopped = true;
        for (const auto &agent : agents)
            agent->AskToStop();
        agents.clear();
        driver.join();
        for (const pid_t process : processes) {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
        }
        KillAllOn(DIRECTORY);
        std::filesystem::remove_all(DIRECTORY);
    }

    // Until all hosts have claimed their names and one driver leads.
    double Start()
    {
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < hosts; i++) {
            std::this_thread::sleep_for(BETWEEN);
            if (isReal)
                StartAgent(HostName(i));
            else
                agents.push_back(std::make_unique<LightAgent>(etcd.Endpoints(), HostName(i), LEASE, true));
        }
        Config config;
        config.endpoints = etcd.Endpoints();
        config.state = DIRECTORY + "/driver";
        config.lease = LEASE;
        driver = std::thread([this, config] { Driver(config).Run(isStopped); });
        for (;;) {
            std::this_thread::sleep_for(Milliseconds(200));
            Fleet fleet;
            try {
                fleet.Read(client.GetPrefix(keys::ROOT));
            } catch (const EtcdError &) {
                continue; // busy with those who come
            }
            int64_t here = 0;
            for (const auto &[host, view] : fleet.hosts)
                here += view.IsHere();
            if (here == hosts && fleet.leader) return Seconds(Clock::now() - begin);
        }
    }

    struct Pushed {
        double last = 0; // seconds until the last host's confirmation
        double done = 0; // until the rollout said so
        int64_t revisions = 0;
    };

    Pushed Push(int64_t revision)
    {
        const StoredDocument document = Store(fmt::format(
            R"({{"switches":{{"lab":{{"ports":{{"port0..port7":{{"vlan":{{"id":{}}}}}}}}}}}}})", revision));
        Rollout rollout;
        rollout.id = RandomId();
        rollout.head.document = {"net", revision, document.sum};
        rollout.before = before;
        before = rollout.head;
        const Clock::time_point begin = Clock::now();
        const int64_t first = client
                                  .Commit(Transaction()
                                              .Put(keys::Revision("net", revision), ToText(document))
                                              .Put(keys::Head("net"), ToText(rollout.head))
                                              .Put(keys::Rollout(rollout.id), ToText(rollout)))
                                  .revision;
        Client watcher(etcd.Endpoints());
        Watch watch(watcher, keys::ROOT, first);
        std::set<std::string> confirmed;
        for (Pushed pushed;;) {
            for (const KeyEvent &event : watch.Next(Milliseconds(1000))) {
                const std::string &key = event.entry.key;
                if (key.ends_with("/status")) {
                    const auto status = FromText<Status>(event.entry.value);
                    if (status.documents == std::vector{rollout.head.document}) confirmed.insert(key);
                    if (std::ssize(confirmed) == hosts && pushed.last == 0)
                        pushed.last = Seconds(Clock::now() - begin);
                }
                if (key != keys::Rollout(rollout.id)) continue;
                const auto now = FromText<Rollout>(event.entry.value);
                if (IsActive(now.state)) continue;
                pushed.done = Seconds(Clock::now() - begin);
                pushed.revisions = event.entry.modified - first;
                return pushed;
            }
        }
    }

    // Of an agent, in MB: the mean.
    double Memory() const
    {
        double sum = 0;
        for (const pid_t process : processes)
            sum += PrivateMemory(process);
        return sum / hosts;
    }

    // The share of a processor that each member takes while nothing happens.
    std::vector<double> Idle()
    {
        std::vector<double> used;
        for (int member = 0; member < etcd.Members(); member++)
            used.push_back(Used(etcd.Process(member)));
        std::this_thread::sleep_for(IDLE);
        for (int member = 0; member < etcd.Members(); member++)
            used[static_cast<size_t>(member)] =
                (Used(etcd.Process(member)) - used[static_cast<size_t>(member)]) / Seconds(IDLE);
        std::swap(used[0], used[static_cast<size_t>(std::max(0, etcd.Leader()))]);
        return used;
    }

private:
    void StartAgent(const std::string &host)
    {
        const std::string own = DIRECTORY + "/" + host, config = own + ".toml";
        const Endpoints endpoints = etcd.Endpoints();
        std::ofstream(config) << fmt::format(
            "endpoints = [\"{}\", \"{}\", \"{}\"]\nauthority = \"{}\"\ncertificate = \"{}\"\nkey = \"{}\"\n"
            "host = \"{}\"\nstate = \"{}-state\"\nvsctl = \"{}\"\n",
            endpoints.addresses[0], endpoints.addresses[1], endpoints.addresses[2], endpoints.authority,
            endpoints.certificate, endpoints.key, host, own, VSCTL);
        const std::string launcher = std::filesystem::path(VSFLEET).parent_path() / "platform/vshost";
        const pid_t process = fork();
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (!freopen("/dev/null", "w", stderr)) _exit(1);
            execl(launcher.c_str(), "vshost", "run", "--state", own.c_str(), "--durability", "process", "--",
                  VSFLEET, "agent", "--config", config.c_str(), nullptr);
            _exit(127);
        }
        processes.push_back(process);
    }

    EtcdCluster etcd;
    Client client;
    int hosts;
    bool isReal;
    std::vector<pid_t> processes;
    Head before;
    std::atomic<bool> isStopped = false;
    std::vector<std::unique_ptr<LightAgent>> agents;
    std::thread driver;
};

void Row(const std::string &what, const std::string &value) { fmt::print("{:52} {:>12}\n", what, value); }

void PushRows(Bench &bench, int hosts)
{
    for (int64_t revision = 1; revision <= 3; revision++) {
        const Bench::Pushed pushed = bench.Push(revision);
        Row(fmt::format("push {}: until the last confirmation, s", revision),
            fmt::format("{:.2f}", pushed.last));
        Row(fmt::format("push {}: until the rollout is done, s", revision),
            fmt::format("{:.2f}", pushed.done));
        Row(fmt::format("push {}: revisions of etcd, for each host", revision),
            fmt::format("{:.2f}", static_cast<double>(pushed.revisions) / hosts));
    }
}

void LightRows(int hosts)
{
    Bench bench(hosts, false);
    Row("hosts (light clients, leases of 30 s)", std::to_string(hosts));
    Row("from start until all have claimed, s", fmt::format("{:.1f}", bench.Start()));
    PushRows(bench, hosts);
    const std::vector<double> idle = bench.Idle();
    Row("idle: share of a processor, leader", fmt::format("{:.3f}", idle[0]));
    Row("idle: share of a processor, another member", fmt::format("{:.3f}", idle[1]));
}

void RealRows(int hosts)
{
    Bench bench(hosts, true);
    Row("hosts with agents and switches", std::to_string(hosts));
    Row("from start until all have claimed, s", fmt::format("{:.1f}", bench.Start()));
    PushRows(bench, hosts);
    Row("private memory of an idle agent, MB", fmt::format("{:.1f}", bench.Memory()));
}

}

int main(int argc, char **argv)
{
    const int light = argc > 1 ? std::atoi(argv[1]) : 1000, real = argc > 2 ? std::atoi(argv[2]) : 100;
    if (light) LightRows(light);
    if (real) RealRows(real);
}
