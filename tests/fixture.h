// A throw-away host for each test, and functions to inspect it.
#pragma once

#include "core/property.h"
#include "vswitchctl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>
#include <vshost.h>

// The switch that LabTest prepares: two uplinks (uplink0, uplink1) and two ports (port0, port1).
inline constexpr char LAB[] = "lab";
inline constexpr char LAB_ID[] = "lab-id";
inline constexpr char LAB_PORTSET[] = "lab-portset";
inline constexpr char PORT[] = "port0";

// Starts an empty host that runs shell commands in the process. Afterwards no value of the store, open device
// or child process may be left.
class HostTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

class LabTest : public HostTest {
protected:
    void SetUp() override;
};

// Leaves the present host and starts an empty one.
void StartHost();
VsStatus CreateLab();
void ExpectNothingLeft();

// The bytes of a record, as a text that can be compared and printed.
template<typename Record> std::string Bytes(const Record &record)
{
    static_assert(std::is_trivially_copyable_v<Record>);
    return {reinterpret_cast<const char *>(&record), sizeof(record)};
}
// A text with its NUL, as the store keeps it.
inline std::string Text(std::string_view text) { return std::string(text) + '\0'; }

// A list of enabled mirror sessions without entries.
template<size_t count> struct [[gnu::packed]] MirrorList {
    template<typename... Ids> explicit MirrorList(const Ids &...ids)
    {
        size_t i = 0;
        (std::string_view(ids).copy(sessions[i++].sessionId, sizeof(sessions[0].sessionId)), ...);
        for (MirrorSessionRecord &session : sessions)
            session.settings[0] = session.settings[4] = 1; // version and state
    }
    MirrorSessionList header = {MIRROR_LIST_MAGIC, MIRROR_LIST_VERSION, count, 0, 0};
    MirrorSessionRecord sessions[count] = {};
};

// A child process that ends with 0 when `body` returns true, and how a child ended.
pid_t Fork(const std::function<bool()> &body);
int Wait(pid_t child);

// An argument from the 64 bits that tables of operations keep for it.
template<typename Parameter> Parameter To(uint64_t value)
{
    if constexpr (std::is_pointer_v<Parameter>)
        return reinterpret_cast<Parameter>(value);
    else
        return static_cast<Parameter>(value);
}

struct Stored {
    bool operator==(const Stored &) const = default;
    std::string bytes;
    uint32_t flags;
};
// A property as it is stored, or nothing when it is absent.
std::optional<Stored> Read(const Property &property, const char *portId = PORT,
                           const char *switchId = LAB_ID);
std::optional<Stored> Read(StoreLevel level, const char *key, const char *portId = PORT,
                           const char *switchId = LAB_ID);
// Stores bytes past the library, as another program would.
void Write(const Property &property, std::string_view bytes, const char *portId = PORT,
           const char *switchId = LAB_ID);
void Remove(const Property &property, const char *portId = PORT, const char *switchId = LAB_ID);

using Call = struct vshost_call;
// The calls that were recorded since vshost_record(1), of one kind or of all (0).
std::vector<Call> Calls(int kind = 0);
// "operation text" of each.
std::vector<std::string> CallTexts(int kind = 0);
