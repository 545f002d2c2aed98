// vsctl port: distributed ports; and the verbs of the policies of ports and switches.
#include <fmt/format.h>

#include "cli/base/platform.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

uint32_t PortNumber(const Target &port, bool byId = false)
{
    uint32_t number = 0;
    Check(byId ? VSDVS_DvPortIDToPortIDFromDVSID(SwitchId(port.alias).c_str(), port.Port(), &number)
               : VSDVS_DvPortIDToPortID(port.Alias(), port.Port(), &number),
          "reading the number of", port);
    return number;
}

Result AddOrRemove(const Verb &verb, const Arguments &arguments)
{
    const bool adds = verb.name == "add";
    Json value;
    if (adds && arguments.Has("--external-id"))
        value["external-id"] = arguments.Text("--external-id");
    else if (adds)
        value["connect-id"] = arguments.Number("--connect-id", 1);
    Result result;
    for (const Target &port : arguments.Ports(true)) {
        if (adds) RequireName(PORT_ID, port.port);
        result.steps.push_back({"port", port, value});
    }
    return result;
}

Json Number(const Target &port, const Arguments &arguments)
{
    return {{"number", PortNumber(port, arguments.Has("--by-id"))}};
}

Json Everything(const Target &port, const Arguments &arguments)
{
    Json row = Number(port, arguments);
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

Json Hint(const Target &port, const Arguments &)
{
    return ReadRecord(Record::HINT, port,
                      [&](void *bytes) { return VSZOR_PortGetTeamUplinkHint(PortNumber(port), bytes); });
}

// A row for each port that the arguments name.
template<auto FIELDS> Result Show(const Verb &, const Arguments &arguments)
{
    SwitchId(arguments.Text("SWITCH"));
    Result result;
    for (const Target &port : arguments.Ports(false))
        result.rows.push_back(RowOf(port, FIELDS(port, arguments)));
    return result;
}

Result List(const Verb &, const Arguments &arguments)
{
    const std::string &alias = arguments.Text("SWITCH");
    SwitchId(alias);
    RequireOwnPlatform("list ports: name them for 'vsctl port show'");
    Result result;
    for (const vshost_port &port : PortsOf(alias)) {
        result.rows.push_back({{"switch", alias},
                               {"port", port.id},
                               {"number", port.number},
                               {"uplink", port.isUplink != 0},
                               {"nic", OrNull(port.nic)},
                               {"plugged", OrNull(port.interface)}});
    }
    return result;
}

// ---- Verbs of policies ----

// The value given on the command line; null when there is none.
Json GivenValue(const Policy &policy, const Arguments &arguments)
{
    const Field &first = policy.fields[0];
    if (policy.layout && GivesBytes(arguments)) return GivenHex(arguments, policy.layout->size);
    if (policy.IsScalar()) return arguments.Has("VALUE") ? ParseWord(first, arguments.Text("VALUE")) : Json();
    Json value = GivenFields(policy.fields, arguments);
    if (arguments.Has("VALUE")) value[first.name] = ParseWord(first, arguments.Text("VALUE"));
    if (value.is_null()) return value;
    if (auto fault = FindViolation(policy, value, ""))
        throw Error(Exit::BAD_VALUE, fmt::format("{} {}", policy.name, fault->message));
    return value;
}

Json PolicyRow(const Policy &policy, const Target &target, const Arguments &arguments)
{
    const Json value = ReadAsAsked(policy, target, arguments);
    return RowOf(target, value.is_object() ? value : Json{{policy.name, value}});
}

Result GetOrSet(const Verb &verb, const Arguments &arguments)
{
    const Policy &policy = *verb.policy;
    const Json value = GivenValue(policy, arguments);
    const bool changes = arguments.Has("--clear") || !value.is_null();
    if (!changes) SwitchId(arguments.Text("SWITCH"));
    Result result;
    for (const Target &target :
         policy.IsOfPort() ? arguments.Ports(changes) : std::vector{arguments.Target()}) {
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
    std::vector<Argument> values = FieldOptions(policy.fields);
    if (policy.layout) {
        values = OrBytes(values);
    } else { // VALUE stands for the first field
        const Argument value{"VALUE", Shape::OPTIONAL, policy.fields[0].help};
        if (policy.IsScalar())
            values = {value};
        else
            values.insert(values.begin(), Excluding(value, {values[0].name}));
    }
    std::vector<std::string> others = NamesOf(values);
    std::vector<Argument> arguments = {SWITCH};
    if (policy.IsOfPort()) arguments.push_back(PORTS);
    arguments.insert(arguments.end(), values.begin(), values.end());
    if (policy.IsOfPort()) arguments.insert(arguments.end(), {ALL_PORTS, EXISTING});
    const auto addAlone = [&](const Argument &argument) {
        arguments.push_back(Excluding(argument, others));
        others.push_back(argument.name);
    };
    if (policy.CanClear()) addAlone({"--clear", Shape::FLAG, "Remove it"});
    if (policy.readLive) addAlone({"--live", Shape::FLAG, "Show what the driver runs with"});
    return arguments;
}

}

Json ReadAsAsked(const Policy &policy, const Target &target, const Arguments &arguments)
{
    auto *const read = arguments.Has("--live")    ? policy.readLive
                       : arguments.Has("--by-id") ? policy.readById
                                                  : nullptr;
    if (!read) return ReadPolicy(policy, target);
    Json value;
    const VsStatus status =
        read(arguments.Has("--live") ? target : Target{SwitchId(target.alias), target.port}, value);
    if (status == STATUS_NOT_FOUND && !arguments.Has("--live")) return nullptr;
    const std::string action = fmt::format("reading {} of", policy.name);
    arguments.Has("--live") ? CheckDriver(status, action, target) : Check(status, action, target);
    return value;
}

std::vector<Verb> PolicyVerbs()
{
    std::vector<Verb> verbs;
    for (const Policy &policy : Policies()) {
        if (policy.IsList()) continue; // entries have verbs of their own
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
        Changes("port add", AddOrRemove,
                {SWITCH, NEW_PORTS, NumberOption("--connect-id", "Connect id (default 1)", UINT32_MAX),
                 Excluding({"--external-id", Shape::OPTION, "External id, which makes opaque ports"},
                           {"--connect-id"})},
                {"Add ports", "lab port8\nlab port8..port15 --connect-id 7\nlab port8 --external-id 4f2a",
                 "VSDVS_AddDVPort VSDVS_AddOpaqueDVPort"}),
        Changes("port remove", AddOrRemove, {SWITCH, PORTS_TO_CHANGE, ALL_PORTS, EXISTING},
                {"Remove ports", "lab port8..port15\nlab port8..port99 --existing", "VSDVS_RemoveDVPort"}),
        Reads("port list", List, {SWITCH},
              {"List the ports of a switch", "lab", "",
               "switch, port, number:number, uplink:boolean, nic?, plugged?"}),
        Reads("port show", Show<Everything>, {SWITCH, PORTS, EXISTING},
              {"Show ports with their policies", "lab port0\nlab --json",
               "VSDVS_DvPortIDToPortID VSDVS_GetPortProp DVPortExist",
               "switch, port, number:number, [connect-id:number], [external-id], [*port]"}),
        Reads("port number", Show<Number>, {SWITCH, PORTS, EXISTING},
              {"Show the kernel's numbers of ports", "lab port0..port7",
               "VSDVS_DvPortIDToPortID VSDVS_DvPortIDToPortIDFromDVSID", "switch, port, number:number"}),
        Reads("port hint", Show<Hint>, {SWITCH, PORTS, EXISTING},
              {"Show the uplinks that ports send on", "lab port0",
               "VSZOR_PortGetTeamUplinkHint VSDVS_DvPortIDToPortID", "switch, port", Record::HINT}),
    };
}

}
