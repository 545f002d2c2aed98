#include "platform/live/daemon.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/host/host.h"
#include "platform/host/live_link.h"
#include "platform/host/live_requests.h"
#include "platform/live/backlog.h"
#include "platform/live/comparison.h"
#include "platform/live/forwarder.h"
#include "platform/live/live_kernel.h"
#include "platform/live/peers.h"
#include "platform/live/privileges.h"

namespace live {
namespace {

using Clock = std::chrono::steady_clock;

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
constexpr uint32_t TURNS_PER_SIGN = 10; // of life
// A writer commits so soon after it was told that all is prepared, unless it was stopped.
constexpr auto LONGEST_COMMIT = std::chrono::seconds(5);
constexpr off_t LONGEST_ROWS = off_t{1} << 30; // bytes
constexpr unsigned CHECK_LOOKS = 10;
constexpr unsigned CHECK_PAUSE = 100000; // microseconds

using Client = std::shared_ptr<Descriptor>;

void Reply(const Client &client, const vshost::LiveAnswer &answer)
{
    const std::string text = answer.text + '\0' + std::to_string(answer.error) + '\0';
    send(client->Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

// A request as it came, with the file that was sent with it.
struct Packet {
    ssize_t length = 0;
    char bytes[vshost::LIVE_PACKET_SIZE];
    Descriptor file;

    bool Receive(int client);
    bool ReadRows(size_t verbLength, vshost::RowChanges &rows) const;
    std::string_view Verb() const { return {bytes, strnlen(bytes, static_cast<size_t>(length))}; }
};

bool Packet::Receive(int client)
{
    iovec room = {bytes, sizeof(bytes)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    file = Descriptor();
    length = recvmsg(client, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const cmsghdr *header = length > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header && header->cmsg_type == SCM_RIGHTS) {
        int received;
        memcpy(&received, CMSG_DATA(header), sizeof(received));
        file = Descriptor(received);
    }
    return length > 0;
}

bool Packet::ReadRows(size_t verbLength, vshost::RowChanges &rows) const
{
    const size_t begin = std::min(verbLength + 1, static_cast<size_t>(length));
    if (!file) return vshost::DecodeRows({bytes + begin, static_cast<size_t>(length) - begin}, rows);
    struct stat attributes = {};
    if (fstat(file.Get(), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return false;
    if (attributes.st_size > LONGEST_ROWS) return false;
    std::string whole(static_cast<size_t>(attributes.st_size), '\0');
    return pread(file.Get(), whole.data(), whole.size(), 0) == static_cast<ssize_t>(whole.size()) &&
           vshost::DecodeRows(whole, rows);
}

class Daemon {
public:
    Daemon(const DaemonOptions &options, vshost::Host &host)
        : options(options), host(host), scribe(host.GetEngine()), forwarder(host.GetEngine(), scribe)
    {}

    bool Start(std::string &message);
    void Run();

private:
    void Turn();
    void FollowCommits();
    void Accept();
    bool Answer(const Client &client); // false: the client has gone
    void Obey(const std::vector<std::string> &request, const Client &client);
    bool FollowWriter(const Packet &packet, const Client &client); // false: it is another request
    void Prepare(const Packet &packet, const Client &client);
    void Leave(const Client &client);
    bool IsWriterAwaited() const;
    int Patience() const;

    const DaemonOptions &options;
    vshost::Host &host;
    Scribe scribe;
    Forwarder forwarder;
    Descriptor signals;
    std::vector<Client> clients;
    Packet packet;
    Client writer;               // for which the forwarder has prepared; it is to commit
    std::set<Client> postponers; // in a bulk
    Clock::time_point prepared;
    Clock::time_point lastTurn;
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
    message = std::string("can't start a thread: ") + strerror(errno);
    if (!scribe.Start()) return false;
    if (!forwarder.Start({PinDirectory(options.directory), options.capacity}, message)) return false;
    if (options.isFirst) RaiseBacklog(scribe);
    host.SetLive(std::make_unique<LiveKernel>(forwarder.Tables(), forwarder.Lags()));
    return true;
}

bool Daemon::IsWriterAwaited() const { return writer && Clock::now() - prepared < LONGEST_COMMIT; }

// Of writers that didn't say what they wrote. An odd number says that a write is under way; its end is
// another number.
void Daemon::FollowCommits()
{
    if (IsWriterAwaited()) return;
    const uint64_t now = host.GetControl().Counters().commits;
    if (now == commits) return;
    commits = now;
    forwarder.FollowStore();
}

void Daemon::Turn()
{
    lastTurn = Clock::now();
    forwarder.PollCarriers();
    forwarder.Announce();
    if (++turns % TURNS_PER_SWEEP == 0) forwarder.Sweep();
    if (turns % TURNS_PER_SIGN == 0) forwarder.ShowLife();
}

void Daemon::Accept()
{
    Descriptor accepted(accept4(options.requests, nullptr, nullptr, SOCK_CLOEXEC));
    if (!accepted) return;
    const auto client = std::make_shared<Descriptor>(std::move(accepted));
    if (Answer(client)) clients.push_back(client);
}

void Daemon::Obey(const std::vector<std::string> &request, const Client &client)
{
    const std::string &verb = request.front();
    const auto reply = [client](const vshost::LiveAnswer &answer) { Reply(client, answer); };
    if (verb == "follow" && request.size() == 1) return reply({});
    if (verb == "link" && request.size() == 2) return reply(forwarder.DescribeLink(request[1]));
    if (!IsRoot(client->Get())) return reply({EACCES, "vshostd does this for root alone"});
    if (verb == "plug" && request.size() == 5)
        return forwarder.PlugPort({request[1], request[2]}, request[3], request[4] == "keep", reply);
    if (verb == "unplug" && request.size() == 2) return forwarder.Unplug(request[1], false, reply);
    if (verb == "add-nic" && request.size() == 3)
        return forwarder.AddNic(request[1], request[2] == "keep", reply);
    if (verb == "remove-nic" && request.size() == 2) return forwarder.Unplug(request[1], true, reply);
    reply({EINVAL, "vshostd is of another version than this program"});
}

// A process writes while it holds the host's lock, so that the last one that had something prepared is the
// one that commits.
void Daemon::Prepare(const Packet &request, const Client &client)
{
    vshost::RowChanges rows;
    if (!request.ReadRows(request.Verb().size(), rows)) return Reply(client, {EINVAL, "no rows"});
    FollowCommits();
    const vshost::VsStatus status = forwarder.Prepare(std::move(rows));
    writer = status ? nullptr : client;
    prepared = Clock::now();
    Reply(client, {vshost::ErrnoOf(status), ""});
}

bool Daemon::FollowWriter(const Packet &request, const Client &client)
{
    const std::string_view verb = request.Verb();
    const bool isOfWriter = verb == "prepare" || verb == "publish" || verb == "later";
    // What is published must be what a user who may write has committed.
    if (isOfWriter && !MayWrite(client->Get(), options.directory + "/host.db")) {
        Reply(client, {EACCES, "only a user who may write to the host's database changes what it forwards"});
        return true;
    }
    if (verb == "prepare") {
        Prepare(request, client);
        return true;
    }
    if (verb != "publish" && verb != "later") return false;
    if (writer == client)
        writer = nullptr;
    else
        forwarder.Forget(); // one change at a time is under way
    if (!writer) commits = host.GetControl().Counters().commits;
    if (verb == "later") {
        postponers.insert(client);
        forwarder.Postpone();
        return true;
    }
    postponers.erase(client);
    forwarder.Publish();
    Reply(client, {});
    return true;
}

void Daemon::Leave(const Client &client)
{
    if (writer != client && !postponers.contains(client)) return;
    postponers.erase(client);
    if (writer == client) writer = nullptr;
    commits = host.GetControl().Counters().commits;
    forwarder.Abandon();
}

bool Daemon::Answer(const Client &client)
{
    if (!packet.Receive(client->Get())) {
        if (packet.length < 0 && errno == EAGAIN) return true;
        Leave(client);
        return false;
    }
    if (FollowWriter(packet, client)) return true;
    std::vector<std::string> request;
    for (const char *at = packet.bytes; at < packet.bytes + packet.length; at += request.back().size() + 1)
        request.emplace_back(at, strnlen(at, static_cast<size_t>(packet.bytes + packet.length - at)));
    FollowCommits();
    Obey(request, client);
    return true;
}

int Daemon::Patience() const
{
    const auto passed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastTurn).count();
    return static_cast<int>(std::clamp<int64_t>(TURN_MS - passed, 0, TURN_MS));
}

void Daemon::Run()
{
    for (;;) {
        std::vector<pollfd> events = {{signals.Get(), POLLIN, 0},
                                      {forwarder.LinkDescriptor(), POLLIN, 0},
                                      {options.requests, POLLIN, 0},
                                      {scribe.EventDescriptor(), POLLIN, 0}};
        for (const Client &client : clients)
            events.push_back({client->Get(), POLLIN, 0});
        poll(events.data(), events.size(), Patience());
        if (Patience() == 0) Turn();
        if (events[0].revents) return;
        if (events[1].revents) forwarder.FollowLinks();
        FollowCommits();
        if (events[3].revents) forwarder.CollectWrites();
        for (size_t i = clients.size(); i-- > 0;)
            if (events[4 + i].revents && !Answer(clients[i]))
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
    if (!DropPrivileges(options.directory))
        return fail(std::string("can't give up capabilities: ") + strerror(errno));
    if (vshost::StartHost(options.directory.c_str(), true) != 0) return fail(vshost::LastError());
    vshost::HostUse use;
    auto &daemon = *new Daemon(options, *use.operator->()); // threads use it until the process ends
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
    vshost::ThisThreadFollows();
    std::unique_ptr<vshost::Host> host;
    if (vshost::Host::Open({directory, vshost::Durability::DISK}, host, message)) return false;
    Scribe scribe(host->GetEngine());
    Forwarder forwarder(host->GetEngine(), scribe);
    if (!forwarder.Start({PinDirectory(directory), {}}, message)) return false;
    forwarder.RemoveAll();
    PutBackBacklog(host->GetEngine());
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
