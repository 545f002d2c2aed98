// The state before and after each step of a change.
#pragma once

#include <set>

#include "cli/change/step.h"

namespace vsctl {

struct Preview {
    Json rows = Json::array(); // one for each step
    bool changes = false;      // whether any step changes something
};

// The host after the steps so far.
class States {
public:
    // The state that the step finds; its `before` holds the state before the whole change.
    Json Before(const Step &step) const;
    // Whether a step so far has changed what the step is about, or made or removed the switch or port.
    bool IsChanged(const Step &step) const { return left.contains(KeyOf(step)); }
    bool Knows(const Step &step) const { return IsChanged(step) || IsReplaced(step.target); }
    // The ports with a value of this item that steps have changed.
    std::set<std::string> PortsWith(const std::string &alias, const std::string &item) const;
    // Adds a step, and its row to the preview. Returns the row.
    const Json &Add(Step step, Preview &preview);

private:
    bool IsReplaced(const Target &target) const;
    size_t CountPorts(const std::string &alias) const;
    void Forget(const Target &target);

    using Key = std::tuple<std::string, std::string, std::string>; // a switch, its port if any, the subject
    static Key KeyOf(const Step &step);
    std::map<Key, Json> left;
    std::set<std::string> replacedSwitches;
    std::set<std::pair<std::string, std::string>> replacedPorts, newUplinks;
};

// Of steps whose `before` is read.
Preview PreviewOf(const std::vector<Step> &steps);

}
