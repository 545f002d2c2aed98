// Values of policies: what a value may be, how it reads on the command line and in a file.
#pragma once

#include <optional>
#include <span>

#include "cli/base/library.h"

namespace vsctl {

enum class Form {
    BOOLEAN,    // true, false
    NUMBER,     // min to max
    CHOICE,     // one word of `choices`
    TEXT,       // at most max bytes
    BYTES,      // exactly max bytes, as hexadecimal digits
    RANGES,     // VLANs: ["100-199", "300"], at least one
    BYTES_LIST, // records of max bytes each
    NAMES,      // texts of at most max bytes
    SESSIONS    // mirror sessions with their port entries
};

struct Field {
    const char *name; // in files and, after "--", on the command line; empty for the only one of a policy
    Form form;
    const char *help;
    int64_t min = 0;
    int64_t max = 0;
    const char *choices = "";          // separated by '|'
    const char *defaultText = nullptr; // JSON; without one a field that isn't given stays absent
    bool canBeNone = false;            // "none" removes it
};

inline constexpr const char *NONE = "none";

struct Violation {
    std::string pointer; // JSON pointer of the part that is wrong
    std::string message;
};

std::optional<Violation> FindViolation(const Field &field, const Json &value, const std::string &pointer);
std::optional<Violation> FindViolation(std::span<const Field> fields, const Json &value,
                                       const std::string &pointer);

// A value without fault in the one form in which it is read back, so that equal values compare equal:
// all fields in their order, those not given with their defaults.
Json Canonical(const Field &field, const Json &value);
Json Canonical(std::span<const Field> fields, const Json &value);
// The same without the defaults: the fields that are given.
Json CanonicalPart(std::span<const Field> fields, const Json &value);

// Throws unless a new object may have this name. The rule's help says what it is the name of.
void RequireName(const Field &rule, const std::string &name);

// The value that a word of the command line stands for. Throws with what is allowed; `name` is the
// argument's, or empty where it is the option that the field has.
Json ParseWord(const Field &field, const std::string &word, const std::string &name = "");

// JSON schema of the field's values.
Json Schema(const Field &field);

// The message for a key that is not among these names.
std::string UnknownKey(const std::string &key, const std::vector<std::string> &names);

std::vector<std::string> Words(std::string_view text, char separator);

// "100-199" or "300", whatever the numbers; nothing for other texts.
std::optional<VLANRange> ParseVlanRange(std::string_view text);
std::string VlanRangeText(const VLANRange &range);

// The number of the word among the choices, as the library counts them.
uint32_t ChoiceIndex(const Field &field, const std::string &word);

}
