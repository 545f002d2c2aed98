// A plain model of what a switch does with a frame, without a kernel's maps, epochs or counts beside the
// table. Tests compare it with the data path.
#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include "tests/live_fixture.h"

namespace live_test {

class Model {
public:
    using Mac = std::array<uint8_t, 6>;

    struct Entry {
        uint32_t port;
        bool isStatic;
        uint64_t lastSeen;        // 0: never
        bool isForgotten = false; // it only takes room until the next sweep
    };

    SwitchConfig vswitch; // without ports
    HostConfig host;
    std::map<uint32_t, PortConfig> ports;
    std::map<std::pair<uint16_t, Mac>, Entry> table;
    std::map<uint32_t, int> links; // the result of sending by a port
    std::map<uint32_t, std::array<uint64_t, LIVE_COUNTERS>> counters;
    uint64_t now = 0;

    // The frames that leave when a frame enters, in the order of the ports.
    std::vector<Sent> Receive(uint32_t from, const Bytes &bytes, uint32_t segmentSize)
    {
        sent.clear();
        frame = Parse(bytes, segmentSize);
        sender = from;
        const auto plugged = ports.find(from);
        if (plugged == ports.end() || plugged->second.ifindex == 0) return {};
        Count(from, LIVE_FROM_PACKETS, LIVE_FROM_BYTES, bytes.size(), LIVE_FROM_MULTICAST);
        const std::optional<LiveCounter> dropped = Handle();
        if (dropped) counters[from][*dropped]++;
        std::sort(sent.begin(), sent.end());
        return sent;
    }

    void Configure(const PortConfig &port)
    {
        const auto old = ports.find(port.number);
        if (old != ports.end() && Relearns(old->second, port)) Forget(port.number);
        ports[port.number] = port;
    }

    void Forget(uint32_t port)
    {
        std::erase_if(table,
                      [&](const auto &entry) { return entry.second.port == port && !entry.second.isStatic; });
    }

    void Sweep()
    {
        std::erase_if(table, [&](const auto &row) {
            const Entry &entry = row.second;
            if (entry.isStatic) return false;
            const uint64_t limit = vswitch.ageingSeconds * uint64_t{1000000000};
            const bool isOld = !entry.isForgotten && limit && now - entry.lastSeen >= limit;
            if (isOld) counters[entry.port][LIVE_AGED]++;
            return isOld || entry.isForgotten;
        });
    }

    bool NeedsSweep() const
    {
        return std::any_of(table.begin(), table.end(),
                           [](const auto &row) { return row.second.isForgotten; });
    }

    uint64_t LearnedBy(std::optional<uint32_t> port) const
    {
        return static_cast<uint64_t>(std::count_if(table.begin(), table.end(), [&](const auto &row) {
            return !row.second.isStatic && (!port || row.second.port == *port);
        }));
    }

private:
    struct Tag {
        uint16_t type;
        uint16_t tci;
    };

    struct Frame {
        Mac destination, source;
        std::optional<Tag> tag;
        Bytes rest; // from the EtherType on
        uint32_t segmentSize;

        uint16_t EtherType() const { return static_cast<uint16_t>(rest[0] << 8 | rest[1]); }
        bool IsGroup() const { return destination[0] & 1; }
        bool IsBroadcast() const { return destination == Mac{255, 255, 255, 255, 255, 255}; }
    };

    static Frame Parse(const Bytes &bytes, uint32_t segmentSize)
    {
        Frame parsed = {};
        std::copy_n(bytes.begin(), 6, parsed.destination.begin());
        std::copy_n(bytes.begin() + 6, 6, parsed.source.begin());
        const auto word = [&](size_t at) { return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]); };
        size_t next = 12;
        if (word(12) == 0x8100 || word(12) == 0x88a8) {
            parsed.tag = Tag{word(12), word(14)};
            next = 16;
        }
        parsed.rest.assign(bytes.begin() + static_cast<ptrdiff_t>(next), bytes.end());
        parsed.segmentSize = segmentSize;
        return parsed;
    }

    static bool Relearns(const PortConfig &a, const PortConfig &b)
    {
        return a.ifindex != b.ifindex || a.uplink != b.uplink || a.learning != b.learning ||
               a.trunk != b.trunk || (a.trunk ? a.ranges != b.ranges : a.vlanId != b.vlanId);
    }

    void Count(uint32_t port, LiveCounter packets, LiveCounter bytes, size_t length, LiveCounter multicast)
    {
        counters[port][packets]++;
        counters[port][bytes] += length;
        if (frame.IsGroup()) counters[port][multicast + frame.IsBroadcast()]++;
    }

    const PortConfig &Sender() const { return ports.at(sender); }

    // ---- VLANs ----

    static bool TrunkCarries(const PortConfig &port, uint32_t vlan)
    {
        if (vlan == 0 && port.uplink) return true;
        return vlan <= 4094 &&
               std::any_of(port.ranges.begin(), port.ranges.end(),
                           [&](const VlanRange &range) { return range.first <= vlan && vlan <= range.last; });
    }

    static bool Carries(const PortConfig &port, uint32_t vlan)
    {
        return port.trunk ? TrunkCarries(port, vlan) : port.vlanId == vlan;
    }

    // Whether the frame may enter, and which VLAN and tag it has from then on.
    bool Enters()
    {
        const PortConfig &port = Sender();
        const uint32_t id = frame.tag ? frame.tag->tci & 0xfff : 0;
        if (frame.tag && frame.tag->type != 0x8100) return false;
        if (id == 0 && (frame.EtherType() == 0x8100 || frame.EtherType() == 0x88a8)) return false;
        if (port.trunk ? !TrunkCarries(port, id) : id != 0 || port.vlanId > 4094) return false;

        vlan = static_cast<uint16_t>(port.trunk ? id : port.vlanId);
        if (port.trunk)
            leavesWith = frame.tag;
        else if (vlan != 0)
            leavesWith = Tag{0x8100, vlan};
        else
            leavesWith.reset();
        if (leavesWith && port.priority <= 7)
            leavesWith->tci = static_cast<uint16_t>((leavesWith->tci & 0x1fff) | port.priority << 13);
        return true;
    }

    // ---- What may pass ----

    bool IsTooLong() const
    {
        const size_t length = frame.rest.size() - 2;
        if (length <= vswitch.mtu) return false;
        if (frame.segmentSize == 0) return true;
        const auto byte = [&](size_t at) -> size_t {
            return at + 2 < frame.rest.size() ? frame.rest[at + 2] : 0;
        };
        size_t headers = 40;
        const bool isIpv4 = frame.EtherType() == 0x0800, isIpv6 = frame.EtherType() == 0x86dd;
        const size_t ip = isIpv6 ? 40 : byte(0) % 16 * 4;
        const size_t protocol = byte(isIpv6 ? 6 : 9);
        if ((isIpv4 || isIpv6) && protocol == 17) headers = ip + 8;
        if ((isIpv4 || isIpv6) && protocol == 6) headers = ip + byte(ip + 12) / 16 * 4;
        return frame.segmentSize + headers > vswitch.mtu;
    }

    std::optional<LiveCounter> Handle()
    {
        if (Sender().blocked) return LIVE_DROP_BLOCKED;
        if (!Enters()) return LIVE_DROP_VLAN;
        if ((frame.source[0] & 1) || frame.source == Mac{}) return LIVE_DROP_FILTER;
        if (IsTooLong()) return LIVE_DROP_LENGTH;
        if (const auto dropped = Sender().uplink ? LearnFromNetwork() : LearnFromPort()) return dropped;
        return frame.IsGroup() ? Flood() : Deliver();
    }

    // ---- Learning ----

    Entry *Find(const Mac &mac)
    {
        const auto found = table.find({vlan, mac});
        return found == table.end() ? nullptr : &found->second;
    }

    bool HasRoomAtPort() const
    {
        const PortConfig &port = Sender();
        const uint64_t limit = port.uplink || port.learning ? port.addressLimit : 4096;
        return LearnedBy(sender) < limit;
    }

    bool HasRoom() const
    {
        const uint32_t share = Sender().uplink ? 2 : 1; // the network has half
        const uint64_t learned = LearnedBy({});
        return HasRoomAtPort() && learned < vswitch.addressLimit / share &&
               learned < host.addressLimit / share;
    }

    std::optional<LiveCounter> Refuse()
    {
        counters[sender][LIVE_REFUSED]++;
        const PortConfig &port = Sender();
        if (port.uplink || !port.learning || port.forwardsOverLimit) return {};
        return LIVE_DROP_LEARNING_LIMIT;
    }

    std::optional<LiveCounter> Add()
    {
        if (!HasRoom()) return Refuse();
        table[{vlan, frame.source}] = {sender, false, now};
        counters[sender][LIVE_LEARNED]++;
        return {};
    }

    // A port without learning has one address; a new address replaces it.
    void ForgetOtherAddress()
    {
        std::optional<std::pair<uint16_t, Mac>> &last = lastAddress[sender];
        const std::pair<uint16_t, Mac> address = {vlan, frame.source};
        if (last && last->second == frame.source) return;
        if (last) {
            const auto old = table.find(*last);
            if (old != table.end() && old->second.port == sender && !old->second.isStatic) table.erase(old);
            for (auto &[key, entry] : table)
                if (entry.port == sender && !entry.isStatic) entry.isForgotten = true;
        }
        last = address;
    }

    std::optional<LiveCounter> LearnFromPort()
    {
        Entry *entry = Find(frame.source);
        if (entry && entry->port == sender) {
            entry->lastSeen = now;
            return {};
        }
        if ((entry && entry->isStatic) || !host.learningEnabled) return {};
        if (!Sender().learning) ForgetOtherAddress();
        if (!entry) return Add();
        if (!HasRoomAtPort()) return Refuse();
        *entry = {sender, false, now};
        counters[sender][LIVE_MOVED]++;
        return {};
    }

    std::optional<LiveCounter> LearnFromNetwork()
    {
        Entry *entry = Find(frame.source);
        if (!entry) return host.learningEnabled ? Add() : std::nullopt;
        if (ports.at(entry->port).uplink) {
            if (host.learningEnabled) entry->lastSeen = now;
            return {};
        }
        if (entry->lastSeen && now - entry->lastSeen < 1000000000) {
            counters[sender][LIVE_REFLECTED]++;
            return LIVE_DROP_FILTER;
        }
        if (entry->isStatic || !host.learningEnabled) return {};
        const uint64_t learned = LearnedBy({});
        if (learned > vswitch.addressLimit / 2 || learned > host.addressLimit / 2 || !HasRoomAtPort()) {
            table.erase({vlan, frame.source});
            return Refuse();
        }
        *entry = {sender, false, now};
        counters[sender][LIVE_MOVED]++;
        return {};
    }

    // ---- Sending ----

    int Send(const PortConfig &port)
    {
        const auto link = links.find(port.number);
        const int result = link == links.end() ? 0 : link->second;
        if (result != 0) return result;
        Bytes bytes(frame.destination.begin(), frame.destination.end());
        bytes.insert(bytes.end(), frame.source.begin(), frame.source.end());
        if (port.trunk && leavesWith)
            for (int byte :
                 {leavesWith->type >> 8, leavesWith->type & 255, leavesWith->tci >> 8, leavesWith->tci & 255})
                bytes.push_back(static_cast<uint8_t>(byte));
        bytes.insert(bytes.end(), frame.rest.begin(), frame.rest.end());
        sent.push_back(MakeSent(port.ifindex, bytes));
        Count(port.number, LIVE_TO_PACKETS, LIVE_TO_BYTES, bytes.size(), LIVE_TO_MULTICAST);
        return 0;
    }

    bool Reaches(const PortConfig &port) const
    {
        return port.number != sender && port.ifindex != 0 && !port.blocked && Carries(port, vlan);
    }

    // Sends copies to the local ports that want one. Returns their number.
    uint32_t SendToPorts(const std::function<bool(const PortConfig &)> &wants)
    {
        uint32_t copies = 0;
        for (const auto &[number, port] : ports) {
            if (port.uplink || !Reaches(port) || !wants(port)) continue;
            if (Send(port) == 0)
                copies++;
            else
                counters[number][LIVE_DROP_NOT_SENT]++;
        }
        return copies;
    }

    // The sender's uplink first, then those that follow it; those known not to work last of all.
    std::vector<const PortConfig *> UplinksInOrder() const
    {
        std::vector<const PortConfig *> uplinks;
        for (const auto &[number, port] : ports)
            if (port.uplink) uplinks.push_back(&port);
        if (uplinks.empty()) return uplinks;
        std::rotate(uplinks.begin(), uplinks.begin() + static_cast<ptrdiff_t>(sender % uplinks.size()),
                    uplinks.end());
        std::stable_partition(uplinks.begin(), uplinks.end(),
                              [](const PortConfig *uplink) { return uplink->uplinkActive; });
        return uplinks;
    }

    bool SendToUplink()
    {
        bool queueWasFull = false; // the frame avoids the port, whose place stays the same
        for (const PortConfig *uplink : UplinksInOrder()) {
            if (!Reaches(*uplink)) continue;
            const int result = Send(*uplink);
            if (result == 1) queueWasFull = true;
            if (result != 0) continue;
            if (!queueWasFull) NoteUplink(*uplink);
            return true;
        }
        return false;
    }

    void NoteUplink(const PortConfig &uplink)
    {
        uint32_t &last = lastUplink[sender];
        std::vector<uint32_t> numbers;
        for (const auto &[number, port] : ports)
            if (port.uplink) numbers.push_back(number);
        const bool isItsOwn = numbers[sender % numbers.size()] == uplink.number;
        if (last != 0 && last != uplink.number)
            counters[uplink.number][isItsOwn ? LIVE_FAILBACKS : LIVE_FAILOVERS]++;
        last = uplink.number;
    }

    bool HasUplinks() const
    {
        return std::any_of(ports.begin(), ports.end(), [](const auto &port) { return port.second.uplink; });
    }

    std::optional<LiveCounter> Flood()
    {
        if (host.floodLimit != 0) {
            std::pair<uint64_t, uint32_t> &flood = floods[sender];
            if (flood.first != now / 1000000000) flood = {now / 1000000000, 0};
            if (flood.second++ >= host.floodLimit) return LIVE_DROP_FLOOD_LIMIT;
        }
        SendToPorts([](const PortConfig &) { return true; });
        if (Sender().uplink || SendToUplink() || !HasUplinks()) return {};
        return LIVE_DROP_NOT_SENT;
    }

    std::optional<LiveCounter> Deliver()
    {
        const Entry *entry = Find(frame.destination);
        if (entry && entry->isForgotten) entry = nullptr;
        if (entry && entry->port == sender) return {};
        if (entry && !ports.at(entry->port).uplink) {
            const PortConfig &port = ports.at(entry->port);
            if (Carries(port, vlan) && port.ifindex != 0) {
                if (port.blocked)
                    counters[port.number][LIVE_DROP_BLOCKED]++;
                else if (Send(port) != 0) // the failure is not reported
                    Count(port.number, LIVE_TO_PACKETS, LIVE_TO_BYTES, LengthAt(port), LIVE_TO_MULTICAST);
                return {};
            }
        }
        const bool isOnNetwork = entry && ports.at(entry->port).uplink;
        const uint32_t copies =
            isOnNetwork ? 0
                        : SendToPorts([](const PortConfig &port) { return port.takesUnknown || port.sink; });
        if (Sender().uplink || SendToUplink()) return {};
        if (HasUplinks() || copies == 0) return LIVE_DROP_NOT_SENT;
        return {};
    }

    size_t LengthAt(const PortConfig &port) const
    {
        return 12 + frame.rest.size() + (port.trunk && leavesWith ? 4 : 0);
    }

    Frame frame;
    uint32_t sender = 0;
    uint16_t vlan = 0;
    std::optional<Tag> leavesWith;
    std::vector<Sent> sent;
    std::map<uint32_t, std::optional<std::pair<uint16_t, Mac>>> lastAddress;
    std::map<uint32_t, uint32_t> lastUplink;
    std::map<uint32_t, std::pair<uint64_t, uint32_t>> floods; // the second and how many
};

}
