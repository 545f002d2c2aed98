// The commands of vshost. Each returns the program's exit code, or throws LauncherError.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/host.h"
#include "platform/host/runtime.h"

namespace vshost {

// One line on standard error: what failed, on what, and what to do.
struct LauncherError {
    std::string message;
    int exitCode = 1;
};

struct RunOptions {
    std::string state; // empty: a throw-away host
    bool durable = true;
    std::string scenario; // a file; empty: none
    std::vector<std::string> command;
};

// The changes to a NIC.
struct NicOptions {
    std::string name;
    std::optional<std::string> link, admin, duplex; // "up" or "down", "full" or "half"
    std::optional<uint32_t> speed, mtu, maxMtu;
    std::optional<uint32_t> numaNode;
};

int RunOnHost(const RunOptions &options);
int ShowHost(const std::string &state, bool json);
int ResetHost(const std::string &state);
// Makes this process one on the host, for the functions of vshost.h.
void EnterLiveHost(const std::string &state);
int Answered(int error); // by one of them
int CheckLiveHost(const std::string &state);
int StopLiveHost(const std::string &state);
int BindNicOnHost(const std::string &state, const std::string &nic, const std::string &switchName,
                  const std::string &portId);
int ChangeNic(const std::string &state, const NicOptions &options);
int RemoveNic(const std::string &state, const std::string &name);

// `state` or, when that is empty, the directory of the host that this process is on.
std::string DirectoryOf(const std::string &state);
// Opens an existing host.
std::unique_ptr<Host> OpenHost(const std::string &state);
// Throws a LauncherError for a status of the host's database.
void CheckStatus(const Host &host, VsStatus status);

}
