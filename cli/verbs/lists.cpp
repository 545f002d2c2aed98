// vsctl pvlan, ls-teaming and mirror: policies that are lists of entries.
#include <fmt/format.h>

#include "cli/base/records.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

// Of a switch, or of the port that --port names.
const Policy &ListOf(const Verb &verb, const Target &target)
{
    return *FindPolicy(verb.noun, !target.port.empty());
}

// Ports have mirror sessions too.
bool IsMirror(const Verb &verb) { return verb.noun == "mirror"; }

// The objects whose lists the arguments mean: that of --port, or all that can be listed.
std::vector<Target> Places(const Verb &verb, const Target &target)
{
    SwitchId(target.alias);
    if (!target.port.empty() && !PortExists(target)) Check(STATUS_NOT_FOUND, "finding", target);
    std::vector<Target> places = {target};
    if (!IsMirror(verb) || !target.port.empty()) return places;
    for (const vshost_port &port : PortsOf(target.alias))
        places.push_back({target.alias, port.id});
    return places;
}

Result List(const Verb &verb, const Arguments &arguments)
{
    Result result;
    for (const Target &place : Places(verb, arguments.Target())) {
        for (const Json &entry : ReadAsAsked(ListOf(verb, place), place, arguments)) {
            Json row = {{"switch", place.alias}};
            if (IsMirror(verb)) row["port"] = OrNull(place.port);
            row.update(entry.is_string() ? Json{{"bytes", entry}} : entry);
            result.rows.push_back(row);
        }
    }
    return result;
}

// A session is in the list of its first destination; of an uplink, in the list of the host.
Target PlaceOf(const Json &session, const Arguments &arguments)
{
    if (arguments.Has("--port")) return arguments.Target();
    const Json to = session.value("to", Json::array());
    if (to.empty())
        throw Error(Exit::USAGE, "the session has no destination",
                    "give the ports that get the copies with --to");
    const std::string port = to[0];
    if (PortEntryNumber(port) || port.size() >= DV_PORT_ID_SIZE)
        throw Error(Exit::USAGE, "the list that keeps the session is not known", "name its port with --port");
    return {arguments.Text("SWITCH"), port};
}

// The primary VLAN itself is promiscuous.
Json PrivateVlans(const Layout &layout, const Arguments &arguments)
{
    const uint32_t primary = arguments.Number("PRIMARY", 0);
    Json entries = {{{"primary", primary}, {"secondary", primary}, {"type", "promiscuous"}}};
    for (const char *type : {"isolated", "community"}) {
        const std::string option = fmt::format("--{}", type);
        for (const std::string &word : Words(arguments.Text(option), ",")) {
            if (!arguments.Has(option)) break;
            entries.push_back({{"primary", primary},
                               {"secondary", ParseWord(layout.fields[1], word, option)},
                               {"type", type}});
        }
    }
    return entries;
}

Json GivenEntries(const Verb &verb, const Layout &layout, const Arguments &arguments)
{
    const std::string &name = verb.arguments[1].name;
    if (GivesBytes(arguments)) return Json::array({GivenHex(arguments, layout.size)});
    if (!arguments.Has(name))
        throw Error(Exit::USAGE, fmt::format("{}: {} is required", verb.Title(), name),
                    fmt::format("give {}, or a record with --hex or --file", name));
    if (verb.noun == "pvlan") return PrivateVlans(layout, arguments);
    Json entry = GivenFields(AllFields(layout), arguments);
    entry[layout.key] = arguments.Text(name);
    return Json::array({entry});
}

Result Add(const Verb &verb, const Arguments &arguments)
{
    const Policy &list = ListOf(verb, {});
    const Json entries = GivenEntries(verb, *list.fields[0].layout, arguments);
    if (auto fault = FindViolation(list.fields[0], entries, ""))
        throw Error(Exit::BAD_VALUE, fmt::format("the {} {}", list.noun, fault->message));
    const Target place = IsMirror(verb) ? PlaceOf(entries[0], arguments) : arguments.Target();
    return Steps({AddEntries(ListOf(verb, place), place, entries)});
}

// Without --port, the list that keeps a mirror session is found when the steps before it are known.
Step ListStep(const Verb &verb, const Arguments &arguments, Json change)
{
    if (IsMirror(verb) && !arguments.Has("--port")) change["everywhere"] = true;
    return {verb.noun, arguments.Target(), change};
}

Result Remove(const Verb &verb, const Arguments &arguments)
{
    const auto &names = arguments.List(verb.arguments[1].name);
    if (!IsMirror(verb)) return Steps({ListStep(verb, arguments, {{"remove", names}})});
    Result result;
    for (const std::string &name : names)
        result.steps.push_back(ListStep(verb, arguments, {{"remove", {name}}}));
    return result;
}

Result Clear(const Verb &verb, const Arguments &arguments)
{
    return Steps({ListStep(verb, arguments, nullptr)});
}

// The arguments and options of an entry but its name, which is an argument.
std::vector<Argument> EntryArguments(const Argument &name, const Layout &layout)
{
    std::vector<Argument> arguments = FieldOptions(AllFields(layout));
    std::erase_if(arguments, [&layout](const Argument &option) {
        return option.name == fmt::format("--{}", layout.key);
    });
    arguments.insert(arguments.begin(), {SWITCH, name});
    return arguments;
}

Result LiveSessions(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    Result result;
    for (const std::string &session : RunningSessions(target))
        result.rows.push_back({{"switch", target.alias}, {"session", session}});
    return result;
}

Result SessionStatistics(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    const std::string &session = arguments.Text("SESSION");
    Json row = {{"session", session}};
    row.update(ReadRecord(
        Record::MIRROR_STATS, target,
        [&](void *stats) { return VSZOR_GetDVMirrorSessionStats(target.Alias(), session.c_str(), stats); },
        fmt::format("'vsctl mirror live {}' lists the running sessions", target.alias)));
    return Rows(RowOf(target, row));
}

Result Destinations(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    return Rows(ReadRecords(Record::DESTINATION, target, [&](void **list) {
        return VSZOR_GetPromiscSessionActiveDsts(target.Alias(), list);
    }));
}

std::vector<Verb> MirrorVerbs()
{
    const Argument session{"SESSION", Shape::REQUIRED, "Name of the mirror session"};
    const Argument sessions{"SESSION", Shape::MANY, "Names of the mirror sessions"};
    const Argument place{"--port", Shape::OPTION,
                         "Port that keeps the sessions (default: all ports and the uplinks)", Names::PORT};
    std::vector<Argument> ofSession = EntryArguments(session, MIRROR_SESSION);
    ofSession.push_back(
        {"--port", Shape::OPTION, "Port that keeps the session (default: the first of --to)", Names::PORT});
    return {
        Reads("mirror list", List, {SWITCH, place},
              {"List the mirror sessions of a switch", "lab\nlab --port port9", "VSDVS_GetDVMirrorSessions",
               "@session"}),
        Changes(
            "mirror add", Add, ofSession,
            {"Add a mirror session, which copies frames of ports",
             "lab span0 --from port1,port2 --to port9 --snap 128\nlab span1 --received-by port1 --to uplink0",
             "VSDVS_AppendDVMirrorSessions"}),
        Changes("mirror remove", Remove, {SWITCH, sessions, place},
                {"Remove mirror sessions", "lab span0", "VSDVS_RemoveDVMirrorSession"}),
        Changes("mirror clear", Clear, {SWITCH, place},
                {"Remove all mirror sessions of a switch", "lab", "VSDVS_ClearDVMirrorSessions"}),
        Reads("mirror live", LiveSessions, {SWITCH},
              {"List the mirror sessions that the driver runs", "lab", "VSZOR_GetDVMirrorSessionIDs",
               "switch, session"}),
        Reads("mirror stats", SessionStatistics, {SWITCH, session},
              {"Show the statistics of a running mirror session", "lab session1",
               "VSZOR_GetDVMirrorSessionStats", "switch", Record::MIRROR_STATS}),
        Reads("mirror destinations", Destinations, {SWITCH},
              {"List the promiscuous ports that receive mirrored packets", "lab",
               "VSZOR_GetPromiscSessionActiveDsts", "", Record::DESTINATION}),
    };
}

}

std::vector<Verb> ListVerbs()
{
    const Policy &vlans = *FindPolicy("pvlan", false), &teaming = *FindPolicy("ls-teaming", false);
    const Field &vlan = vlans.fields[0].layout->fields[0];
    const Argument name{"NAME", Shape::OPTIONAL, "Name of the policy"};
    std::vector<Verb> verbs = {
        Reads("pvlan list", List, {SWITCH},
              {"List the private VLANs of a switch", "lab", vlans.operations, "@private-vlan"}),
        Changes("pvlan add", Add,
                OrBytes({SWITCH,
                         {"PRIMARY", Shape::OPTIONAL, vlan.help, Names::NONE, vlan},
                         {"--isolated", Shape::OPTION, "VLANs whose ports reach promiscuous ports alone"},
                         {"--community", Shape::OPTION,
                          "VLANs whose ports reach promiscuous ports and each other"}}),
                {"Add a primary VLAN, or more secondary VLANs to it",
                 "lab 100 --isolated 101 --community 102,103", vlans.operations}),
        Changes("pvlan remove", Remove,
                {SWITCH, {"VLAN", Shape::MANY, "Secondary VLANs, or a primary VLAN with all of its own"}},
                {"Remove private VLANs", "lab 101\nlab 100", vlans.operations}),
        Changes("pvlan clear", Clear, {SWITCH}, {"Remove all private VLANs", "lab", vlans.operations}),
        Reads("ls-teaming list", List, {SWITCH, {"--live", Shape::FLAG, "Show what the driver runs with"}},
              {"List the teaming policies that ports name", "lab\nlab --live", teaming.operations,
               "@named-teaming"}),
        Changes("ls-teaming add", Add, OrBytes(EntryArguments(name, *teaming.fields[0].layout)),
                {"Add a teaming policy that ports can name", "lab gold --algorithm order --active uplink0",
                 teaming.operations}),
        Changes("ls-teaming remove", Remove, {SWITCH, {"NAME", Shape::MANY, "Names of the policies"}},
                {"Remove teaming policies that ports can name", "lab gold", teaming.operations}),
        Changes("ls-teaming clear", Clear, {SWITCH},
                {"Remove all teaming policies that ports can name", "lab", teaming.operations}),
    };
    for (Verb &verb : MirrorVerbs())
        verbs.push_back(std::move(verb));
    return verbs;
}

}
