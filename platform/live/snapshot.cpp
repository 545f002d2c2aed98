#include "platform/live/snapshot.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <cstring>
#include <linux/bpf.h>
#include <sys/mman.h>
#include <unistd.h>

namespace live {
namespace {

constexpr size_t ELEMENT = LIVE_ELEMENT_SIZE;

uint32_t FlagIf(bool isSet, LivePortFlag flag) { return isSet ? flag : 0; }

uint32_t FlagsWord(const PortConfig &port)
{
    return FlagIf(port.uplink, LIVE_PORT_UPLINK) | FlagIf(port.blocked, LIVE_PORT_BLOCKED) |
           FlagIf(port.learning, LIVE_PORT_LEARNING) |
           FlagIf(port.forwardsOverLimit, LIVE_PORT_FORWARDS_OVER_LIMIT);
}

uint32_t VlanWord(const PortConfig &port)
{
    const uint32_t priority = std::min(port.priority, LIVE_PORT_NO_PRIORITY);
    return port.vlanId | priority << LIVE_PORT_PRIORITY_SHIFT | (port.trunk ? LIVE_PORT_TRUNK : 0u);
}

bool IsListed(const PortConfig &port) { return !port.uplink && port.ifindex != 0; }

bool TakesUnknown(const PortConfig &port) { return IsListed(port) && (port.takesUnknown || port.sink); }

void SetVlans(const PortConfig &port, LivePortRecord &record)
{
    if (!port.trunk) return;
    for (const VlanRange &range : port.ranges)
        for (uint32_t vlan = range.first; vlan <= std::min<uint32_t>(range.last, LIVE_VLAN_MAX); vlan++)
            record.vlans[vlan / 64] |= uint64_t{1} << vlan % 64;
    // The network's untagged frames pass whatever the ranges are.
    if (port.uplink) record.vlans[0] |= 1;
}

// The elements of a snapshot one after the other: header, records, lists.
class Layout {
public:
    explicit Layout(const std::vector<PlacedPort> &ports) : ports(ports)
    {
        for (const PlacedPort &port : ports) {
            positions = std::max(positions, port.position + 1);
            header.flood.count += IsListed(port.config);
            header.unknown.count += TakesUnknown(port.config);
        }
        header.flood.first = LIVE_FIRST_RECORD + positions;
        header.unknown.first = header.flood.first + ListElements(header.flood);
        elements = header.unknown.first + ListElements(header.unknown);
    }

    uint32_t Elements() const { return elements; }

    void Fill(uint8_t *memory)
    {
        for (uint32_t i = 0; i < positions; i++)
            Record(memory, i)->slot = UINT32_MAX;
        uint32_t flooded = 0, unknown = 0;
        for (const PlacedPort &port : ports) {
            LivePortRecord *record = Record(memory, port.position);
            record->slot = port.slot;
            SetVlans(port.config, *record);
            if (port.config.uplink && header.uplinkCount < LIVE_UPLINKS)
                header.uplinkSlots[header.uplinkCount++] = port.slot;
            if (IsListed(port.config)) *ListEntry(memory, header.flood, flooded++) = port.slot;
            if (TakesUnknown(port.config)) *ListEntry(memory, header.unknown, unknown++) = port.slot;
        }
        std::memcpy(memory, &header, ELEMENT);
    }

private:
    static uint32_t ListElements(const LiveSection &list)
    {
        return (list.count + LIVE_SLOTS - 1) / LIVE_SLOTS;
    }

    static LivePortRecord *Record(uint8_t *memory, uint32_t position)
    {
        return reinterpret_cast<LivePortRecord *>(memory + (LIVE_FIRST_RECORD + position) * ELEMENT);
    }

    static uint32_t *ListEntry(uint8_t *memory, const LiveSection &list, uint32_t index)
    {
        auto *slots = reinterpret_cast<LiveSlots *>(memory + (list.first + index / LIVE_SLOTS) * ELEMENT);
        return &slots->slots[index % LIVE_SLOTS];
    }

    const std::vector<PlacedPort> &ports;
    LiveSnapshotHeader header = {};
    uint32_t positions = 0;
    uint32_t elements = 0;
};

}

Descriptor::~Descriptor()
{
    if (fd >= 0) close(fd);
}

LivePort WordsOf(const PlacedPort &placed, uint32_t switchIndex)
{
    LivePort words = {};
    words.number = placed.config.number;
    words.switchIndex = switchIndex;
    words.position = placed.position;
    words.addressLimit = placed.config.addressLimit;
    words.vlan = VlanWord(placed.config);
    words.flags = FlagsWord(placed.config);
    words.ifindex = placed.config.ifindex;
    words.inUse = 1;
    return words;
}

bool DifferInSnapshot(const PortConfig &a, const PortConfig &b)
{
    return a.trunk != b.trunk || (a.trunk && a.ranges != b.ranges) || a.uplink != b.uplink ||
           IsListed(a) != IsListed(b) || TakesUnknown(a) != TakesUnknown(b);
}

std::vector<uint8_t> SnapshotBytes(const std::vector<PlacedPort> &ports)
{
    Layout layout(ports);
    std::vector<uint8_t> bytes(layout.Elements() * ELEMENT);
    layout.Fill(bytes.data());
    return bytes;
}

Descriptor MakeSnapshot(const std::vector<PlacedPort> &ports)
{
    Layout layout(ports);
    bpf_map_create_opts options = {};
    options.sz = sizeof(options);
    options.map_flags = BPF_F_INNER_MAP | BPF_F_MMAPABLE;
    Descriptor map(bpf_map_create(BPF_MAP_TYPE_ARRAY, "snapshot", sizeof(uint32_t), ELEMENT,
                                  layout.Elements(), &options));
    if (!map) return map;
    const size_t size = layout.Elements() * ELEMENT;
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, map.Get(), 0);
    if (memory == MAP_FAILED) return Descriptor();
    layout.Fill(static_cast<uint8_t *>(memory));
    munmap(memory, size);
    return map;
}

}
