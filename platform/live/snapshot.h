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

// The port's words as user space writes them; the rest is 0.
LivePort WordsOf(const PlacedPort &port, uint32_t switchIndex);

// Whether the two differ in what a snapshot holds; everything else is in the port's words.
bool DifferInSnapshot(const PortConfig &a, const PortConfig &b);

// The elements of a snapshot one after the other.
std::vector<uint8_t> SnapshotBytes(const std::vector<PlacedPort> &ports);

// Makes and fills a snapshot. No descriptor (errno) when the kernel has no room for it.
Descriptor MakeSnapshot(const std::vector<PlacedPort> &ports);

}
