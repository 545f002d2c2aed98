// Switches, uplinks and LAGs of the driver.
#include <algorithm>
#include <cerrno>

#include "platform/driver/request.h"

namespace vshost {

namespace {

constexpr size_t ALIAS_ENTRY = 81;
constexpr size_t HINT_SIZE = 32;
constexpr size_t PORT_ID_SIZE = 48;
constexpr size_t MAX_LAGS = 64;

int ReadLags(Reader &reader, std::string_view portset, std::vector<VSwitchLag> &lags)
{
    return ErrnoOf(
        ScanRows(reader, runtime::LagKey(portset, ""), [&](std::string_view, std::string_view row) {
            VSwitchLag &lag = lags.emplace_back();
            return lags.size() <= MAX_LAGS && DecodeRecord(row, lag) &&
                   lag.memberCount <= std::size(lag.members);
        }));
}

bool IsMember(const VSwitchLag &lag, std::string_view nic)
{
    const auto end = lag.members + lag.memberCount;
    return std::any_of(lag.members, end, [nic](const auto &member) { return FieldText(member) == nic; });
}

bool IsInLag(const std::vector<VSwitchLag> &lags, std::string_view nic)
{
    return std::any_of(lags.begin(), lags.end(), [nic](const VSwitchLag &lag) { return IsMember(lag, nic); });
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
    if (IsInLag(lags, uplink.name)) flags |= VSWITCH_UPLINK_IN_LAG;
    return flags;
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
    if (int error = ReadLags(request.reader, request.portset, lags)) return error;
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
    if (int error = ReadLags(request.reader, request.portset, lags)) return error;
    return request.Answer(uint32_t{request.nic.LinkUp() && IsInLag(lags, request.uplink)});
}

int GetLags(DriverRequest &request)
{
    std::vector<NamedNic> uplinks;
    std::vector<VSwitchLag> lags;
    if (int error = ErrnoOf(ListUplinks(request.reader, request.switchId, uplinks), 0)) return error;
    if (int error = ReadLags(request.reader, request.portset, lags)) return error;
    VSwitchLagTable table = {};
    table.count = static_cast<uint32_t>(lags.size());
    for (size_t i = 0; i < lags.size(); i++) {
        table.lags[i] = lags[i];
        FillLinks(table.lags[i], uplinks);
    }
    return request.Answer(table);
}

// An uplink port sends on its own NIC. Another port goes on sending by the uplink that it sent by last, while
// that has a link; otherwise it sends on one of the NICs with a link, which its number selects: this is how
// traffic is spread by originating port.
int GetUplinkHint(DriverRequest &request)
{
    std::vector<NamedNic> uplinks;
    PortName last;
    uint32_t lastNumber = 0;
    if (int error = ErrnoOf(ListUplinks(request.reader, request.switchId, uplinks), 0)) return error;
    if (!request.live.ReadUplink(request.Port(), lastNumber))
        GetPortByNumber(request.reader, lastNumber, last);
    const std::string *sendsOn = nullptr;
    std::vector<const std::string *> withLink;
    for (const NamedNic &uplink : uplinks) {
        const bool isLast = uplink.nic.LinkUp() && FieldText(uplink.nic.portId) == last.portId;
        if (FieldText(uplink.nic.portId) == request.portId || isLast) sendsOn = &uplink.name;
        if (uplink.nic.LinkUp()) withLink.push_back(&uplink.name);
    }
    if (!sendsOn && !withLink.empty()) sendsOn = withLink[request.portNumber % withLink.size()];
    char hint[HINT_SIZE] = {};
    if (sendsOn) SetField(hint, *sendsOn);
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
