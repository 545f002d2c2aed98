// What goes when one file replaces another.
#include "cli/change/replaced.h"

#include <algorithm>
#include <map>

#include "cli/change/object.h"

namespace vsctl {

namespace {

// Two policies that are stored in one record, so that a file names only one of them.
constexpr const char *ONE_RECORD[] = {"eth-filter", "sink"};

const Json ABSENT = {{"absent", true}};

bool IsAbsent(const Json &entry) { return entry.value("absent", false); }

bool NamesRecord(const Json &entry)
{
    return std::any_of(std::begin(ONE_RECORD), std::end(ONE_RECORD),
                       [&entry](const char *name) { return entry.contains(name); });
}

// Fields that only the old value sets, at their defaults.
void AddFields(const Policy &policy, Json &value, const Json &old)
{
    if (policy.IsScalar()) return;
    const Json whole = Merged(policy, nullptr, value);
    for (const Field &field : policy.fields) {
        if (!old.contains(field.name) || value.contains(field.name)) continue;
        if (whole.contains(field.name))
            value[field.name] = whole[field.name];
        else if (field.canBeNone)
            value[field.name] = NONE;
    }
}

void ClearPolicies(Json &entry, const Json &old, bool ofPort)
{
    for (const Policy *policy : PoliciesOf(ofPort)) {
        if (!old.contains(policy->name)) continue;
        if (entry.contains(policy->name)) {
            AddFields(*policy, entry[policy->name], old[policy->name]);
            continue;
        }
        const bool sharesRecord = Contains(ONE_RECORD, std::string_view(policy->name)) && NamesRecord(entry);
        if (policy->CanClear() && !sharesRecord &&
            !Contains(entry.value("clear", Json::array()), policy->name))
            entry["clear"].push_back(policy->name);
    }
}

// Without a list of its own, the file keeps the uplinks that the replaced one doesn't list.
void DropUplinks(const std::string &alias, Json &entry, const Json &old)
{
    if (entry.contains("uplinks") || !old.contains("uplinks") || !SwitchExists(alias)) return;
    Json kept = Json::array();
    for (const std::string &name : ReadUplinks(alias).ids) {
        if (!Contains(old["uplinks"], name)) kept.push_back(name);
    }
    entry["uplinks"] = kept;
}

std::map<std::string, Json> PortsOf(const Json &entry)
{
    std::map<std::string, Json> ports;
    const Json ranges = entry.value("ports", Json::object());
    for (const auto &[range, port] : ranges.items()) {
        for (const std::string &name : PortNames(range))
            ports[name] = port;
    }
    return ports;
}

void RemovePorts(const std::string &alias, Json &entry, const Json &old)
{
    auto ports = PortsOf(entry);
    Json uplinks = entry.value("uplinks", Json::array());
    if (!entry.contains("uplinks") && SwitchExists(alias)) uplinks = ReadUplinks(alias).ids;
    for (const auto &[name, port] : PortsOf(old)) {
        if (IsAbsent(port)) continue;
        // The list of uplinks says whether an uplink goes.
        if (!ports.contains(name)) ports[name] = Contains(uplinks, name) ? Json::object() : ABSENT;
        if (!IsAbsent(ports[name])) ClearPolicies(ports[name], port, true);
    }
    if (!ports.empty()) entry["ports"] = ports;
}

}

void AddRemovals(Json &switches, const Json &replaced)
{
    for (const auto &[alias, old] : replaced.items()) {
        if (IsAbsent(old)) continue;
        if (!switches.contains(alias)) {
            switches[alias] = ABSENT;
            continue;
        }
        Json &entry = switches[alias];
        if (IsAbsent(entry)) continue;
        ClearPolicies(entry, old, false);
        DropUplinks(alias, entry, old);
        RemovePorts(alias, entry, old);
    }
}

}
