// vsctl uplink and lag: uplink ports of a switch, and the links behind them.
#include <fmt/format.h>

#include "cli/base/decode.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

Json RunningUplinks(const std::string &alias)
{
    DriverBuffer<> list;
    CheckDriver(VSZOR_GetUplinks(PortsetOf(alias).c_str(), list.Out()), "listing the running uplinks of",
                {alias, ""});
    return DecodeList(Record::UPLINK, list.Get(), UPLINK_ENTRY_SIZE);
}

std::string PortOfRunning(const std::string &uplink)
{
    char port[DV_PORT_ID_SIZE];
    CheckDriver(VSZOR_GetUplinkDVPortID(uplink.c_str(), port), "finding the port of uplink", {"", uplink},
                RunningUplinksAdvice("SWITCH"));
    return Name(port, sizeof port);
}

// The running uplinks by the ports that they are behind.
std::map<std::string, Json> RunningByPort(const std::string &alias)
{
    std::map<std::string, Json> running;
    for (const Json &nic : RunningUplinks(alias))
        running[PortOfRunning(nic["uplink"])] = nic;
    return running;
}

Result List(const Verb &, const Arguments &arguments)
{
    const std::string alias = arguments.Text("SWITCH");
    SwitchId(alias);
    const Uplinks uplinks = ReadUplinks(alias);
    const auto running =
        IsEmbedded() && IsRunning(alias) ? RunningByPort(alias) : std::map<std::string, Json>();
    Result result;
    for (size_t i = 0; i < uplinks.ids.size(); i++) {
        Json row = {{"switch", alias},
                    {"uplink", i < uplinks.names.size() ? uplinks.names[i] : uplinks.ids[i]},
                    {"port", uplinks.ids[i]}};
        if (const auto nic = running.find(uplinks.ids[i]); nic != running.end()) {
            row["nic"] = nic->second["uplink"];
            row["link"] = nic->second["link"];
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

Result Add(const Verb &, const Arguments &arguments)
{
    Result result;
    for (const std::string &name : NewNames(arguments))
        result.steps.push_back(UplinkStep(arguments, {{"add", name}}));
    return result;
}

Result Remove(const Verb &, const Arguments &arguments)
{
    Result result;
    for (const std::string &id : arguments.List("UPLINK"))
        result.steps.push_back(UplinkStep(arguments, {{"remove", id}}));
    return result;
}

Result Set(const Verb &, const Arguments &arguments)
{
    if (arguments.Has("--count") != arguments.List("UPLINK").empty())
        throw Error(Exit::USAGE, "the uplinks are given by their names or by --count");
    Result result;
    if (arguments.Has("--count")) {
        result.steps.push_back(
            UplinkStep(arguments, {{"count", arguments.Number("--count", 0, MAX_NEW_UPLINKS)}}));
        return result;
    }
    const auto &names = NewNames(arguments);
    result.steps.push_back(UplinkStep(arguments, {{"set", {{"names", names}, {"ids", names}}}}));
    return result;
}

Result Clear(const Verb &, const Arguments &arguments)
{
    return Steps({UplinkStep(arguments, {{"clear", true}})});
}

template<auto GET> Result LinkState(const Verb &verb, const Arguments &arguments)
{
    const std::string &uplink = arguments.Text("UPLINK");
    uint32_t up = 0;
    CheckDriver(GET(PortsetOf(arguments.Text("SWITCH")).c_str(), uplink.c_str(), &up),
                fmt::format("reading the {} state of uplink {} of", verb.name, uplink), arguments.Target(),
                RunningUplinksAdvice(arguments.Text("SWITCH")));
    return Rows({{"switch", arguments.Text("SWITCH")}, {"uplink", uplink}, {verb.name, up != 0}});
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
    return Rows({{"uplink", uplink}, {"port", PortOfRunning(uplink)}});
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
    DriverBuffer<> table;
    CheckDriver(VSZOR_GetLAGTable(PortsetOf(arguments.Text("SWITCH")).c_str(), table.Out()),
                "reading the LAGs of", arguments.Target());
    const Json lags = Decode(Record::LAG_TABLE, table.Get(), LAG_TABLE_SIZE);
    return Rows(lags);
}

}

std::vector<Verb> UplinkVerbs()
{
    const Argument newName{"UPLINK", Shape::MANY, "names of the uplinks, which are also their port ids"};
    const Argument listed{"UPLINK", Shape::MANY, "port ids of the uplinks", Names::UPLINK};
    const Argument running{"UPLINK", Shape::REQUIRED, "name of the running uplink", Names::RUNNING_UPLINK};
    Argument several = newName;
    several.shape = Shape::ANY;
    return {
        Reads("uplink", "list", "lists the uplinks of a switch", {SWITCH}, "lab",
              "VSDVS_GetSwitchUplinkPorts VSZOR_GetUplinks VSZOR_GetUplinkDVPortID", List),
        Reads("uplink", "live", "lists the uplinks that the driver runs", {SWITCH}, "lab", "VSZOR_GetUplinks",
              Live),
        Changes("uplink", "add", "adds uplinks to a switch", {SWITCH, newName}, "lab uplink2",
                "VSDVS_AddSwitchUplinkPort", Add),
        Changes("uplink", "remove", "removes uplinks of a switch", {SWITCH, listed}, "lab uplink2",
                "VSDVS_RemoveSwitchUplinkPort", Remove),
        Changes("uplink", "set", "gives a switch its uplinks, by name or by number",
                {SWITCH, several, {"--count", Shape::OPTION, "that many, named uplink0, uplink1, …"}},
                "lab east west\nlab --count 2", "VSDVS_SetSwitchUplinkPorts SetNumSwitchUplinkPortsByUUID",
                Set),
        Changes("uplink", "clear", "forgets the lists of a switch's uplinks and keeps their ports", {SWITCH},
                "lab", "VSDVS_ClearSwitchUplinkPorts", Clear),
        Reads("uplink", "link", "shows whether an uplink has a link", {SWITCH, running}, "lab nic0",
              "VSZOR_GetUplinkLinkState", LinkState<VSZOR_GetUplinkLinkState>),
        Reads("uplink", "lacp", "shows whether an uplink has a link in a LAG", {SWITCH, running}, "lab nic0",
              "VSZOR_GetUplinkLACPLinkState", LinkState<VSZOR_GetUplinkLACPLinkState>),
        Changes("uplink", "up", "takes an uplink up", {SWITCH, running}, "lab nic0",
                "VSZOR_SetUplinkAdminLinkState", UpOrDown),
        Changes("uplink", "down", "takes an uplink down", {SWITCH, running}, "lab nic0",
                "VSZOR_SetUplinkAdminLinkState", UpOrDown),
        Reads("uplink", "port", "shows the port id of a running uplink", {running}, "nic0",
              "VSZOR_GetUplinkDVPortID", Port),
        ChangesNow("uplink", "numa", "has the driver read the NUMA nodes of a switch's uplinks again",
                   {SWITCH}, "lab", "VSZOR_RefreshDevNUMAInfo", Numa),
        Reads("lag", "list", "lists the LAGs of a switch", {SWITCH}, "lab", "VSZOR_GetLAGTable", Lags),
    };
}

}
