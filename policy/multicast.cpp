// Multicast filter mode: a text in the store, or the driver's own mode while the store has none.
#include "core/property.h"

namespace {

constexpr char LEGACY[] = "legacyFiltering";
constexpr char SNOOPING[] = "snooping";

VsStatus ParseMode(const StoreValue &value, uint32_t *mode)
{
    const bool snooping = value.StartsWith(SNOOPING, sizeof(SNOOPING));
    if (!snooping && !value.StartsWith(LEGACY, sizeof(LEGACY))) return STATUS_FAILURE;
    *mode = snooping ? MCAST_FILTER_SNOOPING : MCAST_FILTER_LEGACY;
    return STATUS_OK;
}

VsStatus GetDriverMode(const char *alias, uint32_t *mode)
{
    char portsetName[PORTSET_NAME_SIZE];
    if (VsStatus status = DVSAliasToPortsetName(alias, portsetName)) return status;
    return VSZOR_GetMcastFilterMode(portsetName, mode);
}

}

VsStatus VSDVS_GetMcastFilterMode(const char *alias, uint32_t *mode)
{
    if (!alias || !mode) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    StoreValue value;
    const VsStatus status = scope.Get(SWITCH_MCAST_FILTER, &value);
    if (status == STATUS_NOT_FOUND) return GetDriverMode(alias, mode);
    return status != STATUS_OK ? status : ParseMode(value, mode);
}

VsStatus VSDVS_SetMcastFilterMode(const char *alias, int32_t mode)
{
    if (!alias || mode < MCAST_FILTER_LEGACY || mode > MCAST_FILTER_SNOOPING) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return scope.SetText(SWITCH_MCAST_FILTER, mode == MCAST_FILTER_SNOOPING ? SNOOPING : LEGACY);
}
