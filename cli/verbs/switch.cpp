// vsctl switch: switches as a whole.
#include <set>

#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

constexpr const char *RUNNING = "running";
constexpr const char *NOT_RUNNING = "not running";

Json ListRow(const std::string &alias, const std::string &portset, const std::string &id, const char *state)
{
    return {{"switch", OrNull(alias)}, {"portset", OrNull(portset)}, {"id", OrNull(id)}, {"state", state}};
}

// Names only: counting the ports of a large switch takes the driver a long time. A stored switch does not run
// when its start, creation or destruction failed.
Result List(const Verb &, const Arguments &)
{
    Result result;
    std::set<std::string> running;
    for (const std::string &portset : Portsets()) {
        const std::string alias = AliasOf(portset);
        const std::string id = alias.empty() ? "" : SwitchId(alias);
        running.insert(id);
        result.rows.push_back(ListRow(alias, portset, id, RUNNING));
    }
    for (const std::string &id : StoredSwitchIds()) {
        if (running.contains(id)) continue;
        const std::string alias = AliasOfId(id);
        result.rows.push_back(ListRow(alias, alias.empty() ? "" : PortsetOf(alias), id, NOT_RUNNING));
    }
    return result;
}

Result Show(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    SwitchId(target.alias);
    Json row = RowOf(target, ReadSwitch(target.alias));
    row["live"] = NOT_RUNNING;
    const std::string portset = PortsetOf(target.alias);
    if (IsRunning(target.alias))
        row["live"] = ReadRecord(Record::INFO, target,
                                 [&](void *info) { return VSZOR_GetVSInfo(portset.c_str(), info); });
    return Rows(row);
}

Result Create(const Verb &, const Arguments &arguments)
{
    const std::string &alias = arguments.Text("SWITCH");
    const std::string portset = arguments.Text("--portset", alias);
    Json value;
    RequireName(SWITCH_ALIAS, alias);
    if (arguments.Has("--id")) {
        RequireName(SWITCH_ID, arguments.Text("--id"));
        value["id"] = arguments.Text("--id");
    }
    RequirePortsetName(portset);
    value["portset"] = portset;
    for (const auto &[option, key] : {std::pair("--version", "version"),
                                      {"--max-ports", "max-ports"},
                                      {"--uplinks", "uplink-count"},
                                      {"--ports", "port-count"}}) {
        if (arguments.Has(option)) value[key] = arguments.Number(option, 0);
    }
    if (arguments.Has("--opaque")) value["opaque"] = true;
    return Steps({{"switch", {alias, ""}, value}});
}

Result Destroy(const Verb &, const Arguments &arguments)
{
    return Steps({{"switch", {arguments.Text("SWITCH"), ""}, nullptr}});
}

}

std::vector<Verb> SwitchVerbs()
{
    const Argument name{"SWITCH", Shape::REQUIRED, "Alias of the new switch"};
    return {
        Reads("switch list", List, {},
              {"List the switches and whether they run", "\n--json",
               "VSZOR_GetSwitches VSDVS_GetAliasFromPortset DVSAliasToPortsetName DVSAliasToSwitchId",
               "switch?, portset?, id?, state=running|not running"}),
        Reads("switch show", Show, {SWITCH},
              {"Show the names, uplinks, policies and live state of a switch", "lab",
               "DVSAliasToSwitchId DVSAliasToPortsetName VSDVS_GetGlobProp VSZOR_GetVSInfo",
               "switch, id, portset, [version:number], opaque:boolean, [max-ports:number], uplinks:texts, "
               "live:record, [*switch]"}),
        Changes(
            "switch create", Create,
            {name,
             NumberOption("--uplinks", "Uplinks to make: uplink0, uplink1, … (default 0)", MAX_NEW_UPLINKS),
             NumberOption("--ports", "Ports to make: port0, port1, … (default 0)", MAX_NEW_PORTS),
             NumberOption("--max-ports", "Ports that the switch can have (default 128)", MAX_PORTS),
             {"--id", Shape::OPTION, "Switch id (default: a random one)"},
             {"--portset", Shape::OPTION, "Kernel name (default: the alias)"},
             NumberOption("--version", "Version number (default 1)", UINT32_MAX),
             {"--opaque", Shape::FLAG, "Make an opaque switch"}},
            {"Create a switch, with uplinks and ports",
             "lab --uplinks 2 --ports 8\nlab --portset vs0 --max-ports 64", "VSDVS_CreateVSwitch"}),
        Changes("switch destroy", Destroy, {SWITCH},
                {"Destroy a switch with all its ports", "lab", "VSDVS_DestroyVSwitch"}),
    };
}

}
