// Port policies by which the driver lists ports. For each policy the store keeps a list of the ports that
// have it on.
#pragma once

#include <array>
#include <string_view>

namespace vshost {

inline constexpr std::string_view KEY_PORT_MAC_MANAGEMENT = "com.talpex.vswitch.port.macManagement";
inline constexpr std::string_view KEY_PORT_MIRROR = "com.talpex.vswitch.port.mirrorSessions";
inline constexpr std::string_view KEY_ETH_FILTER = "com.talpex.vswitch.port.extraEthFRP";

// Each is given the stored value of the policy's property.
bool PortLearns(std::string_view macManagement);
bool HasMirrorSessions(std::string_view list);
bool IsSinkPort(std::string_view filter);

struct PortPolicy {
    std::string_view name;
    std::string_view key;
    bool (*isOn)(std::string_view value);
};

inline constexpr PortPolicy LEARNING{"learning", KEY_PORT_MAC_MANAGEMENT, PortLearns};
inline constexpr PortPolicy MIRRORED{"mirrored", KEY_PORT_MIRROR, HasMirrorSessions};
inline constexpr PortPolicy SINK{"sink", KEY_ETH_FILTER, IsSinkPort};
inline constexpr std::array PORT_POLICIES{LEARNING, MIRRORED, SINK};

}
