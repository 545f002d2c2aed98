/* What a C programmer would write without the library: the same null tests, the same zeroed record, the same
 * platform calls. The names and arguments are the library's own, behind "Hand_". */
#ifndef BENCH_BY_HAND_H
#define BENCH_BY_HAND_H

#include "vswitchctl.h"

#ifdef __cplusplus
extern "C" {
#endif

VsStatus Hand_DVSAliasToSwitchId(const char *alias, char *switchIdOut);
VsStatus Hand_VSDVS_GetPortProp(const char *alias, const char *dvPortId, const char *key,
                                PropValueBuffer *value, const char *dvsId, uint8_t useAlias);
VsStatus Hand_VSDVS_SetPortProp(const char *alias, const char *dvPortId, const char *key, const void *data,
                                uint32_t length, const char *dvsId, uint8_t useAlias);
VsStatus Hand_VSDVS_AddDVPort(const char *alias, const char *dvPortId, uint32_t connectId);
VsStatus Hand_VSDVS_AddSwitchUplinkPort(const char *alias, const char *name);

VsStatus Hand_VSDVS_GetMcastFilterMode(const char *alias, uint32_t *mode);
VsStatus Hand_VSDVS_SetMcastFilterMode(const char *alias, int32_t mode);
VsStatus Hand_VSDVS_GetDVMirrorSessions(const char *alias, const char *dvPortId, MirrorSessionList **list);
VsStatus Hand_VSDVS_AppendDVMirrorSessions(const char *alias, const char *dvPortId,
                                           const MirrorSessionList *list);
VsStatus Hand_VSDVS_RemoveDVMirrorSession(const char *alias, const char *dvPortId, const char *sessionId);
VsStatus Hand_VSDVS_GetPrivateVLANMap(const char *alias, PVLANMapEntry **entries, uint32_t *count);
VsStatus Hand_VSDVS_SetPrivateVLANMap(const char *alias, const PVLANMapEntry *entries, uint32_t count);
VsStatus Hand_VSDVS_GetPortVLANPolicy(const char *alias, const char *dvPortId, PortVLANRecord **record,
                                      uint32_t *priority);
VsStatus Hand_VSDVS_SetPortVLANPolicy(const char *alias, const char *dvPortId, uint16_t vlanId,
                                      uint32_t priority, uint8_t trunk, uint8_t optionFlag,
                                      const VLANRange *ranges, uint16_t rangeCount);
VsStatus Hand_VSDVS_GetPortSecurity(const char *alias, const char *dvPortId, uint32_t *flags);
VsStatus Hand_VSDVS_SetPortSecurity(const char *alias, const char *dvPortId, const uint32_t *flags);
VsStatus Hand_VSDVS_GetExtraEthFilter(const char *alias, const char *dvPortId, ExtraEthFilterRecord *record);
VsStatus Hand_VSDVS_SetExtraEthFilter(const char *alias, const char *dvPortId,
                                      const ExtraEthFilterRecord *record);
VsStatus Hand_VSDVS_GetPortMACLearning(const char *alias, const char *dvPortId,
                                       PortMACLearningConfig *config);
VsStatus Hand_VSDVS_SetPortMACLearning(const char *alias, const char *dvPortId,
                                       const PortMACLearningConfig *config);
VsStatus Hand_VSDVS_GetTeamingPolicy(const char *alias, TeamingPolicy *policy);
VsStatus Hand_VSDVS_SetTeamingPolicy(const char *alias, const TeamingPolicy *policy);
VsStatus Hand_VSDVS_GetPortLSTeamingPolicyName(const char *alias, const char *dvPortId, char *policyName);
VsStatus Hand_VSDVS_SetPortLSTeamingPolicy(const char *alias, const char *dvPortId, const char *policyName);

VsStatus Hand_VSZOR_GetVSInfo(const char *portsetName, void *info);
VsStatus Hand_VSZOR_SetUplinkAdminLinkState(const char *portsetName, const char *uplinkName, int32_t upFlag);
VsStatus Hand_VSZOR_SetPortMACTable(const char *alias, const char *dvPortId, const ZorMacTableEntry *entry);
VsStatus Hand_VSZOR_GetUplinks(const char *portsetName, void **uplinks);

#ifdef __cplusplus
}
#endif
#endif
