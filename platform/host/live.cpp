#include "platform/host/live.h"

#include <algorithm>
#include <cstring>

#include "platform/host/group.h"
#include "platform/host/runtime.h"

namespace vshost {

namespace {

VsStatus AbsentIsOk(VsStatus status) { return status == STATUS_NOT_FOUND ? STATUS_OK : status; }

// False when the row is not whole, or doesn't hold as many sources as it says.
bool DecodeGroup(std::string_view rest, std::string_view row, size_t width, MulticastGroup &group)
{
    if (rest.size() != sizeof(uint32_t) + width || row.size() < sizeof(group.stats)) return false;
    memcpy(&group.stats, row.data(), sizeof(group.stats));
    group.stats.vlanId = FromBigEndian(rest);
    group.address = rest.substr(sizeof(uint32_t));
    group.sources = row.substr(sizeof(group.stats));
    return group.sources.size() == uint64_t{group.stats.count} * width;
}

// Fills in the current links of a LAG's members.
void FillLinks(VSwitchLag &lag, const std::vector<NamedNic> &uplinks)
{
    lag.linkMask = 0;
    for (uint32_t i = 0; i < lag.memberCount; i++)
        for (const NamedNic &uplink : uplinks)
            if (uplink.nic.LinkUp() && uplink.name == FieldText(lag.members[i])) lag.linkMask |= 1u << i;
    lag.linkUp = lag.linkMask != 0;
}

}

size_t AddressWidth(uint32_t kind)
{
    switch (kind) {
    case VSWITCH_ADDRESS_ETHERNET:
        return 6;
    case VSWITCH_ADDRESS_IPV4:
        return 4;
    case VSWITCH_ADDRESS_IPV6:
        return 16;
    default:
        return 0;
    }
}

VsStatus LiveRows::ReadAddresses(Reader &reader, std::span<const RunningPort> ports,
                                 std::vector<VSwitchMacEntry> &entries)
{
    for (const RunningPort &port : ports)
        if (VsStatus status = ReadStoredAddresses(reader, port.portset, port.portId, entries, port.number))
            return status;
    return STATUS_OK;
}

VsStatus LiveRows::ReadLearning(Reader &reader, const RunningPort &port, VSwitchPortLearningStats &stats)
{
    VSwitchPortLearningStats stored = {};
    const VsStatus status = GetRecord(reader, runtime::PortStatsKey(port.portset, port.portId), stored);
    stored.entries = stats.entries;
    stored.limit = stats.limit;
    stats = stored;
    return AbsentIsOk(status);
}

VsStatus LiveRows::ReadStatistics(Reader &reader, const RunningPort &port, VSwitchPortStatistics &stats)
{
    StoredProperty property;
    const PropertyOwner owner{StoredLevel::PORT, port.switchId, port.portId};
    const VsStatus status = GetProperty(reader, owner, KEY_PORT_STATISTICS, property);
    stats = {};
    memcpy(&stats, property.value.data(), std::min(sizeof(stats), property.value.size()));
    return AbsentIsOk(status);
}

VsStatus LiveRows::ReadGroups(Reader &reader, const RunningSwitch &vswitch, uint32_t addressKind,
                              std::vector<MulticastGroup> &groups)
{
    const size_t width = AddressWidth(addressKind);
    const auto take = [&](std::string_view rest, std::string_view row) {
        return DecodeGroup(rest, row, width, groups.emplace_back());
    };
    return ScanRows(reader, runtime::GroupPrefix(vswitch.portset, addressKind), take);
}

VsStatus LiveRows::ReadTeaming(Reader &reader, std::string_view portset, std::span<const RunningPort>,
                               VSwitchTeamingStats &stats)
{
    stats = {};
    return AbsentIsOk(GetRecord(reader, runtime::TeamingKey(portset), stats));
}

bool IsInLag(const VSwitchLag &lag, std::string_view nic)
{
    const auto isIt = [nic](const auto &member) { return FieldText(member) == nic; };
    return isIt(lag.name) || std::any_of(lag.members, lag.members + lag.memberCount, isIt);
}

VsStatus LiveRows::ReadLags(Reader &reader, const RunningSwitch &vswitch, std::vector<VSwitchLag> &lags)
{
    std::vector<NamedNic> uplinks;
    if (VsStatus status = AbsentIsOk(ListUplinks(reader, vswitch.switchId, uplinks))) return status;
    return ScanRows(
        reader, runtime::LagKey(vswitch.portset, ""), [&](std::string_view, std::string_view row) {
            VSwitchLag &lag = lags.emplace_back();
            if (lags.size() > MAX_LAGS || !DecodeRecord(row, lag) || lag.memberCount > std::size(lag.members))
                return false;
            FillLinks(lag, uplinks);
            return true;
        });
}

VsStatus LiveRows::ReadRarp(Reader &reader, std::string_view portset, std::string_view,
                            VSwitchRarpStats &stats)
{
    stats = {};
    return AbsentIsOk(GetRecord(reader, runtime::RarpKey(portset), stats));
}

}
