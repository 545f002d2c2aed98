#include "platform/live/daemon.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "platform/host/host.h"
#include "platform/host/live_link.h"
#include "platform/host/live_requests.h"
#include "platform/live/comparison.h"
#include "platform/live/forwarder.h"
#include "platform/live/live_kernel.h"

namespace live {
namespace {

// This process sees the plain files where others see the devices: it would wait for itself otherwise.
bool LeaveDevices(const std::string &directory)
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           umount2((directory + "/dev").c_str(), MNT_DETACH) == 0;
}

// Where the pins of the data path are.
std::string PinDirectory(const std::string &directory) { return directory + "/bpf"; }

constexpr int TURN_MS = 10; // a commit of another process is seen so soon
constexpr uint32_t TURNS_PER_SWEEP = 100;
constexpr size_t LONGEST_REQUEST = 4096;
constexpr unsigned CHECK_LOOKS = 10;
constexpr unsigned CHECK_PAUSE = 100000; // microseconds

bool IsRoot(int client)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    return getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

class Daemon {
public:
    Daemon(const DaemonOptions &options, vshost::Host &host)
        : options(options), host(host), forwarder(host.GetEngine())
    {}

    bool Start(std::string &message);
    void Run();

private:
    void Turn();
    void FollowCommits();
    void Accept();
    bool Answer(int client); // false: the client has gone
    vshost::LiveAnswer Obey(const std::vector<std::string> &request, bool isRoot);

    const DaemonOptions &options;
    vshost::Host &host;
    Forwarder forwarder;
    Descriptor signals;
    std::vector<Descriptor> clients;
    uint64_t commits = UINT64_MAX;
    uint32_t turns = 0;
};

bool Daemon::Start(std::string &message)
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    signals = Descriptor(signalfd(-1, &ends, SFD_CLOEXEC));
    commits = host.GetControl().Counters().commits;
    if (!forwarder.Start(PinDirectory(options.directory), message)) return false;
    host.SetLive(std::make_unique<LiveKernel>(forwarder.Tables()));
    return true;
}

// An odd number says that a write is under way; its end is another number.
void Daemon::FollowCommits()
{
    const uint64_t now = host.GetControl().Counters().commits;
    if (now == commits) return;
    commits = now;
    forwarder.FollowStore();
}

void Daemon::Turn()
{
    forwarder.PollCarriers();
    if (++turns % TURNS_PER_SWEEP == 0) forwarder.Sweep();
}

void Daemon::Accept()
{
    Descriptor client(accept4(options.requests, nullptr, nullptr, SOCK_CLOEXEC));
    if (client && Answer(client.Get())) clients.push_back(std::move(client));
}

vshost::LiveAnswer Daemon::Obey(const std::vector<std::string> &request, bool isRoot)
{
    const std::string &verb = request.front();
    if (verb == "follow" && request.size() == 1) return {};
    if (verb == "link" && request.size() == 2) return forwarder.DescribeLink(request[1]);
    if (!isRoot) return {EACCES, "vshostd does this for root alone"};
    if (verb == "plug" && request.size() == 5)
        return forwarder.PlugPort(request[1], request[2], request[3], request[4] == "keep");
    if (verb == "unplug" && request.size() == 2) return forwarder.Unplug(request[1], false);
    if (verb == "add-nic" && request.size() == 3) return forwarder.AddNic(request[1], request[2] == "keep");
    if (verb == "remove-nic" && request.size() == 2) return forwarder.Unplug(request[1], true);
    return {EINVAL, "vshostd is of another version than this program"};
}

bool Daemon::Answer(int client)
{
    char packet[LONGEST_REQUEST];
    const ssize_t length = recv(client, packet, sizeof(packet), MSG_DONTWAIT);
    if (length <= 0) return length < 0 && errno == EAGAIN;
    std::vector<std::string> request;
    for (const char *at = packet; at < packet + length; at += request.back().size() + 1)
        request.emplace_back(at, strnlen(at, static_cast<size_t>(packet + length - at)));
    FollowCommits();
    const vshost::LiveAnswer answer = Obey(request, IsRoot(client));
    const std::string text = answer.text + '\0' + std::to_string(answer.error) + '\0';
    return send(client, text.data(), text.size(), MSG_NOSIGNAL) > 0;
}

void Daemon::Run()
{
    for (;;) {
        std::vector<pollfd> events = {{signals.Get(), POLLIN, 0},
                                      {forwarder.LinkDescriptor(), POLLIN, 0},
                                      {options.requests, POLLIN, 0}};
        for (const Descriptor &client : clients)
            events.push_back({client.Get(), POLLIN, 0});
        if (poll(events.data(), events.size(), TURN_MS) == 0) Turn();
        if (events[0].revents) return;
        if (events[1].revents) forwarder.FollowLinks();
        FollowCommits();
        for (size_t i = clients.size(); i-- > 0;)
            if (events[3 + i].revents && !Answer(clients[i].Get()))
                clients.erase(clients.begin() + static_cast<ptrdiff_t>(i));
        if (events[2].revents) Accept();
    }
}

int Run(const DaemonOptions &options)
{
    vshost::ThisThreadFollows();
    std::string message;
    const auto fail = [&](const std::string &why) {
        Say("%s", why.c_str());
        return DAEMON_CANNOT_WORK;
    };
    if (!LeaveDevices(options.directory))
        return fail(std::string("can't leave the mount of the devices: ") + strerror(errno));
    if (vshost::StartHost(options.directory.c_str(), true) != 0) return fail(vshost::LastError());
    vshost::HostUse use;
    Daemon daemon(options, *use.operator->());
    if (!daemon.Start(message) || !ServeDevices(options.devices, options.directory, message))
        return fail(message);
    if (write(options.ready, "", 1) != 1) return DAEMON_CANNOT_WORK;
    daemon.Run();
    return 0;
}

}

void Say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char text[1024];
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    fprintf(stderr, "vshostd: %s\n", text);
}

int RunDaemon(const DaemonOptions &options) { return Run(options); }

bool RemoveForwarding(const std::string &directory, std::string &message)
{
    std::unique_ptr<vshost::Host> host;
    if (vshost::Host::Open({directory, vshost::Durability::DISK}, host, message)) return false;
    Forwarder forwarder(host->GetEngine());
    if (!forwarder.Start(PinDirectory(directory), message)) return false;
    forwarder.RemoveAll();
    return true;
}

// A difference counts when it stays: what has just happened is not followed yet.
int CheckForwarding(const std::string &directory)
{
    std::unique_ptr<vshost::Host> host;
    std::vector<std::string> differences;
    std::string message;
    bool isCompared = !vshost::Host::Open({directory, vshost::Durability::DISK}, host, message);
    for (unsigned looks = 0; isCompared && looks < CHECK_LOOKS; looks++) {
        if (looks) usleep(CHECK_PAUSE);
        differences.clear();
        const bool isFollowed = vshost::AskVshostd(directory, {"follow"}).error == 0;
        isCompared = CompareWithKernel(PinDirectory(directory), host->GetEngine(), differences, message);
        if (differences.empty() || !isFollowed) break;
    }
    if (!isCompared) Say("%s", message.c_str());
    for (const std::string &difference : differences)
        printf("%s\n", difference.c_str());
    return isCompared && differences.empty() ? 0 : 1;
}

}
