// VLAN policies: the switch's private VLAN map, and each port's VLAN record, priority and nested tagging.
#include <cstdlib>
#include <cstring>

#include "core/property.h"
#include "core/vlan_record.h"

namespace {

static_assert(sizeof(PVLANMapEntry) == 8);

// A trunk without ranges carries every VLAN.
constexpr VLANRange ALL_VLANS = {0, 4094};

// A VLAN record with ranges, in the library's own memory.
struct OwnedVLANRecord {
    OwnedVLANRecord(const VLANRange *ranges, uint16_t rangeCount)
        : length(static_cast<uint32_t>(sizeof(PortVLANRecord) + rangeCount * sizeof(VLANRange))),
          record(static_cast<PortVLANRecord *>(malloc(length)))
    {
        if (!record) return;
        *record = {0, 0, 0, rangeCount};
        if (rangeCount > 0) memcpy(record + 1, ranges, rangeCount * sizeof(VLANRange));
    }
    OwnedVLANRecord(const OwnedVLANRecord &) = delete;
    OwnedVLANRecord &operator=(const OwnedVLANRecord &) = delete;
    ~OwnedVLANRecord() { free(record); }

    uint32_t length;
    PortVLANRecord *record;
};

bool IsWhole(const StoreValue &value)
{
    return value.length >= sizeof(PortVLANRecord) &&
           value.length ==
               sizeof(PortVLANRecord) + value.As<PortVLANRecord>()->rangeCount * sizeof(VLANRange);
}

VsStatus ClearPriorityIfPresent(const PropertyScope &port)
{
    StoreValue present;
    if (port.Get(PORT_PRIORITY, &present) != STATUS_OK) return STATUS_OK;
    return OkIfAbsent(port.Clear(PORT_PRIORITY));
}

}

VsStatus VSDVS_GetPrivateVLANMap(const char *alias, PVLANMapEntry **entries, uint32_t *count)
{
    if (!alias || !entries || !count) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    StoreValue value;
    if (VsStatus status = scope.Get(SWITCH_PVLAN_MAP, &value)) return status;
    if (value.length % sizeof(PVLANMapEntry) != 0) return STATUS_FAILURE;
    *count = static_cast<uint32_t>(value.length / sizeof(PVLANMapEntry));
    *entries = value.HandOver<PVLANMapEntry>();
    return STATUS_OK;
}

VsStatus VSDVS_SetPrivateVLANMap(const char *alias, const PVLANMapEntry *entries, uint32_t count)
{
    if (!alias || (count > 0 && !entries)) return STATUS_BAD_PARAM;
    PropertyScope scope;
    if (VsStatus status = scope.Resolve(alias)) return status;
    if (count == 0) return scope.Clear(SWITCH_PVLAN_MAP);
    return scope.Set(SWITCH_PVLAN_MAP, entries, count * static_cast<uint32_t>(sizeof(PVLANMapEntry)));
}

VsStatus VSDVS_GetPortVLANPolicy(const char *alias, const char *dvPortId, PortVLANRecord **record,
                                 uint32_t *priority)
{
    if (!alias || !dvPortId || !record || !priority) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    StoreValue value;
    if (VsStatus status = port.Get(PORT_VLAN, &value)) return status;
    if (!IsWhole(value)) return STATUS_FAILURE;
    *record = value.HandOver<PortVLANRecord>();
    *priority = 0;
    port.Get(PORT_PRIORITY, priority);
    return STATUS_OK;
}

VsStatus VSDVS_SetPortVLANPolicy(const char *alias, const char *dvPortId, uint16_t vlanId, uint32_t priority,
                                 uint8_t trunk, uint8_t optionFlag, const VLANRange *ranges,
                                 uint16_t rangeCount)
{
    if (!alias || !dvPortId || (rangeCount > 0 && !ranges)) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    const bool allVLANs = trunk && rangeCount == 0;
    const OwnedVLANRecord policy(allVLANs ? &ALL_VLANS : ranges, allVLANs ? uint16_t{1} : rangeCount);
    if (!policy.record) return STATUS_NO_MEMORY;

    const bool hasPriority = priority != VLAN_PRIORITY_NONE;
    policy.record->flags =
        static_cast<uint16_t>((trunk ? VLAN_FLAG_TRUNK : 0) | (optionFlag ? VLAN_FLAG_OPTION : 0) |
                              (hasPriority ? VLAN_FLAG_PRIORITY : 0));
    policy.record->vlanId = vlanId;
    if (VsStatus status = port.Set(PORT_VLAN, policy.record, policy.length)) return status;
    return hasPriority ? port.Set(PORT_PRIORITY, priority) : ClearPriorityIfPresent(port);
}

VsStatus VSDVS_ClearPortVLANPolicy(const char *alias, const char *dvPortId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    if (VsStatus status = OkIfAbsent(port.Clear(PORT_VLAN))) return status;
    return OkIfAbsent(port.Clear(PORT_PRIORITY));
}

VsStatus VSDVS_GetPortNestedVLANTagging(const char *alias, const char *dvPortId, uint8_t *enabled)
{
    if (!alias || !dvPortId || !enabled) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    uint32_t stored = 0;
    if (VsStatus status = OkIfAbsent(port.Get(PORT_NESTED_VLAN, &stored))) return status;
    *enabled = stored != 0;
    return STATUS_OK;
}

VsStatus VSDVS_SetPortNestedVLANTagging(const char *alias, const char *dvPortId, uint8_t enabled)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return port.Set(PORT_NESTED_VLAN, uint32_t{enabled != 0});
}
