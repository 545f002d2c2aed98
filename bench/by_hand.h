/* The calls as a C programmer would write them without the library: the same null tests, the same zeroed
 * record, the same platform calls. Names and arguments are the library's, with the prefix "Hand_". */
#pragma once

#include "vswitchctl.h"

#ifdef __cplusplus
extern "C" {
#endif

VsStatus Hand_DVSAliasToSwitchId(const char *alias, char *switchIdOut);
VsStatus Hand_VSDVS_SetPortProp(const char *alias, const char *dvPortId, const char *key, const void *data,
                                uint32_t length, const char *dvsId, uint8_t useAlias);
VsStatus Hand_VSDVS_AddDVPort(const char *alias, const char *dvPortId, uint32_t connectId);

VsStatus Hand_VSDVS_AppendDVMirrorSessions(const char *alias, const char *dvPortId,
                                           const MirrorSessionList *list);
VsStatus Hand_VSDVS_GetPortSecurity(const char *alias, const char *dvPortId, uint32_t *flags);
VsStatus Hand_VSDVS_SetPortSecurity(const char *alias, const char *dvPortId, const uint32_t *flags);

VsStatus Hand_VSZOR_SetPortMACTable(const char *alias, const char *dvPortId, const ZorMacTableEntry *entry);
VsStatus Hand_VSZOR_GetUplinks(const char *portsetName, void **uplinks);

#ifdef __cplusplus
}
#endif
