#include "core/property.h"

#include <cstring>

bool StoreValue::StartsWith(const char *text, uint32_t size) const
{
    return length >= size && memcmp(data, text, size) == 0;
}

void StoreValue::CopyTo(void *buffer) const
{
    // An empty value may come without an address.
    if (length > 0) memcpy(buffer, data, length);
}

VsStatus PropertyScope::Read(StoreLevel level, const char *key, StoreValue *value) const
{
    VsStatus status = STATUS_FAILURE;
    switch (level) {
    case StoreLevel::GLOBAL:
        status = DVSZOR_GlobalPropGet(switchId, key, &value->data, &value->length);
        break;
    case StoreLevel::HOST:
        status = DVSZOR_HostPropGet(switchId, key, &value->data, &value->length);
        break;
    case StoreLevel::PORT:
        status = DVSZOR_PortDataGet(switchId, dvPortId, key, &value->data, &value->length);
        break;
    }
    if (status != STATUS_OK) value->data = nullptr;
    return status;
}

VsStatus PropertyScope::Write(StoreLevel level, const char *key, const void *data, uint32_t length,
                              uint32_t flags) const
{
    switch (level) {
    case StoreLevel::GLOBAL:
        return DVSZOR_GlobalPropSet(switchId, key, data, length, flags);
    case StoreLevel::HOST:
        return DVSZOR_HostPropSet(switchId, key, data, length, flags);
    case StoreLevel::PORT:
        return DVSZOR_PortDataSet(switchId, dvPortId, key, data, length, flags);
    }
    return STATUS_FAILURE;
}

VsStatus PropertyScope::Remove(StoreLevel level, const char *key) const
{
    switch (level) {
    case StoreLevel::GLOBAL:
        return DVSZOR_GlobalPropClear(switchId, key);
    case StoreLevel::HOST:
        return DVSZOR_HostPropClear(switchId, key);
    case StoreLevel::PORT:
        return DVSZOR_PortDataClear(switchId, dvPortId, key);
    }
    return STATUS_FAILURE;
}

VsStatus PropertyScope::GetExactly(const Property &property, void *record, uint32_t size) const
{
    StoreValue value;
    if (VsStatus status = Get(property, &value)) return status;
    if (value.length != size) return STATUS_FAILURE;
    value.CopyTo(record);
    return STATUS_OK;
}

VsStatus PropertyScope::GetAtMost(const Property &property, void *buffer, uint32_t capacity) const
{
    StoreValue value;
    if (VsStatus status = Get(property, &value)) return status;
    if (value.length > capacity) return STATUS_FAILURE;
    value.CopyTo(buffer);
    return STATUS_OK;
}

VsStatus PropertyScope::SetText(const Property &property, const char *text) const
{
    const size_t size = strlen(text) + 1;
    if (size > UINT32_MAX) return STATUS_NO_MEMORY;
    return Set(property, text, static_cast<uint32_t>(size));
}
