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

// What is stored at a port.
struct PortTeaming {
    std::string override;
    std::string own;
    std::string name; // of its logical switch
    std::string txUplink;

    bool IsEmpty() const { return override.empty() && own.empty() && name.empty(); }
};

VsStatus ReadPortTeaming(Reader &reader, const PropertyOwner &port, PortTeaming &teaming)
{
    return ReadValues(reader, port,
                      {{KEY_PORT_TEAMING_OVERRIDE, &teaming.override},
                       {KEY_PORT_TEAMING, &teaming.own},
                       {KEY_PORT_NAMED_TEAMING, &teaming.name},
                       {KEY_PORT_TX_UPLINK, &teaming.txUplink}});
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

// Which policy a port follows.
enum class Followed { NONE, OVERRIDE, OWN, NAMED, OF_SWITCH };

std::pair<Followed, std::optional<Team>> ChooseTeam(const Teamings &teamings, const PortTeaming &port)
{
    const std::string_view override = Text(port.override);
    const auto uplink = teamings.uplinks->find(override);
    if (!override.empty() && uplink != teamings.uplinks->end()) {
        Team team;
        team.algorithm = VSWITCH_TEAMING_ORDER;
        team.active = {uplink->second};
        return {Followed::OVERRIDE, team};
    }
    const std::pair<Followed, std::string_view> policies[] = {
        {Followed::OWN, port.own},
        {Followed::NAMED, FindNamedTeam(teamings.named, Text(port.name))},
        {Followed::OF_SWITCH, teamings.ofSwitch}};
    for (const auto &[followed, policy] : policies)
        if (std::optional<Team> team = DecodeTeam(policy, *teamings.uplinks)) return {followed, team};
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
    PortTeaming stored;
    team.reset();
    if (VsStatus status = ReadPortTeaming(reader, port, stored)) return status;
    if (stored.IsEmpty() && teamings.ofSwitch.empty()) return STATUS_OK;
    if (VsStatus status = ReadUplinkNumbers(reader, port.switchId, teamings)) return status;
    team = ChooseTeam(teamings, stored).second;
    if (team) team->anyUplink = Text(stored.txUplink) == "always";
    return STATUS_OK;
}

VsStatus ReadFollowedName(Reader &reader, const PropertyOwner &port, std::string &name)
{
    PortTeaming stored;
    Teamings teamings;
    name.clear();
    if (VsStatus status = ReadPortTeaming(reader, port, stored)) return status;
    if (stored.name.empty()) return STATUS_OK;
    if (VsStatus status = ReadTeamings(reader, port.switchId, teamings)) return status;
    if (VsStatus status = ReadUplinkNumbers(reader, port.switchId, teamings)) return status;
    if (ChooseTeam(teamings, stored).first == Followed::NAMED) name = Text(stored.name);
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
