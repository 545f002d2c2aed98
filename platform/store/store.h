// The store's operations, behind the C entry points of liborkPublic.so.
#ifndef PLATFORM_STORE_STORE_H
#define PLATFORM_STORE_STORE_H

#include "platform/host/guard.h"
#include "platform/host/host.h"
#include "platform/host/tables.h"

namespace vshost {

// Who is called, and what about: null for what the operation has not.
struct StoreCall {
    const char *operation;
    const char *switchId = nullptr;
    const char *portId = nullptr;
    const char *key = nullptr;

    CallDetails Details() const { return {.text = {switchId, portId, key}}; }
};

VsStatus PropertyGet(const StoreCall &call, Level level, void **value, uint32_t *length);
VsStatus PropertySet(const StoreCall &call, Level level, const void *value, uint32_t length, uint32_t flags);
VsStatus PropertyClear(const StoreCall &call, Level level);
VsStatus PortAdd(const StoreCall &call, const void *bundle, uint32_t length);
VsStatus PortRemove(const StoreCall &call);
VsStatus SwitchAdd(const StoreCall &call, const char *className, uint32_t ports, uint32_t version);
VsStatus SwitchRemove(const StoreCall &call);
VsStatus SwitchAssociate(const StoreCall &call, bool associated);

// Values that getters handed out and DataFree has not got back.
int64_t ValuesLent();
void DataFree(const StoreCall &call, void *value);

}

#endif
