#include "platform/live/live_kernel.h"

#include <algorithm>
#include <cstring>
#include <linux/if_ether.h>
#include <map>
#include <set>

#include "platform/host/group.h"
#include "platform/host/runtime.h"

namespace live {

using namespace vshost;

namespace {

constexpr uint64_t NS_PER_SECOND = 1000000000;

// A port without an interface has nothing in the kernel.
VsStatus AbsentIsOk(VsStatus status) { return status == STATUS_NOT_FOUND ? STATUS_OK : status; }

VSwitchMacEntry EntryOf(const AddressEntry &address)
{
    VSwitchMacEntry entry = {};
    memcpy(entry.address, address.mac, sizeof(entry.address));
    entry.type = address.isStatic ? VSWITCH_MAC_STATIC : VSWITCH_MAC_LEARNED;
    entry.vlanId = address.vlan;
    if (!address.isStatic) entry.age = static_cast<uint32_t>(address.ageNs / NS_PER_SECOND);
    entry.portId = address.portNumber;
    return entry;
}

uint32_t KindOf(const GroupEntry &entry)
{
    return entry.family == ETH_P_IP ? VSWITCH_ADDRESS_IPV4 : VSWITCH_ADDRESS_IPV6;
}

std::string Bytes(const GroupAddress &address, uint32_t kind)
{
    return {reinterpret_cast<const char *>(address.data()), AddressWidth(kind)};
}

// The Ethernet address has the last 23 bits of an IPv4 address, or 32 of an IPv6 address.
std::string AddressOf(const GroupEntry &entry, uint32_t kind)
{
    if (kind != VSWITCH_ADDRESS_ETHERNET) return Bytes(entry.group, kind);
    const std::string address = Bytes(entry.group, KindOf(entry));
    if (entry.family != ETH_P_IP) return "\x33\x33" + address.substr(12);
    return {'\x01', '\x00', '\x5e', static_cast<char>(address[1] & 0x7f), address[2], address[3]};
}

void AddGroup(const GroupEntry &entry, uint32_t kind, MulticastGroup &group)
{
    group.stats.joins += entry.joins;
    group.stats.leaves += entry.leaves;
    group.stats.queries = std::max(group.stats.queries, entry.queries);
    group.stats.ports = std::max(group.stats.ports, entry.ports);
    group.stats.vlanId = entry.vlan;
    group.stats.filter = entry.excludes || kind == VSWITCH_ADDRESS_ETHERNET;
    if (kind == VSWITCH_ADDRESS_ETHERNET) return;
    for (const GroupAddress &source : entry.sources)
        group.sources += Bytes(source, kind);
    group.stats.count = static_cast<uint32_t>(entry.sources.size());
}

}

VsStatus LiveKernel::ReadAddresses(Reader &reader, std::span<const RunningPort> ports,
                                   std::vector<VSwitchMacEntry> &entries)
{
    std::set<uint32_t> numbers;
    std::vector<VSwitchMacEntry> stored;
    std::vector<AddressEntry> seen;
    if (ports.empty()) return STATUS_OK;
    for (const RunningPort &port : ports) {
        numbers.insert(port.number);
        if (VsStatus status = ReadStoredAddresses(reader, port.portset, port.portId, stored, port.number))
            return status;
    }
    for (const VSwitchMacEntry &entry : stored)
        if (entry.type == VSWITCH_MAC_STATIC) entries.push_back(entry);
    if (VsStatus status = AbsentIsOk(tables.ReadAddresses(ports[0].switchId, seen))) return status;
    for (const AddressEntry &address : seen)
        if ((!address.isStatic || address.isKept) && numbers.contains(address.portNumber))
            entries.push_back(EntryOf(address));
    return STATUS_OK;
}

VsStatus LiveKernel::ReadLearning(Reader &, const RunningPort &port, VSwitchPortLearningStats &stats)
{
    LiveCounters counters = {};
    const VsStatus status = tables.ReadCounters(port.number, counters);
    const auto count = [&](LiveCounter row) { return static_cast<uint32_t>(counters.values[row]); };
    stats.learned = count(LIVE_LEARNED);
    stats.moved = count(LIVE_MOVED);
    stats.aged = count(LIVE_AGED);
    stats.refused = count(LIVE_REFUSED);
    stats.dropped = count(LIVE_DROP_LEARNING_LIMIT);
    return AbsentIsOk(status);
}

VsStatus LiveKernel::ReadStatistics(Reader &, const RunningPort &port, VSwitchPortStatistics &stats)
{
    LiveCounters counters = {};
    const VsStatus status = tables.ReadCounters(port.number, counters);
    static_assert(LIVE_DROP_NOT_SENT + 1 == sizeof(stats) / sizeof(counters.values[0]));
    memcpy(&stats, counters.values, sizeof(stats));
    return AbsentIsOk(status);
}

VsStatus LiveKernel::ReadTeaming(Reader &, std::string_view, std::span<const RunningPort> uplinks,
                                 VSwitchTeamingStats &stats)
{
    stats = {};
    for (const RunningPort &uplink : uplinks) {
        LiveCounters counters = {};
        if (VsStatus status = AbsentIsOk(tables.ReadCounters(uplink.number, counters))) return status;
        stats.txPackets += counters.values[LIVE_TO_PACKETS];
        stats.txBytes += counters.values[LIVE_TO_BYTES];
        stats.rxPackets += counters.values[LIVE_FROM_PACKETS];
        stats.rxBytes += counters.values[LIVE_FROM_BYTES];
        stats.failovers += counters.values[LIVE_FAILOVERS];
        stats.failbacks += counters.values[LIVE_FAILBACKS];
    }
    return STATUS_OK;
}

VsStatus LiveKernel::ReadRarp(Reader &, std::string_view, std::string_view switchId, VSwitchRarpStats &stats)
{
    uint64_t sent = 0, failed = 0;
    const VsStatus status = tables.ReadAnnouncements(std::string(switchId), sent, failed);
    stats.sent = sent;
    stats.failed = failed;
    return AbsentIsOk(status);
}

VsStatus LiveKernel::ReadGroups(Reader &, const RunningSwitch &vswitch, uint32_t addressKind,
                                std::vector<MulticastGroup> &groups)
{
    std::vector<GroupEntry> entries;
    if (VsStatus status = AbsentIsOk(tables.ReadGroups(vswitch.switchId, entries))) return status;
    std::map<std::pair<uint16_t, std::string>, MulticastGroup> byAddress;
    for (const GroupEntry &entry : entries) {
        if (addressKind != VSWITCH_ADDRESS_ETHERNET && addressKind != KindOf(entry)) continue;
        const std::string address = AddressOf(entry, addressKind);
        AddGroup(entry, addressKind, byAddress[{entry.vlan, address}]);
    }
    for (auto &[place, group] : byAddress) {
        group.address = place.second;
        groups.push_back(std::move(group));
    }
    return STATUS_OK;
}

VsStatus LiveKernel::ReadUplink(const RunningPort &port, uint32_t &uplinkNumber)
{
    return tables.ReadUplink(port.number, uplinkNumber);
}

VsStatus LiveKernel::ReadMirrors(Reader &, const RunningSwitch &vswitch,
                                 std::vector<VSwitchMirrorStats> &sessions)
{
    std::vector<MirrorEntry> entries;
    const VsStatus status = tables.ReadMirrors(vswitch.switchId, entries);
    for (const MirrorEntry &entry : entries) {
        const auto count = [&](LiveMirrorCounter row) { return entry.counters.values[row]; };
        VSwitchMirrorStats &stats = sessions.emplace_back();
        stats = {};
        entry.id.copy(stats.sessionId, sizeof(stats.sessionId));
        stats.active = entry.isEnabled;
        stats.mirroredPackets = count(LIVE_MIRROR_SENT_PACKETS);
        stats.mirroredBytes = count(LIVE_MIRROR_SENT_BYTES);
        stats.droppedPackets = count(LIVE_MIRROR_DROPPED_PACKETS);
        stats.droppedBytes = count(LIVE_MIRROR_DROPPED_BYTES);
        stats.txPackets = count(LIVE_MIRROR_TO_PACKETS);
        stats.txBytes = count(LIVE_MIRROR_TO_BYTES);
        stats.rxPackets = count(LIVE_MIRROR_FROM_PACKETS);
        stats.rxBytes = count(LIVE_MIRROR_FROM_BYTES);
        stats.truncated = count(LIVE_MIRROR_TRUNCATED);
        stats.encapsulationErrors = count(LIVE_MIRROR_NOT_TAGGED);
        stats.unreachable = count(LIVE_MIRROR_UNREACHABLE);
    }
    return AbsentIsOk(status);
}

VsStatus LiveKernel::ReadLags(Reader &reader, const RunningSwitch &vswitch, std::vector<VSwitchLag> &found)
{
    std::vector<NamedNic> uplinks;
    const VsStatus status = AbsentIsOk(ListUplinks(reader, vswitch.switchId, uplinks));
    for (const VSwitchLag &lag : lags.Get()) {
        const auto isIn = [&](const NamedNic &uplink) { return IsInLag(lag, uplink.name); };
        if (found.size() < MAX_LAGS && std::any_of(uplinks.begin(), uplinks.end(), isIn))
            found.push_back(lag);
    }
    return status;
}

VsStatus LiveKernel::ReadObservers(Reader &, const RunningSwitch &vswitch, std::set<uint32_t> &portNumbers)
{
    return AbsentIsOk(tables.ReadObservers(vswitch.switchId, portNumbers));
}

}
