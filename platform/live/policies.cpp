#include "platform/live/policies.h"

#include <cstring>

#include "platform/host/runtime.h"

namespace live {
namespace {

using vshost::DecodeRecord;

constexpr uint32_t SECURITY_BITS =
    VSWITCH_SECURITY_ADDRESSED_ONLY | VSWITCH_SECURITY_ADDRESS_LOCK | VSWITCH_SECURITY_STATIC_ONLY;

bool IsVlan(uint16_t vlan) { return vlan >= 1 && vlan <= LIVE_VLAN_MAX; }

bool IsWhole(const VSwitchFilter &filter)
{
    if (filter.ruleCount > VSWITCH_FILTER_RULES) return false;
    for (uint32_t i = 0; i < filter.ruleCount; i++)
        if (filter.rules[i].direction > VSWITCH_FILTER_TO_PORT ||
            filter.rules[i].action > VSWITCH_FILTER_DROP)
            return false;
    return true;
}

}

void DecodeSecurity(std::string_view value, PortConfig &port)
{
    uint32_t bits;
    if (!DecodeRecord(value, bits) || bits & ~SECURITY_BITS) return;
    port.getsAllFrames = !(bits & VSWITCH_SECURITY_ADDRESSED_ONLY);
    port.addressLock = bits & VSWITCH_SECURITY_ADDRESS_LOCK;
    port.staticOnly = bits & VSWITCH_SECURITY_STATIC_ONLY;
}

void DecodeFilter(std::string_view value, PortConfig &port)
{
    VSwitchFilter filter;
    if (!DecodeRecord(value, filter) || !IsWhole(filter)) return;
    for (uint32_t i = 0; i < filter.ruleCount; i++) {
        const VSwitchFilterRule &rule = filter.rules[i];
        port.filter.push_back({rule.etherType, static_cast<VSwitchFilterDirection>(rule.direction),
                               static_cast<VSwitchFilterAction>(rule.action)});
    }
}

std::vector<PrivateVlan> DecodePrivateVlans(std::string_view value)
{
    std::vector<PrivateVlan> map;
    for (; value.size() >= sizeof(VSwitchPvlanEntry); value.remove_prefix(sizeof(VSwitchPvlanEntry))) {
        VSwitchPvlanEntry entry;
        memcpy(&entry, value.data(), sizeof(entry));
        if (!IsVlan(entry.primary) || !IsVlan(entry.secondary) || entry.type > VSWITCH_PVLAN_COMMUNITY)
            continue;
        map.push_back({entry.primary, entry.secondary, static_cast<PrivateVlanType>(entry.type)});
    }
    return value.empty() ? map : std::vector<PrivateVlan>();
}

}
