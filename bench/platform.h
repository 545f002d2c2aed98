/* What a hypervisor host offers, as a C program sees it: the store that liborkPublic.so exports. */
#ifndef BENCH_PLATFORM_H
#define BENCH_PLATFORM_H

#include "vswitchctl.h"

#ifdef __cplusplus
extern "C" {
#endif

VsStatus DVSZOR_GlobalPropGet(const char *switchId, const char *key, void **value, uint32_t *length);
VsStatus DVSZOR_GlobalPropSet(const char *switchId, const char *key, const void *value, uint32_t length,
                              uint32_t flags);
VsStatus DVSZOR_GlobalPropClear(const char *switchId, const char *key);
VsStatus DVSZOR_HostPropGet(const char *switchId, const char *key, void **value, uint32_t *length);
VsStatus DVSZOR_HostPropSet(const char *switchId, const char *key, const void *value, uint32_t length,
                            uint32_t flags);
VsStatus DVSZOR_HostPropClear(const char *switchId, const char *key);
VsStatus DVSZOR_PortDataGet(const char *switchId, const char *dvPortId, const char *key, void **value,
                            uint32_t *length);
VsStatus DVSZOR_PortDataSet(const char *switchId, const char *dvPortId, const char *key, const void *value,
                            uint32_t length, uint32_t flags);
VsStatus DVSZOR_PortDataClear(const char *switchId, const char *dvPortId, const char *key);
void DVSZOR_DataFree(void *buffer);

VsStatus DVSZOR_PortAdd(const char *switchId, const char *dvPortId, const void *bundle, uint32_t length);
VsStatus DVSZOR_PortRemove(const char *switchId, const char *dvPortId);
VsStatus DVSZOR_SwitchAdd(const char *switchId, const char *className, uint32_t numPorts, uint32_t version);
VsStatus DVSZOR_SwitchRemove(const char *switchId);
VsStatus DVSZOR_SwitchAssociate(const char *switchId);
VsStatus DVSZOR_SwitchDissociate(const char *switchId);
VsStatus DVSZOR_StateGet(void **configuration, uint32_t *length);

VsStatus DVSState_ConfigReset(void);
VsStatus DVSState_ConfigDeserialize(const void *configuration, uint32_t length);
void *DVSState_SwitchFindByAlias(const char *alias);
void DVSState_SwitchForEach(int (*callback)(void *, void *), void *context);
void *DVSState_PortFind(const char *switchId, const char *dvPortId);
VsStatus DVSState_GlobalPropLookup(const char *switchId, const char *key, void **property);
VsStatus DVSState_HostPropLookup(const char *switchId, const char *key, void **property);
const char *DVS_ClassName(void *handle);
const char *DVS_SwitchId(void *handle);
void DVSData_Data(void *property, void **data);

VsStatus DVSData_Alloc(void **bundle, void *(*allocate)(size_t), void (*release)(void *));
void DVSData_Update(void *bundle, const char *key, const void *value, uint32_t length, uint32_t flags);
VsStatus DVSData_Serialize(void *bundle, void **buffer, uint32_t *length, uint32_t kind);
void DVSData_Free(void *bundle);

#ifdef __cplusplus
}
#endif
#endif
