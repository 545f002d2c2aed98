// Every stored property as a row of one table, and the only way to read, write and clear them.
#pragma once

#include "core/identity.h"

#include <cstring>
#include <type_traits>
#include <utility>

enum class StoreLevel : uint8_t { GLOBAL, HOST, PORT };

struct Property {
    const char *key;
    StoreLevel level;
    uint32_t flags;
};

// The flags of a write through the operations that take any key.
inline constexpr uint32_t GENERIC_FLAGS = 0x10;

// clang-format off
inline constexpr Property
    SWITCH_ALIAS         {"com.talpex.common.alias",                          StoreLevel::GLOBAL, 0x10},
    SWITCH_VERSION       {"com.talpex.common.version",                        StoreLevel::GLOBAL, 0x10},
    SWITCH_OPAQUE        {"com.talpex.common.opaqueDvs",                      StoreLevel::GLOBAL, 0x10},
    SWITCH_UPLINK_NAMES  {"com.talpex.common.uplinkPorts",                    StoreLevel::GLOBAL, 0x10},
    SWITCH_MCAST_FILTER  {"com.talpex.vswitch.multicastFilter",               StoreLevel::GLOBAL, 0x10},
    SWITCH_PVLAN_MAP     {"com.talpex.vswitch.pvlanMap",                      StoreLevel::GLOBAL, 0x08},
    SWITCH_TEAMING       {"com.talpex.vswitch.teaming",                       StoreLevel::GLOBAL, 0x10},
    SWITCH_LS_TEAMING    {"com.talpex.vswitch.logicalswitch.teaming",         StoreLevel::GLOBAL, 0x10},
    SWITCH_MTU           {"com.talpex.vswitch.mtu",                           StoreLevel::GLOBAL, 0x10},
    ETHERSWITCH_MTU      {"com.talpex.etherswitch.mtu",                       StoreLevel::GLOBAL, 0x10},

    SWITCH_PORTSET       {"com.talpex.common.host.portset",                   StoreLevel::HOST,   0x10},
    HOST_UPLINK_IDS      {"com.talpex.common.host.uplinkPorts",               StoreLevel::HOST,   0x10},
    HOST_UPLINK_MIRRORS  {"com.talpex.vswitch.uplinkMirrorSessions",          StoreLevel::HOST,   0x08},
    HOST_MAC_LEARNING    {"com.talpex.vswitch.macLearning",                   StoreLevel::HOST,   0x10},
    HOST_LEARN_STATIC    {"com.talpex.vswitch.macLearning.learnStatic",       StoreLevel::HOST,   0x10},

    PORT_ALIAS           {"com.talpex.common.port.alias",                     StoreLevel::PORT,   0x10},
    PORT_CONNECT_ID      {"com.talpex.common.port.connectid",                 StoreLevel::PORT,   0x10},
    PORT_BLOCK           {"com.talpex.common.port.block",                     StoreLevel::PORT,   0x10},
    PORT_STATISTICS      {"com.talpex.common.port.statistics",                StoreLevel::PORT,   0x20},
    PORT_STATUS          {"com.talpex.common.port.volatile.status",           StoreLevel::PORT,   0x10},
    PORT_EXTERNAL_ID     {"com.talpex.port.extraConfig.vnic.external.id",     StoreLevel::PORT,   0x10},
    PORT_VLAN            {"com.talpex.vswitch.port.vlan",                     StoreLevel::PORT,   0x08},
    PORT_PRIORITY        {"com.talpex.vswitch.port.priority",                 StoreLevel::PORT,   0x08},
    PORT_NESTED_VLAN     {"com.talpex.vswitch.port.vlanNestedTag",            StoreLevel::PORT,   0x10},
    PORT_MIRRORS         {"com.talpex.vswitch.port.mirrorSessions",           StoreLevel::PORT,   0x08},
    PORT_SECURITY        {"com.talpex.vswitch.port.security",                 StoreLevel::PORT,   0x10},
    PORT_ETH_FILTER      {"com.talpex.vswitch.port.extraEthFRP",              StoreLevel::PORT,   0x10},
    PORT_MAC_MANAGEMENT  {"com.talpex.vswitch.port.macManagement",            StoreLevel::PORT,   0x10},
    PORT_TX_UPLINK       {"com.talpex.vswitch.port.txUplink",                 StoreLevel::PORT,   0x10},
    PORT_TEAMING         {"com.talpex.vswitch.port.teaming.policy",           StoreLevel::PORT,   0x10},
    PORT_TEAMING_OVERRIDE{"com.talpex.vswitch.port.teaming.override",         StoreLevel::PORT,   0x10},
    PORT_LS_TEAMING      {"com.talpex.vswitch.port.logicalswitch.teaming",    StoreLevel::PORT,   0x10};
// clang-format on

// A value in the store's own memory, until it is handed to the caller.
// Empty after a failed read, because a getter that fails hands out nothing to release.
struct StoreValue {
    StoreValue() = default;
    StoreValue(const StoreValue &) = delete;
    StoreValue &operator=(const StoreValue &) = delete;
    ~StoreValue()
    {
        if (data) DVSZOR_DataFree(data);
    }

    template<typename Record> Record *As() const { return static_cast<Record *>(data); }

    // The caller releases it.
    template<typename Record> Record *HandOver()
    {
        return static_cast<Record *>(std::exchange(data, nullptr));
    }

    // The caller has compared both lengths.
    void CopyTo(void *buffer) const
    {
        // An empty value may have no address.
        if (length > 0) memcpy(buffer, data, length);
    }

    // Whether the value begins with the first `size` bytes of the text.
    bool StartsWith(const char *text, uint32_t size) const
    {
        return length >= size && memcmp(data, text, size) == 0;
    }

    void *data = nullptr;
    uint32_t length = 0;
};

// What a property belongs to: a switch, or one of its ports.
class PropertyScope {
public:
    PropertyScope() = default;
    // Names the switch by its id, which must outlive the scope.
    explicit PropertyScope(const char *switchId, const char *dvPortId = nullptr)
        : switchId(switchId), dvPortId(dvPortId)
    {}
    PropertyScope(const PropertyScope &) = delete;
    PropertyScope &operator=(const PropertyScope &) = delete;

    VsStatus Resolve(const char *alias, const char *portId = nullptr)
    {
        dvPortId = portId;
        return ResolveSwitchId(alias, resolvedId);
    }
    VsStatus Resolve(const char *alias, const char *dvsId, uint8_t useAlias, const char *portId = nullptr)
    {
        dvPortId = portId;
        return VSDVSResolveDVSId(alias, dvsId, resolvedId, useAlias);
    }

    VsStatus Get(const Property &property, StoreValue *value) const
    {
        return Read(property.level, property.key, value);
    }
    // The record is written on success only; a value of another length is STATUS_FAILURE.
    template<typename Record> VsStatus Get(const Property &property, Record *record) const
    {
        StoreValue value;
        if (VsStatus status = Get(property, &value)) return status;
        if (value.length != sizeof(Record)) return STATUS_FAILURE;
        memcpy(record, value.data, sizeof(Record));
        return STATUS_OK;
    }
    // A text that fits the buffer, which is written on success only.
    VsStatus GetAtMost(const Property &property, void *buffer, uint32_t capacity) const
    {
        StoreValue value;
        if (VsStatus status = Get(property, &value)) return status;
        if (value.length > capacity) return STATUS_FAILURE;
        value.CopyTo(buffer);
        return STATUS_OK;
    }

    VsStatus Set(const Property &property, const void *data, uint32_t length) const
    {
        return Write(property.level, property.key, data, length, property.flags);
    }
    template<typename Record> VsStatus Set(const Property &property, const Record &record) const
    {
        return Set(property, &record, sizeof(Record));
    }
    VsStatus SetText(const Property &property, const char *text) const
    {
        const size_t size = strlen(text) + 1;
        if (size > UINT32_MAX) return STATUS_NO_MEMORY;
        return Set(property, text, static_cast<uint32_t>(size));
    }

    VsStatus Clear(const Property &property) const { return Remove(property.level, property.key); }

    VsStatus Read(StoreLevel level, const char *key, StoreValue *value) const;
    VsStatus Write(StoreLevel level, const char *key, const void *data, uint32_t length,
                   uint32_t flags) const;
    VsStatus Remove(StoreLevel level, const char *key) const;

    const char *SwitchId() const { return switchId; }

private:
    char resolvedId[SWITCH_ID_SIZE];
    const char *switchId = resolvedId;
    const char *dvPortId = nullptr;
};

// Inline: with a constant property, the compiler reduces these to one call of the store.
inline VsStatus PropertyScope::Read(StoreLevel level, const char *key, StoreValue *value) const
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
    if (status != STATUS_OK) {
        value->data = nullptr;
        value->length = 0;
    }
    return status;
}

inline VsStatus PropertyScope::Write(StoreLevel level, const char *key, const void *data, uint32_t length,
                                     uint32_t flags) const
{
    switch (level) {
    case StoreLevel::GLOBAL:
        return DVSZOR_GlobalPropSet(switchId, key, data, length, flags);
    case StoreLevel::HOST:
        return DVSZOR_HostPropSet(switchId, key, data, length, flags);
    case StoreLevel::PORT:
        break;
    }
    return DVSZOR_PortDataSet(switchId, dvPortId, key, data, length, flags);
}

inline VsStatus PropertyScope::Remove(StoreLevel level, const char *key) const
{
    switch (level) {
    case StoreLevel::GLOBAL:
        return DVSZOR_GlobalPropClear(switchId, key);
    case StoreLevel::HOST:
        return DVSZOR_HostPropClear(switchId, key);
    case StoreLevel::PORT:
        break;
    }
    return DVSZOR_PortDataClear(switchId, dvPortId, key);
}

// Clearing an absent property succeeds.
inline VsStatus OkIfAbsent(VsStatus status) { return status == STATUS_NOT_FOUND ? STATUS_OK : status; }

// An absent property reads as its default.
template<typename Record>
VsStatus DefaultIfAbsent(VsStatus status, Record *record, const std::type_identity_t<Record> &value)
{
    if (status != STATUS_NOT_FOUND) return status;
    *record = value;
    return STATUS_OK;
}
