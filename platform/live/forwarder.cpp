#include "platform/live/forwarder.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "platform/host/files.h"
#include "platform/live/daemon.h"
#include "platform/live/filter.h"

namespace live {
namespace {

using namespace vshost;

constexpr size_t MAX_INTERFACE_NAME = 15;
constexpr unsigned VERIFIED_AT_ONCE = 64; // filters, each second

bool IsSame(const SwitchConfig &a, const SwitchConfig &b)
{
    return a.id == b.id && a.mtu == b.mtu && a.addressLimit == b.addressLimit &&
           a.ageingSeconds == b.ageingSeconds && a.ports == b.ports;
}

// What the interface says, in the NIC's record. What it doesn't say stays.
Nic WithLink(Nic nic, const Link *link)
{
    nic.link = link && link->carrier;
    if (!link) return nic;
    nic.adminUp = link->adminUp;
    nic.mtu = link->mtu;
    nic.maxMtu = std::max(nic.maxMtu, link->mtu);
    nic.fullDuplex = link->fullDuplex;
    if (link->speed) nic.speed = link->speed;
    nic.numaNode = link->numaNode;
    return nic;
}

bool IsSameLink(const Nic &a, const Nic &b)
{
    return a.link == b.link && a.adminUp == b.adminUp && a.mtu == b.mtu && a.fullDuplex == b.fullDuplex &&
           a.speed == b.speed && a.numaNode == b.numaNode;
}

std::string Describe(const Plug &plug)
{
    if (plug.IsNic()) return "is a NIC of this host";
    return "is plugged to port " + std::string(FieldText(plug.portId)) + " of switch " +
           std::string(FieldText(plug.switchId));
}

}

// Says a trouble once, until it is another one.
void Forwarder::Complain(const std::string &subject, const std::string &text)
{
    std::string &last = complaints[subject];
    if (last == text) return;
    last = text;
    Say("%s: %s", subject.c_str(), text.c_str());
}

bool Forwarder::Start(const std::string &bpffs, std::string &message)
{
    if (!links.Open(message)) return false;
    LoadOptions options;
    options.bpffs = bpffs;
    options.identity = HOST_IDENTITY;
    if (path.Open(options)) {
        message = path.Message() + "; a live host needs a kernel from 5.17 on that permits bpf";
        return false;
    }
    if (path.StartedAfresh()) Say("the daemon before had other maps: addresses and counters start afresh");
    for (const auto &[ifindex, link] : links.All()) {
        uint32_t program = 0;
        if (QueryFilter(ifindex, program) == 0 && path.Kernel().IsOurProgram(program))
            attached.insert(ifindex);
    }
    ReadPlugs();
    Apply();
    LogLinks();
    LogFailovers(true);
    for (const uint32_t ifindex : attached)
        path.Attach(ifindex); // replaces the program of the daemon before
    path.ForgetPredecessors();
    return true;
}

// ---- Following ----

void Forwarder::FollowStore()
{
    ReadPlugs();
    Apply();
}

void Forwarder::FollowLinks()
{
    if (!links.Update()) return;
    for (const uint32_t ifindex : links.TakeDeleted())
        VerifyFilter(ifindex);
    Apply();
    LogLinks();
}

// An interface that was deleted and made anew may have the same number.
bool Forwarder::VerifyFilter(uint32_t ifindex)
{
    uint32_t program = 0;
    if (!attached.contains(ifindex) ||
        (QueryFilter(ifindex, program) == 0 && path.Kernel().IsOurProgram(program)))
        return true;
    attached.erase(ifindex);
    for (const auto &[switchId, config] : published)
        for (const PortConfig &port : config.ports)
            if (port.ifindex == ifindex) path.ForgetLearned(port.number);
    return false;
}

// Some of them each time.
bool Forwarder::VerifyFilters()
{
    bool areThere = true;
    auto next = attached.upper_bound(lastVerified);
    for (unsigned i = 0; i < VERIFIED_AT_ONCE && next != attached.end(); i++) {
        lastVerified = *next++;
        if (VerifyFilter(lastVerified)) continue;
        Say("interface %u: another program has removed the filter; it is put back", lastVerified);
        areThere = false;
    }
    if (next == attached.end()) lastVerified = 0;
    return areThere;
}

void Forwarder::LogLinks()
{
    for (const auto &[interface, plug] : plugs) {
        const std::string now = DescribeLink(interface).text;
        std::string &known = linkStates[interface];
        if (!known.empty() && known != now) Say("%s: link %s", interface.c_str(), now.c_str());
        known = now;
    }
    std::erase_if(linkStates, [&](const auto &entry) { return !plugs.contains(entry.first); });
}

// The data path counts them at the uplink that the ports came to, also while no daemon runs.
void Forwarder::LogFailovers(bool isFirst)
{
    for (const auto &[switchId, config] : published)
        for (const PortConfig &port : config.ports) {
            LiveCounters now = {};
            const auto link = links.All().find(port.ifindex);
            if (!port.uplink || link == links.All().end() || path.Tables().ReadCounters(port.number, now))
                continue;
            const LiveCounters known = std::exchange(uplinkCounters[port.number], now);
            // The counters of a port that is made anew start again.
            const auto came = [&](LiveCounter counter) {
                const uint64_t before = known.values[counter], after = now.values[counter];
                return after < before ? after : after - before;
            };
            const char *name = link->second.name.c_str();
            const uint64_t over = came(LIVE_FAILOVERS), back = came(LIVE_FAILBACKS);
            if (over && !isFirst)
                Say("%s: failover, ports that came from a lost uplink: %" PRIu64, name, over);
            if (back && !isFirst) Say("%s: failback, ports that came back: %" PRIu64, name, back);
        }
}

void Forwarder::PollCarriers()
{
    bool hasChanged = false;
    for (const auto &[name, plug] : plugs)
        if (const Link *link = plug.IsNic() ? links.Find(name) : nullptr)
            hasChanged |= links.PollCarrier(link->ifindex);
    if (!hasChanged) return;
    Apply();
    LogLinks();
}

void Forwarder::Sweep()
{
    path.Sweep();
    LogFailovers(false);
    if (!VerifyFilters()) Apply();
}

void Forwarder::ReadPlugs()
{
    Plugs present;
    if (live::ReadPlugs(engine, present))
        return Complain("the host", "the table of plugged interfaces can't be read");
    for (const auto &[interface, plug] : plugs)
        if (!present.contains(interface)) released[interface] = plug;
    plugs = std::move(present);
    std::erase_if(nics, [&](const auto &nic) { return !plugs.contains(nic.first); });
}

void Forwarder::Apply()
{
    for (const auto &[interface, plug] : plugs)
        if (plug.IsNic()) SyncNic(interface);
    PublishAll(ReadWanted(engine, plugs, links));
    ForgetLostLinks();
    for (const auto &[interface, plug] : std::exchange(released, {}))
        if (!plugs.contains(interface)) PutBack(interface, plug);
}

void Forwarder::PutNic(const std::string &name, const Nic &nic)
{
    const VsStatus status =
        engine.Write([&](Transaction &transaction) { return vshost::PutNic(transaction, name, nic); });
    if (status) return Complain(name, "the state of the NIC can't be stored");
    nics[name] = nic;
}

// What changed in the record is a wish; otherwise the interface decides.
void Forwarder::SyncNic(const std::string &name)
{
    Nic nic;
    const Link *link = links.Find(name);
    const VsStatus status = GetRecord(engine, runtime::NicKey(name), nic);
    if (status == STATUS_NOT_FOUND) return PutNic(name, WithLink({}, link));
    if (status) return Complain(name, "the state of the NIC can't be read");
    const auto seen = nics.find(name);
    const Nic last = seen != nics.end() ? seen->second : WithLink(nic, link);
    if (link && nic.adminUp != last.adminUp && links.SetAdminUp(link->ifindex, nic.adminUp) != 0)
        Complain(name, nic.adminUp ? "the interface can't be set up" : "the interface can't be set down");
    if (link && nic.mtu != last.mtu && links.SetMtu(link->ifindex, nic.mtu) != 0)
        Complain(name, "the interface refuses an MTU of " + std::to_string(nic.mtu));
    if (link && (nic.adminUp != last.adminUp || nic.mtu != last.mtu)) {
        links.Update();
        link = links.Find(name);
    }
    const Nic real = WithLink(nic, link);
    if (IsSameLink(real, nic))
        nics[name] = nic;
    else
        PutNic(name, real);
}

// ---- Publishing ----

bool Forwarder::PublishSwitch(const SwitchConfig &config)
{
    const auto known = published.find(config.id);
    if (known != published.end() && IsSame(known->second, config)) return true;
    Change change;
    if (path.PrepareSwitch(config, change)) return false;
    path.Publish(change);
    published[config.id] = config;
    return true;
}

void Forwarder::RemoveSwitch(const std::string &switchId)
{
    Change change;
    published.erase(switchId);
    if (path.PrepareRemoval(switchId, change) == STATUS_OK) path.Publish(change);
}

// An interface may go from one switch to another, so those that give it up come first.
void Forwarder::PublishAll(const Wanted &wanted)
{
    std::vector<SwitchConfig> configs;
    HostConfig host;
    if (ReadHostConfig(engine, host) == STATUS_OK) path.SetHost(host);
    for (const auto &[switchId, ports] : wanted) {
        SwitchConfig config;
        const VsStatus status = ReadSwitchConfig(engine, switchId, ports, config);
        if (status == STATUS_OK)
            configs.push_back(std::move(config));
        else if (status != STATUS_NOT_FOUND)
            return Complain("switch " + switchId, "its policies can't be read; it forwards as before");
    }
    DetachUnwanted(wanted);
    for (const std::string &switchId : path.SwitchIds())
        if (std::none_of(configs.begin(), configs.end(),
                         [&](const auto &config) { return config.id == switchId; }))
            RemoveSwitch(switchId);
    std::vector<const SwitchConfig *> refused;
    for (const SwitchConfig &config : configs)
        if (!PublishSwitch(config)) refused.push_back(&config);
    for (const SwitchConfig *config : refused)
        if (!PublishSwitch(*config))
            Complain("switch " + config->id, path.Message() + "; it forwards as before");
    AttachAll(wanted);
    for (const SwitchConfig &config : configs)
        if (published.contains(config.id)) SetUp(config);
}

void Forwarder::DetachUnwanted(const Wanted &wanted)
{
    std::set<uint32_t> present;
    for (const auto &[switchId, ports] : wanted)
        for (const auto &[portId, ifindex] : ports)
            present.insert(ifindex);
    std::erase_if(attached, [&](uint32_t ifindex) {
        if (!links.All().contains(ifindex)) return true;
        if (present.contains(ifindex)) return false;
        path.Detach(ifindex);
        return true;
    });
}

// An interface whose switch doesn't run has the filter too, which drops its frames: they are not for the
// machine's own stack.
void Forwarder::AttachAll(const Wanted &wanted)
{
    for (const auto &[switchId, ports] : wanted)
        for (const auto &[portId, ifindex] : ports) {
            if (ifindex == 0 || attached.contains(ifindex)) continue;
            if (NoteClsact(links.All().at(ifindex).name) && path.Attach(ifindex) == STATUS_OK)
                attached.insert(ifindex);
            else
                Complain("port " + portId, path.Message());
        }
}

// What is to be put back is stored before it is changed.
bool Forwarder::NoteClsact(const std::string &interface)
{
    Plug &plug = plugs.at(interface);
    if (plug.changes & PLUG_MADE_CLSACT || links.HasClsact(links.Find(interface)->ifindex)) return true;
    plug.changes |= PLUG_MADE_CLSACT;
    return !StorePlug(interface, plug).error;
}

// What plugging changes at an interface: its MTU, and that a NIC takes frames to any address.
void Forwarder::SetUp(const SwitchConfig &config)
{
    for (auto &[interface, plug] : plugs) {
        const Link *link = links.Find(interface);
        const auto isPort = [&](const PortConfig &port) { return link && port.ifindex == link->ifindex; };
        if (std::none_of(config.ports.begin(), config.ports.end(), isPort)) continue;
        const Plug before = plug;
        const bool changesMtu = !plug.IsNic() && link->mtu != config.mtu;
        const bool changesMode = plug.IsNic() && !link->promiscuous;
        if (changesMtu && plug.oldMtu == 0) plug.oldMtu = link->mtu;
        if (changesMode) plug.changes |= PLUG_MADE_PROMISCUOUS;
        // What is to be put back is stored before it is changed.
        if (memcmp(&before, &plug, sizeof(plug)) != 0 && StorePlug(interface, plug).error) continue;
        if (changesMtu && links.SetMtu(link->ifindex, config.mtu) != 0)
            Complain(interface, "the interface refuses an MTU of " + std::to_string(config.mtu));
        if (changesMode && links.SetPromiscuous(link->ifindex, true) != 0)
            Complain(interface, "the interface can't be made to take frames to any address");
    }
}

void Forwarder::PutBack(const std::string &interface, const Plug &plug)
{
    const Link *link = links.Find(interface);
    if (link && plug.oldMtu) links.SetMtu(link->ifindex, plug.oldMtu);
    if (link && plug.changes & PLUG_MADE_PROMISCUOUS) links.SetPromiscuous(link->ifindex, false);
    if (link && plug.changes & PLUG_MADE_CLSACT) RemoveClsact(link->ifindex);
    complaints.erase(interface);
}

void Forwarder::ForgetLostLinks()
{
    std::set<uint32_t> present;
    for (const auto &[switchId, config] : published)
        for (const PortConfig &port : config.ports) {
            const auto link = links.All().find(port.ifindex);
            if (link != links.All().end() && link->second.carrier && link->second.adminUp)
                present.insert(port.number);
            else if (withCarrier.contains(port.number))
                path.ForgetLearned(port.number);
        }
    withCarrier = std::move(present);
}

void Forwarder::RemoveAll()
{
    for (const uint32_t ifindex : std::exchange(attached, {}))
        path.Detach(ifindex);
    for (const auto &[interface, plug] : plugs)
        PutBack(interface, plug);
    std::vector<std::string> transientNics;
    for (const auto &[interface, plug] : plugs)
        if (plug.IsNic() && !plug.IsKept()) transientNics.push_back(interface);
    engine.Write([&](Transaction &transaction) -> VsStatus {
        for (const std::string &nic : transientNics)
            if (VsStatus status = RemoveNic(transaction, nic); status && status != STATUS_NOT_FOUND)
                return status;
        return RemoveTransientPlugs(transaction);
    });
    path.RemovePins();
}

// ---- Requests ----

LiveAnswer Forwarder::Write(const std::string &interface, const Work &work)
{
    const VsStatus status = engine.Write(work);
    if (!status) return {};
    const std::string why =
        status == STATUS_NO_SPACE ? "the disk is full" : "the host's database can't be written";
    Complain(interface, why);
    return {ErrnoOf(status), interface + ": " + why};
}

LiveAnswer Forwarder::StorePlug(const std::string &interface, const Plug &plug)
{
    return Write(interface, [&](Transaction &transaction) { return PutPlug(transaction, interface, plug); });
}

LiveAnswer Forwarder::CheckInterface(const std::string &interface, bool keeps, Plug &plug)
{
    links.Update();
    ReadPlugs();
    const auto present = plugs.find(interface);
    if (present != plugs.end())
        return {EEXIST, "interface " + interface + " " + Describe(present->second) + " already"};
    const Link *link = links.Find(interface);
    if (!link || interface.size() > MAX_INTERFACE_NAME)
        return {ENODEV,
                "no interface " + interface + " in vshostd's network namespace; list them with `ip link`"};
    uint32_t program = 0;
    const bool isTaken = QueryFilter(link->ifindex, program) == 0 && !path.Kernel().IsOurProgram(program);
    if (isTaken && IsDataPath(program))
        return {EBUSY, "interface " + interface +
                           " is plugged on another host of this machine; unplug it there first"};
    if (isTaken)
        return {EBUSY, "interface " + interface +
                           " has a filter of another program at handle 1, priority 1; remove it with "
                           "`tc filter del dev " +
                           interface + " ingress`"};
    if (!links.HasClsact(link->ifindex)) plug.changes |= PLUG_MADE_CLSACT;
    if (!keeps) SetField(plug.boot, BootId());
    return {};
}

LiveAnswer Forwarder::PlugPort(const std::string &switchName, const std::string &portId,
                               const std::string &interface, bool keeps)
{
    Plug plug;
    std::string switchId;
    uint32_t number = 0;
    std::vector<std::string> uplinks;
    if (LiveAnswer refusal = CheckInterface(interface, keeps, plug); refusal.error) return refusal;
    if (FindSwitch(engine, switchName, switchId))
        return {ENOENT, "no switch " + switchName + "; list them with `vshost show`"};
    if (GetPortNumber(engine, switchId, portId, number))
        return {ENOENT, "switch " + switchName + " has no port " + portId + "; list them with `vshost show`"};
    ListUplinkPorts(engine, switchId, uplinks);
    if (std::find(uplinks.begin(), uplinks.end(), portId) != uplinks.end())
        return {EINVAL,
                portId + " is an uplink port; use `vshost nic add " + interface + "` and `vshost bind`"};
    for (const auto &[other, present] : plugs)
        if (FieldText(present.switchId) == switchId && FieldText(present.portId) == portId)
            return {EEXIST,
                    "interface " + other + " is plugged to port " + portId + " already; unplug it first"};
    SetField(plug.switchId, switchId);
    SetField(plug.portId, portId);
    const LiveAnswer refusal = StorePlug(interface, plug);
    if (refusal.error) return refusal;
    FollowStore();
    LogLinks();
    return {};
}

LiveAnswer Forwarder::AddNic(const std::string &interface, bool keeps)
{
    Plug plug;
    Nic nic;
    if (LiveAnswer refusal = CheckInterface(interface, keeps, plug); refusal.error) return refusal;
    if (GetRecord(engine, runtime::NicKey(interface), nic) == STATUS_OK)
        return {EEXIST, "the host has a NIC " + interface + " already; remove it with `vshost remove-nic " +
                            interface + "`"};
    nic = WithLink({}, links.Find(interface));
    const LiveAnswer refusal = Write(interface, [&](Transaction &transaction) {
        const VsStatus status = vshost::PutNic(transaction, interface, nic);
        return status ? status : PutPlug(transaction, interface, plug);
    });
    if (refusal.error) return refusal;
    FollowStore();
    LogLinks();
    return {};
}

LiveAnswer Forwarder::Unplug(const std::string &interface, bool isNic)
{
    ReadPlugs();
    const auto present = plugs.find(interface);
    if (present == plugs.end() || present->second.IsNic() != isNic)
        return {ENOENT, "interface " + interface +
                            (isNic ? " is not a NIC of this host" : " is not plugged to a port") +
                            "; see `vshost show`"};
    const LiveAnswer refusal = Write(interface, [&](Transaction &transaction) {
        const VsStatus status = isNic ? RemoveNic(transaction, interface) : STATUS_OK;
        if (status && status != STATUS_NOT_FOUND) return status;
        return RemovePlug(transaction, interface);
    });
    if (!refusal.error) FollowStore();
    return refusal;
}

LiveAnswer Forwarder::DescribeLink(const std::string &interface)
{
    if (!plugs.contains(interface)) return {ENOENT, "interface " + interface + " is not plugged"};
    const Link *link = links.Find(interface);
    if (!link) return {0, "away"};
    if (!link->adminUp) return {0, "down"};
    return {0, link->carrier ? "up" : "no carrier"};
}

}
