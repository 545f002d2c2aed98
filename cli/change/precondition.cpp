// The checks of a change before its first write.
#include "cli/change/precondition.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

#include "cli/base/limit.h"
#include "cli/base/records.h"

namespace vsctl {

namespace {

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
    // The steps that a step about mirror sessions stands for, once it is known where they are.
    std::vector<Step> Expand(const Step &step);
    void Check(const Step &step);
    // Reads the state before a step that is checked, and adds it.
    void Add(Step &step);
    Preview preview;

private:
    void CheckSwitch(const Step &step);
    void CheckPort(const Step &step);
    void CheckUplinks(const Step &step);
    void CheckById(const Target &target);
    void CheckProperty(const Step &step);
    void CheckClearing(const Step &step);
    void CheckEntries(const Step &step, const Policy &policy);
    void RequirePortEntries(const std::string &alias, const Json &sessions);
    void CheckPolicy(const Step &step);
    void CheckCreation(const std::string &alias, const Json &value);
    void CheckId(const std::string &id) const;
    void CheckPortset(const std::string &portset) const;

    SwitchState &Find(const std::string &alias);
    SwitchState &FindPort(const Target &port);
    Json Before(const Step &step) const;
    std::vector<Step> MirrorLists(const Step &step);
    void RequireUplinks(const Step &step, const Json &row);

    std::map<std::string, SwitchState> switches;
    std::set<std::string> destroyed, freedIds, freedPortsets; // of switches that steps destroy
    std::set<std::string> ids, portsets;                      // that steps use
    // Objects that get properties which no step names: a switch and its port if any; with ANY_PORT, all of
    // it.
    std::set<std::pair<std::string, std::string>> configured;
    States states;
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
    if (!id.empty()) CheckId(id);
    CheckPortset(portset);
    if (!id.empty()) ids.insert(id);
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

// `adds`: to those that are listed.
void RequireNewPorts(SwitchState &found, const Target &target, const std::vector<std::string> &names,
                     bool adds)
{
    for (const std::string &name : names) {
        if (!found.HasPort(name)) continue;
        const bool isUplink = Contains(found.Listed().ids, name);
        Error error(Exit::EXISTS,
                    fmt::format("{} is already {}", Target{target.alias, name}.Text(),
                                isUplink ? "an uplink" : "a port"),
                    !isUplink ? "choose another name, or remove the port first"
                    : adds
                        ? "leave it out"
                        : "uplinks that replace others need new names: 'vsctl uplink add' and 'vsctl uplink "
                          "remove' keep what is there");
        throw isUplink ? WithStatus(error, STATUS_EXISTS) : error;
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
    RequireNewPorts(found, step.target, made, adds);
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
    RequireSwitchId(target.alias);
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
    const bool isConfigured = configured.contains({alias, port}) || configured.contains({alias, ANY_PORT});
    if (!step.value["bytes"].is_null() || (isConfigured && !states.IsChanged(step))) return;
    if (!Before(step).is_null()) return;
    const std::string key = step.value["key"];
    throw Error(Exit::NOT_FOUND, fmt::format("{} has no property {}", step.target.Text(), key),
                PropertyAdvice(step.target, step.value.contains("by-id")));
}

// What the step finds, whose `before` need not be read.
Json Checker::Before(const Step &step) const
{
    Step present = step;
    if (!states.Knows(step)) ReadBefore(present);
    return states.Before(present);
}

// The lists of mirror sessions of a switch that are not empty.
std::vector<Step> Checker::MirrorLists(const Step &step)
{
    const std::string &alias = step.target.alias;
    std::set<std::string> places = states.PortsWith(alias, step.item);
    places.insert("");
    if (!Find(alias).IsNew()) {
        for (const vshost_port &port : PortsOf(alias))
            places.insert(port.id);
    }
    std::vector<Step> found;
    for (const std::string &port : places) {
        Step list{step.item, {alias, port}, nullptr};
        if (!Before(list).empty()) found.push_back(list);
    }
    return found;
}

std::vector<Step> Checker::Expand(const Step &step)
{
    if (step.item != "mirror" || !step.value.is_object()) return {step};
    if (step.value.contains("add")) {
        Step placed = step;
        if (Contains(Find(step.target.alias).Listed().ids, step.target.port)) placed.target.port = "";
        return {placed};
    }
    if (!step.value.contains("everywhere")) return {step};
    const Json names = step.value.value("remove", Json::array());
    std::vector<Step> steps = MirrorLists(step);
    if (names.empty()) return steps; // each is cleared
    for (Step &list : steps) {
        const Json entries = Before(list);
        const bool has = std::any_of(entries.begin(), entries.end(), [&names](const Json &session) {
            return session["session"] == names[0];
        });
        if (has) return {RemoveEntries(MirrorPolicy(list.target), list.target, names)};
    }
    return {RemoveEntries(MirrorPolicy(step.target), step.target, names)}; // which is missing
}

void Checker::CheckEntries(const Step &step, const Policy &policy)
{
    const Json list = Before(step);
    const std::string advice = fmt::format("'vsctl {} list {}' lists them", policy.name, step.target.alias);
    const auto find = [&](const std::string &name) {
        return std::find_if(list.begin(), list.end(),
                            [&](const Json &entry) { return IsNamed(policy, entry, name); });
    };
    for (const Json &name : step.value.value("remove", Json::array())) {
        if (find(name) != list.end()) continue;
        throw Error(Exit::NOT_FOUND,
                    fmt::format("{} has no {} {}", step.target.Text(), policy.noun, name.get<std::string>()),
                    advice);
    }
    const Json added = step.value.value("add", Json::array());
    for (const Json &entry : added) {
        const std::string name = EntryName(*policy.fields[0].layout, entry);
        const auto found = find(name);
        if (found == list.end() || (*found == entry && added.size() > 1)) continue;
        Error error(Exit::EXISTS,
                    fmt::format("{} already has the {} {}", step.target.Text(), policy.noun, name), advice);
        throw *found == entry ? WithStatus(error, STATUS_EXISTS) : error;
    }
    if (IsEmbedded() && policy.fields[0].layout == &MIRROR_SESSION)
        RequirePortEntries(step.target.alias, added);
}

// The ports that new mirror sessions name.
void Checker::RequirePortEntries(const std::string &alias, const Json &sessions)
{
    for (const Json &session : sessions) {
        for (const Field &field : MIRROR_SESSION.beside) {
            const Json names =
                field.form == Form::ENTRIES ? session.value(field.name, Json::array()) : Json::array();
            for (const std::string name : names) {
                if (!PortEntryNumber(name) && name.size() < DV_PORT_ID_SIZE) FindPort({alias, name});
            }
        }
    }
}

void Checker::CheckPolicy(const Step &step)
{
    const auto &[alias, port] = step.target;
    const SwitchState &found = port.empty() ? Find(alias) : FindPort(step.target);
    configured.insert({alias, port});
    if (step.item == "mtu" && !found.IsNew()) RequireRunning("setting mtu of", step.target);
    const Policy &policy = *PolicyOf(step);
    if (NeedsPublishedLayout(policy, step.value) && !IsEmbedded()) {
        throw Error(Exit::USAGE, fmt::format("{} has fields that this platform doesn't publish", policy.name),
                    "give its bytes in hexadecimal");
    }
    if (policy.IsList() && step.value.is_object()) CheckEntries(step, policy);
}

void Checker::Check(const Step &step)
{
    if (step.item == "switch") return CheckSwitch(step);
    if (step.item == "port") return CheckPort(step);
    if (step.item == "uplinks") return CheckUplinks(step);
    if (step.item == "property") return CheckProperty(step);
    if (step.item == "uplink-admin") return void(Find(step.target.alias));
    if (step.item == "plugged") return void(FindPort(step.target));
    CheckPolicy(step);
}

void Checker::Add(Step &step)
{
    ReadBefore(step);
    RequireUplinks(step, states.Add(step, preview));
}

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

// A teaming policy names uplinks of its switch, or those that it named before.
void Checker::RequireUplinks(const Step &step, const Json &row)
{
    if (step.item != "teaming" && step.item != "ls-teaming") return;
    const std::string &alias = step.target.alias;
    const auto &uplinks = Find(alias).Listed().ids;
    const auto known = UplinksNamed(row["before"]);
    for (const std::string &name : UplinksNamed(row["after"])) {
        if (Contains(uplinks, name) || known.contains(name)) continue;
        throw Error(
            Exit::NOT_FOUND,
            fmt::format("{} names {}, which is not an uplink of switch {}", StepText(step), name, alias),
            uplinks.empty() ? fmt::format("'vsctl uplink add {} {}' adds it", alias, name)
                            : fmt::format("its uplinks are {}", fmt::join(uplinks, ", ")));
    }
}

// Whether the error says that what an optional step does is done already.
bool IsDone(const Step &step, const Error &error)
{
    const bool removes = step.value.is_null() || step.value.contains("remove");
    return removes ? error.exit == Exit::NOT_FOUND : error.status == STATUS_EXISTS;
}

}

Preview CheckSteps(std::vector<Step> &steps)
{
    Checker checker;
    std::vector<Step> expanded;
    for (const Step &step : steps) {
        RestartTimeLimit();
        std::vector<Step> parts;
        try {
            parts = checker.Expand(step);
            for (const Step &part : parts)
                checker.Check(part);
        } catch (const Error &error) {
            if (!step.isOptional || !IsDone(step, error)) throw;
            continue;
        }
        for (Step &part : parts) {
            checker.Add(part);
            expanded.push_back(std::move(part));
        }
    }
    steps = std::move(expanded);
    return std::move(checker.preview);
}

}
