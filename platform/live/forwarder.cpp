#include "platform/live/forwarder.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "platform/host/files.h"
#include "platform/live/daemon.h"
#include "platform/live/filter.h"
#include "platform/live/overlay.h"
#include "platform/live/settings.h"

namespace live {
namespace {

using namespace vshost;

constexpr size_t MAX_INTERFACE_NAME = 15;
constexpr unsigned VERIFIED_AT_ONCE = 64; // filters, each second

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

void ReplacePorts(SwitchConfig &config, const std::vector<PortConfig> &changed)
{
    std::map<uint32_t, const PortConfig *> byNumber;
    for (const PortConfig &port : changed)
        byNumber[port.number] = &port;
    for (PortConfig &port : config.ports)
        if (const auto found = byNumber.find(port.number); found != byNumber.end()) port = *found->second;
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

bool Forwarder::Start(const Place &place, std::string &message)
{
    if (!links.Open(message)) return false;
    LoadOptions options;
    options.bpffs = place.bpffs;
    options.capacity = place.capacity;
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
    lags.Set(LagsOf(links.All()));
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

void Forwarder::CollectWrites()
{
    scribe.Collect();
    if (std::exchange(mustFollow, false)) FollowStore();
}

void Forwarder::FollowLinks()
{
    if (!links.Update()) return;
    for (const uint32_t ifindex : links.TakeDeleted())
        VerifyFilter(ifindex);
    lags.Set(LagsOf(links.All()));
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
    for (const std::string &name : nicNames)
        if (const Link *link = links.Find(name)) hasChanged |= links.PollCarrier(link->ifindex);
    if (!hasChanged) return;
    Apply();
    LogLinks();
}

void Forwarder::Sweep()
{
    path.Sweep();
    LogFailovers(false);
    announcer.Look(published);
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
    nicNames.clear();
    for (const auto &[interface, plug] : plugs)
        if (plug.IsNic()) nicNames.push_back(interface);
    std::erase_if(nics, [&](const auto &nic) { return !plugs.contains(nic.first); });
}

// Everything that the store holds is published after it, and nothing is left to be published of it.
void Forwarder::Apply()
{
    preparation.reset();
    postponed = {};
    for (const auto &[interface, plug] : plugs)
        if (plug.IsNic()) SyncNic(interface);
    wanted = ReadWanted(engine, plugs, links);
    PublishAll();
    ForgetLostLinks();
    for (const auto &[interface, plug] : std::exchange(released, {}))
        if (!plugs.contains(interface)) PutBack(interface, plug);
    announcer.Look(published);
}

// Stores the NIC if its record still is as it was read; otherwise that is to be followed first.
void Forwarder::PutNic(const std::string &name, const std::string &read, const Nic &nic)
{
    if (!pending.insert(name).second) return;
    const auto put = [name, read, nic](Transaction &transaction) -> VsStatus {
        std::string present;
        const VsStatus status = transaction.Get(runtime::NicKey(name), present);
        if (status && status != STATUS_NOT_FOUND) return status;
        return present == read ? vshost::PutNic(transaction, name, nic) : STATUS_EXISTS;
    };
    scribe.Post(put, [this, name, nic](VsStatus status) {
        pending.erase(name);
        mustFollow = true;
        if (status == STATUS_OK)
            nics[name] = nic;
        else if (status != STATUS_EXISTS)
            Complain(name, "the state of the NIC can't be stored");
    });
}

// What changed in the record is a wish; otherwise the interface decides.
void Forwarder::SyncNic(const std::string &name)
{
    Nic nic;
    std::string record;
    if (pending.contains(name)) return;
    const Link *link = links.Find(name);
    VsStatus status = engine.Get(runtime::NicKey(name), record);
    if (status == STATUS_NOT_FOUND) return PutNic(name, {}, WithLink({}, link));
    if (!status && !DecodeRecord(record, nic)) status = STATUS_IO_ERROR;
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
        PutNic(name, record, real);
}

// ---- Preparing ----

VsStatus Forwarder::Prepare(RowChanges rows)
{
    preparation = std::make_unique<Preparation>();
    preparation->rows = std::move(rows);
    preparation->touched = FindTouched(engine, preparation->rows);
    Overlay reader(engine, preparation->rows);
    const VsStatus status = PrepareTouched(reader, *preparation);
    refusal.clear();
    if (status == STATUS_OK) return STATUS_OK;
    refusal = path.Message();
    preparation.reset();
    Say("a write is refused: %s", refusal.c_str());
    return status;
}

// STATUS_OK unless the data path has no room. What cannot be prepared for another reason is published by
// following the store as a whole.
VsStatus Forwarder::PrepareTouched(Reader &reader, Preparation &prepared)
{
    if (prepared.touched.all) return PrepareAll(reader, prepared);
    std::set<std::string> switchIds = prepared.touched.switches;
    for (const auto &[switchId, portIds] : prepared.touched.ports)
        switchIds.insert(switchId);
    for (const std::string &switchId : switchIds) {
        if (!wanted.contains(switchId)) continue;
        const bool isWhole = prepared.touched.switches.contains(switchId) || !published.contains(switchId);
        if (VsStatus status =
                isWhole ? PrepareWhole(reader, switchId, prepared) : PreparePorts(reader, switchId, prepared))
            return status;
    }
    return STATUS_OK;
}

VsStatus Forwarder::PrepareAll(Reader &reader, Preparation &prepared)
{
    Plugs present;
    prepared.follows = true;
    if (live::ReadPlugs(reader, present)) return STATUS_OK;
    for (const auto &[switchId, ports] : ReadWanted(reader, present, links)) {
        SwitchConfig config;
        if (ReadSwitchConfig(reader, switchId, ports, config)) continue;
        if (VsStatus status = PrepareConfig(config, prepared)) return status;
    }
    return STATUS_OK;
}

VsStatus Forwarder::PrepareWhole(Reader &reader, const std::string &switchId, Preparation &prepared)
{
    SwitchConfig config;
    if (ReadSwitchConfig(reader, switchId, wanted.at(switchId), config)) {
        prepared.follows = true; // it doesn't run
        return STATUS_OK;
    }
    return PrepareConfig(config, prepared);
}

VsStatus Forwarder::PreparePorts(Reader &reader, const std::string &switchId, Preparation &prepared)
{
    const SwitchConfig &known = published.at(switchId);
    std::vector<PortConfig> changed;
    std::vector<MirrorSession> mirrors; // those of the switch are in its ports' lists, plugged or not
    if (ReadMirrors(reader, switchId, mirrors) || mirrors != known.mirrors)
        return PrepareWhole(reader, switchId, prepared);
    for (const std::string &portId : prepared.touched.ports.at(switchId)) {
        uint32_t number = 0;
        if (!wanted.at(switchId).contains(portId)) continue;
        if (GetPortNumber(reader, switchId, portId, number)) return PrepareWhole(reader, switchId, prepared);
        const auto place = std::find_if(known.ports.begin(), known.ports.end(),
                                        [&](const PortConfig &port) { return port.number == number; });
        // Other ports name an uplink in their policies.
        if (place == known.ports.end() || place->uplink) return PrepareWhole(reader, switchId, prepared);
        PortConfig port = *place;
        VsStatus status = ReadPortPolicies(reader, {switchId, portId}, port);
        if (!status && prepared.ReadsAddresses())
            status = ReadPortAddresses(reader, {switchId, portId}, port);
        if (status) return PrepareWhole(reader, switchId, prepared);
        if (port != *place) changed.push_back(std::move(port));
    }
    if (changed.empty()) return STATUS_OK;
    if (changed.size() > 1) {
        SwitchConfig config = known;
        ReplacePorts(config, changed);
        return PrepareConfig(config, prepared);
    }
    prepared.changes.push_back(std::make_unique<Change>());
    prepared.ports[switchId] = changed[0];
    return Judge(path.PreparePort(changed[0], *prepared.changes.back()), prepared);
}

VsStatus Forwarder::PrepareConfig(const SwitchConfig &config, Preparation &prepared)
{
    const auto known = published.find(config.id);
    if (known != published.end() && known->second == config) return STATUS_OK;
    prepared.changes.push_back(std::make_unique<Change>());
    prepared.configs[config.id] = config;
    return Judge(path.PrepareSwitch(config, *prepared.changes.back()), prepared);
}

VsStatus Forwarder::Judge(VsStatus status, Preparation &prepared)
{
    if (status == STATUS_NO_SPACE || status == STATUS_NO_MEMORY) return STATUS_NO_SPACE;
    if (status) prepared.follows = true; // an interface that goes from one switch to another, for example
    return STATUS_OK;
}

// Only the store says what the data path obeys, whatever a writer has told.
bool Forwarder::IsStored(const RowChanges &rows)
{
    std::string value;
    return std::all_of(rows.begin(), rows.end(), [&](const auto &row) {
        const VsStatus status = engine.Get(row.first, value);
        return row.second ? status == STATUS_OK && value == *row.second : status == STATUS_NOT_FOUND;
    });
}

void Forwarder::Publish()
{
    const std::unique_ptr<Preparation> prepared = std::move(preparation);
    if (prepared && !prepared->follows && IsStored(prepared->rows)) return PublishPrepared(*prepared);
    if (!prepared && !postponed.IsEmpty() && !postponed.all) return PublishPostponed();
    if (prepared) prepared->changes.clear();
    FollowStore();
}

void Forwarder::Postpone()
{
    if (preparation)
        postponed.Add(preparation->touched);
    else
        postponed.all = true;
    preparation.reset();
}

void Forwarder::Abandon()
{
    preparation.reset();
    FollowStore();
}

void Forwarder::PublishPostponed()
{
    Preparation prepared;
    prepared.touched = std::exchange(postponed, {});
    const VsStatus status = PrepareTouched(engine, prepared);
    if (!status && !prepared.follows) return PublishPrepared(prepared);
    prepared.changes.clear();
    FollowStore();
}

void Forwarder::PublishPrepared(Preparation &prepared)
{
    std::vector<Change *> changes;
    for (const auto &change : prepared.changes)
        changes.push_back(change.get());
    if (changes.empty()) return;
    path.Publish(changes);
    for (auto &[switchId, config] : prepared.configs)
        published[switchId] = std::move(config);
    bool isAnnounced = !prepared.configs.empty();
    for (auto &[switchId, port] : prepared.ports) {
        ReplacePorts(published[switchId], {port});
        isAnnounced |= port.team && port.team->notify;
    }
    if (!prepared.configs.empty()) ForgetLostLinks();
    if (isAnnounced) announcer.Look(published);
}

// ---- Publishing ----

bool Forwarder::PublishSwitch(const SwitchConfig &config)
{
    const auto known = published.find(config.id);
    if (known != published.end() && known->second == config) return true;
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
void Forwarder::PublishAll()
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
    DetachUnwanted();
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
    AttachAll();
    for (const SwitchConfig &config : configs)
        if (published.contains(config.id)) SetUp(config);
}

void Forwarder::DetachUnwanted()
{
    std::set<uint32_t> present;
    for (const auto &[switchId, ports] : wanted)
        for (const auto &[portId, plugged] : ports)
            present.insert(plugged.ifindex);
    std::erase_if(attached, [&](uint32_t ifindex) {
        if (!links.All().contains(ifindex)) return true;
        if (present.contains(ifindex)) return false;
        path.Detach(ifindex);
        return true;
    });
}

// An interface whose switch doesn't run has the filter too, which drops its frames: they are not for the
// machine's own stack.
void Forwarder::AttachAll()
{
    for (const auto &[switchId, ports] : wanted)
        for (const auto &[portId, plugged] : ports) {
            const uint32_t ifindex = plugged.ifindex;
            if (ifindex == 0 || attached.contains(ifindex)) continue;
            if (!PrepareInterface(links.All().at(ifindex))) continue;
            if (path.Attach(ifindex) == STATUS_OK)
                attached.insert(ifindex);
            else
                Complain("port " + portId, path.Message());
        }
}

// What is to be put back is stored before it is changed.
bool Forwarder::PrepareInterface(const Link &link)
{
    const Plug &plug = plugs.at(link.name);
    Plug changed = plug;
    changed.changes |= FindSettings(links, link, plug);
    if (changed.changes != plug.changes) {
        ChangePlug(link.name, plug, changed);
        return false;
    }
    const std::string refused = ChangeSettings(links, link, plug);
    if (!refused.empty()) Complain(link.name, "the interface refuses to turn off " + refused);
    return true;
}

// What plugging changes at an interface: its MTU, and that a NIC takes frames to any address.
void Forwarder::SetUp(const SwitchConfig &config)
{
    for (auto &[interface, plug] : plugs) {
        const Link *link = links.Find(interface);
        const auto isPort = [&](const PortConfig &port) { return link && port.ifindex == link->ifindex; };
        if (std::none_of(config.ports.begin(), config.ports.end(), isPort)) continue;
        Plug changed = plug;
        const bool changesMtu = !plug.IsNic() && link->mtu != config.mtu;
        const bool changesMode = plug.IsNic() && !link->promiscuous;
        if (changesMtu && plug.oldMtu == 0) changed.oldMtu = link->mtu;
        if (changesMode) changed.changes |= PLUG_MADE_PROMISCUOUS;
        // What is to be put back is stored before it is changed.
        if (memcmp(&changed, &plug, sizeof(plug)) != 0) {
            ChangePlug(interface, plug, changed);
            continue;
        }
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
    if (link) PutBackSettings(links, *link, plug);
    if (link && plug.changes & PLUG_MADE_CLSACT) RemoveClsact(link->ifindex);
    complaints.erase(interface);
}

void Forwarder::ForgetLostLinks()
{
    std::set<uint32_t> present;
    const std::set<uint32_t> lost = links.TakeLost();
    for (const auto &[switchId, config] : published)
        for (const PortConfig &port : config.ports) {
            const auto link = links.All().find(port.ifindex);
            const bool isUp = link != links.All().end() && link->second.IsUp();
            if (isUp) present.insert(port.number);
            if (withCarrier.contains(port.number) && (!isUp || lost.contains(port.ifindex)))
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

// Stores what plugging is about to change, and follows then.
void Forwarder::ChangePlug(const std::string &interface, const Plug &from, const Plug &to)
{
    if (!pending.insert(interface).second) return;
    const auto put = [interface, from, to](Transaction &transaction) -> VsStatus {
        Plug present;
        const VsStatus status = GetPlug(transaction, interface, present);
        if (status) return status;
        return memcmp(&present, &from, sizeof(from)) == 0 ? PutPlug(transaction, interface, to)
                                                          : STATUS_EXISTS;
    };
    scribe.Post(put, [this, interface](VsStatus status) {
        pending.erase(interface);
        mustFollow = true;
        if (status && status != STATUS_EXISTS && status != STATUS_NOT_FOUND)
            Complain(interface, "what is changed at the interface can't be stored");
    });
}

void Forwarder::Write(const std::string &interface, const Work &work, const Reply &reply)
{
    scribe.Post(work, [this, interface, reply](VsStatus status) {
        if (!status) {
            LogLinks();
            return reply({});
        }
        std::string why = "the host's database can't be written";
        if (status == STATUS_EXISTS)
            why = "it, or the port, was plugged at the same moment; see `vshost show`";
        if (status == STATUS_NO_SPACE) why = refusal.empty() ? "the disk is full" : refusal;
        Complain(interface, why);
        reply({ErrnoOf(status), interface + ": " + why});
    });
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
    if (QueryFilter(link->ifindex, program) == 0 && !path.Kernel().IsOurProgram(program))
        return {EBUSY, "interface " + interface +
                           " has a filter of another program at handle 1, priority 1; if it is plugged on "
                           "another host of this machine, unplug it there, else remove the filter with "
                           "`tc filter del dev " +
                           interface + " ingress`"};
    if (!keeps) SetField(plug.boot, BootId());
    return {};
}

LiveAnswer Forwarder::CheckPort(const std::string &switchName, const std::string &portId,
                                const std::string &interface, Plug &plug)
{
    std::string switchId;
    uint32_t number = 0;
    std::vector<std::string> uplinks;
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
    return {};
}

void Forwarder::PlugPort(const PortPlace &place, const std::string &interface, bool keeps, const Reply &reply)
{
    Plug plug;
    LiveAnswer refused = CheckInterface(interface, keeps, plug);
    if (!refused.error) refused = CheckPort(place.switchName, place.portId, interface, plug);
    if (refused.error) return reply(refused);
    plug.changes = FindSettings(links, *links.Find(interface), plug);
    // Another request may be written first.
    const auto put = [interface, plug](Transaction &transaction) -> VsStatus {
        std::vector<NamedPlug> present;
        if (VsStatus status = ListPlugs(transaction, present)) return status;
        for (const NamedPlug &other : present)
            if (other.interface == interface || (FieldText(other.plug.switchId) == FieldText(plug.switchId) &&
                                                 FieldText(other.plug.portId) == FieldText(plug.portId)))
                return STATUS_EXISTS;
        return PutPlug(transaction, interface, plug);
    };
    Write(interface, put, reply);
}

void Forwarder::AddNic(const std::string &interface, bool keeps, const Reply &reply)
{
    Plug plug;
    Nic present;
    const LiveAnswer refused = CheckInterface(interface, keeps, plug);
    if (refused.error) return reply(refused);
    plug.changes = FindSettings(links, *links.Find(interface), plug);
    if (GetRecord(engine, runtime::NicKey(interface), present) == STATUS_OK)
        return reply({EEXIST, "the host has a NIC " + interface +
                                  " already; remove it with `vshost remove-nic " + interface + "`"});
    const Nic nic = WithLink({}, links.Find(interface));
    const auto put = [interface, plug, nic](Transaction &transaction) -> VsStatus {
        Plug other;
        if (GetPlug(transaction, interface, other) == STATUS_OK) return STATUS_EXISTS;
        const VsStatus status = vshost::PutNic(transaction, interface, nic);
        return status ? status : PutPlug(transaction, interface, plug);
    };
    Write(interface, put, reply);
}

void Forwarder::Unplug(const std::string &interface, bool isNic, const Reply &reply)
{
    ReadPlugs();
    const auto present = plugs.find(interface);
    if (present == plugs.end() || present->second.IsNic() != isNic)
        return reply({ENOENT, "interface " + interface +
                                  (isNic ? " is not a NIC of this host" : " is not plugged to a port") +
                                  "; see `vshost show`"});
    const auto remove = [interface, isNic](Transaction &transaction) -> VsStatus {
        const VsStatus status = isNic ? RemoveNic(transaction, interface) : STATUS_OK;
        if (status && status != STATUS_NOT_FOUND) return status;
        return RemovePlug(transaction, interface);
    };
    Write(interface, remove, reply);
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
