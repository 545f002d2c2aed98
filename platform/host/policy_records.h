// The policy records of the store (vswitch_policy.h), read: what the data path of a live host obeys, and what
// the driver of any host answers by. A record that is not whole, or of another version, is not enforced: it
// counts as absent.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/tables.h"
#include "platform/include/vswitch_policy.h"

namespace vshost {

inline constexpr std::string_view KEY_SECURITY = "com.talpex.vswitch.port.security";
inline constexpr std::string_view KEY_HOST_MIRROR = "com.talpex.vswitch.uplinkMirrorSessions";

struct FilterRule {
    uint16_t etherType; // behind all tags; 0: any
    VSwitchFilterDirection direction;
    VSwitchFilterAction action;
    bool operator==(const FilterRule &) const = default;
};

enum class PrivateVlanType { PROMISCUOUS, ISOLATED, COMMUNITY };

struct PrivateVlan {
    uint16_t primary;   // 1 to 4094
    uint16_t secondary; // the same
    PrivateVlanType type;
    bool operator==(const PrivateVlan &) const = default;
};

// Ports are named by their numbers. A destination without an interface is unreachable; sources without one do
// nothing.
struct MirrorSession {
    std::string id;          // at most 32 bytes
    bool isEnabled = true;   // else it copies nothing
    uint32_t snapLength = 0; // bytes of a copy without tags that are put around it; 0: all
    uint32_t sampling = 1;   // every n-th frame is copied
    uint16_t outerVlan = 0;  // 0: no tag around that of the frame
    bool stripsTag = false;
    std::vector<uint32_t> from; // what these ports send is copied
    std::vector<uint32_t> to;   // what these ports get is copied
    std::vector<uint32_t> destinations;
    bool operator==(const MirrorSession &) const = default;
};

// A stored list of mirror sessions: this header, records, and the entries of their ports.
struct [[gnu::packed]] MirrorListHeader {
    uint32_t magic;
    uint32_t version;
    uint32_t sessionCount;
    uint32_t portCount;
    uint32_t reserved;
};
static_assert(sizeof(MirrorListHeader) == 20);

struct [[gnu::packed]] MirrorRecord {
    char id[32];
    VSwitchMirrorSettings settings;
    uint32_t fromCount;
    uint32_t toCount;
    uint32_t destinationCount;
    uint32_t firstPort;

    uint64_t EndOfPorts() const { return uint64_t{firstPort} + fromCount + toCount + destinationCount; }
};
static_assert(sizeof(MirrorRecord) == 232);

std::optional<uint32_t> DecodeSecurity(std::string_view value); // VSWITCH_SECURITY_… bits
std::vector<FilterRule> DecodeFilter(std::string_view value);
std::vector<PrivateVlan> DecodePrivateVlans(std::string_view value);

// The numbers of a switch's ports by their ids; UINT32_MAX: it has no such port.
using FindPortNumber = std::function<uint32_t(const std::string &portId)>;

// Adds the sessions of a list whose ids are not there yet.
void DecodeMirrors(std::string_view list, const FindPortNumber &findPort,
                   std::vector<MirrorSession> &sessions);

// Adds the mirror sessions of a switch. Of those with one id the first holds: the host's list comes before
// those of ports.
VsStatus ReadMirrors(Reader &reader, std::string_view switchId, std::vector<MirrorSession> &sessions);

}
