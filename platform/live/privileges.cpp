#include "platform/live/privileges.h"

#include <cerrno>
#include <cstdint>
#include <linux/capability.h>
#include <span>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace live {
namespace {

struct Capability {
    int number;
    const char *name;
};

constexpr Capability OF_DAEMON[] = {
    {CAP_BPF, "CAP_BPF"},               // the data path's programs and maps
    {CAP_NET_ADMIN, "CAP_NET_ADMIN"},   // filters, and the settings of interfaces
    {CAP_PERFMON, "CAP_PERFMON"},       // a program that keeps pointers on its stack
    {CAP_SYS_PTRACE, "CAP_SYS_PTRACE"}, // the memory of the devices' callers
};
// If the host belongs to another user than root: its database, and files beside it that its owner can use.
constexpr Capability OF_OWNED_HOST[] = {{CAP_DAC_OVERRIDE, "CAP_DAC_OVERRIDE"}, {CAP_CHOWN, "CAP_CHOWN"}};
constexpr Capability OF_SUPERVISOR[] = {{CAP_SYS_ADMIN, "CAP_SYS_ADMIN"}, // mounts
                                        {CAP_SETPCAP, "CAP_SETPCAP"}};    // to give up the others for good

constexpr uint64_t Bit(int capability) { return uint64_t{1} << capability; }

uint64_t ReadEffective()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0) return 0;
    return data[0].effective | uint64_t{data[1].effective} << 32;
}

bool SetCapabilities(uint64_t capabilities)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    for (int i = 0; i < 2; i++)
        data[i].effective = data[i].permitted = static_cast<uint32_t>(capabilities >> 32 * i);
    return syscall(SYS_capset, &header, data) == 0;
}

bool IsOfRoot(const std::string &directory)
{
    struct stat own = {}, database = {};
    return stat(directory.c_str(), &own) == 0 && own.st_uid == 0 &&
           (stat((directory + "/host.db").c_str(), &database) != 0 || database.st_uid == 0);
}

}

std::string FindMissingCapability()
{
    const uint64_t present = ReadEffective();
    for (const std::span<const Capability> needs :
         {std::span<const Capability>(OF_SUPERVISOR), std::span<const Capability>(OF_DAEMON)})
        for (const Capability &needed : needs)
            if (!(present & Bit(needed.number)))
                return std::string("a live host needs the capability ") + needed.name +
                       "; start vshostd as root without taking it away";
    return {};
}

bool DropPrivileges(const std::string &directory)
{
    uint64_t kept = 0;
    for (const Capability &needed : OF_DAEMON)
        kept |= Bit(needed.number);
    if (!IsOfRoot(directory))
        for (const Capability &needed : OF_OWNED_HOST)
            kept |= Bit(needed.number);
    for (int i = 0; prctl(PR_CAPBSET_READ, i) >= 0; i++)
        if (!(kept & Bit(i)) && prctl(PR_CAPBSET_DROP, i) != 0) return false;
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    return SetCapabilities(kept) && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

}
