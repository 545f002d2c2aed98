// Helpers of the families' tests: records written as bytes, the steps of an operation, their undo, and the
// reading of stored values.
#pragma once

#include "tests/fixture.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <ostream>

using namespace std::string_literals;

inline std::string Word(uint32_t value) { return Bytes(value); }

inline std::string Hex(const char *digits)
{
    std::string bytes;
    unsigned byte = 0;
    for (int used = 0; sscanf(digits, "%2x%n", &byte, &used) == 1; digits += used)
        bytes += static_cast<char>(byte);
    return bytes;
}

// Text in a field of fixed width; as long as the field, it has no NUL.
inline std::string Field(std::string text, size_t width)
{
    text.resize(width, '\0');
    return text;
}

inline void PrintTo(const Stored &stored, std::ostream *out)
{
    *out << stored.bytes.size() << " bytes, flags " << stored.flags << ": "
         << testing::PrintToString(stored.bytes.substr(0, 700));
}

// Changes the stored value, or removes it.
inline void Store(const Property &property, const std::optional<std::string> &bytes, const char *port = PORT)
{
    Remove(property, port);
    if (bytes) Write(property, *bytes, port);
}

using Steps = std::vector<std::string>;

// The store operations and commands of a call, in their order: "PortAdd lab-id port0 -", "-e ls /net".
// Look-ups in the cache, bundles and releases do not count as steps.
template<typename Operation> Steps StepsOf(Operation operation)
{
    constexpr std::string_view STORE = "DVSZOR_";
    vshost_record(1);
    operation();
    vshost_record(0);
    Steps steps;
    for (const Call &call : Calls()) {
        const std::string_view name = call.operation;
        if (call.kind == VSHOST_SHELL)
            steps.emplace_back(call.text);
        else if (name.starts_with(STORE) && name != "DVSZOR_DataFree")
            steps.push_back(std::string(name.substr(STORE.size())) + ' ' + call.text);
    }
    return steps;
}

// Fails the 1st, 2nd, 3rd… call of each of these store operations until a run meets no fault, and reverts
// that run. Each fault's status comes back, and nothing has changed. Expects this many faults in all.
template<typename Operation, typename Revert>
void ExpectUndone(std::initializer_list<const char *> storeOperations, unsigned faults, Operation operation,
                  Revert revert)
{
    const uint64_t before = vshost_fingerprint();
    for (const char *name : storeOperations) {
        bool failed = true;
        for (unsigned nth = 1; failed; nth++) {
            vshost_fail(VSHOST_STORE, name, nth, 1, STATUS_READ_ONLY);
            const VsStatus status = operation();
            failed = vshost_failed() > 0;
            vshost_clear();
            EXPECT_EQ(status, failed ? STATUS_READ_ONLY : STATUS_OK) << name << ' ' << nth;
            faults -= failed;
            if (!failed) revert();
            ASSERT_EQ(vshost_fingerprint(), before) << name << ' ' << nth;
        }
    }
    EXPECT_EQ(faults, 0u);
}

// An operation's result for a stored value: its status and the bytes that it writes. Later bytes stay
// unchanged.
struct Reading {
    struct Case {
        std::optional<std::string> stored;
        VsStatus status;
        std::string read;
    };
    Property property;
    std::function<VsStatus(char *out)> get;
    std::vector<Case> cases;

    void Check() const
    {
        for (const Case &row : cases) {
            SCOPED_TRACE(property.key + ", case "s + std::to_string(&row - cases.data()));
            Store(property, row.stored);
            std::string out(3000, '\xee');
            EXPECT_EQ(get(out.data()), row.status);
            EXPECT_TRUE(out == row.read + std::string(out.size() - row.read.size(), '\xee'));
        }
    }
};

// A getter of the prepared switch, or of its port, as Reading takes it.
template<typename Out> auto OnSwitch(VsStatus (*get)(const char *, Out *))
{
    return [get](char *out) { return get(LAB, reinterpret_cast<Out *>(out)); };
}
template<typename Out> auto OnPort(VsStatus (*get)(const char *, const char *, Out *))
{
    return [get](char *out) { return get(LAB, PORT, reinterpret_cast<Out *>(out)); };
}
