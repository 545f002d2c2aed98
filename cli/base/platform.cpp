// What vsctl asks the platform for without the library.
#include "cli/base/platform.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/base/error.h"
#include "cli/base/forward.h"
#include "cli/base/limit.h"

namespace vsctl {

namespace {

constexpr size_t USUAL_LENGTH = 64; // of a list

// Copies a list out of the platform, again while its length changes.
template<class Entry, class List>
std::optional<std::vector<Entry>> Listed(const std::string &switchId, const char *what, List list)
{
    std::vector<Entry> entries(USUAL_LENGTH);
    size_t count = 0;
    const auto ask = [&] {
        const int error = list(entries.data(), entries.size(), &count);
        RestartTimeLimit(); // the platform has answered
        return error;
    };
    int error = ask();
    if (error == 0 && count < entries.size()) entries.resize(count);
    while (error == 0 && count != entries.size()) {
        entries.resize(count);
        error = ask();
    }
    if (error == ENOENT) return {};
    if (error == 0) return entries;
    const std::string object =
        switchId.empty() ? "this host" : fmt::format("the switch with the id '{}'", switchId);
    throw Error(Exit::UNREACHABLE,
                fmt::format("listing the {} of {} failed: {}", what, object, strerror(error)),
                AdviceFor(Exit::UNREACHABLE));
}

void SwitchBulk(int on)
{
    static auto *const bulk = PlatformFunction<decltype(vshost_bulk)>("vshost_bulk");
    if (bulk) bulk(on);
}

// What the platform says of a call that failed.
std::string FaultOf(int error)
{
    static auto *const fault = PlatformFunction<decltype(vshost_error)>("vshost_error");
    return error == 0 ? "" : fault ? fault() : strerror(error);
}

}

bool IsEmbedded()
{
    static const bool found = LibraryFault().empty() && FindPlatformFunction("vshost_platform");
    return found;
}

std::optional<std::vector<vshost_port>> ListPorts(const std::string &switchId)
{
    static auto *const list = PlatformFunction<decltype(vshost_list_ports)>("vshost_list_ports");
    return Listed<vshost_port>(switchId, "ports", [&](vshost_port *ports, size_t capacity, size_t *count) {
        return list(switchId.c_str(), ports, capacity, count);
    });
}

std::optional<std::vector<vshost_property_name>> ListProperties(const std::string &switchId,
                                                                const std::string &port)
{
    static auto *const list = PlatformFunction<decltype(vshost_list_properties)>("vshost_list_properties");
    const char *portId = port.empty() ? nullptr : port.c_str();
    return Listed<vshost_property_name>(switchId, "properties",
                                        [&](vshost_property_name *names, size_t capacity, size_t *count) {
                                            return list(switchId.c_str(), portId, names, capacity, count);
                                        });
}

std::vector<vshost_nic> ListNics()
{
    static auto *const list = PlatformFunction<decltype(vshost_list_nics)>("vshost_list_nics");
    if (!list) return {};
    return Listed<vshost_nic>("", "NICs", list).value_or(std::vector<vshost_nic>());
}

std::vector<vshost_policy_fault> ListPolicyFaults(const std::string &switchId)
{
    static auto *const list =
        PlatformFunction<decltype(vshost_list_policy_faults)>("vshost_list_policy_faults");
    if (!list) return {};
    const auto faults = Listed<vshost_policy_fault>(
        switchId, "policies", [&](vshost_policy_fault *entries, size_t capacity, size_t *count) {
            return list(switchId.c_str(), entries, capacity, count);
        });
    return faults.value_or(std::vector<vshost_policy_fault>());
}

int RestorePlace(const std::string &switchId, const vshost_port &port)
{
    static auto *const restore = PlatformFunction<decltype(vshost_restore_port)>("vshost_restore_port");
    return restore(switchId.c_str(), &port);
}

Bulk::Bulk() { SwitchBulk(1); }
Bulk::~Bulk() { SwitchBulk(0); }

std::string Plug(const std::string &alias, const std::string &port, const std::string &interface)
{
    static auto *const plug = PlatformFunction<decltype(vshost_plug)>("vshost_plug");
    return FaultOf(plug(alias.c_str(), port.c_str(), interface.c_str(), 1));
}

std::string Unplug(const std::string &interface)
{
    static auto *const unplug = PlatformFunction<decltype(vshost_unplug)>("vshost_unplug");
    return FaultOf(unplug(interface.c_str()));
}

bool SetNode(const std::string &node, const std::string &value)
{
    const char *arguments[] = {"tybel", "-e", "set", node.c_str(), value.c_str(), nullptr};
    posix_spawn_file_actions_t silent;
    posix_spawn_file_actions_init(&silent);
    posix_spawn_file_actions_addopen(&silent, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int result = -1;
    const bool started = posix_spawn(&child, "/bin/tybel", &silent, nullptr,
                                     const_cast<char *const *>(arguments), environ) == 0;
    posix_spawn_file_actions_destroy(&silent);
    while (started && waitpid(child, &result, 0) < 0 && errno == EINTR) {
    }
    return started && result == 0;
}

}
