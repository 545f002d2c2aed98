// The complete state before a change, and how an undo restores it.
#pragma once

#include <map>

#include "cli/change/object.h"

namespace vsctl {

// The bytes of the properties.
Json SaveProperties(const std::vector<NamedProperty> &properties);
// Writes back the properties that have changed.
void RestoreProperties(const Target &target, const Json &saved);

// Reads the state before the first step of a change.
class Saver {
public:
    // A port with its policies, properties and, on an embedded host, its number and NIC. Null when the port
    // does not exist.
    Json Port(const Target &port);
    // A switch with all its ports or, where the platform cannot list them, with its uplinks.
    Json Switch(const std::string &alias);
    // Numbers and NICs of the listed uplinks; empty except on an embedded host.
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

// Restores a saved port, whatever there is now. Returns true when it had to create the port again.
bool RestorePort(const Target &port, const Json &saved);
// Restores a switch, however far its destruction or an earlier undo got. Returns true when it had to create
// the switch again.
bool RestoreSwitch(const std::string &alias, const Json &saved);

// The id and portset of a new switch, and whether they are free.
Json SaveFreeNames(const std::string &alias, const Json &value);
// Removes a new switch, however far its creation got. Names that were not free belong to another switch.
void RemoveNewSwitch(const std::string &alias, const Json &saved);

// Restores the numbers and NICs of ports, and the MTUs of NICs.
class Places {
public:
    // Adds what is saved of a switch or port.
    void Add(const Target &target, const Json &saved);
    // Restores the NICs that no other port holds.
    void RestoreNics() const;
    // Restores everything, once all ports exist again: a port may hold what another one had. Returns what
    // could not be restored.
    std::vector<std::string> Restore() const;

private:
    std::map<std::string, std::map<std::string, Json>> wanted; // by switch and port
    std::map<std::string, Json> mtus;                          // by NIC
};

}
