// The multicast groups in the data path's maps: read, and those that are over found.
#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>

#include "platform/live/kernel_tables.h"

namespace live {

using namespace vshost;

namespace {

bool IsOver(uint64_t until, uint64_t now) { return static_cast<int64_t>(until - now) <= 0; }

GroupAddress AddressOf(const uint8_t (&bytes)[16])
{
    GroupAddress address;
    std::copy(std::begin(bytes), std::end(bytes), address.begin());
    return address;
}

bool IsVlanEntry(const LiveGroupKey &key) { return key.slot & LIVE_VLAN_ENTRY; }

// VLAN, EtherType and address: the entries of all ports of a group.
using GroupName = std::tuple<uint16_t, uint16_t, GroupAddress>;

GroupName NameOf(const LiveGroupKey &key) { return {key.vlan, key.family, AddressOf(key.group)}; }

// How many ports want a source, and how many want others but not this one.
struct SourceUse {
    uint32_t wanted = 0;
    uint32_t excluded = 0;
};

struct Group {
    GroupEntry entry = {};
    uint32_t excluding = 0; // ports
    std::map<GroupAddress, SourceUse> sources;
    std::map<uint32_t, LiveGroup> members; // by slot
};

// A port wants what another one at the same time excludes.
void Merge(Group &group)
{
    group.entry.excludes = group.excluding != 0;
    for (const auto &[source, use] : group.sources) {
        const bool isNamed =
            group.excluding ? use.wanted == 0 && use.excluded == group.excluding : use.wanted != 0;
        if (isNamed) group.entry.sources.push_back(source);
    }
}

class Groups {
public:
    Groups(KernelPart &kernel, uint32_t switchIndex) : kernel(kernel), switchIndex(switchIndex) {}

    void AddMember(const LiveGroupKey &key, const LiveGroup &value)
    {
        const uint64_t now = kernel.host[0].now;
        if (IsVlanEntry(key)) {
            if ((key.slot & ~LIVE_VLAN_ENTRY) == switchIndex) queries[{key.vlan, key.family}] = value.queries;
            return;
        }
        if (key.slot >= kernel.ports.Size() || AddressOf(key.group) == GroupAddress{}) return;
        LivePort &port = kernel.ports[key.slot];
        if (!ReadWord(port.inUse) || ReadWord(port.switchIndex) != switchIndex) return;
        if (value.epoch != ReadWord(port.groupEpoch)) return;
        const bool excludes = !IsOver(value.until, now);
        if (!excludes && IsOver(value.sourcesUntil, now)) return;
        Group &group = groups[NameOf(key)];
        group.members[key.slot] = value;
        group.entry.ports++;
        group.entry.joins += value.joins;
        group.entry.leaves += value.leaves;
        group.excluding += excludes;
    }

    void AddSource(const LiveSourceKey &key, const LiveSource &value)
    {
        const uint64_t now = kernel.host[0].now;
        const auto group = groups.find(NameOf(key.group));
        if (group == groups.end()) return;
        const auto member = group->second.members.find(key.group.slot);
        if (member == group->second.members.end() || value.epoch != member->second.epoch) return;
        const LiveGroup &of = member->second;
        const bool isFormer = value.mark >= of.formerSerial && !IsOver(of.formerUntil, now);
        if (value.mark < of.serial && !isFormer) return;
        SourceUse &use = group->second.sources[AddressOf(key.source)];
        use.wanted += !IsOver(value.until, now);
        use.excluded += IsOver(value.until, now) && !IsOver(of.until, now);
    }

    std::vector<GroupEntry> Entries()
    {
        std::vector<GroupEntry> entries;
        for (auto &[name, group] : groups) {
            std::tie(group.entry.vlan, group.entry.family, group.entry.group) = name;
            for (const auto &[slot, member] : group.members) {
                const uint32_t asked = queries[{group.entry.vlan, group.entry.family}];
                const uint32_t since = asked < member.queries ? asked : asked - member.queries;
                group.entry.queries = std::max(group.entry.queries, since);
            }
            Merge(group);
            entries.push_back(std::move(group.entry));
        }
        return entries;
    }

private:
    KernelPart &kernel;
    const uint32_t switchIndex;
    std::map<GroupName, Group> groups;
    std::map<std::pair<uint16_t, uint16_t>, uint32_t> queries; // by VLAN and EtherType
};

}

VsStatus KernelTables::WalkGroups(const VisitEntry<LiveGroupKey, LiveGroup> &visitGroup,
                                  const VisitEntry<LiveSourceKey, LiveSource> &visitSource) const
{
    if (kernel.Command(LIVE_COMMAND_READ_CLOCKS, 0, {}) < 0) return STATUS_FAILURE;
    const VsStatus status = VisitEntries(kernel.MapDescriptor("groups"), visitGroup);
    return status ? status : VisitEntries(kernel.MapDescriptor("group_sources"), visitSource);
}

VsStatus KernelTables::ReadGroups(const std::string &switchId, std::vector<GroupEntry> &entries) const
{
    uint32_t index = 0;
    if (VsStatus status = FindSwitch(switchId, index)) return status;
    Groups groups(kernel, index);
    const VsStatus status = WalkGroups(
        [&](const LiveGroupKey &key, const LiveGroup &group) { groups.AddMember(key, group); },
        [&](const LiveSourceKey &key, const LiveSource &source) { groups.AddSource(key, source); });
    if (status == STATUS_OK) entries = groups.Entries();
    return status;
}

bool KernelTables::HasGroups() const
{
    for (uint32_t slot = 0; slot < kernel.ports.Size(); slot++) {
        LivePort &port = kernel.ports[slot];
        if (ReadWord(port.groups) || ReadWord(port.groupSources)) return true;
    }
    return false;
}

VsStatus KernelTables::FindEndedGroups(std::vector<LiveGroupKey> &groups,
                                       std::vector<LiveSourceKey> &sources) const
{
    if (!HasGroups()) return STATUS_OK;
    const auto isForgotten = [&](uint32_t slot, uint32_t epoch) {
        if (slot >= kernel.ports.Size() || !ReadWord(kernel.ports[slot].inUse)) return true;
        return epoch != ReadWord(kernel.ports[slot].groupEpoch);
    };
    const auto addGroup = [&](const LiveGroupKey &key, const LiveGroup &group) {
        const uint64_t now = kernel.host[0].now;
        const bool isOver = IsOver(group.until, now) && IsOver(group.sourcesUntil, now);
        if (isOver || isForgotten(group.owner, group.epoch)) groups.push_back(key);
    };
    const auto addSource = [&](const LiveSourceKey &key, const LiveSource &source) {
        const bool isOver = IsOver(source.until, kernel.host[0].now);
        if (isOver || isForgotten(key.group.slot, source.epoch)) sources.push_back(key);
    };
    return WalkGroups(addGroup, addSource);
}

}
