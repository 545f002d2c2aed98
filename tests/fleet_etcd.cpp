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

pid_t Spawn(const std::string &command, const std::string &log)
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int descriptor = open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        dup2(descriptor, STDOUT_FILENO);
        dup2(descriptor, STDERR_FILENO);
        execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        _exit(127);
    }
    return child;
}

Said RunCommand(const std::string &command)
{
    Said said;
    FILE *output = popen((command + " 2>&1").c_str(), "r");
    char bytes[4096];
    while (const size_t count = fread(bytes, 1, sizeof(bytes), output))
        said.text.append(bytes, count);
    said.exitCode = WEXITSTATUS(pclose(output));
    return said;
}

std::string ReadText(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string ConfigOf(const Endpoints &endpoints)
{
    std::string addresses;
    for (const std::string &address : endpoints.addresses)
        addresses += fmt::format("{}\"{}\"", addresses.empty() ? "" : ", ", address);
    return fmt::format("endpoints = [{}]\nauthority = \"{}\"\ncertificate = \"{}\"\nkey = \"{}\"\n",
                       addresses, endpoints.authority, endpoints.certificate, endpoints.key);
}

EtcdCluster::EtcdCluster(int count, const std::string &options)
    : more(" " + options), authority(MakeAuthority("test")), members(static_cast<size_t>(count))
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
    std::string command = fmt::format(
        "etcd --name m{0} --data-dir {1}/m{0} --listen-client-urls {2} --advertise-client-urls {2} "
        "--listen-peer-urls {3} --initial-advertise-peer-urls {3} --initial-cluster {4} --unsafe-no-fsync "
        "--heartbeat-interval 50 --election-timeout 500",
        number, directory, client, peer, peers);
    for (const char *side : {"", "peer-"})
        command += fmt::format(" --{0}cert-file={1}/server.pem --{0}key-file={1}/server.key "
                               "--{0}trusted-ca-file={1}/ca.pem --{0}client-cert-auth",
                               side, directory);
    member.process = Spawn(command + more, fmt::format("{}/m{}.log", directory, number));
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
