// A step of a change: one object or setting, its new value and its old one. Every change of the store is a
// list of steps, so that it can be shown, made, undone and resumed.
#pragma once

#include "cli/change/saved.h"

namespace vsctl {

struct Step {
    std::string item; // a policy's name, or a row of the table of objects
    Target target;
    Json value;              // the new value; null: removed or cleared; of a table, the fields that change
    Json before = nullptr;   // the old value; null: there was none
    bool isRead = false;     // whether `before` is read
    Json saved = nullptr;    // all that an undo restores
    bool isOptional = false; // left out where what it adds is there, or what it removes is not
};

bool IsThere(const Target &target);
// Reads the old value.
void ReadBefore(Step &step);
// Reads all that an undo needs, before the step is performed.
void Save(Step &step, Saver &saver);
void Perform(const Step &step);
// Restores the state before the step, however far the step got. Does nothing where that state is there
// already. Returns true when it created an object again that the step had removed.
bool Restore(const Step &step);
// The value after the step, in the form of `before`.
Json After(const Step &step);
// The ports of the uplinks that a step about uplinks, or a new switch, makes.
std::vector<std::string> PortsMade(const Step &step);
// Whether the step removes an object, which an undo restores only in part.
bool IsRemoval(const Step &step);

Step SetPolicy(const Policy &policy, const Target &target, const Json &value);
// Of a list.
Step AddEntries(const Policy &policy, const Target &target, const Json &entries);
Step RemoveEntries(const Policy &policy, const Target &target, const Json &names);
const Policy *PolicyOf(const Step &step); // null for other steps
// What the step is about within its target: two steps with the same subject change the same value.
std::string SubjectOf(const Step &step);
// One row of output: what the step is about, the state before it and the state after it.
Json StepRow(const Step &step);
std::string StepText(const Step &step);
// What an undo of a removal does not restore.
std::string LossText(const Step &step);
// Whether an undo of the step loses that.
bool Loses(const Step &step);
Json ToJson(const Step &step);
Step StepFromJson(const Json &json);

}
