// What vshostd may do: the capabilities that its daemon keeps.
#pragma once

#include <string>

namespace live {

// Empty, or why this process can't run a live host: the first capability that is missing.
std::string FindMissingCapability();

// Keeps what the daemon of the host in `directory` needs, for good: neither it nor a program that it starts
// gets anything back. Threads that run already are not changed. False: errno.
bool DropPrivileges(const std::string &directory);

}
