// vshost show: a host's switches, portsets, ports and NICs, for people or as JSON.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "platform/launcher/launcher.h"

namespace vshost {

namespace {

using Json = nlohmann::ordered_json;

std::string TextOf(Reader &reader, const PropertyOwner &owner, std::string_view key)
{
    StoredProperty property;
    return GetProperty(reader, owner, key, property) ? std::string() : std::string(Text(property.value));
}

Json DescribePorts(const Host &host, Reader &reader, const std::string &switchId)
{
    Json ports = Json::array();
    CheckStatus(host, ForEachPort(reader, switchId, [&](std::string_view portId, uint32_t number) {
                    ports.push_back({{"id", portId}, {"number", number}});
                    return true;
                }));
    return ports;
}

Json DescribeSwitch(const Host &host, Reader &reader, const std::string &switchId)
{
    StoredSwitch stored;
    Portset running;
    std::string portset;
    CheckStatus(host, GetSwitch(reader, switchId, stored));
    const VsStatus named = PortsetOfSwitch(reader, switchId, portset);
    if (named != STATUS_NOT_FOUND) CheckStatus(host, named);
    Json found{{"id", switchId},
               {"alias", TextOf(reader, {StoredLevel::GLOBAL, switchId}, KEY_ALIAS)},
               {"class", stored.className},
               {"version", stored.version},
               {"associated", stored.associated},
               {"portset", portset},
               {"running", GetRecord(reader, runtime::PortsetKey(portset), running) == STATUS_OK}};
    std::vector<NamedNic> uplinks;
    CheckStatus(host, ListUplinks(reader, switchId, uplinks));
    found["uplinks"] = Json::array();
    for (const NamedNic &uplink : uplinks)
        found["uplinks"].push_back({{"port", FieldText(uplink.nic.portId)}, {"nic", uplink.name}});
    found["ports"] = DescribePorts(host, reader, switchId);
    return found;
}

Json DescribePortsets(const Host &host, Reader &reader)
{
    std::vector<std::string> names;
    CheckStatus(host, ListPortsets(reader, names));
    Json portsets = Json::array();
    for (const std::string &name : names) {
        Portset portset;
        CheckStatus(host, GetRecord(reader, runtime::PortsetKey(name), portset));
        portsets.push_back({{"name", name},
                            {"class", FieldText(portset.className)},
                            {"ports", uint32_t{portset.ports}},
                            {"mtu", uint32_t{portset.mtu}}});
    }
    return portsets;
}

Json DescribeNics(const Host &host, Reader &reader)
{
    std::vector<NamedNic> nics;
    CheckStatus(host, ListNics(reader, nics));
    Json described = Json::array();
    for (const auto &[name, nic] : nics)
        described.push_back({{"name", name},
                             {"link", nic.LinkUp() ? "up" : "down"},
                             {"admin", nic.adminUp ? "up" : "down"},
                             {"speed", nic.speed},
                             {"duplex", nic.fullDuplex ? "full" : "half"},
                             {"mtu", nic.mtu},
                             {"numaNode", nic.numaNode},
                             {"switch", FieldText(nic.switchId)},
                             {"port", FieldText(nic.portId)}});
    return described;
}

Json DescribeHost(const Host &host, Reader &reader)
{
    std::vector<std::string> switchIds;
    CheckStatus(host, ForEachSwitch(reader, [&](std::string_view switchId, std::string_view) {
                    switchIds.emplace_back(switchId);
                    return true;
                }));
    Json switches = Json::array();
    for (const std::string &switchId : switchIds)
        switches.push_back(DescribeSwitch(host, reader, switchId));
    return {{"directory", host.Directory()},
            {"switches", switches},
            {"portsets", DescribePortsets(host, reader)},
            {"nics", DescribeNics(host, reader)}};
}

std::string Get(const Json &object, const char *key) { return object.at(key).get<std::string>(); }

uint32_t Number(const Json &object, const char *key) { return object.at(key).get<uint32_t>(); }

void PrintSwitch(const Json &found)
{
    printf("switch %s\n  id %s, class %s, version %u, %s\n  portset %s, %s\n", Get(found, "alias").c_str(),
           Get(found, "id").c_str(), Get(found, "class").c_str(), Number(found, "version"),
           found["associated"] ? "associated" : "not associated", Get(found, "portset").c_str(),
           found["running"] ? "running" : "not running");
    for (const Json &uplink : found["uplinks"])
        printf("  uplink %s on %s\n", Get(uplink, "port").c_str(), Get(uplink, "nic").c_str());
    for (const Json &port : found["ports"])
        printf("  port %s, number %u\n", Get(port, "id").c_str(), Number(port, "number"));
}

void PrintNic(const Json &nic)
{
    const std::string port = Get(nic, "port");
    printf("nic %s\n  link %s, admin %s, %u Mb/s, %s duplex, MTU %u, NUMA node %d, %s\n",
           Get(nic, "name").c_str(), Get(nic, "link").c_str(), Get(nic, "admin").c_str(),
           Number(nic, "speed"), Get(nic, "duplex").c_str(), Number(nic, "mtu"), nic["numaNode"].get<int>(),
           port.empty() ? "free" : ("bound to " + port + " of " + Get(nic, "switch")).c_str());
}

void Print(const Json &host)
{
    printf("host %s\n", Get(host, "directory").c_str());
    for (const Json &found : host["switches"])
        PrintSwitch(found);
    for (const Json &portset : host["portsets"])
        printf("portset %s\n  class %s, %u ports, MTU %u\n", Get(portset, "name").c_str(),
               Get(portset, "class").c_str(), Number(portset, "ports"), Number(portset, "mtu"));
    for (const Json &nic : host["nics"])
        PrintNic(nic);
}

}

int ShowHost(const std::string &state, bool json)
{
    const std::unique_ptr<Host> host = OpenHost(state);
    const Json described = DescribeHost(*host, host->GetEngine());
    if (json)
        printf("%s\n", described.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    else
        Print(described);
    return fflush(stdout) == 0 ? 0 : 1;
}

}
