// Logical-switch teaming: a switch's table of policies, and the name of the policy that a port follows.
#include <cstring>

#include "core/property.h"

namespace {

static_assert(sizeof(LSTeamingPolicyTable) == 4 && sizeof(LSTeamingPolicyEntry) == 2748);

VsStatus GetTable(const PropertyScope &scope, LSTeamingPolicyTable **table)
{
    StoreValue value;
    if (VsStatus status = scope.Get(SWITCH_LS_TEAMING, &value)) return status;
    if (value.length < sizeof(LSTeamingPolicyTable)) return STATUS_FAILURE;
    *table = value.HandOver<LSTeamingPolicyTable>();
    return STATUS_OK;
}

}

VsStatus VSDVS_GetLSTeamingPolicyTableFromDVSID(const char *switchId, LSTeamingPolicyTable **table)
{
    if (!switchId || !table) return STATUS_BAD_PARAM;
    return GetTable(PropertyScope(switchId), table);
}

VsStatus VSDVS_GetLSTeamingPolicyTable(const char *alias, LSTeamingPolicyTable **table)
{
    if (!alias || !table) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return GetTable(scope, table);
}

VsStatus VSDVS_SetLSTeamingPolicy(const char *alias, const LSTeamingPolicyTable *table)
{
    if (!alias || !table) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    const auto length = static_cast<uint32_t>(sizeof(*table) + table->count * sizeof(LSTeamingPolicyEntry));
    return scope.Set(SWITCH_LS_TEAMING, table, length);
}

VsStatus VSDVS_ClearLSTeamingPolicy(const char *alias)
{
    if (!alias) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return OkIfAbsent(scope.Clear(SWITCH_LS_TEAMING));
}

VsStatus VSDVS_GetPortLSTeamingPolicyName(const char *alias, const char *dvPortId, char *policyName)
{
    if (!policyName) return STATUS_BAD_PARAM;
    memset(policyName, 0, LS_TEAMING_POLICY_NAME_SIZE);
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.GetAtMost(PORT_LS_TEAMING, policyName, LS_TEAMING_POLICY_NAME_SIZE);
}

VsStatus VSDVS_SetPortLSTeamingPolicy(const char *alias, const char *dvPortId, const char *policyName)
{
    if (!alias || !dvPortId || !policyName) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.SetText(PORT_LS_TEAMING, policyName);
}

VsStatus VSDVS_ClearPortLSTeamingPolicy(const char *alias, const char *dvPortId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return OkIfAbsent(port.Clear(PORT_LS_TEAMING));
}
