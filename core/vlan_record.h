// The VLAN record with one range, as the library itself writes it.
#pragma once

#include "vswitchctl.h"

#include <cstddef>

struct [[gnu::packed]] TrunkVLANRecord {
    PortVLANRecord header;
    VLANRange range;
};
static_assert(sizeof(PortVLANRecord) == 8 && offsetof(PortVLANRecord, vlanId) == 2 &&
              offsetof(PortVLANRecord, reserved) == 4 && offsetof(PortVLANRecord, rangeCount) == 6);
static_assert(sizeof(VLANRange) == 4 && offsetof(VLANRange, last) == 2);
static_assert(sizeof(TrunkVLANRecord) == 12 && offsetof(TrunkVLANRecord, range) == 8);

// A new port carries untagged traffic only; a new uplink carries every VLAN but 0.
inline constexpr PortVLANRecord PORT_DEFAULT_VLAN = {0, 0, 0, 0};
inline constexpr TrunkVLANRecord UPLINK_DEFAULT_VLAN = {{VLAN_FLAG_TRUNK, 0, 0, 1}, {1, 4094}};
