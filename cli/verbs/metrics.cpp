// vsctl metrics: all counters of the host in Prometheus' text format.
#include <fmt/format.h>
#include <set>
#include <unordered_map>

#include "cli/verbs/host_view.h"
#include "cli/verbs/statistics.h"
#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

// As in {switch="lab",port="port0"}.
std::string Labels(std::initializer_list<std::pair<const char *, std::string_view>> labels)
{
    std::string text;
    for (const auto &[label, value] : labels) {
        text += fmt::format("{}{}=\"", text.empty() ? "" : ",", label);
        for (char c : value) {
            if (c == '\n')
                text += "\\n";
            else
                (text += c == '"' || c == '\\' ? "\\" : "") += c;
        }
        text += '"';
    }
    return text;
}

// A field of a record, and what becomes of it.
struct Counter {
    const char *field;
    const char *name;
    const char *help;
    const char *label = ""; // of several counters with one name
};

// The metrics in the order in which they are first given, each with all its samples. A large host has
// millions.
class Metrics {
public:
    void Add(const Counter &counter, const std::string &labels, uint64_t value)
    {
        const auto [family, isNew] = samples.try_emplace(counter.name);
        std::string &text = family->second;
        if (isNew) {
            names.push_back(counter.name);
            const char *type = family->first.ends_with("_total") ? "counter" : "gauge";
            text = fmt::format("# HELP vswitch_{0} {1}\n# TYPE vswitch_{0} {2}\n", counter.name, counter.help,
                               type);
        }
        text.append("vswitch_")
            .append(counter.name)
            .append("{")
            .append(labels)
            .append(counter.label)
            .append("} ");
        text.append(fmt::format_int(value).c_str()).append("\n");
    }
    std::string Text() const
    {
        std::string text;
        for (const std::string_view name : names)
            text += samples.at(name);
        return text;
    }

private:
    std::vector<std::string_view> names;
    std::unordered_map<std::string_view, std::string> samples;
};

void AddRecord(const Json &record, std::span<const Counter> counters, const std::string &labels,
               Metrics &metrics)
{
    for (const Counter &counter : counters) {
        const Json &value = record[counter.field];
        metrics.Add(counter, labels, value.is_boolean() ? value.get<bool>() : value.get<uint64_t>());
    }
}

// A record that has nothing but one word for each of the counters, in their order.
template<class Word, size_t COUNT>
void AddWords(const void *record, const Counter (&counters)[COUNT], const std::string &labels,
              Metrics &metrics)
{
    Word words[COUNT];
    memcpy(words, record, sizeof words);
    for (size_t i = 0; i < COUNT; i++)
        metrics.Add(counters[i], labels, words[i]);
}

constexpr const char *PACKETS = "Frames that ports sent (from) and got (to).";
constexpr const char *BYTES = "Bytes that ports sent (from) and got (to).";
constexpr const char *MULTICAST = "Multicast frames that ports sent (from) and got (to).";
constexpr const char *BROADCAST = "Broadcast frames that ports sent (from) and got (to).";
constexpr const char *DROPPED = "Frames of ports that were dropped, by the reason.";

constexpr Counter PORT_COUNTERS[] = {
    {"from-packets", "port_packets_total", PACKETS, ",direction=\"from\""},
    {"from-bytes", "port_bytes_total", BYTES, ",direction=\"from\""},
    {"to-packets", "port_packets_total", PACKETS, ",direction=\"to\""},
    {"to-bytes", "port_bytes_total", BYTES, ",direction=\"to\""},
    {"from-multicast", "port_multicast_packets_total", MULTICAST, ",direction=\"from\""},
    {"from-broadcast", "port_broadcast_packets_total", BROADCAST, ",direction=\"from\""},
    {"to-multicast", "port_multicast_packets_total", MULTICAST, ",direction=\"to\""},
    {"to-broadcast", "port_broadcast_packets_total", BROADCAST, ",direction=\"to\""},
    {"dropped-blocked", "port_dropped_packets_total", DROPPED, ",reason=\"blocked\""},
    {"dropped-vlan", "port_dropped_packets_total", DROPPED, ",reason=\"vlan\""},
    {"dropped-security", "port_dropped_packets_total", DROPPED, ",reason=\"security\""},
    {"dropped-learning-limit", "port_dropped_packets_total", DROPPED, ",reason=\"learning-limit\""},
    {"dropped-filter", "port_dropped_packets_total", DROPPED, ",reason=\"filter\""},
    {"dropped-length", "port_dropped_packets_total", DROPPED, ",reason=\"length\""},
    {"dropped-flood-limit", "port_dropped_packets_total", DROPPED, ",reason=\"flood-limit\""},
    {"dropped-not-sent", "port_dropped_packets_total", DROPPED, ",reason=\"not-sent\""},
};
static_assert(sizeof(VSwitchPortStatistics) == std::size(PORT_COUNTERS) * sizeof(uint64_t));

constexpr Counter LEARNING_COUNTERS[] = {
    {"entries", "port_addresses", "Addresses in the MAC tables of ports."},
    {"limit", "port_addresses_limit", "Addresses that ports can have in their MAC tables."},
    {"learned", "port_learned_addresses_total", "Addresses that ports learned."},
    {"moved", "port_moved_addresses_total", "Addresses that moved to ports from other ports."},
    {"aged", "port_aged_addresses_total", "Addresses that ports removed because of their age."},
    {"refused", "port_refused_addresses_total", "Addresses that ports refused because of the limit."},
    {"dropped", "port_refused_packets_total", "Frames from addresses that ports refused."},
};
static_assert(PORT_MAC_LEARNING_STATS_SIZE == std::size(LEARNING_COUNTERS) * sizeof(uint32_t));

constexpr Counter TABLE_COUNTERS[] = {
    {"entries", "switch_addresses", "Addresses in the MAC tables of switches."},
    {"limit", "switch_addresses_limit", "Addresses that switches learn."},
    {"team", "team_addresses", "Addresses behind the uplinks of switches."},
    {"learning-ports", "switch_learning_ports", "Ports that learn addresses."},
};

constexpr Counter GROUPS = {"", "multicast_groups", "Multicast groups that ports are members of."};

constexpr Counter GROUP_COUNTERS[] = {
    {"ports", "multicast_group_ports", "Ports that are members of multicast groups."},
    {"joins", "multicast_group_joins_total", "How often ports became members of multicast groups."},
    {"leaves", "multicast_group_leaves_total", "Messages that leave multicast groups."},
    {"queries", "multicast_group_queries_total", "Queries in the VLANs of multicast groups."},
};

constexpr Counter LAG_UP = {"", "lag_up", "Whether a member of LAGs has a link."};
constexpr Counter LAG_MEMBERS = {"", "lag_members", "NICs in LAGs."};

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
    {"tx-packets", "team_packets_total", "Frames that teams of uplinks sent (tx) and got (rx).",
     ",direction=\"tx\""},
    {"rx-packets", "team_packets_total", "Frames that teams of uplinks sent (tx) and got (rx).",
     ",direction=\"rx\""},
    {"tx-bytes", "team_bytes_total", "Bytes that teams of uplinks sent (tx) and got (rx).",
     ",direction=\"tx\""},
    {"rx-bytes", "team_bytes_total", "Bytes that teams of uplinks sent (tx) and got (rx).",
     ",direction=\"rx\""},
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

void AddPort(const Target &port, Metrics &metrics)
{
    const std::string labels = Labels({{"switch", port.alias}, {"port", port.port}});
    const VSwitchPortStatistics counted = ReadStatistics(port);
    AddWords<uint64_t>(&counted, PORT_COUNTERS, labels, metrics);
    uint8_t learning[PORT_MAC_LEARNING_STATS_SIZE];
    CheckDriver(VSZOR_GetPortMACLearningStats(port.Port(), port.Alias(), learning),
                "reading the MAC learning statistics of", port);
    AddWords<uint32_t>(learning, LEARNING_COUNTERS, labels, metrics);
}

void AddGroups(const Target &target, const std::string &portset, Metrics &metrics)
{
    struct Kind {
        int32_t number;
        size_t width;
        const char *label;
    };
    for (const Kind &kind : {Kind{ADDRESS_KIND_IPV4, 4, "ipv4"}, Kind{ADDRESS_KIND_IPV6, 16, "ipv6"}}) {
        DriverBuffer<ZorListHeader> list;
        CheckDriver(
            VSZOR_GetMcastFilters(portset.c_str(), 0, kind.number, reinterpret_cast<void **>(list.Out())),
            "listing the multicast groups of", target);
        RequireEntries(list.Get(), sizeof(ZorListHeader), list->count, kind.width);
        std::set<std::string> known; // a group of several VLANs comes several times
        for (uint32_t i = 0; i < list->count; i++) {
            const uint8_t *group = list.Raw() + sizeof(ZorListHeader) + i * kind.width;
            const std::string text = AddressText(group, kind.width);
            if (!known.insert(text).second) continue;
            DriverBuffer<ZorMcastStatsHeader> stats;
            const VsStatus status = VSZOR_GetMcastFilterStats(portset.c_str(), 0, kind.number, group,
                                                              reinterpret_cast<void **>(stats.Out()));
            if (status == STATUS_NOT_FOUND) continue; // its last member has left meanwhile
            CheckDriver(status, "reading the statistics of group " + text + " of", target);
            AddRecord(Decode(Record::MCAST_STATS, stats.Get(), sizeof *stats.Get()), GROUP_COUNTERS,
                      Labels({{"switch", target.alias}, {"group", text}}), metrics);
        }
        metrics.Add(GROUPS, Labels({{"switch", target.alias}, {"kind", kind.label}}), known.size());
    }
}

void AddLags(const Target &target, const std::string &portset, Metrics &metrics)
{
    DriverBuffer<> table;
    CheckDriver(VSZOR_GetLAGTable(portset.c_str(), table.Out()), "reading the LAGs of", target);
    for (const Json &lag : Decode(Record::LAG_TABLE, table.Get(), LAG_TABLE_SIZE)) {
        const std::string labels =
            Labels({{"switch", target.alias}, {"lag", lag["lag"].get_ref<const std::string &>()}});
        metrics.Add(LAG_UP, labels, lag["link"].get<bool>());
        metrics.Add(LAG_MEMBERS, labels, lag["members"].size());
    }
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
                  Labels({{"switch", target.alias}, {"session", session}}), metrics);
    }
}

void AddSwitch(const std::string &alias, Metrics &metrics)
{
    const Target target{alias, ""};
    const std::string labels = Labels({{"switch", alias}});
    const std::string portset = PortsetOf(alias);
    uint8_t info[VS_INFO_SIZE], rarp[RARP_STATS_SIZE], team[SERVICE_PORT_TEAMING_STATS_SIZE];
    uint8_t learning[SWITCH_MAC_LEARNING_INFO_SIZE];
    CheckDriver(VSZOR_GetVSInfo(portset.c_str(), info), "reading the state of", target);
    AddRecord(Decode(Record::INFO, info, sizeof info), INFO_COUNTERS, labels, metrics);
    CheckDriver(VSZOR_GetRARPStats(portset.c_str(), rarp), "reading the RARP statistics of", target);
    AddRecord(Decode(Record::RARP_STATS, rarp, sizeof rarp), RARP_COUNTERS, labels, metrics);
    CheckDriver(VSZOR_GetServicePortTeamingStats(portset.c_str(), team), "reading the teaming statistics of",
                target);
    AddRecord(Decode(Record::TEAMING_STATS, team, sizeof team), TEAMING_COUNTERS, labels, metrics);
    CheckDriver(VSZOR_GetSwitchMACLearningInfo(portset.c_str(), learning),
                "reading the MAC learning state of", target);
    AddRecord(Decode(Record::LEARNING_INFO, learning, sizeof learning), TABLE_COUNTERS, labels, metrics);
    for (const vshost_port &port : PortsOf(alias))
        AddPort({alias, port.id}, metrics);
    AddGroups(target, portset, metrics);
    AddLags(target, portset, metrics);
    AddMirrors(target, metrics);
}

constexpr Counter NIC_UP = {"", "nic_up", "Whether NICs have a link and are up."};
constexpr Counter NIC_SPEED = {"", "nic_speed_bytes", "Speed of NICs in bytes a second."};
constexpr Counter RUNNING = {"", "switch_running", "Whether switches run."};

void AddNics(Metrics &metrics)
{
    for (const Json &nic : DescribeNics()) {
        const auto text = [&nic](const char *key) {
            return nic[key].is_null() ? "" : nic[key].get<std::string>();
        };
        const std::string labels =
            Labels({{"nic", text("nic")}, {"switch", text("switch")}, {"port", text("port")}});
        metrics.Add(NIC_UP, labels, nic["link"].get<bool>());
        metrics.Add(NIC_SPEED, labels, nic["speed"].get<uint64_t>() * 125000);
    }
}

Result Print(const Verb &, const Arguments &)
{
    RequireOwnPlatform("list ports and counters");
    Metrics metrics;
    AddNics(metrics);
    for (const std::string &alias : SwitchNames()) {
        const bool isRunning = IsRunning(alias);
        metrics.Add(RUNNING, Labels({{"switch", alias}}), isRunning);
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
