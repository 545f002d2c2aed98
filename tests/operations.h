// A table of all exported operations: arguments that make each succeed on the prepared host, the calls that
// it then makes, and the documented behaviour of its failures.
#pragma once

#include "tests/fixture.h"

#include <functional>

// The content of an output after a failure.
enum class Failed {
    UNTOUCHED,
    CLEARED,            // zero after any failure
    CLEARED_BY_REQUEST, // zero once a request is on its way
    NULLED,             // null once the arguments were tested
    NULLED_LATER,       // null once a first read or request has succeeded
};

struct Argument {
    enum class Kind { VALUE, ALIAS, REQUIRED, OPTIONAL, BUFFER, LIST, VALUE_BUFFER };

    Argument(uint32_t value) : value(value) {}
    Argument(int value) : value(static_cast<uint32_t>(value)) {}
    // A pointer must not be null, unless it is null already.
    Argument(const void *pointer)
        : kind(pointer ? Kind::REQUIRED : Kind::OPTIONAL), value(reinterpret_cast<uint64_t>(pointer))
    {}
    Argument(Kind kind, uint64_t value = 0, Failed failed = Failed::UNTOUCHED)
        : kind(kind), value(value), failed(failed)
    {}

    bool IsRequired() const { return kind != Kind::VALUE && kind != Kind::OPTIONAL; }

    Kind kind = Kind::VALUE;
    uint64_t value; // of an output: its size
    Failed failed = Failed::UNTOUCHED;
};

inline constexpr VsStatus ANY_STATUS = STATUS_OK;
inline constexpr VsStatus SAME_STATUS = UINT32_MAX;

// A failing call that does not end the operation with its own status and without changes.
struct Exception {
    const char *call;              // as vshost.h names it; "request" for one to the driver
    unsigned nth = 0;              // 0: each
    VsStatus failing = ANY_STATUS; // or a command's outcome
    VsStatus result = SAME_STATUS;
    bool remains = false; // earlier steps stay done
};

struct Operation {
    Operation &Unknown(VsStatus status)
    {
        unknownAlias = status;
        return *this;
    }
    Operation &Prepare(void (*function)())
    {
        prepare = function;
        return *this;
    }
    Operation &Except(Exception exception)
    {
        exceptions.push_back(exception);
        return *this;
    }
    // An absent property is not a failure.
    Operation &Absent(const char *call) { return Except({call, 0, STATUS_NOT_FOUND, STATUS_OK}); }
    Operation &Remains(const char *call, unsigned nth = 0)
    {
        return Except({call, nth, ANY_STATUS, SAME_STATUS, true});
    }
    Operation &Ignores(const char *call, unsigned nth = 0)
    {
        return Except({call, nth, ANY_STATUS, STATUS_OK});
    }

    // The operation's status when the nth such call fails, and whether something stays changed. `usual` is
    // the status of a row without an exception.
    Exception Expect(const std::string &call, unsigned nth, uint32_t failing, VsStatus usual) const;

    std::string name;
    std::function<VsStatus(const uint64_t *)> call;
    std::vector<Argument> arguments;
    std::string calls;
    VsStatus unknownAlias = STATUS_NOT_FOUND;
    void (*prepare)() = nullptr;
    std::vector<Exception> exceptions = {};
};

const std::vector<Operation> &Operations();

// Arguments of rows, besides those of the fixture.
inline constexpr char NIC[] = "nic0";
inline constexpr char SESSION[] = "first";
inline constexpr ZorMacTableEntry MAC_ENTRY = {{0, 0x50, 0x56, 0, 0, 1, 1}};
inline constexpr ZorMacTableEntry OTHER_MAC_ENTRY = {{0, 0x50, 0x56, 0, 0, 2, 1}};
inline constexpr ZorMacLearningProps LEARNING_PROPS = {{1, 60, 0, 0, 0, 9}};
inline constexpr uint8_t GROUP[4] = {224, 0, 0, 9};
inline constexpr uint16_t OPTION_IDS[] = {7};
struct [[gnu::packed]] RTMRecord {
    uint32_t count = 1;
    uint8_t rest[5 + 128] = {9};
};
inline constexpr RTMRecord RTM_RECORD = {};
struct [[gnu::packed]] OptionRecord {
    uint32_t length = sizeof(OptionRecord), count = 1;
    uint16_t id = 7, reserved = 0;
    uint32_t value;
};
inline constexpr OptionRecord OPTIONS = {.value = 2};

// Starts a host on which every row can succeed, and prepares it for this row.
void StartPreparedHost(const Operation &operation);

// Calls the operation and checks its outputs. Calls() gives the calls that it made.
struct Invocation {
    static constexpr size_t NONE = SIZE_MAX;
    const char *alias = nullptr;    // instead of the row's
    size_t null = NONE;             // this argument is null
    const void *replaced = nullptr; // `text` replaces this argument
    const char *text = nullptr;
};
VsStatus Invoke(const Operation &operation, const Invocation &invocation = {});

// The calls that read or change something, by their short names: store operations, shell verbs, commands.
std::string Trace();
