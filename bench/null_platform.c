#define _GNU_SOURCE /* fmemopen */
#include "null_platform.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <valgrind/callgrind.h>

#include "core/store.h"

enum { MAX_ANSWERS = 64, VALUE_SIZE = 4 * 1024 * 1024, LARGEST_HEADER = 28, COUNT_OFFSET_OF_LARGEST = 20 };

struct Answer {
    const char *key;
    const void *data;
    uint32_t length;
    uint8_t *copy;
};

static struct Answer answers[MAX_ANSWERS];
static uint32_t answerCount;
static uint32_t listCount = 1;
static char shellOutput[256];
static uint64_t trace;
static char handle;

/* The platform's work does not count as the library's cost, nor does libc's work for the platform. */
#define BEGIN_UNCOUNTED CALLGRIND_TOGGLE_COLLECT
#define END_UNCOUNTED CALLGRIND_TOGGLE_COLLECT

static void Fold(const void *data, uint64_t size)
{
    const uint8_t *bytes = data;
    for (uint64_t i = 0; i < size; i++)
        trace = (trace ^ bytes[i]) * 0x100000001B3u;
}

static void FoldText(const char *text)
{
    for (; *text; text++)
        Fold(text, 1);
    Fold("", 1);
}

static struct Answer *Find(const char *key)
{
    for (uint32_t i = 0; i < answerCount; i++) {
        const char *a = answers[i].key;
        const char *b = key;
        while (*a && *a == *b)
            a++, b++;
        if (*a == *b) return &answers[i];
    }
    return NULL;
}

void NullPlatform_Answer(const char *key, const void *data, uint32_t length)
{
    struct Answer *answer = Find(key);
    if (!answer) {
        answer = &answers[answerCount++];
        answer->copy = malloc(VALUE_SIZE);
    }
    answer->key = key;
    answer->data = data;
    answer->length = length;
    if (!answer->copy || length > VALUE_SIZE || answerCount == MAX_ANSWERS) abort();
}

void NullPlatform_SetListCount(uint32_t count) { listCount = count; }

void NullPlatform_SetShellOutput(const char *text) { snprintf(shellOutput, sizeof(shellOutput), "%s", text); }

void NullPlatform_Reset(void)
{
    for (uint32_t i = 0; i < answerCount; i++)
        memcpy(answers[i].copy, answers[i].data, answers[i].length);
    trace = 0xCBF29CE484222325u;
}

uint64_t NullPlatform_Trace(void) { return trace; }

/* ---- The store ---------------------------------------------------------------------------------------- */

static VsStatus Get(const char *where, const char *key, void **value, uint32_t *length)
{
    FoldText(where);
    FoldText(key);
    const struct Answer *answer = Find(key);
    if (!answer) return STATUS_NOT_FOUND;
    *value = answer->copy;
    *length = answer->length;
    return STATUS_OK;
}

static VsStatus Set(const char *where, const char *key, const void *value, uint32_t length, uint32_t flags)
{
    FoldText(where);
    FoldText(key);
    Fold(value, length);
    Fold(&flags, sizeof(flags));
    return STATUS_OK;
}

static VsStatus Did(const char *what, const char *where)
{
    FoldText(what);
    FoldText(where);
    return STATUS_OK;
}

VsStatus DVSZOR_GlobalPropGet(const char *switchId, const char *key, void **value, uint32_t *length)
{
    return Get(switchId, key, value, length);
}

VsStatus DVSZOR_GlobalPropSet(const char *switchId, const char *key, const void *value, uint32_t length,
                              uint32_t flags)
{
    return Set(switchId, key, value, length, flags);
}

VsStatus DVSZOR_GlobalPropClear(const char *switchId, const char *key) { return Did(switchId, key); }

VsStatus DVSZOR_HostPropGet(const char *switchId, const char *key, void **value, uint32_t *length)
{
    return Get(switchId, key, value, length);
}

VsStatus DVSZOR_HostPropSet(const char *switchId, const char *key, const void *value, uint32_t length,
                            uint32_t flags)
{
    return Set(switchId, key, value, length, flags);
}

VsStatus DVSZOR_HostPropClear(const char *switchId, const char *key) { return Did(switchId, key); }

VsStatus DVSZOR_PortDataGet(const char *switchId, const char *dvPortId, const char *key, void **value,
                            uint32_t *length)
{
    FoldText(switchId);
    return Get(dvPortId, key, value, length);
}

VsStatus DVSZOR_PortDataSet(const char *switchId, const char *dvPortId, const char *key, const void *value,
                            uint32_t length, uint32_t flags)
{
    FoldText(switchId);
    return Set(dvPortId, key, value, length, flags);
}

VsStatus DVSZOR_PortDataClear(const char *switchId, const char *dvPortId, const char *key)
{
    FoldText(switchId);
    return Did(dvPortId, key);
}

void DVSZOR_DataFree(void *buffer) { (void)buffer; }

VsStatus DVSZOR_PortAdd(const char *switchId, const char *dvPortId, const void *bundle, uint32_t length)
{
    Fold(bundle, length);
    return Did(switchId, dvPortId);
}

VsStatus DVSZOR_PortRemove(const char *switchId, const char *dvPortId) { return Did(switchId, dvPortId); }

VsStatus DVSZOR_SwitchAdd(const char *switchId, const char *className, uint32_t numPorts, uint32_t version)
{
    Fold(&numPorts, sizeof(numPorts));
    Fold(&version, sizeof(version));
    return Did(switchId, className);
}

VsStatus DVSZOR_SwitchRemove(const char *switchId) { return Did("remove", switchId); }
VsStatus DVSZOR_SwitchAssociate(const char *switchId) { return Did("associate", switchId); }
VsStatus DVSZOR_SwitchDissociate(const char *switchId) { return Did("dissociate", switchId); }

static void *Allocate(uint32_t size)
{
    BEGIN_UNCOUNTED;
    void *memory = calloc(1, size);
    END_UNCOUNTED;
    return memory;
}

VsStatus DVSZOR_StateGet(void **configuration, uint32_t *length)
{
    *length = 16;
    *configuration = Allocate(*length);
    return STATUS_OK;
}

VsStatus DVSState_ConfigReset(void) { return STATUS_OK; }

VsStatus DVSState_ConfigDeserialize(const void *configuration, uint32_t length)
{
    Fold(configuration, length);
    return STATUS_OK;
}

SwitchHandle *DVSState_SwitchFindByAlias(const char *alias)
{
    FoldText(alias);
    return (SwitchHandle *)&handle;
}

void DVSState_SwitchForEach(int (*callback)(SwitchHandle *, void *), void *context)
{
    callback((SwitchHandle *)&handle, context);
}

void *DVSState_PortFind(const char *switchId, const char *dvPortId)
{
    Did(switchId, dvPortId);
    return &handle;
}

static VsStatus Lookup(const char *switchId, const char *key, PropHandle **property)
{
    Did(switchId, key);
    *property = (PropHandle *)Find(key);
    return *property ? STATUS_OK : STATUS_NOT_FOUND;
}

VsStatus DVSState_GlobalPropLookup(const char *switchId, const char *key, PropHandle **property)
{
    return Lookup(switchId, key, property);
}

VsStatus DVSState_HostPropLookup(const char *switchId, const char *key, PropHandle **property)
{
    return Lookup(switchId, key, property);
}

const char *DVS_ClassName(SwitchHandle *switchHandle)
{
    static const char CLASS[64] __attribute__((aligned(64))) = "vswitch";
    return (void)switchHandle, CLASS;
}

const char *DVS_SwitchId(SwitchHandle *switchHandle)
{
    static const char SWITCH_ID[SWITCH_ID_SIZE] = "73 77 69 74 63 68 2d 30-30 30 30 30 30 30 30 00";
    return (void)switchHandle, SWITCH_ID;
}

void DVSData_Data(PropHandle *property, void **data) { *data = ((struct Answer *)property)->copy; }

VsStatus DVSData_Alloc(DataBundle **bundle, void *(*allocate)(size_t), void (*release)(void *))
{
    (void)allocate, (void)release;
    *bundle = (DataBundle *)&handle;
    return STATUS_OK;
}

void DVSData_Update(DataBundle *bundle, const char *key, const void *value, uint32_t length, uint32_t flags)
{
    (void)bundle;
    Set("bundle", key, value, length, flags);
}

VsStatus DVSData_Serialize(DataBundle *bundle, void **buffer, uint32_t *length, uint32_t kind)
{
    (void)bundle;
    Fold(&kind, sizeof(kind));
    *length = 16;
    *buffer = Allocate(*length);
    return STATUS_OK;
}

void DVSData_Free(DataBundle *bundle) { (void)bundle; }

/* ---- The driver and the shell: these stand before libc's own ------------------------------------------ */

int open(const char *path, int flags, ...)
{
    FoldText(path);
    Fold(&flags, sizeof(flags));
    return 1000;
}

int ioctl(int device, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    const ZorRequestHeader *header = va_arg(arguments, const ZorRequestHeader *);
    va_end(arguments);
    Fold(&device, sizeof(device));
    Fold(&request, sizeof(request));
    Fold(&header->inLength, sizeof(header->inLength));
    Fold(&header->outLength, sizeof(header->outLength));
    Fold((const void *)(uintptr_t)header->inPtr, header->inLength);
    if (header->outLength >= sizeof(listCount)) {
        uint8_t *output = (uint8_t *)(uintptr_t)header->outPtr;
        __builtin_memcpy(output + (header->outLength == LARGEST_HEADER ? COUNT_OFFSET_OF_LARGEST : 0),
                         &listCount, sizeof(listCount));
    }
    return 0;
}

int close(int device)
{
    Fold(&device, sizeof(device));
    return 0;
}

int system(const char *command)
{
    FoldText(command);
    return 0;
}

FILE *popen(const char *command, const char *mode)
{
    FoldText(command);
    BEGIN_UNCOUNTED;
    FILE *pipe = fmemopen(shellOutput, strlen(shellOutput), mode);
    END_UNCOUNTED;
    return pipe;
}

int pclose(FILE *pipe)
{
    BEGIN_UNCOUNTED;
    fclose(pipe);
    END_UNCOUNTED;
    return 0;
}
