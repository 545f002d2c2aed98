// The extra Ethernet filter of a port, and the sink port setting, which is one bit of it.
#include <cstddef>

#include "core/property.h"

static_assert(sizeof(ExtraEthFilterRecord) == 200 && offsetof(ExtraEthFilterRecord, rest) == 4);

VsStatus VSDVS_GetExtraEthFilter(const char *alias, const char *dvPortId, ExtraEthFilterRecord *record)
{
    if (!alias || !dvPortId || !record) return STATUS_BAD_PARAM;
    PropertyScope port;
    // An unknown switch must not read as an absent record.
    if (port.Resolve(alias, dvPortId) != STATUS_OK) return STATUS_FAILURE;
    return port.Get(PORT_ETH_FILTER, record);
}

VsStatus VSDVS_SetExtraEthFilter(const char *alias, const char *dvPortId, const ExtraEthFilterRecord *record)
{
    if (!alias || !dvPortId || !record) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.Set(PORT_ETH_FILTER, *record);
}

VsStatus VSDVS_ClearExtraEthFilter(const char *alias, const char *dvPortId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return OkIfAbsent(port.Clear(PORT_ETH_FILTER));
}

VsStatus VSDVS_IsSinkPortEnabled(const char *alias, const char *dvPortId, uint8_t *enabled)
{
    if (!alias || !dvPortId || !enabled) return STATUS_BAD_PARAM;
    ExtraEthFilterRecord filter = {};
    if (VsStatus status = OkIfAbsent(VSDVS_GetExtraEthFilter(alias, dvPortId, &filter))) return status;
    *enabled = (filter.firstWord & SINK_PORT_BIT) != 0;
    return STATUS_OK;
}

VsStatus VSDVS_ConfigureSinkPort(const char *alias, const char *dvPortId, uint8_t enable)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    ExtraEthFilterRecord filter = {};
    const VsStatus read = VSDVS_GetExtraEthFilter(alias, dvPortId, &filter);
    if (VsStatus status = OkIfAbsent(read)) return status;
    const uint32_t word = enable ? filter.firstWord | SINK_PORT_BIT : filter.firstWord & ~SINK_PORT_BIT;
    if (read == STATUS_OK && word == filter.firstWord) return STATUS_OK;
    filter.firstWord = word;
    return VSDVS_SetExtraEthFilter(alias, dvPortId, &filter);
}
