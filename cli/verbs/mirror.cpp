// vsctl mirror: mirror sessions of ports and of the host's uplinks.
#include <fmt/format.h>

#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

Result List(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    SwitchId(target.alias);
    if (!target.port.empty() && !PortExists(target)) Check(STATUS_NOT_FOUND, "finding", target);
    const Json sessions = ReadPolicy(MirrorPolicy(target), target);
    Result result;
    if (!sessions.is_null()) result.rows = sessions;
    return result;
}

Result Append(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    const Json sessions = ParseWord(MirrorPolicy(target).fields[0], ReadFile(arguments.Text("FILE")));
    if (sessions.empty())
        throw Error(Exit::BAD_VALUE, arguments.Text("FILE") + " contains no mirror session",
                    "write a list like [{\"id\": \"session1\"}]");
    return Steps({{"mirror-sessions", target, {{"append", sessions}}}});
}

Result Remove(const Verb &, const Arguments &arguments)
{
    return Steps({{"mirror-sessions", arguments.Target(), {{"remove", arguments.Text("SESSION")}}}});
}

Result Clear(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    return Steps({SetPolicy(MirrorPolicy(target), target, nullptr)});
}

Result Live(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    DriverBuffer<> list;
    CheckDriver(VSZOR_GetDVMirrorSessionIDs(target.Alias(), list.Out()),
                "listing the running mirror sessions of", target);
    using Id = char[sizeof MirrorSessionRecord::sessionId];
    Result result;
    for (const Id &id : DriverEntries<Id>(static_cast<const ZorListHeader *>(list.Get())))
        result.rows.push_back({{"switch", target.alias}, {"session", Name(id, sizeof id)}});
    return result;
}

Result Stats(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    const std::string &session = arguments.Text("SESSION");
    uint8_t stats[MIRROR_SESSION_STATS_SIZE] = {};
    CheckDriver(VSZOR_GetDVMirrorSessionStats(target.Alias(), session.c_str(), stats),
                "reading the statistics of mirror session " + session + " of", target,
                fmt::format("'vsctl mirror live {}' lists the running sessions", target.alias));
    Json row = {{"session", session}};
    row.update(Decode(Record::MIRROR_STATS, stats, sizeof stats));
    return Rows(RowOf(target, row));
}

Result Destinations(const Verb &, const Arguments &arguments)
{
    const Target target = arguments.Target();
    PortsetOf(target.alias);
    DriverBuffer<> list;
    CheckDriver(VSZOR_GetPromiscSessionActiveDsts(target.Alias(), list.Out()),
                "listing the promiscuous ports of", target);
    return Rows(DecodeList(Record::DESTINATION, list.Get(), sizeof(uint32_t)));
}

}

std::vector<Verb> MirrorVerbs()
{
    const Argument session{"SESSION", Shape::REQUIRED, "Id of the mirror session"};
    const Argument file{"FILE", Shape::REQUIRED, "JSON list of sessions (- for standard input)", Names::FILE};
    return {
        Reads("mirror list", List, {SWITCH, ANY_PORT},
              {"List the mirror sessions of a port or of the uplinks", "lab port0\nlab",
               "VSDVS_GetDVMirrorSessions", "@session"}),
        Changes("mirror append", Append, {SWITCH, file, ANY_PORT},
                {"Add mirror sessions to a port or to the uplinks", "lab sessions.json port0",
                 "VSDVS_AppendDVMirrorSessions"}),
        Changes("mirror remove", Remove, {SWITCH, session, ANY_PORT},
                {"Remove a mirror session", "lab session1 port0", "VSDVS_RemoveDVMirrorSession"}),
        Changes("mirror clear", Clear, {SWITCH, ANY_PORT},
                {"Remove all mirror sessions of a port or of the uplinks", "lab port0",
                 "VSDVS_ClearDVMirrorSessions"}),
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
