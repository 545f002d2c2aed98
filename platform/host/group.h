// A multicast group's record in the runtime tables is a VSwitchMcastStats followed by the addresses of its
// sources, which is also the driver's answer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vshost {

// Bytes of an address of this kind; 0 when there is no such kind.
size_t AddressWidth(uint32_t kind);

}
