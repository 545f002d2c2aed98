// What is on the host, as one document that `show`, `topology` and `top` draw.
#include "cli/verbs/host_view.h"

#include <fmt/format.h>
#include <map>

#include "cli/base/decode.h"
#include "cli/change/object.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

using NicMap = std::map<std::string, Json>; // of one switch, by the ports that they are bound to

Json OrNull(const std::string &text) { return text.empty() ? Json() : Json(text); }

Json NicRow(const vshost_nic &nic)
{
    return {{"nic", nic.name},          {"link", nic.link && nic.adminUp},    {"admin", nic.adminUp != 0},
            {"speed", nic.speed},       {"full-duplex", nic.fullDuplex != 0}, {"mtu", nic.mtu},
            {"numa-node", nic.numaNode}};
}

NicMap NicsOf(const std::string &switchId)
{
    NicMap nics;
    for (const vshost_nic &nic : ListNics()) {
        if (switchId == nic.switchId) nics[nic.portId] = NicRow(nic);
    }
    return nics;
}

}

Json DescribeUplinks(const std::string &alias, const std::string &switchId)
{
    const Uplinks uplinks = ReadUplinks(alias);
    const NicMap nics = NicsOf(switchId);
    Json rows = Json::array();
    for (size_t i = 0; i < uplinks.ids.size(); i++) {
        Json row = {{"uplink", i < uplinks.names.size() ? uplinks.names[i] : uplinks.ids[i]},
                    {"port", uplinks.ids[i]}};
        if (const auto nic = nics.find(uplinks.ids[i]); nic != nics.end()) row.update(nic->second);
        rows.push_back(row);
    }
    return rows;
}

namespace {

// Ports with the same policies.
struct PortGroup {
    std::vector<std::string> names;
    Json policies;
    Json plugged = Json::object(); // the interfaces, by port
};

Json PoliciesOfPort(const Target &port)
{
    Json policies = ReadPort(port);
    if (policies.is_null()) return Json::object(); // it is gone meanwhile
    policies.erase("connect-id");
    policies.erase("external-id");
    return policies;
}

// Mirror sessions are shown apart.
void TakeSessions(const char *policy, const std::string &port, Json &policies, Json &mirrors)
{
    for (const Json &session : policies.value(policy, Json::array())) {
        Json row = {{"port", OrNull(port)}};
        row.update(session);
        mirrors.push_back(row);
    }
    policies.erase(policy);
}

// Sorts the ports of a switch by their policies. The policies of one port are read for all that have equal
// properties.
class PortGroups {
public:
    explicit PortGroups(std::string alias) : alias(std::move(alias)) {}

    void Add(const vshost_port &port)
    {
        const auto known = byProperties.find(port.properties);
        const size_t index = known != byProperties.end() ? known->second : ReadGroup(port);
        groups[index].names.emplace_back(port.id);
        if (*port.interface) groups[index].plugged[port.id] = port.interface;
    }
    const std::vector<PortGroup> &Groups() const { return groups; }
    Json mirrors = Json::array();

private:
    size_t ReadGroup(const vshost_port &port)
    {
        Json policies = PoliciesOfPort({alias, port.id});
        const bool isMirrored = policies.contains("mirror");
        TakeSessions("mirror", port.id, policies, mirrors);
        const auto [same, isNew] = byPolicies.try_emplace(Dump(policies), groups.size());
        if (isNew) groups.push_back({{}, std::move(policies)});
        if (!isMirrored) byProperties[port.properties] = same->second; // sessions belong to one port
        return same->second;
    }

    const std::string alias;
    std::vector<PortGroup> groups;
    std::map<uint64_t, size_t> byProperties;
    std::map<std::string, size_t> byPolicies;
};

Json DescribePorts(const std::vector<PortGroup> &groups)
{
    Json rows = Json::array();
    for (const PortGroup &group : groups)
        rows.push_back({{"ports", PortRanges(group.names)},
                        {"count", group.names.size()},
                        {"policies", group.policies},
                        {"plugged", group.plugged}});
    return rows;
}

Json DescribeSwitch(const std::string &alias)
{
    Json stored = ReadSwitch(alias);
    if (stored.is_null()) Check(STATUS_NOT_FOUND, "finding", {alias, ""});
    const std::string id = stored["id"];
    PortGroups groups(alias);
    const auto ports = PortsOf(alias);
    for (const vshost_port &port : ports) {
        if (!port.isUplink) groups.Add(port);
    }
    TakeSessions("mirror", "", stored, groups.mirrors);
    Json row = {{"switch", alias},
                {"id", id},
                {"portset", stored["portset"]},
                {"state", IsRunning(alias) ? "running" : "not running"},
                {"mtu", stored.value("mtu", Json())},
                {"max-ports", stored.value("max-ports", Json())},
                {"used-ports", IsEmbedded() ? Json(ports.size()) : Json()}};
    for (const char *key : {"id", "portset", "version", "opaque", "mtu", "max-ports", "uplinks"})
        stored.erase(key);
    row["policies"] = stored;
    row["uplinks"] = DescribeUplinks(alias, id);
    if (IsEmbedded()) row["ports"] = DescribePorts(groups.Groups());
    row["mirrors"] = groups.mirrors;
    return row;
}

}

Json DescribeNics()
{
    std::map<std::string, std::string> aliases;
    Json rows = Json::array();
    for (const vshost_nic &nic : ListNics()) {
        Json row = NicRow(nic);
        if (*nic.switchId && !aliases.contains(nic.switchId)) aliases[nic.switchId] = AliasOfId(nic.switchId);
        row["switch"] = OrNull(aliases[nic.switchId]);
        row["port"] = OrNull(nic.portId);
        rows.push_back(row);
    }
    return rows;
}

Json DescribeOnly(const std::string &alias)
{
    SwitchId(alias);
    return {{"switches", Json::array({DescribeSwitch(alias)})}};
}

Json DescribeHost()
{
    Json switches = Json::array(), nics = Json::array();
    for (const std::string &alias : SwitchNames())
        switches.push_back(DescribeSwitch(alias));
    for (const vshost_nic &nic : ListNics()) {
        if (!*nic.portId) nics.push_back(NicRow(nic));
    }
    return {{"switches", switches}, {"free-nics", nics}};
}

std::string NicText(const Json &nic)
{
    const uint32_t speed = nic["speed"];
    const std::string rate = speed == 0          ? "speed unknown"
                             : speed % 1000 == 0 ? fmt::format("{} Gb/s", speed / 1000)
                                                 : fmt::format("{} Mb/s", speed);
    const std::string admin = nic["admin"] ? "" : ", taken down";
    return fmt::format("{} {} duplex, MTU {}{}", rate, nic["full-duplex"] ? "full" : "half",
                       nic["mtu"].get<uint32_t>(), admin);
}

std::vector<std::string> PolicyTexts(const Json &policies, bool ofPort)
{
    std::vector<std::string> parts;
    for (const auto &[name, value] : policies.items()) {
        Json shown = value;
        const Policy *policy = FindPolicy(name, ofPort);
        for (const Field &field : policy &&value.is_object() ? policy->fields : std::span<const Field>()) {
            if (field.defaultText && shown.value(field.name, Json()) == Json::parse(field.defaultText))
                shown.erase(field.name);
        }
        if (value.is_object() && shown.empty()) continue;
        parts.push_back(name + " " + CellText(shown));
    }
    return parts;
}

std::string SessionName(const Json &session) { return CellText(session.value("session", Json())); }

}
