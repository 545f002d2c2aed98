#include "tests/fleet_etcd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace vsfleet;

// A port that is free now.
int FreePort()
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(descriptor, reinterpret_cast<sockaddr *>(&address), size) ||
        getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &size))
        abort();
    close(descriptor);
    return ntohs(address.sin_port);
}

}

EtcdCluster::EtcdCluster(int count, std::vector<std::string> more)
    : more(std::move(more)), authority(MakeAuthority("test")), members(static_cast<size_t>(count))
{
    std::string name = "/dev/shm/etcd-XXXXXX";
    if (!mkdtemp(name.data())) abort();
    directory = name;
    Write("ca.pem", authority.certificate);
    const Certificate server = MakeCertificate(authority, "server", {"127.0.0.1", "localhost"});
    Write("server.pem", server.certificate);
    Write("server.key", server.key);
    for (Member &member : members) {
        member.clientPort = FreePort();
        member.peerPort = FreePort();
        peers += fmt::format("{}m{}=https://127.0.0.1:{}", peers.empty() ? "" : ",", &member - members.data(),
                             member.peerPort);
    }
    for (int member = 0; member < count; member++)
        Start(member);
    AwaitAnswer();
}

// The first answer takes an election.
void EtcdCluster::AwaitAnswer()
{
    for (;;) {
        try {
            Client(Endpoints()).Get("x");
            return;
        } catch (const EtcdError &) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
}

EtcdCluster::~EtcdCluster()
{
    for (int member = 0; member < Members(); member++)
        Signal(member, SIGKILL);
    std::filesystem::remove_all(directory);
}

void EtcdCluster::Write(const std::string &name, const std::string &text)
{
    std::ofstream(directory + "/" + name) << text;
}

Endpoints EtcdCluster::Endpoints(const std::string &user)
{
    // Made once: others may be reading the files.
    const std::lock_guard lock(mutex);
    if (users.insert(user).second) {
        const Certificate certificate = MakeCertificate(authority, user);
        Write(user + ".pem", certificate.certificate);
        Write(user + ".key", certificate.key);
    }
    vsfleet::Endpoints endpoints;
    for (const Member &member : members)
        endpoints.addresses.push_back(fmt::format("127.0.0.1:{}", member.clientPort));
    endpoints.authority = directory + "/ca.pem";
    endpoints.certificate = directory + "/" + user + ".pem";
    endpoints.key = directory + "/" + user + ".key";
    return endpoints;
}

void EtcdCluster::Start(int number)
{
    Member &member = members[static_cast<size_t>(number)];
    const std::string client = fmt::format("https://127.0.0.1:{}", member.clientPort),
                      peer = fmt::format("https://127.0.0.1:{}", member.peerPort);
    std::vector<std::string> words = {"etcd",
                                      "--name",
                                      fmt::format("m{}", number),
                                      "--data-dir",
                                      fmt::format("{}/m{}", directory, number),
                                      "--listen-client-urls",
                                      client,
                                      "--advertise-client-urls",
                                      client,
                                      "--listen-peer-urls",
                                      peer,
                                      "--initial-advertise-peer-urls",
                                      peer,
                                      "--initial-cluster",
                                      peers,
                                      "--unsafe-no-fsync",
                                      "--heartbeat-interval",
                                      "50",
                                      "--election-timeout",
                                      "500"};
    for (const char *side : {"", "peer-"}) {
        words.push_back(fmt::format("--{}cert-file={}/server.pem", side, directory));
        words.push_back(fmt::format("--{}key-file={}/server.key", side, directory));
        words.push_back(fmt::format("--{}trusted-ca-file={}/ca.pem", side, directory));
        words.push_back(fmt::format("--{}client-cert-auth", side));
    }
    words.insert(words.end(), more.begin(), more.end());
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const std::string log = fmt::format("{}/m{}.log", directory, number);

    member.process = fork();
    if (member.process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // no member outlives a test that crashes
        const int descriptor = open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        dup2(descriptor, STDOUT_FILENO);
        dup2(descriptor, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
}

void EtcdCluster::Signal(int number, int signal)
{
    Member &member = members[static_cast<size_t>(number)];
    if (member.process < 0) return;
    kill(member.process, signal);
    if (signal != SIGKILL) return;
    waitpid(member.process, nullptr, 0);
    member.process = -1;
}

void EtcdCluster::BackUp()
{
    Signal(0, SIGKILL);
    std::filesystem::copy(directory + "/m0", directory + "/backup", std::filesystem::copy_options::recursive);
    Start(0);
    AwaitAnswer();
}

void EtcdCluster::Restore()
{
    Signal(0, SIGKILL);
    std::filesystem::remove_all(directory + "/m0");
    std::filesystem::rename(directory + "/backup", directory + "/m0");
    Start(0);
    AwaitAnswer();
}

int EtcdCluster::Control(const std::string &words)
{
    const vsfleet::Endpoints root = Endpoints();
    return system(
        fmt::format("ETCDCTL_API=3 etcdctl --endpoints {} --cacert {} --cert {} --key {} {} >/dev/null 2>&1",
                    root.addresses[0], root.authority, root.certificate, root.key, words)
            .c_str());
}

int EtcdCluster::Leader()
{
    for (int number = 0; number < Members(); number++) {
        if (members[static_cast<size_t>(number)].process < 0) continue;
        vsfleet::Endpoints endpoints = Endpoints();
        endpoints.addresses = {endpoints.addresses[static_cast<size_t>(number)]};
        if (Client(endpoints).IsLeader()) return number;
    }
    return -1;
}
