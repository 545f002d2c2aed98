// Attaching to a host: which one this process is on, and keeping it usable across threads and forks.
#include "platform/host/host.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>

#include "platform/host/guard.h"
#include "platform/host/runtime.h"
#include "platform/host/tables.h"

namespace vshost {
namespace {

enum class State { UNKNOWN, NONE, ATTACHED, FAILED };

// Calls hold `lock` shared. Attaching, detaching and forking hold it exclusively, so that no call of the
// platform is running meanwhile. Waiting writers go first: a busy process can still fork.
struct Attachment {
    Attachment();

    // A forked child makes a lock of its own: the parent's lock names its holder by a thread id of the
    // parent.
    void MakeLock();

    std::deque<pthread_rwlock_t> locks;
    pthread_rwlock_t *lock;
    State state = State::UNKNOWN;
    VsStatus status = STATUS_OK;
    std::unique_ptr<Host> host;
    std::atomic<uint64_t> serial = 0;
    std::string throwAway; // directory that process `owner` removes
    UseLock throwAwayLock;
    pid_t owner = 0;
};

// Never destroyed: other threads may still call the platform while the process exits.
Attachment &Current()
{
    static auto *const attachment = new Attachment;
    return *attachment;
}

// How many HostUse this thread has. Initial-exec, because every call looks it up and this library is small.
[[gnu::tls_model("initial-exec")]] thread_local int uses = 0;

std::string &ErrorText()
{
    static thread_local std::string text;
    return text;
}

void Attachment::MakeLock()
{
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    lock = &locks.emplace_back();
    pthread_rwlock_init(lock, &attributes);
    pthread_rwlockattr_destroy(&attributes);
}

class Exclusive {
public:
    Exclusive() { pthread_rwlock_wrlock(Current().lock); }
    Exclusive(const Exclusive &) = delete;
    Exclusive &operator=(const Exclusive &) = delete;
    ~Exclusive() { pthread_rwlock_unlock(Current().lock); }
};

void BeforeFork() { pthread_rwlock_wrlock(Current().lock); }
void InParent() { pthread_rwlock_unlock(Current().lock); }
// Threads that the child doesn't have may wait for the lock. The child releases it and gets another one.
void InChild()
{
    pthread_rwlock_unlock(Current().lock);
    Current().MakeLock();
    if (Current().host) Current().host->AbandonAfterFork();
}

void RemoveThrowAway()
{
    Attachment &current = Current();
    if (current.owner == getpid()) RemoveHostDirectory(current.throwAway);
    current.throwAway.clear();
    current.throwAwayLock.Release();
    current.owner = 0;
}

Attachment::Attachment()
{
    MakeLock();
    pthread_atfork(BeforeFork, InParent, InChild);
    atexit(RemoveThrowAway);
}

void Detach()
{
    Current().host.reset();
    Current().state = State::NONE;
    Current().status = STATUS_OK;
    Current().serial++;
}

VsStatus Attach(const HostOptions &options, std::string &message)
{
    Attachment &current = Current();
    current.serial++;
    current.status = Host::Open(options, current.host, message);
    current.state = current.status == STATUS_OK ? State::ATTACHED : State::FAILED;
    return current.status;
}

// The directory that the environment named when the process started. A relative one is relative to the
// current directory of that moment.
struct StartDirectory {
    std::string named, absolute;
};

StartDirectory ReadStartDirectory()
{
    std::error_code gone;
    const char *directory = getenv(ENVIRONMENT_DIRECTORY);
    const std::string named = directory ? directory : "";
    const std::string absolute = std::filesystem::absolute(named, gone).lexically_normal();
    return {named, gone ? named : absolute};
}

[[gnu::constructor]] const StartDirectory &AtStart()
{
    static auto *const start = new StartDirectory(ReadStartDirectory());
    return *start;
}

// For a process whose environment names no host. With the preload in it, it is a test that starts a host
// itself or a child of `vshost run` that left its host: neither must change the machine's.
void AttachToMachine()
{
    std::error_code error;
    const std::string directory = MachineDirectory();
    if (dlsym(RTLD_DEFAULT, "vshost_start") || !std::filesystem::is_directory(directory, error))
        return Detach();
    std::string message;
    const VsStatus status = Attach({directory}, message);
    if (!status) return;
    const char *advice = status == StatusOfErrno(EACCES) ? "; it is for members of the group " : "";
    fprintf(stderr, "vshost: %s%s%s\n", message.c_str(), advice, *advice ? MACHINE_GROUP : "");
}

void AttachFromEnvironment()
{
    const char *directory = getenv(ENVIRONMENT_DIRECTORY);
    if (!directory) return AttachToMachine();
    if (directory == AtStart().named) directory = AtStart().absolute.c_str();
    const char *durability = getenv(ENVIRONMENT_DURABILITY);
    if (!*directory) return Detach();
    const bool forProcess = durability && strcmp(durability, "process") == 0;
    std::string message;
    if (Attach({directory, forProcess ? Durability::PROCESS : Durability::DISK}, message))
        fprintf(stderr, "vshost: %s\n", message.c_str());
}

void AttachOnce()
{
    Exclusive alone;
    if (Current().state != State::UNKNOWN) return;
    const VsStatus thrown = Guard([] {
        AttachFromEnvironment();
        return STATUS_OK;
    });
    if (!thrown) return;
    Current().state = State::FAILED;
    Current().status = thrown;
}

VsStatus Fail(const std::string &path, const char *what, int error, std::string &message)
{
    message = path + ": cannot " + what + ": " + strerror(error);
    return StatusOfErrno(error);
}

VsStatus PrepareDirectory(const HostOptions &options, UseLock &lock, std::string &message)
{
    const std::string &directory = options.directory;
    std::error_code error;
    if (options.create) std::filesystem::create_directories(directory, error);
    if (error) return Fail(directory, "make the host's directory", error.value(), message);
    if (!std::filesystem::is_directory(directory, error)) {
        message = directory + " is not a directory; make it, or set " + ENVIRONMENT_DIRECTORY +
                  " to a host's directory";
        return STATUS_IO_ERROR;
    }
    if (!lock.Share(directory, false)) return Fail(directory, "lock the host", errno, message);
    const std::string devices = directory + "/dev";
    if (mkdir(devices.c_str(), 0755) != 0 && errno != EEXIST)
        return Fail(devices, "make the folder", errno, message);
    for (const char *name : {DEVICE_FILE, RTM_FILE}) {
        const std::string path = directory + "/" + name;
        const int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return Fail(path, "make the file", errno, message);
        close(fd);
    }
    return STATUS_OK;
}

// Puts `item` first in a list of paths in the environment, unless the list has it already.
void PrependToEnvironment(const char *variable, const std::string &item)
{
    const char *old = getenv(variable);
    const std::string list = old ? old : "";
    if ((":" + list + ":").find(":" + item + ":") != std::string::npos) return;
    setenv(variable, (list.empty() ? item : item + ":" + list).c_str(), 1);
}

int Start(const char *directory, bool durable)
{
    const std::string wanted = directory ? directory : MakeThrowAwayDirectory(Current().throwAwayLock);
    if (wanted.empty())
        return SetError(errno, "cannot make the directory of a throw-away host in /dev/shm or /tmp");
    if (!directory) {
        Current().throwAway = wanted;
        Current().owner = getpid();
    }
    std::error_code gone;
    const std::string absolute = std::filesystem::absolute(wanted, gone).lexically_normal();
    if (gone)
        return SetError(gone.value(),
                        wanted + ": the current directory cannot be found; give an absolute path");
    const Durability durability = durable ? Durability::DISK : Durability::PROCESS;
    std::string message;
    if (VsStatus status = Attach({absolute, durability, true}, message))
        return SetError(ErrnoOf(status), message);
    SetChildEnvironment(absolute, durability);
    return 0;
}

}

VsStatus Host::Open(const HostOptions &options, std::unique_ptr<Host> &host, std::string &message)
{
    std::unique_ptr<Host> opened(new Host(options));
    if (VsStatus status = PrepareDirectory(options, opened->lock, message)) return status;
    if (VsStatus status = Control::Open(options.directory, opened->control, message)) return status;
    const EngineOptions engine{options.directory, options.durability, opened->control->Counters()};
    if (VsStatus status = Engine::Open(engine, opened->engine, message)) return status;
    opened->StartOnce();
    host = std::move(opened);
    return STATUS_OK;
}

// If the switches cannot be started, on a full disk for example, the next process tries again.
void Host::StartOnce()
{
    bool anySwitch = false;
    const auto look = [&](std::string_view, std::string_view) {
        anySwitch = true;
        return false;
    };
    if (control->HasStarted() || ForEachSwitch(*engine, look)) return;
    if (!anySwitch || engine->Write(StartSwitches) == STATUS_OK) control->SetStarted();
}

void Host::AbandonAfterFork()
{
    control->ReopenAfterFork();
    engine->AbandonAfterFork();
}

HostUse::HostUse()
{
    Attachment &current = Current();
    if (uses++ == 0) {
        pthread_rwlock_rdlock(current.lock);
        while (current.state == State::UNKNOWN) {
            pthread_rwlock_unlock(current.lock);
            AttachOnce();
            pthread_rwlock_rdlock(current.lock);
        }
    }
    host = current.host.get();
}

HostUse::~HostUse()
{
    if (--uses == 0) pthread_rwlock_unlock(Current().lock);
}

VsStatus HostUse::Status() const { return Current().status; }

uint64_t HostUse::Serial() const { return Current().serial; }

void SayNoHost()
{
    static std::atomic_flag said;
    if (said.test_and_set()) return;
    fputs("vshost: this process is not on a host, so nothing can be stored; "
          "run it with `vshost run -- COMMAND`, or set VSHOST_DIR to a host's directory\n",
          stderr);
}

int StartHost(const char *directory, bool durable)
{
    Exclusive alone;
    Detach();
    RemoveThrowAway();
    const int error = GuardErrno([&] { return Start(directory, durable); });
    if (!error) return 0;
    Detach();
    RemoveThrowAway();
    return error;
}

void StopHost()
{
    Exclusive alone;
    Detach();
    RemoveThrowAway();
    unsetenv(ENVIRONMENT_DIRECTORY);
    unsetenv(ENVIRONMENT_DURABILITY);
}

const char *HostDirectory()
{
    HostUse host;
    return host ? host->Directory().c_str() : nullptr;
}

const char *LastError() { return ErrorText().c_str(); }

int SetError(int error, std::string message)
{
    ErrorText() = std::move(message);
    return error;
}

void SetChildEnvironment(const std::string &directory, Durability durability)
{
    const std::string platform = PlatformDirectory(), preload = platform + "/libvshost.so";
    setenv(ENVIRONMENT_DIRECTORY, directory.c_str(), 1);
    setenv(ENVIRONMENT_DURABILITY, durability == Durability::DISK ? "disk" : "process", 1);
    PrependToEnvironment("PATH", platform);
    PrependToEnvironment("LD_LIBRARY_PATH", platform);
    if (access(preload.c_str(), R_OK) == 0) PrependToEnvironment("LD_PRELOAD", preload);
}

std::string PlatformDirectory()
{
    Dl_info info;
    if (!dladdr(reinterpret_cast<const void *>(&PlatformDirectory), &info)) return ".";
    std::error_code error;
    const auto path = std::filesystem::canonical(info.dli_fname, error);
    return error ? "." : path.parent_path().string();
}

std::string MachineDirectory()
{
    std::error_code none;
    return std::filesystem::read_symlink(PlatformDirectory() + "/" + MACHINE_LINK, none);
}

}
