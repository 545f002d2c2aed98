// Where a process finds its host: environment variables, files of the host's directory, and the word of the
// control file that the preload reads. The preload links no C++ runtime and includes this file too.
#pragma once

#include <stdint.h>

namespace vshost {

inline constexpr char ENVIRONMENT_DIRECTORY[] = "VSHOST_DIR";
inline constexpr char ENVIRONMENT_DURABILITY[] = "VSHOST_DURABILITY"; // "disk" (default) or "process"

// Beside this library: a link to the directory of the machine's own host, in an installation that makes one.
inline constexpr char MACHINE_LINK[] = "machine";
inline constexpr char MACHINE_GROUP[] = "vswitchctl"; // its members use the machine's host

inline constexpr char DEVICE_FILE[] = "dev/vswitch";
inline constexpr char RTM_FILE[] = "dev/rtm";

// Of a live host: holds the process id of vshostd, which keeps the file locked.
inline constexpr char PROCESS_FILE[] = "vshostd.pid";
// Its socket: a request is a packet of texts, each followed by a NUL; the answer is two: what the request
// asks for or why it is refused, and an errno value, 0 for success.
inline constexpr char SOCKET_FILE[] = "vshostd.socket";

inline constexpr char CONTROL_FILE[] = "control";
inline constexpr int CONTROL_FLAGS = 16;               // offset of the word
inline constexpr uint32_t CONTROL_HAS_ALLOCATIONS = 4; // rules make allocations fail

}
