// Switches, uplinks and LAGs of the driver.
#include <algorithm>
#include <cerrno>
#include <map>

#include "platform/driver/request.h"
#include "platform/host/teaming.h"

namespace vshost {

namespace {

constexpr size_t ALIAS_ENTRY = 81;
constexpr size_t HINT_SIZE = 32;
constexpr size_t PORT_ID_SIZE = 48;

int ReadLags(DriverRequest &request, std::vector<VSwitchLag> &lags)
{
    return ErrnoOf(request.live.ReadLags(request.reader, request.Switch(), lags), 0);
}

bool IsInAny(const std::vector<VSwitchLag> &lags, std::string_view nic)
{
    return std::any_of(lags.begin(), lags.end(), [nic](const VSwitchLag &lag) { return IsInLag(lag, nic); });
}

std::string AliasOfPortset(Reader &reader, const std::string &portset)
{
    std::string switchId, alias;
    if (SwitchOfPortset(reader, portset, switchId)) return portset;
    ReadProperty(reader, {StoredLevel::GLOBAL, switchId}, KEY_ALIAS, alias);
    return alias.empty() ? portset : std::string(Text(alias));
}

uint32_t UplinkFlags(const NamedNic &uplink, const std::vector<VSwitchLag> &lags)
{
    uint32_t flags = 0;
    if (uplink.nic.LinkUp()) flags |= VSWITCH_UPLINK_LINK_UP;
    if (uplink.nic.adminUp) flags |= VSWITCH_UPLINK_ADMIN_UP;
    if (uplink.nic.fullDuplex) flags |= VSWITCH_UPLINK_FULL_DUPLEX;
    if (IsInAny(lags, uplink.name)) flags |= VSWITCH_UPLINK_IN_LAG;
    return flags;
}

// The NICs of uplink ports that the switch has.
int ListUplinksByNumber(DriverRequest &request, std::map<uint32_t, NamedNic> &uplinks)
{
    std::vector<NamedNic> nics;
    if (int error = ErrnoOf(ListUplinks(request.reader, request.switchId, nics), 0)) return error;
    for (NamedNic &uplink : nics) {
        uint32_t number = 0;
        const VsStatus status =
            GetPortNumber(request.reader, request.switchId, FieldText(uplink.nic.portId), number);
        if (status == STATUS_NOT_FOUND) continue;
        if (status) return ErrnoOf(status);
        uplinks.emplace(number, std::move(uplink));
    }
    return 0;
}

int DescribeSwitch(DriverRequest &request, VSwitchInfo &info)
{
    StoredSwitch stored;
    std::vector<NamedNic> uplinks;
    bool snooping = false, mirroring = false, learning = false;
    SetField(info.switchId, request.switchId);
    if (int error = ErrnoOf(GetSwitch(request.reader, request.switchId, stored), ENOENT)) return error;
    if (int error = ErrnoOf(ListUplinks(request.reader, request.switchId, uplinks), ENOENT)) return error;
    if (int error = IsSnooping(request.reader, request.switchId, snooping)) return error;
    if (int error = IsMirroring(request.reader, request.switchId, mirroring)) return error;
    if (int error = ErrnoOf(AnyPortWith(request.reader, LEARNING, request.switchId, learning), 0))
        return error;
    info.uplinks = static_cast<uint16_t>(uplinks.size());
    if (stored.associated) info.flags |= VSWITCH_INFO_ASSOCIATED;
    if (snooping) info.flags |= VSWITCH_INFO_SNOOPING;
    if (mirroring) info.flags |= VSWITCH_INFO_MIRRORING;
    if (learning) info.flags |= VSWITCH_INFO_MAC_LEARNING;
    uint32_t ports = 0;
    const VsStatus status = CountPorts(request.reader, request.switchId, ports);
    info.usedPorts = ports;
    return ErrnoOf(status, ENOENT);
}

}

int GetSwitches(DriverRequest &request)
{
    std::vector<std::string> names;
    const uint32_t kind = WordAt(request.raw, 0);
    if (int error = ErrnoOf(ListPortsets(request.reader, names), 0)) return error;
    const bool byPortset = kind == VSWITCH_LIST_PORTSETS;
    request.StartList(VSwitchListHeader{0, kind}, byPortset ? sizeof(VSwitchInfo::portset) : ALIAS_ENTRY);
    for (const std::string &name : names)
        request.Add(byPortset ? name : AliasOfPortset(request.reader, name).substr(0, ALIAS_ENTRY - 1));
    return 0;
}

int GetInfo(DriverRequest &request)
{
    VSwitchInfo info = {};
    SetField(info.portset, request.portset);
    info.ports = request.running.ports;
    info.mtu = request.running.mtu;
    if (!request.switchId.empty())
        if (int error = DescribeSwitch(request, info)) return error;
    return request.Answer(info);
}

int GetUplinks(DriverRequest &request)
{
    std::vector<NamedNic> uplinks;
    std::vector<VSwitchLag> lags;
    if (int error = ErrnoOf(ListUplinks(request.reader, request.switchId, uplinks), 0)) return error;
    if (int error = ReadLags(request, lags)) return error;
    request.StartList(VSwitchListHeader{}, sizeof(VSwitchUplink));
    for (const NamedNic &uplink : uplinks) {
        VSwitchUplink entry = {};
        SetField(entry.name, uplink.name);
        entry.flags = UplinkFlags(uplink, lags);
        request.AddRecord(entry);
    }
    return 0;
}

int GetUplinkLink(DriverRequest &request) { return request.Answer(uint32_t{request.nic.LinkUp()}); }

int GetUplinkLacp(DriverRequest &request)
{
    std::vector<VSwitchLag> lags;
    if (int error = ReadLags(request, lags)) return error;
    return request.Answer(uint32_t{request.nic.LinkUp() && IsInAny(lags, request.uplink)});
}

int GetLags(DriverRequest &request)
{
    std::vector<VSwitchLag> lags;
    if (int error = ReadLags(request, lags)) return error;
    VSwitchLagTable table = {};
    table.count = static_cast<uint32_t>(lags.size());
    std::copy(lags.begin(), lags.end(), table.lags);
    return request.Answer(table);
}

// An uplink port sends on its own NIC. Another port sends by its teaming policy; where frames of one port
// take several uplinks, or where the port doesn't come back to an uplink, the one that it sent by last
// counts.
int GetUplinkHint(DriverRequest &request)
{
    char hint[HINT_SIZE] = {};
    std::map<uint32_t, NamedNic> uplinks; // by the numbers of their ports
    std::optional<Team> team;
    Teamings teamings;
    if (int error = ListUplinksByNumber(request, uplinks)) return error;
    if (const auto own = uplinks.find(request.portNumber); own != uplinks.end()) {
        SetField(hint, own->second.name);
        return request.Answer(hint);
    }
    const PropertyOwner port{StoredLevel::PORT, request.switchId, request.portId};
    if (int error = ErrnoOf(ReadTeamings(request.reader, request.switchId, teamings), 0)) return error;
    if (int error = ErrnoOf(ReadTeam(request.reader, port, teamings, team), 0)) return error;

    std::vector<uint32_t> numbers;
    for (const auto &[number, uplink] : uplinks)
        numbers.push_back(number);
    const bool isByNumber = !team || team->algorithm == VSWITCH_TEAMING_PORT;
    std::vector<uint32_t> order = UplinksInOrder(team, numbers, isByNumber ? request.portNumber : 0);
    std::erase_if(order, [&](uint32_t number) { return !uplinks.at(number).nic.LinkUp(); });
    if (order.empty()) return request.Answer(hint);
    uint32_t last = 0;
    const bool asLast =
        team && (!team->failBack || (!isByNumber && team->algorithm != VSWITCH_TEAMING_ORDER));
    const bool hasSent = asLast && !request.live.ReadUplink(request.Port(), last) &&
                         std::find(order.begin(), order.end(), last) != order.end();
    SetField(hint, uplinks.at(hasSent ? last : order.front()).name);
    return request.Answer(hint);
}

int GetUplinkPort(DriverRequest &request)
{
    char portId[PORT_ID_SIZE] = {};
    SetField(portId, FieldText(request.nic.portId));
    return request.Answer(portId);
}

int SetUplinkAdmin(DriverRequest &request)
{
    if (request.input.args.uplink.adminUp > 1) return EINVAL;
    request.nic.adminUp = request.input.args.uplink.adminUp != 0;
    return ErrnoOf(PutRecord(*request.transaction, runtime::NicKey(request.uplink), request.nic), EIO);
}

int RefreshNuma(DriverRequest &request)
{
    std::vector<NamedNic> uplinks;
    if (int error = ErrnoOf(ListUplinks(request.reader, request.switchId, uplinks), 0)) return error;
    for (NamedNic &uplink : uplinks) {
        uplink.nic.driverNumaNode = uplink.nic.numaNode;
        if (VsStatus status = PutRecord(*request.transaction, runtime::NicKey(uplink.name), uplink.nic))
            return ErrnoOf(status, EIO);
    }
    return 0;
}

}
