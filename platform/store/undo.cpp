#include "platform/store/undo.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <vector>

#include "platform/host/files.h"
#include "platform/host/guard.h"
#include "platform/host/host.h"
#include "platform/host/plugs.h"
#include "platform/host/policy_faults.h"
#include "platform/host/runtime.h"
#include "platform/host/tables.h"

namespace vshost {
namespace {

using Port = struct vshost_port;
using Name = struct vshost_property_name;
using HostNic = struct vshost_nic;

// Runs `body` on the engine of this process's host; 0 or an errno value.
template<typename Body> int OnEngine(Body body)
{
    return GuardErrno([&] {
        HostUse host;
        return host ? body(host->GetEngine()) : ErrnoOf(host.Status() ? host.Status() : STATUS_NOT_FOUND);
    });
}

template<typename Item> int CopyOut(const std::vector<Item> &items, Item *out, size_t capacity, size_t *count)
{
    std::copy_n(items.begin(), std::min(capacity, items.size()), out);
    *count = items.size();
    return 0;
}

void Describe(const NamedNic &nic, Port &port)
{
    SetField(port.nic, nic.name);
    port.nicMade = nic.nic.madeOnDemand;
    port.nicMtu = nic.nic.mtu;
    port.nicAdminUp = nic.nic.adminUp;
}

HostNic Describe(const NamedNic &named)
{
    HostNic nic{};
    SetField(nic.name, named.name);
    SetField(nic.switchId, FieldText(named.nic.switchId));
    SetField(nic.portId, FieldText(named.nic.portId));
    nic.speed = named.nic.speed;
    nic.fullDuplex = named.nic.fullDuplex;
    nic.link = named.nic.link;
    nic.adminUp = named.nic.adminUp;
    nic.mtu = named.nic.mtu;
    nic.numaNode = named.nic.numaNode;
    return nic;
}

// The same whatever order the properties were set in.
uint64_t HashProperties(std::string_view bundle)
{
    uint64_t sum = 0;
    if (!CheckBundle(bundle)) return sum; // reading one of them fails
    for (const BundleEntry &entry : ListEntries(bundle)) {
        if (entry.key == KEY_PORT_STATUS || entry.key == KEY_PORT_STATISTICS || entry.key == KEY_PORT_ALIAS)
            continue;
        const uint64_t key = std::hash<std::string_view>()(entry.key);
        const uint64_t value = std::hash<std::string_view>()(entry.value);
        sum += (key ^ (value + entry.flags + (key << 6) + (key >> 2))) * 0x9E3779B97F4A7C15ull;
    }
    return sum;
}

// The ports with their ids, numbers and properties only.
int ReadPorts(Engine &engine, const char *switchId, std::vector<Port> &ports)
{
    bool fits = true;
    StoredSwitch found;
    if (VsStatus status = GetSwitch(engine, switchId, found)) return ErrnoOf(status);
    const VsStatus status =
        ForEachPortRow(engine, switchId, [&](std::string_view portId, const StoredPort &stored) {
            Port &port = ports.emplace_back();
            fits = portId.size() < sizeof(port.id);
            if (fits) SetField(port.id, portId);
            port.number = stored.number;
            port.properties = HashProperties(stored.properties);
            return fits;
        });
    return fits ? ErrnoOf(status) : EOVERFLOW;
}

// Names the interfaces that are plugged to the ports of a switch.
int MarkPlugged(Engine &engine, std::string_view switchId, std::vector<Port> &ports)
{
    std::vector<NamedPlug> plugs;
    if (VsStatus status = ListPlugs(engine, plugs)) return ErrnoOf(status);
    std::map<std::string_view, std::string_view> plugged;
    for (const NamedPlug &entry : plugs) {
        const bool holds = entry.plug.IsKept() || FieldText(entry.plug.boot) == BootId();
        if (holds && !entry.plug.IsNic() && FieldText(entry.plug.switchId) == switchId)
            plugged.emplace(FieldText(entry.plug.portId), entry.interface);
    }
    for (Port &port : ports) {
        if (const auto found = plugged.find(port.id); found != plugged.end())
            SetField(port.interface, found->second);
    }
    return 0;
}

// Marks the uplink ports of a switch, and fills in the NICs bound to them.
int MarkUplinks(Engine &engine, const char *switchId, std::vector<Port> &ports)
{
    std::vector<std::string> portIds;
    std::vector<NamedNic> nics;
    if (VsStatus status = ListUplinkPorts(engine, switchId, portIds)) return ErrnoOf(status);
    if (VsStatus status = ListUplinks(engine, switchId, nics)) return ErrnoOf(status, EIO);
    const std::set<std::string_view> uplinks(portIds.begin(), portIds.end());
    std::map<std::string_view, const NamedNic *> bound;
    for (const NamedNic &nic : nics)
        bound.emplace(FieldText(nic.nic.portId), &nic);
    for (Port &port : ports) {
        port.isUplink = uplinks.contains(port.id);
        if (const auto nic = bound.find(port.id); nic != bound.end()) Describe(*nic->second, port);
    }
    return 0;
}

bool IsValid(const Port &port)
{
    const bool hasNic = port.nic[0] != '\0';
    return FieldText(port.id).size() < sizeof(port.id) && FieldText(port.nic).size() <= MAX_NIC_NAME &&
           (!hasNic || !port.nicMade || (port.nicMtu >= MIN_MTU && port.nicMtu <= MAX_MTU));
}

// ENOENT when the port is gone, ENODEV when the NIC is gone.
int Restore(Transaction &transaction, const char *switchId, const Port &wanted)
{
    const VsStatus status = RestorePortNumber(transaction, {switchId, wanted.id}, wanted.number);
    if (status == STATUS_EXISTS) return EBUSY;
    if (status || wanted.nic[0] == '\0') return ErrnoOf(status);
    std::vector<std::string> portIds;
    if (VsStatus listed = ListUplinkPorts(transaction, switchId, portIds)) return ErrnoOf(listed);
    if (std::find(portIds.begin(), portIds.end(), wanted.id) == portIds.end()) return EINVAL;
    NamedNic had;
    had.name = wanted.nic;
    had.nic.madeOnDemand = wanted.nicMade != 0;
    had.nic.mtu = wanted.nicMtu;
    had.nic.adminUp = wanted.nicAdminUp != 0;
    const VsStatus bound = RestoreNic(transaction, had, switchId, wanted.id);
    return bound == STATUS_EXISTS ? EBUSY : ErrnoOf(bound, ENODEV);
}

int AddNames(Engine &engine, const PropertyOwner &owner, std::vector<Name> &names)
{
    std::vector<PropertyName> found;
    if (VsStatus status = ListProperties(engine, owner, found)) return ErrnoOf(status);
    for (const PropertyName &property : found) {
        Name &name = names.emplace_back();
        if (property.key.size() >= sizeof(name.key)) return EOVERFLOW;
        SetField(name.key, property.key);
        name.level = static_cast<uint32_t>(owner.level);
        name.flags = property.flags;
        name.length = static_cast<uint32_t>(property.length);
    }
    return 0;
}

int ReadNames(Engine &engine, const char *switchId, const char *portId, std::vector<Name> &names)
{
    StoredSwitch found;
    uint32_t number;
    if (VsStatus status = GetSwitch(engine, switchId, found)) return ErrnoOf(status);
    if (portId) {
        if (VsStatus status = GetPortNumber(engine, switchId, portId, number)) return ErrnoOf(status);
        return AddNames(engine, {StoredLevel::PORT, switchId, portId}, names);
    }
    if (int error = AddNames(engine, {StoredLevel::GLOBAL, switchId}, names)) return error;
    return AddNames(engine, {StoredLevel::HOST, switchId}, names);
}

}

int ListPorts(const char *switchId, Port *ports, size_t capacity, size_t *count)
{
    if (!switchId || !count || (!ports && capacity > 0)) return EINVAL;
    return OnEngine([&](Engine &engine) {
        std::vector<Port> found;
        if (int error = ReadPorts(engine, switchId, found)) return error;
        if (int error = MarkUplinks(engine, switchId, found)) return error;
        if (int error = MarkPlugged(engine, switchId, found)) return error;
        std::sort(found.begin(), found.end(),
                  [](const Port &left, const Port &right) { return left.number < right.number; });
        return CopyOut(found, ports, capacity, count);
    });
}

int RestorePort(const char *switchId, const Port *port)
{
    if (!switchId || !port || !IsValid(*port)) return EINVAL;
    return OnEngine([&](Engine &engine) {
        int error = 0;
        const VsStatus status = engine.Write([&](Transaction &transaction) {
            error = Restore(transaction, switchId, *port);
            return error ? STATUS_FAILURE : STATUS_OK;
        });
        return error ? error : ErrnoOf(status);
    });
}

namespace {

using PolicyFaultRow = struct vshost_policy_fault;

int AddFaults(Engine &engine, const PropertyOwner &owner, std::vector<PolicyFaultRow> &faults)
{
    std::vector<PropertyName> names;
    if (VsStatus status = ListProperties(engine, owner, names)) return ErrnoOf(status);
    for (const PropertyName &name : names) {
        StoredProperty property;
        if (VsStatus status = GetProperty(engine, owner, name.key, property)) return ErrnoOf(status);
        const char *reason = PolicyFault(name.key, property.value);
        if (!reason) continue;
        PolicyFaultRow &fault = faults.emplace_back();
        fault = {};
        owner.portId.copy(fault.portId, sizeof(fault.portId) - 1);
        name.key.copy(fault.key, sizeof(fault.key) - 1);
        SetField(fault.reason, reason);
    }
    return 0;
}

}

int ListPropertyNames(const char *switchId, const char *portId, Name *names, size_t capacity, size_t *count)
{
    if (!switchId || !count || (!names && capacity > 0)) return EINVAL;
    return OnEngine([&](Engine &engine) {
        std::vector<Name> found;
        if (int error = ReadNames(engine, switchId, portId, found)) return error;
        return CopyOut(found, names, capacity, count);
    });
}

int ListPolicyFaults(const char *switchId, PolicyFaultRow *faults, size_t capacity, size_t *count)
{
    if (!switchId || !count || (!faults && capacity > 0)) return EINVAL;
    return OnEngine([&](Engine &engine) {
        StoredSwitch stored;
        std::vector<PolicyFaultRow> found;
        std::vector<std::string> portIds;
        if (VsStatus status = GetSwitch(engine, switchId, stored)) return ErrnoOf(status);
        const VsStatus listed = ForEachPort(engine, switchId, [&](std::string_view portId, uint32_t) {
            portIds.emplace_back(portId);
            return true;
        });
        if (listed) return ErrnoOf(listed);
        for (const StoredLevel level : {StoredLevel::GLOBAL, StoredLevel::HOST})
            if (int error = AddFaults(engine, {level, switchId}, found)) return error;
        for (const std::string &portId : portIds)
            if (int error = AddFaults(engine, {StoredLevel::PORT, switchId, portId}, found)) return error;
        return CopyOut(found, faults, capacity, count);
    });
}

int ListHostNics(HostNic *nics, size_t capacity, size_t *count)
{
    if (!count || (!nics && capacity > 0)) return EINVAL;
    return OnEngine([&](Engine &engine) {
        std::vector<NamedNic> stored;
        if (VsStatus status = ListNics(engine, stored)) return ErrnoOf(status);
        std::vector<HostNic> found;
        for (const NamedNic &nic : stored)
            found.push_back(Describe(nic));
        return CopyOut(found, nics, capacity, count);
    });
}

}
