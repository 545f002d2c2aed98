// The edge of the platform: what other programs call runs its body in a guard, so that no exception leaves.
#pragma once

#include <cxxabi.h>

#include <new>
#include <type_traits>

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

// What a function that failed so returns: its status or errno value, otherwise nothing.
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
