// Reads, makes and removes switches and ports.
#pragma once

#include "cli/base/policy.h"

namespace vsctl {

// The names that new switches and ports may have.
inline constexpr Field SWITCH_ALIAS{"", Form::TEXT, "the name of a switch", 1, SWITCH_ALIAS_SIZE - 1};
inline constexpr Field SWITCH_ID{"", Form::TEXT, "the id of a switch", 1, SWITCH_ID_SIZE - 1};
inline constexpr Field PORT_ID{"", Form::TEXT, "the name of a port", 1, DV_PORT_ID_SIZE - 1};
// The most ports that a switch can have, and the most ports and uplinks that one creation makes.
inline constexpr uint32_t MAX_PORTS = INT32_MAX;
inline constexpr uint32_t MAX_NEW_PORTS = 100000;
inline constexpr uint32_t MAX_NEW_UPLINKS = 4096;
// Throws when a portset cannot have this name. The library does not tell this from other failures of the
// shell.
void RequirePortsetName(const std::string &name);
std::string NewSwitchId();

// Keys of properties that belong to the object itself.
inline constexpr const char *ALIAS_KEY = "com.talpex.common.alias";
inline constexpr const char *VERSION_KEY = "com.talpex.common.version";
inline constexpr const char *OPAQUE_KEY = "com.talpex.common.opaqueDvs";
inline constexpr const char *PORTSET_KEY = "com.talpex.common.host.portset";
inline constexpr const char *UPLINK_NAMES_KEY = "com.talpex.common.uplinkPorts";
inline constexpr const char *UPLINK_IDS_KEY = "com.talpex.common.host.uplinkPorts";
inline constexpr const char *CONNECT_ID_KEY = "com.talpex.common.port.connectid";
inline constexpr const char *EXTERNAL_ID_KEY = "com.talpex.port.extraConfig.vnic.external.id";

// A switch or port as a file for `vsctl apply` describes it, but a switch without its ports. Null when it
// does not exist.
Json ReadSwitch(const std::string &alias);
Json ReadPort(const Target &port);

struct Uplinks {
    std::vector<std::string> names;
    std::vector<std::string> ids;
    bool operator==(const Uplinks &) const = default;
};
// The listed uplinks; none when the switch has no lists.
Uplinks ReadUplinks(const std::string &alias);

void CreateSwitch(const std::string &alias, const Json &value);
void DestroySwitch(const std::string &alias);
void AddPort(const Target &port, const Json &value);
void RemovePort(const Target &port);

// Gives a switch or port the policies of such a description, and clears all others.
void RestorePolicies(const Json &entry, const Target &target);

}
