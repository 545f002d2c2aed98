// MAC tables and MAC learning of the driver.
#include <cerrno>
#include <set>

#include "platform/driver/request.h"

namespace vshost {

namespace {

constexpr std::string_view KEY_SWITCH_LEARNING = "com.talpex.vswitch.macLearning";
constexpr std::string_view KEY_LEARN_STATIC = "com.talpex.vswitch.macLearning.learnStatic";
constexpr uint32_t DEFAULT_PORT_LIMIT = 4096;
constexpr uint32_t DEFAULT_AGING_SECONDS = 600;
constexpr uint32_t DEFAULT_SWITCH_LIMIT = 65536;
constexpr uint16_t MAX_VLAN_ID = 4094;

// The stored record of a port's MAC management.
struct [[gnu::packed]] MacManagement {
    uint8_t securityDerived;
    uint8_t learning;
    uint8_t second;
    uint32_t limit;
    uint32_t last;
};
static_assert(sizeof(MacManagement) == 11);

struct PortOfTable {
    std::string_view portId;
    uint32_t number = 0; // of the port, which its entries show
};

int ReadMacs(const DriverRequest &request, const PortOfTable &port, std::vector<VSwitchMacEntry> &entries)
{
    struct Place {
        uint16_t vlanId;
        uint8_t address[6];
    };
    const auto decode = [&](std::string_view rest, std::string_view row) {
        Place place;
        MacRecord record;
        if (!DecodeRecord(rest, place) || !DecodeRecord(row, record)) return false;
        VSwitchMacEntry &entry = entries.emplace_back();
        memcpy(entry.address, place.address, sizeof(entry.address));
        entry.type = record.type;
        entry.flags = record.flags;
        entry.vlanId = __builtin_bswap16(place.vlanId);
        entry.age = record.age;
        entry.portId = port.number;
        return true;
    };
    return ErrnoOf(ScanRows(request.reader, runtime::MacPrefix(request.portset, port.portId), decode));
}

void ListMacs(DriverRequest &request, const std::vector<VSwitchMacEntry> &entries)
{
    const uint8_t wanted = request.input.args.mac.type;
    request.StartList(VSwitchListHeader{}, sizeof(VSwitchMacEntry));
    for (const VSwitchMacEntry &entry : entries)
        if (wanted == VSWITCH_MAC_ANY || entry.type == wanted) request.AddRecord(entry);
}

int ReadPortLimit(Reader &reader, std::string_view switchId, std::string_view portId, uint32_t &limit)
{
    std::string value;
    MacManagement management;
    const int error =
        ReadProperty(reader, {StoredLevel::PORT, switchId, portId}, KEY_PORT_MAC_MANAGEMENT, value);
    limit = DecodeRecord(value, management) ? management.limit : DEFAULT_PORT_LIMIT;
    return error;
}

int ReadPortStats(Reader &reader, std::string_view portset, std::string_view portId,
                  VSwitchPortLearningStats &stats)
{
    return ErrnoOf(GetRecord(reader, runtime::PortStatsKey(portset, portId), stats), 0);
}

// The switch's own policy; a value that is not stored has its default.
int ReadSwitchPolicy(Reader &reader, std::string_view switchId, VSwitchLearningInfo &info)
{
    std::string policy, learnStatic;
    info.agingSeconds = DEFAULT_AGING_SECONDS;
    info.limit = DEFAULT_SWITCH_LIMIT;
    const PropertyOwner host{StoredLevel::HOST, switchId};
    if (int error = ReadProperty(reader, host, KEY_SWITCH_LEARNING, policy)) return error;
    if (int error = ReadProperty(reader, host, KEY_LEARN_STATIC, learnStatic)) return error;
    if (policy.size() == 8) {
        info.agingSeconds = WordAt(policy, 0) & 0xFFFFFF;
        info.policyByte = static_cast<uint8_t>(policy[3]);
        info.limit = WordAt(policy, 4);
    }
    info.learnStatic = learnStatic.starts_with("true");
    return 0;
}

// Adds one port to the sums of its switch.
int AddPort(DriverRequest &request, std::string_view portId, bool isUplink, VSwitchLearningInfo &info)
{
    VSwitchPortLearningStats stats = {};
    std::vector<VSwitchMacEntry> entries;
    std::string policy;
    const PropertyOwner port{StoredLevel::PORT, request.switchId, portId};
    if (int error = ReadPortStats(request.reader, request.portset, portId, stats)) return error;
    if (int error = ReadMacs(request, {portId}, entries)) return error;
    if (int error = ReadProperty(request.reader, port, KEY_PORT_MAC_MANAGEMENT, policy)) return error;
    const auto count = static_cast<uint32_t>(entries.size());
    for (const VSwitchMacEntry &entry : entries)
        ++(entry.type == VSWITCH_MAC_LEARNED ? info.learnedEntries : info.staticEntries);
    info.entries += count;
    if (isUplink) info.teamEntries += count;
    if (PortLearns(policy)) info.learningPorts++;
    info.learned += stats.learned;
    info.moved += stats.moved;
    info.aged += stats.aged;
    info.refused += stats.refused;
    info.dropped += stats.dropped;
    return 0;
}

bool IsStation(const VSwitchMacEntry &entry)
{
    constexpr uint8_t NONE[sizeof(entry.address)] = {};
    return !(entry.address[0] & 1) && memcmp(entry.address, NONE, sizeof(NONE)) != 0;
}

std::string KeyOfEntry(const DriverRequest &request)
{
    const VSwitchMacEntry &entry = request.input.args.mac;
    return runtime::MacKey(request.portset, request.portId, entry.vlanId, entry.address);
}

}

bool PortLearns(std::string_view macManagement)
{
    MacManagement management;
    return DecodeRecord(macManagement, management) && management.learning;
}

int GetPortMacs(DriverRequest &request)
{
    std::vector<VSwitchMacEntry> entries;
    if (int error = ReadMacs(request, {request.portId, request.portNumber}, entries)) return error;
    ListMacs(request, entries);
    return 0;
}

// The addresses seen behind the uplinks.
int GetTeamMacs(DriverRequest &request)
{
    std::vector<std::string> portIds;
    std::vector<VSwitchMacEntry> entries;
    if (int error = ErrnoOf(ListUplinkPorts(request.reader, request.switchId, portIds), 0)) return error;
    for (const std::string &portId : portIds) {
        uint32_t number = 0;
        const VsStatus status = GetPortNumber(request.reader, request.switchId, portId, number);
        if (status == STATUS_NOT_FOUND) continue;
        if (status) return ErrnoOf(status);
        if (int error = ReadMacs(request, {portId, number}, entries)) return error;
    }
    ListMacs(request, entries);
    return 0;
}

int GetPortLearningStats(DriverRequest &request)
{
    VSwitchPortLearningStats stats = {};
    std::vector<VSwitchMacEntry> entries;
    uint32_t limit = 0;
    if (int error = ReadPortStats(request.reader, request.portset, request.portId, stats)) return error;
    if (int error = ReadMacs(request, {request.portId}, entries)) return error;
    if (int error = ReadPortLimit(request.reader, request.switchId, request.portId, limit)) return error;
    stats.entries = static_cast<uint32_t>(entries.size());
    stats.limit = limit;
    return request.Answer(stats);
}

int GetLearningProps(DriverRequest &request)
{
    VSwitchLearningProps props = DEFAULT_LEARNING_PROPS;
    if (int error = ErrnoOf(GetRecord(request.reader, runtime::LearningPropsKey(), props), 0)) return error;
    return request.Answer(props);
}

int GetLearningInfo(DriverRequest &request)
{
    VSwitchLearningInfo info = {};
    std::vector<std::string> portIds, uplinkPorts;
    if (int error = ReadSwitchPolicy(request.reader, request.switchId, info)) return error;
    if (int error = ListPortIds(request.reader, request.switchId, portIds)) return error;
    if (int error = ErrnoOf(ListUplinkPorts(request.reader, request.switchId, uplinkPorts), 0)) return error;
    const std::set<std::string> uplinks(uplinkPorts.begin(), uplinkPorts.end());
    for (const std::string &portId : portIds)
        if (int error = AddPort(request, portId, uplinks.contains(portId), info)) return error;
    return request.Answer(info);
}

int SetPortMac(DriverRequest &request)
{
    const VSwitchMacEntry &entry = request.input.args.mac;
    if (entry.vlanId > MAX_VLAN_ID || entry.type > VSWITCH_MAC_LEARNED || !IsStation(entry)) return EINVAL;
    MacRecord record;
    record.flags = entry.flags;
    if (entry.type == VSWITCH_MAC_LEARNED) {
        record.type = VSWITCH_MAC_LEARNED;
        record.age = entry.age;
    }
    return ErrnoOf(PutRecord(*request.transaction, KeyOfEntry(request), record), EIO);
}

int ClearPortMac(DriverRequest &request)
{
    MacRecord record;
    const std::string key = KeyOfEntry(request);
    if (int error = ErrnoOf(GetRecord(request.reader, key, record), ENOENT)) return error;
    return ErrnoOf(request.transaction->Remove(key), EIO);
}

int SetLearningProps(DriverRequest &request)
{
    const VSwitchLearningProps &props = request.input.args.learning;
    if (props.enabled > 1) return EINVAL;
    return ErrnoOf(PutRecord(*request.transaction, runtime::LearningPropsKey(), props), EIO);
}

}
