// Any property by its key, at each of the store's levels, with the switch named by alias or by id.
#include "core/property.h"

namespace {

struct Place {
    StoreLevel level;
    const char *alias;
    const char *dvPortId;
    const char *key;
    const char *dvsId;
    uint8_t useAlias;

    VsStatus Resolve(PropertyScope *scope) const
    {
        if (!key || (level == StoreLevel::PORT && !dvPortId)) return STATUS_BAD_PARAM;
        return scope->Resolve(alias, dvsId, useAlias, dvPortId);
    }
};

VsStatus Get(const Place &place, PropValueBuffer *buffer)
{
    if (!buffer || (buffer->length > 0 && !buffer->data)) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = place.Resolve(&scope)) return status;
    StoreValue value;
    if (VsStatus status = scope.Read(place.level, place.key, &value)) return status;
    const auto length = static_cast<int32_t>(value.length);
    if (buffer->length == 0) {
        buffer->length = length;
        return STATUS_OK;
    }
    if (buffer->length < length || length < 0) return STATUS_NO_MEMORY;
    value.CopyTo(buffer->data);
    return STATUS_OK;
}

VsStatus Set(const Place &place, const void *data, uint32_t length)
{
    PropertyScope scope;
    if (VsStatus status = place.Resolve(&scope)) return status;
    return scope.Write(place.level, place.key, data, length, GENERIC_FLAGS);
}

VsStatus Clear(const Place &place)
{
    PropertyScope scope;
    if (VsStatus status = place.Resolve(&scope)) return status;
    return scope.Remove(place.level, place.key);
}

}

VsStatus VSDVS_GetPortProp(const char *alias, const char *dvPortId, const char *key, PropValueBuffer *value,
                           const char *dvsId, uint8_t useAlias)
{
    return Get({StoreLevel::PORT, alias, dvPortId, key, dvsId, useAlias}, value);
}

VsStatus VSDVS_GetHostProp(const char *alias, const char *key, PropValueBuffer *value, const char *dvsId,
                           uint8_t useAlias)
{
    return Get({StoreLevel::HOST, alias, nullptr, key, dvsId, useAlias}, value);
}

VsStatus VSDVS_GetGlobProp(const char *alias, const char *key, PropValueBuffer *value, const char *dvsId,
                           uint8_t useAlias)
{
    return Get({StoreLevel::GLOBAL, alias, nullptr, key, dvsId, useAlias}, value);
}

VsStatus VSDVS_SetPortProp(const char *alias, const char *dvPortId, const char *key, const void *data,
                           uint32_t length, const char *dvsId, uint8_t useAlias)
{
    return Set({StoreLevel::PORT, alias, dvPortId, key, dvsId, useAlias}, data, length);
}

VsStatus VSDVS_SetHostProp(const char *alias, const char *key, const void *data, uint32_t length,
                           const char *dvsId, uint8_t useAlias)
{
    return Set({StoreLevel::HOST, alias, nullptr, key, dvsId, useAlias}, data, length);
}

VsStatus VSDVS_SetGlobProp(const char *alias, const char *key, const void *data, uint32_t length,
                           const char *dvsId, uint8_t useAlias)
{
    return Set({StoreLevel::GLOBAL, alias, nullptr, key, dvsId, useAlias}, data, length);
}

VsStatus VSDVS_ClearPortProp(const char *alias, const char *dvPortId, const char *key, const char *dvsId,
                             uint8_t useAlias)
{
    return Clear({StoreLevel::PORT, alias, dvPortId, key, dvsId, useAlias});
}

VsStatus VSDVS_ClearHostProp(const char *alias, const char *key, const char *dvsId, uint8_t useAlias)
{
    return Clear({StoreLevel::HOST, alias, nullptr, key, dvsId, useAlias});
}

VsStatus VSDVS_ClearGlobProp(const char *alias, const char *key, const char *dvsId, uint8_t useAlias)
{
    return Clear({StoreLevel::GLOBAL, alias, nullptr, key, dvsId, useAlias});
}
