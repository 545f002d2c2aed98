// The state before and after each step of a change.
#include "cli/change/preview.h"

#include <algorithm>

#include "cli/base/limit.h"

namespace vsctl {

namespace {

bool IsObject(const Step &step) { return step.item == "switch" || step.item == "port"; }

// What creating an uplink stores.
const Json UPLINK_VLAN = {{"id", 0}, {"trunk", {"1-4094"}}, {"option", false}};

// A default MTU is not stored, and uplinks added later may have another MTU.
bool ChangesMtu(const Step &step)
{
    if (step.item != "mtu" || !SwitchExists(step.target.alias)) return false;
    const auto mtu = step.value.get<uint32_t>();
    const auto *bytes = reinterpret_cast<const uint8_t *>(&mtu);
    for (const char *key : {"com.talpex.vswitch.mtu", "com.talpex.etherswitch.mtu"}) {
        Bytes stored;
        const VsStatus status = NamedProperty{PropertyLevel::GLOBAL, step.target, key}.Get(stored);
        if (status != STATUS_OK || stored != Bytes(bytes, bytes + sizeof mtu)) return true;
    }
    const auto ports = PortsOf(step.target.alias);
    return std::any_of(ports.begin(), ports.end(),
                       [mtu](const vshost_port &port) { return *port.nic && port.nicMtu != mtu; });
}

// Whether the step creates uplink lists, which may be empty.
bool MakesLists(const Step &step)
{
    int32_t length = 0;
    return step.item == "uplinks" && (step.value.contains("set") || step.value.contains("count")) &&
           NamedProperty{PropertyLevel::GLOBAL, step.target, "com.talpex.common.uplinkPorts"}.Length(
               length) != STATUS_OK;
}

}

States::Key States::KeyOf(const Step &step) { return {step.target.alias, step.target.port, SubjectOf(step)}; }

// Whether a step has made or removed the switch or port, so that what was read of it is out of date.
bool States::IsReplaced(const Target &target) const
{
    return replacedSwitches.contains(target.alias) || replacedPorts.contains({target.alias, target.port});
}

Json States::Before(const Step &step) const
{
    if (const auto found = left.find(KeyOf(step)); found != left.end()) return found->second;
    const Json before = IsReplaced(step.target) && !IsObject(step) ? Json() : step.before;
    const bool isNewUplink = newUplinks.contains({step.target.alias, step.target.port});
    return before.is_null() && step.item == "vlan" && isNewUplink ? UPLINK_VLAN : before;
}

std::set<std::string> States::PortsWith(const std::string &alias, const std::string &item) const
{
    std::set<std::string> ports;
    for (auto place = left.lower_bound({alias, "", ""}); place != left.end(); place++) {
        const auto &[name, port, subject] = place->first;
        if (name != alias) break;
        if (subject == item) ports.insert(port);
    }
    return ports;
}

// The ports that go with a switch.
size_t States::CountPorts(const std::string &alias) const
{
    return replacedSwitches.contains(alias) || !SwitchExists(alias) ? 0 : PortsOf(alias).size();
}

// What is known of a port, or of a switch with its ports.
void States::Forget(const Target &target)
{
    const auto &[alias, port] = target;
    const auto first = left.lower_bound({alias, port, ""});
    const auto last =
        port.empty() ? left.lower_bound({alias + '\0', "", ""}) : left.lower_bound({alias, port + '\0', ""});
    left.erase(first, last);
}

const Json &States::Add(Step step, Preview &preview)
{
    RestartTimeLimit(); // work that goes on is not waiting
    const auto &[alias, port] = step.target;
    step.before = Before(step);
    Json &row = preview.rows.emplace_back(StepRow(step));
    if (step.item == "switch" && step.value.is_null() && IsEmbedded()) row["ports"] = CountPorts(alias);
    const Json &after = row["after"];
    if (IsObject(step) || after != step.before || MakesLists(step) || ChangesMtu(step))
        preview.changes = true;
    if (IsObject(step)) {
        Forget(step.target);
        port.empty() ? (void)replacedSwitches.insert(alias) : (void)replacedPorts.insert({alias, port});
    }
    if (step.item == "uplinks" || step.item == "switch") {
        for (const std::string &uplink : PortsMade(step))
            newUplinks.insert({alias, uplink});
    }
    left[KeyOf(step)] = after;
    return row;
}

Preview PreviewOf(const std::vector<Step> &steps)
{
    Preview preview;
    States states;
    for (const Step &step : steps)
        states.Add(step, preview);
    return preview;
}

}
