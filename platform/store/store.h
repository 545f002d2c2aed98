// The store's operations, behind the C entry points of liborkPublic.so.
#pragma once

#include "platform/host/guard.h"
#include "platform/host/host.h"
#include "platform/host/tables.h"

namespace vshost {

// A call of the store: the operation, and its arguments that name something. Null: the operation does not
// take that argument.
struct StoreCall {
    const char *operation;
    const char *switchId = nullptr;
    const char *portId = nullptr;
    const char *key = nullptr;
    StoredLevel level = StoredLevel::GLOBAL; // of an operation on a property

    CallDetails Details(bool canFail = true) const
    {
        return {.text = {switchId, portId, key}, .canFail = canFail};
    }
};

VsStatus PropertyGet(const StoreCall &call, void **value, uint32_t *length);
VsStatus PropertySet(const StoreCall &call, const void *value, uint32_t length, uint32_t flags);
VsStatus PropertyClear(const StoreCall &call);
VsStatus PortAdd(const StoreCall &call, const void *bundle, uint32_t length);
VsStatus PortRemove(const StoreCall &call);
VsStatus SwitchAdd(const StoreCall &call, const char *className, uint32_t ports, uint32_t version);
VsStatus SwitchRemove(const StoreCall &call);
VsStatus SwitchAssociate(const StoreCall &call, bool associated);

// Begins or ends a bulk of writes: 0 or an errno value.
int Bulk(bool begins);

// How many values getters have handed out and DataFree has not yet released.
int64_t ValuesLent();
void DataFree(const StoreCall &call, void *value);

}
