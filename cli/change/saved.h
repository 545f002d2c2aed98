// What there was before a change, whole, and how an undo brings it back.
#pragma once

#include <map>

#include "cli/change/object.h"

namespace vsctl {

// The properties, byte for byte.
Json SaveProperties(const std::vector<NamedProperty> &properties);
// Stores them again where they differ by now.
void RestoreProperties(const Target &target, const Json &saved);

// Reads what there is before the first step of a change.
class Saver {
public:
    // A port with its policies, its properties and, where the platform tells them, its number and NIC; null
    // when there is no such port.
    Json Port(const Target &port);
    // A switch with all its ports or, where the platform can't list them, with its uplinks.
    Json Switch(const std::string &alias);
    // Numbers and NICs of the listed uplinks; none where the platform doesn't tell them.
    Json UplinkPlaces(const std::string &alias);
    // MTUs of their NICs.
    Json Mtus(const std::string &alias);

private:
    const std::vector<vshost_port> &PortsOf(const std::string &alias);
    Json PortAt(const Target &port, const Json &place);
    bool HasStaticMacs(const std::string &alias);

    std::map<std::string, std::vector<vshost_port>> ports; // of switches
    std::map<std::string, std::map<std::string, Json>> places;
    std::map<std::string, bool> staticMacs; // whether a switch has any
};

// Makes the port that was saved out of what there is now; true when it had to be made again.
bool RestorePort(const Target &port, const Json &saved);
// Brings a switch back that was destroyed, wherever its destruction or an earlier undo of it got to; true
// when it had to be made again.
bool RestoreSwitch(const std::string &alias, const Json &saved);

// What a new switch shall be called, and whether that is free.
Json SaveFreeNames(const std::string &alias, const Json &value);
// Takes a new switch away, wherever its creation got to. Names that were not free are not its own.
void RemoveNewSwitch(const std::string &alias, const Json &saved);

// The numbers and NICs of ports, and the MTUs of NICs, given back.
class Places {
public:
    // All that is saved of a switch, or of one port.
    void Add(const Target &target, const Json &saved);
    // Gives back the NICs that nothing else holds.
    void RestoreNics() const;
    // Gives back all of it, when all ports are there again: one may hold what another had. Returns what could
    // not be given back.
    std::vector<std::string> Restore() const;

private:
    std::map<std::string, std::map<std::string, Json>> wanted; // by switch and port
    std::map<std::string, Json> mtus;                          // by NIC
};

}
