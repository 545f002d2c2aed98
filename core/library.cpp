// Start-up, the two ways to release memory, and the hooks.
#include <cstdlib>

#include "core/store.h"

[[gnu::constructor]] void LibraryInit(void)
{
    if (DVSState_ConfigReset() != STATUS_OK) return;
    void *configuration = nullptr;
    uint32_t length = 0;
    if (DVSZOR_StateGet(&configuration, &length) != STATUS_OK) return;
    DVSState_ConfigDeserialize(configuration, length);
    free(configuration);
}

void VSDVS_FreeMemory(void *buffer) { DVSZOR_DataFree(buffer); }

void VSZOR_FreeMemory(void *buffer) { free(buffer); }

void Log(const char *, ...) {}
void Warning(const char *, ...) {}
void Panic(const char *, ...) {}
