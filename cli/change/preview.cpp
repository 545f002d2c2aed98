// The state before and after each step of a change.
#include "cli/change/preview.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <set>

#include "cli/base/limit.h"

namespace vsctl {

namespace {

bool IsObject(const Step &step) { return step.item == "switch" || step.item == "port"; }

// Whether the step leaves the switch with this uplink.
bool IsUplinkOf(const Step &step, const std::string &port)
{
    if (step.value.is_null() || (step.item != "uplinks" && step.item != "switch")) return false;
    if (step.value.contains("add")) return step.value["add"] == port;
    if (step.value.contains("set")) {
        const Json &ids = step.value["set"]["ids"];
        return std::find(ids.begin(), ids.end(), port) != ids.end();
    }
    const uint32_t count = step.value.value(step.item == "switch" ? "uplink-count" : "count", 0u);
    const size_t digits = std::min(port.size(), strlen("uplink"));
    uint32_t number = count;
    std::from_chars(port.data() + digits, port.data() + port.size(), number);
    return number < count && port == fmt::format("uplink{}", number);
}

// What creating an uplink stores.
const Json UPLINK_VLAN = {{"id", 0}, {"trunk", {"1-4094"}}, {"option", false}};

class States {
public:
    // The state that the step finds.
    Json Before(const Step &step) const
    {
        const auto found = left.find({step.target.alias, step.target.port, step.item});
        if (found != left.end()) return found->second;
        const Json before = IsReplaced(step.target) && !IsObject(step) ? Json() : step.before;
        if (before.is_null() && step.item == "vlan" && IsNewUplink(step.target)) return UPLINK_VLAN;
        return before;
    }

    // Whether a step has made or removed the switch or port, so that what was read of it is out of date.
    bool IsReplaced(const Target &target) const
    {
        return replacedSwitches.contains(target.alias) || replacedPorts.contains({target.alias, target.port});
    }

    // The ports that go with a switch.
    size_t CountPorts(const std::string &alias) const
    {
        return replacedSwitches.contains(alias) || !SwitchExists(alias) ? 0 : PortsOf(alias).size();
    }

    void Add(const Step &step, const Json &after)
    {
        const auto &[alias, port] = step.target;
        if (IsObject(step)) {
            Forget(alias, port);
            port.empty() ? (void)replacedSwitches.insert(alias) : (void)replacedPorts.insert({alias, port});
        }
        if (step.item == "uplinks" || step.item == "switch") uplinkSteps.push_back(step);
        left[{alias, port, step.item}] = after;
    }

private:
    bool IsNewUplink(const Target &port) const
    {
        return std::any_of(uplinkSteps.begin(), uplinkSteps.end(), [&port](const Step &step) {
            return step.target.alias == port.alias && IsUplinkOf(step, port.port);
        });
    }

    void Forget(const std::string &alias, const std::string &port)
    {
        const auto first = left.lower_bound({alias, port, ""});
        auto last = first;
        while (last != left.end() && std::get<0>(last->first) == alias &&
               (port.empty() || std::get<1>(last->first) == port))
            last++;
        left.erase(first, last);
    }

    std::map<std::tuple<std::string, std::string, std::string>, Json> left;
    std::set<std::string> replacedSwitches;
    std::set<std::pair<std::string, std::string>> replacedPorts;
    std::vector<Step> uplinkSteps;
};

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

Preview PreviewOf(const std::vector<Step> &steps)
{
    Preview preview;
    States states;
    for (Step step : steps) {
        RestartTimeLimit(); // work that goes on is not waiting
        step.before = states.Before(step);
        const Json &after = preview.after.emplace_back(After(step));
        preview.rows.push_back(StepRow(step));
        if (step.item == "switch" && step.value.is_null() && IsEmbedded())
            preview.rows.back()["ports"] = states.CountPorts(step.target.alias);
        preview.changes =
            preview.changes || IsObject(step) || after != step.before || MakesLists(step) || ChangesMtu(step);
        states.Add(step, after);
    }
    return preview;
}

}
