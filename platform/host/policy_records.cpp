#include "platform/host/policy_records.h"

#include <algorithm>
#include <cstring>

#include "platform/host/policy_faults.h"
#include "platform/host/runtime.h"

namespace vshost {
namespace {

// Takes `count` entries off the front.
std::vector<uint32_t> TakePorts(std::string_view &entries, uint32_t count, const FindPortNumber &findPort)
{
    std::vector<uint32_t> numbers;
    for (; count > 0; count--, entries.remove_prefix(sizeof(VSwitchMirrorPort))) {
        VSwitchMirrorPort port;
        memcpy(&port, entries.data(), sizeof(port));
        const std::string id(port.dvPortId, strnlen(port.dvPortId, sizeof(port.dvPortId)));
        const uint32_t number = id.empty() ? port.number : findPort(id);
        if (std::find(numbers.begin(), numbers.end(), number) == numbers.end()) numbers.push_back(number);
    }
    return numbers;
}

MirrorSession SessionOf(const MirrorRecord &record, std::string_view entries, const FindPortNumber &findPort)
{
    entries.remove_prefix(size_t{record.firstPort} * sizeof(VSwitchMirrorPort));
    MirrorSession session;
    session.id.assign(record.id, strnlen(record.id, sizeof(record.id)));
    session.isEnabled = record.settings.enabled;
    session.snapLength = record.settings.snapLength;
    session.sampling = record.settings.sampling;
    session.outerVlan = record.settings.outerVlan;
    session.stripsTag = record.settings.stripTag;
    session.from = TakePorts(entries, record.fromCount, findPort);
    session.to = TakePorts(entries, record.toCount, findPort);
    session.destinations = TakePorts(entries, record.destinationCount, findPort);
    return session;
}

}

std::optional<uint32_t> DecodeSecurity(std::string_view value)
{
    uint32_t bits;
    if (!DecodeRecord(value, bits) || FaultOfSecurity(bits)) return {};
    return bits;
}

std::vector<FilterRule> DecodeFilter(std::string_view value)
{
    VSwitchFilter filter;
    std::vector<FilterRule> rules;
    if (!DecodeRecord(value, filter) || FaultOf(filter)) return rules;
    for (uint32_t i = 0; i < filter.ruleCount; i++) {
        const VSwitchFilterRule &rule = filter.rules[i];
        rules.push_back({rule.etherType, static_cast<VSwitchFilterDirection>(rule.direction),
                         static_cast<VSwitchFilterAction>(rule.action)});
    }
    return rules;
}

std::vector<PrivateVlan> DecodePrivateVlans(std::string_view value)
{
    std::vector<PrivateVlan> map;
    for (; value.size() >= sizeof(VSwitchPvlanEntry); value.remove_prefix(sizeof(VSwitchPvlanEntry))) {
        VSwitchPvlanEntry entry;
        memcpy(&entry, value.data(), sizeof(entry));
        if (FaultOf(entry)) continue;
        map.push_back({entry.primary, entry.secondary, static_cast<PrivateVlanType>(entry.type)});
    }
    return value.empty() ? map : std::vector<PrivateVlan>();
}

void DecodeMirrors(std::string_view list, const FindPortNumber &findPort,
                   std::vector<MirrorSession> &sessions)
{
    MirrorListHeader header;
    if (list.size() < sizeof(header)) return;
    memcpy(&header, list.data(), sizeof(header));
    list.remove_prefix(sizeof(header));
    const uint64_t recordsSize = uint64_t{header.sessionCount} * sizeof(MirrorRecord);
    if (recordsSize + uint64_t{header.portCount} * sizeof(VSwitchMirrorPort) > list.size()) return;
    const std::string_view entries = list.substr(recordsSize);
    for (uint32_t i = 0; i < header.sessionCount; i++, list.remove_prefix(sizeof(MirrorRecord))) {
        MirrorRecord record;
        memcpy(&record, list.data(), sizeof(record));
        if (FaultOf(record.settings) || record.EndOfPorts() > header.portCount) continue;
        MirrorSession session = SessionOf(record, entries, findPort);
        const auto isIt = [&](const MirrorSession &other) { return other.id == session.id; };
        if (std::none_of(sessions.begin(), sessions.end(), isIt)) sessions.push_back(std::move(session));
    }
}

VsStatus ReadMirrors(Reader &reader, std::string_view switchId, std::vector<MirrorSession> &sessions)
{
    std::string list;
    std::vector<std::string> portIds;
    VsStatus failure = STATUS_OK;
    const auto findPort = [&](const std::string &portId) {
        uint32_t number = UINT32_MAX;
        const VsStatus status = GetPortNumber(reader, switchId, portId, number);
        if (status && status != STATUS_NOT_FOUND) failure = status;
        return status ? UINT32_MAX : number;
    };
    if (VsStatus status = ReadValue(reader, {StoredLevel::HOST, switchId}, KEY_HOST_MIRROR, list))
        return status;
    DecodeMirrors(list, findPort, sessions);
    if (VsStatus status = ListPortsWith(reader, MIRRORED, switchId, portIds)) return status;
    for (const std::string &portId : portIds) {
        const PropertyOwner port{StoredLevel::PORT, switchId, portId};
        if (VsStatus status = ReadValue(reader, port, KEY_PORT_MIRROR, list)) return status;
        DecodeMirrors(list, findPort, sessions);
    }
    return failure;
}

}
