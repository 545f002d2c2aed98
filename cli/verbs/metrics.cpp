// vsctl metrics: all counters of the host in Prometheus' text format.
#include <fmt/format.h>
#include <map>
#include <set>
#include <unordered_map>

#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

using enum Record;

struct Metric {
    std::string_view name;
    const char *help;
    std::string_view field = {}; // "-packets": of each direction; "dropped-": for each reason; empty: not one
};

// The metrics of a record's fields, and of what is counted beside it.
const struct {
    Record record;
    std::initializer_list<Metric> metrics;
} METRICS[] = {
    {UPLINK,
     {{"nic_up", "Whether NICs have a link and are up."},
      {"nic_speed_bytes", "Speed of NICs in bytes a second."}}},
    {INFO,
     {{"switch_running", "Whether switches run."},
      {"switch_ports", "Ports of switches.", "used-ports"},
      {"switch_ports_limit", "Ports that switches can have.", "max-ports"},
      {"switch_mtu_bytes", "MTU of switches.", "mtu"}}},
    {RARP_STATS,
     {{"rarp_sent_total", "Announcements of moved addresses that were sent.", "sent"},
      {"rarp_failed_total", "Announcements of moved addresses that could not be sent.", "failed"}}},
    {TEAMING_STATS,
     {{"team_packets_total", "Frames that teams of uplinks sent (tx) and got (rx).", "-packets"},
      {"team_bytes_total", "Bytes that teams of uplinks sent (tx) and got (rx).", "-bytes"},
      {"team_failovers_total", "Changes away from an uplink that lost its link.", "failovers"},
      {"team_failbacks_total", "Changes back to an uplink that has its link again.", "failbacks"}}},
    {LEARNING_INFO,
     {{"switch_addresses", "Addresses in the MAC tables of switches.", "entries"},
      {"switch_addresses_limit", "Addresses that switches learn.", "limit"},
      {"team_addresses", "Addresses behind the uplinks of switches.", "team-entries"},
      {"switch_learning_ports", "Ports that learn addresses.", "learning-ports"}}},
    {PORT_STATISTICS,
     {{"port_packets_total", "Frames that ports sent (from) and got (to).", "-packets"},
      {"port_bytes_total", "Bytes that ports sent (from) and got (to).", "-bytes"},
      {"port_multicast_packets_total", "Multicast frames that ports sent (from) and got (to).", "-multicast"},
      {"port_broadcast_packets_total", "Broadcast frames that ports sent (from) and got (to).", "-broadcast"},
      {"port_dropped_packets_total", "Frames of ports that were dropped, by the reason.", "dropped-"}}},
    {PORT_LEARNING_STATS,
     {{"port_addresses", "Addresses in the MAC tables of ports.", "entries"},
      {"port_addresses_limit", "Addresses that ports can have in their MAC tables.", "limit"},
      {"port_learned_addresses_total", "Addresses that ports learned.", "learned"},
      {"port_moved_addresses_total", "Addresses that moved to ports from other ports.", "moved"},
      {"port_aged_addresses_total", "Addresses that ports removed because of their age.", "aged"},
      {"port_refused_addresses_total", "Addresses that ports refused because of the limit.", "refused"},
      {"port_refused_packets_total", "Frames from addresses that ports refused.", "dropped"}}},
    {MCAST_STATS,
     {{"multicast_group_ports", "Ports that are members of multicast groups.", "ports"},
      {"multicast_group_joins_total", "How often ports became members of multicast groups.", "joins"},
      {"multicast_group_leaves_total", "Messages that leave multicast groups.", "leaves"},
      {"multicast_group_queries_total", "Queries in the VLANs of multicast groups.", "queries"},
      {"multicast_groups", "Multicast groups that ports are members of."}}},
    {LAG_TABLE, {{"lag_up", "Whether a member of LAGs has a link."}, {"lag_members", "NICs in LAGs."}}},
    {MIRROR_STATS,
     {{"mirror_active", "Whether mirror sessions run.", "active"},
      {"mirror_packets_total", "Frames that mirror sessions copied.", "mirrored-packets"},
      {"mirror_bytes_total", "Bytes that mirror sessions copied.", "mirrored-bytes"},
      {"mirror_dropped_packets_total", "Copies of mirror sessions that were dropped.", "dropped-packets"},
      {"mirror_dropped_bytes_total", "Bytes of copies that were dropped.", "dropped-bytes"},
      {"mirror_truncated_packets_total", "Copies that are shorter than their frames.", "truncated"},
      {"mirror_encapsulation_errors_total", "Copies that could not be encapsulated.", "encapsulation-errors"},
      {"mirror_unreachable_packets_total", "Copies whose destination is gone.", "unreachable"}}},
};

// As in {switch="lab",port="port0"}.
std::string Labels(std::initializer_list<std::pair<const char *, std::string_view>> labels)
{
    std::string text;
    for (const auto &[label, value] : labels) {
        text += fmt::format("{}{}=\"", text.empty() ? "" : ",", label);
        for (const char c : value)
            text += c == '\n' ? "\\n" : c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
        text += '"';
    }
    return text;
}

// What a field adds to the labels of a metric's samples; nothing where the metric does not have it.
std::optional<std::string> LabelOf(std::string_view field, const Metric &metric)
{
    if (field == metric.field) return "";
    if (metric.field.starts_with("-") && field.ends_with(metric.field))
        return fmt::format(",direction=\"{}\"", field.substr(0, field.size() - metric.field.size()));
    if (metric.field.ends_with("-") && field.starts_with(metric.field))
        return fmt::format(",reason=\"{}\"", field.substr(metric.field.size()));
    return {};
}

// The samples of all metrics. A large host has millions.
class Metrics {
public:
    Metrics()
    {
        for (const auto &[record, metrics] : METRICS)
            for (const Metric &metric : metrics)
                for (const vswitch::RecordField &field : FieldsOf(record))
                    if (auto label = LabelOf(field.name, metric))
                        sources[record].emplace_back(metric.name, field, *label);
    }
    void Add(std::string_view metric, std::string_view labels, uint64_t value, std::string_view label = "")
    {
        const fmt::format_int digits(value);
        std::string &text = samples[metric];
        for (const std::string_view part :
             {std::string_view("vswitch_"), metric, std::string_view("{"), labels, label,
              std::string_view("} "), std::string_view(digits.data(), digits.size()), std::string_view("\n")})
            text += part;
    }
    void Add(Record record, const void *bytes, std::string_view labels)
    {
        for (const auto &[metric, field, label] : sources[record])
            Add(metric, labels, NumberOf(field, bytes), label);
    }
    void Read(Record record, const Target &target, std::string_view labels, const Reader &read)
    {
        Add(record, ReadBytes(record, target, read).data(), labels);
    }
    std::string Text() const
    {
        std::string text;
        for (const auto &[record, metrics] : METRICS) {
            for (const auto &[name, help, field] : metrics) {
                if (!samples.contains(name)) continue;
                const char *const type = name.ends_with("_total") ? "counter" : "gauge";
                text += fmt::format("# HELP vswitch_{0} {1}\n# TYPE vswitch_{0} {2}\n", name, help, type);
                text += samples.at(name);
            }
        }
        return text;
    }

private:
    std::map<Record, std::vector<std::tuple<std::string_view, vswitch::RecordField, std::string>>> sources;
    std::unordered_map<std::string_view, std::string> samples;
};

void AddPort(const Target &port, Metrics &metrics)
{
    const std::string labels = Labels({{"switch", port.alias}, {"port", port.port}});
    const VSwitchPortStatistics counted = ReadStatistics(port);
    metrics.Add(PORT_STATISTICS, &counted, labels);
    metrics.Read(PORT_LEARNING_STATS, port, labels, [&](void *learning) {
        return VSZOR_GetPortMACLearningStats(port.Port(), port.Alias(), learning);
    });
}

void AddGroups(const Target &target, const std::string &portset, Metrics &metrics)
{
    for (const AddressKind &kind : std::span(ADDRESS_KINDS).subspan(1)) {
        const std::vector<Bytes> listed = RunningGroups(target, kind, 0);
        // A group of several VLANs comes several times.
        const std::set<Bytes> groups(listed.begin(), listed.end());
        for (const Bytes &group : groups) {
            DriverBuffer<> stats;
            const VsStatus status =
                VSZOR_GetMcastFilterStats(portset.c_str(), 0, kind.number, group.data(), stats.Out());
            if (status == STATUS_NOT_FOUND) continue; // its last member has left meanwhile
            const std::string text = AddressText(group.data(), group.size());
            CheckDriver(status, "reading the statistics of group " + text + " of", target);
            metrics.Add(MCAST_STATS, stats.Get(), Labels({{"switch", target.alias}, {"group", text}}));
        }
        metrics.Add("multicast_groups", Labels({{"switch", target.alias}, {"kind", kind.name}}),
                    groups.size());
    }
}

void AddLags(const Target &target, const std::string &portset, Metrics &metrics)
{
    const auto read = [&](void **table) { return VSZOR_GetLAGTable(portset.c_str(), table); };
    for (const Json &lag : ReadTable(LAG_TABLE, target, read)) {
        const std::string labels =
            Labels({{"switch", target.alias}, {"lag", lag["lag"].get_ref<const std::string &>()}});
        metrics.Add("lag_up", labels, lag["link"].get<bool>());
        metrics.Add("lag_members", labels, lag["members"].size());
    }
}

void AddMirrors(const Target &target, Metrics &metrics)
{
    for (const std::string &session : RunningSessions(target))
        metrics.Read(MIRROR_STATS, target, Labels({{"switch", target.alias}, {"session", session}}),
                     [&](void *stats) {
                         return VSZOR_GetDVMirrorSessionStats(target.Alias(), session.c_str(), stats);
                     });
}

constexpr std::pair<Record, VsStatus (*)(const char *portset, void *record)> OF_SWITCHES[] = {
    {INFO, VSZOR_GetVSInfo},
    {RARP_STATS, VSZOR_GetRARPStats},
    {TEAMING_STATS, VSZOR_GetServicePortTeamingStats},
    {LEARNING_INFO, VSZOR_GetSwitchMACLearningInfo}};

void AddSwitch(const std::string &alias, Metrics &metrics)
{
    const Target target{alias, ""};
    const std::string portset = PortsetOf(alias), labels = Labels({{"switch", alias}});
    for (const auto &[record, get] : OF_SWITCHES)
        metrics.Read(record, target, labels,
                     [&, get = get](void *bytes) { return get(portset.c_str(), bytes); });
    for (const vshost_port &port : PortsOf(alias))
        AddPort({alias, port.id}, metrics);
    AddGroups(target, portset, metrics);
    AddLags(target, portset, metrics);
    AddMirrors(target, metrics);
}

void AddNics(Metrics &metrics)
{
    for (const vshost_nic &nic : ListNics()) {
        const std::string alias = *nic.switchId ? AliasOfId(nic.switchId) : "";
        const std::string labels = Labels({{"nic", nic.name}, {"switch", alias}, {"port", nic.portId}});
        metrics.Add("nic_up", labels, nic.link && nic.adminUp);
        metrics.Add("nic_speed_bytes", labels, uint64_t{nic.speed} * 125000);
    }
}

Result Print(const Verb &, const Arguments &)
{
    RequireOwnPlatform("list ports and counters");
    Metrics metrics;
    AddNics(metrics);
    for (const std::string &alias : SwitchNames()) {
        const bool isRunning = IsRunning(alias);
        metrics.Add("switch_running", Labels({{"switch", alias}}), isRunning);
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
                   "VSDVS_GetPortProp VSZOR_GetPortMACLearningStats VSZOR_GetSwitchMACLearningInfo "
                   "VSZOR_GetServicePortTeamingStats VSZOR_GetRARPStats VSZOR_GetDVMirrorSessionStats "
                   "VSZOR_GetMcastFilterStats VSZOR_GetLAGTable VSZOR_GetVSInfo"})};
}

}
