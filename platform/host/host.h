// The host that this process is on: a directory that the environment or vshost_start names, else the
// machine's own. The first call that needs the host attaches to it.
#pragma once

#include <memory>
#include <string>

#include "platform/host/control.h"
#include "platform/host/engine.h"
#include "platform/host/live.h"
#include "platform/host/locations.h"
#include "platform/host/use_lock.h"

namespace vshost {

struct HostOptions {
    std::string directory;
    Durability durability = Durability::DISK;
    bool create = false; // makes the directory when it is missing
};

class Host {
public:
    static VsStatus Open(const HostOptions &options, std::unique_ptr<Host> &host, std::string &message);

    const std::string &Directory() const { return directory; }
    Durability Durable() const { return durability; }
    Control &GetControl() { return *control; }
    Engine &GetEngine() { return *engine; }
    // What its switches do. The daemon of a live host sets its own, before it answers.
    Live &GetLive() { return *live; }
    void SetLive(std::unique_ptr<Live> filled) { live = std::move(filled); }
    void AbandonAfterFork();

private:
    explicit Host(const HostOptions &options) : directory(options.directory), durability(options.durability)
    {}
    void StartOnce();

    const std::string directory;
    const Durability durability;
    UseLock lock;
    std::unique_ptr<Control> control;
    std::unique_ptr<Engine> engine;
    std::unique_ptr<Live> live = std::make_unique<LiveRows>();
};

// Holds the host for one call of the platform: the process neither detaches nor forks until it is destroyed.
// May be nested. A call must not fork while it holds one.
class HostUse {
public:
    HostUse();
    ~HostUse();
    HostUse(const HostUse &) = delete;
    HostUse &operator=(const HostUse &) = delete;

    // Null when this process is not on a host, or its host could not be opened.
    Host *operator->() const { return host; }
    explicit operator bool() const { return host != nullptr; }
    Control *GetControl() const { return host ? &host->GetControl() : nullptr; }
    Faults *GetFaults() const { return host ? &host->GetControl().GetFaults() : nullptr; }

    // Why there is no host: STATUS_OK when the environment names none.
    VsStatus Status() const;
    // Changes whenever the process attaches to another host.
    uint64_t Serial() const;

private:
    Host *host;
};

// Says once on standard error how to start a host; for writes without a host.
void SayNoHost();

// The functions of vshost.h. A throw-away host is removed when the process stops it or exits.
int StartHost(const char *directory, bool durable);
void StopHost();
const char *HostDirectory();
const char *LastError();
// Keeps `message` for LastError() of this thread, and returns `error`.
int SetError(int error, std::string message);

// Makes the host, `tybel` and the preload known to the children of this process.
void SetChildEnvironment(const std::string &directory, Durability durability);
// The folder of this library, tybel and the preload.
std::string PlatformDirectory();
// The directory of the machine's own host; empty when this library is not installed for one.
std::string MachineDirectory();

}
