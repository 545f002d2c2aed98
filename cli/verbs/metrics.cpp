// vsctl metrics: all counters of the host in Prometheus' text format.
#include <algorithm>
#include <fmt/format.h>
#include <map>

#include "cli/verbs/host_view.h"
#include "cli/verbs/statistics.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

using Labels = std::vector<std::pair<const char *, std::string>>;

std::string Escaped(const std::string &text)
{
    std::string escaped;
    for (char c : text) {
        if (c == '\n')
            escaped += "\\n";
        else
            (escaped += c == '"' || c == '\\' ? "\\" : "") += c;
    }
    return escaped;
}

// The metrics in the order in which they are first given, each with all its samples.
class Metrics {
public:
    void Add(const std::string &name, const char *help, const Labels &labels, uint64_t value)
    {
        std::vector<std::string> parts;
        for (const auto &[label, text] : labels)
            parts.push_back(fmt::format("{}=\"{}\"", label, Escaped(text)));
        std::string &text = samples[name];
        if (text.empty()) {
            names.push_back(name);
            const char *type = name.ends_with("_total") ? "counter" : "gauge";
            text = fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
        }
        text += fmt::format("{}{{{}}} {}\n", name, fmt::join(parts, ","), value);
    }
    std::string Text() const
    {
        std::string text;
        for (const std::string &name : names)
            text += samples.at(name);
        return text;
    }

private:
    std::vector<std::string> names;
    std::map<std::string, std::string> samples;
};

// A field of a decoded record, and what becomes of it.
struct Counter {
    const char *field;
    const char *name;
    const char *help;
    const char *label = nullptr; // of several counters with one name
    const char *value = "";
};

void AddRecord(const Json &record, std::span<const Counter> counters, const Labels &labels, Metrics &metrics)
{
    for (const Counter &counter : counters) {
        Labels all = labels;
        if (counter.label) all.emplace_back(counter.label, counter.value);
        const Json &value = record[counter.field];
        metrics.Add(std::string("vswitch_") + counter.name, counter.help, all,
                    value.is_boolean() ? value.get<bool>() : value.get<uint64_t>());
    }
}

constexpr const char *PACKETS = "Frames that ports sent (from) and got (to).";
constexpr const char *BYTES = "Bytes that ports sent (from) and got (to).";
constexpr const char *MULTICAST = "Multicast frames that ports sent (from) and got (to).";
constexpr const char *BROADCAST = "Broadcast frames that ports sent (from) and got (to).";
constexpr const char *DROPPED = "Frames of ports that were dropped, by the reason.";

constexpr Counter PORT_COUNTERS[] = {
    {"from-packets", "port_packets_total", PACKETS, "direction", "from"},
    {"to-packets", "port_packets_total", PACKETS, "direction", "to"},
    {"from-bytes", "port_bytes_total", BYTES, "direction", "from"},
    {"to-bytes", "port_bytes_total", BYTES, "direction", "to"},
    {"from-multicast", "port_multicast_packets_total", MULTICAST, "direction", "from"},
    {"to-multicast", "port_multicast_packets_total", MULTICAST, "direction", "to"},
    {"from-broadcast", "port_broadcast_packets_total", BROADCAST, "direction", "from"},
    {"to-broadcast", "port_broadcast_packets_total", BROADCAST, "direction", "to"},
    {"dropped-blocked", "port_dropped_packets_total", DROPPED, "reason", "blocked"},
    {"dropped-vlan", "port_dropped_packets_total", DROPPED, "reason", "vlan"},
    {"dropped-security", "port_dropped_packets_total", DROPPED, "reason", "security"},
    {"dropped-learning-limit", "port_dropped_packets_total", DROPPED, "reason", "learning-limit"},
    {"dropped-filter", "port_dropped_packets_total", DROPPED, "reason", "filter"},
    {"dropped-length", "port_dropped_packets_total", DROPPED, "reason", "length"},
    {"dropped-flood-limit", "port_dropped_packets_total", DROPPED, "reason", "flood-limit"},
    {"dropped-not-sent", "port_dropped_packets_total", DROPPED, "reason", "not-sent"},
};

constexpr Counter LEARNING_COUNTERS[] = {
    {"entries", "port_addresses", "Addresses in the MAC tables of ports."},
    {"learned", "port_learned_addresses_total", "Addresses that ports learned."},
    {"moved", "port_moved_addresses_total", "Addresses that moved to ports from other ports."},
    {"aged", "port_aged_addresses_total", "Addresses that ports removed because of their age."},
    {"refused", "port_refused_addresses_total", "Addresses that ports refused because of the limit."},
};

constexpr Counter INFO_COUNTERS[] = {
    {"used-ports", "switch_ports", "Ports of switches."},
    {"max-ports", "switch_ports_limit", "Ports that switches can have."},
    {"mtu", "switch_mtu_bytes", "MTU of switches."},
};

constexpr Counter RARP_COUNTERS[] = {
    {"sent", "rarp_sent_total", "Announcements of moved addresses that were sent."},
    {"failed", "rarp_failed_total", "Announcements of moved addresses that could not be sent."},
};

constexpr Counter TEAMING_COUNTERS[] = {
    {"tx-packets", "team_packets_total", "Frames that teams of uplinks sent (tx) and got (rx).", "direction",
     "tx"},
    {"rx-packets", "team_packets_total", "Frames that teams of uplinks sent (tx) and got (rx).", "direction",
     "rx"},
    {"tx-bytes", "team_bytes_total", "Bytes that teams of uplinks sent (tx) and got (rx).", "direction",
     "tx"},
    {"rx-bytes", "team_bytes_total", "Bytes that teams of uplinks sent (tx) and got (rx).", "direction",
     "rx"},
    {"failovers", "team_failovers_total", "Changes away from an uplink that lost its link."},
    {"failbacks", "team_failbacks_total", "Changes back to an uplink that has its link again."},
};

constexpr Counter MIRROR_COUNTERS[] = {
    {"active", "mirror_active", "Whether mirror sessions run."},
    {"mirrored-packets", "mirror_packets_total", "Frames that mirror sessions copied."},
    {"mirrored-bytes", "mirror_bytes_total", "Bytes that mirror sessions copied."},
    {"dropped-packets", "mirror_dropped_packets_total", "Copies of mirror sessions that were dropped."},
    {"dropped-bytes", "mirror_dropped_bytes_total", "Bytes of copies that were dropped."},
    {"truncated", "mirror_truncated_packets_total", "Copies that are shorter than their frames."},
    {"encapsulation-errors", "mirror_encapsulation_errors_total", "Copies that could not be encapsulated."},
    {"unreachable", "mirror_unreachable_packets_total", "Copies whose destination is gone."},
};

void AddPort(const std::string &alias, const vshost_port &port, Metrics &metrics)
{
    const Target target{alias, port.id};
    const Labels labels = {{"switch", alias}, {"port", port.id}};
    const VSwitchPortStatistics counted = ReadStatistics(target);
    AddRecord(Decode(Record::PORT_STATISTICS, &counted, sizeof counted), PORT_COUNTERS, labels, metrics);
    uint8_t learning[PORT_MAC_LEARNING_STATS_SIZE];
    CheckDriver(VSZOR_GetPortMACLearningStats(target.Port(), target.Alias(), learning),
                "reading the MAC learning statistics of", target);
    AddRecord(Decode(Record::PORT_LEARNING_STATS, learning, sizeof learning), LEARNING_COUNTERS, labels,
              metrics);
}

void AddMirrors(const Target &target, Metrics &metrics)
{
    DriverBuffer<> list;
    CheckDriver(VSZOR_GetDVMirrorSessionIDs(target.Alias(), list.Out()),
                "listing the running mirror sessions of", target);
    using Id = char[sizeof MirrorSessionRecord::sessionId];
    for (const Id &id : DriverEntries<Id>(static_cast<const ZorListHeader *>(list.Get()))) {
        const std::string session = Name(id, sizeof id);
        uint8_t stats[MIRROR_SESSION_STATS_SIZE] = {};
        CheckDriver(VSZOR_GetDVMirrorSessionStats(target.Alias(), session.c_str(), stats),
                    "reading the statistics of mirror session " + session + " of", target);
        AddRecord(Decode(Record::MIRROR_STATS, stats, sizeof stats), MIRROR_COUNTERS,
                  {{"switch", target.alias}, {"session", session}}, metrics);
    }
}

void AddSwitch(const std::string &alias, Metrics &metrics)
{
    const Target target{alias, ""};
    const Labels labels = {{"switch", alias}};
    const std::string portset = PortsetOf(alias);
    uint8_t info[VS_INFO_SIZE], rarp[RARP_STATS_SIZE], team[SERVICE_PORT_TEAMING_STATS_SIZE];
    CheckDriver(VSZOR_GetVSInfo(portset.c_str(), info), "reading the state of", target);
    AddRecord(Decode(Record::INFO, info, sizeof info), INFO_COUNTERS, labels, metrics);
    CheckDriver(VSZOR_GetRARPStats(portset.c_str(), rarp), "reading the RARP statistics of", target);
    AddRecord(Decode(Record::RARP_STATS, rarp, sizeof rarp), RARP_COUNTERS, labels, metrics);
    CheckDriver(VSZOR_GetServicePortTeamingStats(portset.c_str(), team), "reading the teaming statistics of",
                target);
    AddRecord(Decode(Record::TEAMING_STATS, team, sizeof team), TEAMING_COUNTERS, labels, metrics);
    for (const vshost_port &port : PortsOf(alias))
        AddPort(alias, port, metrics);
    AddMirrors(target, metrics);
}

void AddNics(Metrics &metrics)
{
    for (const Json &nic : DescribeNics()) {
        const auto text = [&nic](const char *key) {
            return nic[key].is_null() ? "" : nic[key].get<std::string>();
        };
        const Labels labels = {{"nic", text("nic")}, {"switch", text("switch")}, {"port", text("port")}};
        metrics.Add("vswitch_nic_up", "Whether NICs have a link and are up.", labels,
                    nic["link"].get<bool>());
        metrics.Add("vswitch_nic_speed_bytes", "Speed of NICs in bytes a second.", labels,
                    nic["speed"].get<uint64_t>() * 125000);
    }
}

Result Print(const Verb &, const Arguments &)
{
    RequireOwnPlatform("list ports and counters");
    Metrics metrics;
    AddNics(metrics);
    for (const std::string &alias : SwitchNames()) {
        const bool isRunning = IsRunning(alias);
        metrics.Add("vswitch_switch_running", "Whether switches run.", {{"switch", alias}}, isRunning);
        if (isRunning) AddSwitch(alias, metrics);
    }
    return Text(metrics.Text());
}

}

std::vector<Verb> MetricsVerbs()
{
    return {Reads("metrics", Print, {},
                  {"Print all counters in Prometheus' text format",
                   "> /var/lib/prometheus/node-exporter/vswitch.prom",
                   "VSDVS_GetPortProp VSZOR_GetPortMACLearningStats VSZOR_GetServicePortTeamingStats "
                   "VSZOR_GetRARPStats VSZOR_GetDVMirrorSessionStats VSZOR_GetVSInfo"})};
}

}
