// The store's operations: each reads the engine or writes it in one transaction,
// unless a test fails it.
#include "platform/store/store.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/host/files.h"
#include "platform/host/live_link.h"
#include "platform/host/runtime.h"

namespace vshost {
namespace {

std::atomic<int64_t> valuesLent = 0;

VsStatus WithoutHost(VsStatus failure, VsStatus withoutHost)
{
    if (failure != STATUS_OK) return failure;
    if (withoutHost == STATUS_IO_ERROR) SayNoHost();
    return withoutHost;
}

// Runs `body` on the host unless a test fails the operation; without a host, `withoutHost` is the status.
template<typename Body>
VsStatus OnHost(const char *operation, const CallDetails &details, VsStatus withoutHost, Body body)
{
    HostUse host;
    InterceptedCall call(host.GetFaults(), VSHOST_STORE, operation, details);
    if (call.Fails()) return call.Outcome();
    if (!host) return call.Return(WithoutHost(host.Status(), withoutHost));
    return call.Return(Guard([&] { return body(host->GetEngine()); }));
}

VsStatus Change(const char *operation, const CallDetails &details, bool valid, const Work &work)
{
    const auto write = [&](Engine &engine) { return valid ? engine.Write(work) : STATUS_BAD_PARAM; };
    return OnHost(operation, details, STATUS_IO_ERROR, write);
}

bool IsComplete(const StoreCall &call)
{
    return call.switchId && call.key && (call.level != StoredLevel::PORT || call.portId);
}

PropertyOwner OwnerOf(const StoreCall &call)
{
    return {call.level, call.switchId, call.level == StoredLevel::PORT ? call.portId : ""};
}

// The statistics of a port are counted where its switch forwards, so the driver has them. A switch that
// doesn't run keeps the stored ones.
VsStatus ReadCounted(Host &host, const StoreCall &call, std::string &value)
{
    VSwitchInput input = {};
    VSwitchPortStatistics stats = {};
    VSwitchRequest request = {sizeof(input), sizeof(stats), reinterpret_cast<uint64_t>(&input),
                              reinterpret_cast<uint64_t>(&stats)};
    strncpy(input.name.switchId, call.switchId, sizeof(input.name.switchId));
    strncpy(input.port.dvPortId, call.portId, sizeof(input.port.dvPortId));
    const FileDescriptor device(OpenKeptFile(host.Directory() + "/" + DEVICE_FILE, O_RDWR));
    if (device.number < 0) return StatusOfErrno(errno);
    if (ioctl(device.number, VSWITCH_GET_PORT_STATISTICS, &request) != 0) {
        const bool doesntRun = errno == ENOENT || errno == ENODEV;
        return doesntRun ? STATUS_OK : StatusOfErrno(errno);
    }
    value.assign(reinterpret_cast<const char *>(&stats), sizeof(stats));
    return STATUS_OK;
}

bool IsCounted(const StoreCall &call)
{
    return call.level == StoredLevel::PORT && call.key == KEY_PORT_STATISTICS;
}

// Hands out a copy that DVSZOR_DataFree releases.
VsStatus Lend(std::string_view bytes, void **value, uint32_t *length)
{
    void *copy = malloc(bytes.empty() ? 1 : bytes.size());
    if (!copy) return STATUS_NO_MEMORY;
    memcpy(copy, bytes.data(), bytes.size());
    valuesLent++;
    *value = copy;
    *length = static_cast<uint32_t>(bytes.size());
    return STATUS_OK;
}

}

VsStatus PropertyGet(const StoreCall &call, void **value, uint32_t *length)
{
    CallDetails details = call.Details();
    return OnHost(call.operation, details, STATUS_NOT_FOUND, [&](Engine &engine) {
        if (!IsComplete(call) || !value || !length) return STATUS_BAD_PARAM;
        StoredProperty found;
        if (VsStatus status = GetProperty(engine, OwnerOf(call), call.key, found)) return status;
        HostUse host;
        if (IsCounted(call) && IsLive(host->Directory()))
            if (VsStatus status = ReadCounted(*host.operator->(), call, found.value)) return status;
        details.length = static_cast<uint32_t>(found.value.size());
        return Lend(found.value, value, length);
    });
}

VsStatus PropertySet(const StoreCall &call, const void *value, uint32_t length, uint32_t flags)
{
    CallDetails details = call.Details();
    details.length = length;
    details.flags = flags;
    details.input = value;
    details.inputLength = length;
    const bool valid = IsComplete(call) && (value || length == 0);
    const std::string_view bytes(static_cast<const char *>(value), value ? length : 0);
    return Change(call.operation, details, valid, [&](Transaction &transaction) {
        return SetProperty(transaction, OwnerOf(call), {call.key, flags, bytes});
    });
}

VsStatus PropertyClear(const StoreCall &call)
{
    return Change(call.operation, call.Details(), IsComplete(call), [&](Transaction &transaction) {
        return ClearProperty(transaction, OwnerOf(call), call.key);
    });
}

VsStatus PortAdd(const StoreCall &call, const void *bundle, uint32_t length)
{
    CallDetails details = call.Details();
    details.length = length;
    details.input = bundle;
    details.inputLength = length;
    const std::string_view bytes(static_cast<const char *>(bundle), bundle ? length : 0);
    return Change(
        call.operation, details, call.switchId && call.portId && bundle,
        [&](Transaction &transaction) { return AddPort(transaction, call.switchId, call.portId, bytes); });
}

VsStatus PortRemove(const StoreCall &call)
{
    return Change(
        call.operation, call.Details(), call.switchId && call.portId,
        [&](Transaction &transaction) { return RemovePort(transaction, call.switchId, call.portId); });
}

VsStatus SwitchAdd(const StoreCall &call, const char *className, uint32_t ports, uint32_t version)
{
    CallDetails details = call.Details();
    details.length = ports;
    details.flags = version;
    details.input = className;
    details.inputLength = className ? strlen(className) : 0;
    return Change(call.operation, details, call.switchId && className, [&](Transaction &transaction) {
        return AddSwitch(transaction, call.switchId, {className, ports, version, false});
    });
}

VsStatus SwitchRemove(const StoreCall &call)
{
    return Change(call.operation, call.Details(), call.switchId,
                  [&](Transaction &transaction) { return RemoveSwitch(transaction, call.switchId); });
}

VsStatus SwitchAssociate(const StoreCall &call, bool associated)
{
    return Change(call.operation, call.Details(), call.switchId, [&](Transaction &transaction) {
        return AssociateSwitch(transaction, call.switchId, associated);
    });
}

int Bulk(bool begins)
{
    HostUse host;
    if (!host) return ENOENT;
    begins ? host->GetEngine().BeginBulk() : host->GetEngine().EndBulk();
    return 0;
}

int64_t ValuesLent() { return valuesLent; }

void DataFree(const StoreCall &call, void *value)
{
    HostUse host;
    const CallDetails details = call.Details(false);
    InterceptedCall intercepted(host.GetFaults(), VSHOST_STORE, call.operation, details);
    if (value) valuesLent--;
    free(value);
}

}
