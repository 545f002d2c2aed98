// Tells the physical network by which uplinks it reaches the addresses of ports, when ports have come to
// other uplinks and their teaming policies ask for it: with a RARP frame for each address.
#pragma once

#include <map>
#include <set>
#include <string>

#include "platform/live/data_path.h"

namespace live {

class Announcer {
public:
    explicit Announcer(DataPath &path) : path(path) {}

    // Looks for ports whose uplink is not the one that the network knows. What was told before this process
    // started is in the data path's maps.
    void Look(const std::map<std::string, SwitchConfig> &switches);

    // Sends some of the frames that wait; to be called every few milliseconds.
    void Send();

private:
    // How a port finds its uplink.
    struct Way {
        Team team;
        std::vector<uint32_t> uplinks; // port numbers by their places in the snapshot
        uint32_t working = 0;          // bits of places

        std::vector<uint32_t> InOrder(uint32_t portNumber, const uint8_t mac[6]) const;
        uint32_t UplinkOf(uint32_t portNumber, const uint8_t mac[6]) const;
        bool Works(uint32_t uplink) const { return working >> PlaceOf(uplink) & 1; }
        uint32_t PlaceOf(uint32_t uplink) const;
        bool operator==(const Way &) const = default;
    };
    struct Move {
        uint32_t portNumber;
        Way before, now;
    };
    struct Address {
        uint32_t portNumber;
        StaticAddress address;
        auto operator<=>(const Address &) const = default;
    };
    using Moves = std::map<uint32_t, Move>; // by the ports' slots

    void LookAt(const SwitchConfig &config, std::set<uint32_t> &present, Moves &moves);
    void LookAt(const PortConfig &port, Way now, Moves &moves);
    void Collect(const Moves &moves);
    void SendOne(const Address &address);
    void Keep();

    DataPath &path;
    std::map<uint32_t, Way> ways; // by port number, as the network knows them once nothing waits
    std::set<Address> waiting;
};

}
