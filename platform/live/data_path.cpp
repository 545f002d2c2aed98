#include "platform/live/data_path.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <set>
#include <unistd.h>

#include "platform/live/filter.h"

namespace live {
namespace {

using namespace vshost;

constexpr uint32_t GROUP_LIMIT_PART = 64; // of the room for groups: what a port may have of it

// Whether what a port has learned is not true any more. Words are those of LivePort.vlan.
bool MustForget(const PortConfig &a, uint32_t wordA, const PortConfig &b, uint32_t wordB)
{
    return a.ifindex != b.ifindex || a.uplink != b.uplink || a.learning != b.learning || a.trunk != b.trunk ||
           (a.trunk ? a.ranges != b.ranges : LivePrimaryVlan(wordA) != LivePrimaryVlan(wordB));
}

// Whether the groups are those of another guest, or of another VLAN.
bool MustForgetGroups(const PortConfig &a, uint32_t wordA, const PortConfig &b, uint32_t wordB)
{
    return a.ifindex != b.ifindex || a.uplink != b.uplink || a.trunk != b.trunk ||
           (!a.trunk && LivePrimaryVlan(wordA) != LivePrimaryVlan(wordB));
}

// The uplinks in the order of their places in the snapshot.
std::vector<uint32_t> UplinksOf(const std::vector<PlacedPort> &ports)
{
    std::vector<uint32_t> numbers;
    for (const PlacedPort &port : ports)
        if (port.config.uplink) numbers.push_back(port.config.number);
    return numbers;
}

std::vector<uint32_t> UplinksOf(const std::map<uint32_t, PlacedPort> &ports)
{
    std::vector<uint32_t> numbers;
    for (const auto &[number, port] : ports)
        if (port.config.uplink) numbers.push_back(number);
    return numbers;
}

// Whether a working uplink carries the port's VLAN; of a trunk's VLANs it may carry some.
bool CarriesFramesOf(const PortConfig &port, const PortConfig &uplink)
{
    if (!uplink.uplinkActive || uplink.blocked || uplink.ifindex == 0) return false;
    if (port.trunk) return true;
    if (!uplink.trunk) return uplink.vlanId == port.vlanId;
    return port.vlanId == 0 ||
           std::any_of(uplink.ranges.begin(), uplink.ranges.end(), [&](const VlanRange &range) {
               return range.first <= port.vlanId && port.vlanId <= range.last;
           });
}

std::string IdOf(const LiveSwitch &vswitch)
{
    return std::string(vswitch.id, strnlen(vswitch.id, sizeof(vswitch.id)));
}

}

Change::~Change()
{
    if (owner) owner->GiveBack(*this);
}

VsStatus DataPath::Fail(VsStatus status, const std::string &text)
{
    message = text;
    return status;
}

VsStatus DataPath::Open(const LoadOptions &options)
{
    if (VsStatus status = kernel.Load(options)) return status;
    TakeOverSwitches();
    return MeasureTick();
}

// The kernel tells nobody how long its tick is. Both clocks move at a tick, so a few ticks are enough.
VsStatus DataPath::MeasureTick()
{
    LiveHost &host = kernel.host[0];
    if (ReadWord(host.nsPerTick) != 0) return STATUS_OK;
    const auto readClocks = [&] { return Command(LIVE_COMMAND_READ_CLOCKS, 0, {}); };
    if (VsStatus status = readClocks()) return status;
    const uint64_t ticks = host.ticks, ns = host.clockNs;
    while (host.ticks < ticks + 4) {
        usleep(1000);
        if (VsStatus status = readClocks()) return status;
    }
    const double perSecond =
        1e9 * static_cast<double>(host.ticks - ticks) / static_cast<double>(host.clockNs - ns);
    WriteWord(host.nsPerTick, static_cast<uint32_t>(1e9 / std::round(perSecond)));
    return STATUS_OK;
}

void DataPath::TakeOverSwitches()
{
    for (uint32_t i = 0; i < kernel.switches.Size(); i++)
        if (kernel.switches[i].inUse) switches[i].config.id = IdOf(kernel.switches[i]);
    for (uint32_t slot = kernel.ports.Size(); slot-- > 0;) {
        const LivePort &port = kernel.ports[slot];
        const auto owner = switches.find(port.switchIndex);
        if (!port.inUse || owner == switches.end()) {
            freeSlots.push_back(slot);
            continue;
        }
        PlacedPort placed = {.config = {}, .slot = slot, .position = port.position};
        placed.config.number = port.number;
        placed.config.ifindex = port.ifindex;
        placed.config.uplink = port.flags & LIVE_PORT_UPLINK;
        owner->second.ports[port.number] = placed;
        portSwitches[port.number] = port.switchIndex;
        if (port.ifindex) interfaces[port.ifindex] = port.number;
    }
    for (auto &[index, vswitch] : switches)
        vswitch.uplinks = UplinksOf(vswitch.ports);
    TakeOverMirrors();
    TakeOverStaticAddresses();
    TakeOverInterfaces();
}

void DataPath::TakeOverMirrors()
{
    for (uint32_t slot = kernel.mirrors.Size(); slot-- > 0;) {
        const LiveMirrorSlot &mirror = kernel.mirrors[slot];
        const auto owner = switches.find(mirror.switchIndex);
        const std::string id(mirror.id, strnlen(mirror.id, sizeof(mirror.id)));
        if (mirror.inUse && owner != switches.end())
            owner->second.mirrors[id] = {.config = {}, .slot = slot, .place = mirror.place};
        else
            freeMirrors.push_back(slot);
    }
}

// The process before may have ended between the two steps of plugging: the port's word and the map's entry.
void DataPath::TakeOverInterfaces()
{
    const int map = kernel.MapDescriptor("interfaces");
    std::vector<uint32_t> strange;
    uint32_t key = 0, next = 0;
    for (bool isFirst = true; bpf_map_get_next_key(map, isFirst ? nullptr : &key, &next) == 0;
         isFirst = false) {
        key = next;
        if (!interfaces.contains(key)) strange.push_back(key);
    }
    for (const uint32_t ifindex : strange)
        bpf_map_delete_elem(map, &ifindex);
    for (const auto &[ifindex, number] : interfaces) {
        uint32_t slot = 0;
        if (SlotOfPort(number, slot) == STATUS_OK) bpf_map_update_elem(map, &ifindex, &slot, BPF_ANY);
    }
}

void DataPath::TakeOverStaticAddresses()
{
    tables.WalkAddresses([&](const LiveAddressKey &key, const LiveAddress &address) {
        const Owner holder(address);
        const auto owner = switches.find(key.switchIndex);
        if (!holder.isStatic || holder.isKept || owner == switches.end()) return;
        for (auto &[number, port] : owner->second.ports) {
            if (port.slot != holder.slot) continue;
            StaticAddress &found = port.config.addresses.emplace_back();
            found.vlan = key.vlan;
            std::memcpy(found.mac, key.mac, sizeof(found.mac));
            std::sort(port.config.addresses.begin(), port.config.addresses.end());
        }
    });
}

std::vector<std::string> DataPath::SwitchIds() const
{
    std::vector<std::string> ids;
    for (const auto &[index, vswitch] : switches)
        ids.push_back(vswitch.config.id);
    return ids;
}

void DataPath::SetHost(const HostConfig &config)
{
    LiveHost &host = kernel.host[0];
    WriteWord(host.addressLimit, std::min(config.addressLimit, kernel.AddressCapacity() / 2));
    WriteWord(host.floodLimit, config.floodLimit);
    SetGroupLimits();
    WriteWord(host.learningEnabled, config.learningEnabled);
}

// Half of the room is shared out evenly, so that a port has some whatever the others do.
void DataPath::SetGroupLimits()
{
    LiveHost &host = kernel.host[0];
    const uint32_t capacity = kernel.GroupCapacity(), ports = kernel.ports.Size();
    const uint32_t share = capacity / 2 / ports;
    WriteWord(host.groupShare, share);
    WriteWord(host.groupLimit, std::max(share, capacity / GROUP_LIMIT_PART));
    WriteWord(host.sharedGroupLimit, capacity - share * ports);
}

// ---- Preparing ----

// The switch's index, or a free one that the change takes for it.
VsStatus DataPath::TakeSwitchIndex(const std::string &id, Change &change)
{
    for (const auto &[index, vswitch] : switches)
        if (vswitch.config.id == id) {
            change.switchIndex = index;
            return STATUS_OK;
        }
    for (uint32_t index = 0; index < kernel.switches.Size(); index++) {
        if (switches.contains(index) || !takenIndexes.insert(index).second) continue;
        change.switchIndex = index;
        change.takesIndex = true;
        return STATUS_OK;
    }
    return Fail(STATUS_NO_SPACE, "the data path has no room for another switch");
}

VsStatus DataPath::CheckPorts(const SwitchConfig &config, uint32_t switchIndex)
{
    std::set<uint32_t> numbers, ifindexes;
    uint32_t uplinks = 0;
    for (const PortConfig &port : config.ports) {
        const auto place = portSwitches.find(port.number);
        if (!numbers.insert(port.number).second ||
            (place != portSwitches.end() && place->second != switchIndex))
            return Fail(STATUS_EXISTS, "port number " + std::to_string(port.number) + " is taken");
        uplinks += port.uplink;
        if (port.ifindex == 0) continue;
        const auto user = interfaces.find(port.ifindex);
        const bool isElsewhere = user != interfaces.end() && portSwitches[user->second] != switchIndex;
        if (!ifindexes.insert(port.ifindex).second || isElsewhere)
            return Fail(STATUS_EXISTS, "interface " + std::to_string(port.ifindex) + " is plugged already");
    }
    if (uplinks > LIVE_UPLINKS) return Fail(STATUS_NO_SPACE, "a switch has at most 32 uplinks");
    return STATUS_OK;
}

// Learned addresses have the other half of the table, so that these never fail for want of room.
VsStatus DataPath::CheckStaticAddresses(const Change &change)
{
    std::map<uint32_t, size_t> counts; // by port
    for (const auto &[index, vswitch] : switches)
        if (index != change.switchIndex || !change.isWhole)
            for (const auto &[number, port] : vswitch.ports)
                counts[number] = port.config.addresses.size();
    for (const PlacedPort &port : change.ports)
        counts[port.config.number] = port.config.addresses.size();
    size_t total = 0;
    for (const auto &[number, count] : counts)
        total += count;
    return total <= kernel.AddressCapacity() / 2
               ? STATUS_OK
               : Fail(STATUS_NO_SPACE, "the data path has no room for another static address");
}

VsStatus DataPath::TakeSlot(Change &change, uint32_t &slot)
{
    if (freeSlots.empty()) return Fail(STATUS_NO_SPACE, "the data path has no room for another port");
    slot = freeSlots.back();
    freeSlots.pop_back();
    change.takenSlots.push_back(slot);
    return STATUS_OK;
}

void DataPath::GiveBack(Change &change)
{
    freeSlots.insert(freeSlots.end(), change.takenSlots.begin(), change.takenSlots.end());
    freeMirrors.insert(freeMirrors.end(), change.takenMirrors.begin(), change.takenMirrors.end());
    if (change.takesIndex) takenIndexes.erase(change.switchIndex);
}

// Ports that stay keep their places.
VsStatus DataPath::PlacePorts(const SwitchConfig &config, Change &change)
{
    const auto current = switches.find(change.switchIndex);
    std::set<uint32_t> usedPositions, numbers;
    for (const PortConfig &port : config.ports) {
        numbers.insert(port.number);
        change.ports.push_back({.config = port, .slot = UINT32_MAX, .position = 0});
    }
    std::sort(change.ports.begin(), change.ports.end(),
              [](const PlacedPort &a, const PlacedPort &b) { return a.config.number < b.config.number; });
    if (current != switches.end()) {
        for (const auto &[number, port] : current->second.ports)
            if (numbers.contains(number))
                usedPositions.insert(port.position);
            else
                change.releasedSlots.push_back(port.slot);
    }

    uint32_t position = 0;
    for (PlacedPort &port : change.ports) {
        if (current != switches.end()) {
            const auto placed = current->second.ports.find(port.config.number);
            if (placed != current->second.ports.end()) {
                port.slot = placed->second.slot;
                port.position = placed->second.position;
                continue;
            }
        }
        if (VsStatus status = TakeSlot(change, port.slot)) return status;
        port.isNew = true;
        while (usedPositions.contains(position))
            position++;
        port.position = position++;
    }
    return STATUS_OK;
}

// Sessions that stay keep their places, and new ones take others than those that go.
VsStatus DataPath::PlaceMirrors(const SwitchConfig &config, Change &change)
{
    const auto current = switches.find(change.switchIndex);
    std::map<std::string, PlacedMirror> known;
    std::set<uint32_t> usedPlaces;
    if (current != switches.end()) known = current->second.mirrors;
    for (const auto &[id, mirror] : known)
        usedPlaces.insert(mirror.place);
    if (config.mirrors.size() > LIVE_MIRRORS)
        return Fail(STATUS_NO_SPACE, "a switch has at most 32 mirror sessions");
    uint32_t place = 0;
    for (const MirrorSession &session : config.mirrors) {
        PlacedMirror &mirror = change.mirrors.emplace_back();
        mirror.config = session;
        if (session.destinations.size() > LIVE_MIRROR_DESTINATIONS)
            return Fail(STATUS_NO_SPACE, "a mirror session has at most 32 destinations");
        if (const auto present = known.extract(session.id)) {
            mirror.slot = present.mapped().slot;
            mirror.place = present.mapped().place;
            continue;
        }
        if (freeMirrors.empty())
            return Fail(STATUS_NO_SPACE, "the data path has no room for another mirror session");
        mirror.isNew = true;
        mirror.slot = freeMirrors.back();
        change.takenMirrors.push_back(mirror.slot);
        freeMirrors.pop_back();
        while (usedPlaces.contains(place))
            place++;
        mirror.place = place++;
    }
    for (const auto &[id, mirror] : known)
        change.releasedMirrors.push_back(mirror.slot);
    return STATUS_OK;
}

bool DataPath::NeedsSnapshot(const Change &change)
{
    const auto current = switches.find(change.switchIndex);
    if (current == switches.end() || !current->second.isKnown) return true;
    if (!change.takenSlots.empty() || !change.releasedSlots.empty()) return true;
    if (DifferInSnapshot(current->second.config, change.config)) return true;
    return std::any_of(change.ports.begin(), change.ports.end(), [&](const PlacedPort &port) {
        return DifferInSnapshot(current->second.ports.at(port.config.number).config, port.config);
    });
}

VsStatus DataPath::AddSnapshot(Change &change)
{
    change.snapshot = MakeSnapshot({change.config, change.ports, change.mirrors});
    if (change.snapshot) return STATUS_OK;
    return Fail(STATUS_NO_SPACE,
                std::string("the kernel has no room for the configuration: ") + strerror(errno));
}

VsStatus DataPath::PrepareSwitch(const SwitchConfig &config, Change &change)
{
    if (config.id.empty() || config.id.size() > sizeof(LiveSwitch::id))
        return Fail(STATUS_BAD_PARAM, "the switch's id is empty or too long");
    change.owner = this;
    if (VsStatus status = TakeSwitchIndex(config.id, change)) return status;
    if (VsStatus status = CheckPorts(config, change.switchIndex)) return status;
    change.isWhole = true;
    change.config = config;
    change.config.ports.clear();
    if (VsStatus status = PlacePorts(config, change)) return status;
    if (VsStatus status = PlaceMirrors(config, change)) return status;
    if (VsStatus status = CheckStaticAddresses(change)) return status;
    return NeedsSnapshot(change) ? AddSnapshot(change) : STATUS_OK;
}

VsStatus DataPath::PreparePort(const PortConfig &port, Change &change)
{
    const auto place = portSwitches.find(port.number);
    if (place == portSwitches.end() || !switches[place->second].isKnown)
        return Fail(STATUS_NOT_FOUND, "port " + std::to_string(port.number) + " is not configured");
    Switch &vswitch = switches[place->second];
    PlacedPort &placed = vswitch.ports[port.number];
    if (DifferInSnapshot(placed.config, port) || placed.config.ifindex != port.ifindex) {
        SwitchConfig config = vswitch.config;
        for (const auto &[number, other] : vswitch.ports)
            config.ports.push_back(number == port.number ? port : other.config);
        return PrepareSwitch(config, change);
    }
    change.owner = this;
    change.switchIndex = place->second;
    change.config = vswitch.config;
    change.ports = {{.config = port, .slot = placed.slot, .position = placed.position}};
    return placed.config.addresses == port.addresses ? STATUS_OK : CheckStaticAddresses(change);
}

VsStatus DataPath::PrepareRemoval(const std::string &switchId, Change &change)
{
    for (const auto &[index, vswitch] : switches) {
        if (vswitch.config.id != switchId) continue;
        change.owner = this;
        change.switchIndex = index;
        change.isWhole = true;
        change.removesSwitch = true;
        for (const auto &[number, port] : vswitch.ports)
            change.releasedSlots.push_back(port.slot);
        for (const auto &[id, mirror] : vswitch.mirrors)
            change.releasedMirrors.push_back(mirror.slot);
        return STATUS_OK;
    }
    return Fail(STATUS_NOT_FOUND, "the data path has no switch " + switchId);
}

// ---- Publishing ----

void DataPath::Publish(Change &change) { Publish(std::vector<Change *>{&change}); }

// Ports that go are silent before the snapshots without them are there, and ports that come speak only after
// it. So the packets under way during the exchange meet no port that is half there.
void DataPath::Publish(const std::vector<Change *> &changes)
{
    for (Change *change : changes)
        SilencePorts(*change);
    for (Change *change : changes)
        for (const PlacedPort &port : change->ports) {
            if (!port.isNew) continue;
            StartSlot(port.slot);
            WritePort(port, *change);
        }
    for (const Change *change : changes)
        for (const PlacedMirror &mirror : change->mirrors)
            if (mirror.isNew) StartMirror(mirror, change->switchIndex);
    ExchangeSnapshots(changes);
    for (Change *change : changes)
        Settle(*change);
    SweepForgotten();
    FreeSlots(changes);
}

void DataPath::SilencePorts(const Change &change)
{
    for (uint32_t slot : change.releasedSlots) {
        LivePort &port = kernel.ports[slot];
        WriteWord(port.flags, LIVE_PORT_BLOCKED);
        MapInterface(port.ifindex, UINT32_MAX);
        portSwitches.erase(port.number);
        std::erase_if(delayed, [&](const auto &entry) { return entry.first == port.number; });
    }
}

void DataPath::StartSlot(uint32_t slot)
{
    LivePort &port = kernel.ports[slot];
    port.address = port.lockedAddress = 0;
    port.uplinkSlot = port.leftUplinks = port.toldUplinks = port.floodSecond = port.floodCount = 0;
    const std::vector<LiveCounters> zeros(static_cast<size_t>(libbpf_num_possible_cpus()));
    bpf_map_update_elem(kernel.MapDescriptor("counters"), &slot, zeros.data(), BPF_ANY);
}

void DataPath::StartMirror(const PlacedMirror &mirror, uint32_t switchIndex)
{
    LiveMirrorSlot &slot = kernel.mirrors[mirror.slot];
    const std::vector<LiveMirrorCounters> zeros(static_cast<size_t>(libbpf_num_possible_cpus()));
    bpf_map_update_elem(kernel.MapDescriptor("mirror_counters"), &mirror.slot, zeros.data(), BPF_ANY);
    slot = {};
    slot.switchIndex = switchIndex;
    slot.place = mirror.place;
    slot.isEnabled = mirror.config.isEnabled;
    mirror.config.id.copy(slot.id, sizeof(slot.id));
    WriteWord(slot.inUse, 1);
}

// A slot is free when no snapshot names it any more.
void DataPath::SettleMirrors(const Change &change)
{
    for (const PlacedMirror &mirror : change.mirrors)
        WriteWord(kernel.mirrors[mirror.slot].isEnabled, mirror.config.isEnabled);
    for (uint32_t slot : change.releasedMirrors)
        WriteWord(kernel.mirrors[slot].inUse, 0);
    freeMirrors.insert(freeMirrors.end(), change.releasedMirrors.begin(), change.releasedMirrors.end());
    if (change.removesSwitch || !change.isWhole) return;
    auto &known = switches[change.switchIndex].mirrors;
    known.clear();
    for (const PlacedMirror &mirror : change.mirrors)
        known[mirror.config.id] = {.config = {}, .slot = mirror.slot, .place = mirror.place};
}

void DataPath::WritePort(const PlacedPort &placed, const Change &change)
{
    const LivePort words = WordsOf(change.config, placed, change.switchIndex);
    LivePort &port = kernel.ports[placed.slot];
    WriteWord(port.number, words.number);
    WriteWord(port.switchIndex, words.switchIndex);
    WriteWord(port.position, words.position);
    WriteWord(port.addressLimit, words.addressLimit);
    WriteWord(port.vlan, words.vlan);
    WriteWord(port.flags, words.flags);
    WriteWord(port.ifindex, words.ifindex);
    WriteWord(port.inUse, words.inUse);
}

// `slot` UINT32_MAX: the interface belongs to no port.
void DataPath::MapInterface(uint32_t ifindex, uint32_t slot)
{
    if (ifindex == 0) return;
    const int map = kernel.MapDescriptor("interfaces");
    if (slot == UINT32_MAX) {
        bpf_map_delete_elem(map, &ifindex);
        interfaces.erase(ifindex);
        return;
    }
    bpf_map_update_elem(map, &ifindex, &slot, BPF_ANY);
    interfaces[ifindex] = kernel.ports[slot].number;
}

// The kernel waits for the packets under way at each exchange of one slot, but at one of many only once.
void DataPath::ExchangeSnapshots(const std::vector<Change *> &changes)
{
    const int map = kernel.MapDescriptor("snapshots");
    std::vector<uint32_t> indexes;
    std::vector<int> snapshots;
    for (const Change *change : changes) {
        if (change->removesSwitch) bpf_map_delete_elem(map, &change->switchIndex);
        if (!change->snapshot) continue;
        indexes.push_back(change->switchIndex);
        snapshots.push_back(change->snapshot.Get());
    }
    if (indexes.empty()) return;
    // Not every kernel waits after a batch, so the last one is exchanged alone.
    uint32_t count = static_cast<uint32_t>(indexes.size()) - 1;
    const bool asBatch =
        count > 1 && bpf_map_update_batch(map, indexes.data(), snapshots.data(), &count, nullptr) == 0;
    for (size_t i = asBatch ? indexes.size() - 1 : 0; i < indexes.size(); i++)
        bpf_map_update_elem(map, &indexes[i], &snapshots[i], BPF_ANY);
}

void DataPath::Settle(Change &change)
{
    change.owner = nullptr;
    if (change.takesIndex) takenIndexes.erase(change.switchIndex);
    if (change.isWhole && !change.removesSwitch) {
        const Switch &known = switches[change.switchIndex];
        if (!known.isKnown && !change.takesIndex) CompletePorts(change);
        change.movesPrivateVlans = known.isKnown && known.config.privateVlans != change.config.privateVlans;
        change.movesUplinks = known.uplinks != UplinksOf(change.ports);
        WriteSwitch(change);
    }
    SettleMirrors(change);
    for (const PlacedPort &port : change.ports)
        SettlePort(port, change);
    for (uint32_t slot : change.releasedSlots) {
        WriteWord(kernel.ports[slot].inUse, 0);
        PassEpoch(slot);
        PassGroupEpoch(slot);
    }
    if (change.removesSwitch) {
        WriteWord(kernel.switches[change.switchIndex].inUse, 0);
        switches.erase(change.switchIndex);
    } else if (change.isWhole || change.ports[0].config.uplink) {
        WriteUplinks(change.switchIndex);
    } else {
        WriteNetworkUplink(switches[change.switchIndex], change.ports[0]);
    }
}

// A slot is free when no address names it any more.
void DataPath::FreeSlots(const std::vector<Change *> &changes)
{
    for (const Change *change : changes)
        for (uint32_t slot : change->releasedSlots) {
            WriteWord(kernel.ports[slot].ifindex, 0);
            freeSlots.push_back(slot);
        }
}

void DataPath::WriteSwitch(const Change &change)
{
    Switch &known = switches[change.switchIndex];
    const LiveSwitch words = WordsOf(change.config, change.ports);
    LiveSwitch &vswitch = kernel.switches[change.switchIndex];
    known.config = change.config;
    known.isKnown = true;
    known.uplinks = UplinksOf(change.ports);
    if (change.takesIndex) vswitch.announced = vswitch.notAnnounced = 0;
    const std::set<uint32_t> released(change.releasedSlots.begin(), change.releasedSlots.end());
    std::erase_if(known.ports, [&](const auto &port) { return released.contains(port.second.slot); });
    std::memset(vswitch.id, 0, sizeof(vswitch.id));
    std::memcpy(vswitch.id, change.config.id.data(), change.config.id.size());
    WriteWord(vswitch.mtu, words.mtu);
    WriteWord(vswitch.addressLimit, words.addressLimit);
    WriteWord(vswitch.ageingSeconds, words.ageingSeconds);
    WriteWord(vswitch.hasPrivateVlans, words.hasPrivateVlans);
    WriteWord(vswitch.learnsStatic, words.learnsStatic);
    WriteWord(vswitch.hasAllFramesPorts, words.hasAllFramesPorts);
    // What was heard in an earlier time of snooping is not true any more: leaves have not been heard since.
    if (words.snooping && !ReadWord(vswitch.snooping))
        for (const auto &[number, port] : known.ports)
            PassGroupEpoch(port.slot);
    WriteWord(vswitch.snooping, words.snooping);
    WriteWord(vswitch.inUse, words.inUse);
}

// The words of a port that was taken over don't say all of its policies. The rest is taken to be what the
// store says now, as nobody writes to it while there is no daemon.
void DataPath::CompletePorts(const Change &change)
{
    for (const PlacedPort &placed : change.ports) {
        const auto port = switches[change.switchIndex].ports.find(placed.config.number);
        if (port == switches[change.switchIndex].ports.end()) continue;
        const LivePort &words = kernel.ports[placed.slot];
        PortConfig &known = port->second.config;
        known.learning = words.flags & LIVE_PORT_LEARNING;
        known.trunk = words.vlan & LIVE_PORT_TRUNK;
        known.ranges = placed.config.ranges;
        known.team = placed.config.team;
    }
}

void DataPath::SettlePort(const PlacedPort &placed, const Change &change)
{
    Switch &vswitch = switches[change.switchIndex];
    const uint32_t oldVlan = ReadWord(kernel.ports[placed.slot].vlan);
    const auto current = vswitch.ports.find(placed.config.number);
    const bool isNew = current == vswitch.ports.end();
    const uint32_t oldInterface = isNew ? 0 : current->second.config.ifindex;
    WritePort(placed, change);
    if (change.movesUplinks || isNew || current->second.config.team != placed.config.team)
        WriteWord(kernel.ports[placed.slot].leftUplinks, 0);
    // The lock is of the machine at the interface.
    if (!placed.config.addressLock || oldInterface != placed.config.ifindex)
        std::atomic_ref<uint64_t>(kernel.ports[placed.slot].lockedAddress).store(0);
    const uint32_t newVlan = ReadWord(kernel.ports[placed.slot].vlan);
    const PortConfig before = isNew ? PortConfig() : current->second.config;
    const bool forgets = !isNew && ((change.movesPrivateVlans && placed.config.trunk) ||
                                    MustForget(before, oldVlan, placed.config, newVlan));
    if (oldInterface != placed.config.ifindex) {
        // Another port of the same change may have it by now.
        const auto user = interfaces.find(oldInterface);
        if (user != interfaces.end() && user->second == placed.config.number)
            MapInterface(oldInterface, UINT32_MAX);
        MapInterface(placed.config.ifindex, placed.slot);
    }
    if (forgets) PassEpoch(placed.slot);
    if (!isNew && MustForgetGroups(before, oldVlan, placed.config, newVlan)) PassGroupEpoch(placed.slot);
    vswitch.ports[placed.config.number] = placed;
    portSwitches[placed.config.number] = change.switchIndex;
    if (before.addresses != placed.config.addresses)
        SettleAddresses(change.switchIndex, before, placed.config);
}

// An address that two ports have belongs to the port that got it last, and then to the other one again.
void DataPath::SettleAddresses(uint32_t switchIndex, const PortConfig &before, const PortConfig &after)
{
    std::vector<StaticAddress> gone, come;
    std::set_difference(before.addresses.begin(), before.addresses.end(), after.addresses.begin(),
                        after.addresses.end(), std::back_inserter(gone));
    std::set_difference(after.addresses.begin(), after.addresses.end(), before.addresses.begin(),
                        before.addresses.end(), std::back_inserter(come));
    for (const StaticAddress &address : gone) {
        std::erase(delayed, std::pair(after.number, address));
        if (RemoveAddress(after.number, address.vlan, address.mac)) continue;
        for (const auto &[number, port] : switches[switchIndex].ports)
            if (std::binary_search(port.config.addresses.begin(), port.config.addresses.end(), address))
                AddConfigured(number, address);
    }
    for (const StaticAddress &address : come)
        AddConfigured(after.number, address);
}

void DataPath::AddConfigured(uint32_t portNumber, const StaticAddress &address)
{
    if (AddStaticAddress(portNumber, address.vlan, address.mac)) delayed.emplace_back(portNumber, address);
}

// The port has forgotten its addresses when the epoch has passed. They count until they are swept.
void DataPath::PassEpoch(uint32_t slot)
{
    std::atomic_ref<uint32_t>(kernel.ports[slot].epoch).fetch_add(1);
    forgetful.push_back(slot);
}

void DataPath::PassGroupEpoch(uint32_t slot)
{
    LivePort &port = kernel.ports[slot];
    std::atomic_ref<uint32_t>(port.groupEpoch).fetch_add(1);
    WriteWord(port.allGroupsUntil, 0);
    hasForgottenGroups |= ReadWord(port.groups) != 0 || ReadWord(port.groupSources) != 0;
}

// A port that doesn't learn has one address most of the time, and that one is found without a walk over the
// table.
VsStatus DataPath::SweepForgotten()
{
    const std::vector<uint32_t> slots = std::exchange(forgetful, {});
    std::vector<LiveAddressKey> keys;
    if (VsStatus status = hasForgottenGroups ? SweepGroups() : STATUS_OK) return status;
    for (uint32_t slot : slots) {
        LivePort &port = kernel.ports[slot];
        if (ReadWord(port.learned) != 1) continue;
        keys.push_back({.switchIndex = port.switchIndex, .vlan = 0, .mac = {}});
        LiveReadAddressWord(std::atomic_ref<uint64_t>(port.address).load(), &keys.back());
    }
    if (VsStatus status = SweepKeys(LIVE_COMMAND_SWEEP, keys, LIVE_COMMAND_KEYS)) return status;
    const bool isClean = std::all_of(slots.begin(), slots.end(), [&](uint32_t slot) {
        return ReadWord(kernel.ports[slot].inUse) && ReadWord(kernel.ports[slot].learned) == 0;
    });
    return isClean ? STATUS_OK : Sweep();
}

void DataPath::WriteUplinks(uint32_t switchIndex)
{
    const Switch &vswitch = switches[switchIndex];
    uint32_t active = 0, place = 0;
    for (const uint32_t uplink : vswitch.uplinks)
        active |= (vswitch.ports.at(uplink).config.uplinkActive ? 1u : 0u) << place++;
    WriteWord(kernel.switches[switchIndex].activeUplinks, active);
    for (const auto &[number, port] : vswitch.ports)
        WriteNetworkUplink(vswitch, port);
}

// The port gets the network's floods by the uplink that it sends by, or broadcasts by the first one if it
// sends by several: the network may know an address or a group member of such a port at any of them. Behind
// teams that spread flows by their IP addresses the network has one link, and sends by one of its members.
void DataPath::WriteNetworkUplink(const Switch &vswitch, const PlacedPort &port)
{
    const VSwitchTeamingAlgorithm algorithm =
        port.config.team ? port.config.team->algorithm : VSWITCH_TEAMING_PORT;
    const bool isAggregate = algorithm == VSWITCH_TEAMING_IP || algorithm == VSWITCH_TEAMING_L4;
    const uint32_t uplink = isAggregate || port.config.uplink ? UINT32_MAX : UplinkOf(vswitch, port);
    const bool sendsByMany = algorithm == VSWITCH_TEAMING_SOURCE_MAC;
    uint32_t word = 0;
    if (uplink != UINT32_MAX) {
        word = vswitch.ports.at(uplink).slot + 1;
        if (sendsByMany) word |= LIVE_NETWORK_ALL_MULTICAST;
        if (sendsByMany || port.config.getsAllFrames) word |= LIVE_NETWORK_ALL_UNICAST;
    }
    WriteWord(kernel.ports[port.slot].networkUplink, word);
}

// As the data path chooses it for a frame of the port; UINT32_MAX: none works.
uint32_t DataPath::UplinkOf(const Switch &vswitch, const PlacedPort &port)
{
    std::optional<Team> team = port.config.team;
    const bool byNumber = !team || team->algorithm == VSWITCH_TEAMING_PORT;
    const uint32_t left = team && !team->failBack ? ReadWord(kernel.ports[port.slot].leftUplinks) : 0;
    const auto works = [&](uint32_t uplink) {
        return CarriesFramesOf(port.config, vswitch.ports.at(uplink).config);
    };
    const auto isLeft = [&](uint32_t uplink) {
        const auto place = std::find(vswitch.uplinks.begin(), vswitch.uplinks.end(), uplink);
        return left >> (place - vswitch.uplinks.begin()) & 1;
    };
    for (const bool avoidsLeft : {true, false}) {
        if (team) team->anyUplink = !avoidsLeft && port.config.team->anyUplink;
        for (uint32_t uplink : UplinksInOrder(team, vswitch.uplinks, byNumber ? port.config.number : 0))
            if (works(uplink) && !(avoidsLeft && isLeft(uplink))) return uplink;
    }
    return UINT32_MAX;
}

// ---- Filters ----

VsStatus DataPath::Attach(uint32_t ifindex)
{
    const std::string name = "interface " + std::to_string(ifindex);
    uint32_t programId = 0;
    const int found = QueryFilter(ifindex, programId);
    if (found == 0 && !kernel.IsOurProgram(programId))
        return Fail(STATUS_EXISTS, name + " has a filter of another program at handle 1, priority 1");
    const int result =
        found == 0 ? ReplaceFilter(ifindex, kernel.Program()) : AddFilter(ifindex, kernel.Program());
    if (result == -ENODEV) return Fail(STATUS_NOT_FOUND, name + " is gone");
    return result == 0 ? STATUS_OK
                       : Fail(StatusOfErrno(-result), "cannot attach to " + name + ": " + strerror(-result));
}

VsStatus DataPath::Detach(uint32_t ifindex)
{
    const std::string name = "interface " + std::to_string(ifindex);
    uint32_t programId = 0;
    if (QueryFilter(ifindex, programId) != 0 || !kernel.IsOurProgram(programId))
        return Fail(STATUS_NOT_FOUND, name + " has no filter of this host");
    const int result = RemoveFilter(ifindex);
    return result == 0
               ? STATUS_OK
               : Fail(StatusOfErrno(-result), "cannot detach from " + name + ": " + strerror(-result));
}

// ---- Addresses and counters ----

template<typename Key>
VsStatus DataPath::Command(LiveCommandKind kind, uint32_t slot, const std::vector<Key> &keys)
{
    const int result = kernel.Command(kind, slot, keys);
    if (result < 0)
        return Fail(StatusOfErrno(-result),
                    std::string("cannot change the data path's tables: ") + strerror(-result));
    switch (result) {
    case LIVE_DONE:
        return STATUS_OK;
    case LIVE_NOT_FOUND:
        return Fail(STATUS_NOT_FOUND, "the port doesn't have the address");
    case LIVE_FULL:
        return Fail(STATUS_NO_SPACE, "the address table is full");
    default:
        return Fail(STATUS_FAILURE, "the data path doesn't know the command");
    }
}

VsStatus DataPath::SlotOfPort(uint32_t portNumber, uint32_t &slot) const
{
    const auto place = portSwitches.find(portNumber);
    if (place == portSwitches.end()) return STATUS_NOT_FOUND;
    slot = switches.at(place->second).ports.at(portNumber).slot;
    return STATUS_OK;
}

VsStatus DataPath::AddressCommand(LiveCommandKind kind, uint32_t portNumber, uint16_t vlan,
                                  const uint8_t mac[6])
{
    uint32_t slot = 0;
    if (VsStatus status = SlotOfPort(portNumber, slot)) return Fail(status, "no such port");
    LiveAddressKey key = {.switchIndex = portSwitches.at(portNumber), .vlan = vlan, .mac = {}};
    std::memcpy(key.mac, mac, sizeof(key.mac));
    return Command(kind, slot, std::vector<LiveAddressKey>{key});
}

VsStatus DataPath::AddStaticAddress(uint32_t portNumber, uint16_t vlan, const uint8_t mac[6])
{
    return AddressCommand(LIVE_COMMAND_ADD_STATIC, portNumber, vlan, mac);
}

VsStatus DataPath::RemoveAddress(uint32_t portNumber, uint16_t vlan, const uint8_t mac[6])
{
    return AddressCommand(LIVE_COMMAND_REMOVE_ADDRESS, portNumber, vlan, mac);
}

VsStatus DataPath::ForgetLearned(uint32_t portNumber)
{
    uint32_t slot;
    if (VsStatus status = SlotOfPort(portNumber, slot)) return Fail(status, "no such port");
    PassEpoch(slot);
    PassGroupEpoch(slot);
    return SweepForgotten();
}

VsStatus DataPath::ShowLife()
{
    const VsStatus status = Command(LIVE_COMMAND_READ_CLOCKS, 0, {});
    LiveHost &host = kernel.host[0];
    if (!status) std::atomic_ref<uint64_t>(host.servedUntil).store(host.now + LIVE_SERVED_NS);
    return status;
}

void DataPath::CountAnnouncement(uint32_t portNumber, bool isSent)
{
    const auto place = portSwitches.find(portNumber);
    if (place == portSwitches.end()) return;
    LiveSwitch &vswitch = kernel.switches[place->second];
    std::atomic_ref<uint64_t>(isSent ? vswitch.announced : vswitch.notAnnounced).fetch_add(1);
}

// What the data path will want to remove, as far as can be seen from here.
bool DataPath::MustSweep(const LiveAddressKey &key, const LiveAddress &address)
{
    const Owner owner(address);
    if (owner.slot >= kernel.ports.Size()) return true;
    LivePort &port = kernel.ports[owner.slot];
    if (!ReadWord(port.inUse)) return true;
    if (owner.isStatic) return false;
    const uint64_t ageing = ReadWord(kernel.switches[key.switchIndex].ageingSeconds) * uint64_t{1000000000};
    return !owner.IsCurrent(port) || (ageing && address.lastSeen + ageing <= kernel.host[0].now);
}

VsStatus DataPath::Sweep()
{
    std::vector<LiveAddressKey> keys;
    for (const auto &[portNumber, address] : std::exchange(delayed, {}))
        AddConfigured(portNumber, address);
    // Ports that don't come back may have left uplinks meanwhile.
    for (const auto &[index, vswitch] : switches)
        for (const auto &[number, port] : vswitch.ports)
            if (port.config.team && !port.config.team->failBack) WriteNetworkUplink(vswitch, port);
    const VsStatus status = tables.WalkAddresses([&](const LiveAddressKey &key, const LiveAddress &address) {
        if (MustSweep(key, address)) keys.push_back(key);
    });
    if (status) return Fail(status, "cannot read the address table");
    if (VsStatus failed = SweepGroups()) return failed;
    return SweepKeys(LIVE_COMMAND_SWEEP, keys, LIVE_COMMAND_KEYS);
}

// What the data path will want to remove of multicast groups and their sources.
VsStatus DataPath::SweepGroups()
{
    std::vector<LiveGroupKey> groups;
    std::vector<LiveSourceKey> sources;
    hasForgottenGroups = false;
    if (VsStatus status = tables.FindEndedGroups(groups, sources))
        return Fail(status, "cannot read the table of multicast groups");
    // A source is judged by its group.
    if (VsStatus status = SweepKeys(LIVE_COMMAND_SWEEP_SOURCES, sources, LIVE_COMMAND_SOURCES)) return status;
    return SweepKeys(LIVE_COMMAND_SWEEP_GROUPS, groups, LIVE_COMMAND_KEYS);
}

template<typename Key>
VsStatus DataPath::SweepKeys(LiveCommandKind kind, const std::vector<Key> &keys, size_t atOnce)
{
    for (size_t first = 0; first < keys.size(); first += atOnce) {
        const size_t count = std::min(atOnce, keys.size() - first);
        const auto begin = keys.begin() + static_cast<ptrdiff_t>(first);
        const std::vector<Key> batch(begin, begin + static_cast<ptrdiff_t>(count));
        if (VsStatus status = Command(kind, 0, batch)) return status;
    }
    return STATUS_OK;
}

}
