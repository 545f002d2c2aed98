// A snapshot of a switch as the data path reads it: a map that is filled once and then put in its place.
#pragma once

#include <utility>

#include "platform/live/config.h"

namespace live {

// A file descriptor and its owner.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Descriptor();

    int Get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }

private:
    int fd = -1;
};

// A port with its places in the maps.
struct PlacedPort {
    PortConfig config;
    uint32_t slot = 0;
    uint32_t position = 0;
    bool isNew = false; // of a change: the port comes with it
};

// A mirror session with its places in the maps.
struct PlacedMirror {
    MirrorSession config;
    uint32_t slot = 0;
    uint32_t place = 0;
    bool isNew = false; // of a change: the session comes with it
};

// All that a switch has.
struct PlacedSwitch {
    const SwitchConfig &config; // without ports
    const std::vector<PlacedPort> &ports;
    const std::vector<PlacedMirror> &mirrors;
};

// The words of a port and of a switch as user space writes them; the rest is 0.
LivePort WordsOf(const SwitchConfig &vswitch, const PlacedPort &port, uint32_t switchIndex);
LiveSwitch WordsOf(const SwitchConfig &vswitch, const std::vector<PlacedPort> &ports);

// Whether the two differ in what a snapshot holds; everything else is in words.
bool DifferInSnapshot(const PortConfig &a, const PortConfig &b);
bool DifferInSnapshot(const SwitchConfig &a, const SwitchConfig &b);

// Where a VLAN is in the switch's private VLANs, see LivePort.vlan.
uint32_t IdentityOf(const SwitchConfig &vswitch, uint32_t vlan);

// The elements of a snapshot of the switch, one after the other.
std::vector<uint8_t> SnapshotBytes(const PlacedSwitch &vswitch);

// Makes and fills such a snapshot. No descriptor (errno) when the kernel has no
// room for it.
Descriptor MakeSnapshot(const PlacedSwitch &vswitch);

}
