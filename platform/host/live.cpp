#include "platform/host/live.h"

#include <algorithm>
#include <cstring>

#include "platform/host/runtime.h"

namespace vshost {

namespace {

VsStatus AbsentIsOk(VsStatus status) { return status == STATUS_NOT_FOUND ? STATUS_OK : status; }

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

VsStatus LiveRows::ReadTeaming(Reader &reader, std::string_view portset, std::span<const RunningPort>,
                               VSwitchTeamingStats &stats)
{
    stats = {};
    return AbsentIsOk(GetRecord(reader, runtime::TeamingKey(portset), stats));
}

VsStatus LiveRows::ReadRarp(Reader &reader, std::string_view portset, std::string_view,
                            VSwitchRarpStats &stats)
{
    stats = {};
    return AbsentIsOk(GetRecord(reader, runtime::RarpKey(portset), stats));
}

}
