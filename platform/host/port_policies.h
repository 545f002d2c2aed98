// Port policies by which the driver lists ports. For each policy the store keeps a list of the ports that
// have it on.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace vshost {

inline constexpr std::string_view KEY_PORT_MAC_MANAGEMENT = "com.talpex.vswitch.port.macManagement";
inline constexpr std::string_view KEY_PORT_MIRROR = "com.talpex.vswitch.port.mirrorSessions";
inline constexpr std::string_view KEY_ETH_FILTER = "com.talpex.vswitch.port.extraEthFRP";

inline constexpr std::string_view KEY_VLAN = "com.talpex.vswitch.port.vlan";

// The VLAN policy of a port: this record, then `rangeCount` pairs of first and last VLAN as 16-bit numbers.
inline constexpr uint16_t VLAN_TRUNK = 1; // of `flags`
struct [[gnu::packed]] VlanRecord {
    uint16_t flags;
    uint16_t vlanId;
    uint16_t reserved;
    uint16_t rangeCount;
};
static_assert(sizeof(VlanRecord) == 8);

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
