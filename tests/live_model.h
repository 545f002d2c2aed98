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
        bool isKept = false;      // static, but learned
    };

    SwitchConfig vswitch; // without ports
    HostConfig host;
    std::map<uint32_t, PortConfig> ports;
    std::map<std::pair<uint16_t, Mac>, Entry> table;
    std::map<uint32_t, int> links; // the result of sending by a port
    std::map<uint32_t, std::array<uint64_t, LIVE_COUNTERS>> counters;
    std::map<std::string, LiveMirrorCounters> mirrorCounters; // by session
    uint64_t now = 0;
    uint64_t servedUntil = 0; // a daemon follows links

    // The frames that leave when a frame enters, in the order of the ports.
    std::vector<Sent> Receive(uint32_t from, const Bytes &bytes, uint32_t segmentSize)
    {
        sent.clear();
        mirrored = {};
        frame = Parse(bytes, segmentSize);
        sender = origin = from;
        const auto plugged = ports.find(from);
        if (plugged == ports.end() || plugged->second.ifindex == 0) return {};
        Count(from, LIVE_FROM_PACKETS, LIVE_FROM_BYTES, bytes.size(), LIVE_FROM_MULTICAST);
        const std::optional<LiveCounter> dropped = Handle();
        if (dropped) counters[from][*dropped]++;
        for (const MirrorSession &session : vswitch.mirrors)
            if (session.isEnabled) Mirror(session);
        std::sort(sent.begin(), sent.end());
        return sent;
    }

    void Configure(const PortConfig &port) { Configure(vswitch, {port}); }

    // The switch with its new policies and some of its ports with theirs.
    void Configure(const SwitchConfig config, const std::vector<PortConfig> &changed)
    {
        const std::map<uint32_t, PortConfig> oldPorts = ports;
        const std::vector<uint32_t> oldUplinks = UplinkNumbers();
        const std::vector<PrivateVlan> oldMap = std::exchange(vswitch, config).privateVlans;
        for (const PortConfig &port : changed)
            ports[port.number] = port;
        const auto isGone = [&](const auto &row) {
            return std::none_of(vswitch.mirrors.begin(), vswitch.mirrors.end(),
                                [&](const MirrorSession &session) { return session.id == row.first; });
        };
        std::erase_if(mirrorCounters, isGone);
        std::erase_if(mirrorsSeen, isGone);
        for (const auto &[number, old] : oldPorts) {
            const PortConfig &port = ports[number];
            const bool moves = port.trunk
                                   ? oldMap != config.privateVlans
                                   : PlaceIn(oldMap, old.vlanId).primary != PlaceOf(port.vlanId).primary;
            if (moves || Relearns(old, port)) Forget(number);
            if (!port.addressLock || port.ifindex != old.ifindex) locked.erase(number);
            if (oldUplinks != UplinkNumbers() || old.team != port.team) leftUplinks.erase(number);
        }
    }

    // As it is when the configuration of the port is published.
    void ChooseNetworkUplink(uint32_t number)
    {
        const PortConfig &port = ports.at(number);
        const Team team = TeamOf(port);
        const auto works = [&](uint32_t uplink) { return Works(ports.at(uplink), port); };
        const auto stays = [&](uint32_t uplink) {
            return works(uplink) && (team.failBack || !leftUplinks[number].contains(uplink));
        };
        const std::vector<uint32_t> members =
            MembersInOrder(team, team.algorithm == VSWITCH_TEAMING_PORT ? number : 0);
        const std::vector<uint32_t> others = Members(UplinkNumbers(), members);
        networkUplinks.erase(number);
        if (team.algorithm == VSWITCH_TEAMING_IP || team.algorithm == VSWITCH_TEAMING_L4) return;
        if (team.anyUplink) Choose(number, others, works);
        Choose(number, members, works);
        Choose(number, members, stays);
    }

    void ChooseNetworkUplinks()
    {
        for (const auto &[number, port] : ports)
            ChooseNetworkUplink(number);
    }

    // A VLAN's place in private VLANs.
    struct Place {
        uint16_t id;
        uint16_t primary;
        PrivateVlanType type;
    };

    static Place PlaceIn(const std::vector<PrivateVlan> &map, uint16_t id)
    {
        for (const PrivateVlan &entry : map)
            if (entry.secondary == id) return {id, entry.primary, entry.type};
        return {id, id, PrivateVlanType::PROMISCUOUS};
    }

    Place PlaceOf(uint16_t id) const { return PlaceIn(vswitch.privateVlans, id); }

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
        for (const auto &[number, port] : ports)
            if (port.team && !port.team->failBack) ChooseNetworkUplink(number);
    }

    bool NeedsSweep() const
    {
        return std::any_of(table.begin(), table.end(),
                           [](const auto &row) { return row.second.isForgotten; });
    }

    uint64_t LearnedBy(std::optional<uint32_t> port) const
    {
        return static_cast<uint64_t>(std::count_if(table.begin(), table.end(), [&](const auto &row) {
            return (!row.second.isStatic || row.second.isKept) && (!port || row.second.port == *port);
        }));
    }

private:
    void Choose(uint32_t number, const std::vector<uint32_t> &uplinks,
                const std::function<bool(uint32_t)> &fits)
    {
        const auto found = std::find_if(uplinks.begin(), uplinks.end(), fits);
        if (found != uplinks.end()) networkUplinks[number] = *found;
    }

    struct Tag {
        uint16_t type;
        uint16_t tci;
    };

    struct Frame {
        Mac destination, source;
        std::optional<Tag> tag, payloadTag;
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
               a.trunk != b.trunk || (a.trunk && a.ranges != b.ranges);
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

    bool Carries(const PortConfig &port) const
    {
        if (port.trunk) return TrunkCarries(port, place.id);
        const Place other = PlaceOf(port.vlanId);
        if (other.primary != place.primary) return false;
        return place.type == PrivateVlanType::PROMISCUOUS || other.type == PrivateVlanType::PROMISCUOUS ||
               (place.type == PrivateVlanType::COMMUNITY && place.id == other.id);
    }

    static bool IsNested(const PortConfig &port)
    {
        return port.nested && !port.trunk && port.vlanId >= 1 && port.vlanId <= 4094;
    }

    // Whether the frame may enter, and which VLAN and tag it has from then on.
    bool Enters()
    {
        const PortConfig &port = Sender();
        const uint32_t id = frame.tag ? frame.tag->tci & 0xfff : 0;
        const bool isService = frame.tag && frame.tag->type == 0x88a8;
        if (IsNested(port)) {
            frame.payloadTag = std::exchange(frame.tag, {});
        } else {
            if (id == 0 && (frame.EtherType() == 0x8100 || frame.EtherType() == 0x88a8)) return false;
            if (isService && (!port.uplink || !port.trunk || id == 0)) return false;
            if (port.trunk ? !TrunkCarries(port, id) : id != 0 || port.vlanId > 4094) return false;
        }

        place = PlaceOf(static_cast<uint16_t>(port.trunk ? id : port.vlanId));
        vlan = place.primary;
        if (port.trunk)
            leavesWith = frame.tag;
        else if (place.id != 0)
            leavesWith = Tag{static_cast<uint16_t>(IsNested(port) ? 0x88a8 : 0x8100), place.id};
        else
            leavesWith.reset();
        if (leavesWith && port.priority <= 7)
            leavesWith->tci = static_cast<uint16_t>((leavesWith->tci & 0x1fff) | port.priority << 13);
        return true;
    }

    // ---- What may pass ----

    bool PassesFilter(const PortConfig &port, VSwitchFilterDirection direction) const
    {
        size_t at = 0;
        while (at + 6 <= frame.rest.size() && at < 12 && IsVlan(frame.rest, at))
            at += 4;
        const auto type = static_cast<uint16_t>(frame.rest[at] << 8 | frame.rest[at + 1]);
        for (const FilterRule &rule : port.filter) {
            if (rule.etherType != 0 && rule.etherType != type) continue;
            if (rule.direction == VSWITCH_FILTER_BOTH || rule.direction == direction)
                return rule.action == VSWITCH_FILTER_PASS;
        }
        return true;
    }

    // Counts the frame that it keeps from a port.
    bool IsFiltered(const PortConfig &port)
    {
        if (PassesFilter(port, VSWITCH_FILTER_TO_PORT)) return false;
        counters[port.number][LIVE_DROP_FILTER]++;
        return true;
    }

    static bool IsVlan(const Bytes &bytes, size_t at)
    {
        return (bytes[at] == 0x81 && bytes[at + 1] == 0) || (bytes[at] == 0x88 && bytes[at + 1] == 0xa8);
    }

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
        if (!PassesFilter(Sender(), VSWITCH_FILTER_FROM_PORT)) return LIVE_DROP_FILTER;
        if (IsTooLong()) return LIVE_DROP_LENGTH;
        if (const auto dropped = Sender().uplink ? LearnFromNetwork() : LearnFromPort()) return dropped;
        mirrored.isSent = true;
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
        if (!port.uplink && port.learning && !port.forwardsOverLimit) return LIVE_DROP_LEARNING_LIMIT;
        if (!port.uplink) unlisted[{vlan, frame.source}] = now;
        return {};
    }

    std::optional<LiveCounter> Add()
    {
        if (!HasRoom()) return Refuse();
        table[{vlan, frame.source}] = NewEntry();
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

    Entry NewEntry() const
    {
        const bool isKept = Sender().learning && !Sender().uplink && vswitch.learnsStatic;
        return {.port = sender, .isStatic = isKept, .lastSeen = now, .isKept = isKept};
    }

    bool IsLockedOut()
    {
        return Sender().addressLock && locked.try_emplace(sender, frame.source).first->second != frame.source;
    }

    std::optional<LiveCounter> LearnFromPort()
    {
        Entry *entry = Find(frame.source);
        const bool isHere = entry && entry->port == sender;
        if (Sender().staticOnly && !(isHere && entry->isStatic)) return LIVE_DROP_SECURITY;
        if (IsLockedOut()) return LIVE_DROP_SECURITY;
        if (isHere) {
            if (!entry->isStatic) *entry = NewEntry();
            entry->lastSeen = now;
            return {};
        }
        if (entry && entry->isStatic) return {};
        if (!host.learningEnabled) {
            unlisted[{vlan, frame.source}] = now;
            return {};
        }
        if (!Sender().learning) ForgetOtherAddress();
        if (!entry) return Add();
        if (!HasRoomAtPort()) return Refuse();
        *entry = NewEntry();
        counters[sender][LIVE_MOVED]++;
        return {};
    }

    bool IsRecent(uint64_t then) const { return then && now - then < 1000000000; }

    std::optional<LiveCounter> DropReflected()
    {
        counters[sender][LIVE_REFLECTED]++;
        return LIVE_DROP_FILTER;
    }

    std::optional<LiveCounter> LearnFromNetwork()
    {
        Entry *entry = Find(frame.source);
        if (!entry && IsRecent(unlisted[{vlan, frame.source}])) return DropReflected();
        if (!entry) return host.learningEnabled ? Add() : std::nullopt;
        if (ports.at(entry->port).uplink) {
            if (host.learningEnabled) entry->lastSeen = now;
            return {};
        }
        if (IsRecent(entry->lastSeen)) return DropReflected();
        if (entry->isStatic || !host.learningEnabled) {
            origin = entry->port;
            return {};
        }
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
        Bytes bytes = Addresses();
        if (port.trunk) Append(bytes, leavesWith);
        Append(bytes, frame.payloadTag);
        bytes.insert(bytes.end(), frame.rest.begin(), frame.rest.end());
        mirrored.receivers.insert(port.number);
        sent.push_back(MakeSent(port.ifindex, bytes));
        Count(port.number, LIVE_TO_PACKETS, LIVE_TO_BYTES, bytes.size(), LIVE_TO_MULTICAST);
        return 0;
    }

    Bytes Addresses() const
    {
        Bytes bytes(frame.destination.begin(), frame.destination.end());
        bytes.insert(bytes.end(), frame.source.begin(), frame.source.end());
        return bytes;
    }

    static void Append(Bytes &bytes, const std::optional<Tag> &tag)
    {
        if (!tag) return;
        for (int byte : {tag->type >> 8, tag->type & 255, tag->tci >> 8, tag->tci & 255})
            bytes.push_back(static_cast<uint8_t>(byte));
    }

    bool Reaches(const PortConfig &port) const
    {
        return port.number != origin && port.ifindex != 0 && !port.blocked && Carries(port);
    }

    static bool Works(const PortConfig &uplink, const PortConfig &port)
    {
        if (!uplink.uplinkActive || uplink.blocked || uplink.ifindex == 0) return false;
        if (port.trunk) return true;
        return uplink.trunk ? port.vlanId == 0 || TrunkCarries(uplink, port.vlanId)
                            : uplink.vlanId == port.vlanId;
    }

    // Whether a flood of the network comes to the port by another uplink.
    bool ComesByAnother(const PortConfig &port) const
    {
        const auto wanted = networkUplinks.find(port.number);
        if (!Sender().uplink || now >= servedUntil || wanted == networkUplinks.end()) return false;
        const PortConfig &uplink = ports.at(wanted->second);
        const bool sendsByMany = TeamOf(port).algorithm == VSWITCH_TEAMING_SOURCE_MAC;
        const bool takesAll = sendsByMany ? !frame.IsBroadcast() : port.getsAllFrames && !frame.IsGroup();
        if (uplink.number == sender || takesAll) return false;
        return !uplink.blocked && uplink.ifindex != 0 && Carries(uplink);
    }

    // Sends copies to the local ports that want one. Returns their number.
    uint32_t SendToPorts(const std::function<bool(const PortConfig &)> &wants)
    {
        uint32_t copies = 0;
        for (const auto &[number, port] : ports) {
            if (port.uplink || !Reaches(port) || !wants(port) || IsFiltered(port)) continue;
            if (Send(port) == 0)
                copies++;
            else
                counters[number][LIVE_DROP_NOT_SENT]++;
        }
        return copies;
    }

    // ---- Mirror sessions ----

    static bool Contains(const std::vector<uint32_t> &numbers, uint32_t number)
    {
        return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
    }

    Bytes CopyFor(const MirrorSession &session, size_t snapLength)
    {
        const size_t tagLength = frame.payloadTag ? 4 : 0;
        Bytes bytes = Addresses(), rest;
        if (session.outerVlan) Append(bytes, Tag{0x8100, session.outerVlan});
        if (!session.stripsTag) Append(bytes, leavesWith);
        Append(rest, frame.payloadTag);
        rest.insert(rest.end(), frame.rest.begin(), frame.rest.end());
        if (12 + tagLength + frame.rest.size() > snapLength) {
            rest.resize(snapLength - 12);
            mirrorCounters[session.id].values[LIVE_MIRROR_TRUNCATED]++;
        }
        bytes.insert(bytes.end(), rest.begin(), rest.end());
        return bytes;
    }

    // Counts a frame of a source port; whether it is copied.
    bool IsChosen(const MirrorSession &session, bool isFrom, bool isTo)
    {
        const size_t length = 12 + frame.rest.size() + (leavesWith ? 4 : 0) + (frame.payloadTag ? 4 : 0);
        auto &values = mirrorCounters[session.id].values;
        values[LIVE_MIRROR_FROM_PACKETS] += isFrom;
        values[LIVE_MIRROR_FROM_BYTES] += isFrom * length;
        values[LIVE_MIRROR_TO_PACKETS] += isTo;
        values[LIVE_MIRROR_TO_BYTES] += isTo * length;
        return session.sampling <= 1 || ++mirrorsSeen[session.id] % session.sampling == 0;
    }

    void Mirror(const MirrorSession &session)
    {
        const auto got = [&](uint32_t number) {
            return Contains(session.to, number) && mirrored.receivers.contains(number);
        };
        const auto gotAsSource = [&](uint32_t number) {
            return got(number) && Contains(session.destinations, number);
        };
        const bool isFrom = mirrored.isSent && Contains(session.from, sender);
        const std::set<uint32_t> receivers = mirrored.receivers;
        const bool isTo = std::any_of(receivers.begin(), receivers.end(), got);
        const bool isOwn = std::any_of(receivers.begin(), receivers.end(), gotAsSource);
        if (!(isFrom || isTo) || !IsChosen(session, isFrom, isTo)) return;
        const Bytes copy =
            CopyFor(session, session.snapLength ? std::max(session.snapLength, 18u) : SIZE_MAX);
        for (uint32_t number : session.destinations)
            if (number != sender && !(isOwn && Contains(session.to, number)))
                SendMirrored(session, number, copy);
    }

    void SendMirrored(const MirrorSession &session, uint32_t number, const Bytes &copy)
    {
        auto &values = mirrorCounters[session.id].values;
        const auto port = ports.find(number);
        if (port == ports.end() || port->second.ifindex == 0) {
            values[LIVE_MIRROR_UNREACHABLE]++;
        } else if (port->second.blocked || (links.contains(number) && links.at(number) != 0)) {
            values[LIVE_MIRROR_DROPPED_PACKETS]++;
            values[LIVE_MIRROR_DROPPED_BYTES] += copy.size();
        } else {
            values[LIVE_MIRROR_SENT_PACKETS]++;
            values[LIVE_MIRROR_SENT_BYTES] += copy.size();
            sent.push_back(MakeSent(port->second.ifindex, copy));
            Count(number, LIVE_TO_PACKETS, LIVE_TO_BYTES, copy.size(), LIVE_TO_MULTICAST);
        }
    }

    // ---- Uplinks ----

    uint32_t WordAt(size_t at) const
    {
        uint32_t word = 0;
        if (at + 6 <= frame.rest.size()) std::memcpy(&word, &frame.rest[at + 2], sizeof(word));
        return word;
    }

    // By which the sender's flows are spread; `at` counts from the IP header.
    uint32_t Hash(VSwitchTeamingAlgorithm algorithm) const
    {
        const bool isIpv4 = frame.EtherType() == 0x0800, isIpv6 = frame.EtherType() == 0x86dd;
        if (algorithm == VSWITCH_TEAMING_PORT) return sender;
        if (algorithm == VSWITCH_TEAMING_ORDER) return 0;
        if (algorithm == VSWITCH_TEAMING_SOURCE_MAC || (!isIpv4 && !isIpv6)) {
            uint16_t high;
            uint32_t low;
            std::memcpy(&high, &frame.source[0], 2);
            std::memcpy(&low, &frame.source[2], 4);
            return LiveMix(high, low);
        }
        uint32_t hash = 0;
        const auto mix = [&](size_t at) {
            if (at + 6 <= frame.rest.size()) hash = LiveMix(hash, WordAt(at));
        };
        for (size_t at = isIpv6 ? 8 : 12; at < (isIpv6 ? 40u : 20u); at += 4)
            mix(at);
        const size_t protocolAt = (isIpv6 ? 6 : 9) + 2;
        const uint8_t protocol = protocolAt < frame.rest.size() ? frame.rest[protocolAt] : 0;
        const bool hasPorts = protocol == 6 || protocol == 17;
        const bool isFragment = isIpv4 && ((frame.rest[8] & 0x3f) || frame.rest[9]);
        if (algorithm == VSWITCH_TEAMING_L4 && hasPorts && !isFragment)
            mix(isIpv6 ? 40 : frame.rest[2] % 16 * 4);
        return hash;
    }

    std::vector<uint32_t> UplinkNumbers() const
    {
        std::vector<uint32_t> numbers;
        for (const auto &[number, port] : ports)
            if (port.uplink) numbers.push_back(number);
        return numbers;
    }

    // Those of the numbers that are uplinks, each once and none of the others'.
    std::vector<uint32_t> Members(const std::vector<uint32_t> &numbers,
                                  const std::vector<uint32_t> &others) const
    {
        std::vector<uint32_t> members;
        for (uint32_t number : numbers)
            if (Contains(UplinkNumbers(), number) && !Contains(members, number) && !Contains(others, number))
                members.push_back(number);
        return members;
    }

    Team TeamOf(const PortConfig &port) const
    {
        Team team;
        team.active = UplinkNumbers();
        return port.team ? *port.team : team;
    }

    std::vector<uint32_t> MembersInOrder(const Team &team, uint32_t hash) const
    {
        std::vector<uint32_t> members = Members(team.active, {});
        if (!members.empty())
            std::rotate(members.begin(), members.begin() + static_cast<ptrdiff_t>(hash % members.size()),
                        members.end());
        const std::vector<uint32_t> standby = Members(team.standby, members);
        members.insert(members.end(), standby.begin(), standby.end());
        return members;
    }

    bool SendToUplink()
    {
        const Team team = TeamOf(Sender());
        const std::vector<uint32_t> members = MembersInOrder(team, Hash(team.algorithm));
        UplinkTries tries;
        const auto isLeft = [&](uint32_t number) {
            return !team.failBack && leftUplinks[sender].contains(number);
        };
        const auto isKnown = [&](uint32_t number) { return ports.at(number).uplinkActive; };
        const auto works = [&](uint32_t number) { return isKnown(number) && !isLeft(number); };
        const auto wasLeft = [&](uint32_t number) { return isKnown(number) && isLeft(number); };
        const auto isUnknown = [&](uint32_t number) { return !isKnown(number); };
        if (TryUplinks(members, works, tries) || TryUplinks(members, wasLeft, tries) ||
            TryUplinks(members, isUnknown, tries))
            return true;
        if (!team.anyUplink) return false;
        const std::vector<uint32_t> others = Members(UplinkNumbers(), members);
        return TryUplinks(others, isKnown, tries) || TryUplinks(others, isUnknown, tries);
    }

    struct UplinkTries {
        bool queueWasFull = false; // the frame avoids the port, whose place stays the same
        std::set<uint32_t> passed; // uplinks that don't work
    };

    // Tries those that are wanted, in their order, until one takes the frame.
    bool TryUplinks(const std::vector<uint32_t> &numbers, const std::function<bool(uint32_t)> &wants,
                    UplinkTries &tries)
    {
        for (uint32_t number : numbers) {
            const PortConfig &uplink = ports.at(number);
            if (!Reaches(uplink)) continue;
            if (!uplink.uplinkActive) tries.passed.insert(number);
            if (!wants(number) || IsFiltered(uplink)) continue;
            const int result = Send(uplink);
            if (result == 1)
                tries.queueWasFull = true;
            else if (result != 0)
                tries.passed.insert(number);
            if (result != 0) continue;
            if (!tries.queueWasFull) NoteUplink(number, tries.passed);
            return true;
        }
        return false;
    }

    void NoteUplink(uint32_t number, std::set<uint32_t> passed)
    {
        std::set<uint32_t> &left = leftUplinks[sender];
        passed.erase(number);
        const bool leaves = !std::includes(left.begin(), left.end(), passed.begin(), passed.end());
        const bool returns = left.erase(number) != 0;
        left.insert(passed.begin(), passed.end());
        if (leaves)
            counters[number][LIVE_FAILOVERS]++;
        else if (returns)
            counters[number][LIVE_FAILBACKS]++;
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
            mirrored.isSent = flood.second++ < host.floodLimit;
            if (!mirrored.isSent) return LIVE_DROP_FLOOD_LIMIT;
        }
        SendToPorts([&](const PortConfig &port) { return !ComesByAnother(port); });
        if (Sender().uplink || SendToUplink() || !HasUplinks()) return {};
        return LIVE_DROP_NOT_SENT;
    }

    std::optional<LiveCounter> Deliver()
    {
        const Entry *entry = Find(frame.destination);
        if (entry && entry->isForgotten) entry = nullptr;
        const auto observes = [&](const PortConfig &port) {
            return port.getsAllFrames && !(entry && port.number == entry->port);
        };
        if (entry && entry->port == sender) {
            SendToPorts(observes);
            return {};
        }
        if (entry && !ports.at(entry->port).uplink) {
            const PortConfig &port = ports.at(entry->port);
            if (Carries(port) && port.ifindex != 0) {
                SendToPorts(observes);
                if (port.number == origin) return {};
                if (port.blocked)
                    counters[port.number][LIVE_DROP_BLOCKED]++;
                else if (!IsFiltered(port))
                    SendItself(port);
                return {};
            }
        }
        const bool isOnNetwork = entry && ports.at(entry->port).uplink;
        const uint32_t copies = SendToPorts([&](const PortConfig &port) {
            return port.getsAllFrames ||
                   (!isOnNetwork && (port.takesUnknown || port.sink) && !ComesByAnother(port));
        });
        if (Sender().uplink || SendToUplink()) return {};
        if (HasUplinks() || copies == 0) return LIVE_DROP_NOT_SENT;
        return {};
    }

    // The frame itself, of which the failure is not reported, or a copy, if it is mirrored too.
    void SendItself(const PortConfig &port)
    {
        const bool isMirrored = IsMirrored(port.number);
        if (Send(port) == 0) return;
        if (isMirrored)
            counters[port.number][LIVE_DROP_NOT_SENT]++;
        else
            Count(port.number, LIVE_TO_PACKETS, LIVE_TO_BYTES, LengthAt(port), LIVE_TO_MULTICAST);
    }

    bool IsMirrored(uint32_t receiver) const
    {
        return std::any_of(vswitch.mirrors.begin(), vswitch.mirrors.end(), [&](const MirrorSession &session) {
            const auto &got = mirrored.receivers;
            return session.isEnabled && (Contains(session.from, sender) || Contains(session.from, receiver) ||
                                         Contains(session.to, receiver) ||
                                         std::any_of(got.begin(), got.end(), [&](uint32_t number) {
                                             return Contains(session.to, number);
                                         }));
        });
    }

    size_t LengthAt(const PortConfig &port) const
    {
        return 12 + frame.rest.size() + (port.trunk && leavesWith ? 4 : 0) + (frame.payloadTag ? 4 : 0);
    }

    struct Mirrored {
        bool isSent = false;          // its sender's policies let it pass
        std::set<uint32_t> receivers; // that got it, copies left out
    };

    Frame frame;
    Mirrored mirrored;
    std::map<std::string, uint64_t> mirrorsSeen;
    uint32_t sender = 0;
    uint32_t origin = 0; // the port that has the source address, or the sender
    Place place = {};
    uint16_t vlan = 0; // the primary one
    std::optional<Tag> leavesWith;
    std::vector<Sent> sent;
    std::map<uint32_t, std::optional<std::pair<uint16_t, Mac>>> lastAddress;
    std::map<uint32_t, Mac> locked; // the address of a port with the lock
    std::map<uint32_t, std::set<uint32_t>> leftUplinks;
    std::map<uint32_t, uint32_t> networkUplinks;           // by which ports get the network's floods
    std::map<std::pair<uint16_t, Mac>, uint64_t> unlisted; // when ports sent from addresses not in the table
    std::map<uint32_t, std::pair<uint64_t, uint32_t>> floods; // the second and how many
};

}
