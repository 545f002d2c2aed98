#include "platform/live/snapshot.h"

#include <algorithm>
#include <bit>
#include <bpf/bpf.h>
#include <cstring>
#include <linux/bpf.h>
#include <map>
#include <set>
#include <sys/mman.h>
#include <unistd.h>

namespace live {
namespace {

constexpr size_t ELEMENT = LIVE_ELEMENT_SIZE;

uint32_t FlagIf(bool isSet, LivePortFlag flag) { return isSet ? flag : 0; }

bool Contains(const std::vector<uint32_t> &numbers, uint32_t number)
{
    return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

uint32_t MirrorFlags(const SwitchConfig &vswitch, uint32_t portNumber)
{
    uint32_t flags = 0;
    for (const MirrorSession &mirror : vswitch.mirrors) {
        if (!mirror.isEnabled) continue;
        flags |= FlagIf(Contains(mirror.from, portNumber), LIVE_PORT_MIRRORED) |
                 FlagIf(Contains(mirror.to, portNumber), LIVE_PORT_MIRRORED) |
                 FlagIf(Contains(mirror.destinations, portNumber), LIVE_PORT_GETS_COPIES);
    }
    return flags;
}

uint32_t FlagsWord(const SwitchConfig &vswitch, const PortConfig &port)
{
    return FlagIf(port.uplink, LIVE_PORT_UPLINK) | FlagIf(port.blocked, LIVE_PORT_BLOCKED) |
           FlagIf(port.learning, LIVE_PORT_LEARNING) |
           FlagIf(port.forwardsOverLimit, LIVE_PORT_FORWARDS_OVER_LIMIT) |
           FlagIf(port.getsAllFrames && !port.uplink, LIVE_PORT_ALL_FRAMES) |
           FlagIf(port.addressLock && !port.uplink, LIVE_PORT_ADDRESS_LOCK) |
           FlagIf(port.staticOnly && !port.uplink, LIVE_PORT_STATIC_ONLY) |
           FlagIf(!port.filter.empty(), LIVE_PORT_FILTERED) | MirrorFlags(vswitch, port.number);
}

uint32_t VlanWord(const SwitchConfig &vswitch, const PortConfig &port)
{
    const uint32_t priority = std::min(port.priority, LIVE_PORT_NO_PRIORITY) << LIVE_PORT_PRIORITY_SHIFT;
    if (port.trunk) return priority | LIVE_PORT_TRUNK;
    const uint32_t vlan = std::min<uint32_t>(port.vlanId, LIVE_VLAN_MAX + 1);
    const bool isNested = port.nested && vlan != 0 && vlan <= LIVE_VLAN_MAX;
    return IdentityOf(vswitch, vlan) | priority | (isNested ? LIVE_PORT_NESTED : 0u);
}

bool IsListed(const PortConfig &port) { return !port.uplink && port.ifindex != 0; }

bool GetsAllFrames(const PortConfig &port) { return IsListed(port) && port.getsAllFrames; }

bool TakesUnknown(const PortConfig &port)
{
    return IsListed(port) && (port.takesUnknown || port.sink || port.getsAllFrames);
}

// In which directions the rules drop frames of a type; 0: of one that no rule names.
uint32_t DroppedDirections(const std::vector<FilterRule> &rules, uint16_t etherType)
{
    uint32_t dropped = 0, decided = 0;
    for (const FilterRule &rule : rules) {
        if (rule.etherType && rule.etherType != etherType) continue;
        const uint32_t directions = rule.direction == VSWITCH_FILTER_BOTH
                                        ? uint32_t{VSWITCH_FILTER_FROM_PORT | VSWITCH_FILTER_TO_PORT}
                                        : uint32_t{rule.direction};
        if (rule.action == VSWITCH_FILTER_DROP) dropped |= directions & ~decided;
        decided |= directions;
    }
    return dropped;
}

// One by which each of the types has a place of its own: of about 150 tries for 24 types one succeeds.
uint32_t FindMultiplier(const std::set<uint16_t> &types)
{
    for (uint32_t multiplier = 0x9e3779b1;; multiplier = (multiplier * 1664525 + 1013904223) | 1) {
        uint64_t taken = 0;
        for (const uint16_t type : types)
            taken |= 1ull << LiveFilterPlace(multiplier, type);
        if (static_cast<size_t>(std::popcount(taken)) == types.size()) return multiplier;
    }
}

void SetFilter(const PortConfig &port, LiveFilter &filter)
{
    std::set<uint16_t> types;
    for (const FilterRule &rule : port.filter)
        if (rule.etherType) types.insert(rule.etherType);
    filter.multiplier = FindMultiplier(types);
    filter.others = DroppedDirections(port.filter, 0);
    uint32_t drops[LIVE_FILTER_PLACES];
    std::fill(std::begin(drops), std::end(drops), filter.others);
    for (const uint16_t type : types) {
        const uint32_t place = LiveFilterPlace(filter.multiplier, type);
        filter.types[place] = type;
        drops[place] = DroppedDirections(port.filter, type);
    }
    for (uint32_t place = 0; place < LIVE_FILTER_PLACES; place++) {
        filter.dropsFrom |= uint64_t{(drops[place] & VSWITCH_FILTER_FROM_PORT) != 0} << place;
        filter.dropsTo |= uint64_t{(drops[place] & VSWITCH_FILTER_TO_PORT) != 0} << place;
    }
}

void SetVlans(const PortConfig &port, LivePortRecord &record)
{
    if (!port.trunk) return;
    for (const VlanRange &range : port.ranges)
        for (uint32_t vlan = range.first; vlan <= std::min<uint32_t>(range.last, LIVE_VLAN_MAX); vlan++)
            record.vlans[vlan / 64] |= uint64_t{1} << vlan % 64;
    // The network's untagged frames pass whatever the ranges are.
    if (port.uplink) record.vlans[0] |= 1;
}

void SetMirrors(const std::vector<PlacedMirror> &mirrors, uint32_t portNumber, LivePortRecord &record)
{
    for (const PlacedMirror &mirror : mirrors) {
        const uint64_t bit = uint64_t{1} << mirror.place;
        const bool isReceiver = Contains(mirror.config.to, portNumber);
        if (!mirror.config.isEnabled) continue;
        if (Contains(mirror.config.from, portNumber)) record.mirrorsFrom |= bit;
        if (isReceiver) record.mirrorsTo |= bit;
        if (isReceiver && Contains(mirror.config.destinations, portNumber)) record.mirrorsOwn |= bit;
    }
}

// What is cut comes last, and the longest first: the data path cuts the frame itself.
bool IsCutEarlier(const PlacedMirror &a, const PlacedMirror &b)
{
    const uint32_t lengthA = a.config.snapLength - 1, lengthB = b.config.snapLength - 1; // 0 is the longest
    return lengthA != lengthB ? lengthA > lengthB : a.place < b.place;
}

// The elements of a snapshot one after the other: header, records, lists, private VLANs, mirror sessions.
class Layout {
public:
    explicit Layout(const PlacedSwitch &placed)
        : vswitch(placed.config), ports(placed.ports), mirrors(placed.mirrors)
    {
        std::sort(mirrors.begin(), mirrors.end(), IsCutEarlier);
        for (const PlacedPort &port : ports) {
            positions = std::max(positions, port.position + 1);
            header.flood.count += IsListed(port.config);
            header.unknown.count += TakesUnknown(port.config);
            header.allFrames.count += GetsAllFrames(port.config);
        }
        header.flood.first = LIVE_FIRST_RECORD + positions;
        header.unknown.first = header.flood.first + ListElements(header.flood);
        header.allFrames.first = header.unknown.first + ListElements(header.unknown);
        FindTeams();
        header.teams.first = header.allFrames.first + ListElements(header.allFrames);
        header.privateVlans.first = header.teams.first + (header.teams.count + LIVE_TEAMS - 1) / LIVE_TEAMS;
        if (!vswitch.privateVlans.empty()) header.privateVlans.count = LIVE_VLANS;
        header.mirrors.first =
            header.privateVlans.first + (header.privateVlans.count + LIVE_IDENTITIES - 1) / LIVE_IDENTITIES;
        header.mirrors.count = static_cast<uint32_t>(mirrors.size());
        elements = header.mirrors.first +
                   (header.mirrors.count + LIVE_MIRRORS_IN_ELEMENT - 1) / LIVE_MIRRORS_IN_ELEMENT;
    }

    uint32_t Elements() const { return elements; }

    void Fill(uint8_t *memory)
    {
        for (uint32_t i = 0; i < positions; i++)
            Record(memory, i)->slot = UINT32_MAX;
        uint32_t flooded = 0, unknown = 0, allFrames = 0;
        for (const PlacedPort &port : ports) {
            LivePortRecord *record = Record(memory, port.position);
            record->slot = port.slot;
            SetVlans(port.config, *record);
            SetFilter(port.config, record->filter);
            SetMirrors(mirrors, port.config.number, *record);
            record->team = TeamNumber(port.config);
            if (port.config.uplink && header.uplinkCount < LIVE_UPLINKS)
                header.uplinkSlots[header.uplinkCount++] = port.slot;
            if (IsListed(port.config)) *ListEntry(memory, header.flood, flooded++) = port.slot;
            if (TakesUnknown(port.config)) *ListEntry(memory, header.unknown, unknown++) = port.slot;
            if (GetsAllFrames(port.config)) *ListEntry(memory, header.allFrames, allFrames++) = port.slot;
        }
        FillTeams(memory);
        FillPrivateVlans(memory);
        FillMirrors(memory);
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

    // Ports of equal policy share a team.
    void FindTeams()
    {
        for (const PlacedPort &port : ports)
            if (port.config.team && TeamNumber(port.config) == 0) teams.push_back(&*port.config.team);
        header.teams.count = static_cast<uint32_t>(teams.size());
    }

    uint32_t TeamNumber(const PortConfig &port) const
    {
        if (!port.team) return 0;
        const auto found =
            std::find_if(teams.begin(), teams.end(), [&](const Team *team) { return *team == *port.team; });
        return found == teams.end() ? 0 : static_cast<uint32_t>(found - teams.begin()) + 1;
    }

    void FillTeams(uint8_t *memory)
    {
        std::map<uint32_t, uint8_t> places; // of uplinks, by port number
        for (const PlacedPort &port : ports)
            if (port.config.uplink) places.emplace(port.config.number, static_cast<uint8_t>(places.size()));
        for (uint32_t i = 0; i < header.teams.count; i++) {
            uint8_t *element = memory + (header.teams.first + i / LIVE_TEAMS) * ELEMENT;
            LiveTeam &team = reinterpret_cast<LiveTeams *>(element)->teams[i % LIVE_TEAMS];
            team.algorithm = static_cast<uint8_t>(teams[i]->algorithm);
            team.failBack = teams[i]->failBack;
            team.anyUplink = teams[i]->anyUplink;
            AddUplinks(teams[i]->active, places, team);
            team.activeCount = team.count;
            AddUplinks(teams[i]->standby, places, team);
        }
    }

    static void AddUplinks(const std::vector<uint32_t> &numbers, const std::map<uint32_t, uint8_t> &places,
                           LiveTeam &team)
    {
        for (uint32_t number : numbers) {
            const auto place = places.find(number);
            if (place == places.end() || place->second >= LIVE_UPLINKS) continue;
            const uint32_t bit = 1u << place->second;
            if (team.members & bit) continue; // an uplink is in a team once
            team.members |= bit;
            team.uplinks[team.count++] = place->second;
        }
    }

    void FillPrivateVlans(uint8_t *memory)
    {
        for (uint32_t vlan = 0; vlan < header.privateVlans.count; vlan++) {
            uint8_t *element = memory + (header.privateVlans.first + vlan / LIVE_IDENTITIES) * ELEMENT;
            reinterpret_cast<LiveIdentities *>(element)->identities[vlan % LIVE_IDENTITIES] =
                IdentityOf(vswitch, vlan);
        }
    }

    // A port of another switch, or without an interface, has no slot here.
    uint32_t SlotOf(uint32_t portNumber) const
    {
        const auto isIt = [&](const PlacedPort &port) { return port.config.number == portNumber; };
        const auto found = std::find_if(ports.begin(), ports.end(), isIt);
        return found == ports.end() ? UINT32_MAX : found->slot;
    }

    void FillMirrors(uint8_t *memory)
    {
        for (uint32_t i = 0; i < header.mirrors.count; i++) {
            uint8_t *element = memory + (header.mirrors.first + i / LIVE_MIRRORS_IN_ELEMENT) * ELEMENT;
            LiveMirror &mirror =
                reinterpret_cast<LiveMirrors *>(element)->mirrors[i % LIVE_MIRRORS_IN_ELEMENT];
            const MirrorSession &config = mirrors[i].config;
            mirror.slot = mirrors[i].slot;
            mirror.place = mirrors[i].place;
            if (config.snapLength) mirror.snapLength = std::max(config.snapLength, LIVE_MIRROR_SHORTEST);
            mirror.sampling = std::max(config.sampling, 1u);
            mirror.outerVlan = config.outerVlan;
            mirror.stripsTag = config.stripsTag;
            for (uint32_t number : config.destinations) {
                if (mirror.count == LIVE_MIRROR_DESTINATIONS) break;
                mirror.ownDestinations |= uint32_t{Contains(config.to, number)} << mirror.count;
                mirror.slots[mirror.count++] = SlotOf(number);
            }
        }
    }

    const SwitchConfig &vswitch;
    const std::vector<PlacedPort> &ports;
    std::vector<PlacedMirror> mirrors;
    LiveSnapshotHeader header = {};
    std::vector<const Team *> teams;
    uint32_t positions = 0;
    uint32_t elements = 0;
};

}

Descriptor::~Descriptor()
{
    if (fd >= 0) close(fd);
}

LivePort WordsOf(const SwitchConfig &vswitch, const PlacedPort &placed, uint32_t switchIndex)
{
    LivePort words = {};
    words.number = placed.config.number;
    words.switchIndex = switchIndex;
    words.position = placed.position;
    words.addressLimit = placed.config.addressLimit;
    words.vlan = VlanWord(vswitch, placed.config);
    words.flags = FlagsWord(vswitch, placed.config);
    words.ifindex = placed.config.ifindex;
    words.inUse = 1;
    return words;
}

LiveSwitch WordsOf(const SwitchConfig &vswitch, const std::vector<PlacedPort> &ports)
{
    LiveSwitch words = {};
    uint32_t uplink = 0;
    words.mtu = vswitch.mtu;
    words.addressLimit = vswitch.addressLimit;
    words.ageingSeconds = vswitch.ageingSeconds;
    words.hasPrivateVlans = !vswitch.privateVlans.empty();
    words.learnsStatic = vswitch.learnsStatic;
    words.snooping = vswitch.snooping;
    for (const PlacedPort &port : ports) {
        if (GetsAllFrames(port.config)) words.hasAllFramesPorts = 1;
        if (port.config.uplink) words.activeUplinks |= (port.config.uplinkActive ? 1u : 0u) << uplink++;
    }
    words.inUse = 1;
    return words;
}

bool DifferInSnapshot(const PortConfig &a, const PortConfig &b)
{
    return a.trunk != b.trunk || (a.trunk && a.ranges != b.ranges) || a.uplink != b.uplink ||
           IsListed(a) != IsListed(b) || TakesUnknown(a) != TakesUnknown(b) ||
           GetsAllFrames(a) != GetsAllFrames(b) || a.filter != b.filter || a.team != b.team;
}

std::vector<uint8_t> SnapshotBytes(const PlacedSwitch &vswitch)
{
    Layout layout(vswitch);
    std::vector<uint8_t> bytes(layout.Elements() * ELEMENT);
    layout.Fill(bytes.data());
    return bytes;
}

bool DifferInSnapshot(const SwitchConfig &a, const SwitchConfig &b)
{
    return a.privateVlans != b.privateVlans || a.mirrors != b.mirrors;
}

uint32_t IdentityOf(const SwitchConfig &vswitch, uint32_t vlan)
{
    const auto found = std::find_if(vswitch.privateVlans.begin(), vswitch.privateVlans.end(),
                                    [&](const PrivateVlan &entry) { return entry.secondary == vlan; });
    if (found == vswitch.privateVlans.end()) return vlan | vlan << LIVE_PRIMARY_SHIFT;
    const uint32_t primary = uint32_t{found->primary} << LIVE_PRIMARY_SHIFT;
    switch (found->type) {
    case PrivateVlanType::ISOLATED:
        return vlan | primary | LIVE_ROLE_ISOLATED;
    case PrivateVlanType::COMMUNITY:
        return vlan | primary | LIVE_ROLE_COMMUNITY;
    default:
        return vlan | primary | LIVE_ROLE_OPEN;
    }
}

Descriptor MakeSnapshot(const PlacedSwitch &vswitch)
{
    Layout layout(vswitch);
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
