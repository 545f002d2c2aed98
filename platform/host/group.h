// A multicast group's record in the runtime tables is a VSwitchMcastStats with the addresses of its
// sources behind it, just as the driver answers it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vshost {

// Bytes of an address of this kind; 0 when there is no such kind.
size_t AddressWidth(uint32_t kind);

}
