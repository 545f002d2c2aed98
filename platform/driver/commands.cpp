// The table of the driver's commands.
#include <algorithm>
#include <iterator>

#include "platform/driver/request.h"

namespace vshost {

namespace {

constexpr uint32_t COMMON = sizeof(VSwitchInput);

constexpr DriverCommand COMMANDS[] = {
    {VSWITCH_GET_RARP_STATS, COMMON, PORTSET, GetRarpStats},
    {VSWITCH_GET_SERVICE_TEAMING_STATS, COMMON, PORTSET, GetServiceTeamingStats},
    {VSWITCH_GET_OPTIONS, 0, 0, GetOptions},
    {VSWITCH_GET_PROMISCUOUS_PORTS, COMMON, PORTSET, GetPromiscuousPorts},
    {VSWITCH_GET_MIRROR_SESSIONS, COMMON, PORTSET, GetMirrorSessions},
    {VSWITCH_GET_MIRROR_STATS, COMMON, PORTSET | MIRROR_SESSION, GetMirrorStats},
    {VSWITCH_GET_MCAST_MODE, COMMON, PORTSET, GetMcastMode},
    {VSWITCH_GET_MCAST_GROUPS, COMMON, PORTSET, GetMcastGroups},
    {VSWITCH_GET_MCAST_STATS, COMMON, PORTSET, GetMcastStats},
    {VSWITCH_GET_UPLINKS, COMMON, PORTSET, GetUplinks},
    {VSWITCH_GET_UPLINK_LINK, COMMON, PORTSET | UPLINK, GetUplinkLink},
    {VSWITCH_GET_UPLINK_LACP, COMMON, PORTSET | UPLINK, GetUplinkLacp},
    {VSWITCH_GET_LAGS, COMMON, PORTSET, GetLags},
    {VSWITCH_GET_INFO, COMMON, PORTSET, GetInfo},
    {VSWITCH_GET_PORT_MACS, COMMON, SWITCH | PORT, GetPortMacs},
    {VSWITCH_GET_TEAM_MACS, COMMON, PORTSET, GetTeamMacs},
    {VSWITCH_GET_PORT_LEARNING_STATS, COMMON, SWITCH | PORT, GetPortLearningStats},
    {VSWITCH_GET_LEARNING_PROPS, COMMON, 0, GetLearningProps},
    {VSWITCH_GET_LEARNING_INFO, COMMON, PORTSET, GetLearningInfo},
    {VSWITCH_GET_UPLINK_HINT, COMMON, PORT_NUMBER, GetUplinkHint},
    {VSWITCH_GET_UPLINK_PORT, COMMON, UPLINK, GetUplinkPort},
    {VSWITCH_GET_PORT_LS_POLICY, COMMON, PORT_NUMBER, GetPortLsPolicy},
    {VSWITCH_GET_LS_POLICIES, COMMON, PORTSET, GetLsPolicies},
    {VSWITCH_GET_SWITCHES, sizeof(uint32_t), 0, GetSwitches},
    {VSWITCH_GET_PORT_STATISTICS, COMMON, SWITCH | PORT, GetPortStatistics},
    {VSWITCH_SET_OPTIONS, 0, 0, SetOptions},
    {VSWITCH_SET_UPLINK_ADMIN, COMMON, PORTSET | UPLINK, SetUplinkAdmin},
    {VSWITCH_SET_PORT_MAC, COMMON, SWITCH | PORT, SetPortMac},
    {VSWITCH_CLEAR_PORT_MAC, COMMON, SWITCH | PORT, ClearPortMac},
    {VSWITCH_SET_LEARNING_PROPS, COMMON, 0, SetLearningProps},
    {VSWITCH_REFRESH_NUMA, COMMON, PORTSET, RefreshNuma},
};

}

const DriverCommand *FindCommand(uint32_t number)
{
    const auto found =
        std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                     [number](const DriverCommand &command) { return command.number == number; });
    return found == std::end(COMMANDS) ? nullptr : found;
}

}
