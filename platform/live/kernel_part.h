// The data path's programs and maps: loaded, or taken over from the process before.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "platform/host/status.h"
#include "platform/live/maps.h"
#include "platform/live/snapshot.h"

struct bpf_object;

namespace live {

using vshost::VsStatus;

// What the maps hold. Maps that are taken over keep their size.
struct Capacity {
    uint32_t ports = 8192; // on all switches
    uint32_t switches = 1024;
    uint32_t addresses = 131072;
    uint32_t groups = 65536; // multicast memberships of ports, and as many sources of groups
};

// Where and what to load.
struct LoadOptions {
    std::string bpffs;               // a directory of a bpf file system
    std::string identity;            // of the host: its pins are in bpffs/identity-vLAYOUT
    std::span<const uint8_t> object; // the compiled data path; empty: the one that is built in
    Capacity capacity;
};

// What the pins of the only host in its bpf file system are named after.
inline constexpr char HOST_IDENTITY[] = "host";

// The directory of the host's pins, and the programs among them.
std::string PinsOf(const std::string &bpffs, const std::string &identity);
std::set<uint32_t> ProgramsOf(const std::string &pins);

// An array that both sides have in their memory.
template<typename Value> class SharedArray {
public:
    SharedArray() = default;
    SharedArray(const SharedArray &) = delete;
    SharedArray &operator=(const SharedArray &) = delete;
    ~SharedArray();

    bool Map(int fd, uint32_t count);
    Value &operator[](uint32_t index) { return values[index]; }
    uint32_t Size() const { return size; }

private:
    Value *values = nullptr;
    uint32_t size = 0;
};

// A word is written whole, and the next packet sees it.
inline void WriteWord(uint32_t &word, uint32_t value) { std::atomic_ref<uint32_t>(word).store(value); }

inline uint32_t ReadWord(uint32_t &word) { return std::atomic_ref<uint32_t>(word).load(); }

// A frame that tells the network of a port's address, by one of its uplinks. See LiveAnnouncement.
struct Announcement {
    StaticAddress address = {};
    uint32_t slot = 0;
    uint32_t uplinkSlot = 0;
    uint32_t place = 0;
    uint32_t passed = 0;
};

class KernelPart {
public:
    KernelPart();
    ~KernelPart();

    // On failure Message() says why, in one line.
    VsStatus Load(const LoadOptions &options);

    // Removes everything that outlives this process but the filters.
    void RemovePins();

    // Programs of this host that may be at an interface: this process's and its predecessors'.
    bool IsOurProgram(uint32_t programId) const { return ourPrograms.count(programId) != 0; }

    // Forgets the predecessors, once no interface has a program of theirs.
    void ForgetPredecessors();

    // A predecessor had another layout: its configuration, addresses and counters are not taken over.
    bool StartedAfresh() const { return startedAfresh; }

    int Program() const;
    int CommandProgram() const;
    int MapDescriptor(const char *name) const;

    // Runs a command: a LiveResult, or a negative errno value. Threads may do so at the same time.
    template<typename Key = LiveAddressKey>
    int Command(LiveCommandKind kind, uint32_t slot, const std::vector<Key> &keys) const
    {
        const LiveCommand command = {.kind = static_cast<uint32_t>(kind),
                                     .slot = slot,
                                     .count = static_cast<uint32_t>(keys.size()),
                                     .reserved = 0};
        return Run(command, std::as_bytes(std::span(keys)));
    }

    // Sends one: a LiveResult, or a negative errno value.
    int Announce(const Announcement &announcement) const;

    const std::string &Message() const { return message; }

    // Room of the address table, and of each of the tables of multicast groups and sources.
    uint32_t AddressCapacity() const { return EntriesOf("addresses"); }
    uint32_t GroupCapacity() const { return EntriesOf("groups"); }

    SharedArray<LivePort> ports;
    SharedArray<LiveSwitch> switches;
    SharedArray<LiveHost> host;
    SharedArray<LiveMirrorSlot> mirrors;

private:
    int Run(const LiveCommand &command, std::span<const std::byte> keys) const;
    uint32_t EntriesOf(const char *map) const;
    VsStatus Fail(VsStatus status, const std::string &what, int error);
    VsStatus TakeOverMaps(const Capacity &capacity);
    VsStatus Pin();
    void FindPredecessors(const LoadOptions &options);

    struct Close {
        void operator()(bpf_object *object) const;
    };
    std::unique_ptr<bpf_object, Close> object;
    std::string directory;
    std::set<std::string> predecessors; // pins to be removed, or directories of other layouts
    std::set<uint32_t> ourPrograms;
    bool startedAfresh = false;
    std::string message;
};

}
