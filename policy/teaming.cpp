// The teaming policy of a switch, a record whose content the library does not interpret.
#include "core/property.h"

static_assert(sizeof(TeamingPolicy) == 2616);

VsStatus VSDVS_GetTeamingPolicyFromDVSID(const char *switchId, TeamingPolicy *policy)
{
    if (!switchId || !policy) return STATUS_BAD_PARAM;
    return PropertyScope(switchId).Get(SWITCH_TEAMING, policy);
}

VsStatus VSDVS_GetTeamingPolicy(const char *alias, TeamingPolicy *policy)
{
    if (!alias || !policy) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return scope.Get(SWITCH_TEAMING, policy);
}

VsStatus VSDVS_SetTeamingPolicy(const char *alias, const TeamingPolicy *policy)
{
    if (!alias || !policy) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return scope.Set(SWITCH_TEAMING, *policy);
}

VsStatus VSDVS_ClearTeamingPolicy(const char *alias)
{
    if (!alias) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return OkIfAbsent(scope.Clear(SWITCH_TEAMING));
}
