// vsctl port: distributed ports; and the verbs of the policies of ports and switches.
#include <fmt/format.h>

#include "cli/base/platform.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

uint32_t PortNumber(const Target &port, bool byId = false)
{
    uint32_t number = 0;
    Check(byId ? VSDVS_DvPortIDToPortIDFromDVSID(port.Alias(), port.Port(), &number)
               : VSDVS_DvPortIDToPortID(port.Alias(), port.Port(), &number),
          "reading the number of", port);
    return number;
}

// A step for each port; null removes it.
Result PortSteps(const Arguments &arguments, const Json &value)
{
    Result result;
    for (const Target &port : arguments.Ports()) {
        if (!value.is_null()) RequireName(PORT_ID, port.port);
        result.steps.push_back({"port", port, value});
    }
    return result;
}

Result Add(const Verb &, const Arguments &arguments)
{
    return PortSteps(arguments, {{"connect-id", arguments.Number("--connect-id", 1)}});
}

Result AddOpaque(const Verb &, const Arguments &arguments)
{
    return PortSteps(arguments, {{"external-id", arguments.Text("EXTERNAL-ID")}});
}

Result Remove(const Verb &, const Arguments &arguments) { return PortSteps(arguments, nullptr); }

Json ShowRow(const Target &port)
{
    Json row = {{"switch", port.alias}, {"port", port.port}, {"number", PortNumber(port)}};
    const Json stored = ReadPort(port);
    for (const char *key : {"connect-id", "external-id"}) {
        if (stored.contains(key)) row[key] = stored[key];
    }
    for (const Policy *policy : PoliciesOf(true)) {
        const Json value = ReadPolicy(*policy, port);
        if (!value.is_null()) row[policy->name] = value;
    }
    return row;
}

Result Show(const Verb &, const Arguments &arguments)
{
    SwitchId(arguments.Text("SWITCH"));
    Result result;
    for (const Target &port : arguments.Ports())
        result.rows.push_back(ShowRow(port));
    return result;
}

Result List(const Verb &, const Arguments &arguments)
{
    const std::string &alias = arguments.Text("SWITCH");
    const std::string id = SwitchId(alias);
    if (!IsEmbedded())
        throw Error(Exit::FAILURE, "this platform does not list ports",
                    "'vsctl port show' shows the ports that you name");
    const auto ports = ListPorts(id);
    if (!ports) Check(STATUS_NOT_FOUND, "finding", {alias, ""});
    Result result;
    for (const vshost_port &port : *ports) {
        result.rows.push_back({{"switch", alias},
                               {"port", port.id},
                               {"number", port.number},
                               {"uplink", port.isUplink != 0},
                               {"nic", *port.nic ? Json(port.nic) : Json()}});
    }
    return result;
}

Result Number(const Verb &, const Arguments &arguments)
{
    const bool byId = arguments.Has("--by-id");
    if (!byId) SwitchId(arguments.Text("SWITCH"));
    Result result;
    for (const Target &port : arguments.Ports())
        result.rows.push_back(
            {{"switch", port.alias}, {"port", port.port}, {"number", PortNumber(port, byId)}});
    return result;
}

Result Hint(const Verb &, const Arguments &arguments)
{
    SwitchId(arguments.Text("SWITCH"));
    Result result;
    for (const Target &port : arguments.Ports()) {
        uint8_t hint[UPLINK_HINT_SIZE];
        CheckDriver(VSZOR_PortGetTeamUplinkHint(PortNumber(port), hint), "reading the uplink of", port);
        result.rows.push_back(RowOf(port, Decode(Record::HINT, hint, sizeof hint)));
    }
    return result;
}

// ---- Verbs of policies ----

std::vector<Target> Targets(const Policy &policy, const Arguments &arguments)
{
    if (policy.IsOfPort()) return arguments.Ports();
    return {arguments.Target()};
}

std::string OptionName(const Field &field) { return std::string("--") + field.name; }

size_t EntrySize(const Field &field) { return static_cast<size_t>(field.max); }

// The value that a file holds: JSON for mirror sessions, bytes for records and lists of records.
Json FileValue(const Field &field, const std::string &path)
{
    const std::string content = ReadFile(path);
    if (field.form == Form::SESSIONS) return ParseWord(field, content);
    if (field.form == Form::BYTES) return ParseWord(field, Hex(content.data(), content.size()));
    if (content.size() % EntrySize(field) != 0) {
        throw Error(Exit::BAD_VALUE, fmt::format("{} holds {} bytes, which are not whole entries of {} bytes",
                                                 path, content.size(), EntrySize(field)));
    }
    Json entries = Json::array();
    for (size_t start = 0; start < content.size(); start += EntrySize(field))
        entries.push_back(Hex(content.data() + start, EntrySize(field)));
    return entries;
}

// The value given on the command line; null when there is none.
Json GivenValue(const Policy &policy, const Arguments &arguments)
{
    const Field &first = policy.fields[0];
    if (arguments.Has("--file")) return FileValue(first, arguments.Text("--file"));
    if (policy.IsScalar()) return arguments.Has("VALUE") ? ParseWord(first, arguments.Text("VALUE")) : Json();
    Json value;
    if (arguments.Has("VALUE")) value[first.name] = ParseWord(first, arguments.Text("VALUE"));
    for (const Field &field : policy.fields) {
        if (arguments.Has(OptionName(field)))
            value[field.name] = ParseWord(field, arguments.Text(OptionName(field)));
    }
    if (value.is_null()) return value;
    if (auto fault = FindViolation(policy, value, ""))
        throw Error(Exit::BAD_VALUE, fmt::format("{} {}", policy.name, fault->message));
    return value;
}

Json ReadAsAsked(const Policy &policy, const Target &target, const Arguments &arguments)
{
    auto *const read = arguments.Has("--live")    ? policy.readLive
                       : arguments.Has("--by-id") ? policy.readById
                                                  : nullptr;
    if (!read) return ReadPolicy(policy, target);
    Json value;
    const VsStatus status = read(target, value);
    if (status == STATUS_NOT_FOUND && !arguments.Has("--live")) return nullptr;
    const std::string action = fmt::format("reading {} of", policy.name);
    arguments.Has("--live") ? CheckDriver(status, action, target) : Check(status, action, target);
    return value;
}

Json PolicyRow(const Policy &policy, const Target &target, const Arguments &arguments)
{
    Json row = {{"switch", target.alias}};
    if (policy.IsOfPort()) row["port"] = target.port;
    const Json value = ReadAsAsked(policy, target, arguments);
    if (value.is_object())
        row.update(value);
    else
        row[policy.name] = value;
    return row;
}

Result GetOrSet(const Verb &verb, const Arguments &arguments)
{
    const Policy &policy = *verb.policy;
    const Json value = GivenValue(policy, arguments);
    const bool changes = arguments.Has("--clear") || !value.is_null();
    if (!changes && !arguments.Has("--by-id")) SwitchId(arguments.Text("SWITCH"));
    Result result;
    for (const Target &target : Targets(policy, arguments)) {
        if (changes) {
            result.steps.push_back(SetPolicy(policy, target, value));
            continue;
        }
        if (policy.IsOfPort() && !PortExists(target)) Check(STATUS_NOT_FOUND, "finding", target);
        result.rows.push_back(PolicyRow(policy, target, arguments));
    }
    return result;
}

std::vector<Argument> PolicyArguments(const Policy &policy)
{
    const Field &first = policy.fields[0];
    std::vector<Argument> values = {{"VALUE", Shape::OPTIONAL, first.help}};
    if (first.form == Form::BYTES || first.form == Form::BYTES_LIST || first.form == Form::SESSIONS)
        values.push_back(
            {"--file", Shape::OPTION, "File that holds the value (- for standard input)", Names::FILE});
    for (const Field &field : policy.IsScalar() ? std::span<const Field>() : policy.fields)
        values.push_back({OptionName(field), Shape::OPTION, field.help});
    std::vector<std::string> others;
    for (const Argument &value : values)
        others.push_back(value.name);
    // VALUE stands for the first field.
    if (values.size() > 1) values[0].excludes = {values[1].name};
    std::vector<Argument> arguments = {SWITCH};
    if (policy.IsOfPort()) arguments.push_back(PORTS);
    arguments.insert(arguments.end(), values.begin(), values.end());
    const auto addAlone = [&](const Argument &argument) {
        arguments.push_back(Excluding(argument, others));
        others.push_back(argument.name);
    };
    if (policy.CanClear()) addAlone({"--clear", Shape::FLAG, "Remove it"});
    if (policy.readLive) addAlone({"--live", Shape::FLAG, "Show what the driver runs with"});
    if (policy.readById) addAlone(BY_ID);
    return arguments;
}

}

std::vector<Verb> PolicyVerbs()
{
    std::vector<Verb> verbs;
    for (const Policy &policy : Policies()) {
        const std::string target = policy.IsOfPort() ? "lab port0" : "lab";
        const std::string clear = policy.CanClear() ? "\n" + target + " --clear" : "";
        verbs.push_back(
            Changes(fmt::format("{} {}", policy.IsOfPort() ? "port" : "switch", policy.name), GetOrSet,
                    PolicyArguments(policy),
                    {fmt::format("Show or set the {}", policy.help),
                     fmt::format("{0}\n{0} {1}{2}", target, policy.example, clear), policy.operations}));
        verbs.back().policy = &policy;
    }
    return verbs;
}

std::vector<Verb> PortVerbs()
{
    return {
        Changes("port add", Add,
                {SWITCH, PORTS, NumberOption("--connect-id", "Connect id (default 1)", UINT32_MAX)},
                {"Add ports", "lab port8\nlab port8..port15 --connect-id 7", "VSDVS_AddDVPort"}),
        Changes("port add-opaque", AddOpaque,
                {SWITCH, PORTS, {"EXTERNAL-ID", Shape::REQUIRED, "External id of the ports"}},
                {"Add opaque ports, which have an external id", "lab port8 4f2a", "VSDVS_AddOpaqueDVPort"}),
        Changes("port remove", Remove, {SWITCH, PORTS},
                {"Remove ports", "lab port8..port15", "VSDVS_RemoveDVPort"}),
        Reads("port list", List, {SWITCH},
              {"List the ports of a switch", "lab", "", "switch, port, number:number, uplink:boolean, nic?"}),
        Reads("port show", Show, {SWITCH, PORTS},
              {"Show ports with their policies", "lab port0\nlab port0..port7 --json",
               "VSDVS_DvPortIDToPortID VSDVS_GetPortProp DVPortExist",
               "switch, port, number:number, [connect-id:number], [external-id], [*port]"}),
        Reads("port number", Number, {SWITCH, PORTS, BY_ID},
              {"Show the kernel's numbers of ports", "lab port0..port7",
               "VSDVS_DvPortIDToPortID VSDVS_DvPortIDToPortIDFromDVSID", "switch, port, number:number"}),
        Reads("port hint", Hint, {SWITCH, PORTS},
              {"Show the uplinks that ports send on", "lab port0",
               "VSZOR_PortGetTeamUplinkHint VSDVS_DvPortIDToPortID", "switch, port", Record::HINT}),
    };
}

}
