#include "platform/scenario/scenario.h"

#include <arpa/inet.h>
#include <vshost.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "platform/host/group.h"
#include "platform/host/runtime.h"
#include "platform/host/status_names.h"
#include "platform/scenario/json_schema.h"
#include "platform/testing/test_faults.h"
#include "scenario_schema.h"

namespace vshost {

namespace {

using Json = nlohmann::json;

constexpr size_t MAX_LAGS = 64;

struct StorageError {
    VsStatus status;
};

void Check(VsStatus status)
{
    if (status) throw StorageError{status};
}

// Reads a record if there is one; otherwise leaves `record` as it is.
template<class Record> bool ReadRecord(Reader &reader, std::string_view key, Record &record)
{
    const VsStatus status = GetRecord(reader, key, record);
    if (status != STATUS_NOT_FOUND) Check(status);
    return status == STATUS_OK;
}

// ---- Values, which the schema has checked ----

// The member, or null when it is absent.
const Json &Member(const Json &object, const char *name)
{
    static const Json absent;
    const auto found = object.find(name);
    return found == object.end() ? absent : *found;
}

std::string Text(const Json &object, const char *name) { return object.value(name, std::string()); }

// Each of these leaves the value unchanged when the object doesn't have the member.
template<class Integer> void ReadNumber(const Json &object, const char *name, Integer &number)
{
    number = object.value(name, number);
}

void ReadWord(const Json &object, const char *name, const char *set, uint8_t &flag)
{
    if (object.contains(name)) flag = object[name] == set;
}

// Fields of a packed record, which may be at any address.
template<class Record, class Integer> using Fields = std::vector<std::pair<const char *, Integer Record::*>>;

template<class Record, class Integer>
void ReadFields(const Json &object, Record &record, const Fields<Record, Integer> &fields)
{
    for (const auto &[name, field] : fields)
        if (object.contains(name)) {
            const Integer number = object[name];
            memcpy(static_cast<void *>(&(record.*field)), &number, sizeof(number));
        }
}

// Changes the fields of the record under `key`.
template<class Record, class Integer>
void ApplyFields(Transaction &transaction, const std::string &key, const Json &object,
                 const Fields<Record, Integer> &fields)
{
    if (object.is_null()) return;
    Record record = {};
    ReadRecord(transaction, key, record);
    ReadFields(object, record, fields);
    Check(PutRecord(transaction, key, record));
}

// The bytes of an address of any kind.
std::string ParseAddress(const std::string &text, uint32_t &kind)
{
    uint8_t bytes[16] = {};
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1)
        kind = VSWITCH_ADDRESS_IPV4;
    else if (inet_pton(AF_INET6, text.c_str(), bytes) == 1)
        kind = VSWITCH_ADDRESS_IPV6;
    else {
        kind = VSWITCH_ADDRESS_ETHERNET;
        for (size_t i = 0; i < 6; i++)
            bytes[i] = static_cast<uint8_t>(strtoul(text.c_str() + 3 * i, nullptr, 16));
    }
    return {reinterpret_cast<const char *>(bytes), AddressWidth(kind)};
}

// ---- NICs ----

void ApplyNic(Transaction &transaction, const std::string &name, const Json &object)
{
    Nic nic;
    const bool known = ReadRecord(transaction, runtime::NicKey(name), nic);
    ReadNumber(object, "speed", nic.speed);
    ReadWord(object, "duplex", "full", nic.fullDuplex);
    ReadWord(object, "link", "up", nic.link);
    ReadWord(object, "admin", "up", nic.adminUp);
    ReadNumber(object, "numaNode", nic.numaNode);
    ReadNumber(object, "mtu", nic.mtu);
    ReadNumber(object, "maxMtu", nic.maxMtu);
    if (const Json &mtus = Member(object, "refusedMtus"); !mtus.is_null()) {
        std::fill(std::begin(nic.refusedMtus), std::end(nic.refusedMtus), 0);
        std::copy(mtus.begin(), mtus.end(), std::begin(nic.refusedMtus));
    }
    if (nic.mtu > nic.maxMtu) throw SchemaViolation{"/nics/" + name, "mtu must not be above maxMtu"};
    if (!known) nic.driverNumaNode = nic.numaNode;
    Check(PutNic(transaction, name, nic));
    if (const Json &bind = Member(object, "bind"); !bind.is_null())
        Check(ClaimNic(transaction, name, Text(bind, "switch"), Text(bind, "port")));
}

// ---- State of a portset ----

void ApplyPort(Transaction &transaction, const std::string &portset, const std::string &portId,
               const Json &object)
{
    using Stats = VSwitchPortLearningStats;
    for (const Json &entry : Member(object, "macs")) {
        MacRecord record;
        uint16_t vlanId = 0;
        uint32_t kind = 0;
        record.fromScenario = 1;
        record.type = Text(entry, "type") == "learned" ? VSWITCH_MAC_LEARNED : VSWITCH_MAC_STATIC;
        ReadNumber(entry, "age", record.age);
        ReadNumber(entry, "vlan", vlanId);
        const std::string address = ParseAddress(Text(entry, "address"), kind);
        const auto *bytes = reinterpret_cast<const uint8_t *>(address.data());
        Check(PutRecord(transaction, runtime::MacKey(portset, portId, vlanId, bytes), record));
    }
    ApplyFields<Stats, uint32_t>(transaction, runtime::PortStatsKey(portset, portId),
                                 Member(object, "learning"),
                                 {{"learned", &Stats::learned},
                                  {"moved", &Stats::moved},
                                  {"aged", &Stats::aged},
                                  {"refused", &Stats::refused},
                                  {"dropped", &Stats::dropped}});
}

void ApplyLag(Transaction &transaction, const std::string &portset, const std::string &name,
              const Json &object)
{
    VSwitchLag lag = {};
    SetField(lag.name, name);
    ReadWord(object, "mode", "active", lag.mode);
    ReadWord(object, "timeout", "fast", lag.fastTimeout);
    ReadNumber(object, "loadBalance", lag.loadBalance);
    uint32_t count = 0;
    for (const Json &member : Member(object, "members"))
        SetField(lag.members[count++], member.get<std::string>());
    lag.memberCount = count;
    Check(PutRecord(transaction, runtime::LagKey(portset, name), lag));
}

void ApplyLags(Transaction &transaction, const std::string &portset, const Json &lags)
{
    size_t count = 0;
    for (const auto &[name, lag] : lags.items())
        ApplyLag(transaction, portset, name, lag);
    Check(transaction.Scan(runtime::LagKey(portset, ""),
                           [&](std::string_view, std::string_view) { return ++count <= MAX_LAGS; }));
    if (count > MAX_LAGS)
        throw SchemaViolation{"/portsets/" + portset + "/lags",
                              "a portset has at most " + std::to_string(MAX_LAGS) + " LAGs"};
}

void ApplyGroup(Transaction &transaction, const std::string &portset, const Json &object)
{
    using Stats = VSwitchMcastStats;
    Stats stats = {};
    uint32_t kind = 0;
    const std::string address = ParseAddress(Text(object, "address"), kind);
    ReadFields<Stats, uint32_t>(object, stats,
                                {{"vlan", &Stats::vlanId},
                                 {"joins", &Stats::joins},
                                 {"leaves", &Stats::leaves},
                                 {"queries", &Stats::queries},
                                 {"ports", &Stats::ports}});
    stats.filter = Text(object, "filter") == "exclude";
    std::string sources;
    uint32_t count = 0;
    for (const Json &source : Member(object, "sources")) {
        sources += ParseAddress(source, kind);
        count++;
    }
    stats.count = count;
    Check(transaction.Put(runtime::GroupKey(portset, kind, stats.vlanId, address),
                          std::string(BytesOf(stats)) + sources));
}

void ApplyMirrorStats(Transaction &transaction, const std::string &key, const Json &object)
{
    using Stats = VSwitchMirrorStats;
    ApplyFields<Stats, uint64_t>(transaction, key, object,
                                 {{"mirroredPackets", &Stats::mirroredPackets},
                                  {"mirroredBytes", &Stats::mirroredBytes},
                                  {"droppedPackets", &Stats::droppedPackets},
                                  {"droppedBytes", &Stats::droppedBytes},
                                  {"txPackets", &Stats::txPackets},
                                  {"txBytes", &Stats::txBytes},
                                  {"rxPackets", &Stats::rxPackets},
                                  {"rxBytes", &Stats::rxBytes},
                                  {"truncated", &Stats::truncated},
                                  {"encapsulationErrors", &Stats::encapsulationErrors},
                                  {"unreachable", &Stats::unreachable}});
}

void ApplyPromiscuousPorts(Transaction &transaction, const std::string &portset, const Json &ports)
{
    if (ports.is_null()) return;
    std::string portIds;
    for (const Json &portId : ports)
        portIds += portId.get<std::string>() + '\0';
    Check(transaction.Put(runtime::PromiscuousKey(portset), portIds));
}

void ApplyRarp(Transaction &transaction, const std::string &portset, const Json &object)
{
    using Stats = VSwitchRarpStats;
    ApplyFields<Stats, uint64_t>(transaction, runtime::RarpKey(portset), object,
                                 {{"sent", &Stats::sent}, {"failed", &Stats::failed}});
}

void ApplyTeaming(Transaction &transaction, const std::string &portset, const Json &object)
{
    using Stats = VSwitchTeamingStats;
    ApplyFields<Stats, uint64_t>(transaction, runtime::TeamingKey(portset), object,
                                 {{"txPackets", &Stats::txPackets},
                                  {"txBytes", &Stats::txBytes},
                                  {"rxPackets", &Stats::rxPackets},
                                  {"rxBytes", &Stats::rxBytes},
                                  {"failovers", &Stats::failovers},
                                  {"failbacks", &Stats::failbacks}});
}

void ApplyPortset(Transaction &transaction, const std::string &portset, const Json &object)
{
    for (const auto &[portId, port] : Member(object, "ports").items())
        ApplyPort(transaction, portset, portId, port);
    ApplyLags(transaction, portset, Member(object, "lags"));
    for (const Json &group : Member(object, "groups"))
        ApplyGroup(transaction, portset, group);
    for (const auto &[id, session] : Member(object, "mirrorSessions").items())
        ApplyMirrorStats(transaction, runtime::MirrorStatsKey(portset, id), session);
    ApplyPromiscuousPorts(transaction, portset, Member(object, "promiscuousPorts"));
    ApplyRarp(transaction, portset, Member(object, "rarp"));
    ApplyTeaming(transaction, portset, Member(object, "teaming"));
}

// ---- The whole host ----

void ApplyLearningProps(Transaction &transaction, const Json &object)
{
    using Props = VSwitchLearningProps;
    if (object.is_null()) return;
    Props props = DEFAULT_LEARNING_PROPS;
    ReadRecord(transaction, runtime::LearningPropsKey(), props);
    props.enabled = object.value("enabled", props.enabled != 0);
    ReadFields<Props, uint32_t>(object, props,
                                {{"agingSeconds", &Props::agingSeconds}, {"limit", &Props::limit}});
    Check(PutRecord(transaction, runtime::LearningPropsKey(), props));
}

void ApplyOptions(Transaction &transaction, const Json &options)
{
    size_t count = 0;
    for (const auto &[id, value] : options.items())
        Check(PutRecord(transaction, runtime::OptionKey(static_cast<uint16_t>(std::stoul(id))),
                        value.get<uint32_t>()));
    Check(transaction.Scan(runtime::OptionPrefix(), [&](std::string_view, std::string_view) {
        return ++count <= VSWITCH_OPTIONS_MAX;
    }));
    if (count > VSWITCH_OPTIONS_MAX)
        throw SchemaViolation{"/options",
                              "a host has at most " + std::to_string(VSWITCH_OPTIONS_MAX) + " options"};
}

uint32_t ParseOutcome(const Json &outcome)
{
    if (outcome.is_null()) return 0;
    if (outcome.is_number()) return outcome.get<uint32_t>();
    const auto text = outcome.get<std::string>();
    if (text == "killed") return VSHOST_SHELL_KILLED;
    if (text == "not started") return VSHOST_SHELL_NOT_STARTED;
    return text.starts_with("0x") ? static_cast<uint32_t>(std::stoul(text, nullptr, 16)) : StatusOfName(text);
}

CallRule ParseFault(const Json &object)
{
    static const std::pair<const char *, vshost_kind> kinds[] = {{"store", VSHOST_STORE},
                                                                 {"shell", VSHOST_SHELL},
                                                                 {"driver", VSHOST_DRIVER},
                                                                 {"open", VSHOST_OPEN},
                                                                 {"allocation", VSHOST_ALLOCATION}};
    const std::string word = Text(object, "kind");
    CallRule rule;
    for (const auto &[name, kind] : kinds)
        if (word == name) rule.kind = kind;
    rule.operation = Text(object, "operation");
    ReadNumber(object, "nth", rule.nth);
    ReadNumber(object, "times", rule.times);
    rule.outcome = ParseOutcome(Member(object, "outcome"));
    return rule;
}

void ApplyHost(Transaction &transaction, const Json &root)
{
    for (const auto &[name, nic] : Member(root, "nics").items())
        ApplyNic(transaction, name, nic);
    for (const auto &[name, portset] : Member(root, "portsets").items())
        ApplyPortset(transaction, name, portset);
    ApplyLearningProps(transaction, Member(root, "macLearning"));
    ApplyOptions(transaction, Member(root, "options"));
}

Json Parse(std::string_view text)
try {
    static const JsonSchema schema(SCENARIO_SCHEMA);
    const Json root = Json::parse(text);
    schema.Check(root);
    return root;
} catch (const Json::exception &error) {
    throw SchemaViolation{"", std::string("must be JSON: ") + error.what()};
}

}

bool ApplyScenario(Engine &engine, Control &control, std::string_view json, std::string &message)
try {
    std::optional<SchemaViolation> violation;
    std::vector<CallRule> rules;
    TestFaults &faults = TestFaults::Of(control);
    const Json root = Parse(json);
    for (const Json &fault : Member(root, "faults"))
        rules.push_back(ParseFault(fault));
    if (rules.size() > faults.FreeRules())
        throw SchemaViolation{"/faults",
                              "the host holds too many rules already; vshost_clear() removes them"};
    const VsStatus status = engine.Write([&](Transaction &transaction) -> VsStatus {
        try {
            ApplyHost(transaction, root);
            return STATUS_OK;
        } catch (const StorageError &error) {
            return error.status;
        } catch (const SchemaViolation &found) {
            violation = found;
            return STATUS_BAD_PARAM;
        }
    });
    if (violation) throw *violation;
    message = status ? "the host's database can't be written" : "";
    if (status) return false;
    for (const CallRule &rule : rules)
        faults.Fail(rule);
    return true;
} catch (const SchemaViolation &violation) {
    message = (violation.path.empty() ? "the scenario" : violation.path) + ": " + violation.what;
    return false;
}

}
