// Teaming of one port: its own policy, an override text, and whether it always has a transmit uplink.
#include <cstring>

#include "core/property.h"

namespace {

constexpr char ALWAYS[] = "always";
constexpr char NORMAL[] = "normal";
// A stored policy is longer than this, and no longer than the record.
constexpr uint32_t NO_POLICY_LENGTH = 7;

}

VsStatus VSDVS_GetTxUplinkAlways(const char *alias, const char *dvPortId, uint8_t *always)
{
    if (!alias || !dvPortId || !always) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    StoreValue value;
    if (VsStatus status = port.Get(PORT_TX_UPLINK, &value)) return status;
    *always = value.StartsWith(ALWAYS, sizeof(ALWAYS));
    return STATUS_OK;
}

VsStatus VSDVS_SetTxUplinkAlways(const char *alias, const char *dvPortId, uint8_t always)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.SetText(PORT_TX_UPLINK, always ? ALWAYS : NORMAL);
}

VsStatus VSDVS_GetPortTeamingPolicy(const char *alias, const char *dvPortId, TeamingPolicy *policy)
{
    if (!alias || !dvPortId || !policy) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    StoreValue value;
    if (VsStatus status = port.Get(PORT_TEAMING, &value)) return status;
    if (value.length <= NO_POLICY_LENGTH || value.length > sizeof(*policy)) return STATUS_FAILURE;
    value.CopyTo(policy);
    return STATUS_OK;
}

VsStatus VSDVS_SetPortTeamingPolicy(const char *alias, const char *dvPortId, const TeamingPolicy *policy)
{
    if (!alias || !dvPortId || !policy) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.Set(PORT_TEAMING, *policy);
}

VsStatus VSDVS_ClearPortTeamingPolicy(const char *alias, const char *dvPortId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return OkIfAbsent(port.Clear(PORT_TEAMING));
}

VsStatus VSDVS_GetPortTeamingOverride(const char *alias, const char *dvPortId, char *text)
{
    if (!text) return STATUS_BAD_PARAM;
    memset(text, 0, TEAMING_OVERRIDE_SIZE);
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    if (VsStatus status = port.GetAtMost(PORT_TEAMING_OVERRIDE, text, TEAMING_OVERRIDE_SIZE)) return status;
    text[TEAMING_OVERRIDE_SIZE - 1] = '\0';
    return STATUS_OK;
}

VsStatus VSDVS_SetPortTeamingOverride(const char *alias, const char *dvPortId, const char *text)
{
    if (!alias || !dvPortId || !text) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.SetText(PORT_TEAMING_OVERRIDE, text);
}

VsStatus VSDVS_ClearPortTeamingOverride(const char *alias, const char *dvPortId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return OkIfAbsent(port.Clear(PORT_TEAMING_OVERRIDE));
}
