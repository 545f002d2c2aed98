// Running switches and their uplinks, LAGs and links.
#include <cstdlib>
#include <cstring>

#include "kernel/channel.h"

namespace {

constexpr int32_t GET_UPLINKS = 4106;
constexpr int32_t GET_UPLINK_LINK_STATE = 4107;
constexpr int32_t GET_UPLINK_LACP_LINK_STATE = 4108;
constexpr int32_t GET_LAG_TABLE = 4109;
constexpr int32_t GET_VS_INFO = 4111;
constexpr int32_t GET_TEAM_UPLINK_HINT = 4122;
constexpr int32_t GET_UPLINK_DV_PORT_ID = 4123;
constexpr int32_t GET_SWITCHES = 4126;
constexpr int32_t SET_UPLINK_ADMIN_LINK_STATE = 8194;
constexpr int32_t REFRESH_DEV_NUMA_INFO = 8198;

constexpr ListShape UPLINK_LIST = {LIST_HEADER_SIZE, UPLINK_ENTRY_SIZE};
constexpr ListShape PORTSET_NAME_LIST = {LIST_HEADER_SIZE, PORTSET_NAME_SIZE};
constexpr ListShape SHORT_NAME_LIST = {LIST_HEADER_SIZE, 81};
constexpr uint32_t PORTSET_NAMES_KIND = 1;
constexpr uint32_t NO_ANSWER = 0xFFFFFFFF;

VsStatus GetLinkState(int32_t command, const char *portsetName, const char *uplinkName, uint32_t *linkUp)
{
    if (!portsetName || !uplinkName || !linkUp) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    request.SetUplink(uplinkName);
    uint32_t state = 0;
    if (VsStatus status = request.Query(command, &state, sizeof(state))) return status;
    *linkUp = state != 0;
    return STATUS_OK;
}

}

// The driver may answer although its first status is a failure: only an unchanged count is a failure.
VsStatus VSZOR_GetSwitches(uint32_t kind, void **switches)
{
    if (!switches) return STATUS_BAD_PARAM;
    *switches = nullptr;
    Request request(&kind, sizeof(kind));
    ZorListHeader first = {NO_ANSWER, 0};
    request.Query(GET_SWITCHES, &first, sizeof(first));
    if (first.count == NO_ANSWER) return STATUS_FAILURE;
    if (first.count == 0) first.aux = kind;
    const ListShape &shape = kind == PORTSET_NAMES_KIND ? PORTSET_NAME_LIST : SHORT_NAME_LIST;
    return request.FetchList(GET_SWITCHES, shape, &first, switches);
}

VsStatus VSZOR_GetVSInfo(const char *portsetName, void *info)
{
    if (!portsetName || !info) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    memset(info, 0, VS_INFO_SIZE);
    return request.Query(GET_VS_INFO, info, VS_INFO_SIZE);
}

VsStatus VSZOR_GetUplinks(const char *portsetName, void **uplinks)
{
    if (!portsetName || !uplinks) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    return request.QueryList(GET_UPLINKS, UPLINK_LIST, uplinks);
}

VsStatus VSZOR_GetUplinkLinkState(const char *portsetName, const char *uplinkName, uint32_t *linkUp)
{
    return GetLinkState(GET_UPLINK_LINK_STATE, portsetName, uplinkName, linkUp);
}

VsStatus VSZOR_GetUplinkLACPLinkState(const char *portsetName, const char *uplinkName, uint32_t *linkUp)
{
    return GetLinkState(GET_UPLINK_LACP_LINK_STATE, portsetName, uplinkName, linkUp);
}

VsStatus VSZOR_SetUplinkAdminLinkState(const char *portsetName, const char *uplinkName, int32_t upFlag)
{
    if (!portsetName || !uplinkName) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    request.SetUplink(uplinkName);
    request.input.uplink.adminUp = upFlag != 0;
    return request.Change(SET_UPLINK_ADMIN_LINK_STATE);
}

VsStatus VSZOR_GetLAGTable(const char *portsetName, void **table)
{
    if (!portsetName || !table) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    return request.QueryBuffer(GET_LAG_TABLE, LAG_TABLE_SIZE, table);
}

VsStatus VSZOR_PortGetTeamUplinkHint(uint32_t portNumber, void *hint)
{
    if (!hint) return STATUS_BAD_PARAM;
    Request request;
    request.SetPortId(portNumber);
    memset(hint, 0, UPLINK_HINT_SIZE);
    return request.Query(GET_TEAM_UPLINK_HINT, hint, UPLINK_HINT_SIZE);
}

VsStatus VSZOR_GetUplinkDVPortID(const char *uplinkName, char *dvPortId)
{
    if (!uplinkName || !dvPortId) return STATUS_BAD_PARAM;
    Request request;
    request.SetUplink(uplinkName);
    memset(dvPortId, 0, DV_PORT_ID_SIZE);
    return request.Query(GET_UPLINK_DV_PORT_ID, dvPortId, DV_PORT_ID_SIZE);
}

VsStatus VSZOR_RefreshDevNUMAInfo(const char *portsetName)
{
    if (!portsetName) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    return request.Change(REFRESH_DEV_NUMA_INFO);
}
