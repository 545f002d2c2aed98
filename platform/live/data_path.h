// The switches of a host in the kernel: configured, attached to interfaces, read.
//
// A change has two steps. Preparing it takes everything that it needs, and may fail; publishing it cannot.
// When Publish() returns, the next packet obeys the change.
//
// One thread at a time uses a data path.
#pragma once

#include <map>
#include <unordered_map>

#include "platform/live/kernel_tables.h"

namespace live {

class DataPath;

// A prepared change of one switch. What it took is given back if it is not published.
class Change {
public:
    Change() = default;
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;
    ~Change();

    // It has to wait for the packets under way; many such changes wait once if they are published together.
    bool Waits() const { return static_cast<bool>(snapshot) || removesSwitch; }

private:
    friend class DataPath;
    DataPath *owner = nullptr; // null once it is published
    uint32_t switchIndex = 0;
    bool takesIndex = false; // the switch is new
    bool isWhole = false;    // `config` and `ports` replace all that the switch has
    bool removesSwitch = false;
    bool movesUplinks = false;      // they have other places in the snapshot
    bool movesPrivateVlans = false; // what trunks have learned is in other VLANs now
    SwitchConfig config;            // without ports
    std::vector<PlacedPort> ports;
    std::vector<PlacedMirror> mirrors; // of a whole change
    std::vector<uint32_t> takenSlots;
    std::vector<uint32_t> releasedSlots;
    std::vector<uint32_t> takenMirrors; // slots
    std::vector<uint32_t> releasedMirrors;
    Descriptor snapshot;
};

class DataPath {
public:
    // Loads the programs and takes over what the process before has left: switches, ports, addresses,
    // counters, filters. A switch keeps forwarding as it is until a change of it is published.
    VsStatus Open(const LoadOptions &options);

    // Why the last operation failed, in one line.
    const std::string &Message() const { return message.empty() ? kernel.Message() : message; }

    bool StartedAfresh() const { return kernel.StartedAfresh(); }
    void RemovePins() { kernel.RemovePins(); }
    std::vector<std::string> SwitchIds() const;

    // Words that hold for all switches.
    void SetHost(const HostConfig &config);

    // STATUS_NO_SPACE: a map is full, more static addresses than half of their table, more uplinks, mirror
    // sessions or destinations of one than a switch may have, or the kernel has no memory. STATUS_EXISTS:
    // another port has the number or the interface. STATUS_BAD_PARAM: the id's length. STATUS_NOT_FOUND: no
    // such switch or port. At most one change of a switch is under way.
    VsStatus PrepareSwitch(const SwitchConfig &config, Change &change);
    VsStatus PreparePort(const PortConfig &port, Change &change);
    VsStatus PrepareRemoval(const std::string &switchId, Change &change);

    void Publish(Change &change);
    void Publish(const std::vector<Change *> &changes);

    // Filters. The queueing discipline under them stays. A filter at our place that is not ours is left
    // alone: STATUS_EXISTS. Attaching an interface that has a filter of ours replaces its program without
    // losing a packet.
    VsStatus Attach(uint32_t ifindex);
    VsStatus Detach(uint32_t ifindex);
    // Once every interface is attached: pins of earlier processes and layouts go.
    void ForgetPredecessors() { kernel.ForgetPredecessors(); }

    // The address table.
    VsStatus AddStaticAddress(uint32_t portNumber, uint16_t vlan, const uint8_t mac[6]);
    VsStatus RemoveAddress(uint32_t portNumber, uint16_t vlan, const uint8_t mac[6]);
    VsStatus ForgetLearned(uint32_t portNumber); // its link is lost, also for multicast groups
    // Removes what is too old, of addresses and of multicast groups; to be called every second or so.
    VsStatus Sweep();

    // Says that the words that depend on links are up to date; to be called several times a second.
    VsStatus ShowLife();

    // A frame that tells the network of an address of the port was sent, or no uplink took it.
    void CountAnnouncement(uint32_t portNumber, bool isSent);

    // What the data path has done; other threads may read it too.
    KernelTables &Tables() { return tables; }

    // What tests and statistics look at in the maps.
    KernelPart &Kernel() { return kernel; }
    VsStatus SlotOfPort(uint32_t portNumber, uint32_t &slot) const;

private:
    friend class Change;

    struct Switch {
        SwitchConfig config;  // without ports
        bool isKnown = false; // false: taken over, with little but the numbers of its ports
        std::map<uint32_t, PlacedPort> ports;
        std::vector<uint32_t> uplinks;               // their numbers, by their places in the snapshot
        std::map<std::string, PlacedMirror> mirrors; // by id, without their configuration
    };

    VsStatus Fail(VsStatus status, const std::string &text);
    void TakeOverSwitches();
    void TakeOverInterfaces();
    void TakeOverMirrors();
    void TakeOverStaticAddresses();
    VsStatus MeasureTick();
    void SetGroupLimits();
    VsStatus TakeSwitchIndex(const std::string &id, Change &change);
    VsStatus CheckPorts(const SwitchConfig &config, uint32_t switchIndex);
    VsStatus CheckStaticAddresses(const Change &change);
    VsStatus PlacePorts(const SwitchConfig &config, Change &change);
    VsStatus TakeSlot(Change &change, uint32_t &slot);
    VsStatus PlaceMirrors(const SwitchConfig &config, Change &change);
    void GiveBack(Change &change);
    bool NeedsSnapshot(const Change &change);
    VsStatus AddSnapshot(Change &change);

    void WritePort(const PlacedPort &port, const Change &change);
    void StartSlot(uint32_t slot);
    void StartMirror(const PlacedMirror &mirror, uint32_t switchIndex);
    void SettleMirrors(const Change &change);
    void WriteSwitch(const Change &change);
    void WriteUplinks(uint32_t switchIndex);
    void WriteNetworkUplink(const Switch &vswitch, const PlacedPort &port);
    uint32_t UplinkOf(const Switch &vswitch, const PlacedPort &port);
    void SilencePorts(const Change &change);
    void ExchangeSnapshots(const std::vector<Change *> &changes);
    void Settle(Change &change);
    void CompletePorts(const Change &change);
    void SettlePort(const PlacedPort &port, const Change &change);
    void FreeSlots(const std::vector<Change *> &changes);
    void SettleAddresses(uint32_t switchIndex, const PortConfig &before, const PortConfig &after);
    void AddConfigured(uint32_t portNumber, const StaticAddress &address);
    void MapInterface(uint32_t ifindex, uint32_t slot);
    void PassEpoch(uint32_t slot);
    void PassGroupEpoch(uint32_t slot);
    VsStatus SweepForgotten();
    VsStatus SweepGroups();
    template<typename Key>
    VsStatus SweepKeys(LiveCommandKind kind, const std::vector<Key> &keys, size_t atOnce);
    template<typename Key = LiveAddressKey>
    VsStatus Command(LiveCommandKind kind, uint32_t slot, const std::vector<Key> &keys);
    bool MustSweep(const LiveAddressKey &key, const LiveAddress &address);
    VsStatus AddressCommand(LiveCommandKind kind, uint32_t portNumber, uint16_t vlan, const uint8_t mac[6]);

    KernelPart kernel;
    KernelTables tables{kernel};
    std::string message;
    std::map<uint32_t, Switch> switches;                 // by index
    std::unordered_map<uint32_t, uint32_t> portSwitches; // number of a port -> index of its switch
    std::unordered_map<uint32_t, uint32_t> interfaces;   // ifindex -> number of its port
    std::vector<uint32_t> freeSlots;
    std::vector<uint32_t> freeMirrors; // slots of mirror sessions
    std::set<uint32_t> takenIndexes;   // of switches, by changes that are not published
    // Static addresses that met the deletion of an entry: they are added at the next sweep.
    std::vector<std::pair<uint32_t, StaticAddress>> delayed;
    std::vector<uint32_t> forgetful; // slots of ports that have forgotten addresses still in the table
    bool hasForgottenGroups = false;
};

}
