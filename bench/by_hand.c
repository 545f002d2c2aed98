#define _GNU_SOURCE /* strnlen */
#include "by_hand.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "core/store.h"

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

VsStatus Hand_VSDVS_AddDVPort(const char *alias, const char *dvPortId, uint32_t connectId)
{
    static const uint8_t statistics[128];
    static const PortVLANRecord access = {0, 0, 0, 0};
    if (!alias || !dvPortId) return STATUS_BAD_PARAM;
    char switchId[SWITCH_ID_SIZE];
    VsStatus status = Resolve(alias, switchId);
    if (status != STATUS_OK) return status;
    DataBundle *bundle = NULL;
    status = DVSData_Alloc(&bundle, malloc, free);
    if (status != STATUS_OK) return status;
    DVSData_Update(bundle, "com.talpex.common.port.alias", dvPortId, (uint32_t)strlen(dvPortId) + 1, 0x10);
    DVSData_Update(bundle, "com.talpex.common.port.connectid", &connectId, sizeof(connectId), 0x10);
    DVSData_Update(bundle, "com.talpex.common.port.block", "false", 6, 0x10);
    DVSData_Update(bundle, "com.talpex.common.port.statistics", statistics, sizeof(statistics), 0x20);
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

/* ---- Policies ----------------------------------------------------------------------------------------- */

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

struct MACManagement {
    uint8_t securityDerived;
    PortMACLearningConfig config;
} __attribute__((packed));

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
