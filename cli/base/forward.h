// Loads the library at the first call, so that verbs that need no platform work without one.
#pragma once

#include <string>
#include <vswitchctl.h>

namespace vsctl {

// Why the library cannot be loaded; empty when it can.
std::string LibraryFault();

// An operation of the library. Throws when it cannot be loaded or has no such operation.
void *FindOperation(const char *name);

template<class Call> Call *Operation(const char *name)
{
    return reinterpret_cast<Call *>(FindOperation(name));
}

// A function that only some platforms have; null where it is missing. Throws when the library cannot be
// loaded.
void *FindPlatformFunction(const char *name);

template<class Call> Call *PlatformFunction(const char *name)
{
    return reinterpret_cast<Call *>(FindPlatformFunction(name));
}

}
