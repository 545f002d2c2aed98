// Distributed ports: the store knows them by an id, the kernel's driver by a number.
#include "lifecycle/port.h"

#include <cstdlib>
#include <cstring>

#include "core/property.h"
#include "core/vlan_record.h"

namespace {

constexpr char NOT_BLOCKED[] = "false";
constexpr uint8_t NO_STATISTICS[128] = {};
constexpr uint32_t SERIALIZE_KIND = 5;

struct [[gnu::packed]] PortStatusRecord {
    uint8_t uninterpreted[16];
    uint32_t portId;
};
static_assert(sizeof(PortStatusRecord) == 20 && offsetof(PortStatusRecord, portId) == 16);

void Update(DataBundle *bundle, const Property &property, const void *value, size_t length)
{
    DVSData_Update(bundle, property.key, value, static_cast<uint32_t>(length), property.flags);
}

VsStatus SerializeFirstProperties(const char *dvPortId, uint32_t connectId, bool uplink, void **buffer,
                                  uint32_t *length)
{
    DataBundle *bundle = nullptr;
    if (VsStatus status = DVSData_Alloc(&bundle, malloc, free)) return status;
    Update(bundle, PORT_ALIAS, dvPortId, strlen(dvPortId) + 1);
    Update(bundle, PORT_CONNECT_ID, &connectId, sizeof(connectId));
    Update(bundle, PORT_BLOCK, NOT_BLOCKED, sizeof(NOT_BLOCKED));
    Update(bundle, PORT_STATISTICS, NO_STATISTICS, sizeof(NO_STATISTICS));
    if (uplink)
        Update(bundle, PORT_VLAN, &UPLINK_DEFAULT_VLAN, sizeof(UPLINK_DEFAULT_VLAN));
    else
        Update(bundle, PORT_VLAN, &PORT_DEFAULT_VLAN, sizeof(PORT_DEFAULT_VLAN));
    const VsStatus status = DVSData_Serialize(bundle, buffer, length, SERIALIZE_KIND);
    DVSData_Free(bundle);
    return status;
}

}

VsStatus AddDVPortByUUID(const char *switchId, const char *dvPortId, uint32_t connectId, bool uplink)
{
    void *buffer = nullptr;
    uint32_t length = 0;
    if (VsStatus status = SerializeFirstProperties(dvPortId, connectId, uplink, &buffer, &length))
        return status;
    const VsStatus status = DVSZOR_PortAdd(switchId, dvPortId, buffer, length);
    free(buffer);
    return status;
}

VsStatus VSDVS_AddDVPort(const char *alias, const char *dvPortId, uint32_t connectId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return AddDVPortByUUID(port.SwitchId(), dvPortId, connectId, false);
}

VsStatus VSDVS_AddOpaqueDVPort(const char *alias, const char *dvPortId, const char *externalId)
{
    if (!alias || !dvPortId || !externalId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    if (VsStatus status = AddDVPortByUUID(port.SwitchId(), dvPortId, DEFAULT_CONNECT_ID, false))
        return status;
    return port.SetText(PORT_EXTERNAL_ID, externalId);
}

VsStatus VSDVS_RemoveDVPort(const char *alias, const char *dvPortId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    PropertyScope port;
    if (VsStatus status = port.Resolve(alias, dvPortId)) return status;
    return DVSZOR_PortRemove(port.SwitchId(), dvPortId);
}

VsStatus VSDVS_DvPortIDToPortIDFromDVSID(const char *switchId, const char *dvPortId, uint32_t *portIdOut)
{
    if (!switchId || !dvPortId || !portIdOut) return STATUS_BAD_PARAM;
    const PropertyScope port(switchId, dvPortId);
    StoreValue value;
    if (VsStatus status = port.Get(PORT_STATUS, &value)) return status;
    if (value.length < sizeof(PortStatusRecord)) return STATUS_FAILURE;
    *portIdOut = value.As<PortStatusRecord>()->portId;
    return STATUS_OK;
}

VsStatus VSDVS_DvPortIDToPortID(const char *alias, const char *dvPortId, uint32_t *portIdOut)
{
    if (!alias || !dvPortId || !portIdOut) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    if (VsStatus status = DVSAliasToSwitchId(alias, switchId)) return status;
    return VSDVS_DvPortIDToPortIDFromDVSID(switchId, dvPortId, portIdOut);
}
