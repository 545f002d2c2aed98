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

bool IsWhole(const VSwitchTeamingPolicy &policy)
{
    return policy.version == VSWITCH_TEAMING_VERSION && policy.algorithm <= VSWITCH_TEAMING_ORDER &&
           policy.failBack <= 1 && policy.notify <= 1 && policy.activeCount <= VSWITCH_TEAMING_UPLINKS &&
           policy.standbyCount <= VSWITCH_TEAMING_UPLINKS - policy.activeCount;
}

// A text without a NUL names nothing.
template<size_t SIZE> std::string_view TextOf(const char (&field)[SIZE])
{
    const size_t length = strnlen(field, SIZE);
    return length == SIZE ? std::string_view() : std::string_view(field, length);
}

void AddUplink(const char (&name)[81], const UplinkNumbers &uplinks, std::vector<uint32_t> &numbers)
{
    const auto uplink = uplinks.find(TextOf(name));
    if (uplink != uplinks.end()) numbers.push_back(uplink->second);
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

std::optional<Team> DecodeTeam(std::string_view value, const UplinkNumbers &uplinks)
{
    VSwitchTeamingPolicy policy;
    if (!DecodeRecord(value, policy) || !IsWhole(policy)) return {};
    Team team;
    team.algorithm = static_cast<VSwitchTeamingAlgorithm>(policy.algorithm);
    team.failBack = policy.failBack;
    for (uint32_t i = 0; i < policy.activeCount + policy.standbyCount; i++)
        AddUplink(policy.uplinks[i], uplinks, i < policy.activeCount ? team.active : team.standby);
    return team;
}

std::string_view FindNamedTeam(std::string_view table, std::string_view name)
{
    uint32_t count;
    if (table.size() < sizeof(count) || name.empty()) return {};
    memcpy(&count, table.data(), sizeof(count));
    table.remove_prefix(sizeof(count));
    if (table.size() / sizeof(VSwitchNamedTeaming) < count) return {};
    for (; count > 0; count--, table.remove_prefix(sizeof(VSwitchNamedTeaming))) {
        char found[sizeof(VSwitchNamedTeaming::name)];
        memcpy(found, table.data(), sizeof(found));
        if (TextOf(found) == name) return table.substr(sizeof(found), sizeof(VSwitchTeamingPolicy));
    }
    return {};
}

}
