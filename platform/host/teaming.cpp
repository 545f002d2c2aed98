#include "platform/host/teaming.h"

#include <algorithm>

#include "platform/host/policy_faults.h"
#include "platform/host/runtime.h"

namespace vshost {
namespace {

constexpr std::string_view KEY_TEAMING = "com.talpex.vswitch.teaming";
constexpr std::string_view KEY_NAMED_TEAMINGS = "com.talpex.vswitch.logicalswitch.teaming";
constexpr std::string_view KEY_PORT_TEAMING = "com.talpex.vswitch.port.teaming.policy";
constexpr std::string_view KEY_PORT_TEAMING_OVERRIDE = "com.talpex.vswitch.port.teaming.override";
constexpr std::string_view KEY_PORT_NAMED_TEAMING = "com.talpex.vswitch.port.logicalswitch.teaming";
constexpr std::string_view KEY_PORT_TX_UPLINK = "com.talpex.vswitch.port.txUplink";

// Empty when it is absent.
VsStatus ReadValue(Reader &reader, const PropertyOwner &owner, std::string_view key, std::string &value)
{
    StoredProperty property;
    const VsStatus status = GetProperty(reader, owner, key, property);
    value = std::move(property.value);
    return status == STATUS_NOT_FOUND ? STATUS_OK : status;
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

VsStatus ReadUplinkNumber(Reader &reader, std::string_view switchId, const std::string &portId,
                          UplinkNumbers &uplinks)
{
    std::string name;
    uint32_t number = 0;
    const VsStatus found = GetPortNumber(reader, switchId, portId, number);
    if (found) return found == STATUS_NOT_FOUND ? STATUS_OK : found;
    const PropertyOwner owner{StoredLevel::PORT, switchId, portId};
    if (VsStatus status = ReadValue(reader, owner, KEY_PORT_ALIAS, name)) return status;
    uplinks.emplace(name.empty() ? portId : Text(name), number);
    return STATUS_OK;
}

VsStatus ReadUplinkNumbers(Reader &reader, std::string_view switchId, Teamings &teamings)
{
    std::vector<std::string> portIds;
    if (teamings.uplinks) return STATUS_OK;
    teamings.uplinks.emplace();
    if (VsStatus status = ListUplinkPorts(reader, switchId, portIds)) return status;
    for (const std::string &portId : portIds)
        if (VsStatus status = ReadUplinkNumber(reader, switchId, portId, *teamings.uplinks)) return status;
    return STATUS_OK;
}

std::optional<Team> ChooseTeam(const Teamings &teamings, std::string_view override, std::string_view own,
                               std::string_view name)
{
    const auto uplink = teamings.uplinks->find(override);
    if (!override.empty() && uplink != teamings.uplinks->end()) {
        Team team;
        team.algorithm = VSWITCH_TEAMING_ORDER;
        team.active = {uplink->second};
        return team;
    }
    for (std::string_view policy :
         {own, FindNamedTeam(teamings.named, name), std::string_view(teamings.ofSwitch)})
        if (std::optional<Team> team = DecodeTeam(policy, *teamings.uplinks)) return team;
    return {};
}

bool Contains(const std::vector<uint32_t> &numbers, uint32_t number)
{
    return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

}

std::optional<Team> DecodeTeam(std::string_view value, const UplinkNumbers &uplinks)
{
    VSwitchTeamingPolicy policy;
    if (!DecodeRecord(value, policy) || FaultOf(policy)) return {};
    Team team;
    team.algorithm = static_cast<VSwitchTeamingAlgorithm>(policy.algorithm);
    team.failBack = policy.failBack;
    team.notify = policy.notify;
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

VsStatus ReadTeamings(Reader &reader, std::string_view switchId, Teamings &teamings)
{
    const PropertyOwner owner{StoredLevel::GLOBAL, switchId};
    const VsStatus status = ReadValue(reader, owner, KEY_TEAMING, teamings.ofSwitch);
    return status ? status : ReadValue(reader, owner, KEY_NAMED_TEAMINGS, teamings.named);
}

VsStatus ReadTeam(Reader &reader, const PropertyOwner &port, Teamings &teamings, std::optional<Team> &team)
{
    std::string override, own, name, txUplink;
    const std::pair<std::string_view, std::string *> values[] = {{KEY_PORT_TEAMING_OVERRIDE, &override},
                                                                 {KEY_PORT_TEAMING, &own},
                                                                 {KEY_PORT_NAMED_TEAMING, &name},
                                                                 {KEY_PORT_TX_UPLINK, &txUplink}};
    for (const auto &[key, value] : values)
        if (VsStatus status = ReadValue(reader, port, key, *value)) return status;
    team.reset();
    if (override.empty() && own.empty() && name.empty() && teamings.ofSwitch.empty()) return STATUS_OK;
    if (VsStatus status = ReadUplinkNumbers(reader, port.switchId, teamings)) return status;
    team = ChooseTeam(teamings, Text(override), own, Text(name));
    if (team) team->anyUplink = Text(txUplink) == "always";
    return STATUS_OK;
}

std::vector<uint32_t> UplinksInOrder(const std::optional<Team> &team, const std::vector<uint32_t> &uplinks,
                                     uint32_t hash)
{
    std::vector<uint32_t> order;
    const auto add = [&](const std::vector<uint32_t> &numbers) {
        for (uint32_t number : numbers)
            if (Contains(uplinks, number) && !Contains(order, number)) order.push_back(number);
    };
    add(team ? team->active : uplinks);
    if (!order.empty())
        std::rotate(order.begin(), order.begin() + static_cast<ptrdiff_t>(hash % order.size()), order.end());
    if (team) add(team->standby);
    if (team && team->anyUplink) add(uplinks);
    return order;
}

}
