#include "platform/live/store_config.h"

#include <algorithm>

#include "platform/host/port_policies.h"
#include "platform/host/runtime.h"
#include "platform/live/snapshot.h"

namespace live {
namespace {

using namespace vshost;

constexpr std::string_view KEY_BLOCK = "com.talpex.common.port.block";
constexpr std::string_view KEY_PRIORITY = "com.talpex.vswitch.port.priority";
constexpr std::string_view KEY_SWITCH_LEARNING = "com.talpex.vswitch.macLearning";
constexpr std::string_view KEY_LEARN_STATIC = "com.talpex.vswitch.macLearning.learnStatic";
constexpr std::string_view KEY_MULTICAST_MODE = "com.talpex.vswitch.multicastFilter";
constexpr std::string_view KEY_PRIVATE_VLANS = "com.talpex.vswitch.pvlanMap";
constexpr std::string_view KEY_NESTED_TAG = "com.talpex.vswitch.port.vlanNestedTag";

constexpr uint16_t NO_VLAN = 0xffff; // carries nothing

static_assert(sizeof(VlanRange) == 4);

struct [[gnu::packed]] LearningRecord {
    uint8_t securityDerived;
    uint8_t learning;
    uint8_t takesUnknown;
    uint32_t limit;
    uint32_t forwardsOverLimit;
};
static_assert(sizeof(LearningRecord) == 11);

// A record that is not whole lets nothing pass.
void TakeVlans(std::string_view value, PortConfig &port)
{
    if (value.empty()) return;
    VlanRecord record;
    port.vlanId = NO_VLAN;
    if (value.size() < sizeof(record)) return;
    memcpy(&record, value.data(), sizeof(record));
    if (value.size() != sizeof(record) + record.rangeCount * sizeof(VlanRange)) return;
    port.trunk = record.flags & VLAN_TRUNK;
    port.vlanId = port.trunk ? uint16_t{0} : record.vlanId;
    if (!port.trunk) return;
    port.ranges.resize(record.rangeCount);
    if (record.rangeCount)
        memcpy(port.ranges.data(), value.data() + sizeof(record), value.size() - sizeof(record));
}

void TakePriority(std::string_view value, PortConfig &port)
{
    uint32_t priority;
    if (DecodeRecord(value, priority) && priority < LIVE_PORT_NO_PRIORITY) port.priority = priority;
}

void TakeLearning(std::string_view value, PortConfig &port)
{
    LearningRecord record;
    if (!DecodeRecord(value, record)) return;
    port.learning = record.learning;
    port.takesUnknown = record.takesUnknown;
    port.addressLimit = record.limit;
    port.forwardsOverLimit = record.forwardsOverLimit == 1;
}

void TakeNestedTag(std::string_view value, PortConfig &port)
{
    uint32_t word;
    port.nested = DecodeRecord(value, word) && word != 0;
}

void TakeSecurity(std::string_view value, PortConfig &port)
{
    const std::optional<uint32_t> bits = DecodeSecurity(value);
    if (!bits) return;
    port.getsAllFrames = !(*bits & VSWITCH_SECURITY_ADDRESSED_ONLY);
    port.addressLock = *bits & VSWITCH_SECURITY_ADDRESS_LOCK;
    port.staticOnly = *bits & VSWITCH_SECURITY_STATIC_ONLY;
}

VsStatus ReadOwnPolicies(Reader &reader, const PropertyOwner &owner, PortConfig &port)
{
    std::string block, vlan, nestedTag, priority, learning, filter, security;
    const VsStatus status = ReadValues(reader, owner,
                                       {{KEY_BLOCK, &block},
                                        {KEY_VLAN, &vlan},
                                        {KEY_NESTED_TAG, &nestedTag},
                                        {KEY_PRIORITY, &priority},
                                        {KEY_PORT_MAC_MANAGEMENT, &learning},
                                        {KEY_ETH_FILTER, &filter},
                                        {KEY_SECURITY, &security}});
    if (status) return status;
    port.blocked = Text(block) == "true";
    port.sink = IsSinkPort(filter);
    TakeVlans(vlan, port);
    TakeNestedTag(nestedTag, port);
    TakePriority(priority, port);
    TakeLearning(learning, port);
    port.filter = DecodeFilter(filter);
    TakeSecurity(security, port);
    return STATUS_OK;
}

VsStatus ReadPolicies(Reader &reader, const PortName &name, Teamings &teamings, PortConfig &port)
{
    const PropertyOwner owner{StoredLevel::PORT, name.switchId, name.portId};
    PortConfig read;
    read.number = port.number;
    read.ifindex = port.ifindex;
    read.uplink = port.uplink;
    read.uplinkActive = port.uplinkActive;
    read.addresses = port.addresses;
    if (VsStatus status = ReadOwnPolicies(reader, owner, read)) return status;
    if (VsStatus status = port.uplink ? STATUS_OK : ReadTeam(reader, owner, teamings, read.team))
        return status;
    port = std::move(read);
    return STATUS_OK;
}

VsStatus ReadPrivateVlans(Reader &reader, const std::string &switchId, SwitchConfig &config)
{
    std::string value;
    const VsStatus status = ReadValue(reader, {StoredLevel::GLOBAL, switchId}, KEY_PRIVATE_VLANS, value);
    config.privateVlans = DecodePrivateVlans(value);
    return status;
}

VsStatus ReadAddresses(Reader &reader, const std::string &portset, const std::string &portId,
                       PortConfig &port)
{
    std::vector<VSwitchMacEntry> entries;
    const VsStatus status = ReadStoredAddresses(reader, portset, portId, entries);
    port.addresses.clear();
    for (const VSwitchMacEntry &entry : entries) {
        if (entry.type != VSWITCH_MAC_STATIC) continue;
        StaticAddress &address = port.addresses.emplace_back();
        address.vlan = entry.vlanId;
        memcpy(address.mac, entry.address, sizeof(address.mac));
    }
    return status;
}

// Addresses are known in the primary VLAN, so those of two VLANs may become one.
void MoveToPrimaryVlans(const SwitchConfig &vswitch, PortConfig &port)
{
    for (StaticAddress &address : port.addresses)
        address.vlan = static_cast<uint16_t>(LivePrimaryVlan(IdentityOf(vswitch, address.vlan)));
    std::sort(port.addresses.begin(), port.addresses.end());
    port.addresses.erase(std::unique(port.addresses.begin(), port.addresses.end()), port.addresses.end());
}

// 0 stands for no ageing.
uint32_t ShorterAge(uint32_t a, uint32_t b) { return a == 0 || b == 0 ? std::max(a, b) : std::min(a, b); }

VsStatus ReadProps(Reader &reader, VSwitchLearningProps &props)
{
    const VsStatus status = GetRecord(reader, runtime::LearningPropsKey(), props);
    return status == STATUS_NOT_FOUND ? STATUS_OK : status;
}

VsStatus ReadLimits(Reader &reader, const std::string &switchId, SwitchConfig &config)
{
    std::string record;
    VSwitchLearningProps props = DEFAULT_LEARNING_PROPS;
    VsStatus status = ReadValue(reader, {StoredLevel::HOST, switchId}, KEY_SWITCH_LEARNING, record);
    if (!status) status = ReadProps(reader, props);
    if (record.size() == 8) {
        config.ageingSeconds = 0;
        memcpy(&config.ageingSeconds, record.data(), 3);
        memcpy(&config.addressLimit, record.data() + 4, sizeof(config.addressLimit));
    }
    config.ageingSeconds = ShorterAge(config.ageingSeconds, props.agingSeconds);
    return status;
}

VsStatus ReadLearnStatic(Reader &reader, const std::string &switchId, SwitchConfig &config)
{
    std::string value;
    const VsStatus status = ReadValue(reader, {StoredLevel::HOST, switchId}, KEY_LEARN_STATIC, value);
    config.learnsStatic = value.starts_with("true");
    return status;
}

VsStatus ReadMulticastMode(Reader &reader, const std::string &switchId, SwitchConfig &config)
{
    std::string value;
    const VsStatus status = ReadValue(reader, {StoredLevel::GLOBAL, switchId}, KEY_MULTICAST_MODE, value);
    config.snooping = Text(value) == "snooping";
    return status;
}

VsStatus ReadSwitchPolicies(Reader &reader, const std::string &portset, SwitchConfig &config)
{
    Portset running;
    if (VsStatus status = GetRecord(reader, runtime::PortsetKey(portset), running)) return status;
    config.mtu = running.mtu;
    if (VsStatus status = ReadLimits(reader, config.id, config)) return status;
    if (VsStatus status = ReadLearnStatic(reader, config.id, config)) return status;
    if (VsStatus status = ReadMirrors(reader, config.id, config.mirrors)) return status;
    if (VsStatus status = ReadMulticastMode(reader, config.id, config)) return status;
    return ReadPrivateVlans(reader, config.id, config);
}

}

VsStatus ReadPortPolicies(Reader &reader, const PortName &name, PortConfig &port)
{
    Teamings teamings;
    const VsStatus status = ReadTeamings(reader, name.switchId, teamings);
    return status ? status : ReadPolicies(reader, name, teamings, port);
}

VsStatus ReadPortAddresses(Reader &reader, const PortName &name, PortConfig &port)
{
    std::string portset;
    SwitchConfig vswitch;
    if (VsStatus status = PortsetOfSwitch(reader, name.switchId, portset)) return status;
    if (VsStatus status = ReadPrivateVlans(reader, name.switchId, vswitch)) return status;
    if (VsStatus status = ReadAddresses(reader, portset, name.portId, port)) return status;
    MoveToPrimaryVlans(vswitch, port);
    return STATUS_OK;
}

VsStatus ReadSwitchConfig(Reader &reader, const std::string &switchId, const Plugged &plugged,
                          SwitchConfig &config)
{
    std::string portset;
    std::vector<std::string> uplinks;
    Teamings teamings;
    config.id = switchId;
    if (VsStatus status = PortsetOfSwitch(reader, switchId, portset)) return status;
    if (VsStatus status = ReadSwitchPolicies(reader, portset, config)) return status;
    if (VsStatus status = ListUplinkPorts(reader, switchId, uplinks)) return status;
    if (VsStatus status = ReadTeamings(reader, switchId, teamings)) return status;
    for (const auto &[portId, interface] : plugged) {
        PortConfig port;
        const VsStatus found = GetPortNumber(reader, switchId, portId, port.number);
        if (found == STATUS_NOT_FOUND) continue;
        if (found) return found;
        port.ifindex = interface.ifindex;
        port.uplinkActive = interface.isUp;
        port.uplink = std::find(uplinks.begin(), uplinks.end(), portId) != uplinks.end();
        if (VsStatus status = ReadPolicies(reader, {switchId, portId}, teamings, port)) return status;
        if (VsStatus status = ReadAddresses(reader, portset, portId, port)) return status;
        MoveToPrimaryVlans(config, port);
        config.ports.push_back(std::move(port));
    }
    return STATUS_OK;
}

VsStatus ReadHostConfig(Reader &reader, HostConfig &config)
{
    VSwitchLearningProps props = DEFAULT_LEARNING_PROPS;
    const VsStatus status = ReadProps(reader, props);
    config.learningEnabled = props.enabled;
    config.addressLimit = props.limit;
    config.floodLimit = 0;
    const VsStatus option =
        GetRecord(reader, runtime::OptionKey(VSWITCH_OPTION_FLOOD_LIMIT), config.floodLimit);
    return status ? status : option == STATUS_NOT_FOUND ? STATUS_OK : option;
}

}
