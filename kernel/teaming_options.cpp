// Teaming statistics, the driver's runtime options, and the pass-through to the RTM device.
#include <cstring>

#include "kernel/channel.h"

namespace {

constexpr int32_t GET_RARP_STATS = 4097;
constexpr int32_t GET_SERVICE_PORT_TEAMING_STATS = 4098;
constexpr int32_t GET_RUNTIME_OPTIONS = 4099;
constexpr int32_t GET_PORT_LS_TEAMING_POLICY_NAME = 4124;
constexpr int32_t GET_LS_TEAMING_POLICY_TABLE = 4125;
constexpr int32_t SET_RUNTIME_OPTIONS = 8193;

constexpr ListShape LS_TEAMING_TABLE = {sizeof(LSTeamingPolicyTable), sizeof(LSTeamingPolicyEntry)};
constexpr uint32_t RTM_HEADER_SIZE = 9;
constexpr uint32_t RTM_ENTRY_SIZE = 128;

uint32_t FirstWord(const void *record)
{
    uint32_t word = 0;
    memcpy(&word, record, sizeof(word));
    return word;
}

VsStatus GetStatistics(int32_t command, const char *portsetName, void *stats, uint32_t size)
{
    if (!portsetName || !stats) return STATUS_BAD_PARAM;
    Request request;
    request.SetName(portsetName);
    memset(stats, 0, size);
    return request.Query(command, stats, size);
}

}

VsStatus VSZOR_GetRARPStats(const char *portsetName, void *stats)
{
    return GetStatistics(GET_RARP_STATS, portsetName, stats, RARP_STATS_SIZE);
}

VsStatus VSZOR_GetServicePortTeamingStats(const char *portsetName, void *stats)
{
    return GetStatistics(GET_SERVICE_PORT_TEAMING_STATS, portsetName, stats, SERVICE_PORT_TEAMING_STATS_SIZE);
}

// Without ids there is no input, and the driver answers with every option.
VsStatus VSZOR_GetRuntimeOptions(const uint16_t *ids, uint16_t idCount, void **options)
{
    if (!options) return STATUS_BAD_PARAM;
    *options = nullptr;
    if (idCount == 0) ids = nullptr;
    Request request(ids, ids ? static_cast<uint32_t>(idCount * sizeof(*ids)) : 0);
    return request.QueryBuffer(GET_RUNTIME_OPTIONS, RUNTIME_OPTIONS_SIZE, options);
}

VsStatus VSZOR_SetRuntimeOptions(const void *record)
{
    if (!record) return STATUS_BAD_PARAM;
    Request request(record, FirstWord(record));
    return request.Change(SET_RUNTIME_OPTIONS);
}

VsStatus VSZOR_GetPortLSTeamingPolicyName(uint32_t portNumber, char *policyName)
{
    if (!policyName) return STATUS_BAD_PARAM;
    Request request;
    request.SetPortId(portNumber);
    memset(policyName, 0, LS_TEAMING_POLICY_NAME_SIZE);
    return request.Query(GET_PORT_LS_TEAMING_POLICY_NAME, policyName, LS_TEAMING_POLICY_NAME_SIZE);
}

VsStatus VSZOR_GetLSTeamingPolicyTable(const char *alias, LSTeamingPolicyTable **table)
{
    if (!alias || !table) return STATUS_BAD_PARAM;
    Request request;
    if (VsStatus status = request.ResolveName(alias)) return status;
    return request.QueryList(GET_LS_TEAMING_POLICY_TABLE, LS_TEAMING_TABLE, reinterpret_cast<void **>(table));
}

VsStatus VSZOR_RTMOp(const void *record, uint32_t command)
{
    if (!record) return STATUS_BAD_PARAM;
    const uint32_t length = FirstWord(record) * RTM_ENTRY_SIZE + RTM_HEADER_SIZE;
    ZorRequestHeader header = {length, 0, reinterpret_cast<uint64_t>(record), 0};
    return ZORIoctl(ZOR_RTM_DEVICE, static_cast<int32_t>(command), &header);
}
