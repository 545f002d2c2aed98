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

void ListMacs(DriverRequest &request, const std::vector<VSwitchMacEntry> &entries)
{
    const uint8_t wanted = request.input.args.mac.type;
    request.StartList(VSwitchListHeader{}, sizeof(VSwitchMacEntry));
    for (const VSwitchMacEntry &entry : entries)
        if (wanted == VSWITCH_MAC_ANY || entry.type == wanted) request.AddRecord(entry);
}

int ReadMacs(DriverRequest &request, const std::vector<RunningPort> &ports,
             std::vector<VSwitchMacEntry> &entries)
{
    return ErrnoOf(request.live.ReadAddresses(request.reader, ports, entries));
}

int ListPortsOf(DriverRequest &request, std::vector<RunningPort> &ports)
{
    const auto add = [&](std::string_view portId, uint32_t number) {
        ports.push_back({request.portset, request.switchId, std::string(portId), number});
        return true;
    };
    return ErrnoOf(ForEachPort(request.reader, request.switchId, add), 0);
}

void CountEntries(const std::vector<VSwitchMacEntry> &entries, const std::vector<RunningPort> &uplinks,
                  VSwitchLearningInfo &info)
{
    std::set<uint32_t> numbers;
    for (const RunningPort &uplink : uplinks)
        numbers.insert(uplink.number);
    for (const VSwitchMacEntry &entry : entries) {
        ++(entry.type == VSWITCH_MAC_LEARNED ? info.learnedEntries : info.staticEntries);
        info.teamEntries += numbers.contains(entry.portId);
    }
    info.entries = static_cast<uint32_t>(entries.size());
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

// Adds the counters and the policy of one port to the sums of its switch.
int AddPort(DriverRequest &request, const RunningPort &port, VSwitchLearningInfo &info)
{
    VSwitchPortLearningStats stats = {};
    std::string policy;
    const PropertyOwner owner{StoredLevel::PORT, port.switchId, port.portId};
    if (int error = ErrnoOf(request.live.ReadLearning(request.reader, port, stats))) return error;
    if (int error = ReadProperty(request.reader, owner, KEY_PORT_MAC_MANAGEMENT, policy)) return error;
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
    if (int error = ReadMacs(request, {request.Port()}, entries)) return error;
    ListMacs(request, entries);
    return 0;
}

// The addresses seen behind the uplinks.
int GetTeamMacs(DriverRequest &request)
{
    std::vector<RunningPort> uplinks;
    std::vector<VSwitchMacEntry> entries;
    if (int error = ListUplinkPortsOf(request, uplinks)) return error;
    if (int error = ReadMacs(request, uplinks, entries)) return error;
    ListMacs(request, entries);
    return 0;
}

int GetPortLearningStats(DriverRequest &request)
{
    VSwitchPortLearningStats stats = {};
    std::vector<VSwitchMacEntry> entries;
    uint32_t limit = 0;
    if (int error = ErrnoOf(request.live.ReadLearning(request.reader, request.Port(), stats))) return error;
    if (int error = ReadMacs(request, {request.Port()}, entries)) return error;
    if (int error = ReadPortLimit(request.reader, request.switchId, request.portId, limit)) return error;
    stats.entries = static_cast<uint32_t>(entries.size());
    stats.limit = limit;
    return request.Answer(stats);
}

int GetPortStatistics(DriverRequest &request)
{
    VSwitchPortStatistics stats = {};
    if (int error = ErrnoOf(request.live.ReadStatistics(request.reader, request.Port(), stats))) return error;
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
    std::vector<RunningPort> ports, uplinks;
    std::vector<VSwitchMacEntry> entries;
    if (int error = ReadSwitchPolicy(request.reader, request.switchId, info)) return error;
    if (int error = ListPortsOf(request, ports)) return error;
    if (int error = ListUplinkPortsOf(request, uplinks)) return error;
    for (const RunningPort &port : ports)
        if (int error = AddPort(request, port, info)) return error;
    if (int error = ReadMacs(request, ports, entries)) return error;
    CountEntries(entries, uplinks, info);
    return request.Answer(info);
}

int SetPortMac(DriverRequest &request)
{
    const VSwitchMacEntry &entry = request.input.args.mac;
    if (entry.vlanId > MAX_VLAN_ID || entry.type > VSWITCH_MAC_LEARNED || !IsStation(entry)) return EINVAL;
    if (entry.type == VSWITCH_MAC_LEARNED && !request.live.TakesLearnedAddresses()) return EINVAL;
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
    const VsStatus status = GetRecord(request.reader, key, record);
    if (status == STATUS_NOT_FOUND)
        return ErrnoOf(request.live.ForgetAddress(request.Port(), request.input.args.mac), ENOENT);
    return ErrnoOf(status ? status : request.transaction->Remove(key), EIO);
}

int SetLearningProps(DriverRequest &request)
{
    const VSwitchLearningProps &props = request.input.args.learning;
    if (props.enabled > 1) return EINVAL;
    return ErrnoOf(PutRecord(*request.transaction, runtime::LearningPropsKey(), props), EIO);
}

}
