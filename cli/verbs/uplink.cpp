// vsctl uplink and lag: uplink ports of a switch, and the links behind them.
#include <fmt/format.h>

#include "cli/verbs/host_view.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

Result List(const Verb &, const Arguments &arguments)
{
    const std::string &alias = arguments.Text("SWITCH");
    Result result;
    for (const Json &uplink : DescribeUplinks(alias, SwitchId(alias))) {
        Json row = {{"switch", alias}};
        for (const char *key : {"uplink", "port", "nic", "link"}) {
            if (uplink.contains(key)) row[key] = uplink[key];
        }
        result.rows.push_back(row);
    }
    return result;
}

Result Live(const Verb &, const Arguments &arguments)
{
    return Rows(RunningUplinks(arguments.Text("SWITCH")));
}

Step UplinkStep(const Arguments &arguments, Json value)
{
    return {"uplinks", {arguments.Text("SWITCH"), ""}, std::move(value)};
}

const std::vector<std::string> &NewNames(const Arguments &arguments)
{
    const auto &names = arguments.List("UPLINK");
    for (auto name = names.begin(); name != names.end(); name++) {
        RequireName(PORT_ID, *name);
        if (std::find(names.begin(), name, *name) != name)
            throw Error(Exit::BAD_VALUE, fmt::format("uplink '{}' is named twice", *name));
    }
    return names;
}

Result AddOrRemove(const Verb &verb, const Arguments &arguments)
{
    Result result;
    for (const std::string &name : verb.name == "add" ? NewNames(arguments) : arguments.List("UPLINK"))
        result.steps.push_back(UplinkStep(arguments, {{verb.name, name}}));
    return result;
}

Result Set(const Verb &, const Arguments &arguments)
{
    if (arguments.Has("--count"))
        return Steps({UplinkStep(arguments, {{"count", arguments.Number("--count", 0)}})});
    const auto &names = NewNames(arguments);
    if (names.empty())
        throw Error(Exit::USAGE, "there are no uplinks to set", "give their names, or --count");
    return Steps({UplinkStep(arguments, {{"set", {{"names", names}, {"ids", names}}}})});
}

Result Clear(const Verb &, const Arguments &arguments)
{
    return Steps({UplinkStep(arguments, {{"clear", true}})});
}

template<auto GET> Result LinkState(const Verb &verb, const Arguments &arguments)
{
    const Target target = arguments.Target();
    const std::string &uplink = arguments.Text("UPLINK");
    uint32_t up = 0;
    CheckDriver(GET(PortsetOf(target.alias).c_str(), uplink.c_str(), &up),
                fmt::format("reading the {} state of uplink {} of", verb.name, uplink), target,
                RunningUplinksAdvice(target.alias));
    return Rows({{"switch", target.alias}, {"uplink", uplink}, {verb.name, up != 0}});
}

Result UpOrDown(const Verb &verb, const Arguments &arguments)
{
    const std::string &alias = arguments.Text("SWITCH");
    const Json value = {{"uplink", arguments.Text("UPLINK")}, {"up", verb.name == "up"}};
    return Steps({{"uplink-admin", {alias, ""}, value}});
}

Result Port(const Verb &, const Arguments &arguments)
{
    const std::string &uplink = arguments.Text("UPLINK");
    char port[DV_PORT_ID_SIZE];
    CheckDriver(VSZOR_GetUplinkDVPortID(uplink.c_str(), port), "finding the port of uplink", {"", uplink},
                RunningUplinksAdvice("SWITCH"));
    return Rows({{"uplink", uplink}, {"port", Name(port, sizeof port)}});
}

Result Numa(const Verb &, const Arguments &arguments)
{
    constexpr const char *ACTION = "refreshing the NUMA nodes of";
    const Target target = arguments.Target();
    const std::string portset = PortsetOf(target.alias);
    RequireRunning(ACTION, target);
    if (!arguments.IsDryRun()) CheckDriver(VSZOR_RefreshDevNUMAInfo(portset.c_str()), ACTION, target);
    return Changed(arguments, {{"switch", target.alias}, {"refreshed", !arguments.IsDryRun()}});
}

Result Lags(const Verb &, const Arguments &arguments)
{
    const std::string portset = PortsetOf(arguments.Text("SWITCH"));
    return Rows(ReadTable(Record::LAG_TABLE, arguments.Target(),
                          [&](void **table) { return VSZOR_GetLAGTable(portset.c_str(), table); }));
}

}

std::vector<Verb> UplinkVerbs()
{
    const Argument newNames{"UPLINK", Shape::MANY, "Names of the uplinks, which are also their port ids"};
    const Argument listed{"UPLINK", Shape::MANY, "Port ids of the uplinks", Names::UPLINK};
    const Argument running{"UPLINK", Shape::REQUIRED, "Name of the running uplink", Names::RUNNING_UPLINK};
    Argument allNames = Excluding(newNames, {"--count"});
    allNames.shape = Shape::ANY;
    return {
        Reads("uplink list", List, {SWITCH},
              {"List the uplinks of a switch", "lab", "VSDVS_GetSwitchUplinkPorts",
               "switch, uplink, port, [nic], [link:boolean]"}),
        Reads("uplink live", Live, {SWITCH},
              {"List the uplinks that the driver runs", "lab", "VSZOR_GetUplinks", "", Record::UPLINK}),
        Changes("uplink add", AddOrRemove, {SWITCH, newNames},
                {"Add uplinks to a switch", "lab uplink2", "VSDVS_AddSwitchUplinkPort"}),
        Changes("uplink remove", AddOrRemove, {SWITCH, listed},
                {"Remove uplinks from a switch", "lab uplink2", "VSDVS_RemoveSwitchUplinkPort"}),
        Changes("uplink set", Set,
                {SWITCH, allNames,
                 NumberOption("--count", "Number of uplinks: uplink0, uplink1, …", MAX_NEW_UPLINKS)},
                {"Replace the uplinks of a switch", "lab east west\nlab --count 2",
                 "VSDVS_SetSwitchUplinkPorts SetNumSwitchUplinkPortsByUUID"}),
        Changes(
            "uplink clear", Clear, {SWITCH},
            {"Clear the uplink lists of a switch and keep the ports", "lab", "VSDVS_ClearSwitchUplinkPorts"}),
        Reads("uplink link", LinkState<VSZOR_GetUplinkLinkState>, {SWITCH, running},
              {"Show whether an uplink has a link", "lab nic0", "VSZOR_GetUplinkLinkState",
               "switch, uplink, link:boolean"}),
        Reads("uplink lacp", LinkState<VSZOR_GetUplinkLACPLinkState>, {SWITCH, running},
              {"Show whether an uplink has a link in a LAG", "lab nic0", "VSZOR_GetUplinkLACPLinkState",
               "switch, uplink, lacp:boolean"}),
        Changes("uplink up", UpOrDown, {SWITCH, running},
                {"Bring an uplink up", "lab nic0", "VSZOR_SetUplinkAdminLinkState"}),
        Changes("uplink down", UpOrDown, {SWITCH, running},
                {"Take an uplink down", "lab nic0", "VSZOR_SetUplinkAdminLinkState"}),
        Reads("uplink port", Port, {running},
              {"Show the port id of a running uplink", "nic0", "VSZOR_GetUplinkDVPortID", "uplink, port"}),
        ChangesNow("uplink numa", Numa, {SWITCH},
                   {"Refresh the NUMA nodes of a switch's uplinks", "lab", "VSZOR_RefreshDevNUMAInfo",
                    "switch, refreshed:boolean"}),
        Reads("lag list", Lags, {SWITCH},
              {"List the LAGs of a switch", "lab", "VSZOR_GetLAGTable",
               "lag, mode, timeout, load-balance:number, link:boolean, members:texts", Record::LAG_TABLE}),
    };
}

}
