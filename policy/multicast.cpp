// Multicast filter mode: a word in the store, or the driver's own mode while the store holds none.
#include "core/property.h"

#include <cstring>
#include <iterator>

namespace {

constexpr const char *MODE_NAMES[] = {"legacyFiltering", "snooping"};

VsStatus ParseMode(const StoreValue &value, uint32_t *mode)
{
    for (uint32_t i = 0; i < std::size(MODE_NAMES); i++) {
        if (!value.StartsWith(MODE_NAMES[i], static_cast<uint32_t>(strlen(MODE_NAMES[i]) + 1))) continue;
        *mode = i;
        return STATUS_OK;
    }
    return STATUS_FAILURE;
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
    return scope.SetText(SWITCH_MCAST_FILTER, MODE_NAMES[mode]);
}
