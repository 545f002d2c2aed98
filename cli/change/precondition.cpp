// The checks of a change before its first write.
#include "cli/change/precondition.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace vsctl {

namespace {

bool Contains(const std::vector<std::string> &names, const std::string &name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// A switch after the steps so far. What no step has changed is read from the host on demand.
class SwitchState {
public:
    SwitchState(std::string alias, bool isNew) : alias(std::move(alias)), isNew(isNew)
    {
        if (isNew) listed = Uplinks();
    }

    bool HasPort(const std::string &port)
    {
        const auto known = ports.find(port);
        if (known != ports.end()) return known->second;
        return ports[port] = !isNew && PortExists({alias, port});
    }
    bool IsNew() const { return isNew; }
    void SetPort(const std::string &port, bool exists) { ports[port] = exists; }

    Uplinks &Listed()
    {
        if (!listed) listed = ReadUplinks(alias);
        return *listed;
    }

private:
    std::string alias;
    bool isNew;
    std::map<std::string, bool> ports;
    std::optional<Uplinks> listed;
};

constexpr const char *ANY_PORT = "*";

class Checker {
public:
    void Check(const Step &step);

private:
    void CheckSwitch(const Step &step);
    void CheckPort(const Step &step);
    void CheckUplinks(const Step &step);
    void CheckById(const Target &target);
    void CheckProperty(const Step &step);
    void CheckClearing(const Step &step);
    void CheckMirror(const Step &step);
    void CheckPolicy(const Step &step);
    void CheckCreation(const std::string &alias, const Json &value);
    void CheckId(const std::string &id) const;
    void CheckPortset(const std::string &portset) const;

    SwitchState &Find(const std::string &alias);
    SwitchState &FindPort(const Target &port);

    std::map<std::string, SwitchState> switches;
    std::set<std::string> destroyed, freedIds, freedPortsets; // of switches that steps destroy
    std::set<std::string> ids, portsets;                      // that steps use
    using Place = std::pair<std::string, std::string>;        // a switch, and its port if any
    std::map<Place, std::set<std::string>> sessions;          // ids of mirror sessions that steps change
    std::map<std::string, bool> properties;                   // whether properties that steps change exist
    std::set<Place>
        configured; // objects that get properties which no step names; with ANY_PORT, a whole switch
};

// Throws, with the nearest name, when the switch does not exist.
SwitchState &Checker::Find(const std::string &alias)
{
    const auto known = switches.find(alias);
    if (known != switches.end()) return known->second;
    if (destroyed.contains(alias)) vsctl::Check(STATUS_NOT_FOUND, "finding", {alias, ""});
    SwitchId(alias);
    return switches.try_emplace(alias, alias, false).first->second;
}

SwitchState &Checker::FindPort(const Target &port)
{
    SwitchState &found = Find(port.alias);
    if (!found.HasPort(port.port)) vsctl::Check(STATUS_NOT_FOUND, "finding", port);
    return found;
}

void Checker::CheckId(const std::string &id) const
{
    if (!ids.contains(id) && !SwitchIdExists(id)) return;
    const std::string alias = AliasOfId(id);
    throw Error(
        Exit::EXISTS,
        fmt::format("the id '{}' is in use by {}", id, alias.empty() ? "another switch" : "switch " + alias),
        "choose another id with --id, or leave it out for a random one");
}

void Checker::CheckPortset(const std::string &portset) const
{
    const std::string user = portsets.contains(portset) ? "another switch" : PortsetUser(portset);
    if (!user.empty()) {
        throw Error(Exit::EXISTS, fmt::format("portset {} is in use by {}", portset, user),
                    "choose another one with --portset");
    }
    RequireNoBarePortset(portset);
}

void Checker::CheckCreation(const std::string &alias, const Json &value)
{
    const std::string id = value.value("id", ""), portset = value.value("portset", alias);
    if (destroyed.contains(alias) || freedIds.contains(id) || freedPortsets.contains(portset)) {
        throw Error(Exit::USAGE,
                    fmt::format("{} is destroyed and created again, and one change cannot undo that",
                                destroyed.contains(alias) ? "switch " + alias
                                : freedIds.contains(id)   ? fmt::format("a switch with the id '{}'", id)
                                                          : fmt::format("portset {}", portset)),
                    "make two changes");
    }
    if (switches.contains(alias) || SwitchExists(alias)) vsctl::Check(STATUS_EXISTS, "creating", {alias, ""});
    CheckId(id);
    CheckPortset(portset);
    ids.insert(id);
    portsets.insert(portset);
    configured.insert({{alias, ANY_PORT}, {id, ANY_PORT}});
    SwitchState &made = switches.try_emplace(alias, alias, true).first->second;
    for (uint32_t i = 0; i < value.value("uplink-count", 0u); i++) {
        const std::string name = fmt::format("uplink{}", i);
        made.SetPort(name, true);
        made.Listed().names.push_back(name);
        made.Listed().ids.push_back(name);
    }
    for (uint32_t i = 0; i < value.value("port-count", 0u); i++)
        made.SetPort(fmt::format("port{}", i), true);
}

void Checker::CheckSwitch(const Step &step)
{
    const std::string &alias = step.target.alias;
    if (!step.value.is_null()) return CheckCreation(alias, step.value);
    Find(alias);
    if (!switches.at(alias).IsNew()) {
        freedIds.insert(SwitchId(alias));
        freedPortsets.insert(PortsetOf(alias));
    }
    switches.erase(alias);
    destroyed.insert(alias);
}

void Checker::CheckPort(const Step &step)
{
    const std::string &port = step.target.port;
    SwitchState &found = Find(step.target.alias);
    const bool adds = !step.value.is_null();
    if (adds == found.HasPort(port))
        vsctl::Check(adds ? STATUS_EXISTS : STATUS_NOT_FOUND, adds ? "adding" : "removing", step.target);
    if (!adds && Contains(found.Listed().ids, port)) {
        throw Error(Exit::FAILURE, fmt::format("{} is an uplink", step.target.Text()),
                    fmt::format("'vsctl uplink remove {} {}' removes it", step.target.alias, port));
    }
    found.SetPort(port, adds);
    sessions[{step.target.alias, port}] = {};
    configured.insert({step.target.alias, port});
}

// The library deletes uplink lists that name a port which is gone.
void RequireListedPorts(SwitchState &found, const std::string &alias)
{
    for (const std::string &id : found.Listed().ids) {
        if (found.HasPort(id)) continue;
        throw Error(Exit::NOT_FOUND,
                    fmt::format("the uplinks of switch {} name port {}, which is gone", alias, id),
                    fmt::format("'vsctl port add {} {}' adds it again", alias, id));
    }
}

void RequireNewPorts(SwitchState &found, const std::string &alias, const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        if (!found.HasPort(name)) continue;
        const bool isUplink = Contains(found.Listed().ids, name);
        throw Error(
            Exit::EXISTS,
            fmt::format("{} is already {}", Target{alias, name}.Text(), isUplink ? "an uplink" : "a port"),
            isUplink ? "leave it out" : "choose another name, or remove the port first");
    }
}

void Checker::CheckUplinks(const Step &step)
{
    const std::string &alias = step.target.alias;
    SwitchState &found = Find(alias);
    if (step.value.contains("clear")) {
        found.Listed() = {};
        return;
    }
    if (step.value.contains("remove")) {
        const std::string id = step.value["remove"];
        auto &[names, ids] = found.Listed();
        const auto place = std::find(ids.begin(), ids.end(), id);
        if (place == ids.end()) {
            const std::string suggestion = Suggest(id, ids);
            throw Error(Exit::NOT_FOUND, fmt::format("switch {} has no uplink {}", alias, id),
                        suggestion.empty() ? fmt::format("'vsctl uplink list {}' lists its uplinks", alias)
                                           : suggestion);
        }
        RequireListedPorts(found, alias);
        if (names.size() == ids.size()) names.erase(names.begin() + (place - ids.begin()));
        ids.erase(place);
        found.SetPort(id, false);
        return;
    }
    const bool adds = step.value.contains("add");
    const std::vector<std::string> made = PortsMade(step);
    if (adds) RequireListedPorts(found, alias);
    RequireNewPorts(found, alias, made);
    if (!adds) found.Listed() = {};
    for (const std::string &name : made) {
        found.Listed().names.push_back(name);
        found.Listed().ids.push_back(name);
        found.SetPort(name, true);
        configured.insert({alias, name});
    }
}

// A switch that an earlier step creates is known by its id.
void Checker::CheckById(const Target &target)
{
    if (ids.contains(target.alias)) return;
    if (!SwitchIdExists(target.alias)) vsctl::Check(STATUS_NOT_FOUND, "finding", target);
    const std::string alias = AliasOfId(target.alias);
    if (!alias.empty() && !target.port.empty()) FindPort({alias, target.port});
}

void Checker::CheckProperty(const Step &step)
{
    const bool byId = step.value.contains("by-id");
    if (byId)
        CheckById(step.target);
    else
        step.target.port.empty() ? Find(step.target.alias) : FindPort(step.target);
    CheckClearing(step);
}

void Checker::CheckClearing(const Step &step)
{
    const auto &[alias, port] = step.target;
    const std::string key = step.value["key"], level = step.value["level"];
    const std::string name =
        Json({alias, port, level, key}).dump(-1, ' ', false, Json::error_handler_t::replace);
    const bool clears = step.value["bytes"].is_null();
    const auto known = properties.find(name);
    bool exists = true;
    if (known != properties.end()) {
        exists = known->second;
    } else if (clears && !configured.contains({alias, port}) && !configured.contains({alias, ANY_PORT})) {
        Step present = step;
        ReadBefore(present);
        exists = !present.before.is_null();
    }
    properties[name] = !clears;
    if (!clears || exists) return;
    throw Error(Exit::NOT_FOUND, fmt::format("{} has no property {}", step.target.Text(), key),
                PropertyAdvice(step.target, step.value.contains("by-id")));
}

void Checker::CheckMirror(const Step &step)
{
    const auto &[alias, port] = step.target;
    port.empty() ? Find(alias) : FindPort(step.target);
    const auto [known, isFirst] = sessions.try_emplace({alias, port});
    Step present = step;
    if (isFirst && !Find(alias).IsNew()) ReadBefore(present);
    if (isFirst && present.before.is_array()) {
        for (const Json &session : present.before)
            known->second.insert(session["id"]);
    }
    const std::string where = port.empty() ? alias : alias + " " + port;
    if (step.value.contains("remove")) {
        const std::string id = step.value["remove"];
        if (known->second.erase(id)) return;
        throw Error(Exit::NOT_FOUND, fmt::format("{} has no mirror session {}", step.target.Text(), id),
                    fmt::format("'vsctl mirror list {}' lists its sessions", where));
    }
    for (const Json &session : step.value["append"]) {
        const std::string id = session["id"];
        if (!known->second.contains(id)) continue;
        throw Error(Exit::EXISTS, fmt::format("{} already has a mirror session {}", step.target.Text(), id),
                    fmt::format("'vsctl mirror list {}' shows it", where));
    }
    for (const Json &session : step.value["append"])
        known->second.insert(session["id"].get<std::string>());
}

void Checker::CheckPolicy(const Step &step)
{
    const auto &[alias, port] = step.target;
    const SwitchState &found = port.empty() ? Find(alias) : FindPort(step.target);
    configured.insert({alias, port});
    if (step.item == "mtu" && !found.IsNew()) RequireRunning("setting mtu of", step.target);
    if (step.item != "mirror" && step.item != "uplink-mirror") return;
    auto &ids = sessions[{alias, port}] = {};
    for (const Json &session : step.value.is_null() ? Json::array() : step.value)
        ids.insert(session["id"].get<std::string>());
}

void Checker::Check(const Step &step)
{
    if (step.item == "switch") return CheckSwitch(step);
    if (step.item == "port") return CheckPort(step);
    if (step.item == "uplinks") return CheckUplinks(step);
    if (step.item == "property") return CheckProperty(step);
    if (step.item == "mirror-sessions") return CheckMirror(step);
    if (step.item == "uplink-admin") return void(Find(step.target.alias));
    CheckPolicy(step);
}

}

void CheckSteps(const std::vector<Step> &steps)
{
    Checker checker;
    for (const Step &step : steps)
        checker.Check(step);
}

}
