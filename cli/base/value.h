// Values of policies: which are valid, and how the command line and files write them.
#pragma once

#include <optional>
#include <span>

#include "cli/base/library.h"

namespace vsctl {

enum class Form {
    BOOLEAN, // true, false
    NUMBER,  // min to max
    CHOICE,  // one word of `choices`
    TEXT,    // at most max bytes
    BYTES,   // exactly max bytes, as hexadecimal digits
    RANGES,  // VLANs: ["100-199", "300"], at least one
    NAMES,   // texts of at most max bytes
    RULES,   // of an Ethernet filter: ["drop to-port 0x0806", "pass any"], at most max
    ENTRIES, // port entries of a mirror session: ["port0", "#7"], or in hexadecimal
    RECORDS  // each as its layout says
};

struct Layout;

struct Field {
    const char *name; // in files and, after "--", on the command line; empty for the only field of a policy
    Form form;
    const char *help;
    int64_t min = 0;
    int64_t max = 0;
    const char *choices = "";          // separated by '|'
    const char *defaultText = nullptr; // JSON; without it, a field that is not given stays absent
    bool canBeNone = false;            // the word "none" removes it
    const Layout *layout = nullptr;    // of RECORDS
};

// Where a record holds a field: a text, a choice, or a number with its lowest byte first. Of a flag, the bits
// that say that it is set.
struct Place {
    size_t offset;
    size_t width;
    uint32_t bits = 1;
};

// A record that the library takes for bytes. Where the platform publishes its records, it is shown and set by
// fields: a table. Elsewhere it is a text of hexadecimal digits, and so is a record that fields don't
// describe whole, of another version for example.
struct Layout {
    std::span<const Field> fields;
    std::span<const Place> places; // of the fields
    size_t size;                   // of the record
    uint32_t version = 0;          // which the record begins with; 0: it has none
    size_t base = 0;               // where the version, and what lists hold, begin
    // Of fields without a place, which are lists.
    Json (*decodeList)(const Field &field, const uint8_t *bytes) = nullptr;
    void (*encodeLists)(const Json &fields, uint8_t *bytes) = nullptr;
    std::string (*findFault)(const Json &fields) = nullptr; // between fields; empty when there is none
    const char *key = "";                                   // the field that names an entry of a list
    std::span<const Field> beside = {}; // fields of an entry beside its record. The first holds the record in
                                        // hexadecimal, so that the entry is always a table.
};

inline constexpr const char *NONE = "none";

// Null when no field has the name.
const Field *FindField(std::span<const Field> fields, std::string_view name);

struct Violation {
    std::string pointer; // JSON pointer of the part that is wrong
    std::string message;
};

std::optional<Violation> FindViolation(const Field &field, const Json &value, const std::string &pointer);
std::optional<Violation> FindViolation(std::span<const Field> fields, const Json &value,
                                       const std::string &pointer);

// A valid value in the form in which it is read back, so that equal values compare equal: all fields in their
// order, with defaults for those that are not given.
Json Canonical(const Field &field, const Json &value);
Json Canonical(std::span<const Field> fields, const Json &value);
// The same without the defaults.
Json CanonicalPart(std::span<const Field> fields, const Json &value);

// The same for a record: its hexadecimal digits become fields where they can.
Json CanonicalRecord(const Layout &layout, const Json &value);
Json CanonicalRecordPart(const Layout &layout, const Json &value);
std::optional<Violation> FindViolation(const Layout &layout, const Json &value, const std::string &pointer);
Json Schema(const Layout &layout);
// Whether the value has fields of records, which only some platforms publish.
bool NeedsLayout(const Layout &layout, const Json &value);
// The name of an entry of a list of records.
std::string EntryName(const Layout &layout, const Json &entry);

// Throws unless a new object may have this name. The help of the rule says which name it is.
void RequireName(const Field &rule, const std::string &name);

// The value that a word of the command line stands for. Throws an error that says what is allowed. `name` is
// the argument; without it, the error names the option of the field.
Json ParseWord(const Field &field, const std::string &word, const std::string &name = "");

// JSON schema of the field's values, or of tables with these fields.
Json Schema(const Field &field);
Json Schema(std::span<const Field> fields);

// "100-199" or "300", whether or not the numbers are VLANs; nothing for other texts.
std::optional<VLANRange> ParseVlanRange(std::string_view text);
std::string VlanRangeText(const VLANRange &range);

// The position of the word among the choices, which is its number in the library.
uint32_t ChoiceIndex(const Field &field, const std::string &word);

}
