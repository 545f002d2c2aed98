#include "platform/live/store_config.h"

#include <algorithm>

#include "platform/host/port_policies.h"
#include "platform/host/runtime.h"

namespace live {
namespace {

using namespace vshost;

constexpr std::string_view KEY_BLOCK = "com.talpex.common.port.block";
constexpr std::string_view KEY_PRIORITY = "com.talpex.vswitch.port.priority";
constexpr std::string_view KEY_SWITCH_LEARNING = "com.talpex.vswitch.macLearning";

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

// Empty when it is absent.
VsStatus ReadValue(Reader &reader, const PropertyOwner &owner, std::string_view key, std::string &value)
{
    StoredProperty property;
    const VsStatus status = GetProperty(reader, owner, key, property);
    value = std::move(property.value);
    return status == STATUS_NOT_FOUND ? STATUS_OK : status;
}

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
    std::sort(port.addresses.begin(), port.addresses.end());
    return status;
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

}

VsStatus ReadPortPolicies(Reader &reader, const PortName &name, PortConfig &port)
{
    const PropertyOwner owner{StoredLevel::PORT, name.switchId, name.portId};
    std::string block, vlan, priority, learning, filter;
    VsStatus status = ReadValue(reader, owner, KEY_BLOCK, block);
    if (!status) status = ReadValue(reader, owner, KEY_VLAN, vlan);
    if (!status) status = ReadValue(reader, owner, KEY_PRIORITY, priority);
    if (!status) status = ReadValue(reader, owner, KEY_PORT_MAC_MANAGEMENT, learning);
    if (!status) status = ReadValue(reader, owner, KEY_ETH_FILTER, filter);
    PortConfig read;
    read.number = port.number;
    read.ifindex = port.ifindex;
    read.uplink = port.uplink;
    read.uplinkActive = port.uplinkActive;
    read.addresses = std::move(port.addresses);
    read.blocked = Text(block) == "true";
    read.sink = IsSinkPort(filter);
    TakeVlans(vlan, read);
    TakePriority(priority, read);
    TakeLearning(learning, read);
    port = std::move(read);
    return status;
}

VsStatus ReadPortAddresses(Reader &reader, const PortName &name, PortConfig &port)
{
    std::string portset;
    const VsStatus status = PortsetOfSwitch(reader, name.switchId, portset);
    return status ? status : ReadAddresses(reader, portset, name.portId, port);
}

VsStatus ReadSwitchConfig(Reader &reader, const std::string &switchId, const Plugged &plugged,
                          SwitchConfig &config)
{
    std::string portset;
    Portset running;
    std::vector<std::string> uplinks;
    config.id = switchId;
    VsStatus status = PortsetOfSwitch(reader, switchId, portset);
    if (!status) status = GetRecord(reader, runtime::PortsetKey(portset), running);
    if (!status) status = ListUplinkPorts(reader, switchId, uplinks);
    if (!status) status = ReadLimits(reader, switchId, config);
    config.mtu = running.mtu;
    for (const auto &[portId, interface] : plugged) {
        if (status) return status;
        PortConfig port;
        status = GetPortNumber(reader, switchId, portId, port.number);
        if (status == STATUS_NOT_FOUND) {
            status = STATUS_OK;
            continue;
        }
        port.ifindex = interface.ifindex;
        port.uplinkActive = interface.isUp;
        port.uplink = std::find(uplinks.begin(), uplinks.end(), portId) != uplinks.end();
        if (!status) status = ReadPortPolicies(reader, {switchId, portId}, port);
        if (!status) status = ReadAddresses(reader, portset, portId, port);
        if (!status) config.ports.push_back(std::move(port));
    }
    return status;
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
