// A step of a change: one object or setting, what it shall be, and what it was. Every change that vsctl
// makes to the store is a list of steps, so that each can be shown, done, undone and taken up again.
#ifndef CLI_STEP_H
#define CLI_STEP_H

#include "policy.h"

namespace vsctl {

struct Step {
    std::string item; // a policy's name, or a row of the table of objects
    Target target;
    Json value;            // what it shall be; null: gone, or cleared; of tables, the fields that change
    Json before = nullptr; // what it was; null: not there
    bool isRead = false;   // `before` holds what was read
};

// Reads what is there before the step.
void ReadBefore(Step &step);
void Perform(const Step &step);
// Puts back what was there before, wherever the step got to; does nothing when that is there already.
void Restore(const Step &step);
// Carries on with steps that were cut short, wherever they got to.
void Repeat(std::span<Step> steps);
// What there is after the step, as `before` tells what was there before it.
Json After(const Step &step);
// The ports that a step about uplinks makes.
std::vector<std::string> PortsMade(const Step &step);
// Removes an object: what it was can't be put back entirely.
bool IsRemoval(const Step &step);

// What new switches and ports may be called.
inline constexpr Field SWITCH_ALIAS{"", Form::TEXT, "the name of a switch", 1, SWITCH_ALIAS_SIZE - 1};
inline constexpr Field SWITCH_ID{"", Form::TEXT, "the id of a switch", 1, SWITCH_ID_SIZE - 1};
inline constexpr Field PORT_ID{"", Form::TEXT, "the name of a port", 1, DV_PORT_ID_SIZE - 1};
// How many ports there may be, and how many one creation makes.
inline constexpr uint32_t MAX_PORTS = INT32_MAX;
inline constexpr uint32_t MAX_NEW_PORTS = 100000;
inline constexpr uint32_t MAX_NEW_UPLINKS = 4096;
// Throws when a portset cannot have this name; the library answers it like any other failure of the shell.
void RequirePortsetName(const std::string &name);

Step SetPolicy(const Policy &policy, const Target &target, const Json &value);
// One row of output.
Json StepRow(const Step &step);
std::string StepText(const Step &step);
Json ToJson(const Step &step);
Step StepFromJson(const Json &json);

// A switch or port as a file of `vsctl apply` describes it, null when there is none. A switch's ports are
// not among it: the library can't list them.
Json ReadSwitch(const std::string &alias);
Json ReadPort(const Target &port);

struct Uplinks {
    std::vector<std::string> names;
    std::vector<std::string> ids;
    bool operator==(const Uplinks &) const = default;
};
// The listed uplinks; none when the switch has no lists.
Uplinks ReadUplinks(const std::string &alias);

std::string NewSwitchId();

}
#endif
