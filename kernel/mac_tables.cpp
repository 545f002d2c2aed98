// MAC tables of ports and teams, and MAC learning as the driver runs it.
#include <cstring>

#include "kernel/channel.h"

namespace {

constexpr int32_t GET_PORT_MAC_TABLE = 4117;
constexpr int32_t GET_TEAM_MAC_TABLE = 4118;
constexpr int32_t GET_PORT_MAC_LEARNING_STATS = 4119;
constexpr int32_t GET_GLOBAL_MAC_LEARNING_PROPS = 4120;
constexpr int32_t GET_SWITCH_MAC_LEARNING_INFO = 4121;
constexpr int32_t SET_PORT_MAC_TABLE = 8195;
constexpr int32_t CLEAR_PORT_MAC_TABLE = 8196;
constexpr int32_t SET_GLOBAL_MAC_LEARNING_PROPS = 8197;

static_assert(sizeof(ZorMacTableEntry) == 18 && sizeof(ZorMacLearningProps) == 9);
constexpr ListShape MAC_TABLE = {LIST_HEADER_SIZE, sizeof(ZorMacTableEntry)};
// A read selects by the byte at this place of an entry.
constexpr size_t SELECTOR_OFFSET = 6;

VsStatus ChangeMACTable(int32_t command, const char *alias, const char *dvPortId,
                        const ZorMacTableEntry *entry)
{
    if (!alias || !dvPortId || !entry) return STATUS_BAD_PARAM;
    Request request;
    if (VsStatus status = request.ResolvePort(alias, dvPortId)) return status;
    request.input.macEntry.entry = *entry;
    return request.Change(command);
}

}

VsStatus VSZOR_GetPortMACTable(const char *alias, const char *dvPortId, uint8_t selector, void **table)
{
    if (!alias || !dvPortId || !table) return STATUS_BAD_PARAM;
    Request request;
    if (VsStatus status = request.ResolvePort(alias, dvPortId)) return status;
    request.input.macEntry.entry.bytes[SELECTOR_OFFSET] = selector;
    return request.QueryList(GET_PORT_MAC_TABLE, MAC_TABLE, table);
}

VsStatus VSZOR_SetPortMACTable(const char *alias, const char *dvPortId, const ZorMacTableEntry *entry)
{
    return ChangeMACTable(SET_PORT_MAC_TABLE, alias, dvPortId, entry);
}

VsStatus VSZOR_ClearPortMACTable(const char *alias, const char *dvPortId, const ZorMacTableEntry *entry)
{
    return ChangeMACTable(CLEAR_PORT_MAC_TABLE, alias, dvPortId, entry);
}

VsStatus VSZOR_GetTeamMACTable(const char *alias, int32_t selector, void **table)
{
    if (!alias || !table) return STATUS_BAD_PARAM;
    Request request;
    if (VsStatus status = request.ResolveName(alias)) return status;
    request.input.macEntry.entry.bytes[SELECTOR_OFFSET] = static_cast<uint8_t>(selector);
    return request.QueryList(GET_TEAM_MAC_TABLE, MAC_TABLE, table);
}

VsStatus VSZOR_GetPortMACLearningStats(const char *dvPortId, const char *alias, void *stats)
{
    if (!dvPortId || !alias || !stats) return STATUS_BAD_PARAM;
    Request request;
    if (VsStatus status = request.ResolvePort(alias, dvPortId)) return status;
    memset(stats, 0, PORT_MAC_LEARNING_STATS_SIZE);
    return request.Query(GET_PORT_MAC_LEARNING_STATS, stats, PORT_MAC_LEARNING_STATS_SIZE);
}

VsStatus VSZOR_GetGlobalMACLearningProps(ZorMacLearningProps *props)
{
    if (!props) return STATUS_BAD_PARAM;
    Request request;
    return request.Query(GET_GLOBAL_MAC_LEARNING_PROPS, props, sizeof(*props));
}

VsStatus VSZOR_SetGlobalMACLearningProps(const ZorMacLearningProps *props)
{
    if (!props) return STATUS_BAD_PARAM;
    Request request;
    request.input.macLearning.props = *props;
    return request.Change(SET_GLOBAL_MAC_LEARNING_PROPS);
}

VsStatus VSZOR_GetSwitchMACLearningInfo(const char *portsetName, void *info)
{
    if (!portsetName || !info) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    return request.Query(GET_SWITCH_MAC_LEARNING_INFO, info, SWITCH_MAC_LEARNING_INFO_SIZE);
}
