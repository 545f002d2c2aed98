// vsctl mirror: mirror sessions of ports and of the host's uplinks.
#include <fmt/format.h>

#include "cli/base/records.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

// The list of a port, or of the switch's uplinks.
Json SessionsOf(const Target &target)
{
    const Json sessions = ReadPolicy(MirrorPolicy(target), target);
    return sessions.is_null() ? Json::array() : sessions;
}

// The lists that the arguments mean: that of --port, or all that can be listed.
std::vector<Target> Places(const Arguments &arguments)
{
    const Target target{arguments.Text("SWITCH"), arguments.Text("--port")};
    SwitchId(target.alias);
    if (!target.port.empty() && !PortExists(target)) Check(STATUS_NOT_FOUND, "finding", target);
    std::vector<Target> places = {target};
    if (!target.port.empty()) return places;
    for (const vshost_port &port : PortsOf(target.alias))
        places.push_back({target.alias, port.id});
    return places;
}

Result List(const Verb &, const Arguments &arguments)
{
    Result result;
    for (const Target &place : Places(arguments)) {
        for (const Json &session : SessionsOf(place)) {
            Json row = {{"switch", place.alias}, {"port", place.port.empty() ? Json() : Json(place.port)}};
            row.update(session);
            result.rows.push_back(row);
        }
    }
    return result;
}

// A session is in the list of its first destination; of an uplink, in the list of the host.
Target PlaceOf(const Json &session, const Arguments &arguments)
{
    const std::string &alias = arguments.Text("SWITCH");
    if (arguments.Has("--port")) return {alias, arguments.Text("--port")};
    const Json to = session.value("to", Json::array());
    if (to.empty())
        throw Error(Exit::USAGE, "the session has no destination",
                    "give the ports that get the copies with --to");
    const std::string port = to[0];
    if (PortEntryNumber(port) || port.size() >= DV_PORT_ID_SIZE)
        throw Error(Exit::USAGE, "the list that keeps the session is not known", "name its port with --port");
    return {alias, port};
}

Result Add(const Verb &, const Arguments &arguments)
{
    std::vector<Field> fields(MIRROR_SESSION.beside.begin(), MIRROR_SESSION.beside.end());
    fields.insert(fields.end(), MIRROR_SESSION.fields.begin(), MIRROR_SESSION.fields.end());
    Json session = GivenFields(fields, arguments);
    session["session"] = arguments.Text("SESSION");
    if (auto fault = FindViolation(MIRROR_SESSION, session, ""))
        throw Error(Exit::BAD_VALUE, fmt::format("the session {}", fault->message));
    const Target place = PlaceOf(session, arguments);
    return Steps({AddEntries(MirrorPolicy(place), place, Json::array({session}))});
}

// The list is found when the steps before it are known.
Step ListStep(const Arguments &arguments, Json change)
{
    const Target target{arguments.Text("SWITCH"), arguments.Text("--port")};
    if (!arguments.Has("--port")) change["everywhere"] = true;
    return {"mirror", target, change};
}

Result Remove(const Verb &, const Arguments &arguments)
{
    Result result;
    for (const std::string &name : arguments.List("SESSION"))
        result.steps.push_back(ListStep(arguments, {{"remove", {name}}}));
    return result;
}

Result Clear(const Verb &, const Arguments &arguments)
{
    const Target target{arguments.Text("SWITCH"), arguments.Text("--port")};
    if (arguments.Has("--port")) return Steps({SetPolicy(MirrorPolicy(target), target, nullptr)});
    return Steps({ListStep(arguments, Json::object())});
}

Result Live(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    Result result;
    for (const std::string &session : RunningSessions(target))
        result.rows.push_back({{"switch", target.alias}, {"session", session}});
    return result;
}

Result Stats(const Verb &, const Arguments &arguments)
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

}

std::vector<Verb> MirrorVerbs()
{
    const Argument session{"SESSION", Shape::REQUIRED, "Name of the mirror session"};
    const Argument sessions{"SESSION", Shape::MANY, "Names of the mirror sessions"};
    const Argument place{"--port", Shape::OPTION,
                         "Port that keeps the sessions (default: all ports and the uplinks)", Names::PORT};
    std::vector<Argument> added = {SWITCH, session};
    for (const auto &fields : {MIRROR_SESSION.beside.subspan(2), MIRROR_SESSION.fields})
        for (Argument &option : FieldOptions(fields)) {
            if (option.rule->form == Form::ENTRIES) option.names = Names::PORT;
            added.push_back(std::move(option));
        }
    added.push_back(FieldOptions(MIRROR_SESSION.beside.first(1))[0]);
    added.push_back(
        {"--port", Shape::OPTION, "Port that keeps the session (default: the first of --to)", Names::PORT});
    return {
        Reads("mirror list", List, {SWITCH, place},
              {"List the mirror sessions of a switch", "lab\nlab --port port9", "VSDVS_GetDVMirrorSessions",
               "@session"}),
        Changes(
            "mirror add", Add, added,
            {"Add a mirror session, which copies frames of ports",
             "lab span0 --from port1,port2 --to port9 --snap 128\nlab span1 --received-by port1 --to uplink0",
             "VSDVS_AppendDVMirrorSessions"}),
        Changes("mirror remove", Remove, {SWITCH, sessions, place},
                {"Remove mirror sessions", "lab span0", "VSDVS_RemoveDVMirrorSession"}),
        Changes("mirror clear", Clear, {SWITCH, place},
                {"Remove all mirror sessions of a switch", "lab", "VSDVS_ClearDVMirrorSessions"}),
        Reads("mirror live", Live, {SWITCH},
              {"List the mirror sessions that the driver runs", "lab", "VSZOR_GetDVMirrorSessionIDs",
               "switch, session"}),
        Reads("mirror stats", Stats, {SWITCH, session},
              {"Show the statistics of a running mirror session", "lab session1",
               "VSZOR_GetDVMirrorSessionStats", "switch", Record::MIRROR_STATS}),
        Reads("mirror destinations", Destinations, {SWITCH},
              {"List the promiscuous ports that receive mirrored packets", "lab",
               "VSZOR_GetPromiscSessionActiveDsts", "", Record::DESTINATION}),
    };
}

}
