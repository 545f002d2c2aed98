// The C entry points of liborkPublic.so: each passes its own name and its arguments to the core.
#include "platform/store/bundle_builder.h"
#include "platform/store/cache.h"
#include "platform/store/plugging.h"
#include "platform/store/store.h"
#include "platform/store/undo.h"

using namespace vshost;

namespace {

// Runs a bundle operation, which needs no host, unless a test fails it.
template<typename Body> VsStatus BundleCall(const char *operation, const CallDetails &details, Body body)
{
    return Guard([&] {
        HostUse host;
        InterceptedCall call(host.GetFaults(), VSHOST_STORE, operation, details);
        return call.Fails() ? call.Outcome() : call.Return(Guard(body));
    });
}

}

extern "C" {

VsStatus DVSZOR_GlobalPropGet(const char *switchId, const char *key, void **value, uint32_t *length)
{
    return Guarded<PropertyGet>({__func__, switchId, nullptr, key, StoredLevel::GLOBAL}, value, length);
}

VsStatus DVSZOR_GlobalPropSet(const char *switchId, const char *key, const void *value, uint32_t length,
                              uint32_t flags)
{
    return Guarded<PropertySet>({__func__, switchId, nullptr, key, StoredLevel::GLOBAL}, value, length,
                                flags);
}

VsStatus DVSZOR_GlobalPropClear(const char *switchId, const char *key)
{
    return Guarded<PropertyClear>({__func__, switchId, nullptr, key, StoredLevel::GLOBAL});
}

VsStatus DVSZOR_HostPropGet(const char *switchId, const char *key, void **value, uint32_t *length)
{
    return Guarded<PropertyGet>({__func__, switchId, nullptr, key, StoredLevel::HOST}, value, length);
}

VsStatus DVSZOR_HostPropSet(const char *switchId, const char *key, const void *value, uint32_t length,
                            uint32_t flags)
{
    return Guarded<PropertySet>({__func__, switchId, nullptr, key, StoredLevel::HOST}, value, length, flags);
}

VsStatus DVSZOR_HostPropClear(const char *switchId, const char *key)
{
    return Guarded<PropertyClear>({__func__, switchId, nullptr, key, StoredLevel::HOST});
}

VsStatus DVSZOR_PortDataGet(const char *switchId, const char *portId, const char *key, void **value,
                            uint32_t *length)
{
    return Guarded<PropertyGet>({__func__, switchId, portId, key, StoredLevel::PORT}, value, length);
}

VsStatus DVSZOR_PortDataSet(const char *switchId, const char *portId, const char *key, const void *value,
                            uint32_t length, uint32_t flags)
{
    return Guarded<PropertySet>({__func__, switchId, portId, key, StoredLevel::PORT}, value, length, flags);
}

VsStatus DVSZOR_PortDataClear(const char *switchId, const char *portId, const char *key)
{
    return Guarded<PropertyClear>({__func__, switchId, portId, key, StoredLevel::PORT});
}

VsStatus DVSZOR_PortAdd(const char *switchId, const char *portId, const void *bundle, uint32_t length)
{
    return Guarded<PortAdd>({__func__, switchId, portId}, bundle, length);
}

VsStatus DVSZOR_PortRemove(const char *switchId, const char *portId)
{
    return Guarded<PortRemove>({__func__, switchId, portId});
}

VsStatus DVSZOR_SwitchAdd(const char *switchId, const char *className, uint32_t ports, uint32_t version)
{
    return Guarded<SwitchAdd>({__func__, switchId}, className, ports, version);
}

VsStatus DVSZOR_SwitchRemove(const char *switchId) { return Guarded<SwitchRemove>({__func__, switchId}); }

VsStatus DVSZOR_SwitchAssociate(const char *switchId)
{
    return Guarded<SwitchAssociate>({__func__, switchId}, true);
}

VsStatus DVSZOR_SwitchDissociate(const char *switchId)
{
    return Guarded<SwitchAssociate>({__func__, switchId}, false);
}

VsStatus DVSZOR_StateGet(void **configuration, uint32_t *length)
{
    return Guarded<CacheToken>({__func__}, configuration, length);
}

void DVSZOR_DataFree(void *value) { Guarded<DataFree>({__func__}, value); }

VsStatus DVSState_ConfigReset(void) { return Guarded<CacheReset>({__func__}); }

VsStatus DVSState_ConfigDeserialize(const void *configuration, uint32_t length)
{
    return Guarded<CacheLoad>({__func__}, configuration, length);
}

SwitchHandle *DVSState_SwitchFindByAlias(const char *alias)
{
    return Guarded<CacheFindByAlias>({__func__, nullptr, nullptr, alias});
}

VsStatus DVSState_SwitchForEach(SwitchCallback callback, void *context)
{
    return Guarded<CacheForEach>({__func__}, callback, context);
}

PortHandle *DVSState_PortFind(const char *switchId, const char *portId)
{
    return Guarded<CacheFindPort>({__func__, switchId, portId});
}

VsStatus DVSState_GlobalPropLookup(const char *switchId, const char *key, PropHandle **handle)
{
    return Guarded<CacheLookup>({__func__, switchId, nullptr, key, StoredLevel::GLOBAL}, handle);
}

VsStatus DVSState_HostPropLookup(const char *switchId, const char *key, PropHandle **handle)
{
    return Guarded<CacheLookup>({__func__, switchId, nullptr, key, StoredLevel::HOST}, handle);
}

const char *DVS_ClassName(const SwitchHandle *handle) { return Guarded<CacheClassName>({__func__}, handle); }

const char *DVS_SwitchId(const SwitchHandle *handle) { return Guarded<CacheSwitchId>({__func__}, handle); }

void DVSData_Data(PropHandle *handle, void **data) { Guarded<CacheData>({__func__}, handle, data); }

VsStatus DVSData_Alloc(BundleBuilder **bundle, Allocate allocate, Release release)
{
    return BundleCall(__func__, CallDetails(), [&] {
        return bundle && allocate && release ? BundleBuilder::Make(allocate, release, bundle)
                                             : STATUS_BAD_PARAM;
    });
}

void DVSData_Update(BundleBuilder *bundle, const char *key, const void *value, uint32_t length,
                    uint32_t flags)
{
    const CallDetails details{.text = {nullptr, nullptr, key},
                              .length = length,
                              .flags = flags,
                              .input = value,
                              .inputLength = length,
                              .canFail = false};
    BundleCall(__func__, details, [&] {
        if (!bundle) return STATUS_BAD_PARAM;
        if (!key || (!value && length > 0))
            bundle->Fail(STATUS_BAD_PARAM);
        else
            bundle->Add({key, flags, {static_cast<const char *>(value), length}});
        return STATUS_OK;
    });
}

VsStatus DVSData_Serialize(BundleBuilder *bundle, void **buffer, uint32_t *length, uint32_t kind)
{
    const CallDetails details{.flags = kind};
    return BundleCall(__func__, details, [&] {
        return bundle && buffer && length ? bundle->Serialize(buffer, length) : STATUS_BAD_PARAM;
    });
}

void DVSData_Free(BundleBuilder *bundle)
{
    BundleCall(__func__, CallDetails{.canFail = false}, [&] {
        if (bundle) bundle->Destroy();
        return STATUS_OK;
    });
}

const char *vshost_platform(void) { return "vshost 1"; }

const char *vshost_directory(void) { return Guarded<HostDirectory>(); }

int vshost_list_ports(const char *switchId, struct vshost_port *ports, size_t capacity, size_t *count)
{
    return Guarded<ListPorts>(switchId, ports, capacity, count);
}

int vshost_restore_port(const char *switchId, const struct vshost_port *port)
{
    return Guarded<RestorePort>(switchId, port);
}

int vshost_bulk(int on) { return Guarded<Bulk>(on != 0); }

int vshost_list_properties(const char *switchId, const char *portId, struct vshost_property_name *names,
                           size_t capacity, size_t *count)
{
    return Guarded<ListPropertyNames>(switchId, portId, names, capacity, count);
}

int vshost_list_nics(struct vshost_nic *nics, size_t capacity, size_t *count)
{
    return Guarded<ListHostNics>(nics, capacity, count);
}

int vshost_list_policy_faults(const char *switchId, struct vshost_policy_fault *faults, size_t capacity,
                              size_t *count)
{
    return Guarded<ListPolicyFaults>(switchId, faults, capacity, count);
}

const char *vshost_error(void) { return LastError(); }

int vshost_plug(const char *switchName, const char *portId, const char *interface, int keep)
{
    return PlugInterface(switchName, portId, interface, keep);
}

int vshost_unplug(const char *interface) { return UnplugInterface(interface); }

int vshost_add_nic(const char *interface, int keep) { return AddLiveNic(interface, keep); }

int vshost_remove_nic(const char *interface) { return RemoveLiveNic(interface); }
}
