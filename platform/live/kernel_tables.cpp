#include "platform/live/kernel_tables.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>

namespace live {

using namespace vshost;

namespace {

constexpr uint32_t BATCH = 4096;

}

VsStatus KernelTables::FindSwitch(const std::string &switchId, uint32_t &index) const
{
    char id[sizeof(LiveSwitch::id)] = {};
    if (switchId.size() > sizeof(id)) return STATUS_NOT_FOUND;
    switchId.copy(id, sizeof(id));
    for (index = 0; index < kernel.switches.Size(); index++) {
        LiveSwitch &vswitch = kernel.switches[index];
        if (ReadWord(vswitch.inUse) && memcmp(vswitch.id, id, sizeof(id)) == 0) return STATUS_OK;
    }
    return STATUS_NOT_FOUND;
}

VsStatus KernelTables::FindPort(uint32_t portNumber, uint32_t &slot) const
{
    for (slot = 0; slot < kernel.ports.Size(); slot++) {
        LivePort &port = kernel.ports[slot];
        if (ReadWord(port.number) == portNumber && ReadWord(port.inUse)) return STATUS_OK;
    }
    return STATUS_NOT_FOUND;
}

template<typename Key, typename Value> VsStatus VisitEntries(int map, const VisitEntry<Key, Value> &visit)
{
    std::vector<Key> keys(BATCH);
    std::vector<Value> values(BATCH);
    uint32_t position = 0;
    for (bool isFirst = true;; isFirst = false) {
        uint32_t count = BATCH;
        const int result = bpf_map_lookup_batch(map, isFirst ? nullptr : &position, &position, keys.data(),
                                                values.data(), &count, nullptr);
        if (result != 0 && errno != ENOENT) return STATUS_FAILURE;
        for (uint32_t i = 0; i < count; i++)
            visit(keys[i], values[i]);
        if (result != 0) return STATUS_OK; // ENOENT: that was the rest
    }
}

template VsStatus VisitEntries(int map, const VisitEntry<LiveAddressKey, LiveAddress> &visit);
template VsStatus VisitEntries(int map, const VisitEntry<LiveGroupKey, LiveGroup> &visit);
template VsStatus VisitEntries(int map, const VisitEntry<LiveSourceKey, LiveSource> &visit);

VsStatus KernelTables::WalkAddresses(const VisitAddress &visit) const
{
    if (kernel.Command(LIVE_COMMAND_READ_CLOCKS, 0, {}) < 0) return STATUS_FAILURE;
    return VisitAddresses(kernel.MapDescriptor("addresses"), visit);
}

VsStatus KernelTables::ReadAddresses(const std::string &switchId, std::vector<AddressEntry> &entries) const
{
    uint32_t index = 0;
    if (VsStatus status = FindSwitch(switchId, index)) return status;
    return WalkAddresses([&](const LiveAddressKey &key, const LiveAddress &address) {
        const Owner owner(address);
        if (key.switchIndex != index || owner.slot >= kernel.ports.Size()) return;
        LivePort &port = kernel.ports[owner.slot];
        if (!owner.isStatic && !owner.IsCurrent(port)) return;
        const uint64_t now = kernel.host[0].now;
        AddressEntry entry = {};
        entry.portNumber = ReadWord(port.number);
        entry.vlan = key.vlan;
        std::memcpy(entry.mac, key.mac, sizeof(entry.mac));
        entry.isStatic = owner.isStatic;
        entry.isKept = owner.isKept;
        entry.isOnUplink = ReadWord(port.flags) & LIVE_PORT_UPLINK;
        entry.ageNs = address.lastSeen && now > address.lastSeen ? now - address.lastSeen : 0;
        entries.push_back(entry);
    });
}

VsStatus KernelTables::ReadCounters(uint32_t portNumber, LiveCounters &counters) const
{
    uint32_t slot = 0;
    if (VsStatus status = FindPort(portNumber, slot)) return status;
    std::vector<LiveCounters> rows(static_cast<size_t>(libbpf_num_possible_cpus()));
    if (bpf_map_lookup_elem(kernel.MapDescriptor("counters"), &slot, rows.data()) != 0) return STATUS_FAILURE;
    counters = {};
    for (const LiveCounters &row : rows)
        for (uint32_t i = 0; i < LIVE_COUNTERS; i++)
            counters.values[i] += row.values[i];
    return STATUS_OK;
}

VsStatus KernelTables::ReadUplink(uint32_t portNumber, uint32_t &uplinkNumber) const
{
    uint32_t slot = 0;
    if (VsStatus status = FindPort(portNumber, slot)) return status;
    const uint32_t uplink = ReadWord(kernel.ports[slot].uplinkSlot);
    if (uplink == 0 || uplink > kernel.ports.Size()) return STATUS_NOT_FOUND;
    uplinkNumber = ReadWord(kernel.ports[uplink - 1].number);
    return STATUS_OK;
}

VsStatus KernelTables::ReadMirrors(const std::string &switchId, std::vector<MirrorEntry> &entries) const
{
    uint32_t index = 0;
    if (VsStatus status = FindSwitch(switchId, index)) return status;
    std::vector<LiveMirrorCounters> rows(static_cast<size_t>(libbpf_num_possible_cpus()));
    for (uint32_t slot = 0; slot < kernel.mirrors.Size(); slot++) {
        LiveMirrorSlot &mirror = kernel.mirrors[slot];
        if (!ReadWord(mirror.inUse) || ReadWord(mirror.switchIndex) != index) continue;
        if (bpf_map_lookup_elem(kernel.MapDescriptor("mirror_counters"), &slot, rows.data()) != 0)
            return STATUS_FAILURE;
        MirrorEntry &entry = entries.emplace_back();
        entry.id.assign(mirror.id, strnlen(mirror.id, sizeof(mirror.id)));
        entry.isEnabled = ReadWord(mirror.isEnabled);
        for (const LiveMirrorCounters &row : rows)
            for (uint32_t i = 0; i < LIVE_MIRROR_COUNTERS; i++)
                entry.counters.values[i] += row.values[i];
    }
    return STATUS_OK;
}

VsStatus KernelTables::ReadObservers(const std::string &switchId, std::set<uint32_t> &portNumbers) const
{
    uint32_t index = 0;
    if (VsStatus status = FindSwitch(switchId, index)) return status;
    for (uint32_t slot = 0; slot < kernel.ports.Size(); slot++) {
        LivePort &port = kernel.ports[slot];
        if (!ReadWord(port.inUse) || !ReadWord(port.ifindex) || ReadWord(port.switchIndex) != index) continue;
        if (ReadWord(port.flags) & (LIVE_PORT_ALL_FRAMES | LIVE_PORT_GETS_COPIES))
            portNumbers.insert(ReadWord(port.number));
    }
    return STATUS_OK;
}

VsStatus KernelTables::ForgetAddress(uint32_t portNumber, uint16_t vlan, const uint8_t mac[6]) const
{
    uint32_t slot = 0;
    LiveAddress address = {};
    if (VsStatus status = FindPort(portNumber, slot)) return status;
    LiveAddressKey key = {.switchIndex = ReadWord(kernel.ports[slot].switchIndex), .vlan = vlan, .mac = {}};
    std::memcpy(key.mac, mac, sizeof(key.mac));
    if (bpf_map_lookup_elem(kernel.MapDescriptor("addresses"), &key, &address) != 0) return STATUS_NOT_FOUND;
    const Owner owner(address);
    if (owner.isStatic && !owner.isKept) return STATUS_NOT_FOUND; // the store has it
    const int result = kernel.Command(LIVE_COMMAND_REMOVE_ADDRESS, slot, std::vector{key});
    return result == LIVE_DONE ? STATUS_OK : result == LIVE_NOT_FOUND ? STATUS_NOT_FOUND : STATUS_FAILURE;
}

VsStatus KernelTables::ReadAnnouncements(const std::string &switchId, uint64_t &sent, uint64_t &failed) const
{
    uint32_t index = 0;
    if (VsStatus status = FindSwitch(switchId, index)) return status;
    LiveSwitch &vswitch = kernel.switches[index];
    sent = std::atomic_ref<uint64_t>(vswitch.announced).load();
    failed = std::atomic_ref<uint64_t>(vswitch.notAnnounced).load();
    return STATUS_OK;
}

}
