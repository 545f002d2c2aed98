// The state before and after each step of a change.
#include "cli/change/preview.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

#include "cli/base/limit.h"

namespace vsctl {

namespace {

bool IsObject(const Step &step) { return step.item == "switch" || step.item == "port"; }

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
        if (before.is_null() && step.item == "vlan" &&
            newUplinks.contains({step.target.alias, step.target.port}))
            return UPLINK_VLAN;
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
        if (step.item == "uplinks" || step.item == "switch") {
            for (std::string &uplink : PortsMade(step))
                newUplinks.insert({alias, std::move(uplink)});
        }
        left[{alias, port, step.item}] = after;
    }

private:
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
    std::set<std::pair<std::string, std::string>> replacedPorts, newUplinks;
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

// The uplinks of switches, while steps change them.
class UplinkState {
public:
    const std::vector<std::string> &Of(const std::string &alias)
    {
        const auto [found, isFirst] = uplinks.try_emplace(alias);
        if (isFirst && SwitchExists(alias)) found->second = ReadUplinks(alias).ids;
        return found->second;
    }

    void Add(const Step &step)
    {
        if (step.item != "uplinks" && step.item != "switch") return;
        Of(step.target.alias);
        auto &ids = uplinks[step.target.alias];
        if (step.value.contains("remove"))
            std::erase(ids, step.value["remove"].get<std::string>());
        else if (!step.value.contains("add"))
            ids.clear();
        const auto made = PortsMade(step);
        ids.insert(ids.end(), made.begin(), made.end());
    }

private:
    std::map<std::string, std::vector<std::string>> uplinks;
};

// The uplinks that a teaming policy, or a list of them, names.
std::set<std::string> UplinksNamed(const Json &value)
{
    std::set<std::string> names;
    for (const Json &policy : value.is_array() ? value : Json::array({value})) {
        for (const char *list : {"active", "standby"}) {
            if (!policy.is_object()) continue;
            const Json listed = policy.value(list, Json::array());
            names.insert(listed.begin(), listed.end());
        }
    }
    return names;
}

}

void RequireUplinks(const std::vector<Step> &steps, const Json &rows)
{
    UplinkState state;
    for (size_t i = 0; i < steps.size(); i++) {
        const Step &step = steps[i];
        const std::string &alias = step.target.alias;
        state.Add(step);
        if (step.item != "teaming" && step.item != "ls-teaming") continue;
        const auto known = UplinksNamed(rows[i]["before"]);
        for (const std::string &name : UplinksNamed(rows[i]["after"])) {
            const auto &uplinks = state.Of(alias);
            const bool isUplink = std::find(uplinks.begin(), uplinks.end(), name) != uplinks.end();
            if (isUplink || known.contains(name)) continue;
            throw Error(
                Exit::NOT_FOUND,
                fmt::format("{} names {}, which is not an uplink of switch {}", StepText(step), name, alias),
                uplinks.empty() ? fmt::format("'vsctl uplink add {} {}' adds it", alias, name)
                                : fmt::format("its uplinks are {}", fmt::join(uplinks, ", ")));
        }
    }
}

Preview PreviewOf(const std::vector<Step> &steps)
{
    Preview preview;
    States states;
    for (Step step : steps) {
        RestartTimeLimit(); // work that goes on is not waiting
        step.before = states.Before(step);
        Json &row = preview.rows.emplace_back(StepRow(step));
        if (step.item == "switch" && step.value.is_null() && IsEmbedded())
            row["ports"] = states.CountPorts(step.target.alias);
        const Json &after = row["after"];
        preview.changes =
            preview.changes || IsObject(step) || after != step.before || MakesLists(step) || ChangesMtu(step);
        states.Add(step, after);
    }
    return preview;
}

}
