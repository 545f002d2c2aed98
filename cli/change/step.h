// A step of a change: one object or setting, what it shall be, and what it was. Every change that vsctl
// makes to the store is a list of steps, so that each can be shown, done, undone and taken up again.
#pragma once

#include "cli/change/saved.h"

namespace vsctl {

struct Step {
    std::string item; // a policy's name, or a row of the table of objects
    Target target;
    Json value;            // what it shall be; null: gone, or cleared; of tables, the fields that change
    Json before = nullptr; // what it was; null: not there
    bool isRead = false;   // `before` holds what was read
    Json saved = nullptr;  // all that an undo puts back
};

// Reads what is there before the step.
void ReadBefore(Step &step);
// Reads all that an undo needs, for a step that is going to be performed.
void Save(Step &step, Saver &saver);
void Perform(const Step &step);
// Puts back what was there before, wherever the step got to; does nothing when that is there already. True
// when it made an object again that the step had removed.
bool Restore(const Step &step);
// What there is after the step, as `before` tells what was there before it.
Json After(const Step &step);
// The ports that a step about uplinks makes.
std::vector<std::string> PortsMade(const Step &step);
// Removes an object: not all that it was comes back when it is undone.
bool IsRemoval(const Step &step);

Step SetPolicy(const Policy &policy, const Target &target, const Json &value);
// One row of output.
Json StepRow(const Step &step);
std::string StepText(const Step &step);
// What does not come back when the step is undone after it removed something.
std::string LossText(const Step &step);
Json ToJson(const Step &step);
Step StepFromJson(const Json &json);

}
