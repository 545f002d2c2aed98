// Port security: one word of flags for each distributed port.
#include "core/property.h"

namespace {
constexpr uint32_t DEFAULT_FLAGS = 1;
constexpr uint32_t KNOWN_FLAGS = 7;
}

VsStatus VSDVS_GetPortSecurity(const char *alias, const char *dvPortId, uint32_t *flags)
{
    if (!alias || !dvPortId || !flags) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return DefaultIfAbsent(port.Get(PORT_SECURITY, flags), flags, DEFAULT_FLAGS);
}

VsStatus VSDVS_SetPortSecurity(const char *alias, const char *dvPortId, const uint32_t *flags)
{
    if (!alias || !dvPortId || !flags || *flags > KNOWN_FLAGS) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.Set(PORT_SECURITY, *flags);
}
