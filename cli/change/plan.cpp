// The file of a desired state: its schema, and the steps from the present state to it.
#include "cli/change/plan.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

#include "cli/change/replaced.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

// ---- The check of a file ----

constexpr Field SWITCH_FIELDS[] = {
    {"id", Form::TEXT, "Switch id (default: a random one)", 1, SWITCH_ID_SIZE - 1},
    {"portset", Form::TEXT, "Kernel name (default: the alias)", 1, PORTSET_NAME_SIZE - 1},
    {"version", Form::NUMBER, "Version number", 0, UINT32_MAX},
    {"opaque", Form::BOOLEAN, "Whether the switch is opaque"},
    {"max-ports", Form::NUMBER, "Ports that the switch can have", 1, MAX_PORTS},
    {"uplinks", Form::NAMES, "All uplinks of the switch", 0, DV_PORT_ID_SIZE - 1},
    {"clear", Form::NAMES, "Policies to remove", 0, 64},
    {"absent", Form::BOOLEAN, "Whether to destroy the switch"},
};
constexpr const char *PLUGGED_KEY = "plugged";
constexpr Field PORT_FIELDS[] = {
    {"connect-id", Form::NUMBER, "Connect id of a new port", 0, UINT32_MAX},
    {"external-id", Form::TEXT, "External id of an opaque port", 0, 1023},
    {PLUGGED_KEY, Form::TEXT, "Network interface that is plugged to the port, on a live host", 1,
     sizeof vshost_port::interface - 1, "", nullptr, true},
    {"clear", Form::NAMES, "Policies to remove", 0, 64},
    {"absent", Form::BOOLEAN, "Whether to remove the port"},
};
// Attributes that only creation sets.
constexpr const char *FIXED_ATTRIBUTES[] = {"id",        "portset",    "version",    "opaque",
                                            "max-ports", "connect-id", "external-id"};
constexpr const char *PORTS_KEY = "ports";
// The sink bit is part of the extra Ethernet filter, so a port in a file cannot have both.
constexpr const char *FILTER_KEY = "eth-filter";
constexpr const char *SINK_KEY = "sink";
constexpr uint32_t DEFAULT_CONNECT_ID = 1; // of uplinks and opaque ports too, which cannot have another

std::span<const Field> FieldsOf(bool ofPort)
{
    return ofPort ? std::span<const Field>(PORT_FIELDS) : std::span<const Field>(SWITCH_FIELDS);
}

std::vector<std::string> KnownKeys(bool ofPort)
{
    std::vector<std::string> keys;
    for (const Field &field : FieldsOf(ofPort))
        keys.emplace_back(field.name);
    for (const Policy *policy : PoliciesOf(ofPort))
        keys.emplace_back(policy->name);
    if (!ofPort) keys.emplace_back(PORTS_KEY);
    return keys;
}

// All faults of a file.
class Faults {
public:
    template<class Check> bool Try(Check check)
    {
        try {
            check();
            return true;
        } catch (const Error &error) {
            if (error.exit != Exit::BAD_VALUE) throw; // of the platform
            if (!first) first = error;
            if (known.insert(error.problem).second && error.problem != first->problem)
                first->more.push_back(error.problem);
            return false;
        }
    }
    void ThrowIfAny() const
    {
        if (first) throw *first;
    }

private:
    std::set<std::string> known;
    std::optional<Error> first;
};

std::string SwitchPointer(const std::string &alias) { return "/switches/" + PointerStep(alias); }

// Looks for all faults of a file.
class FileCheck {
public:
    explicit FileCheck(const Document &document) : document(document) {}

    void CheckFile()
    {
        for (const auto &[key, value] : document.Root().items()) {
            if (key != "switches") throw document.At("/" + PointerStep(key), UnknownKey(key, {"switches"}));
            RequireTable(value, "/switches");
        }
        if (!document.Root().contains("switches")) throw document.At("", "the file has no 'switches'");
        for (const auto &[alias, entry] : document.Root()["switches"].items()) {
            const std::string where = SwitchPointer(alias);
            faults.Try([&, &alias = alias] { CheckName(SWITCH_ALIAS, alias, where); });
            const bool isSound = CheckEntry(entry, where, false);
            if (entry.is_object() && entry.contains(PORTS_KEY))
                CheckPorts(entry[PORTS_KEY], where + "/ports");
            if (isSound) faults.Try([&, &entry = entry] { CheckUplinks(entry, where); });
        }
        faults.ThrowIfAny();
    }

private:
    void RequireTable(const Json &value, const std::string &pointer)
    {
        if (!value.is_object()) throw document.At(pointer, "must be a table");
    }

    void CheckClear(const Json &entry, const std::string &pointer, bool ofPort)
    {
        if (!entry.contains("clear")) return;
        for (size_t i = 0; i < entry["clear"].size(); i++) {
            const std::string name = entry["clear"][i];
            const Policy *policy = FindPolicy(name, ofPort);
            const std::string where = fmt::format("{}/clear/{}", pointer, i);
            if (!policy || !policy->CanClear())
                throw document.At(where,
                                  fmt::format("names '{}', which is not a policy that can be cleared", name));
            if (entry.contains(name))
                throw document.At(where, fmt::format("names '{}', which is also set", name));
        }
    }

    void CheckFilter(const Json &entry, const std::string &pointer)
    {
        const Json cleared = entry.value("clear", Json::array());
        const auto names = [&](const char *key) { return entry.contains(key) || Contains(cleared, key); };
        if (names(FILTER_KEY) && names(SINK_KEY))
            throw document.At(pointer, fmt::format("can have '{}' or '{}', not both", FILTER_KEY, SINK_KEY));
    }

    void CheckUplinks(const Json &entry, const std::string &pointer)
    {
        const Json uplinks = entry.value("uplinks", Json::array());
        const Json ports = entry.value(PORTS_KEY, Json::object());
        for (size_t i = 0; i < uplinks.size(); i++) {
            const std::string name = uplinks[i];
            const std::string where = fmt::format("{}/uplinks/{}", pointer, i);
            if (std::find(uplinks.begin(), uplinks.end(), name) - uplinks.begin() !=
                static_cast<ptrdiff_t>(i))
                throw document.At(where, fmt::format("names '{}' twice", name));
            if (ports.contains(name) && ports[name].value("absent", false))
                throw document.At(where, fmt::format("names the port '{}', which is to be absent", name));
        }
    }

    void CheckName(const Field &rule, const std::string &name, const std::string &pointer)
    {
        if (auto fault = FindViolation(rule, name, pointer)) throw document.At(pointer, fault->message);
    }

    void CheckAbsent(const Json &entry, const std::string &pointer)
    {
        if (entry.value("absent", false) && entry.size() > 1)
            throw document.At(pointer + "/absent", "is true, so nothing else can be set");
    }

    void CheckMember(const std::string &key, const Json &value, const std::string &where, bool ofPort)
    {
        std::optional<Violation> fault;
        if (const Field *field = FindField(FieldsOf(ofPort), key))
            fault = FindViolation(*field, value, where);
        else if (const Policy *policy = FindPolicy(key, ofPort))
            fault = FindViolation(*policy, value, where);
        else if (ofPort || key != PORTS_KEY)
            throw document.At(where, UnknownKey(key, KnownKeys(ofPort)));
        if (fault) throw document.At(fault->pointer, fault->message);
    }

    // Returns whether the entry is sound.
    bool CheckEntry(const Json &entry, const std::string &pointer, bool ofPort)
    {
        if (!faults.Try([&] { RequireTable(entry, pointer); })) return false;
        bool isSound = true;
        for (const auto &[key, value] : entry.items()) {
            isSound = faults.Try([&, &key = key, &value = value] {
                CheckMember(key, value, pointer + "/" + PointerStep(key), ofPort);
            }) && isSound;
        }
        return isSound && faults.Try([&] {
            CheckClear(entry, pointer, ofPort);
            CheckAbsent(entry, pointer);
            CheckFilter(entry, pointer);
        });
    }

    void CheckPorts(const Json &ports, const std::string &pointer)
    {
        if (!faults.Try([&] { RequireTable(ports, pointer); })) return;
        std::set<std::string> named;
        for (const auto &[key, entry] : ports.items()) {
            const std::string where = pointer + "/" + PointerStep(key);
            CheckEntry(entry, where, true);
            std::vector<std::string> names;
            faults.Try([&, &key = key] {
                try {
                    names = PortNames(key);
                } catch (const Error &error) {
                    throw document.At(where, "is not valid: " + error.problem);
                }
            });
            for (const std::string &port : names) {
                faults.Try([&] {
                    CheckName(PORT_ID, port, where);
                    if (!named.insert(port).second)
                        throw document.At(where, fmt::format("describes {} twice", port));
                });
            }
        }
    }

    const Document &document;
    Faults faults;
};

// ---- The steps ----

class Planner {
public:
    explicit Planner(const Document &document) : document(document) {}

    void AddSwitch(const std::string &alias, const Json &entry, Faults &faults);
    std::vector<Step> Steps() const;

private:
    void AddInterface(const Target &port, const Json &entry, const char *present);
    void AddCreation(const Target &target, const Json &entry, const std::string &pointer);
    void AddUplinks(const Target &target, const Json &entry);
    void AddPort(const Target &port, const Json &entry, const std::string &pointer);
    std::vector<Step> PolicySteps(const Target &target, const Json &entry) const;
    void AddPort(const vshost_port &known, const Target &port, const Json &entry, const std::string &pointer);
    bool IsLeaving(const Target &port) const;
    void RequireSameAttributes(const Target &target, const Json &entry, const Json &present,
                               const std::string &pointer) const;

    const Document &document;
    Json uplinkNames; // that the file lists of the switch whose ports are added
    std::map<std::pair<std::string, uint64_t>, std::vector<Step>> planned; // by pointer and properties
    std::vector<Step> creations, uplinks, ports, settings, interfaces, portRemovals, uplinkRemovals,
        destructions;
};

void Planner::RequireSameAttributes(const Target &target, const Json &entry, const Json &present,
                                    const std::string &pointer) const
{
    for (const char *key : FIXED_ATTRIBUTES) {
        if (!entry.contains(key) || (!present.contains(key) && std::string_view(key) == "max-ports"))
            continue;
        const Json now = present.value(key, Json());
        if (now == entry[key]) continue;
        throw document.At(
            fmt::format("{}/{}", pointer, key),
            fmt::format("cannot be changed: {} has {}", target.Text(), now.is_null() ? "none" : Dump(now)));
    }
}

// The steps that change something.
std::vector<Step> Planner::PolicySteps(const Target &target, const Json &entry) const
{
    std::vector<Step> steps;
    const Json cleared = entry.value("clear", Json::array());
    for (const Policy *policy : PoliciesOf(!target.port.empty())) {
        const bool clears = Contains(cleared, policy->name);
        if (!clears && !entry.contains(policy->name)) continue;
        Step step = SetPolicy(*policy, target, clears ? Json() : entry[policy->name]);
        ReadBefore(step);
        if (step.before != After(step)) steps.push_back(step);
    }
    return steps;
}

void Planner::AddUplinks(const Target &target, const Json &entry)
{
    if (!entry.contains("uplinks")) return;
    const std::vector<std::string> wanted = entry["uplinks"];
    const std::vector<std::string> present =
        SwitchExists(target.alias) ? ReadUplinks(target.alias).ids : std::vector<std::string>();
    const auto addMissing = [&](const auto &from, const auto &in, const char *verb,
                                std::vector<Step> &steps) {
        for (const std::string &name : from) {
            if (!Contains(in, name)) steps.push_back({"uplinks", target, {{verb, name}}});
        }
    };
    addMissing(wanted, present, "add", uplinks);
    addMissing(present, wanted, "remove", uplinkRemovals);
}

// Whether the port is an uplink that the file no longer lists.
bool Planner::IsLeaving(const Target &port) const
{
    return std::any_of(uplinkRemovals.begin(), uplinkRemovals.end(), [&port](const Step &step) {
        return step.target.alias == port.alias && step.value["remove"] == port.port;
    });
}

void Planner::AddPort(const Target &port, const Json &entry, const std::string &pointer)
{
    const Json present = ReadPort(port);
    const bool isAbsent = entry.value("absent", false), isLeaving = IsLeaving(port);
    if (isLeaving && !isAbsent) throw document.At(pointer, "is an uplink that 'uplinks' does not list");
    if (isLeaving) return;
    if (isAbsent) {
        if (!present.is_null()) portRemovals.push_back({"port", port, nullptr});
        return;
    }
    const bool isUplink = Contains(uplinkNames, port.port);
    const Json external = entry.value("external-id", Json());
    if (!present.is_null()) {
        RequireSameAttributes(port, entry, present, pointer);
    } else if (isUplink || !external.is_null()) {
        const Json made = {{"connect-id", DEFAULT_CONNECT_ID}, {"external-id", isUplink ? Json() : external}};
        RequireSameAttributes(port, entry, made, pointer);
        if (!isUplink) ports.push_back({"port", port, {{"external-id", external}}});
    } else {
        ports.push_back({"port", port, {{"connect-id", entry.value("connect-id", DEFAULT_CONNECT_ID)}}});
    }
    for (Step &step : PolicySteps(port, entry))
        settings.push_back(std::move(step));
}

// Ports with equal properties lack the same: what a file's entry changes is found out once.
void Planner::AddPort(const vshost_port &known, const Target &port, const Json &entry,
                      const std::string &pointer)
{
    const auto [found, isNew] = planned.try_emplace({pointer, known.properties});
    if (isNew) {
        const size_t first = settings.size();
        AddPort(port, entry, pointer);
        found->second.assign(settings.begin() + static_cast<ptrdiff_t>(first), settings.end());
        return;
    }
    for (Step &step : found->second) {
        step.target = port;
        settings.push_back(step);
    }
}

void Planner::AddCreation(const Target &target, const Json &entry, const std::string &pointer)
{
    Json value;
    if (entry.contains("id")) value["id"] = entry["id"];
    value["portset"] = entry.value("portset", target.alias);
    for (const char *key : {"version", "opaque", "max-ports"}) {
        if (entry.contains(key)) value[key] = entry[key];
    }
    try {
        RequirePortsetName(value["portset"]);
    } catch (const Error &error) {
        throw document.At(pointer, "needs another portset: " + error.problem);
    }
    creations.push_back({"switch", target, value});
}

// An interface is not a property. `present` is null where no interface can be plugged yet.
void Planner::AddInterface(const Target &port, const Json &entry, const char *present)
{
    if (!entry.contains(PLUGGED_KEY)) return;
    const Json wanted = entry[PLUGGED_KEY] == NONE ? Json() : entry[PLUGGED_KEY];
    const Json now = present && *present ? Json(present) : Json();
    if (wanted != now) interfaces.push_back({"plugged", port, {{"plugged", wanted}}, now, true});
}

void Planner::AddSwitch(const std::string &alias, const Json &entry, Faults &faults)
{
    const Target target{alias, ""};
    const std::string pointer = SwitchPointer(alias);
    const Json present = ReadSwitch(alias);
    if (entry.value("absent", false)) {
        if (!present.is_null()) destructions.push_back({"switch", target, nullptr});
        return;
    }
    faults.Try([&] {
        if (present.is_null())
            AddCreation(target, entry, pointer);
        else
            RequireSameAttributes(target, entry, present, pointer);
    });
    AddUplinks(target, entry);
    for (Step &step : PolicySteps(target, entry))
        settings.push_back(std::move(step));
    if (!entry.contains(PORTS_KEY)) return;
    std::map<std::string, vshost_port> known;
    for (const vshost_port &port : present.is_null() ? std::vector<vshost_port>() : PortsOf(alias))
        known[port.id] = port;
    uplinkNames = entry.value("uplinks", Json::array());
    for (const auto &[key, port] : entry[PORTS_KEY].items()) {
        const std::string where = pointer + "/ports/" + PointerStep(key);
        for (const std::string &name : PortNames(key)) {
            const auto listed = known.find(name);
            // Being an uplink, and absent, are not properties.
            const bool isOwn =
                listed == known.end() || listed->second.isUplink || port.value("absent", false);
            AddInterface({alias, name}, port, isOwn ? nullptr : listed->second.interface);
            faults.Try([&, &port = port] {
                if (isOwn)
                    AddPort({alias, name}, port, where);
                else
                    AddPort(listed->second, {alias, name}, port, where);
            });
        }
    }
}

// Removals come last, because everything before them can be undone completely.
std::vector<Step> Planner::Steps() const
{
    std::vector<Step> steps;
    for (const auto *list : {&creations, &uplinks, &ports, &settings, &interfaces, &portRemovals,
                             &uplinkRemovals, &destructions})
        steps.insert(steps.end(), list->begin(), list->end());
    return steps;
}

// `document` names the places of errors.
std::vector<Step> PlanSwitches(const Document &document, const Json &switches)
{
    Planner planner(document);
    Faults faults;
    for (const auto &[alias, entry] : switches.items())
        planner.AddSwitch(alias, entry, faults);
    faults.ThrowIfAny();
    return planner.Steps();
}

Json EntrySchema(bool ofPort)
{
    Json schema = Schema(FieldsOf(ofPort));
    Json &properties = schema["properties"];
    Json cleared = Json::array();
    for (const Policy *policy : PoliciesOf(ofPort)) {
        properties[policy->name] = Schema(*policy);
        if (policy->CanClear()) cleared.push_back(policy->name);
    }
    properties["clear"]["items"] = {{"enum", cleared}};
    if (!ofPort) {
        properties[PORTS_KEY] = {
            {"description", "Ports by id; a range like port0..port7 describes each of its ports"},
            {"type", "object"},
            {"additionalProperties", {{"$ref", "#/$defs/port"}}}};
    }
    return schema;
}

// Describes one port for all that have equal properties, where the platform tells which these are.
class Exporter {
public:
    explicit Exporter(std::string alias) : alias(std::move(alias))
    {
        for (const vshost_port &port : PortsOf(this->alias))
            listed[port.id] = port;
    }

    std::vector<std::string> AllPorts() const
    {
        std::vector<std::string> names;
        for (const auto &[name, port] : listed)
            names.push_back(name);
        return names;
    }

    void Add(const std::string &name)
    {
        if (!added.insert(name).second) return;
        const auto known = listed.find(name);
        if (known == listed.end()) return blocks[Read(name)].push_back(name);
        const auto [block, isNew] = byProperties.try_emplace(known->second.properties, nullptr);
        if (isNew) block->second = Read(name);
        if (!*known->second.interface) return blocks[block->second].push_back(name);
        Json entry = block->second;
        entry[PLUGGED_KEY] = known->second.interface;
        blocks[entry].push_back(name);
    }

    Json Ports() const
    {
        std::map<std::string, const Block *, decltype(&ComesBefore)> sorted(ComesBefore); // by first names
        for (const Block &block : blocks)
            sorted[std::ranges::min(block.second, ComesBefore)] = &block;
        Json::object_t ports;
        for (const auto &[first, block] : sorted)
            ports.emplace_back(fmt::format("{}", fmt::join(PortRanges(block->second), ",")), block->first);
        return ports;
    }

private:
    using Block = std::pair<const Json, std::vector<std::string>>; // ports that a file describes alike

    Json Read(const std::string &name)
    {
        const Target port{alias, name};
        if (!PortExists(port)) Check(STATUS_NOT_FOUND, "exporting", port);
        return ReadPort(port);
    }

    const std::string alias;
    std::map<std::string, vshost_port> listed;
    std::set<std::string> added;
    std::map<uint64_t, Json> byProperties;
    std::map<Json, std::vector<std::string>> blocks;
};

}

void CheckDocument(const Document &document) { FileCheck(document).CheckFile(); }

std::vector<Step> PlanSteps(const Document &document)
{
    CheckDocument(document);
    return PlanSwitches(document, document.Root()["switches"]);
}

std::vector<Step> PlanSteps(const Document &document, const Document &replaced)
{
    CheckDocument(document);
    CheckDocument(replaced);
    Json switches = document.Root()["switches"];
    AddRemovals(switches, replaced.Root()["switches"]);
    return PlanSwitches(document, switches);
}

Json PlanSchema()
{
    const Json switches = {
        {"description", "Switches by alias"},
        {"type", "object"},
        {"propertyNames", {{"minLength", SWITCH_ALIAS.min}, {"maxLength", SWITCH_ALIAS.max}}},
        {"additionalProperties", {{"$ref", "#/$defs/switch"}}}};
    return {{"$schema", "https://json-schema.org/draft/2020-12/schema"},
            {"title", "The desired state for vsctl plan and vsctl apply"},
            {"type", "object"},
            {"properties", {{"switches", switches}}},
            {"required", {"switches"}},
            {"additionalProperties", false},
            {"$defs", {{"switch", EntrySchema(false)}, {"port", EntrySchema(true)}}}};
}

Json ExportFile(const std::vector<Target> &targets)
{
    std::map<std::string, std::vector<std::string>> named; // ports of switches
    std::vector<std::string> aliases;
    for (const Target &target : targets) {
        auto [ports, isNew] = named.try_emplace(target.alias);
        if (isNew) aliases.push_back(target.alias);
        if (!target.port.empty()) ports->second.push_back(target.port);
    }
    Json file = {{"switches", Json::object()}};
    for (const std::string &alias : aliases) {
        SwitchId(alias);
        Json &entry = file["switches"][alias] = ReadSwitch(alias);
        Exporter exporter(alias);
        for (const std::string &port : named[alias].empty() ? exporter.AllPorts() : named[alias])
            exporter.Add(port);
        if (Json ports = exporter.Ports(); !ports.empty()) entry[PORTS_KEY] = std::move(ports);
    }
    return file;
}

}
