// The edge of the platform: what other programs call runs its body in a guard, so that no exception leaves.
#pragma once

#include <cxxabi.h>

#include <new>

#include "platform/host/status.h"

namespace vshost {

// The status for the exception under way. That of a cancelled thread isn't one, and goes on.
inline VsStatus StatusOfException()
try {
    throw;
} catch (const abi::__forced_unwind &) {
    throw;
} catch (const std::bad_alloc &) {
    return STATUS_NO_MEMORY;
} catch (...) {
    return STATUS_IO_ERROR;
}

template<typename Body> VsStatus Guard(Body body)
try {
    return body();
} catch (...) {
    return StatusOfException();
}

// For a body that returns an errno value.
template<typename Body> int GuardErrno(Body body)
try {
    return body();
} catch (...) {
    return ErrnoOf(StatusOfException());
}

}
