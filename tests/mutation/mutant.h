// Included into every source of a mutation build: one change in the code is awake, chosen by the environment.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <type_traits>

namespace mutation {

inline bool Awake(int mutant)
{
    static const int awake = [] {
        const char *text = getenv("VSWITCHCTL_MUTANT");
        return text ? atoi(text) : 0;
    }();
    return awake == mutant;
}

// Success becomes failure and the other way round, true false, a pointer null.
template<typename Value> Value Result(int mutant, Value value)
{
    if (!Awake(mutant)) return value;
    if constexpr (std::is_pointer_v<Value> || std::is_null_pointer_v<Value>)
        return nullptr;
    else
        return static_cast<Value>(value == Value{});
}

template<typename Value> Value Number(int mutant, Value value)
{
    return Awake(mutant) ? static_cast<Value>(value + 1) : value;
}

}
