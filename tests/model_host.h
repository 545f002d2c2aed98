// The content of an embedded host in plain maps, and the answers of its store, shell and driver.
// Written from the documentation of the host, not from its code; model.h puts the operations on top.
#pragma once

#include "tests/family.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <vswitch_driver.h>

namespace model {

enum Key {
    ALIAS,
    VERSION,
    OPAQUE,
    NAMES,
    MCAST,
    PVLANS,
    TEAMING,
    LS_TABLE,
    MTU,
    ETHER_MTU,
    ANY_GLOBAL,
    PORTSET,
    IDS,
    HOST_MIRRORS,
    LEARNING,
    LEARN_STATIC,
    ANY_HOST,
    PORT_ALIAS,
    CONNECT_ID,
    BLOCK,
    STATISTICS,
    STATUS,
    EXTERNAL_ID,
    VLAN,
    PRIORITY,
    NESTED,
    MIRRORS,
    SECURITY,
    ETH_FILTER,
    MAC_MANAGEMENT,
    TX_UPLINK,
    PORT_TEAMING,
    OVERRIDE,
    LS_POLICY,
    ANY_PORT,
};

// As documented.
inline const Property KEYS[] = {
    {"com.talpex.common.alias", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.common.version", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.common.opaqueDvs", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.common.uplinkPorts", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.vswitch.multicastFilter", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.vswitch.pvlanMap", StoreLevel::GLOBAL, 0x08},
    {"com.talpex.vswitch.teaming", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.vswitch.logicalswitch.teaming", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.vswitch.mtu", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.etherswitch.mtu", StoreLevel::GLOBAL, 0x10},
    {"org.example.global", StoreLevel::GLOBAL, 0x10},
    {"com.talpex.common.host.portset", StoreLevel::HOST, 0x10},
    {"com.talpex.common.host.uplinkPorts", StoreLevel::HOST, 0x10},
    {"com.talpex.vswitch.uplinkMirrorSessions", StoreLevel::HOST, 0x08},
    {"com.talpex.vswitch.macLearning", StoreLevel::HOST, 0x10},
    {"com.talpex.vswitch.macLearning.learnStatic", StoreLevel::HOST, 0x10},
    {"org.example.host", StoreLevel::HOST, 0x10},
    {"com.talpex.common.port.alias", StoreLevel::PORT, 0x10},
    {"com.talpex.common.port.connectid", StoreLevel::PORT, 0x10},
    {"com.talpex.common.port.block", StoreLevel::PORT, 0x10},
    {"com.talpex.common.port.statistics", StoreLevel::PORT, 0x20},
    {"com.talpex.common.port.volatile.status", StoreLevel::PORT, 0x10},
    {"com.talpex.port.extraConfig.vnic.external.id", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.vlan", StoreLevel::PORT, 0x08},
    {"com.talpex.vswitch.port.priority", StoreLevel::PORT, 0x08},
    {"com.talpex.vswitch.port.vlanNestedTag", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.mirrorSessions", StoreLevel::PORT, 0x08},
    {"com.talpex.vswitch.port.security", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.extraEthFRP", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.macManagement", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.txUplink", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.teaming.policy", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.teaming.override", StoreLevel::PORT, 0x10},
    {"com.talpex.vswitch.port.logicalswitch.teaming", StoreLevel::PORT, 0x10},
    {"org.example.port", StoreLevel::PORT, 0x10},
};

inline uint32_t WordAt(std::string_view bytes, size_t at)
{
    uint32_t word = 0;
    if (bytes.size() >= at + sizeof(word)) memcpy(&word, bytes.data() + at, sizeof(word));
    return word;
}
inline std::string Count(size_t count) { return Word(static_cast<uint32_t>(count)); }
inline std::string UpToNul(std::string_view value) { return std::string(value.substr(0, value.find('\0'))); }
inline std::string Cut(const std::string &name, size_t most = 127) { return name.substr(0, most); }
template<typename List, typename Value> bool Contains(const List &list, const Value &value)
{
    return std::find(list.begin(), list.end(), value) != list.end();
}
template<size_t size> void SetField(char (&field)[size], std::string_view text)
{
    field[text.copy(field, size - 1)] = '\0';
}

// The plugged-in NICs, for the host and for the model.
inline constexpr char LAG_PORTSET[] = "alpha";
inline constexpr char SCENARIO[] = R"({
    "nics": {"nic0": {"refused-mtus": [8000]}, "nic1": {"link": false}},
    "portsets": {"alpha": {"lags": {"lag0": {"mode": "active", "members": ["nic0", "nic1", "nic2"]}}}},
    "options": {"7": 1, "300": 5}
})";

// How an operation ends early.
struct Failure {
    VsStatus status;
};
[[noreturn]] inline void Fail(VsStatus status) { throw Failure{status}; }
inline void Require(bool condition, VsStatus otherwise)
{
    if (!condition) Fail(otherwise);
}

// Runs a step. When it fails, the steps before it are undone, whatever the results of the undo.
template<typename Step> bool Succeeds(Step step)
{
    try {
        step();
        return true;
    } catch (const Failure &) {
        return false;
    }
}
template<typename Step, typename Undo> void OrUndo(Step step, Undo undo)
{
    try {
        step();
    } catch (const Failure &) {
        Succeeds(undo);
        throw;
    }
}
// The result of a step, or `otherwise` when something that it needs is absent.
template<typename Step> std::string IfThere(Step step, const std::string &otherwise)
{
    try {
        return step();
    } catch (const Failure &failure) {
        if (failure.status != STATUS_NOT_FOUND) throw;
        return otherwise;
    }
}

// One call that fails, counted as the host counts them.
struct Fault {
    int kind = 0;
    std::string operation;
    unsigned nth = 0;
    uint32_t outcome = 0;
    unsigned met = 0;
};

class Host {
public:
    using Properties = std::map<std::string, Stored>;
    struct Port {
        uint32_t number;
        Properties properties;
    };
    struct Switch {
        std::string className;
        uint32_t maxPorts = 0;
        bool associated = false;
        Properties global = {}, host = {};
        std::map<std::string, Port> ports = {};
    };
    struct Portset {
        uint32_t ports, mtu = 1500;
    };
    struct Nic {
        bool onDemand = true, link = true, adminUp = true;
        uint32_t mtu = 1500, refusedMtu = 0;
        std::string switchId = {}, portId = {};

        bool LinkUp() const { return link && adminUp; }
    };
    struct ByNumber {
        bool operator()(const std::string &one, const std::string &other) const
        {
            return std::pair(one.size(), one) < std::pair(other.size(), other);
        }
    };
    struct Mac {
        uint32_t age;
        uint8_t type, flags;
    };
    using Macs = std::map<std::pair<uint16_t, std::string>, Mac>; // by VLAN and address
    struct Expected {
        Property key;
        std::string id, port;
        std::optional<Stored> stored;
    };

    std::map<std::string, Switch> switches; // by id
    std::map<std::string, Portset> portsets;
    std::map<std::string, Nic, ByNumber> nics;
    std::map<std::string, std::map<std::string, Macs>> macs; // by portset and port
    std::map<uint16_t, uint32_t> options;
    std::string learningProps;
    bool hasLag = false, cacheLoaded = true;
    Fault fault;
    std::vector<std::pair<int, std::string>> gates; // the calls of the last operation that could have failed

    Host() { Reset(); }

    void Reset()
    {
        portsets.clear();
        nics.clear();
        macs.clear();
        options.clear();
        learningProps = Bytes(VSwitchLearningProps{1, 600, 65536});
        hasLag = false;
        for (const std::string &id : Walk())
            Start(id);
    }

    // Runs the portset of a switch of this host, if there can be one.
    void Start(const std::string &id)
    {
        const auto name = PortsetOf(id);
        const Switch &found = switches[id];
        if (!found.associated || !name || portsets.contains(*name) || SwitchOf(*name) != id) return;
        const bool isNode = !name->empty() && name->size() <= 127 && name->find('/') == name->npos &&
                            *name != "." && *name != "..";
        if (!isNode || found.maxPorts == 0 || found.maxPorts > INT32_MAX) return;
        const std::string stored = ValueOr(MTU, id);
        const uint32_t mtu = stored.size() == 4 ? WordAt(stored, 0) : 0;
        portsets[*name] = {found.maxPorts};
        if (mtu >= 1280 && mtu <= 9000) portsets[*name].mtu = mtu;
        UplinksChanged(id);
        for (const std::string &nic : Uplinks(id))
            nics[nic].mtu = portsets[*name].mtu;
    }

    void ApplyScenario()
    {
        nics["nic0"] = {.onDemand = false, .refusedMtu = 8000};
        nics["nic1"] = {.onDemand = false, .link = false};
        options = {{7, 1}, {300, 5}};
        hasLag = true;
    }

    // The outcome of a call when it is the one to fail, else 0.
    uint32_t Gate(int kind, const std::string &operation)
    {
        gates.emplace_back(kind, operation);
        return fault.kind == kind && fault.operation == operation && ++fault.met == fault.nth ? fault.outcome
                                                                                              : 0;
    }
    void StoreGate(const std::string &operation)
    {
        if (const VsStatus status = Gate(VSHOST_STORE, operation)) Fail(status);
    }
    void Allocate() { Require(!Gate(VSHOST_ALLOCATION, ""), STATUS_NO_MEMORY); }

    // ---- The store ----

    Switch &At(const std::string &id)
    {
        Require(switches.contains(id), STATUS_NOT_FOUND);
        return switches[id];
    }
    Properties &Owner(StoreLevel level, const std::string &id, const std::string &port)
    {
        Switch &owner = At(id);
        if (level != StoreLevel::PORT) return level == StoreLevel::GLOBAL ? owner.global : owner.host;
        Require(owner.ports.contains(port), STATUS_NOT_FOUND);
        return owner.ports[port].properties;
    }

    // A property past all faults.
    std::optional<std::string> Value(const Property &key, const std::string &id, const std::string &port = {})
    {
        std::optional<std::string> value;
        Succeeds([&] {
            const Properties &owner = Owner(key.level, id, port);
            if (owner.contains(key.key)) value = owner.at(key.key).bytes;
        });
        return value;
    }
    std::string ValueOr(Key key, const std::string &id, const std::string &port = {})
    {
        return Value(KEYS[key], id, port).value_or("");
    }
    std::string TextOf(Key key, const std::string &id) { return UpToNul(ValueOr(key, id)); }

    std::string Get(const Property &key, const std::string &id, const std::string &port = {})
    {
        StoreGate(CallName(key.level) + "Get");
        const auto value = Value(key, id, port);
        Require(value.has_value(), STATUS_NOT_FOUND);
        return *value;
    }

    void Set(const Property &key, const std::string &id, const std::string &port, const std::string &value)
    {
        StoreGate(CallName(key.level) + "Set");
        Properties &owner = Owner(key.level, id, port);
        if (Is(key, ALIAS)) {
            const std::string taken = IdOfAlias(UpToNul(value));
            Require(taken.empty() || taken == id, STATUS_EXISTS);
        }
        owner[key.key] = {value, key.flags};
        if (Is(key, IDS)) UplinksChanged(id);
    }

    void Clear(const Property &key, const std::string &id, const std::string &port = {})
    {
        StoreGate(CallName(key.level) + "Clear");
        Require(Owner(key.level, id, port).erase(key.key) > 0, STATUS_NOT_FOUND);
        if (Is(key, IDS)) UplinksChanged(id);
    }

    void PortAdd(const std::string &id, const std::string &port, Properties properties)
    {
        StoreGate("DVSZOR_PortAdd");
        Require(!port.empty(), STATUS_BAD_PARAM);
        Require(!At(id).ports.contains(port), STATUS_EXISTS);
        const uint32_t number = FreeNumber();
        properties[KEYS[STATUS].key] = {std::string(16, '\0') + Word(number), 0x10};
        At(id).ports[port] = {number, std::move(properties)};
    }

    void PortRemove(const std::string &id, const std::string &port)
    {
        StoreGate("DVSZOR_PortRemove");
        Require(At(id).ports.erase(port) > 0, STATUS_NOT_FOUND);
        UplinksChanged(id);
    }

    void SwitchAdd(const std::string &id, const std::string &className, uint32_t maxPorts)
    {
        StoreGate("DVSZOR_SwitchAdd");
        Require(!id.empty() && id.size() <= 63, STATUS_BAD_PARAM);
        Require(switches.try_emplace(id, Switch{className, maxPorts}).second, STATUS_EXISTS);
    }

    void SwitchRemove(const std::string &id)
    {
        StoreGate("DVSZOR_SwitchRemove");
        Require(switches.erase(id) > 0, STATUS_NOT_FOUND);
        UplinksChanged(id);
    }

    void Associate(const std::string &id, bool associated)
    {
        StoreGate(associated ? "DVSZOR_SwitchAssociate" : "DVSZOR_SwitchDissociate");
        At(id).associated = associated;
    }

    // Each property that a switch or a port of the host has or could have.
    std::vector<Expected> Everything() const
    {
        std::vector<Expected> all;
        const auto add = [&](const Property &key, const std::string &id, const std::string &port,
                             const Properties &owner) {
            const auto found = owner.find(key.key);
            all.push_back(
                {key, id, port, found == owner.end() ? std::nullopt : std::optional(found->second)});
        };
        for (const auto &[id, found] : switches)
            for (const Property &key : KEYS) {
                if (key.level != StoreLevel::PORT)
                    add(key, id, "", key.level == StoreLevel::GLOBAL ? found.global : found.host);
                else
                    for (const auto &[port, entry] : found.ports)
                        add(key, id, port, entry.properties);
            }
        return all;
    }

    // ---- The cache ----

    std::string IdOfAlias(const std::string &alias)
    {
        for (const auto &[id, found] : switches)
            if (Value(KEYS[ALIAS], id) && TextOf(ALIAS, id) == alias) return id;
        return "";
    }

    std::string FindByAlias(const std::string &alias)
    {
        const bool hidden = Gate(VSHOST_STORE, "DVSState_SwitchFindByAlias") || !cacheLoaded;
        const std::string id = hidden ? "" : IdOfAlias(alias);
        Require(!id.empty(), STATUS_NOT_FOUND);
        return id;
    }

    std::optional<std::string> Lookup(Key key, const std::string &id)
    {
        const bool global = KEYS[key].level == StoreLevel::GLOBAL;
        if (Gate(VSHOST_STORE, global ? "DVSState_GlobalPropLookup" : "DVSState_HostPropLookup")) return {};
        return cacheLoaded && Value(KEYS[key], id) ? std::optional(TextOf(key, id)) : std::nullopt;
    }

    // All switches, from the longest portset name to the shortest, then those without.
    std::vector<std::string> Walk()
    {
        std::set<std::tuple<size_t, std::string, std::string>> order;
        for (const auto &[id, found] : switches) {
            const std::string portset = TextOf(PORTSET, id);
            order.emplace(Value(KEYS[PORTSET], id) ? SIZE_MAX - 1 - portset.size() : SIZE_MAX, portset, id);
        }
        std::vector<std::string> ids;
        for (const auto &[length, portset, id] : order)
            ids.push_back(id);
        return ids;
    }

    // ---- Portsets, uplinks and NICs ----

    void AddPortset(const std::string &name, uint32_t ports)
    {
        Require(name.size() <= 127 && ports > 0 && ports <= INT32_MAX, STATUS_FAILURE);
        Require(portsets.try_emplace(name, Portset{ports}).second, STATUS_FAILURE);
        UplinksChanged(SwitchOf(name));
    }

    void RemovePortset(const std::string &name)
    {
        Require(portsets.erase(name) > 0, STATUS_FAILURE);
        macs.erase(name);
    }

    // The portset of a switch, running or not; nothing when it has neither a portset name nor an alias.
    std::optional<std::string> PortsetOf(const std::string &id)
    {
        for (const Key key : {PORTSET, ALIAS})
            if (Value(KEYS[key], id)) return TextOf(key, id);
        return std::nullopt;
    }

    // The switch of a portset; empty when it has none.
    std::string SwitchOf(const std::string &name)
    {
        for (const auto &[id, found] : switches)
            if (Value(KEYS[PORTSET], id) && TextOf(PORTSET, id) == name) return id;
        const std::string id = IdOfAlias(name);
        return !id.empty() && PortsetOf(id) == name ? id : "";
    }

    std::vector<std::string> UplinkPorts(const std::string &id)
    {
        std::vector<std::string> ports;
        const std::string list = ValueOr(IDS, id);
        for (size_t i = 0; i < WordAt(list, 0) && 4 + 48 * (i + 1) <= list.size(); i++) {
            const std::string port = UpToNul(list.substr(4 + 48 * i, 48));
            if (!port.empty() && port.size() < 48) ports.push_back(port);
        }
        return ports;
    }

    // The NICs of a switch, in the order of its uplink ports.
    std::vector<std::string> Uplinks(const std::string &id)
    {
        std::vector<std::string> names;
        for (const std::string &port : UplinkPorts(id)) {
            const std::string name = NicOf(id, port);
            if (!name.empty() && !Contains(names, name)) names.push_back(name);
        }
        return names;
    }

    // Every listed uplink port has a NIC, no other port has one, and ports that are gone have no addresses.
    void UplinksChanged(const std::string &id)
    {
        const std::vector<std::string> ports = UplinkPorts(id);
        for (auto entry = nics.begin(); entry != nics.end();) {
            Nic &nic = entry->second;
            const bool goes = !nic.portId.empty() && nic.switchId == id && !Contains(ports, nic.portId);
            if (goes) nic.switchId = nic.portId = "";
            entry = goes && nic.onDemand ? nics.erase(entry) : std::next(entry);
        }
        for (const std::string &port : ports) {
            if (!NicOf(id, port).empty()) continue;
            Nic &nic = nics[FreeNic()];
            nic.switchId = id;
            nic.portId = port;
        }
        if (const auto portset = PortsetOf(id))
            std::erase_if(macs[*portset],
                          [&](const auto &entry) { return !At(id).ports.contains(entry.first); });
    }

    // ---- The shell ----

    // A command that is to change something; `change` does it, or fails.
    template<typename Change> void Command(const char *verb, Change change)
    {
        Require(!Gate(VSHOST_SHELL, verb), STATUS_FAILURE);
        change();
    }

    void SetNicMtu(const std::string &name, uint32_t mtu)
    {
        Command("set", [&] {
            Require(nics.contains(name) && nics[name].refusedMtu != mtu, STATUS_FAILURE);
            nics[name].mtu = mtu;
        });
    }

    void SetPortsetMtu(const std::string &name, uint32_t mtu)
    {
        Command("set", [&] { Running(name).mtu = mtu; });
    }

    // The tree of running state: commands and their output.
    std::map<std::string, std::string> Tree()
    {
        std::map<std::string, std::string> tree;
        std::string &sets = tree["ls /net/portsets"], &cards = tree["ls /net/pNics"];
        for (const auto &[name, portset] : portsets) {
            const std::string id = SwitchOf(name), node = " '/net/portsets/" + name;
            sets += name + "/\n";
            tree["get" + node + "'"] = "class:vswitch\nmtu:" + std::to_string(portset.mtu) +
                                       "\nnumPorts:" + std::to_string(portset.ports) +
                                       "\nswitch:" + (id.empty() ? "none" : id) + "\n";
            std::string &uplinks = tree["ls" + node + "/uplinks'"];
            for (const std::string &nic : Uplinks(id))
                uplinks += nic + "/\n";
        }
        for (const auto &[name, nic] : nics) {
            cards += name + "/\n";
            tree["get /net/pNics/" + name] =
                "admin:"s + (nic.adminUp ? "up" : "down") +
                "\nduplex:full\nlink:" + (nic.LinkUp() ? "up" : "down") +
                "\nmaxMtu:9000\nmtu:" + std::to_string(nic.mtu) +
                "\nnumaNode:0\nport:" + (nic.portId.empty() ? "none" : nic.portId) +
                "\nspeed:10000\nswitch:" + (nic.switchId.empty() ? "none" : nic.switchId) + "\n";
        }
        return tree;
    }

    // ---- The driver ----

    static VsStatus StatusOf(int error)
    {
        static const std::map<int, VsStatus> STATUSES = {
            {ENOENT, 0x0BAD0003}, {EBUSY, 0x0BAD0004}, {EPERM, 0x0BAD005B}, {ENOMEM, 0x0BAD0014}};
        return STATUSES.at(error);
    }
    static constexpr VsStatus NO_SUCH_DEVICE = 0x0BAD000F, NO_SUCH_COMMAND = 0x0BAD0086;

    void Request(uint32_t command, const char *device = ZOR_DEVICE)
    {
        uint32_t error = Gate(VSHOST_OPEN, device);
        if (!error) error = Gate(VSHOST_DRIVER, std::to_string(command));
        if (error) Fail(StatusOf(static_cast<int>(error)));
    }

    Portset &Running(const std::string &name, VsStatus otherwise = STATUS_NOT_FOUND)
    {
        Require(portsets.contains(name), otherwise);
        return portsets[name];
    }
    // The switch of a portset that runs.
    std::string SwitchRunning(const std::string &portset) { return Running(portset), SwitchOf(portset); }
    // The portset of a switch, which runs.
    std::string PortsetRunning(const std::string &id, VsStatus otherwise = STATUS_NOT_FOUND)
    {
        const auto portset = PortsetOf(id);
        Require(portset.has_value(), otherwise);
        Running(*portset, otherwise);
        return *portset;
    }
    uint32_t NumberOf(const std::string &id, const std::string &port)
    {
        Require(At(id).ports.contains(port), NO_SUCH_DEVICE);
        return At(id).ports[port].number;
    }
    std::pair<std::string, std::string> PortOf(uint32_t number)
    {
        for (const auto &[id, found] : switches)
            for (const auto &[port, entry] : found.ports)
                if (entry.number == number) return PortsetRunning(id, NO_SUCH_DEVICE), std::pair(id, port);
        Fail(NO_SUCH_DEVICE);
    }
    Nic &UplinkOf(const std::string &portset, const std::string &name)
    {
        Require(Contains(Uplinks(SwitchRunning(portset)), name), NO_SUCH_DEVICE);
        return nics[name];
    }
    // The ports of a portset's switch, if it has one.
    std::map<std::string, Port> PortsOf(const std::string &id)
    {
        return switches.contains(id) ? switches[id].ports : std::map<std::string, Port>();
    }

    bool InLag(const std::string &portset, const std::string &nic) const
    {
        return hasLag && portset == LAG_PORTSET && nic.size() == 4 && nic[3] <= '2';
    }
    bool Snoops(const std::string &id) { return TextOf(MCAST, id) == "snooping"; }
    bool Learns(const std::string &id, const std::string &port)
    {
        const std::string policy = ValueOr(MAC_MANAGEMENT, id, port);
        return policy.size() == 11 && policy[1];
    }
    static std::string List(const std::string &entries, size_t size)
    {
        return Count(entries.size() / size) + Word(0) + entries;
    }

    std::string Switches(uint32_t kind)
    {
        std::string list = Count(portsets.size()) + Word(kind);
        for (const auto &[name, portset] : portsets) {
            const std::string alias = ValueOr(ALIAS, SwitchOf(name));
            list += kind == 1 ? Field(name, 128) : Field(Cut(alias.empty() ? name : UpToNul(alias), 80), 81);
        }
        return list;
    }

    std::string Info(const std::string &portset)
    {
        const std::string id = SwitchRunning(portset);
        VSwitchInfo info = {};
        SetField(info.portset, portset);
        SetField(info.switchId, id);
        info.ports = portsets[portset].ports;
        info.mtu = portsets[portset].mtu;
        if (id.empty()) return Bytes(info);
        info.usedPorts = static_cast<uint32_t>(At(id).ports.size());
        info.uplinks = static_cast<uint16_t>(Uplinks(id).size());
        bool learns = false;
        for (const auto &[port, entry] : At(id).ports)
            learns |= Learns(id, port);
        info.flags = static_cast<uint16_t>(At(id).associated | Snoops(id) << 1 | !Sessions(id).empty() << 2 |
                                           learns << 3);
        return Bytes(info);
    }

    std::string UplinkList(const std::string &portset)
    {
        std::string list;
        for (const std::string &name : Uplinks(SwitchRunning(portset))) {
            const Nic &nic = nics[name];
            list += Field(name, 32) + Word(4u | uint32_t{nic.LinkUp()} | uint32_t{nic.adminUp} << 1 |
                                           uint32_t{InLag(portset, name)} << 3);
        }
        return List(list, 36);
    }

    std::string Lags(const std::string &portset)
    {
        const std::string id = SwitchRunning(portset);
        if (!hasLag || portset != LAG_PORTSET) return std::string(35588, '\0');
        uint32_t linked = 0;
        for (const std::string &name : Uplinks(id))
            if (InLag(portset, name) && nics[name].LinkUp()) linked |= 1u << (name[3] - '0');
        return Field(Word(1) + Field("lag0", 32) + "\1\0\0"s + static_cast<char>(linked != 0) + Word(3) +
                         Word(linked) + Field("nic0", 32) + Field("nic1", 32) + Field("nic2", 32),
                     35588);
    }

    // Whether the port's override names the uplink port.
    bool IsOverride(const std::string &id, const std::string &port, const std::string &uplink)
    {
        const std::string alias = ValueOr(PORT_ALIAS, id, uplink),
                          text = UpToNul(ValueOr(OVERRIDE, id, port));
        return At(id).ports.contains(uplink) && !text.empty() &&
               text == (alias.empty() ? uplink : UpToNul(alias));
    }
    std::string Hint(uint32_t number)
    {
        const auto [id, port] = PortOf(number);
        std::map<uint32_t, std::string> uplinks; // by their ports' numbers
        for (const std::string &name : Uplinks(id)) {
            if (nics[name].portId == port) return Field(name, 32);
            if (At(id).ports.contains(nics[name].portId))
                uplinks[At(id).ports[nics[name].portId].number] = name;
        }
        std::vector<std::string> order, others;
        for (const auto &[place, name] : uplinks)
            order.push_back(name);
        if (!order.empty()) std::rotate(order.begin(), order.begin() + number % order.size(), order.end());
        for (const std::string &listed : UplinkPorts(id)) {
            if (!IsOverride(id, port, listed)) continue;
            if (UpToNul(ValueOr(TX_UPLINK, id, port)) == "always")
                for (const auto &[place, name] : uplinks)
                    others.push_back(name);
            order = {NicOf(id, listed)};
            break;
        }
        order.insert(order.end(), others.begin(), others.end());
        for (const std::string &name : order)
            if (nics[name].LinkUp()) return Field(name, 32);
        return Field("", 32);
    }

    std::string MacEntries(const std::string &portset, const std::string &port, uint32_t number, uint8_t type)
    {
        std::string list;
        for (const auto &[key, mac] : macs[portset][port])
            if (type == VSWITCH_MAC_ANY || type == mac.type)
                list += key.second + static_cast<char>(mac.type) + static_cast<char>(mac.flags) +
                        Bytes(key.first) + Word(mac.age) + Word(number);
        return list;
    }
    std::string PortMacs(const std::string &id, const std::string &port, uint8_t type)
    {
        const std::string portset = PortsetRunning(id);
        return List(MacEntries(portset, port, NumberOf(id, port), type), 18);
    }
    std::string TeamMacs(const std::string &portset, uint8_t type)
    {
        std::string list;
        const std::string id = SwitchRunning(portset);
        for (const std::string &port : UplinkPorts(id))
            if (At(id).ports.contains(port)) list += MacEntries(portset, port, NumberOf(id, port), type);
        return List(list, 18);
    }

    std::string PortLearning(const std::string &id, const std::string &port)
    {
        const std::string portset = PortsetRunning(id), policy = ValueOr(MAC_MANAGEMENT, id, port);
        NumberOf(id, port);
        return Field(Count(macs[portset][port].size()) + Word(policy.size() == 11 ? WordAt(policy, 3) : 4096),
                     28);
    }

    std::string LearningInfo(const std::string &portset)
    {
        const std::string id = SwitchRunning(portset), policy = ValueOr(LEARNING, id);
        const bool stored = policy.size() == 8;
        VSwitchLearningInfo info = {};
        info.agingSeconds = stored ? WordAt(policy, 0) & 0xFFFFFF : 600;
        info.limit = stored ? WordAt(policy, 4) : 65536;
        info.policyByte = stored ? static_cast<uint8_t>(policy[3]) : 0;
        info.learnStatic = ValueOr(LEARN_STATIC, id).starts_with("true");
        for (const auto &[port, found] : PortsOf(id)) {
            info.learningPorts += Learns(id, port);
            for (const auto &[key, mac] : macs[portset][port]) {
                info.entries++;
                mac.type == VSWITCH_MAC_LEARNED ? info.learnedEntries++ : info.staticEntries++;
                info.teamEntries += Contains(UplinkPorts(id), port);
            }
        }
        return Bytes(info);
    }

    std::vector<std::string> MirrorLists(const std::string &id)
    {
        std::vector<std::string> lists = {ValueOr(HOST_MIRRORS, id)};
        for (const auto &[port, found] : PortsOf(id))
            lists.push_back(ValueOr(MIRRORS, id, port));
        return lists;
    }
    // Ids in the lists of mirror sessions of a switch, each once.
    std::vector<std::string> Sessions(const std::string &id)
    {
        std::vector<std::string> sessions;
        for (const std::string &list : MirrorLists(id))
            for (size_t i = 0; i < WordAt(list, 8) && 20 + 232 * (i + 1) <= list.size(); i++) {
                const std::string session = UpToNul(list.substr(20 + 232 * i, 32));
                if (!Contains(sessions, session)) sessions.push_back(session);
            }
        return sessions;
    }
    // A mirror session that the driver understands.
    struct RunningSession {
        std::string id;
        bool isEnabled;
        std::string destinations; // entries of 52 bytes
    };
    std::vector<RunningSession> RunningSessions(const std::string &id)
    {
        std::vector<RunningSession> running;
        for (const std::string &list : MirrorLists(id)) {
            const uint64_t count = WordAt(list, 8), entries = WordAt(list, 12);
            if (list.size() < 20 || 20 + 232 * count + 52 * entries > list.size()) continue;
            for (size_t at = 20; at < 20 + 232 * count; at += 232) {
                const std::string name = UpToNul(list.substr(at, 32)), settings = list.substr(at + 32, 184);
                const uint64_t before = uint64_t{WordAt(list, at + 228)} + WordAt(list, at + 216) +
                                        WordAt(list, at + 220),
                               mine = WordAt(list, at + 224);
                const bool isKnown = WordAt(settings, 0) == 1 && uint8_t(settings[4]) <= 1 &&
                                     uint8_t(settings[5]) <= 1 && WordAt(settings, 4) >> 16 <= 4094;
                if (!isKnown || before + mine > entries) continue;
                if (std::any_of(running.begin(), running.end(), [&](auto &one) { return one.id == name; }))
                    continue;
                running.push_back(
                    {name, settings[4] == 1, list.substr(20 + 232 * count + 52 * before, 52 * mine)});
            }
        }
        return running;
    }
    std::string SessionList(const std::string &portset)
    {
        std::string list;
        for (const RunningSession &session : RunningSessions(SwitchRunning(portset)))
            list += Field(session.id, 32);
        return List(list, 32);
    }
    std::string SessionStats(const std::string &portset, const std::string &wanted)
    {
        for (const RunningSession &session : RunningSessions(SwitchRunning(portset)))
            if (session.id == wanted) return Field(Field(wanted, 32) + char(session.isEnabled), 121);
        Require(false, STATUS_NOT_FOUND);
        return {};
    }

    bool IsDestination(const std::string &id, const std::string &port, uint32_t number)
    {
        for (const RunningSession &session : RunningSessions(id))
            for (size_t at = 0; session.isEnabled && at < session.destinations.size(); at += 52) {
                const std::string name = UpToNul(session.destinations.substr(at, 48));
                if (name.empty() ? WordAt(session.destinations, at + 48) == number : name == port)
                    return true;
            }
        return false;
    }

    // Sink ports, destinations of mirror sessions, and ports that get all frames.
    std::string Observers(const std::string &portset)
    {
        std::set<uint32_t> numbers;
        const std::string id = SwitchRunning(portset);
        for (const auto &[port, found] : PortsOf(id)) {
            const std::string filter = ValueOr(ETH_FILTER, id, port), flags = ValueOr(SECURITY, id, port);
            const bool isSink = filter.size() > 2 && filter[2] & 1;
            const bool getsAll = flags.size() == 4 && WordAt(flags, 0) < 8 && !(flags[0] & 1) &&
                                 !Contains(UplinkPorts(id), port);
            if (isSink || getsAll || IsDestination(id, port, found.number)) numbers.insert(found.number);
        }
        std::string list;
        for (const uint32_t number : numbers)
            list += Word(number);
        return List(list, 4);
    }

    std::string LsTable(const std::string &portset)
    {
        const std::string table = ValueOr(LS_TABLE, SwitchRunning(portset));
        const size_t whole = table.size() < 4 ? 0 : (table.size() - 4) / 2748;
        const size_t count = std::min<size_t>(WordAt(table, 0), whole);
        return Count(count) + (count ? table.substr(4, count * 2748) : "");
    }

    std::string Options(const std::vector<uint16_t> &ids)
    {
        std::string list;
        for (const auto &[id, value] : options)
            if (ids.empty()) list += Word(id) + Word(value);
        for (const uint16_t id : ids) {
            Require(options.contains(id), STATUS_NOT_FOUND);
            list += Word(id) + Word(options[id]);
        }
        return Count(8 + list.size()) + Count(list.size() / 8) + list;
    }

private:
    static bool Is(const Property &key, Key known)
    {
        return key.level == KEYS[known].level && !strcmp(key.key, KEYS[known].key);
    }
    static std::string CallName(StoreLevel level)
    {
        if (level == StoreLevel::PORT) return "DVSZOR_PortData";
        return level == StoreLevel::HOST ? "DVSZOR_HostProp" : "DVSZOR_GlobalProp";
    }

    uint32_t FreeNumber() const
    {
        std::set<uint32_t> taken;
        for (const auto &[id, found] : switches)
            for (const auto &[port, entry] : found.ports)
                taken.insert(entry.number);
        uint32_t number = 1;
        while (taken.contains(number))
            number++;
        return number;
    }

    std::string NicOf(const std::string &id, const std::string &port) const
    {
        for (const auto &[name, nic] : nics)
            if (nic.switchId == id && nic.portId == port) return name;
        return "";
    }

    // The first free NIC, or a new one.
    std::string FreeNic() const
    {
        int number = 0;
        for (const auto &[name, nic] : nics) {
            if (nic.portId.empty()) return name;
            if (nic.onDemand) number = std::stoi(name.substr(3)) + 1;
        }
        while (nics.contains("nic" + std::to_string(number)))
            number++;
        return "nic" + std::to_string(number);
    }
};

}
