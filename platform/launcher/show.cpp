// vshost show: a host's switches, portsets, ports, NICs and plugged interfaces, for people or as JSON.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "platform/host/files.h"
#include "platform/host/live_requests.h"
#include "platform/host/plugs.h"
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
                             {"link", nic.LinkUp()},
                             {"admin", nic.adminUp != 0},
                             {"speed", nic.speed},
                             {"full-duplex", nic.fullDuplex != 0},
                             {"mtu", nic.mtu},
                             {"numa-node", nic.numaNode},
                             {"switch", FieldText(nic.switchId)},
                             {"port", FieldText(nic.portId)}});
    return described;
}

// "untagged", "VLAN 100", "VLANs 1-10, 20".
std::string DescribeVlans(std::string_view policy)
{
    VlanRecord record = {};
    if (!policy.empty() && policy.size() < sizeof(record)) return "a damaged VLAN policy";
    policy.copy(reinterpret_cast<char *>(&record), sizeof(record));
    const bool isTrunk = record.flags & VLAN_TRUNK;
    if (!isTrunk) return record.vlanId ? "VLAN " + std::to_string(record.vlanId) : "untagged";
    std::string ranges;
    for (size_t at = sizeof(record); at + 4 <= policy.size(); at += 4) {
        uint16_t range[2];
        policy.copy(reinterpret_cast<char *>(range), sizeof(range), at);
        ranges += (ranges.empty() ? "" : ", ") + std::to_string(range[0]);
        if (range[1] != range[0]) ranges += "-" + std::to_string(range[1]);
    }
    return ranges.empty() ? "a trunk without VLANs" : "VLANs " + ranges;
}

std::string DescribePortVlans(Reader &reader, const std::string &switchId, const std::string &portId)
{
    StoredProperty policy;
    const VsStatus status = GetProperty(reader, {StoredLevel::PORT, switchId, portId}, KEY_VLAN, policy);
    return status && status != STATUS_NOT_FOUND ? "unknown VLANs" : DescribeVlans(policy.value);
}

Json DescribeInterface(const Host &host, Reader &reader, const NamedPlug &entry)
{
    std::string switchId(FieldText(entry.plug.switchId)), portId(FieldText(entry.plug.portId));
    Nic nic;
    if (entry.plug.IsNic() && GetRecord(reader, runtime::NicKey(entry.interface), nic) == STATUS_OK) {
        switchId = FieldText(nic.switchId);
        portId = FieldText(nic.portId);
    }
    const LiveAnswer link = AskVshostd(host.Directory(), {"link", entry.interface});
    return {{"name", entry.interface},
            {"use", entry.plug.IsNic() ? "nic" : "port"},
            {"switch", switchId},
            {"alias", TextOf(reader, {StoredLevel::GLOBAL, switchId}, KEY_ALIAS)},
            {"port", portId},
            {"vlans", portId.empty() ? std::string() : DescribePortVlans(reader, switchId, portId)},
            {"link", link.error ? "unknown" : link.text},
            {"kept", entry.plug.IsKept()}};
}

Json DescribeInterfaces(const Host &host, Reader &reader)
{
    std::vector<NamedPlug> plugs;
    CheckStatus(host, ListPlugs(reader, plugs));
    Json interfaces = Json::array();
    for (const NamedPlug &entry : plugs)
        if (entry.plug.IsKept() || FieldText(entry.plug.boot) == BootId())
            interfaces.push_back(DescribeInterface(host, reader, entry));
    return interfaces;
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
            {"nics", DescribeNics(host, reader)},
            {"interfaces", DescribeInterfaces(host, reader)}};
}

std::string Get(const Json &object, const char *key) { return object.at(key).get<std::string>(); }

uint32_t Number(const Json &object, const char *key) { return object.at(key).get<uint32_t>(); }

void PrintSwitch(const Json &found)
{
    printf("switch %s\n  id %s\n  class %s, version %u, %s\n  portset %s, %s\n", Get(found, "alias").c_str(),
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
    printf("nic %s\n  link %s, admin %s, %u Mb/s, %s duplex, MTU %u, NUMA node %d\n  %s\n",
           Get(nic, "name").c_str(), nic["link"] ? "up" : "down", nic["admin"] ? "up" : "down",
           Number(nic, "speed"), nic["full-duplex"] ? "full" : "half", Number(nic, "mtu"),
           nic["numa-node"].get<int>(),
           port.empty() ? "free" : ("bound to " + port + " of " + Get(nic, "switch")).c_str());
}

void PrintInterface(const Json &interface)
{
    const std::string port = Get(interface, "port"), alias = Get(interface, "alias"),
                      link = Get(interface, "link"), vlans = Get(interface, "vlans");
    const std::string place = port + " of " + (alias.empty() ? Get(interface, "switch") : alias);
    const bool isNic = Get(interface, "use") == "nic";
    printf("interface %s\n  %s%s\n  %slink %s, %s\n", Get(interface, "name").c_str(),
           !isNic         ? "plugged to port "
           : port.empty() ? "a NIC that is free"
                          : "a NIC on uplink port ",
           port.empty() ? "" : place.c_str(), vlans.empty() ? "" : (vlans + ", ").c_str(),
           link == "unknown" ? "unknown (vshostd doesn't answer)"
           : link == "away"  ? "away (it is plugged again when it comes back)"
                             : link.c_str(),
           interface["kept"] ? "kept" : "until the machine's next start");
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
    for (const Json &interface : host["interfaces"])
        PrintInterface(interface);
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
