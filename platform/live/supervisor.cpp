#include "platform/live/supervisor.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/magic.h>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "platform/host/host.h"
#include "platform/host/live_link.h"
#include "platform/live/daemon.h"
#include "platform/live/device_mount.h"
#include "platform/live/kernel_part.h"
#include "platform/live/machine.h"
#include "platform/live/privileges.h"
#include "platform/live/snapshot.h"

namespace live {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char INITIAL_PROCESS_NAMESPACE[] = "pid:[4026531836]"; // a constant of the kernel's interface
constexpr auto SHORT_LIFE = 1s;
constexpr auto LONGEST_END = 5s;
constexpr std::pair OLDEST_KERNEL(5u, 17u);

// Tells the service manager that started this process, if it wants to know.
void Notify(std::string_view state)
{
    const char *path = getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = path ? strlen(path) : 0;
    if (length < 2 || length >= sizeof(address.sun_path)) return;
    memcpy(address.sun_path, path, length);
    if (path[0] == '@') address.sun_path[0] = '\0';
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(socket.Get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

// Why this machine can't run a live host; empty: it can.
std::string FindObstacle()
{
    if (geteuid() != 0) return "a live host needs root; start vshostd with sudo or as a system service";
    utsname system = {};
    unsigned major = 0, minor = 0;
    if (uname(&system) == 0 && sscanf(system.release, "%u.%u", &major, &minor) == 2 &&
        std::pair(major, minor) < OLDEST_KERNEL)
        return std::string("this kernel is ") + system.release + "; a live host needs 5.17 or later";
    if (std::string missing = FindMissingCapability(); !missing.empty()) return missing;
    std::error_code error;
    const std::string space = std::filesystem::read_symlink("/proc/self/ns/pid", error);
    if (space == INITIAL_PROCESS_NAMESPACE) return {};
    return "vshostd can't read the memory of processes outside of its process namespace; start it on the "
           "machine itself, or in a container that shares the machine's process namespace";
}

// The one vshostd of a host holds its file locked.
class ProcessFile {
public:
    explicit ProcessFile(const std::string &directory)
        : directory(directory), path(directory + "/" + vshost::PROCESS_FILE)
    {}

    bool Take(std::string &message)
    {
        file = Descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        if (!file) {
            message = path + ": can't be made: " + strerror(errno);
            return false;
        }
        if (!Lock()) {
            message =
                directory + ": vshostd runs already; end it with `vshost stop --state " + directory + "`";
            return false;
        }
        const std::string line = std::to_string(getpid()) + "\n";
        return ftruncate(file.Get(), 0) == 0 && pwrite(file.Get(), line.data(), line.size(), 0) > 0;
    }

    void Remove() { unlink(path.c_str()); }

private:
    // The daemon of a supervisor that was killed has the lock for a moment.
    bool Lock()
    {
        const auto end = Clock::now() + LONGEST_END;
        for (;;) {
            if (flock(file.Get(), LOCK_EX | LOCK_NB) == 0) return true;
            pid_t holder = 0;
            std::ifstream(path) >> holder;
            const bool isDead = holder > 0 && kill(holder, 0) != 0 && errno == ESRCH;
            if (!isDead || Clock::now() > end) return false;
            std::this_thread::sleep_for(10ms);
        }
    }

    const std::string directory;
    const std::string path;
    Descriptor file;
};

// The pins of the data path are in a bpf file system of the host's own, so that hosts don't meet and no other
// program's mounts hide them. It stays while no vshostd runs.
std::string PinDirectory(const std::string &directory) { return directory + "/bpf"; }

bool IsPinDirectory(const std::string &path)
{
    struct statfs system;
    return statfs(path.c_str(), &system) == 0 && system.f_type == BPF_FS_MAGIC;
}

bool MountPinDirectory(const std::string &path, std::string &message)
{
    if (IsPinDirectory(path)) return true;
    const bool isThere = mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
    if (isThere && mount("bpf", path.c_str(), "bpf", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0700") == 0)
        return true;
    message = "can't mount a bpf file system on " + path + ": " + strerror(errno) +
              "; a live host needs a kernel that permits bpf";
    return false;
}

void RemovePinDirectory(const std::string &path)
{
    while (IsPinDirectory(path) && umount2(path.c_str(), MNT_DETACH) == 0) {
    }
    rmdir(path.c_str());
}

// Requests wait at the socket while the daemon is started anew.
Descriptor Listen(const std::string &path, std::string &message)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    message = path + " is too long for the name of a socket; choose a shorter directory";
    if (path.size() >= sizeof(address.sun_path)) return {};
    path.copy(address.sun_path, path.size());
    unlink(path.c_str());
    Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    // Every writer of the store asks vshostd to follow; it does the rest for root alone.
    if (bind(socket.Get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
        chmod(path.c_str(), 0666) == 0 && listen(socket.Get(), SOMAXCONN) == 0)
        return socket;
    message = path + ": can't listen there: " + strerror(errno);
    return {};
}

class Supervisor {
public:
    explicit Supervisor(const SupervisorOptions &options)
        : directory(options.directory), options(options), process(directory), devices(directory + "/dev")
    {}

    bool Start(std::string &message);
    int Run();

private:
    bool Prepare(std::string &message);
    void RemoveTraces();
    std::string SocketPath() const { return directory + "/" + vshost::SOCKET_FILE; }
    bool StartDaemon();
    bool AwaitEvent();
    void Reap();
    bool Restart();
    void End();
    [[noreturn]] void BecomeDaemon(int readyEnd);

    const std::string directory;
    const SupervisorOptions options;
    ProcessFile process;
    DeviceMount devices;
    Descriptor signals;
    Descriptor requests;
    Descriptor ready; // readable when the daemon works; closed once it was
    pid_t daemon = 0;
    Clock::time_point started;
    bool isNew = false;  // no earlier vshostd has left anything
    bool worked = false; // a daemon has
    bool ends = false;
    int exitCode = 0;
};

bool Supervisor::Start(std::string &message)
{
    if (!process.Take(message)) return false;
    isNew = access(SocketPath().c_str(), F_OK) != 0 && !IsPinDirectory(PinDirectory(directory));
    if (Prepare(message)) return true;
    End();
    return false;
}

bool Supervisor::Prepare(std::string &message)
{
    // The host is opened where its plain files are seen, and closed before the daemon is forked.
    RemoveDeviceMounts(directory + "/dev");
    vshost::ThisThreadFollows();
    std::unique_ptr<vshost::Host> host;
    if (vshost::Host::Open({directory, vshost::Durability::DISK, true}, host, message)) return false;
    host.reset();
    if (options.isMachines && !ShareWithGroup(directory, message)) return false;

    sigset_t handled;
    sigemptyset(&handled);
    for (int signal : {SIGTERM, SIGINT, SIGCHLD})
        sigaddset(&handled, signal);
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    signals = Descriptor(signalfd(-1, &handled, SFD_CLOEXEC));
    requests = Listen(SocketPath(), message);
    return requests && MountPinDirectory(PinDirectory(directory), message) && devices.Make(message) &&
           (!options.isMachines || LinkDevices(directory, message));
}

void Supervisor::BecomeDaemon(int readyEnd)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGINT, SIG_IGN); // a terminal sends it to the whole group; the supervisor decides
    _exit(RunDaemon({directory, options.capacity, devices.Connection(), requests.Get(), readyEnd, !worked}));
}

bool Supervisor::StartDaemon()
{
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) return false;
    ready = Descriptor(pipe[0]);
    const Descriptor writeEnd(pipe[1]);
    started = Clock::now();
    daemon = fork();
    if (daemon == 0) BecomeDaemon(writeEnd.Get());
    return daemon > 0;
}

// False when the host is to end.
bool Supervisor::AwaitEvent()
{
    pollfd events[] = {{signals.Get(), POLLIN, 0}, {ready.Get(), POLLIN, 0}};
    if (poll(events, 2, -1) < 0) return errno == EINTR;
    if (events[1].revents) {
        char byte;
        if (read(ready.Get(), &byte, 1) == 1) {
            if (!worked) Notify("READY=1");
            worked = true;
        }
        ready = Descriptor();
    }
    if (!events[0].revents) return true;
    signalfd_siginfo info;
    if (read(signals.Get(), &info, sizeof(info)) != sizeof(info)) return true;
    if (info.ssi_signo != SIGCHLD) ends = true;
    return !ends;
}

void Supervisor::Reap()
{
    int status = 0;
    if (daemon <= 0 || waitpid(daemon, &status, WNOHANG) != daemon) return;
    daemon = 0;
    if (WIFEXITED(status) && !worked) {
        ends = true; // it has said why
        exitCode = DAEMON_CANNOT_WORK;
    } else if (WIFSIGNALED(status)) {
        Say("the daemon was ended by signal %d (%s) and is started again", WTERMSIG(status),
            strsignal(WTERMSIG(status)));
    } else {
        Say("the daemon ended with exit code %d and is started again", WEXITSTATUS(status));
    }
}

bool Supervisor::Restart()
{
    std::string message;
    if (!devices.RecoverRequests(message)) {
        Say("%s", message.c_str());
        return false;
    }
    if (Clock::now() - started < SHORT_LIFE) std::this_thread::sleep_for(SHORT_LIFE / 5);
    return StartDaemon();
}

// The socket stays: the host is a live one, whose switches go on, until it is removed.
void Supervisor::End()
{
    Notify("STOPPING=1");
    if (daemon > 0) {
        kill(daemon, SIGTERM);
        waitpid(daemon, nullptr, 0);
    }
    UnlinkDevices(directory);
    devices.Remove();
    if (isNew && !worked) RemoveTraces();
    process.Remove();
}

// A host that could not become a live one is an emulated one as before.
void Supervisor::RemoveTraces()
{
    const std::string pins = PinDirectory(directory);
    if (!ProgramsOf(PinsOf(pins, HOST_IDENTITY)).empty()) return; // it forwards: `vshost stop` ends that
    unlink(SocketPath().c_str());
    RemovePinDirectory(pins);
}

int Supervisor::Run()
{
    bool works = StartDaemon();
    while (works && AwaitEvent()) {
        Reap();
        if (ends) break;
        if (daemon == 0) works = Restart();
    }
    if (!works) exitCode = 1;
    End();
    return exitCode;
}

// Without vshostd there is no other than this process's own.
void EnterNetworkOfVshostd(const std::string &directory)
{
    const std::string path = directory + "/" + vshost::PROCESS_FILE;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || flock(file.Get(), LOCK_SH | LOCK_NB) == 0) return;
    pid_t process = 0;
    std::ifstream(path) >> process;
    const std::string network = "/proc/" + std::to_string(process) + "/ns/net";
    const Descriptor space(open(network.c_str(), O_RDONLY | O_CLOEXEC));
    if (space) setns(space.Get(), CLONE_NEWNET);
}

int Fail(const std::string &message)
{
    Say("%s", message.c_str());
    return 1;
}

// Empty: `message` says why.
std::string MakeDirectory(const std::string &directory, std::string &message)
{
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    std::string whole;
    if (!error) whole = std::filesystem::canonical(directory, error);
    if (error) message = directory + ": can't make the host's directory: " + error.message();
    return whole;
}

}

int Supervise(const SupervisorOptions &options)
{
    std::string message = FindObstacle();
    if (!message.empty()) return Fail(message);
    SupervisorOptions whole = options;
    whole.directory = MakeDirectory(options.directory, message);
    if (whole.directory.empty()) return Fail(message);
    Supervisor supervisor(whole);
    if (!supervisor.Start(message)) return Fail(message);
    return supervisor.Run();
}

int CheckLiveHost(const std::string &directory)
{
    std::string message = FindObstacle();
    if (!message.empty()) return Fail(message);
    std::error_code error;
    const std::string whole = std::filesystem::canonical(directory, error);
    if (error) return Fail(directory + ": " + error.message());
    EnterNetworkOfVshostd(whole);
    return CheckForwarding(whole);
}

int RemoveLiveHost(const std::string &directory)
{
    std::string message = FindObstacle();
    if (!message.empty()) return Fail(message);
    std::error_code error;
    const std::string whole = std::filesystem::canonical(directory, error);
    if (error) return Fail(directory + ": " + error.message());
    ProcessFile process(whole);
    if (!process.Take(message)) return Fail(message);
    UnlinkDevices(whole);
    RemoveDeviceMounts(whole + "/dev");
    const bool isGone = !IsPinDirectory(PinDirectory(whole)) || RemoveForwarding(whole, message);
    if (isGone) RemovePinDirectory(PinDirectory(whole));
    unlink((whole + "/" + vshost::SOCKET_FILE).c_str());
    process.Remove();
    return isGone ? 0 : Fail(message);
}

}
