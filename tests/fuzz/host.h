// The base of every fuzz target: a throw-away host with one small switch, made once.
#pragma once

#include "core/store.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vshost.h>

// Bytes of the input, taken from its front.
struct Input {
    uint8_t Byte()
    {
        if (size == 0) return 0;
        size--;
        return *data++;
    }
    Input Take(size_t wanted)
    {
        const Input taken = {data, wanted < size ? wanted : size};
        data += taken.size;
        size -= taken.size;
        return taken;
    }
    std::string Text() const { return std::string(reinterpret_cast<const char *>(data), size); }
    uint32_t Length() const { return static_cast<uint32_t>(size); }

    const uint8_t *data;
    size_t size;
};

inline void Require(bool holds)
{
    if (!holds) abort();
}

inline constexpr char SWITCH[] = "lab";
inline constexpr char PORT[] = "port0";

inline void StartHostOnce()
{
    static const bool started = [] {
        Require(vshost_start(nullptr, 0) == 0);
        vshost_shell_in_process(1);
        return VSDVS_CreateVSwitch(SWITCH, SWITCH, nullptr, 1, 0, 0, 2, 1) == STATUS_OK;
    }();
    Require(started);
}
