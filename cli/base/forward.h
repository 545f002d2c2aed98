// The library, loaded with the first call of it: what needs no platform works without one.
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

// A function that the platform need not have; null when it doesn't. Throws when the library cannot be loaded.
void *FindPlatformFunction(const char *name);

template<class Call> Call *PlatformFunction(const char *name)
{
    return reinterpret_cast<Call *>(FindPlatformFunction(name));
}

}
