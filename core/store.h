// The platform's configuration store, as liborkPublic.so exports it. Valid C as well as C++, because the
// measurements include it from C.
#pragma once

#include "vswitchctl.h"

typedef struct SwitchHandle SwitchHandle;
typedef struct PropHandle PropHandle;
typedef struct DataBundle DataBundle;

#ifdef __cplusplus
extern "C" {
#endif

// Getters hand out a buffer to release with DVSZOR_DataFree, or nothing when they fail.
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

// Release the buffer of StateGet with free.
VsStatus DVSZOR_StateGet(void **configuration, uint32_t *length);

// The in-process cache. Its values are never released and stay valid until a reset.
VsStatus DVSState_ConfigReset(void);
VsStatus DVSState_ConfigDeserialize(const void *configuration, uint32_t length);
SwitchHandle *DVSState_SwitchFindByAlias(const char *alias);
void DVSState_SwitchForEach(int (*callback)(SwitchHandle *, void *), void *context);
void *DVSState_PortFind(const char *switchId, const char *dvPortId);
VsStatus DVSState_GlobalPropLookup(const char *switchId, const char *key, PropHandle **property);
VsStatus DVSState_HostPropLookup(const char *switchId, const char *key, PropHandle **property);
const char *DVS_ClassName(SwitchHandle *handle);
const char *DVS_SwitchId(SwitchHandle *handle);
void DVSData_Data(PropHandle *property, void **data);

// Property bundles. The bundle's allocation function provides the serialized buffer.
VsStatus DVSData_Alloc(DataBundle **bundle, void *(*allocate)(size_t), void (*release)(void *));
void DVSData_Update(DataBundle *bundle, const char *key, const void *value, uint32_t length, uint32_t flags);
VsStatus DVSData_Serialize(DataBundle *bundle, void **buffer, uint32_t *length, uint32_t kind);
void DVSData_Free(DataBundle *bundle);

#ifdef __cplusplus
}
#endif
