// MAC learning: a record for each port, and this host's record and learn-static setting for the switch.
#include <cstddef>
#include <cstring>

#include "core/property.h"

namespace {

struct [[gnu::packed]] PortMACManagementRecord {
    uint8_t securityDerived;
    PortMACLearningConfig config;
};
static_assert(sizeof(PortMACLearningConfig) == 10 && offsetof(PortMACLearningConfig, portValueA) == 2 &&
              offsetof(PortMACLearningConfig, portValueB) == 6);
static_assert(sizeof(PortMACManagementRecord) == 11 && offsetof(PortMACManagementRecord, config) == 1);
static_assert(sizeof(SwitchMACLearningRecord) == 8 && offsetof(SwitchMACLearningRecord, switchByte) == 3 &&
              offsetof(SwitchMACLearningRecord, switchValueB) == 4);

constexpr PortMACLearningConfig DEFAULT_CONFIG = {0, 0, 4096, 0};
constexpr uint8_t DEFAULT_SWITCH_VALUE_A[3] = {0x58, 0x02, 0x00}; // 600
constexpr uint32_t DEFAULT_SWITCH_VALUE_B = 65536;
constexpr uint32_t MAX_SWITCH_VALUE_A = 1000000;
constexpr uint32_t SECURITY_MAC_CHANGE_BIT = 2;

uint32_t SwitchValueA(const SwitchMACLearningRecord &record)
{
    const uint8_t *bytes = record.switchValueA;
    return bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16;
}

// Flags that cannot be read count as flags with the bit set.
uint8_t SecurityDerived(const PropertyScope &port)
{
    uint32_t flags = SECURITY_MAC_CHANGE_BIT;
    port.Get(PORT_SECURITY, &flags);
    return (flags & SECURITY_MAC_CHANGE_BIT) == 0;
}

}

VsStatus VSDVS_GetPortMACLearning(const char *alias, const char *dvPortId, PortMACLearningConfig *config)
{
    if (!alias || !dvPortId || !config) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    PortMACManagementRecord record = {0, DEFAULT_CONFIG};
    if (VsStatus status = OkIfAbsent(port.Get(PORT_MAC_MANAGEMENT, &record))) return status;
    *config = record.config;
    return STATUS_OK;
}

VsStatus VSDVS_SetPortMACLearning(const char *alias, const char *dvPortId,
                                  const PortMACLearningConfig *config)
{
    if (!alias || !dvPortId || !config) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.Set(PORT_MAC_MANAGEMENT, PortMACManagementRecord{SecurityDerived(port), *config});
}

VsStatus VSDVS_GetMACLearning(const char *alias, SwitchMACLearningRecord *record)
{
    if (!alias || !record) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    const VsStatus status = scope.Get(HOST_MAC_LEARNING, record);
    if (status != STATUS_NOT_FOUND) return status;
    // switchByte has no default and keeps the caller's value.
    memcpy(record->switchValueA, DEFAULT_SWITCH_VALUE_A, sizeof(DEFAULT_SWITCH_VALUE_A));
    record->switchValueB = DEFAULT_SWITCH_VALUE_B;
    return STATUS_OK;
}

VsStatus VSDVS_SetMACLearning(const char *alias, const SwitchMACLearningRecord *record)
{
    if (!alias || !record || SwitchValueA(*record) > MAX_SWITCH_VALUE_A) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return scope.Set(HOST_MAC_LEARNING, *record);
}

VsStatus VSDVS_ClearMACLearning(const char *alias)
{
    if (!alias) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return scope.Clear(HOST_MAC_LEARNING);
}

VsStatus VSDVS_GetLearnStatic(const char *alias, uint8_t *enabled)
{
    if (!alias || !enabled) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    StoreValue value;
    if (VsStatus status = OkIfAbsent(scope.Get(HOST_LEARN_STATIC, &value))) return status;
    *enabled = value.StartsWith("true", 4);
    return STATUS_OK;
}

VsStatus VSDVS_SetLearnStatic(const char *alias, uint8_t enabled)
{
    if (!alias) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return scope.SetText(HOST_LEARN_STATIC, enabled ? "true" : "false");
}

VsStatus VSDVS_ClearLearnStatic(const char *alias)
{
    if (!alias) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    return scope.Clear(HOST_LEARN_STATIC);
}
