#include "platform/driver/scenario.h"

#include <arpa/inet.h>
#include <vshost.h>

#include <cstdio>
#include <cstdlib>

#include "platform/driver/driver_table.h"
#include "platform/driver/group.h"
#include "platform/driver/runtime.h"
#include "platform/driver/scenario_node.h"

namespace vshost {

namespace {

using Node = ScenarioNode;

constexpr size_t MAX_PORT_ID = 47;
constexpr size_t MAX_SESSION_ID = 31;
constexpr size_t MAX_LAG_NAME = 31;
constexpr size_t MAX_LAG_MEMBERS = 16;
constexpr size_t MAX_LAGS = 64;
constexpr size_t MAX_FAULTS = 64;
constexpr size_t MAX_HEX = 11; // "not started" is as long
constexpr size_t MANY = 1u << 20;
constexpr uint64_t MAX_VLAN_ID = 4094;
constexpr uint64_t MAX_SPEED = 10'000'000; // Mb/s
constexpr uint64_t MAX_NUMA_NODE = 1023;

struct Fault {
    vshost_kind kind = VSHOST_STORE;
    std::string operation;
    unsigned nth = 1;
    unsigned times = 1;
    uint32_t outcome = 0;
};

struct StorageError {
    VsStatus status;
};

void Check(VsStatus status)
{
    if (status) throw StorageError{status};
}

// The record that stands, or a new one.
template<class Record> bool ReadRecord(Reader &reader, std::string_view key, Record &record)
{
    const VsStatus status = GetRecord(reader, key, record);
    if (status != STATUS_NOT_FOUND) Check(status);
    return status == STATUS_OK;
}

// A visit that puts a number into a field.
template<class Integer> Node::Visit Into(Integer &field)
{
    return [&field](const Node &node) { field = node.NumberOf<Integer>(); };
}

// The same for a field of a packed record, which may lie at any address.
template<class Record, class Integer>
Node::Member Counter(const char *name, Record &record, Integer Record::*field)
{
    return {name, [&record, field](const Node &node) {
                const Integer number = node.NumberOf<Integer>();
                memcpy(static_cast<void *>(&(record.*field)), &number, sizeof number);
            }};
}

// Changes the record under `key` by what the members say.
template<class Record>
void ApplyRecord(Transaction &transaction, const std::string &key, const Node &node,
                 const std::function<std::vector<Node::Member>(Record &)> &members)
{
    Record record = {};
    ReadRecord(transaction, key, record);
    node.Members(members(record));
    Check(PutRecord(transaction, key, record));
}

void ParseMac(const Node &node, uint8_t (&address)[6])
{
    const std::string text = node.Name(17);
    char end;
    const int parts = sscanf(text.c_str(), "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx%c", &address[0], &address[1],
                             &address[2], &address[3], &address[4], &address[5], &end);
    if (text.size() != 17 || parts != 6) node.Fail("must be an Ethernet address such as 02:00:00:00:00:01");
}

// The bytes of an address of any kind.
std::string ParseAddress(const Node &node, uint32_t &kind)
{
    const std::string text = node.Name(INET6_ADDRSTRLEN);
    uint8_t bytes[16];
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1)
        kind = VSWITCH_ADDRESS_IPV4;
    else if (inet_pton(AF_INET6, text.c_str(), bytes) == 1)
        kind = VSWITCH_ADDRESS_IPV6;
    else {
        uint8_t mac[6];
        ParseMac(node, mac);
        memcpy(bytes, mac, sizeof mac);
        kind = VSWITCH_ADDRESS_ETHERNET;
    }
    return {reinterpret_cast<const char *>(bytes), AddressWidth(kind)};
}

// ---- NICs ----

struct Binding {
    std::string switchName;
    std::string portId;
};

Binding ParseBinding(const Node &node)
{
    Binding binding;
    node.Members({{"switch", [&](const Node &name) { binding.switchName = name.Name(MAX_PORTSET_NAME); }},
                  {"port", [&](const Node &port) { binding.portId = port.Name(MAX_PORT_ID); }}});
    if (binding.switchName.empty() || binding.portId.empty()) node.Fail("needs both switch and port");
    return binding;
}

void ParseRefusedMtus(const Node &node, Nic &nic)
{
    size_t count = 0;
    std::fill(std::begin(nic.refusedMtus), std::end(nic.refusedMtus), 0);
    node.Elements(MAX_REFUSED_MTUS, [&](const Node &mtu) {
        nic.refusedMtus[count++] = static_cast<uint32_t>(mtu.Number(MIN_MTU, MAX_MTU));
    });
}

void ApplyNic(Transaction &transaction, const std::string &name, const Node &node)
{
    Nic nic;
    Binding binding;
    const bool known = ReadRecord(transaction, runtime::NicKey(name), nic);
    node.Members({
        {"speed", [&](const Node &speed) { nic.speed = static_cast<uint32_t>(speed.Number(1, MAX_SPEED)); }},
        {"duplex",
         [&](const Node &duplex) {
             nic.fullDuplex = duplex.Word({"half", "full"});
         }},
        {"link",
         [&](const Node &link) {
             nic.link = link.Word({"down", "up"});
         }},
        {"admin",
         [&](const Node &admin) {
             nic.adminUp = admin.Word({"down", "up"});
         }},
        {"numaNode",
         [&](const Node &node) { nic.numaNode = static_cast<int32_t>(node.Number(0, MAX_NUMA_NODE)); }},
        {"mtu", [&](const Node &mtu) { nic.mtu = static_cast<uint32_t>(mtu.Number(MIN_MTU, MAX_MTU)); }},
        {"maxMtu",
         [&](const Node &mtu) { nic.maxMtu = static_cast<uint32_t>(mtu.Number(MIN_MTU, MAX_MTU)); }},
        {"refusedMtus", [&](const Node &mtus) { ParseRefusedMtus(mtus, nic); }},
        {"bind", [&](const Node &bind) { binding = ParseBinding(bind); }},
    });
    if (nic.mtu > nic.maxMtu) node.Fail("mtu must not be above maxMtu");
    if (!known) nic.driverNumaNode = nic.numaNode;
    Check(PutNic(transaction, name, nic));
    if (!binding.portId.empty()) Check(ClaimNic(transaction, name, binding.switchName, binding.portId));
}

// ---- State of a portset ----

void ApplyMac(Transaction &transaction, const std::string &portset, const std::string &portId,
              const Node &node)
{
    MacRecord record;
    uint8_t address[6] = {};
    uint16_t vlanId = 0;
    bool addressed = false;
    record.fromScenario = 1;
    node.Members({
        {"address", [&](const Node &text) { ParseMac(text, address), addressed = true; }},
        {"vlan", [&](const Node &vlan) { vlanId = static_cast<uint16_t>(vlan.Number(0, MAX_VLAN_ID)); }},
        {"type",
         [&](const Node &type) {
             record.type = type.Word({"any", "static", "learned"});
         }},
        {"age", Into(record.age)},
    });
    if (!addressed) node.Fail("needs an address");
    if (record.type == VSWITCH_MAC_ANY) node.Fail("type must be static or learned");
    Check(PutRecord(transaction, runtime::MacKey(portset, portId, vlanId, address), record));
}

void ApplyPort(Transaction &transaction, const std::string &portset, const std::string &portId,
               const Node &node)
{
    using Stats = VSwitchPortLearningStats;
    node.Members({
        {"macs",
         [&](const Node &macs) {
             macs.Elements(MANY, [&](const Node &mac) { ApplyMac(transaction, portset, portId, mac); });
         }},
        {"learning",
         [&](const Node &learning) {
             const std::string key = runtime::PortStatsKey(portset, portId);
             ApplyRecord<Stats>(transaction, key, learning, [](Stats &stats) -> std::vector<Node::Member> {
                 return {Counter("learned", stats, &Stats::learned), Counter("moved", stats, &Stats::moved),
                         Counter("aged", stats, &Stats::aged), Counter("refused", stats, &Stats::refused),
                         Counter("dropped", stats, &Stats::dropped)};
             });
         }},
    });
}

void ApplyLag(Transaction &transaction, const std::string &portset, const std::string &name, const Node &node)
{
    VSwitchLag lag = {};
    SetField(lag.name, name);
    node.Members({
        {"mode",
         [&](const Node &mode) {
             lag.mode = mode.Word({"passive", "active"});
         }},
        {"timeout",
         [&](const Node &timeout) {
             lag.fastTimeout = timeout.Word({"slow", "fast"});
         }},
        {"loadBalance", Into(lag.loadBalance)},
        {"members",
         [&](const Node &members) {
             members.Elements(MAX_LAG_MEMBERS, [&](const Node &member) {
                 const uint32_t index = lag.memberCount;
                 lag.memberCount = index + 1;
                 SetField(lag.members[index], member.Name(MAX_NIC_NAME));
             });
         }},
    });
    Check(PutRecord(transaction, runtime::LagKey(portset, name), lag));
}

void ApplyLags(Transaction &transaction, const std::string &portset, const Node &node)
{
    size_t count = 0;
    node.Names(MAX_LAG_NAME,
               [&](const std::string &name, const Node &lag) { ApplyLag(transaction, portset, name, lag); });
    Check(transaction.Scan(runtime::LagKey(portset, ""),
                           [&](std::string_view, std::string_view) { return ++count <= MAX_LAGS; }));
    if (count > MAX_LAGS) node.Fail("a portset has at most " + std::to_string(MAX_LAGS) + " LAGs");
}

void ApplyGroup(Transaction &transaction, const std::string &portset, const Node &node)
{
    using Stats = VSwitchMcastStats;
    Stats stats = {};
    std::string address, sources;
    uint32_t kind = 0;
    node.Members({
        {"address", [&](const Node &text) { address = ParseAddress(text, kind); }},
        {"vlan",
         [&](const Node &vlan) { stats.vlanId = static_cast<uint32_t>(vlan.Number(0, MAX_VLAN_ID)); }},
        Counter("joins", stats, &Stats::joins),
        Counter("leaves", stats, &Stats::leaves),
        Counter("queries", stats, &Stats::queries),
        Counter("ports", stats, &Stats::ports),
        {"filter",
         [&](const Node &filter) {
             stats.filter = filter.Word({"include", "exclude"});
         }},
        {"sources", [](const Node &) {}}, // below, when the group's kind of address is known
    });
    if (address.empty()) node.Fail("needs an address");
    uint32_t count = 0;
    node.Optional("sources", [&](const Node &list) {
        list.Elements(MANY, [&](const Node &source) {
            uint32_t sourceKind = 0;
            sources += ParseAddress(source, sourceKind);
            if (sourceKind != kind) source.Fail("must be an address of the same kind as the group's");
            ++count;
        });
    });
    stats.count = count;
    const std::string head(reinterpret_cast<const char *>(&stats), sizeof stats);
    Check(transaction.Put(runtime::GroupKey(portset, kind, stats.vlanId, address), head + sources));
}

void ApplyMirrorStats(Transaction &transaction, const std::string &portset, const std::string &id,
                      const Node &node)
{
    using Stats = VSwitchMirrorStats;
    const std::string key = runtime::MirrorStatsKey(portset, id);
    ApplyRecord<Stats>(transaction, key, node, [](Stats &stats) -> std::vector<Node::Member> {
        return {Counter("mirroredPackets", stats, &Stats::mirroredPackets),
                Counter("mirroredBytes", stats, &Stats::mirroredBytes),
                Counter("droppedPackets", stats, &Stats::droppedPackets),
                Counter("droppedBytes", stats, &Stats::droppedBytes),
                Counter("txPackets", stats, &Stats::txPackets),
                Counter("txBytes", stats, &Stats::txBytes),
                Counter("rxPackets", stats, &Stats::rxPackets),
                Counter("rxBytes", stats, &Stats::rxBytes),
                Counter("truncated", stats, &Stats::truncated),
                Counter("encapsulationErrors", stats, &Stats::encapsulationErrors),
                Counter("unreachable", stats, &Stats::unreachable)};
    });
}

void ApplyPromiscuousPorts(Transaction &transaction, const std::string &portset, const Node &node)
{
    std::string portIds;
    node.Elements(MANY, [&](const Node &portId) { portIds += portId.Name(MAX_PORT_ID) + '\0'; });
    Check(transaction.Put(runtime::PromiscuousKey(portset), portIds));
}

void ApplyRarp(Transaction &transaction, const std::string &portset, const Node &node)
{
    using Stats = VSwitchRarpStats;
    ApplyRecord<Stats>(
        transaction, runtime::RarpKey(portset), node, [](Stats &stats) -> std::vector<Node::Member> {
            return {Counter("sent", stats, &Stats::sent), Counter("failed", stats, &Stats::failed)};
        });
}

void ApplyTeaming(Transaction &transaction, const std::string &portset, const Node &node)
{
    using Stats = VSwitchTeamingStats;
    ApplyRecord<Stats>(transaction, runtime::TeamingKey(portset), node,
                       [](Stats &stats) -> std::vector<Node::Member> {
                           return {Counter("txPackets", stats, &Stats::txPackets),
                                   Counter("txBytes", stats, &Stats::txBytes),
                                   Counter("rxPackets", stats, &Stats::rxPackets),
                                   Counter("rxBytes", stats, &Stats::rxBytes),
                                   Counter("failovers", stats, &Stats::failovers),
                                   Counter("failbacks", stats, &Stats::failbacks)};
                       });
}

void ApplyPortset(Transaction &transaction, const std::string &portset, const Node &node)
{
    node.Members({
        {"ports",
         [&](const Node &ports) {
             ports.Names(MAX_PORT_ID, [&](const std::string &portId, const Node &port) {
                 ApplyPort(transaction, portset, portId, port);
             });
         }},
        {"lags", [&](const Node &lags) { ApplyLags(transaction, portset, lags); }},
        {"groups",
         [&](const Node &groups) {
             groups.Elements(MANY, [&](const Node &group) { ApplyGroup(transaction, portset, group); });
         }},
        {"mirrorSessions",
         [&](const Node &sessions) {
             sessions.Names(MAX_SESSION_ID, [&](const std::string &id, const Node &session) {
                 ApplyMirrorStats(transaction, portset, id, session);
             });
         }},
        {"promiscuousPorts", [&](const Node &ports) { ApplyPromiscuousPorts(transaction, portset, ports); }},
        {"rarp", [&](const Node &rarp) { ApplyRarp(transaction, portset, rarp); }},
        {"teaming", [&](const Node &teaming) { ApplyTeaming(transaction, portset, teaming); }},
    });
}

// ---- The whole host ----

void ApplyLearningProps(Transaction &transaction, const Node &node)
{
    VSwitchLearningProps props = DEFAULT_LEARNING_PROPS;
    ReadRecord(transaction, runtime::LearningPropsKey(), props);
    node.Members({{"enabled", [&](const Node &enabled) { props.enabled = enabled.Boolean(); }},
                  Counter("agingSeconds", props, &VSwitchLearningProps::agingSeconds),
                  Counter("limit", props, &VSwitchLearningProps::limit)});
    Check(PutRecord(transaction, runtime::LearningPropsKey(), props));
}

void ApplyOptions(Transaction &transaction, const Node &node)
{
    node.Names(5, [&](const std::string &name, const Node &value) {
        char end;
        unsigned id = 0;
        if (sscanf(name.c_str(), "%5u%c", &id, &end) != 1 || id == 0 || id > UINT16_MAX)
            value.Fail("an option's id is a number from 1 to 65535");
        Check(PutRecord(transaction, runtime::OptionKey(static_cast<uint16_t>(id)),
                        value.NumberOf<uint32_t>()));
    });
    size_t count = 0;
    Check(transaction.Scan(runtime::OptionPrefix(), [&](std::string_view, std::string_view) {
        return ++count <= VSWITCH_OPTIONS_MAX;
    }));
    if (count > VSWITCH_OPTIONS_MAX)
        node.Fail("a host has at most " + std::to_string(VSWITCH_OPTIONS_MAX) + " options");
}

uint32_t ParseOutcome(const Node &node)
{
    if (!node.IsText()) return node.NumberOf<uint32_t>();
    const std::string text = node.Name(MAX_HEX);
    uint32_t status = 0;
    char end;
    if (text.starts_with("0x") && sscanf(text.c_str() + 2, "%8x%c", &status, &end) == 1) return status;
    return VSHOST_SHELL_KILLED + node.Word({"killed", "not started"});
}

Fault ParseFault(const Node &node)
{
    Fault fault;
    bool kind = false;
    node.Members({
        {"kind",
         [&](const Node &word) {
             const int index = word.Word({"store", "shell", "driver", "open", "allocation"});
             fault.kind = static_cast<vshost_kind>(VSHOST_STORE + index);
             kind = true;
         }},
        {"operation",
         [&](const Node &name) { fault.operation = name.Name(sizeof vshost_call::operation - 1); }},
        {"nth", [&](const Node &nth) { fault.nth = static_cast<unsigned>(nth.Number(1, UINT32_MAX)); }},
        {"times", Into(fault.times)},
        {"outcome", [&](const Node &outcome) { fault.outcome = ParseOutcome(outcome); }},
    });
    if (!kind) node.Fail("needs a kind");
    return fault;
}

void ApplyHost(Transaction &transaction, const Node &root, std::vector<Fault> &faults)
{
    root.Members({
        {"$schema", [](const Node &) {}},
        {"nics",
         [&](const Node &nics) {
             nics.Names(MAX_NIC_NAME,
                        [&](const std::string &name, const Node &nic) { ApplyNic(transaction, name, nic); });
         }},
        {"portsets",
         [&](const Node &portsets) {
             portsets.Names(MAX_PORTSET_NAME, [&](const std::string &name, const Node &portset) {
                 ApplyPortset(transaction, name, portset);
             });
         }},
        {"macLearning", [&](const Node &props) { ApplyLearningProps(transaction, props); }},
        {"options", [&](const Node &options) { ApplyOptions(transaction, options); }},
        {"faults",
         [&](const Node &list) {
             list.Elements(MAX_FAULTS, [&](const Node &fault) { faults.push_back(ParseFault(fault)); });
         }},
    });
}

}

bool ApplyScenario(Engine &engine, Control &control, std::string_view json, std::string &message)
{
    std::vector<Fault> faults;
    const auto apply = [&](Transaction &transaction) {
        VisitScenario(json, [&](const Node &root) { ApplyHost(transaction, root, faults); });
        if (faults.size() > control.FreeFaults())
            throw ScenarioError{"/faults: too many stand already; vshost_clear() removes them"};
    };
    message.clear();
    const VsStatus status = engine.Write([&](Transaction &transaction) -> VsStatus {
        try {
            apply(transaction);
            return STATUS_OK;
        } catch (const ScenarioError &error) {
            message = error.message;
            return STATUS_BAD_PARAM;
        } catch (const StorageError &error) {
            return error.status;
        }
    });
    if (status && message.empty()) message = "the host's database can't be written";
    if (status) return false;
    for (const Fault &fault : faults) {
        const char *operation = fault.operation.empty() ? nullptr : fault.operation.c_str();
        if (fault.kind == VSHOST_ALLOCATION) setenv(ALLOCATION_VARIABLE, "1", 1);
        control.Fail(fault.kind, operation, fault.nth, fault.times, fault.outcome);
    }
    return true;
}

}
