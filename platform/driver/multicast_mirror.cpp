// Multicast groups, mirror sessions and promiscuous sessions of the driver. Modes and sessions come from the
// store, groups from what the switch does; counters and further destinations come from the scenario.
#include <algorithm>
#include <cerrno>
#include <set>

#include "platform/driver/request.h"
#include "platform/host/group.h"
#include "platform/host/policy_records.h"

namespace vshost {

namespace {

constexpr std::string_view KEY_MCAST_FILTER = "com.talpex.vswitch.multicastFilter";
constexpr size_t SINK_PORT_BYTE = 2; // of the filter; the lowest bit of this byte

VsStatus AddDestinations(Reader &reader, const std::string &switchId, std::set<uint32_t> &portNumbers)
{
    std::set<uint32_t> destinations;
    std::vector<MirrorSession> sessions;
    if (VsStatus status = vshost::ReadMirrors(reader, switchId, sessions)) return status;
    for (const MirrorSession &session : sessions)
        if (session.isEnabled) destinations.insert(session.destinations.begin(), session.destinations.end());
    if (destinations.empty()) return STATUS_OK;
    return ForEachPortRow(reader, switchId, [&](std::string_view, const StoredPort &port) {
        if (destinations.contains(port.number)) portNumbers.insert(port.number);
        return true;
    });
}

VsStatus AddPromiscuous(Reader &reader, const std::string &switchId, std::set<uint32_t> &portNumbers)
{
    std::vector<std::string> uplinks;
    const VsStatus status = ListUplinkPorts(reader, switchId, uplinks);
    if (status) return status == STATUS_NOT_FOUND ? STATUS_OK : status;
    return ForEachPortRow(reader, switchId, [&](std::string_view portId, const StoredPort &port) {
        BundleEntry found;
        if (!CheckBundle(port.properties)) return false;
        if (!FindEntry(port.properties, KEY_SECURITY, found)) return true;
        const std::optional<uint32_t> bits = DecodeSecurity(found.value);
        const bool isUplink = std::find(uplinks.begin(), uplinks.end(), portId) != uplinks.end();
        if (bits && !(*bits & VSWITCH_SECURITY_ADDRESSED_ONLY) && !isUplink) portNumbers.insert(port.number);
        return true;
    });
}

VsStatus AddNamed(Reader &reader, const RunningSwitch &vswitch, std::set<uint32_t> &portNumbers)
{
    std::string named;
    const VsStatus status = reader.Get(runtime::PromiscuousKey(vswitch.portset), named);
    if (status) return status == STATUS_NOT_FOUND ? STATUS_OK : status;
    if (!named.empty() && named.back() != '\0') return STATUS_IO_ERROR;
    for (std::string_view rest = named; !rest.empty(); rest.remove_prefix(Text(rest).size() + 1)) {
        uint32_t number = 0;
        const VsStatus found = GetPortNumber(reader, vswitch.switchId, Text(rest), number);
        if (found && found != STATUS_NOT_FOUND) return found;
        if (!found) portNumbers.insert(number);
    }
    return STATUS_OK;
}

// Groups of the request's portset, address kind and VLAN, in the order of VLAN and address.
int ReadGroups(DriverRequest &request, std::vector<MulticastGroup> &groups)
{
    const VSwitchMcastSelector &wanted = request.input.args.mcast;
    if (AddressWidth(wanted.addressKind) == 0) return 0;
    const RunningSwitch vswitch = {request.portset, request.switchId};
    const int error = ErrnoOf(request.live.ReadGroups(request.reader, vswitch, wanted.addressKind, groups));
    std::erase_if(groups, [&](const MulticastGroup &group) {
        return wanted.vlanId != 0 && wanted.vlanId != group.stats.vlanId;
    });
    return error;
}

}

bool HasMirrorSessions(std::string_view list)
{
    MirrorListHeader header;
    if (list.size() < sizeof(header) + sizeof(MirrorRecord)) return false;
    memcpy(&header, list.data(), sizeof(header));
    return header.sessionCount > 0;
}

bool IsSinkPort(std::string_view filter)
{
    return filter.size() > SINK_PORT_BYTE && (filter[SINK_PORT_BYTE] & 1);
}

int IsSnooping(Reader &reader, std::string_view switchId, bool &snooping)
{
    std::string mode;
    const int error = ReadProperty(reader, {StoredLevel::GLOBAL, switchId}, KEY_MCAST_FILTER, mode);
    snooping = Text(mode) == "snooping";
    return error;
}

int IsMirroring(Reader &reader, std::string_view switchId, bool &mirroring)
{
    std::string list;
    const int error = ReadProperty(reader, {StoredLevel::HOST, switchId}, KEY_HOST_MIRROR, list);
    mirroring = HasMirrorSessions(list);
    return error || mirroring ? error : ErrnoOf(AnyPortWith(reader, MIRRORED, switchId, mirroring), 0);
}

int GetMcastMode(DriverRequest &request)
{
    bool snooping = false;
    if (int error = IsSnooping(request.reader, request.switchId, snooping)) return error;
    return request.Answer(uint32_t{snooping});
}

// An address that is in several VLANs is listed once.
int GetMcastGroups(DriverRequest &request)
{
    const uint32_t kind = request.input.args.mcast.addressKind;
    std::set<std::string> addresses;
    std::vector<MulticastGroup> groups;
    if (int error = ReadGroups(request, groups)) return error;
    for (const MulticastGroup &group : groups)
        addresses.insert(group.address);
    request.StartList(VSwitchListHeader{0, kind}, AddressWidth(kind));
    for (const std::string &address : addresses)
        request.Add(address);
    return 0;
}

// In several VLANs: the first one.
int GetMcastStats(DriverRequest &request)
{
    const VSwitchMcastSelector &wanted = request.input.args.mcast;
    const size_t width = AddressWidth(wanted.addressKind);
    const std::string_view address(reinterpret_cast<const char *>(wanted.group), width);
    std::vector<MulticastGroup> groups;
    if (int error = ReadGroups(request, groups)) return error;
    const auto group = std::find_if(groups.begin(), groups.end(),
                                    [&](const MulticastGroup &one) { return one.address == address; });
    if (group == groups.end()) return ENOENT;
    VSwitchMcastStats stats = group->stats;
    stats.count = 0;
    request.StartList(stats, width, offsetof(VSwitchMcastStats, count));
    for (size_t at = 0; at < group->sources.size(); at += width)
        request.Add(std::string_view(group->sources).substr(at, width));
    return 0;
}

VsStatus LiveRows::ReadMirrors(Reader &reader, const RunningSwitch &vswitch,
                               std::vector<VSwitchMirrorStats> &sessions)
{
    std::vector<MirrorSession> stored;
    if (VsStatus status = vshost::ReadMirrors(reader, vswitch.switchId, stored)) return status;
    for (const MirrorSession &session : stored) {
        VSwitchMirrorStats &stats = sessions.emplace_back();
        stats = {};
        const VsStatus status =
            GetRecord(reader, runtime::MirrorStatsKey(vswitch.portset, session.id), stats);
        if (status && status != STATUS_NOT_FOUND) return status;
        memset(stats.sessionId, 0, sizeof(stats.sessionId));
        session.id.copy(stats.sessionId, sizeof(stats.sessionId));
        stats.active = session.isEnabled;
    }
    return STATUS_OK;
}

// Destinations of mirror sessions, ports that get all frames, and those that the scenario names.
VsStatus LiveRows::ReadObservers(Reader &reader, const RunningSwitch &vswitch,
                                 std::set<uint32_t> &portNumbers)
{
    if (VsStatus status = AddDestinations(reader, vswitch.switchId, portNumbers)) return status;
    if (VsStatus status = AddPromiscuous(reader, vswitch.switchId, portNumbers)) return status;
    return AddNamed(reader, vswitch, portNumbers);
}

int GetMirrorSessions(DriverRequest &request)
{
    std::vector<VSwitchMirrorStats> sessions;
    const VsStatus status = request.live.ReadMirrors(request.reader, request.Switch(), sessions);
    request.StartList(VSwitchListHeader{}, sizeof(VSwitchMirrorStats::sessionId));
    for (const VSwitchMirrorStats &stats : sessions)
        request.Add(FieldText(stats.sessionId));
    return ErrnoOf(status);
}

int GetMirrorStats(DriverRequest &request)
{
    const std::string_view wanted = FieldText(request.input.args.sessionId);
    std::vector<VSwitchMirrorStats> sessions;
    if (VsStatus status = request.live.ReadMirrors(request.reader, request.Switch(), sessions))
        return ErrnoOf(status);
    const auto isIt = [&](const VSwitchMirrorStats &stats) { return FieldText(stats.sessionId) == wanted; };
    const auto found = std::find_if(sessions.begin(), sessions.end(), isIt);
    return found == sessions.end() ? ENOENT : request.Answer(*found);
}

int GetPromiscuousPorts(DriverRequest &request)
{
    std::vector<std::string> portIds;
    std::set<uint32_t> numbers;
    if (VsStatus status = request.live.ReadObservers(request.reader, request.Switch(), numbers))
        return ErrnoOf(status);
    if (int error = ErrnoOf(ListPortsWith(request.reader, SINK, request.switchId, portIds), 0)) return error;
    for (const std::string &portId : portIds) {
        uint32_t number = 0;
        const VsStatus status = GetPortNumber(request.reader, request.switchId, portId, number);
        if (status && status != STATUS_NOT_FOUND) return ErrnoOf(status);
        if (!status) numbers.insert(number);
    }
    request.StartList(VSwitchListHeader{}, sizeof(uint32_t));
    for (const uint32_t number : numbers)
        request.AddRecord(number);
    return 0;
}

}
