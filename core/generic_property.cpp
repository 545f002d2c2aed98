// Any property by its key, at each of the store's levels, with the switch named by alias or by id.
#include "core/property.h"

namespace {

inline VsStatus CopyOut(const StoreValue &value, PropValueBuffer *buffer)
{
    const auto length = static_cast<int32_t>(value.length);
    if (buffer->length == 0) {
        buffer->length = length;
        return STATUS_OK;
    }
    if (buffer->length < length || length < 0) return STATUS_NO_MEMORY;
    if (length > 0 && !buffer->data) return STATUS_BAD_PARAM;
    value.CopyTo(buffer->data);
    return STATUS_OK;
}

inline VsStatus Get(const PropertyScope &scope, StoreLevel level, const char *key, PropValueBuffer *buffer)
{
    StoreValue value;
    if (VsStatus status = scope.Read(level, key, &value)) return status;
    return CopyOut(value, buffer);
}

}

VsStatus VSDVS_GetPortProp(const char *alias, const char *dvPortId, const char *key, PropValueBuffer *value,
                           const char *dvsId, uint8_t useAlias)
{
    if (!dvPortId || !key || !value) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvsId, useAlias, dvPortId)) return status;
    return Get(port, StoreLevel::PORT, key, value);
}

VsStatus VSDVS_GetHostProp(const char *alias, const char *key, PropValueBuffer *value, const char *dvsId,
                           uint8_t useAlias)
{
    if (!key || !value) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias, dvsId, useAlias)) return status;
    return Get(scope, StoreLevel::HOST, key, value);
}

VsStatus VSDVS_GetGlobProp(const char *alias, const char *key, PropValueBuffer *value, const char *dvsId,
                           uint8_t useAlias)
{
    if (!key || !value) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias, dvsId, useAlias)) return status;
    return Get(scope, StoreLevel::GLOBAL, key, value);
}

VsStatus VSDVS_SetPortProp(const char *alias, const char *dvPortId, const char *key, const void *data,
                           uint32_t length, const char *dvsId, uint8_t useAlias)
{
    if (!dvPortId || !key) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvsId, useAlias, dvPortId)) return status;
    return port.Write(StoreLevel::PORT, key, data, length, GENERIC_FLAGS);
}

VsStatus VSDVS_SetHostProp(const char *alias, const char *key, const void *data, uint32_t length,
                           const char *dvsId, uint8_t useAlias)
{
    if (!key) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias, dvsId, useAlias)) return status;
    return scope.Write(StoreLevel::HOST, key, data, length, GENERIC_FLAGS);
}

VsStatus VSDVS_SetGlobProp(const char *alias, const char *key, const void *data, uint32_t length,
                           const char *dvsId, uint8_t useAlias)
{
    if (!key) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias, dvsId, useAlias)) return status;
    return scope.Write(StoreLevel::GLOBAL, key, data, length, GENERIC_FLAGS);
}

VsStatus VSDVS_ClearPortProp(const char *alias, const char *dvPortId, const char *key, const char *dvsId,
                             uint8_t useAlias)
{
    if (!dvPortId || !key) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvsId, useAlias, dvPortId)) return status;
    return port.Remove(StoreLevel::PORT, key);
}

VsStatus VSDVS_ClearHostProp(const char *alias, const char *key, const char *dvsId, uint8_t useAlias)
{
    if (!key) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias, dvsId, useAlias)) return status;
    return scope.Remove(StoreLevel::HOST, key);
}

VsStatus VSDVS_ClearGlobProp(const char *alias, const char *key, const char *dvsId, uint8_t useAlias)
{
    if (!key) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias, dvsId, useAlias)) return status;
    return scope.Remove(StoreLevel::GLOBAL, key);
}
