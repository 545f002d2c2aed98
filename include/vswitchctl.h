/*
 * vswitchctl: control of the virtual switches of a hypervisor host.
 */
#ifndef VSWITCHCTL_H
#define VSWITCHCTL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VSWITCHCTL_API __attribute__((visibility("default")))
#define VSWITCHCTL_PACKED __attribute__((packed))

/* ==== Status codes ===================================================================================== */

typedef uint32_t VsStatus;

#define STATUS_OK 0u
#define STATUS_FAILURE 0x0BAD0001u
#define STATUS_WOULD_BLOCK 0x0BAD0002u
#define STATUS_NOT_FOUND 0x0BAD0003u
#define STATUS_BUSY 0x0BAD0004u
#define STATUS_EXISTS 0x0BAD0005u
#define STATUS_TOO_LARGE 0x0BAD0006u
#define STATUS_BAD_PARAM 0x0BAD0007u
#define STATUS_IO_ERROR 0x0BAD0008u
#define STATUS_NAME_TOO_LONG 0x0BAD000Du
#define STATUS_BAD_DESCRIPTOR 0x0BAD000Eu
#define STATUS_NO_DEVICE 0x0BAD000Fu
#define STATUS_NO_DEVICE_OR_ADDRESS 0x0BAD0011u
#define STATUS_BAD_ADDRESS 0x0BAD0013u
#define STATUS_NO_MEMORY 0x0BAD0014u
#define STATUS_TOO_MANY_OPEN_FILES 0x0BAD0018u
#define STATUS_FILE_TABLE_FULL 0x0BAD0019u
#define STATUS_NO_SPACE 0x0BAD001Au
#define STATUS_NOT_IMPLEMENTED 0x0BAD0020u
#define STATUS_TIMED_OUT 0x0BAD0021u
#define STATUS_READ_ONLY 0x0BAD0022u
#define STATUS_ADDRESS_IN_USE 0x0BAD0024u
#define STATUS_NOT_CONNECTED 0x0BAD002Eu
#define STATUS_INTERRUPTED 0x0BAD0032u
#define STATUS_CANCELED 0x0BAD0038u
#define STATUS_NOT_SUPPORTED 0x0BAD003Cu
#define STATUS_NETWORK_DOWN 0x0BAD0047u
#define STATUS_NETWORK_UNREACHABLE 0x0BAD0048u
#define STATUS_NETWORK_RESET 0x0BAD0049u
#define STATUS_CONNECTION_ABORTED 0x0BAD004Au
#define STATUS_CONNECTION_RESET 0x0BAD004Bu
#define STATUS_SHUT_DOWN 0x0BAD004Du
#define STATUS_TOO_MANY_REFERENCES 0x0BAD004Eu
#define STATUS_CONNECTION_REFUSED 0x0BAD004Fu
#define STATUS_HOST_DOWN 0x0BAD0050u
#define STATUS_HOST_UNREACHABLE 0x0BAD0051u
#define STATUS_BROKEN_PIPE 0x0BAD0053u
#define STATUS_NOT_A_DIRECTORY 0x0BAD0054u
#define STATUS_IS_A_DIRECTORY 0x0BAD0055u
#define STATUS_NOT_EMPTY 0x0BAD0056u
#define STATUS_PERMISSION_DENIED 0x0BAD005Au
#define STATUS_NOT_PERMITTED 0x0BAD005Bu
#define STATUS_OUT_OF_RANGE 0x0BAD005Du
#define STATUS_NO_CHILD 0x0BAD0061u
#define STATUS_NO_PROCESS 0x0BAD0062u
#define STATUS_LINK_LOOP 0x0BAD0063u
#define STATUS_CROSS_DEVICE 0x0BAD0064u
#define STATUS_NOT_A_SOCKET 0x0BAD0065u
#define STATUS_ILLEGAL_SEEK 0x0BAD0066u
#define STATUS_FAMILY_NOT_SUPPORTED 0x0BAD0067u
#define STATUS_ALREADY_CONNECTED 0x0BAD0068u
#define STATUS_BAD_DEVICE_COMMAND 0x0BAD0086u
#define STATUS_IN_PROGRESS 0x0BAD0088u
#define STATUS_BAD_EXECUTABLE 0x0BAD009Bu
#define STATUS_TOO_MANY_USERS 0x0BAD00A7u
#define STATUS_DEADLOCK 0x0BAD00A9u
#define STATUS_ARGUMENTS_TOO_LONG 0x0BAD00B4u
#define STATUS_ALREADY_IN_PROGRESS 0x0BAD00DAu
#define STATUS_NO_LOCKS 0x0BAD00E7u
#define STATUS_ADDRESS_NOT_AVAILABLE 0x0BAD00FCu
#define STATUS_DESTINATION_REQUIRED 0x0BAD00FDu
#define STATUS_PROTOCOL_NOT_SUPPORTED 0x0BAD0104u
#define STATUS_FILE_BUSY 0x0BAD010Du
#define STATUS_VALUE_OVERFLOW 0x0BAD0113u
#define STATUS_NO_BUFFER_SPACE 0x0BAD0125u
#define STATUS_MESSAGE_TOO_LONG 0x0BAD0129u
#define STATUS_WRONG_PROTOCOL_TYPE 0x0BAD0144u
#define STATUS_STALE 0x0BAD0147u

/* ==== Start-up, release, hooks ========================================================================= */

VSWITCHCTL_API void LibraryInit(void);

VSWITCHCTL_API void VSDVS_FreeMemory(void *buffer);

VSWITCHCTL_API void VSZOR_FreeMemory(void *buffer);

#ifndef VSWITCHCTL_NO_HOOKS
VSWITCHCTL_API void Log(const char *format, ...);

VSWITCHCTL_API void Warning(const char *format, ...);

VSWITCHCTL_API void Panic(const char *format, ...);

#endif

/* ==== Switch identity ================================================================================== */

#define SWITCH_ID_SIZE 64
#define SWITCH_ALIAS_SIZE 128
#define PORTSET_NAME_SIZE 128
#define DV_PORT_ID_SIZE 48

VSWITCHCTL_API VsStatus DVSAliasToSwitchId(const char *alias, char *switchIdOut);

VSWITCHCTL_API VsStatus DVSAliasToPortsetName(const char *alias, char *portsetOut);

VSWITCHCTL_API VsStatus DVSPortsetNameToAlias(const char *portsetName, char *aliasOut);

VSWITCHCTL_API VsStatus VSDVS_GetAliasFromPortset(const char *portsetName, char *aliasOut);

VSWITCHCTL_API uint8_t DVPortExist(const char *switchId, const char *dvPortId);

/* ==== Properties by key ================================================================================ */

typedef struct VSWITCHCTL_PACKED PropValueBuffer {
    int32_t length;
    void *data;
} PropValueBuffer;

VSWITCHCTL_API VsStatus VSDVS_GetPortProp(const char *alias, const char *dvPortId, const char *key,
                                          PropValueBuffer *value, const char *dvsId, uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_GetHostProp(const char *alias, const char *key, PropValueBuffer *value,
                                          const char *dvsId, uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_GetGlobProp(const char *alias, const char *key, PropValueBuffer *value,
                                          const char *dvsId, uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_SetPortProp(const char *alias, const char *dvPortId, const char *key,
                                          const void *data, uint32_t length, const char *dvsId,
                                          uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_SetHostProp(const char *alias, const char *key, const void *data,
                                          uint32_t length, const char *dvsId, uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_SetGlobProp(const char *alias, const char *key, const void *data,
                                          uint32_t length, const char *dvsId, uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_ClearPortProp(const char *alias, const char *dvPortId, const char *key,
                                            const char *dvsId, uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_ClearHostProp(const char *alias, const char *key, const char *dvsId,
                                            uint8_t useAlias);

VSWITCHCTL_API VsStatus VSDVS_ClearGlobProp(const char *alias, const char *key, const char *dvsId,
                                            uint8_t useAlias);

/* ==== Switches ========================================================================================= */

VSWITCHCTL_API VsStatus VSDVS_CreateVSwitch(const char *alias, const char *switchId, const char *portsetName,
                                            uint32_t version, uint8_t opaque, uint32_t maxPorts,
                                            uint32_t numUplinks, uint32_t numPorts);

VSWITCHCTL_API VsStatus VSDVS_DestroyVSwitch(const char *alias);

/* ==== Distributed ports ================================================================================ */

VSWITCHCTL_API VsStatus VSDVS_AddDVPort(const char *alias, const char *dvPortId, uint32_t connectId);

VSWITCHCTL_API VsStatus VSDVS_AddOpaqueDVPort(const char *alias, const char *dvPortId,
                                              const char *externalId);

VSWITCHCTL_API VsStatus VSDVS_RemoveDVPort(const char *alias, const char *dvPortId);

VSWITCHCTL_API VsStatus VSDVS_DvPortIDToPortIDFromDVSID(const char *switchId, const char *dvPortId,
                                                        uint32_t *portIdOut);

VSWITCHCTL_API VsStatus VSDVS_DvPortIDToPortID(const char *alias, const char *dvPortId, uint32_t *portIdOut);

/* ==== Uplink ports ===================================================================================== */

typedef struct VSWITCHCTL_PACKED UplinkName {
    char text[81];
} UplinkName;

typedef struct VSWITCHCTL_PACKED UplinkNameList {
    uint32_t count;
    /* followed by `count` UplinkName */
} UplinkNameList;

typedef struct VSWITCHCTL_PACKED UplinkPortId {
    char text[48];
} UplinkPortId;

typedef struct VSWITCHCTL_PACKED UplinkPortIdList {
    uint32_t count;
    /* followed by `count` UplinkPortId */
} UplinkPortIdList;

VSWITCHCTL_API VsStatus SetNumSwitchUplinkPortsByUUID(const char *switchId, uint32_t numUplinks);

VSWITCHCTL_API VsStatus VSDVS_SetSwitchUplinkPorts(const char *alias, const UplinkNameList *names,
                                                   const UplinkPortIdList *ids);

VSWITCHCTL_API VsStatus VSDVS_GetSwitchUplinkPorts(const char *alias, UplinkNameList **names,
                                                   UplinkPortIdList **ids);

VSWITCHCTL_API VsStatus VSDVS_AddSwitchUplinkPort(const char *alias, const char *name);

VSWITCHCTL_API VsStatus VSDVS_RemoveSwitchUplinkPort(const char *alias, const char *dvPortId);

VSWITCHCTL_API VsStatus VSDVS_ClearSwitchUplinkPorts(const char *alias);

/* ==== Multicast filter mode ============================================================================ */

#define MCAST_FILTER_LEGACY 0
#define MCAST_FILTER_SNOOPING 1

VSWITCHCTL_API VsStatus VSDVS_GetMcastFilterMode(const char *alias, uint32_t *mode);

VSWITCHCTL_API VsStatus VSDVS_SetMcastFilterMode(const char *alias, int32_t mode);

/* ==== Mirror sessions ================================================================================== */

#define MIRROR_LIST_MAGIC 0xFACEBEEFu
#define MIRROR_LIST_VERSION 2u

typedef struct VSWITCHCTL_PACKED MirrorSessionList {
    uint32_t magic;
    uint32_t version;
    uint32_t sessionCount;
    uint32_t portEntryCount;
    uint32_t reserved;
    /* followed by `sessionCount` MirrorSessionRecord, then `portEntryCount` MirrorPortEntry */
} MirrorSessionList;

typedef struct VSWITCHCTL_PACKED MirrorSessionRecord {
    char sessionId[32];
    uint8_t settings[184];
    uint32_t entryCountA;
    uint32_t entryCountB;
    uint32_t entryCountC;
    uint32_t firstPortEntry;
} MirrorSessionRecord;

typedef struct VSWITCHCTL_PACKED MirrorPortEntry {
    uint8_t bytes[52];
} MirrorPortEntry;

VSWITCHCTL_API VsStatus VSDVS_GetDVMirrorSessions(const char *alias, const char *dvPortId,
                                                  MirrorSessionList **list);

VSWITCHCTL_API VsStatus VSDVS_AppendDVMirrorSessions(const char *alias, const char *dvPortId,
                                                     const MirrorSessionList *list);

VSWITCHCTL_API VsStatus VSDVS_RemoveDVMirrorSession(const char *alias, const char *dvPortId,
                                                    const char *sessionId);

VSWITCHCTL_API VsStatus VSDVS_ClearDVMirrorSessions(const char *alias, const char *dvPortId);

/* ==== VLAN policies ==================================================================================== */

#define VLAN_FLAG_TRUNK 1u
#define VLAN_FLAG_OPTION 2u
#define VLAN_FLAG_PRIORITY 4u
#define VLAN_PRIORITY_NONE 0xFFFFFFFFu

typedef struct VSWITCHCTL_PACKED VLANRange {
    uint16_t first;
    uint16_t last;
} VLANRange;

typedef struct VSWITCHCTL_PACKED PortVLANRecord {
    uint16_t flags;
    uint16_t vlanId;
    uint16_t reserved;
    uint16_t rangeCount;
    /* followed by `rangeCount` VLANRange */
} PortVLANRecord;

typedef struct VSWITCHCTL_PACKED PVLANMapEntry {
    uint8_t bytes[8];
} PVLANMapEntry;

VSWITCHCTL_API VsStatus VSDVS_GetPrivateVLANMap(const char *alias, PVLANMapEntry **entries, uint32_t *count);

VSWITCHCTL_API VsStatus VSDVS_SetPrivateVLANMap(const char *alias, const PVLANMapEntry *entries,
                                                uint32_t count);

VSWITCHCTL_API VsStatus VSDVS_GetPortVLANPolicy(const char *alias, const char *dvPortId,
                                                PortVLANRecord **record, uint32_t *priority);

VSWITCHCTL_API VsStatus VSDVS_SetPortVLANPolicy(const char *alias, const char *dvPortId, uint16_t vlanId,
                                                uint32_t priority, uint8_t trunk, uint8_t optionFlag,
                                                const VLANRange *ranges, uint16_t rangeCount);

VSWITCHCTL_API VsStatus VSDVS_ClearPortVLANPolicy(const char *alias, const char *dvPortId);

VSWITCHCTL_API VsStatus VSDVS_GetPortNestedVLANTagging(const char *alias, const char *dvPortId,
                                                       uint8_t *enabled);

VSWITCHCTL_API VsStatus VSDVS_SetPortNestedVLANTagging(const char *alias, const char *dvPortId,
                                                       uint8_t enabled);

/* ==== Port security, extra Ethernet filter, sink port ================================================== */

#define SINK_PORT_BIT 0x00010000u

typedef struct VSWITCHCTL_PACKED ExtraEthFilterRecord {
    uint32_t firstWord;
    uint8_t rest[196];
} ExtraEthFilterRecord;

VSWITCHCTL_API VsStatus VSDVS_GetPortSecurity(const char *alias, const char *dvPortId, uint32_t *flags);

VSWITCHCTL_API VsStatus VSDVS_SetPortSecurity(const char *alias, const char *dvPortId, const uint32_t *flags);

VSWITCHCTL_API VsStatus VSDVS_GetExtraEthFilter(const char *alias, const char *dvPortId,
                                                ExtraEthFilterRecord *record);

VSWITCHCTL_API VsStatus VSDVS_SetExtraEthFilter(const char *alias, const char *dvPortId,
                                                const ExtraEthFilterRecord *record);

VSWITCHCTL_API VsStatus VSDVS_ClearExtraEthFilter(const char *alias, const char *dvPortId);

VSWITCHCTL_API VsStatus VSDVS_IsSinkPortEnabled(const char *alias, const char *dvPortId, uint8_t *enabled);

VSWITCHCTL_API VsStatus VSDVS_ConfigureSinkPort(const char *alias, const char *dvPortId, uint8_t enable);

/* ==== MAC learning ===================================================================================== */

typedef struct VSWITCHCTL_PACKED PortMACLearningConfig {
    uint8_t portFlagA;
    uint8_t portFlagB;
    uint32_t portValueA;
    uint32_t portValueB;
} PortMACLearningConfig;

typedef struct VSWITCHCTL_PACKED SwitchMACLearningRecord {
    uint8_t switchValueA[3];
    uint8_t switchByte;
    uint32_t switchValueB;
} SwitchMACLearningRecord;

VSWITCHCTL_API VsStatus VSDVS_GetPortMACLearning(const char *alias, const char *dvPortId,
                                                 PortMACLearningConfig *config);

VSWITCHCTL_API VsStatus VSDVS_SetPortMACLearning(const char *alias, const char *dvPortId,
                                                 const PortMACLearningConfig *config);

VSWITCHCTL_API VsStatus VSDVS_GetMACLearning(const char *alias, SwitchMACLearningRecord *record);

VSWITCHCTL_API VsStatus VSDVS_SetMACLearning(const char *alias, const SwitchMACLearningRecord *record);

VSWITCHCTL_API VsStatus VSDVS_ClearMACLearning(const char *alias);

VSWITCHCTL_API VsStatus VSDVS_GetLearnStatic(const char *alias, uint8_t *enabled);

VSWITCHCTL_API VsStatus VSDVS_SetLearnStatic(const char *alias, uint8_t enabled);

VSWITCHCTL_API VsStatus VSDVS_ClearLearnStatic(const char *alias);

/* ==== Teaming policies ================================================================================= */

#define TEAMING_OVERRIDE_SIZE 81

typedef struct VSWITCHCTL_PACKED TeamingPolicy {
    uint8_t bytes[2616];
} TeamingPolicy;

VSWITCHCTL_API VsStatus VSDVS_GetTeamingPolicyFromDVSID(const char *switchId, TeamingPolicy *policy);

VSWITCHCTL_API VsStatus VSDVS_GetTeamingPolicy(const char *alias, TeamingPolicy *policy);

VSWITCHCTL_API VsStatus VSDVS_SetTeamingPolicy(const char *alias, const TeamingPolicy *policy);

VSWITCHCTL_API VsStatus VSDVS_ClearTeamingPolicy(const char *alias);

VSWITCHCTL_API VsStatus VSDVS_GetTxUplinkAlways(const char *alias, const char *dvPortId, uint8_t *always);

VSWITCHCTL_API VsStatus VSDVS_SetTxUplinkAlways(const char *alias, const char *dvPortId, uint8_t always);

VSWITCHCTL_API VsStatus VSDVS_GetPortTeamingPolicy(const char *alias, const char *dvPortId,
                                                   TeamingPolicy *policy);

VSWITCHCTL_API VsStatus VSDVS_SetPortTeamingPolicy(const char *alias, const char *dvPortId,
                                                   const TeamingPolicy *policy);

VSWITCHCTL_API VsStatus VSDVS_ClearPortTeamingPolicy(const char *alias, const char *dvPortId);

VSWITCHCTL_API VsStatus VSDVS_GetPortTeamingOverride(const char *alias, const char *dvPortId, char *text);

VSWITCHCTL_API VsStatus VSDVS_SetPortTeamingOverride(const char *alias, const char *dvPortId,
                                                     const char *text);

VSWITCHCTL_API VsStatus VSDVS_ClearPortTeamingOverride(const char *alias, const char *dvPortId);

/* ==== Logical-switch teaming =========================================================================== */

#define LS_TEAMING_POLICY_NAME_SIZE 136

typedef struct VSWITCHCTL_PACKED LSTeamingPolicyEntry {
    uint8_t bytes[2748];
} LSTeamingPolicyEntry;

typedef struct VSWITCHCTL_PACKED LSTeamingPolicyTable {
    uint32_t count;
    /* followed by `count` LSTeamingPolicyEntry */
} LSTeamingPolicyTable;

VSWITCHCTL_API VsStatus VSDVS_GetLSTeamingPolicyTableFromDVSID(const char *switchId,
                                                               LSTeamingPolicyTable **table);

VSWITCHCTL_API VsStatus VSDVS_GetLSTeamingPolicyTable(const char *alias, LSTeamingPolicyTable **table);

VSWITCHCTL_API VsStatus VSDVS_SetLSTeamingPolicy(const char *alias, const LSTeamingPolicyTable *table);

VSWITCHCTL_API VsStatus VSDVS_ClearLSTeamingPolicy(const char *alias);

VSWITCHCTL_API VsStatus VSDVS_GetPortLSTeamingPolicyName(const char *alias, const char *dvPortId,
                                                         char *policyName);

VSWITCHCTL_API VsStatus VSDVS_SetPortLSTeamingPolicy(const char *alias, const char *dvPortId,
                                                     const char *policyName);

VSWITCHCTL_API VsStatus VSDVS_ClearPortLSTeamingPolicy(const char *alias, const char *dvPortId);

/* ==== MTU ============================================================================================== */

#define MTU_MIN 1280
#define MTU_MAX 9000

VSWITCHCTL_API VsStatus VSDVS_GetMTU(const char *alias, int32_t *mtu);

VSWITCHCTL_API VsStatus VSDVS_SetMTU(const char *alias, int32_t mtu);

/* ==== Driver requests ================================================================================== */

#define ZOR_DEVICE "/dev/vswitch"
#define ZOR_RTM_DEVICE "/krem/devices/char/zordriver/rtm"

typedef struct VSWITCHCTL_PACKED ZorRequestHeader {
    uint32_t inLength;
    uint32_t outLength;
    uint64_t inPtr;
    uint64_t outPtr;
} ZorRequestHeader;

typedef struct VSWITCHCTL_PACKED ZorListHeader {
    uint32_t count;
    uint32_t aux;
    /* followed by `count` entries */
} ZorListHeader;

VSWITCHCTL_API VsStatus ZORIoctl(const char *path, int32_t request, ZorRequestHeader *header);

/* ==== Running switches and uplinks ===================================================================== */

#define VS_INFO_SIZE 208
#define LAG_TABLE_SIZE 35588
#define UPLINK_ENTRY_SIZE 36
#define UPLINK_HINT_SIZE 32

VSWITCHCTL_API VsStatus VSZOR_GetSwitches(uint32_t kind, void **switches);

VSWITCHCTL_API VsStatus VSZOR_GetVSInfo(const char *portsetName, void *info);

VSWITCHCTL_API VsStatus VSZOR_GetUplinks(const char *portsetName, void **uplinks);

VSWITCHCTL_API VsStatus VSZOR_GetUplinkLinkState(const char *portsetName, const char *uplinkName,
                                                 uint32_t *linkUp);

VSWITCHCTL_API VsStatus VSZOR_GetUplinkLACPLinkState(const char *portsetName, const char *uplinkName,
                                                     uint32_t *linkUp);

VSWITCHCTL_API VsStatus VSZOR_SetUplinkAdminLinkState(const char *portsetName, const char *uplinkName,
                                                      int32_t upFlag);

VSWITCHCTL_API VsStatus VSZOR_GetLAGTable(const char *portsetName, void **table);

VSWITCHCTL_API VsStatus VSZOR_PortGetTeamUplinkHint(uint32_t portNumber, void *hint);

VSWITCHCTL_API VsStatus VSZOR_GetUplinkDVPortID(const char *uplinkName, char *dvPortId);

VSWITCHCTL_API VsStatus VSZOR_RefreshDevNUMAInfo(const char *portsetName);

/* ==== MAC tables of the running switch ================================================================= */

#define PORT_MAC_LEARNING_STATS_SIZE 28
#define SWITCH_MAC_LEARNING_INFO_SIZE 52

typedef struct VSWITCHCTL_PACKED ZorMacTableEntry {
    uint8_t bytes[18];
} ZorMacTableEntry;

typedef struct VSWITCHCTL_PACKED ZorMacLearningProps {
    uint8_t bytes[9];
} ZorMacLearningProps;

VSWITCHCTL_API VsStatus VSZOR_GetPortMACTable(const char *alias, const char *dvPortId, uint8_t selector,
                                              void **table);

VSWITCHCTL_API VsStatus VSZOR_SetPortMACTable(const char *alias, const char *dvPortId,
                                              const ZorMacTableEntry *entry);

VSWITCHCTL_API VsStatus VSZOR_ClearPortMACTable(const char *alias, const char *dvPortId,
                                                const ZorMacTableEntry *entry);

VSWITCHCTL_API VsStatus VSZOR_GetTeamMACTable(const char *alias, int32_t selector, void **table);

VSWITCHCTL_API VsStatus VSZOR_GetPortMACLearningStats(const char *dvPortId, const char *alias, void *stats);

VSWITCHCTL_API VsStatus VSZOR_GetGlobalMACLearningProps(ZorMacLearningProps *props);

VSWITCHCTL_API VsStatus VSZOR_SetGlobalMACLearningProps(const ZorMacLearningProps *props);

VSWITCHCTL_API VsStatus VSZOR_GetSwitchMACLearningInfo(const char *portsetName, void *info);

/* ==== Multicast and mirroring of the running switch ==================================================== */

#define ADDRESS_KIND_ETHERNET 0
#define ADDRESS_KIND_IPV4 2
#define ADDRESS_KIND_IPV6 3
#define MIRROR_SESSION_STATS_SIZE 121

typedef struct VSWITCHCTL_PACKED ZorMcastStatsHeader {
    uint8_t statistics[20];
    uint32_t count;
    uint8_t reserved[4];
    /* followed by `count` addresses of 4 or 16 bytes */
} ZorMcastStatsHeader;

VSWITCHCTL_API VsStatus VSZOR_GetMcastFilterMode(const char *portsetName, uint32_t *mode);

VSWITCHCTL_API VsStatus VSZOR_GetMcastFilters(const char *portsetName, uint32_t selector, int32_t kind,
                                              void **filters);

VSWITCHCTL_API VsStatus VSZOR_GetMcastFilterStats(const char *portsetName, uint32_t selector, int32_t kind,
                                                  const void *group, void **stats);

VSWITCHCTL_API VsStatus VSZOR_GetDVMirrorSessionIDs(const char *alias, void **ids);

VSWITCHCTL_API VsStatus VSZOR_GetDVMirrorSessionStats(const char *alias, const char *sessionId, void *stats);

VSWITCHCTL_API VsStatus VSZOR_GetPromiscSessionActiveDsts(const char *alias, void **dsts);

/* ==== Teaming statistics, runtime options, RTM ========================================================= */

#define RARP_STATS_SIZE 16
#define SERVICE_PORT_TEAMING_STATS_SIZE 48
#define RUNTIME_OPTIONS_SIZE 4096

VSWITCHCTL_API VsStatus VSZOR_GetRARPStats(const char *portsetName, void *stats);

VSWITCHCTL_API VsStatus VSZOR_GetServicePortTeamingStats(const char *portsetName, void *stats);

VSWITCHCTL_API VsStatus VSZOR_GetRuntimeOptions(const uint16_t *ids, uint16_t idCount, void **options);

VSWITCHCTL_API VsStatus VSZOR_SetRuntimeOptions(const void *record);

VSWITCHCTL_API VsStatus VSZOR_GetPortLSTeamingPolicyName(uint32_t portNumber, char *policyName);

VSWITCHCTL_API VsStatus VSZOR_GetLSTeamingPolicyTable(const char *alias, LSTeamingPolicyTable **table);

VSWITCHCTL_API VsStatus VSZOR_RTMOp(const void *record, uint32_t command);

#ifdef __cplusplus
}
#endif
#endif
