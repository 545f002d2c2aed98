// The edge of the platform: each function that other programs call runs in a guard, so that no exception
// leaves the platform.
#pragma once

#include <cxxabi.h>

#include <new>
#include <type_traits>

#include "platform/host/status.h"

namespace vshost {

// The status for the current exception. The exception that unwinds a cancelled thread is thrown on.
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

// A status as the result of a function: a status, an errno value or, for other types, the default value.
template<typename Result> Result OutcomeOf(VsStatus status)
{
    if constexpr (std::is_same_v<Result, VsStatus>)
        return status;
    else if constexpr (std::is_same_v<Result, int>)
        return ErrnoOf(status);
    else
        return Result();
}

// `function` with a guard around it, for C code to call.
template<auto function> struct GuardedCall;
template<typename Result, typename... Arguments, Result (*function)(Arguments...)>
struct GuardedCall<function> {
    static Result Run(Arguments... arguments)
    try {
        return function(arguments...);
    } catch (...) {
        return OutcomeOf<Result>(StatusOfException());
    }
};
template<auto function> inline constexpr auto Guarded = &GuardedCall<function>::Run;

}
