// vsctl port stats, nic list and mac find: what ports count, the host's NICs, and where an address is.
#include <algorithm>
#include <fmt/format.h>
#include <map>

#include "cli/verbs/host_view.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

Result Statistics(const Verb &, const Arguments &arguments)
{
    SwitchId(arguments.Text("SWITCH"));
    Result result;
    for (const Target &port : arguments.Ports(false)) {
        const VSwitchPortStatistics statistics = ReadStatistics(port);
        result.rows.push_back(RowOf(port, Decode(Record::PORT_STATISTICS, &statistics, sizeof statistics)));
    }
    return result;
}

Result ListOfNics(const Verb &, const Arguments &)
{
    RequireOwnPlatform("list NICs");
    return Rows(DescribeNics());
}

// Entries of the MAC tables of a switch, those of its uplinks included, that have the address.
Json EntriesOf(const std::string &alias, const std::string &address)
{
    std::map<uint32_t, std::string> ports;
    Json entries = MacTable({alias, ""}, 0);
    for (const vshost_port &port : PortsOf(alias)) {
        ports[port.number] = port.id;
        for (Json &entry : MacTable({alias, port.id}, 0))
            entries.push_back(std::move(entry));
    }
    Json rows = Json::array();
    for (Json &entry : entries) {
        if (entry["address"] != address) continue;
        const std::string port = ports[entry["port-number"]];
        entry.erase("port-number");
        const Json row = RowOf({alias, port}, entry);
        if (!Contains(rows, row)) rows.push_back(row);
    }
    return rows;
}

Result Find(const Verb &, const Arguments &arguments)
{
    RequireOwnPlatform("list ports");
    const Bytes bytes = ParseAddress(arguments.Text("ADDRESS"), sizeof(VSwitchMacEntry::address));
    const std::string address = AddressText(bytes.data(), bytes.size());
    Result result;
    for (const std::string &alias : SwitchNames()) {
        if (!IsRunning(alias)) continue;
        for (const Json &row : EntriesOf(alias, address))
            result.rows.push_back(row);
    }
    if (result.rows.empty())
        throw Error(
            Exit::NOT_FOUND, fmt::format("no port of a running switch has the address {}", address),
            "an address is learned when its station sends; 'vsctl mac list' lists the addresses of a port");
    return result;
}

}

std::vector<Verb> StatisticsVerbs()
{
    return {
        Reads("port stats", Statistics, {SWITCH, PORTS, EXISTING},
              {"Show what ports have counted, and why frames were dropped", "lab port0..port3\nlab",
               "VSDVS_GetPortProp", "switch, port", Record::PORT_STATISTICS}),
        Reads("mac find", Find, {{"ADDRESS", Shape::REQUIRED, "MAC address"}},
              {"Show on which port of which switch a MAC address is", "02:00:00:00:00:01",
               "VSZOR_GetPortMACTable VSZOR_GetTeamMACTable",
               "switch, port, address, vlan:number, type, age:number"}),
        Reads("nic list", ListOfNics, {},
              {"List the physical NICs of the host and the uplinks that have them", "\n--json", "",
               "nic, link:boolean, admin:boolean, speed:number, full-duplex:boolean, mtu:number, "
               "numa-node:integer, switch?, port?"}),
    };
}

}
