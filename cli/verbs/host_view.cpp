// What is on the host, as one document that `show`, `topology` and `top` draw.
#include "cli/verbs/host_view.h"

#include <fmt/format.h>
#include <map>

#include "cli/base/decode.h"
#include "cli/change/object.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

Json NicRow(const vshost_nic &nic)
{
    return {{"nic", nic.name},          {"link", nic.link && nic.adminUp},    {"admin", nic.adminUp != 0},
            {"speed", nic.speed},       {"full-duplex", nic.fullDuplex != 0}, {"mtu", nic.mtu},
            {"numa-node", nic.numaNode}};
}

// Sorts the ports of a switch by their policies, and takes the mirror sessions apart. The policies of one
// port are read for all that have equal properties.
class PortGroups {
public:
    explicit PortGroups(std::string alias) : alias(std::move(alias)) {}

    void Add(const vshost_port &port)
    {
        const auto known = byProperties.find(port.properties);
        Json &group = groups[known != byProperties.end() ? known->second : ReadGroup(port)];
        group["ports"].push_back(port.id);
        if (*port.interface) group["plugged"][port.id] = port.interface;
    }

    void TakeSessions(const std::string &port, Json &policies)
    {
        for (const Json &session : policies.value("mirror", Json::array()))
            mirrors.emplace_back(Json{{"port", OrNull(port)}}).update(session);
        policies.erase("mirror");
    }

    Json Ports() const
    {
        Json rows = groups;
        for (Json &row : rows) {
            row["count"] = row["ports"].size();
            row["ports"] = PortRanges(row["ports"]);
        }
        return rows;
    }
    const Json &Mirrors() const { return mirrors; }

private:
    size_t ReadGroup(const vshost_port &port)
    {
        Json policies = ReadPort({alias, port.id});
        if (policies.is_null()) policies = Json::object(); // it is gone meanwhile
        policies.erase("connect-id");
        policies.erase("external-id");
        const bool isMirrored = policies.contains("mirror");
        TakeSessions(port.id, policies);
        const auto [same, isNew] = byPolicies.try_emplace(Dump(policies), groups.size());
        if (isNew)
            groups.push_back({{"ports", Json::array()},
                              {"count", 0},
                              {"policies", std::move(policies)},
                              {"plugged", Json::object()}});
        if (!isMirrored) byProperties[port.properties] = same->second; // sessions belong to one port
        return same->second;
    }

    const std::string alias;
    Json groups = Json::array(), mirrors = Json::array();
    std::map<uint64_t, size_t> byProperties;
    std::map<std::string, size_t> byPolicies;
};

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
    groups.TakeSessions("", stored);
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
    if (IsEmbedded()) row["ports"] = groups.Ports();
    row["mirrors"] = groups.Mirrors();
    return row;
}

}

Json DescribeUplinks(const std::string &alias, const std::string &switchId)
{
    const Uplinks uplinks = ReadUplinks(alias);
    std::map<std::string, Json> nics; // by the ports that they are bound to
    for (const vshost_nic &nic : ListNics()) {
        if (switchId == nic.switchId) nics[nic.portId] = NicRow(nic);
    }
    Json rows = Json::array();
    for (size_t i = 0; i < uplinks.ids.size(); i++) {
        Json row = {{"uplink", i < uplinks.names.size() ? uplinks.names[i] : uplinks.ids[i]},
                    {"port", uplinks.ids[i]}};
        if (const auto nic = nics.find(uplinks.ids[i]); nic != nics.end()) row.update(nic->second);
        rows.push_back(row);
    }
    return rows;
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

Json Describe(const Arguments &arguments)
{
    if (arguments.Has("SWITCH")) {
        SwitchId(arguments.Text("SWITCH"));
        return {{"switches", Json::array({DescribeSwitch(arguments.Text("SWITCH"))})}};
    }
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

Json WithoutDefaults(std::span<const Field> fields, Json value)
{
    for (const Field &field : fields) {
        if (field.defaultText && value.value(field.name, Json()) == Json::parse(field.defaultText))
            value.erase(field.name);
    }
    return value;
}

std::vector<std::string> PolicyTexts(const Json &policies, bool ofPort)
{
    std::vector<std::string> parts;
    for (const auto &[name, value] : policies.items()) {
        const Policy *policy = value.is_object() ? FindPolicy(name, ofPort) : nullptr;
        const Json shown = policy ? WithoutDefaults(policy->fields, value) : value;
        if (!value.is_object() || !shown.empty()) parts.push_back(name + " " + CellText(shown));
    }
    return parts;
}
}
