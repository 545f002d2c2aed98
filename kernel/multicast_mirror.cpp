// Multicast filtering and mirroring as the driver runs them.
#include <cstring>

#include "kernel/channel.h"

namespace {

constexpr int32_t GET_PROMISC_SESSION_ACTIVE_DSTS = 4100;
constexpr int32_t GET_DV_MIRROR_SESSION_IDS = 4101;
constexpr int32_t GET_DV_MIRROR_SESSION_STATS = 4102;
constexpr int32_t GET_MCAST_FILTER_MODE = 4103;
constexpr int32_t GET_MCAST_FILTERS = 4104;
constexpr int32_t GET_MCAST_FILTER_STATS = 4105;

static_assert(sizeof(ZorMcastStatsHeader) == 28 && offsetof(ZorMcastStatsHeader, count) == 20);
constexpr ListShape SESSION_ID_LIST = {LIST_HEADER_SIZE, sizeof(MirrorArgs::sessionId)};
constexpr ListShape DESTINATION_LIST = {LIST_HEADER_SIZE, sizeof(uint32_t)};

// Bytes of an address; 0 for an unknown kind.
uint32_t AddressSize(int32_t kind)
{
    switch (kind) {
    case ADDRESS_KIND_ETHERNET:
        return 6;
    case ADDRESS_KIND_IPV4:
        return 4;
    case ADDRESS_KIND_IPV6:
        return 16;
    default:
        return 0;
    }
}

void SetMulticast(Request *request, const char *portsetName, uint32_t selector, int32_t kind)
{
    request->SetName(portsetName);
    request->input.multicast.selector = selector;
    request->input.multicast.addressKind = kind;
}

VsStatus QueryListOfSwitch(int32_t command, const ListShape &shape, const char *alias, void **list)
{
    if (!alias || !list) return STATUS_BAD_PARAM;
    Request request;
    if (VsStatus status = request.ResolveName(alias)) return status;
    return request.QueryList(command, shape, list);
}

}

VsStatus VSZOR_GetMcastFilterMode(const char *portsetName, uint32_t *mode)
{
    if (!portsetName || !mode) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    return request.Query(GET_MCAST_FILTER_MODE, mode, sizeof(*mode));
}

// The driver sees the kind first: the library tests it only after the first request has succeeded.
VsStatus VSZOR_GetMcastFilters(const char *portsetName, uint32_t selector, int32_t kind, void **filters)
{
    if (!portsetName || !filters) return STATUS_BAD_PARAM;
    Request request;
    SetMulticast(&request, portsetName, selector, kind);
    ZorListHeader first = {};
    if (VsStatus status = request.Query(GET_MCAST_FILTERS, &first, sizeof(first))) return status;
    const uint32_t addressSize = AddressSize(kind);
    if (addressSize == 0) return STATUS_BAD_PARAM;
    return request.FetchList(GET_MCAST_FILTERS, {LIST_HEADER_SIZE, addressSize}, &first, filters);
}

VsStatus VSZOR_GetMcastFilterStats(const char *portsetName, uint32_t selector, int32_t kind,
                                   const void *group, void **stats)
{
    if (!portsetName || !group || !stats) return STATUS_BAD_PARAM;
    if (kind != ADDRESS_KIND_IPV4 && kind != ADDRESS_KIND_IPV6) return STATUS_BAD_PARAM;
    const uint32_t addressSize = AddressSize(kind);
    Request request;
    SetMulticast(&request, portsetName, selector, kind);
    memcpy(request.input.multicast.groupAddress, group, addressSize);
    const ListShape shape = {sizeof(ZorMcastStatsHeader), addressSize, offsetof(ZorMcastStatsHeader, count)};
    return request.QueryList(GET_MCAST_FILTER_STATS, shape, stats);
}

VsStatus VSZOR_GetDVMirrorSessionIDs(const char *alias, void **ids)
{
    return QueryListOfSwitch(GET_DV_MIRROR_SESSION_IDS, SESSION_ID_LIST, alias, ids);
}

VsStatus VSZOR_GetPromiscSessionActiveDsts(const char *alias, void **dsts)
{
    return QueryListOfSwitch(GET_PROMISC_SESSION_ACTIVE_DSTS, DESTINATION_LIST, alias, dsts);
}

VsStatus VSZOR_GetDVMirrorSessionStats(const char *alias, const char *sessionId, void *stats)
{
    if (!alias || !sessionId || !stats) return STATUS_BAD_PARAM;
    Request request;
    if (VsStatus status = request.ResolveName(alias)) return status;
    text::CopyIntoZeros(request.input.mirror.sessionId, sessionId, sizeof(request.input.mirror.sessionId));
    return request.Query(GET_DV_MIRROR_SESSION_STATS, stats, MIRROR_SESSION_STATS_SIZE);
}
