// vshost reset, bind, nic and remove-nic.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/launcher/launcher.h"

namespace vshost {

std::string DirectoryOf(const std::string &state)
{
    if (!state.empty()) return state;
    const char *own = getenv(ENVIRONMENT_DIRECTORY);
    std::string directory = own ? own : MachineDirectory();
    if (directory.empty()) throw LauncherError{"this process is not on a host; name a host with --state DIR"};
    return directory;
}

std::unique_ptr<Host> OpenHost(const std::string &state)
{
    const std::string directory = DirectoryOf(state);
    const char *durability = getenv(ENVIRONMENT_DURABILITY);
    const bool disk = !durability || std::string_view(durability) != "process";
    if (access((directory + "/host.db").c_str(), F_OK) != 0 && errno != EACCES)
        throw LauncherError{directory + " is not a host; make one with `vshost run --state " + directory +
                            " -- COMMAND`"};
    std::unique_ptr<Host> host;
    std::string message;
    if (Host::Open({directory, disk ? Durability::DISK : Durability::PROCESS}, host, message))
        throw LauncherError{message};
    return host;
}

void CheckStatus(const Host &host, VsStatus status)
{
    if (!status) return;
    if (status == STATUS_NO_SPACE) throw LauncherError{host.Directory() + ": the disk is full; make room"};
    if (status == STATUS_READ_ONLY) throw LauncherError{host.Directory() + ": this user may not write to it"};
    throw LauncherError{host.Directory() + "/host.db is damaged; put a backup of it in its place"};
}

int ResetHost(const std::string &state)
{
    const std::unique_ptr<Host> host = OpenHost(state);
    CheckStatus(*host,
                host->GetEngine().Write([](Transaction &transaction) { return ResetRuntime(transaction); }));
    return 0;
}

int BindNicOnHost(const std::string &state, const std::string &nic, const std::string &switchName,
                  const std::string &portId)
{
    const std::unique_ptr<Host> host = OpenHost(state);
    std::string wrong;
    const VsStatus status = host->GetEngine().Write([&](Transaction &transaction) -> VsStatus {
        Nic found;
        std::string switchId;
        std::vector<std::string> portIds;
        wrong = "no NIC " + nic + "; add it with `vshost nic " + nic + "`";
        if (nic.size() > MAX_NIC_NAME) return STATUS_NOT_FOUND;
        if (VsStatus missing = GetRecord(transaction, runtime::NicKey(nic), found)) return missing;
        wrong = "no switch " + switchName + "; list them with `vshost show`";
        if (VsStatus missing = FindSwitch(transaction, switchName, switchId)) return missing;
        wrong = portId + " is not an uplink port of switch " + switchName;
        if (VsStatus failed = ListUplinkPorts(transaction, switchId, portIds)) return failed;
        if (std::find(portIds.begin(), portIds.end(), portId) == portIds.end()) return STATUS_NOT_FOUND;
        return ClaimNic(transaction, nic, switchName, portId);
    });
    if (status == STATUS_NOT_FOUND) throw LauncherError{wrong};
    CheckStatus(*host, status);
    return 0;
}

namespace {

void Apply(const NicOptions &options, Nic &nic)
{
    if (options.link) nic.link = options.link == "up";
    if (options.admin) nic.adminUp = options.admin == "up";
    if (options.duplex) nic.fullDuplex = options.duplex == "full";
    if (options.speed) nic.speed = *options.speed;
    if (options.mtu) nic.mtu = *options.mtu;
    if (options.maxMtu) nic.maxMtu = *options.maxMtu;
    if (options.numaNode) nic.numaNode = static_cast<int32_t>(*options.numaNode);
}

}

int ChangeNic(const std::string &state, const NicOptions &options)
{
    if (options.name.empty() || options.name.size() > MAX_NIC_NAME ||
        options.name.find('/') != std::string::npos)
        throw LauncherError{"\"" + options.name +
                            "\" can't be the name of a NIC: use 1 to 30 characters without \"/\""};
    const std::unique_ptr<Host> host = OpenHost(state);
    const VsStatus status = host->GetEngine().Write([&](Transaction &transaction) -> VsStatus {
        Nic nic;
        const VsStatus known = GetRecord(transaction, runtime::NicKey(options.name), nic);
        if (known && known != STATUS_NOT_FOUND) return known;
        Apply(options, nic);
        if (known) nic.driverNumaNode = nic.numaNode;
        return nic.mtu > nic.maxMtu ? STATUS_BAD_PARAM : PutNic(transaction, options.name, nic);
    });
    if (status == STATUS_BAD_PARAM)
        throw LauncherError{"the MTU of " + options.name + " must not be above its --max-mtu"};
    CheckStatus(*host, status);
    return 0;
}

int RemoveNic(const std::string &state, const std::string &name)
{
    const std::unique_ptr<Host> host = OpenHost(state);
    const VsStatus status =
        host->GetEngine().Write([&](Transaction &transaction) { return RemoveNic(transaction, name); });
    if (status == STATUS_NOT_FOUND) throw LauncherError{"no NIC " + name + "; list them with `vshost show`"};
    CheckStatus(*host, status);
    return 0;
}

}
