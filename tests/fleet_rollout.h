// A fleet of its own for each test of rollouts: drivers and commands as processes, hosts as light agents.
#pragma once

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fleet/protocol/keys.h"
#include "fleet/rollout/fleet.h"
#include "tests/fleet_etcd.h"
#include "tests/fleet_hosts.h"

using namespace vsfleet;
using Habit = LightAgent::Habit;

inline constexpr std::chrono::seconds LEASE{2};

class RolloutTest : public testing::Test {
protected:
    explicit RolloutTest(int members = 1, const std::string &options = "") : etcd(members, options)
    {
        std::string name = "/dev/shm/fleet-XXXXXX";
        if (!mkdtemp(name.data())) abort();
        directory = name;
        config = WriteConfig("root");
        for (const char *port : {"port0", "port1", "port2"})
            Write(fmt::format("{}.toml", port),
                  fmt::format("[switches.lab]\nuplinks = [\"uplink0\"]\n"
                              "[switches.lab.ports.{}]\nsecurity = {{ static-only = true }}\n",
                              port));
    }

    ~RolloutTest() override
    {
        for (const pid_t driver : drivers)
            End(driver, SIGKILL);
        agents.clear();
        std::filesystem::remove_all(directory);
    }

    void Write(const std::string &name, const std::string &text) const
    {
        std::ofstream(directory + "/" + name) << text;
    }
    std::string Path(const std::string &name) const { return directory + "/" + name; }
    std::string Text(const std::string &name) const { return ReadText(Path(name)); }
    bool HasLogged(const std::string &text) const
    {
        return Text("drivers.log").find(text) != std::string::npos;
    }

    // Of a user who reaches etcd at these addresses instead of its own.
    std::string WriteConfig(const std::string &user, const std::vector<std::string> &addresses = {},
                            std::chrono::seconds lease = LEASE)
    {
        Endpoints endpoints = etcd.Endpoints(user);
        if (!addresses.empty()) endpoints.addresses = addresses;
        Write(user + ".toml",
              ConfigOf(endpoints) + fmt::format("lease = {}\nstate = \"{}/state\"\nvsctl = \"{}\"\n",
                                                lease.count(), directory, VSCTL));
        return Path(user + ".toml");
    }

    void AddHosts(size_t count)
    {
        Client client(etcd.Endpoints());
        for (size_t i = 0; i < count; i++) {
            const std::string host = fmt::format("host{}", i);
            client.Commit(Transaction().Put(keys::Labels(host), ToText(Labels{{"site", "a"}})));
            agents.push_back(std::make_unique<LightAgent>(etcd.Endpoints(), host, LEASE));
        }
    }

    pid_t StartDriver(const std::string &user = "")
    {
        const std::string own = user.empty() ? config : Path(user + ".toml");
        drivers.push_back(Spawn(fmt::format("{} drive --config {}", VSFLEET, own), Path("drivers.log")));
        return drivers.back();
    }

    // Hosts that follow a first document. Returns the driver that has rolled it out.
    pid_t Begin(size_t hosts, const std::string &user = "")
    {
        AddHosts(hosts);
        const pid_t driver = StartDriver(user);
        Await([&](const Fleet &fleet) { return fleet.leader && fleet.hosts.size() == hosts; });
        EXPECT_EQ(Push("net", "port0.toml").exitCode, 0);
        return driver;
    }

    static void End(pid_t driver, int signal)
    {
        kill(driver, SIGCONT);
        kill(driver, signal);
        waitpid(driver, nullptr, 0);
    }

    // Runs a command of vsfleet until it ends.
    Said Run(const std::string &words, const std::string &user = "root") const
    {
        return RunCommand(fmt::format("{} --config {} {}", VSFLEET, Path(user + ".toml"), words));
    }

    Said Push(const std::string &name, const std::string &file,
              const std::string &options = "--select site=a")
    {
        return Run(fmt::format("push {} {} {} --json", name, Path(file), options));
    }

    Fleet Now()
    {
        for (;;) {
            try {
                Client client(etcd.Endpoints());
                Fleet fleet;
                fleet.Read(client.GetPrefix(keys::ROOT));
                return fleet;
            } catch (const EtcdError &error) {
                if (error.kind != EtcdError::Kind::UNREACHABLE) throw;
            }
        }
    }

    // Waits until it is so. A test that waits in vain ends with the time limit of all tests.
    template<class Condition> Fleet Await(Condition isSo)
    {
        for (Fleet fleet = Now();; fleet = Now()) {
            if (isSo(fleet)) return fleet;
            std::this_thread::sleep_for(Milliseconds(50));
        }
    }

    Rollout AwaitEnd(const std::string &name)
    {
        const Fleet fleet = Await([&](const Fleet &now) {
            const Held<Rollout> *last = now.LastRollout(name);
            return last && !IsActive(last->record.state);
        });
        return fleet.LastRollout(name)->record;
    }

    // All hosts say that they follow these revisions of the document, in order of the hosts; 0: none.
    void AwaitRevisions(const std::string &name, const std::vector<int64_t> &revisions)
    {
        Await([&](const Fleet &fleet) {
            for (size_t i = 0; i < revisions.size(); i++) {
                const auto host = fleet.hosts.find(fmt::format("host{}", i));
                int64_t revision = 0;
                if (host == fleet.hosts.end()) return false;
                for (const DocumentRevision &document : host->second.status.record.documents)
                    if (document.name == name) revision = document.revision;
                if (revision != revisions[i]) return false;
            }
            return true;
        });
    }

    EtcdCluster etcd;
    std::string directory, config;
    std::vector<std::unique_ptr<LightAgent>> agents;
    std::vector<pid_t> drivers;
};
