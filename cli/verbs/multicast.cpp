// vsctl multicast: groups that the running switch filters.
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

Result Filters(const Verb &, const Arguments &arguments)
{
    const std::string &wanted = arguments.Text("--kind");
    Result result;
    for (const AddressKind &kind : ADDRESS_KINDS) {
        if (!wanted.empty() && wanted != kind.name) continue;
        for (const Bytes &group : RunningGroups(arguments.Target(), kind, arguments.Number("--selector", 0)))
            result.rows.push_back({{"kind", kind.name}, {"group", AddressText(group.data(), group.size())}});
    }
    return result;
}

Result Groups(const Verb &, const Arguments &arguments)
{
    const std::string portset = PortsetOf(arguments.Text("SWITCH"));
    Json rows = Json::array();
    for (const std::string &text : arguments.List("GROUP")) {
        const Bytes group = ParseAddress(text, 0);
        if (group.size() == 6)
            throw Error(Exit::BAD_VALUE,
                        "'" + text + "' is a MAC address, and a group is named by its IPv4 or IPv6 address");
        const int32_t kind = group.size() == 4 ? ADDRESS_KIND_IPV4 : ADDRESS_KIND_IPV6;
        DriverBuffer<ZorMcastStatsHeader> stats;
        CheckDriver(VSZOR_GetMcastFilterStats(portset.c_str(), arguments.Number("--selector", 0), kind,
                                              group.data(), reinterpret_cast<void **>(stats.Out())),
                    "reading the statistics of group " + text + " of", arguments.Target(),
                    "'vsctl multicast filters " + arguments.Text("SWITCH") + "' lists the groups");
        RequireEntries(stats.Get(), sizeof *stats.Get(), stats->count, group.size());
        Json row = {{"group", text}};
        row.update(
            Decode(Record::MCAST_STATS, stats.Get(), sizeof *stats.Get() + stats->count * group.size()));
        rows.push_back(row);
    }
    return Rows(rows);
}

}

std::vector<Verb> MulticastVerbs()
{
    const Argument selector =
        NumberOption("--selector", "Groups to list, by a number that the driver defines", UINT32_MAX);
    const Argument kind =
        ChoiceOption("--kind", "ethernet, ipv4 or ipv6 (default: all)", "ethernet|ipv4|ipv6");
    return {
        Reads("multicast filters", Filters, {SWITCH, kind, selector},
              {"List the multicast groups of a switch", "lab\nlab --kind ipv4", "VSZOR_GetMcastFilters",
               "kind, group"}),
        Reads("multicast groups", Groups,
              {SWITCH, {"GROUP", Shape::MANY, "IPv4 or IPv6 addresses of groups"}, selector},
              {"Show the statistics and sources of multicast groups", "lab 224.1.1.1",
               "VSZOR_GetMcastFilterStats", "group", Record::MCAST_STATS}),
    };
}

}
