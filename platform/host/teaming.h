// Teaming: which policy a port follows, and by which of its switch's uplinks it sends.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/tables.h"
#include "platform/include/vswitch_policy.h"

namespace vshost {

// A teaming policy. Uplinks are named by their ports' numbers; those that the switch doesn't have are left
// out.
struct Team {
    VSwitchTeamingAlgorithm algorithm = VSWITCH_TEAMING_PORT;
    bool failBack = true;
    bool notify = false; // the network is told when a port comes to another uplink
    std::vector<uint32_t> active;
    std::vector<uint32_t> standby;
    bool anyUplink = false; // when none of these works, any uplink of the switch will do
    bool operator==(const Team &) const = default;
};

// The numbers of a switch's uplink ports by their names.
using UplinkNumbers = std::map<std::string, uint32_t, std::less<>>;

// A record that is not whole, or of another version, counts as absent.
std::optional<Team> DecodeTeam(std::string_view value, const UplinkNumbers &uplinks);

// The policy of that name in a table of logical switches; empty when there is none.
std::string_view FindNamedTeam(std::string_view table, std::string_view name);

// What the ports of a switch choose their uplinks by. Its uplinks are read when a policy names some.
struct Teamings {
    std::string ofSwitch;
    std::string named;
    std::optional<UplinkNumbers> uplinks;
};

VsStatus ReadTeamings(Reader &reader, std::string_view switchId, Teamings &teamings);

// A port's override names its uplink. Without it the port's own policy holds, then that of its logical
// switch, then the switch's. None: all uplinks, by the port's number.
VsStatus ReadTeam(Reader &reader, const PropertyOwner &port, Teamings &teamings, std::optional<Team> &team);

// The name of the logical switch's policy that a port follows; empty: it follows another one, or none.
VsStatus ReadFollowedName(Reader &reader, const PropertyOwner &port, std::string &name);

// Those of the uplinks that a frame may leave by, in the order in which it tries them: active ones from the
// one that the hash chooses, then standby ones, then others where the policy lets any uplink do.
std::vector<uint32_t> UplinksInOrder(const std::optional<Team> &team, const std::vector<uint32_t> &uplinks,
                                     uint32_t hash);

}
