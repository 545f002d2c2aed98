#define _GNU_SOURCE /* strnlen */
#include "by_hand.h"

#include "core/store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

static VsStatus Resolve(const char *alias, char *switchId)
{
    SwitchHandle *handle = DVSState_SwitchFindByAlias(alias);
    if (!handle) return STATUS_NOT_FOUND;
    if (strcmp(DVS_ClassName(handle), "vswitch") != 0) return STATUS_BAD_PARAM;
    memcpy(switchId, DVS_SwitchId(handle), SWITCH_ID_SIZE);
    switchId[SWITCH_ID_SIZE - 1] = '\0';
    return STATUS_OK;
}

VsStatus Hand_DVSAliasToSwitchId(const char *alias, char *switchIdOut)
{
    if (!alias || !switchIdOut) return STATUS_BAD_PARAM;
    return Resolve(alias, switchIdOut);
}

/* ---- Properties by key -------------------------------------------------------------------------------- */

VsStatus Hand_VSDVS_GetPortProp(const char *alias, const char *dvPortId, const char *key,
                                PropValueBuffer *value, const char *dvsId, uint8_t useAlias)
{
    if (!value || !key || !dvPortId) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    if (useAlias) {
        if (!alias) return STATUS_BAD_PARAM;
        VsStatus status = Resolve(alias, switchId);
        if (status != STATUS_OK) return status;
    } else {
        if (!dvsId || strlen(dvsId) >= SWITCH_ID_SIZE) return STATUS_BAD_PARAM;
        strncpy(switchId, dvsId, SWITCH_ID_SIZE);
    }
    void *data = NULL;
    uint32_t length = 0;
    VsStatus status = DVSZOR_PortDataGet(switchId, dvPortId, key, &data, &length);
    if (status != STATUS_OK) return status;
    if (value->length == 0)
        value->length = (int32_t)length;
    else if ((uint32_t)value->length < length)
        status = STATUS_NO_MEMORY;
    else if (length > 0 && !value->data)
        status = STATUS_BAD_PARAM;
    else if (length > 0)
        memcpy(value->data, data, length);
    DVSZOR_DataFree(data);
    return status;
}

VsStatus Hand_VSDVS_SetPortProp(const char *alias, const char *dvPortId, const char *key, const void *data,
                                uint32_t length, const char *dvsId, uint8_t useAlias)
{
    if (!key || !dvPortId) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    if (useAlias) {
        if (!alias) return STATUS_BAD_PARAM;
        VsStatus status = Resolve(alias, switchId);
        if (status != STATUS_OK) return status;
    } else {
        if (!dvsId || strlen(dvsId) >= SWITCH_ID_SIZE) return STATUS_BAD_PARAM;
        strncpy(switchId, dvsId, SWITCH_ID_SIZE);
    }
    return DVSZOR_PortDataSet(switchId, dvPortId, key, data, length, 0x10);
}

/* ---- Ports and uplinks -------------------------------------------------------------------------------- */

struct TrunkRecord {
    PortVLANRecord header;
    VLANRange range;
} __attribute__((packed));

static VsStatus AddPort(const char *switchId, const char *dvPortId, uint32_t connectId, int uplink)
{
    static const uint8_t statistics[128];
    static const PortVLANRecord access = {0, 0, 0, 0};
    static const struct TrunkRecord trunk = {{VLAN_FLAG_TRUNK, 0, 0, 1}, {1, 4094}};
    DataBundle *bundle = NULL;
    VsStatus status = DVSData_Alloc(&bundle, malloc, free);
    if (status != STATUS_OK) return status;
    DVSData_Update(bundle, "com.talpex.common.port.alias", dvPortId, (uint32_t)strlen(dvPortId) + 1, 0x10);
    DVSData_Update(bundle, "com.talpex.common.port.connectid", &connectId, sizeof(connectId), 0x10);
    DVSData_Update(bundle, "com.talpex.common.port.block", "false", 6, 0x10);
    DVSData_Update(bundle, "com.talpex.common.port.statistics", statistics, sizeof(statistics), 0x20);
    if (uplink)
        DVSData_Update(bundle, "com.talpex.vswitch.port.vlan", &trunk, sizeof(trunk), 0x08);
    else
        DVSData_Update(bundle, "com.talpex.vswitch.port.vlan", &access, sizeof(access), 0x08);
    void *buffer = NULL;
    uint32_t length = 0;
    status = DVSData_Serialize(bundle, &buffer, &length, 5);
    DVSData_Free(bundle);
    if (status != STATUS_OK) return status;
    status = DVSZOR_PortAdd(switchId, dvPortId, buffer, length);
    free(buffer);
    return status;
}

VsStatus Hand_VSDVS_AddDVPort(const char *alias, const char *dvPortId, uint32_t connectId)
{
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    return AddPort(switchId, dvPortId, connectId, 0);
}

static UplinkName *NameFields(UplinkNameList *list) { return (UplinkName *)(list + 1); }
static UplinkPortId *IdFields(UplinkPortIdList *list) { return (UplinkPortId *)(list + 1); }

/* Puts the names into the order of the ids; null when memory is short or a port's name is not listed. */
static UplinkNameList *InOrderOfIds(const char *switchId, UplinkNameList *names, UplinkPortIdList *ids,
                                    uint32_t extra)
{
    UplinkNameList *ordered = calloc(1, sizeof(*names) + (names->count + extra) * sizeof(UplinkName));
    if (!ordered) return NULL;
    ordered->count = names->count + extra;
    for (uint32_t i = 0; i < ids->count; i++) {
        char dvPortId[sizeof(UplinkPortId) + 1];
        memcpy(dvPortId, IdFields(ids)[i].text, sizeof(UplinkPortId));
        dvPortId[sizeof(UplinkPortId)] = '\0';
        void *alias = NULL;
        uint32_t length = 0;
        uint32_t at = names->count;
        if (DVSZOR_PortDataGet(switchId, dvPortId, "com.talpex.common.port.alias", &alias, &length) ==
            STATUS_OK) {
            for (at = 0; at < names->count; at++) {
                const char *text = NameFields(names)[at].text;
                size_t size = strnlen(text, sizeof(UplinkName)) + 1;
                if (size <= sizeof(UplinkName) && size == length && memcmp(text, alias, length) == 0) break;
            }
            if (at < names->count) memcpy(NameFields(ordered)[i].text, alias, length);
            DVSZOR_DataFree(alias);
        }
        if (at == names->count) {
            free(ordered);
            return NULL;
        }
    }
    return ordered;
}

static int HasId(UplinkPortIdList *ids, const char *dvPortId)
{
    if (strnlen(dvPortId, sizeof(UplinkPortId)) == sizeof(UplinkPortId)) return 0;
    for (uint32_t i = 0; i < ids->count; i++) {
        if (strncmp(IdFields(ids)[i].text, dvPortId, sizeof(UplinkPortId)) == 0) return 1;
    }
    return 0;
}

static VsStatus AddUplink(const char *switchId, const char *name, UplinkNameList *oldNames,
                          UplinkPortIdList *oldIds)
{
    if (HasId(oldIds, name)) return STATUS_EXISTS;
    const uint32_t count = oldIds->count;
    UplinkNameList *names = InOrderOfIds(switchId, oldNames, oldIds, 1);
    if (!names) return STATUS_FAILURE;
    strcpy(NameFields(names)[count].text, name);
    const uint32_t size = (uint32_t)(sizeof(*oldIds) + (count + 1) * sizeof(UplinkPortId));
    UplinkPortIdList *ids = calloc(1, size);
    VsStatus status = ids ? AddPort(switchId, name, 1, 1) : STATUS_NO_MEMORY;
    if (status == STATUS_OK) {
        memcpy(ids, oldIds, sizeof(*oldIds) + count * sizeof(UplinkPortId));
        strcpy(IdFields(ids)[count].text, name);
        ids->count = count + 1;
        status = DVSZOR_GlobalPropSet(switchId, "com.talpex.common.uplinkPorts", names,
                                      (uint32_t)(sizeof(*names) + names->count * sizeof(UplinkName)), 0x10);
        if (status == STATUS_OK) {
            status = DVSZOR_HostPropSet(switchId, "com.talpex.common.host.uplinkPorts", ids, size, 0x10);
            if (status != STATUS_OK)
                DVSZOR_GlobalPropSet(switchId, "com.talpex.common.uplinkPorts", oldNames,
                                     (uint32_t)(sizeof(*names) + count * sizeof(UplinkName)), 0x10);
        }
        if (status != STATUS_OK) DVSZOR_PortRemove(switchId, name);
    }
    free(names);
    free(ids);
    return status;
}

VsStatus Hand_VSDVS_AddSwitchUplinkPort(const char *alias, const char *name)
{
    if (!alias || !name) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    if (strlen(name) >= DV_PORT_ID_SIZE) return STATUS_BAD_PARAM;
    void *names = NULL, *ids = NULL;
    uint32_t namesLength = 0, idsLength = 0;
    status = DVSZOR_GlobalPropGet(switchId, "com.talpex.common.uplinkPorts", &names, &namesLength);
    if (status != STATUS_OK) return status;
    status = DVSZOR_HostPropGet(switchId, "com.talpex.common.host.uplinkPorts", &ids, &idsLength);
    if (status == STATUS_OK) {
        const uint32_t count = ((UplinkNameList *)names)->count;
        if (namesLength != sizeof(uint32_t) + (uint64_t)count * sizeof(UplinkName) ||
            idsLength != sizeof(uint32_t) + (uint64_t)count * sizeof(UplinkPortId) ||
            ((UplinkPortIdList *)ids)->count != count)
            status = STATUS_FAILURE;
        else
            status = AddUplink(switchId, name, names, ids);
        DVSZOR_DataFree(ids);
    }
    DVSZOR_DataFree(names);
    return status;
}

/* ---- Policies ----------------------------------------------------------------------------------------- */

static VsStatus Driver(int32_t command, const void *input, uint32_t inLength, void *output,
                       uint32_t outLength);

/* The name of a running switch: its portset's, its alias or its id. */
static VsStatus ResolvePortset(const char *alias, char *portsetName)
{
    SwitchHandle *handle = DVSState_SwitchFindByAlias(alias);
    if (!handle) return STATUS_NOT_FOUND;
    const char *switchId = DVS_SwitchId(handle);
    PropHandle *property = NULL;
    void *name = NULL;
    if (DVSState_HostPropLookup(switchId, "com.talpex.common.host.portset", &property) == STATUS_OK)
        DVSData_Data(property, &name);
    if (!name && DVSState_GlobalPropLookup(switchId, "com.talpex.common.alias", &property) == STATUS_OK)
        DVSData_Data(property, &name);
    memset(portsetName, 0, PORTSET_NAME_SIZE);
    if (name)
        strncpy(portsetName, name, PORTSET_NAME_SIZE - 1);
    else
        strncpy(portsetName, switchId, SWITCH_ID_SIZE - 1);
    return STATUS_OK;
}

VsStatus Hand_VSDVS_GetMcastFilterMode(const char *alias, uint32_t *mode)
{
    if (!alias || !mode) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    void *value = NULL;
    uint32_t length = 0;
    status = DVSZOR_GlobalPropGet(switchId, "com.talpex.vswitch.multicastFilter", &value, &length);
    if (status == STATUS_NOT_FOUND) {
        char input[212] = {0};
        status = ResolvePortset(alias, input);
        return status != STATUS_OK ? status : Driver(4103, input, sizeof(input), mode, sizeof(*mode));
    }
    if (status != STATUS_OK) return status;
    if (length >= 16 && memcmp(value, "legacyFiltering", 16) == 0)
        *mode = 0;
    else if (length >= 9 && memcmp(value, "snooping", 9) == 0)
        *mode = 1;
    else
        status = STATUS_FAILURE;
    DVSZOR_DataFree(value);
    return status;
}

VsStatus Hand_VSDVS_SetMcastFilterMode(const char *alias, int32_t mode)
{
    if (!alias || mode < 0 || mode > 1) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    const char *name = mode == 0 ? "legacyFiltering" : "snooping";
    return DVSZOR_GlobalPropSet(switchId, "com.talpex.vswitch.multicastFilter", name,
                                (uint32_t)strlen(name) + 1, 0x10);
}

static const MirrorSessionRecord *Sessions(const MirrorSessionList *list)
{
    return (const MirrorSessionRecord *)(list + 1);
}

static uint64_t MirrorSize(const MirrorSessionList *list)
{
    return sizeof(*list) + (uint64_t)list->sessionCount * sizeof(MirrorSessionRecord) +
           (uint64_t)list->portEntryCount * sizeof(MirrorPortEntry);
}

static uint64_t Entries(const MirrorSessionRecord *session)
{
    return (uint64_t)session->entryCountA + session->entryCountB + session->entryCountC;
}

static VsStatus ReadMirrors(const char *switchId, const char *dvPortId, void **list)
{
    uint32_t length = 0;
    VsStatus status =
        dvPortId && *dvPortId
            ? DVSZOR_PortDataGet(switchId, dvPortId, "com.talpex.vswitch.port.mirrorSessions", list, &length)
            : DVSZOR_HostPropGet(switchId, "com.talpex.vswitch.uplinkMirrorSessions", list, &length);
    if (status != STATUS_OK) return status;
    if (length >= sizeof(MirrorSessionList) && MirrorSize(*list) <= length) return STATUS_OK;
    DVSZOR_DataFree(*list);
    return STATUS_FAILURE;
}

static VsStatus WriteMirrors(const char *switchId, const char *dvPortId, const MirrorSessionList *list)
{
    const uint32_t size = (uint32_t)MirrorSize(list);
    return dvPortId && *dvPortId
               ? DVSZOR_PortDataSet(switchId, dvPortId, "com.talpex.vswitch.port.mirrorSessions", list, size,
                                    0x08)
               : DVSZOR_HostPropSet(switchId, "com.talpex.vswitch.uplinkMirrorSessions", list, size, 0x08);
}

VsStatus Hand_VSDVS_GetDVMirrorSessions(const char *alias, const char *dvPortId, MirrorSessionList **list)
{
    if (!alias || !list) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    if (Resolve(alias, switchId) != STATUS_OK) return STATUS_FAILURE;
    void *stored = NULL;
    VsStatus status = ReadMirrors(switchId, dvPortId, &stored);
    if (status == STATUS_OK) *list = stored;
    return status;
}

static VsStatus AppendMirrors(const char *switchId, const char *dvPortId, const MirrorSessionList *stored,
                              const MirrorSessionList *added)
{
    for (uint32_t i = 0; i < added->sessionCount; i++) {
        for (uint32_t j = 0; j < stored->sessionCount; j++) {
            if (strncmp(Sessions(stored)[j].sessionId, Sessions(added)[i].sessionId, 32) == 0)
                return STATUS_EXISTS;
        }
    }
    const uint64_t size = MirrorSize(stored) + MirrorSize(added) - sizeof(*added);
    MirrorSessionList *merged = size <= UINT32_MAX ? malloc(size) : NULL;
    if (!merged) return STATUS_NO_MEMORY;
    const size_t storedSize = stored->sessionCount * sizeof(MirrorSessionRecord);
    const size_t addedSize = added->sessionCount * sizeof(MirrorSessionRecord);
    const size_t storedEntries = stored->portEntryCount * sizeof(MirrorPortEntry);
    uint8_t *next = (uint8_t *)(merged + 1);
    *merged = *stored;
    memcpy(next, Sessions(stored), storedSize);
    memcpy(next + storedSize, Sessions(added), addedSize);
    MirrorSessionRecord *appended = (MirrorSessionRecord *)(next + storedSize);
    for (uint32_t i = 0; i < added->sessionCount; i++)
        appended[i].firstPortEntry += stored->portEntryCount;
    next += storedSize + addedSize;
    memcpy(next, Sessions(stored) + stored->sessionCount, storedEntries);
    memcpy(next + storedEntries, Sessions(added) + added->sessionCount,
           added->portEntryCount * sizeof(MirrorPortEntry));
    merged->sessionCount += added->sessionCount;
    merged->portEntryCount += added->portEntryCount;
    VsStatus status = WriteMirrors(switchId, dvPortId, merged);
    free(merged);
    return status;
}

VsStatus Hand_VSDVS_AppendDVMirrorSessions(const char *alias, const char *dvPortId,
                                           const MirrorSessionList *list)
{
    static const MirrorSessionList empty = {MIRROR_LIST_MAGIC, MIRROR_LIST_VERSION, 0, 0, 0};
    if (!alias || !list) return STATUS_BAD_PARAM;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < list->sessionCount; i++) {
        const MirrorSessionRecord *session = &Sessions(list)[i];
        if (session->firstPortEntry + Entries(session) > list->portEntryCount) return STATUS_BAD_PARAM;
        sum += Entries(session);
    }
    if (sum != list->portEntryCount) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    void *stored = NULL;
    status = ReadMirrors(switchId, dvPortId, &stored);
    if (status == STATUS_NOT_FOUND) return AppendMirrors(switchId, dvPortId, &empty, list);
    if (status != STATUS_OK) return status;
    status = AppendMirrors(switchId, dvPortId, stored, list);
    DVSZOR_DataFree(stored);
    return status;
}

static VsStatus CutMirror(const char *switchId, const char *dvPortId, MirrorSessionList *list,
                          const char *sessionId)
{
    MirrorSessionRecord *sessions = (MirrorSessionRecord *)(list + 1);
    uint32_t index = 0;
    while (index < list->sessionCount && strncmp(sessions[index].sessionId, sessionId, 32) != 0)
        index++;
    if (index == list->sessionCount) return STATUS_NOT_FOUND;
    if (list->sessionCount == 1)
        return dvPortId && *dvPortId
                   ? DVSZOR_PortDataClear(switchId, dvPortId, "com.talpex.vswitch.port.mirrorSessions")
                   : DVSZOR_HostPropClear(switchId, "com.talpex.vswitch.uplinkMirrorSessions");
    uint64_t next = 0;
    for (uint32_t i = 0; i < list->sessionCount; i++) {
        const uint64_t count = Entries(&sessions[i]);
        if (count == 0) continue;
        if (sessions[i].firstPortEntry < next) return STATUS_FAILURE;
        next = sessions[i].firstPortEntry + count;
    }
    if (next > list->portEntryCount) return STATUS_FAILURE;
    const uint32_t count = (uint32_t)Entries(&sessions[index]);
    const uint32_t first = count > 0 ? sessions[index].firstPortEntry : 0;
    for (uint32_t i = index + 1; i < list->sessionCount; i++)
        sessions[i].firstPortEntry -= sessions[i].firstPortEntry < count ? sessions[i].firstPortEntry : count;
    uint8_t *entries = (uint8_t *)(sessions + list->sessionCount);
    uint8_t *after = entries + (first + count) * sizeof(MirrorPortEntry);
    uint8_t *end = entries + list->portEntryCount * sizeof(MirrorPortEntry);
    uint8_t *to = (uint8_t *)(sessions + index);
    const size_t before =
        (size_t)(entries + first * sizeof(MirrorPortEntry) - (uint8_t *)(sessions + index + 1));
    memmove(to, sessions + index + 1, before);
    memmove(to + before, after, (size_t)(end - after));
    list->sessionCount--;
    list->portEntryCount -= count;
    return WriteMirrors(switchId, dvPortId, list);
}

VsStatus Hand_VSDVS_RemoveDVMirrorSession(const char *alias, const char *dvPortId, const char *sessionId)
{
    if (!alias || !sessionId) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    void *stored = NULL;
    status = ReadMirrors(switchId, dvPortId, &stored);
    if (status != STATUS_OK) return status;
    status = CutMirror(switchId, dvPortId, stored, sessionId);
    DVSZOR_DataFree(stored);
    return status;
}

VsStatus Hand_VSDVS_GetPrivateVLANMap(const char *alias, PVLANMapEntry **entries, uint32_t *count)
{
    if (!alias || !entries || !count) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    void *value = NULL;
    uint32_t length = 0;
    status = DVSZOR_GlobalPropGet(switchId, "com.talpex.vswitch.pvlanMap", &value, &length);
    if (status != STATUS_OK) return status;
    if (length % sizeof(PVLANMapEntry) != 0) {
        DVSZOR_DataFree(value);
        return STATUS_FAILURE;
    }
    *count = length / (uint32_t)sizeof(PVLANMapEntry);
    *entries = value;
    return STATUS_OK;
}

VsStatus Hand_VSDVS_SetPrivateVLANMap(const char *alias, const PVLANMapEntry *entries, uint32_t count)
{
    if (!alias || (count > 0 && !entries)) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    if (count == 0) return DVSZOR_GlobalPropClear(switchId, "com.talpex.vswitch.pvlanMap");
    return DVSZOR_GlobalPropSet(switchId, "com.talpex.vswitch.pvlanMap", entries,
                                count * (uint32_t)sizeof(*entries), 0x08);
}

/* A value of one length, copied out. */
static VsStatus GetPort(const char *switchId, const char *dvPortId, const char *key, void *record,
                        uint32_t size)
{
    void *value = NULL;
    uint32_t length = 0;
    VsStatus status = DVSZOR_PortDataGet(switchId, dvPortId, key, &value, &length);
    if (status != STATUS_OK) return status;
    if (length == size)
        memcpy(record, value, size);
    else
        status = STATUS_FAILURE;
    DVSZOR_DataFree(value);
    return status;
}

VsStatus Hand_VSDVS_GetPortVLANPolicy(const char *alias, const char *dvPortId, PortVLANRecord **record,
                                      uint32_t *priority)
{
    if (!alias || !dvPortId || !record || !priority) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    void *value = NULL;
    uint32_t length = 0;
    status = DVSZOR_PortDataGet(switchId, dvPortId, "com.talpex.vswitch.port.vlan", &value, &length);
    if (status != STATUS_OK) return status;
    PortVLANRecord *vlan = value;
    if (length < sizeof(*vlan) || length != sizeof(*vlan) + vlan->rangeCount * sizeof(VLANRange)) {
        DVSZOR_DataFree(value);
        return STATUS_FAILURE;
    }
    *record = vlan;
    *priority = 0;
    GetPort(switchId, dvPortId, "com.talpex.vswitch.port.priority", priority, sizeof(*priority));
    return STATUS_OK;
}

VsStatus Hand_VSDVS_SetPortVLANPolicy(const char *alias, const char *dvPortId, uint16_t vlanId,
                                      uint32_t priority, uint8_t trunk, uint8_t optionFlag,
                                      const VLANRange *ranges, uint16_t rangeCount)
{
    static const VLANRange all = {0, 4094};
    static const char priorityKey[] = "com.talpex.vswitch.port.priority";
    if (!alias || !dvPortId || (rangeCount > 0 && !ranges)) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    if (trunk && rangeCount == 0) {
        ranges = &all;
        rangeCount = 1;
    }
    const uint32_t length = (uint32_t)(sizeof(PortVLANRecord) + rangeCount * sizeof(VLANRange));
    PortVLANRecord *record = malloc(length);
    if (!record) return STATUS_NO_MEMORY;
    record->flags = (uint16_t)((trunk ? VLAN_FLAG_TRUNK : 0) | (optionFlag ? VLAN_FLAG_OPTION : 0) |
                               (priority != VLAN_PRIORITY_NONE ? VLAN_FLAG_PRIORITY : 0));
    record->vlanId = vlanId;
    record->reserved = 0;
    record->rangeCount = rangeCount;
    if (rangeCount > 0) memcpy(record + 1, ranges, rangeCount * sizeof(VLANRange));
    status = DVSZOR_PortDataSet(switchId, dvPortId, "com.talpex.vswitch.port.vlan", record, length, 0x08);
    free(record);
    if (status != STATUS_OK) return status;
    if (priority != VLAN_PRIORITY_NONE)
        return DVSZOR_PortDataSet(switchId, dvPortId, priorityKey, &priority, sizeof(priority), 0x08);
    void *value = NULL;
    if (DVSZOR_PortDataGet(switchId, dvPortId, priorityKey, &value, &(uint32_t){0}) != STATUS_OK)
        return STATUS_OK;
    status = DVSZOR_PortDataClear(switchId, dvPortId, priorityKey);
    DVSZOR_DataFree(value);
    return status == STATUS_NOT_FOUND ? STATUS_OK : status;
}

VsStatus Hand_VSDVS_GetPortSecurity(const char *alias, const char *dvPortId, uint32_t *flags)
{
    if (!alias || !dvPortId || !flags) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    status = GetPort(switchId, dvPortId, "com.talpex.vswitch.port.security", flags, sizeof(*flags));
    if (status != STATUS_NOT_FOUND) return status;
    *flags = 1;
    return STATUS_OK;
}

VsStatus Hand_VSDVS_SetPortSecurity(const char *alias, const char *dvPortId, const uint32_t *flags)
{
    if (!alias || !dvPortId || !flags || *flags > 7) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    return DVSZOR_PortDataSet(switchId, dvPortId, "com.talpex.vswitch.port.security", flags, sizeof(*flags),
                              0x10);
}

VsStatus Hand_VSDVS_GetExtraEthFilter(const char *alias, const char *dvPortId, ExtraEthFilterRecord *record)
{
    if (!alias || !dvPortId || !record) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    if (Resolve(alias, switchId) != STATUS_OK) return STATUS_FAILURE;
    return GetPort(switchId, dvPortId, "com.talpex.vswitch.port.extraEthFRP", record, sizeof(*record));
}

VsStatus Hand_VSDVS_SetExtraEthFilter(const char *alias, const char *dvPortId,
                                      const ExtraEthFilterRecord *record)
{
    if (!alias || !dvPortId || !record) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    return DVSZOR_PortDataSet(switchId, dvPortId, "com.talpex.vswitch.port.extraEthFRP", record,
                              sizeof(*record), 0x10);
}

struct MACManagement {
    uint8_t securityDerived;
    PortMACLearningConfig config;
} __attribute__((packed));

VsStatus Hand_VSDVS_GetPortMACLearning(const char *alias, const char *dvPortId, PortMACLearningConfig *config)
{
    if (!alias || !dvPortId || !config) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    struct MACManagement record = {0, {0, 0, 4096, 0}};
    status = GetPort(switchId, dvPortId, "com.talpex.vswitch.port.macManagement", &record, sizeof(record));
    if (status != STATUS_OK && status != STATUS_NOT_FOUND) return status;
    *config = record.config;
    return STATUS_OK;
}

VsStatus Hand_VSDVS_SetPortMACLearning(const char *alias, const char *dvPortId,
                                       const PortMACLearningConfig *config)
{
    if (!alias || !dvPortId || !config) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    uint32_t flags = 2;
    GetPort(switchId, dvPortId, "com.talpex.vswitch.port.security", &flags, sizeof(flags));
    const struct MACManagement record = {(flags & 2) == 0, *config};
    return DVSZOR_PortDataSet(switchId, dvPortId, "com.talpex.vswitch.port.macManagement", &record,
                              sizeof(record), 0x10);
}

VsStatus Hand_VSDVS_GetTeamingPolicy(const char *alias, TeamingPolicy *policy)
{
    if (!alias || !policy) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    void *value = NULL;
    uint32_t length = 0;
    status = DVSZOR_GlobalPropGet(switchId, "com.talpex.vswitch.teaming", &value, &length);
    if (status != STATUS_OK) return status;
    if (length == sizeof(*policy))
        memcpy(policy, value, sizeof(*policy));
    else
        status = STATUS_FAILURE;
    DVSZOR_DataFree(value);
    return status;
}

VsStatus Hand_VSDVS_SetTeamingPolicy(const char *alias, const TeamingPolicy *policy)
{
    if (!alias || !policy) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    return DVSZOR_GlobalPropSet(switchId, "com.talpex.vswitch.teaming", policy, sizeof(*policy), 0x10);
}

VsStatus Hand_VSDVS_GetPortLSTeamingPolicyName(const char *alias, const char *dvPortId, char *policyName)
{
    if (!policyName) return STATUS_BAD_PARAM;
    memset(policyName, 0, LS_TEAMING_POLICY_NAME_SIZE);
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    void *value = NULL;
    uint32_t length = 0;
    status = DVSZOR_PortDataGet(switchId, dvPortId, "com.talpex.vswitch.port.logicalswitch.teaming", &value,
                                &length);
    if (status != STATUS_OK) return status;
    if (length <= LS_TEAMING_POLICY_NAME_SIZE)
        memcpy(policyName, value, length);
    else
        status = STATUS_FAILURE;
    DVSZOR_DataFree(value);
    return status;
}

VsStatus Hand_VSDVS_SetPortLSTeamingPolicy(const char *alias, const char *dvPortId, const char *policyName)
{
    if (!alias || !dvPortId || !policyName) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    return DVSZOR_PortDataSet(switchId, dvPortId, "com.talpex.vswitch.port.logicalswitch.teaming", policyName,
                              (uint32_t)strlen(policyName) + 1, 0x10);
}

/* ---- Driver requests ---------------------------------------------------------------------------------- */

struct RequestInput {
    char name[128];
    char dvPortId[48];
    union {
        struct {
            char uplinkName[32];
            uint32_t adminUp;
        } uplink;
        ZorMacTableEntry macEntry;
    };
} __attribute__((packed));

static VsStatus Driver(int32_t command, const void *input, uint32_t inLength, void *output,
                       uint32_t outLength)
{
    ZorRequestHeader header = {inLength, outLength, (uint64_t)(uintptr_t)input, (uint64_t)(uintptr_t)output};
    int device = open(ZOR_DEVICE, O_RDWR);
    if (device < 0) return errno ? STATUS_FAILURE : STATUS_OK;
    int result = ioctl(device, (unsigned long)command, &header);
    close(device);
    return result < 0 && errno ? STATUS_FAILURE : STATUS_OK;
}

static void CopyName(char *field, const char *name, size_t size)
{
    size_t length = strlen(name);
    if (length >= size) length = size - 1;
    memcpy(field, name, length);
}

VsStatus Hand_VSZOR_GetVSInfo(const char *portsetName, void *info)
{
    if (!portsetName || !info) return STATUS_BAD_PARAM;
    struct RequestInput input = {0};
    CopyName(input.name, portsetName, sizeof(input.name));
    memset(info, 0, VS_INFO_SIZE);
    return Driver(4111, &input, sizeof(input), info, VS_INFO_SIZE);
}

VsStatus Hand_VSZOR_SetUplinkAdminLinkState(const char *portsetName, const char *uplinkName, int32_t upFlag)
{
    if (!portsetName || !uplinkName) return STATUS_BAD_PARAM;
    struct RequestInput input = {0};
    CopyName(input.name, portsetName, sizeof(input.name));
    CopyName(input.uplink.uplinkName, uplinkName, sizeof(input.uplink.uplinkName));
    input.uplink.adminUp = upFlag != 0;
    return Driver(8194, &input, sizeof(input), NULL, 0);
}

VsStatus Hand_VSZOR_SetPortMACTable(const char *alias, const char *dvPortId, const ZorMacTableEntry *entry)
{
    if (!alias || !dvPortId || !entry) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    struct RequestInput input = {0};
    CopyName(input.name, switchId, sizeof(input.name));
    CopyName(input.dvPortId, dvPortId, sizeof(input.dvPortId));
    input.macEntry = *entry;
    return Driver(8195, &input, sizeof(input), NULL, 0);
}

VsStatus Hand_VSZOR_GetUplinks(const char *portsetName, void **uplinks)
{
    if (!portsetName || !uplinks) return STATUS_BAD_PARAM;
    struct RequestInput input = {0};
    CopyName(input.name, portsetName, sizeof(input.name));
    ZorListHeader first = {0, 0};
    VsStatus status = Driver(4106, &input, sizeof(input), &first, sizeof(first));
    if (status != STATUS_OK) return status;
    *uplinks = NULL;
    const uint32_t size = (uint32_t)sizeof(first) + first.count * UPLINK_ENTRY_SIZE;
    ZorListHeader *list = calloc(1, size);
    if (!list) return STATUS_NO_MEMORY;
    if (first.count == 0)
        *list = first;
    else
        status = Driver(4106, &input, sizeof(input), list, size);
    if (status == STATUS_OK)
        *uplinks = list;
    else
        free(list);
    return status;
}
