// The in-process cache of the configuration, behind the DVSState_ entry points. Loading it reads nothing:
// each look-up reads what it needs, and the cache keeps it until the change counter moves.
#pragma once

#include "platform/store/store.h"

namespace vshost {

// A switch in the cache: its address and bytes stay until a reset.
struct SwitchHandle {
    char id[MAX_SWITCH_ID + 1];
    std::string className;
};

struct PropHandle;
struct PortHandle;

using SwitchCallback = int (*)(SwitchHandle *handle, void *context);

VsStatus CacheToken(const StoreCall &call, void **buffer, uint32_t *length);
VsStatus CacheReset(const StoreCall &call);
VsStatus CacheLoad(const StoreCall &call, const void *buffer, uint32_t length);
SwitchHandle *CacheFindByAlias(const StoreCall &call);
VsStatus CacheForEach(const StoreCall &call, SwitchCallback callback, void *context);
PortHandle *CacheFindPort(const StoreCall &call);
VsStatus CacheLookup(const StoreCall &call, PropHandle **handle);
const char *CacheClassName(const StoreCall &call, const SwitchHandle *handle);
const char *CacheSwitchId(const StoreCall &call, const SwitchHandle *handle);
void CacheData(const StoreCall &call, PropHandle *handle, void **data);

}
