// The table of the policies of switches and ports. Whatever shows, sets, plans, applies, exports or undoes a
// policy uses its row.
#pragma once

#include "cli/base/value.h"

namespace vsctl {

struct Policy {
    const char *name;    // the verb, and the key in files
    PropertyLevel level; // PORT, or where the switch keeps it
    const char *key;     // of its property; empty when it cannot be cleared
    bool hidesAbsence;   // its reader returns a default, or another status, where nothing is stored
    const char *help;
    std::span<const Field> fields;
    VsStatus (*read)(const Target &, Json &);
    VsStatus (*write)(const Target &, const Json &);
    VsStatus (*clear)(const Target &); // null: the property is removed by its key
    const char *example;               // what follows SWITCH [PORT]
    const char *operations;
    const Layout *layout = nullptr;                         // of a policy that is a record
    VsStatus (*readLive)(const Target &, Json &) = nullptr; // what the driver runs with
    VsStatus (*readById)(const Target &, Json &) = nullptr; // of the switch with this id
    const char *initial = nullptr; // JSON; the value that new ports store, which files leave out
    const char *noun = "";         // an entry of a list
    // Of a list: adding entries, and removing those with these names. Null: the whole list is written.
    VsStatus (*add)(const Target &, const Json &) = nullptr;
    VsStatus (*remove)(const Target &, const Json &) = nullptr;

    bool IsScalar() const { return fields.size() == 1 && !*fields[0].name; }
    bool IsList() const { return fields[0].form == Form::RECORDS; }
    bool CanClear() const { return *key; }
    bool IsOfPort() const { return level == PropertyLevel::PORT; }
};

std::span<const Policy> Policies();
// The policies of ports, or of switches.
std::vector<const Policy *> PoliciesOf(bool ports);
const Policy *FindPolicy(std::string_view name, bool ofPort);
// Of the mirror sessions of a port, or of a switch's uplinks.
const Policy &MirrorPolicy(const Target &target);

// The value in force, defaults included; null when there is none.
Json ReadPolicy(const Policy &policy, const Target &target);
// The stored value; null when none is stored.
Json ReadStored(const Policy &policy, const Target &target);
// Stores the value; null clears the policy.
void WritePolicy(const Policy &policy, const Target &target, const Json &value);
// Adds {"add": [entries]} to a list, or removes {"remove": [names]}.
void WriteEntries(const Policy &policy, const Target &target, const Json &change);
// Whether an entry of a list goes by this name. A private VLAN has the names of its primary and secondary
// VLAN.
bool IsNamed(const Policy &policy, const Json &entry, const std::string &name);
// Whether the value names fields of a record, which the platform must publish.
bool NeedsPublishedLayout(const Policy &policy, const Json &value);

std::optional<Violation> FindViolation(const Policy &policy, const Json &value, const std::string &pointer);
// The value in the one form in which it is read back.
Json Canonical(const Policy &policy, const Json &value);
// The same for a value that names only some fields.
Json CanonicalPart(const Policy &policy, const Json &value);
// The stored value after writing `value`. Fields that it does not name keep their values, or get their
// defaults.
Json Merged(const Policy &policy, const Json &stored, const Json &value);
Json Schema(const Policy &policy);

}
