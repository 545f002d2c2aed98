#include "platform/live/announcer.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/live/daemon.h"

namespace live {
namespace {

using namespace vshost;

constexpr unsigned SENT_AT_ONCE = 64; // frames of a turn, so that neither packets nor requests wait for them
constexpr uint32_t NO_UPLINK = UINT32_MAX;

// As the data path does for a frame that is not of IP.
uint32_t HashOf(VSwitchTeamingAlgorithm algorithm, uint32_t portNumber, const uint8_t mac[6])
{
    if (algorithm == VSWITCH_TEAMING_ORDER) return 0;
    if (algorithm == VSWITCH_TEAMING_PORT) return portNumber;
    uint16_t high;
    uint32_t low;
    std::memcpy(&high, mac, sizeof(high));
    std::memcpy(&low, mac + sizeof(high), sizeof(low));
    return LiveMix(high, low);
}

bool IsTold(const PortConfig &port) { return !port.uplink && port.team && port.team->notify; }

}

std::vector<uint32_t> Announcer::Way::InOrder(uint32_t portNumber, const uint8_t mac[6]) const
{
    return UplinksInOrder(team, uplinks, HashOf(team.algorithm, portNumber, mac));
}

uint32_t Announcer::Way::PlaceOf(uint32_t uplink) const
{
    return static_cast<uint32_t>(std::find(uplinks.begin(), uplinks.end(), uplink) - uplinks.begin());
}

uint32_t Announcer::Way::UplinkOf(uint32_t portNumber, const uint8_t mac[6]) const
{
    for (uint32_t uplink : InOrder(portNumber, mac))
        if (Works(uplink)) return uplink;
    return NO_UPLINK;
}

void Announcer::Look(const std::map<std::string, SwitchConfig> &switches)
{
    std::set<uint32_t> present;
    Moves moves;
    for (const auto &[switchId, config] : switches)
        if (std::any_of(config.ports.begin(), config.ports.end(), IsTold)) LookAt(config, present, moves);
    std::erase_if(ways, [&](const auto &entry) {
        uint32_t slot = 0;
        if (present.contains(entry.first)) return false;
        if (path.SlotOfPort(entry.first, slot) == STATUS_OK)
            WriteWord(path.Kernel().ports[slot].toldUplinks, 0);
        return true;
    });
    if (!moves.empty()) Collect(moves);
    if (waiting.empty()) Keep();
}

void Announcer::LookAt(const SwitchConfig &config, std::set<uint32_t> &present, Moves &moves)
{
    Way way;
    for (const PortConfig &port : config.ports)
        if (port.uplink) way.uplinks.push_back(port.number);
    std::sort(way.uplinks.begin(), way.uplinks.end());
    for (const PortConfig &port : config.ports)
        if (port.uplink && port.uplinkActive && port.ifindex != 0 && !port.blocked)
            way.working |= 1u << way.PlaceOf(port.number);
    for (const PortConfig &port : config.ports) {
        if (!IsTold(port)) continue;
        present.insert(port.number);
        way.team = *port.team;
        LookAt(port, way, moves);
    }
}

void Announcer::LookAt(const PortConfig &port, Way now, Moves &moves)
{
    constexpr uint8_t ANY_ADDRESS[6] = {};
    uint32_t slot = 0;
    if (path.SlotOfPort(port.number, slot)) return;
    LivePort &words = path.Kernel().ports[slot];
    // A port that doesn't come back avoids what it has left while another member of its team works.
    Way staying = now;
    staying.team.anyUplink = false;
    staying.working &= ~ReadWord(words.leftUplinks);
    if (!now.team.failBack && staying.UplinkOf(port.number, ANY_ADDRESS) != NO_UPLINK)
        now.working = staying.working;
    if (now.UplinkOf(port.number, ANY_ADDRESS) == NO_UPLINK) return; // nothing can be told

    const auto [known, isNew] = ways.try_emplace(port.number, now);
    const uint32_t told = ReadWord(words.toldUplinks);
    if (isNew && told != 0) known->second.working = told;
    if (known->second == now) return;
    moves[slot] = {port.number, known->second, now};
    known->second = now;
}

void Announcer::Collect(const Moves &moves)
{
    const size_t before = waiting.size();
    path.Tables().WalkAddresses([&](const LiveAddressKey &key, const LiveAddress &value) {
        const Owner owner(value);
        const auto move = moves.find(owner.slot);
        if (move == moves.end()) return;
        if (!owner.isStatic && !owner.IsCurrent(path.Kernel().ports[owner.slot])) return;
        const auto &[portNumber, old, now] = move->second;
        if (old.UplinkOf(portNumber, key.mac) == now.UplinkOf(portNumber, key.mac)) return;
        Address address = {.portNumber = portNumber, .address = {.vlan = key.vlan, .mac = {}}};
        std::memcpy(address.address.mac, key.mac, sizeof(key.mac));
        waiting.insert(address);
    });
    if (waiting.size() != before)
        Say("addresses of ports that came to another uplink are announced: %zu", waiting.size() - before);
}

void Announcer::Send()
{
    if (waiting.empty()) return;
    for (unsigned i = 0; i < SENT_AT_ONCE && !waiting.empty(); i++)
        SendOne(waiting.extract(waiting.begin()).value());
    if (waiting.empty()) Keep();
}

// The uplinks are tried as the data path tries them for a frame of the port.
void Announcer::SendOne(const Address &address)
{
    Announcement announcement = {.address = address.address};
    const auto way = ways.find(address.portNumber);
    if (way == ways.end() || path.SlotOfPort(address.portNumber, announcement.slot)) return;
    for (uint32_t uplink : way->second.InOrder(address.portNumber, address.address.mac)) {
        announcement.place = way->second.PlaceOf(uplink);
        int result = LIVE_NOT_SENT;
        if (way->second.Works(uplink) && path.SlotOfPort(uplink, announcement.uplinkSlot) == STATUS_OK)
            result = path.Kernel().Announce(announcement);
        if (result == LIVE_NOT_FOUND) return;
        if (result == LIVE_DONE) return path.CountAnnouncement(address.portNumber, true);
        if (result == LIVE_NOT_SENT) announcement.passed |= 1u << announcement.place;
    }
    path.CountAnnouncement(address.portNumber, false);
}

// For the next process.
void Announcer::Keep()
{
    for (const auto &[portNumber, way] : ways) {
        uint32_t slot = 0;
        if (path.SlotOfPort(portNumber, slot) == STATUS_OK)
            WriteWord(path.Kernel().ports[slot].toldUplinks, way.working);
    }
}

}
