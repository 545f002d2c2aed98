#include "platform/live/comparison.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <set>

#include "platform/host/runtime.h"
#include "platform/live/filter.h"
#include "platform/live/kernel_tables.h"
#include "platform/live/plugged.h"
#include "platform/live/settings.h"

namespace live {
namespace {

using namespace vshost;

Descriptor OpenPin(const std::string &pins, const char *map)
{
    return Descriptor(bpf_obj_get((pins + "/" + map).c_str()));
}

uint32_t EntriesOf(int map)
{
    bpf_map_info info = {};
    uint32_t size = sizeof(info);
    return bpf_obj_get_info_by_fd(map, &info, &size) == 0 ? info.max_entries : 0;
}

// The maps of the host, by their pins.
struct Maps {
    bool Open(const std::string &pins)
    {
        interfaces = OpenPin(pins, "interfaces");
        addresses = OpenPin(pins, "addresses");
        snapshots = OpenPin(pins, "snapshots");
        const Descriptor mirrorMap = OpenPin(pins, "mirrors");
        const Descriptor portMap = OpenPin(pins, "ports"), switchMap = OpenPin(pins, "switches"),
                         hostMap = OpenPin(pins, "host");
        return interfaces && addresses && snapshots && mirrorMap && portMap && switchMap && hostMap &&
               ports.Map(portMap.Get(), EntriesOf(portMap.Get())) &&
               switches.Map(switchMap.Get(), EntriesOf(switchMap.Get())) && host.Map(hostMap.Get(), 1) &&
               mirrors.Map(mirrorMap.Get(), EntriesOf(mirrorMap.Get()));
    }

    Descriptor interfaces, addresses, snapshots;
    SharedArray<LivePort> ports;
    SharedArray<LiveSwitch> switches;
    SharedArray<LiveHost> host;
    SharedArray<LiveMirrorSlot> mirrors;
};

std::string UpOrDown(bool up) { return up ? "up" : "down"; }

class Comparison {
public:
    Comparison(Engine &engine, std::vector<std::string> &differences)
        : engine(engine), differences(differences)
    {}

    bool Run(const std::string &bpffs, std::string &message);

private:
    void Differ(const std::string &subject, const std::string &text)
    {
        differences.push_back(subject + ": " + text);
    }
    // A word, or a number of an interface.
    void Compare(const std::string &subject, const std::string &what, uint32_t kernel, uint32_t store);

    bool ReadStore(std::string &message);
    void CompareFilters();
    void CompareSettings(const std::string &interface, const Plug &plug);
    void CompareNic(const Link &link);
    bool IsAtPort(uint32_t ifindex) const;
    void CompareHost();
    void CompareSwitches();
    void CompareSwitch(const SwitchConfig &config);
    void ComparePort(const SwitchConfig &config, const PlacedPort &placed, uint32_t switchIndex);
    std::vector<PlacedMirror> CompareMirrors(const SwitchConfig &config, uint32_t switchIndex);
    void CompareSnapshot(const PlacedSwitch &vswitch, uint32_t switchIndex);
    void CompareInterfaces();
    void CompareStaticAddresses();
    std::string NameOfInterface(uint32_t ifindex) const;

    Engine &engine;
    std::vector<std::string> &differences;
    std::string pins;
    Maps maps;
    Links links;
    Plugs plugs;
    HostConfig hostConfig;
    std::vector<SwitchConfig> configs;           // of the switches that run
    std::set<uint32_t> slots;                    // that the switches have
    std::map<uint32_t, uint32_t> interfaceSlots; // ifindex -> slot
    std::map<std::pair<uint32_t, StaticAddress>, std::set<uint32_t>> staticAddresses; // -> slots that want it
};

void Comparison::Compare(const std::string &subject, const std::string &what, uint32_t kernel, uint32_t store)
{
    if (kernel != store)
        Differ(subject, what + " is " + std::to_string(kernel) + ", the store says " + std::to_string(store));
}

std::string Comparison::NameOfInterface(uint32_t ifindex) const
{
    const auto link = links.All().find(ifindex);
    return link != links.All().end() ? link->second.name : std::to_string(ifindex) + ", which is gone";
}

bool Comparison::ReadStore(std::string &message)
{
    message = "the host's database can't be read";
    if (live::ReadPlugs(engine, plugs) || ReadHostConfig(engine, hostConfig)) return false;
    for (const auto &[switchId, ports] : ReadWanted(engine, plugs, links)) {
        SwitchConfig config;
        const VsStatus status = ReadSwitchConfig(engine, switchId, ports, config);
        if (status == STATUS_NOT_FOUND) continue; // it doesn't run
        if (status) return false;
        configs.push_back(std::move(config));
    }
    return true;
}

bool Comparison::Run(const std::string &bpffs, std::string &message)
{
    pins = PinsOf(bpffs, HOST_IDENTITY);
    if (!links.Open(message) || !ReadStore(message)) return false;
    if (!maps.Open(pins)) {
        message = std::string("the host has no data path in the kernel: ") + strerror(errno) +
                  "; start it with `vshostd --state DIR`";
        return false;
    }
    for (const auto &[interface, plug] : plugs)
        CompareSettings(interface, plug);
    CompareFilters();
    CompareHost();
    CompareSwitches();
    CompareInterfaces();
    CompareStaticAddresses();
    return true;
}

// ---- Interfaces ----

void Comparison::CompareSettings(const std::string &interface, const Plug &plug)
{
    const Link *link = links.Find(interface);
    if (!link) return; // it is waited for
    const std::string on = NamesOfSettings(FindSettings(links, *link, plug));
    if (!on.empty() && IsAtPort(link->ifindex)) Differ("interface " + interface, "on, but to be off: " + on);
    if (plug.IsNic()) return CompareNic(*link);
    for (const SwitchConfig &config : configs)
        for (const PortConfig &port : config.ports)
            if (port.ifindex == link->ifindex)
                Compare("interface " + interface, "the MTU", link->mtu, config.mtu);
}

bool Comparison::IsAtPort(uint32_t ifindex) const
{
    const auto isIt = [&](const PortConfig &port) { return port.ifindex == ifindex; };
    return std::any_of(configs.begin(), configs.end(), [&](const SwitchConfig &config) {
        return std::any_of(config.ports.begin(), config.ports.end(), isIt);
    });
}

void Comparison::CompareNic(const Link &link)
{
    Nic nic;
    const std::string subject = "interface " + link.name;
    if (GetRecord(engine, runtime::NicKey(link.name), nic))
        return Differ(subject, "the store has no NIC of this name");
    if (link.adminUp != (nic.adminUp != 0))
        Differ(subject, "it is " + UpOrDown(link.adminUp) + ", the store says " + UpOrDown(nic.adminUp));
    if (link.carrier != (nic.link != 0))
        Differ(subject, "its link is " + UpOrDown(link.carrier) + ", the store says " + UpOrDown(nic.link));
    Compare(subject, "the MTU", link.mtu, nic.mtu);
    if (!nic.portId[0]) return;
    if (!link.promiscuous) Differ(subject, "it takes only frames to its own address");
}

void Comparison::CompareFilters()
{
    const std::set<uint32_t> programs = ProgramsOf(pins);
    std::set<uint32_t> wanted;
    for (const auto &[switchId, ports] : ReadWanted(engine, plugs, links))
        for (const auto &[portId, plugged] : ports)
            wanted.insert(plugged.ifindex);
    for (const auto &[ifindex, link] : links.All()) {
        uint32_t program = 0;
        const bool hasFilter = QueryFilter(ifindex, program) == 0;
        const bool hasOurs = hasFilter && programs.contains(program);
        if (wanted.contains(ifindex) && !hasOurs)
            Differ("interface " + link.name, hasFilter ? "it has the filter of another program"
                                                       : "it has no filter, its frames aren't forwarded");
        if (!wanted.contains(ifindex) && hasOurs)
            Differ("interface " + link.name, "it has a filter of this host and belongs to no port");
    }
}

void Comparison::CompareInterfaces()
{
    uint32_t key = 0, next = 0, slot = 0;
    for (int found = bpf_map_get_next_key(maps.interfaces.Get(), nullptr, &next); found == 0;
         found = bpf_map_get_next_key(maps.interfaces.Get(), &key, &next)) {
        key = next;
        if (bpf_map_lookup_elem(maps.interfaces.Get(), &key, &slot) != 0) continue;
        const auto wanted = interfaceSlots.find(key);
        const std::string subject = "interface " + NameOfInterface(key);
        if (wanted == interfaceSlots.end())
            Differ(subject, "the kernel has it at a port, the store at none");
        else if (wanted->second != slot)
            Differ(subject, "the kernel has it at another port than the store");
        if (wanted != interfaceSlots.end()) interfaceSlots.erase(wanted);
    }
    for (const auto &[ifindex, missing] : interfaceSlots)
        Differ("interface " + NameOfInterface(ifindex), "the kernel doesn't know its port");
}

// ---- Static addresses ----

std::string NameOf(const StaticAddress &address)
{
    char text[64];
    const uint8_t *mac = address.mac;
    snprintf(text, sizeof(text), "address %02x:%02x:%02x:%02x:%02x:%02x of VLAN %u", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5], address.vlan);
    return text;
}

// An address that several ports want is at one of them.
void Comparison::CompareStaticAddresses()
{
    VisitAddresses(maps.addresses.Get(), [&](const LiveAddressKey &key, const LiveAddress &value) {
        const Owner owner(value);
        StaticAddress address = {.vlan = key.vlan, .mac = {}};
        std::copy(std::begin(key.mac), std::end(key.mac), address.mac);
        const auto wanted = staticAddresses.find({key.switchIndex, address});
        if (!owner.isStatic) return;
        if (wanted == staticAddresses.end())
            return Differ(NameOf(address), "the kernel has it as a static one, the store doesn't");
        if (!wanted->second.contains(owner.slot))
            Differ(NameOf(address), "the kernel has it at another port than the store");
        staticAddresses.erase(wanted);
    });
    for (const auto &[missing, ports] : staticAddresses)
        Differ(NameOf(missing.second), "the kernel doesn't have this static address");
}

// ---- Words and snapshots ----

void Comparison::CompareHost()
{
    LiveHost &host = maps.host[0];
    const std::string subject = "the host";
    Compare(subject, "whether ports learn", ReadWord(host.learningEnabled), hostConfig.learningEnabled);
    Compare(subject, "the limit of addresses", ReadWord(host.addressLimit),
            std::min(hostConfig.addressLimit, EntriesOf(maps.addresses.Get()) / 2));
    Compare(subject, "the limit of flooded frames", ReadWord(host.floodLimit), hostConfig.floodLimit);
}

void Comparison::CompareSwitches()
{
    for (const SwitchConfig &config : configs)
        CompareSwitch(config);
    for (uint32_t index = 0; index < maps.switches.Size(); index++) {
        const LiveSwitch &found = maps.switches[index];
        const std::string id(found.id, strnlen(found.id, sizeof(found.id)));
        const auto isIt = [&](const SwitchConfig &config) { return config.id == id; };
        if (found.inUse && std::none_of(configs.begin(), configs.end(), isIt))
            Differ("switch " + id, "the kernel has it, but it doesn't run or has no interface");
    }
    for (uint32_t slot = 0; slot < maps.ports.Size(); slot++)
        if (ReadWord(maps.ports[slot].inUse) && !slots.contains(slot))
            Differ("port number " + std::to_string(maps.ports[slot].number),
                   "the kernel has it, the store has no interface there");
}

void Comparison::CompareSwitch(const SwitchConfig &config)
{
    uint32_t index = 0;
    const std::string subject = "switch " + config.id;
    const auto isIt = [&](LiveSwitch &one) {
        return ReadWord(one.inUse) && config.id == std::string(one.id, strnlen(one.id, sizeof(one.id)));
    };
    while (index < maps.switches.Size() && !isIt(maps.switches[index]))
        index++;
    if (index == maps.switches.Size()) return Differ(subject, "the kernel doesn't have it");

    std::map<uint32_t, PlacedPort> placed; // by number
    for (const PortConfig &port : config.ports)
        placed[port.number] = {.config = port, .slot = UINT32_MAX, .position = 0};
    for (uint32_t slot = 0; slot < maps.ports.Size(); slot++) {
        LivePort &found = maps.ports[slot];
        const auto port = placed.find(found.number);
        if (!ReadWord(found.inUse) || found.switchIndex != index || port == placed.end()) continue;
        port->second.slot = slot;
        port->second.position = found.position;
    }
    std::vector<PlacedPort> ports;
    for (const auto &[number, port] : placed) {
        ComparePort(config, port, index);
        if (port.slot != UINT32_MAX) ports.push_back(port);
    }
    const LiveSwitch wanted = WordsOf(config, ports);
    LiveSwitch &found = maps.switches[index];
    Compare(subject, "the MTU", ReadWord(found.mtu), wanted.mtu);
    Compare(subject, "the limit of addresses", ReadWord(found.addressLimit), wanted.addressLimit);
    Compare(subject, "the ageing time", ReadWord(found.ageingSeconds), wanted.ageingSeconds);
    Compare(subject, "the set of active uplinks", ReadWord(found.activeUplinks), wanted.activeUplinks);
    Compare(subject, "the word of private VLANs", ReadWord(found.hasPrivateVlans), wanted.hasPrivateVlans);
    Compare(subject, "the word of ports that get all frames", ReadWord(found.hasAllFramesPorts),
            wanted.hasAllFramesPorts);
    Compare(subject, "the word of learning static addresses", ReadWord(found.learnsStatic),
            wanted.learnsStatic);
    Compare(subject, "the word of multicast snooping", ReadWord(found.snooping), wanted.snooping);
    const std::vector<PlacedMirror> mirrors = CompareMirrors(config, index);
    CompareSnapshot({config, ports, mirrors}, index);
}

void Comparison::ComparePort(const SwitchConfig &config, const PlacedPort &placed, uint32_t switchIndex)
{
    const std::string subject = "port number " + std::to_string(placed.config.number);
    if (placed.slot == UINT32_MAX) return Differ(subject, "the kernel doesn't have it");
    const LivePort wanted = WordsOf(config, placed, switchIndex);
    LivePort &found = maps.ports[placed.slot];
    slots.insert(placed.slot);
    for (const StaticAddress &address : placed.config.addresses)
        staticAddresses[{switchIndex, address}].insert(placed.slot);
    if (wanted.ifindex) interfaceSlots[wanted.ifindex] = placed.slot;
    Compare(subject, "the interface", ReadWord(found.ifindex), wanted.ifindex);
    Compare(subject, "the word of flags", ReadWord(found.flags), wanted.flags);
    Compare(subject, "the word of its VLAN", ReadWord(found.vlan), wanted.vlan);
    Compare(subject, "the limit of addresses", ReadWord(found.addressLimit), wanted.addressLimit);
}

// The store's sessions at the places that they have in the kernel.
std::vector<PlacedMirror> Comparison::CompareMirrors(const SwitchConfig &config, uint32_t switchIndex)
{
    std::map<std::string, uint32_t> found; // slots
    std::vector<PlacedMirror> placed;
    for (uint32_t slot = 0; slot < maps.mirrors.Size(); slot++) {
        LiveMirrorSlot &mirror = maps.mirrors[slot];
        if (ReadWord(mirror.inUse) && ReadWord(mirror.switchIndex) == switchIndex)
            found[std::string(mirror.id, strnlen(mirror.id, sizeof(mirror.id)))] = slot;
    }
    for (const MirrorSession &session : config.mirrors) {
        const auto slot = found.extract(session.id);
        const std::string subject = "mirror session " + session.id;
        if (!slot) {
            Differ(subject, "the kernel doesn't have it");
            continue;
        }
        LiveMirrorSlot &mirror = maps.mirrors[slot.mapped()];
        Compare(subject, "whether it is enabled", ReadWord(mirror.isEnabled), session.isEnabled);
        placed.push_back({.config = session, .slot = slot.mapped(), .place = mirror.place});
    }
    for (const auto &[id, slot] : found)
        Differ("mirror session " + id, "the kernel has it, the store doesn't");
    return placed;
}

void Comparison::CompareSnapshot(const PlacedSwitch &vswitch, uint32_t switchIndex)
{
    const std::vector<PlacedPort> &ports = vswitch.ports;
    const std::string subject = "switch " + vswitch.config.id;
    uint32_t id = 0;
    if (bpf_map_lookup_elem(maps.snapshots.Get(), &switchIndex, &id) != 0)
        return Differ(subject, "the kernel has no snapshot of it, it forwards nothing");
    const Descriptor snapshot(bpf_map_get_fd_by_id(id));
    const std::vector<uint8_t> wanted = SnapshotBytes(vswitch);
    const auto elements = static_cast<uint32_t>(wanted.size() / LIVE_ELEMENT_SIZE);
    if (EntriesOf(snapshot.Get()) != elements)
        return Differ(subject, "the snapshot has another size than the store's ports need");
    std::vector<uint8_t> found(LIVE_ELEMENT_SIZE);
    for (uint32_t i = 0; i < elements; i++) {
        const bool isRead = bpf_map_lookup_elem(snapshot.Get(), &i, found.data()) == 0;
        if (isRead && std::equal(found.begin(), found.end(), &wanted[i * LIVE_ELEMENT_SIZE])) continue;
        const auto isThere = [&](const PlacedPort &port) { return LIVE_FIRST_RECORD + port.position == i; };
        const auto port = std::find_if(ports.begin(), ports.end(), isThere);
        Differ(subject, "element " + std::to_string(i) + " of the snapshot differs from the store" +
                            (port == ports.end() ? std::string()
                                                 : ": port number " + std::to_string(port->config.number)));
    }
}

}

bool CompareWithKernel(const std::string &bpffs, Engine &engine, std::vector<std::string> &differences,
                       std::string &message)
{
    libbpf_set_print(nullptr); // an interface without a filter is a difference, not a failure
    return Comparison(engine, differences).Run(bpffs, message);
}

}
