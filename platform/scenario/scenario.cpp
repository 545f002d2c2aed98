#include "platform/scenario/scenario.h"

#include <arpa/inet.h>
#include <vshost.h>
#include <vswitch_fields.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
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

// The last number of the word: an entry of the first one of a MAC table is a request's.
uint64_t NumberOfWord(const vswitch::RecordField &field, const std::string &word)
{
    uint64_t number = std::size(field.words) - 1;
    while (number > 0 && (!field.words[number] || word != field.words[number]))
        number--;
    return number;
}

// The fields of a record that a scenario can set.
void ReadFields(const Json &object, std::span<const vswitch::RecordField> fields, void *record)
{
    for (const vswitch::RecordField &field : fields) {
        const Json &member = Member(object, field.name);
        uint32_t kind = 0;
        if (member.is_null()) continue;
        if (field.kind == vswitch::ADDRESS)
            ParseAddress(member, kind).copy(static_cast<char *>(record) + field.offset, field.width);
        else
            SetNumber(field, record,
                      member.is_string()    ? NumberOfWord(field, member)
                      : member.is_boolean() ? member.get<bool>()
                                            : member.get<uint64_t>());
    }
}

// Changes the fields of the record under `key`.
template<class Record>
void ApplyFields(Transaction &transaction, const std::string &key, const Json &object,
                 std::span<const vswitch::RecordField> fields, Record record = {})
{
    if (object.is_null()) return;
    ReadRecord(transaction, key, record);
    ReadFields(object, fields, &record);
    Check(PutRecord(transaction, key, record));
}

// ---- NICs ----

void ApplyNic(Transaction &transaction, const std::string &name, const Json &object)
{
    Nic nic;
    const bool known = ReadRecord(transaction, runtime::NicKey(name), nic);
    ReadNumber(object, "speed", nic.speed);
    ReadNumber(object, "full-duplex", nic.fullDuplex);
    ReadNumber(object, "link", nic.link);
    ReadNumber(object, "admin", nic.adminUp);
    ReadNumber(object, "numa-node", nic.numaNode);
    ReadNumber(object, "mtu", nic.mtu);
    ReadNumber(object, "max-mtu", nic.maxMtu);
    if (const Json &mtus = Member(object, "refused-mtus"); !mtus.is_null()) {
        std::fill(std::begin(nic.refusedMtus), std::end(nic.refusedMtus), 0);
        std::copy(mtus.begin(), mtus.end(), std::begin(nic.refusedMtus));
    }
    if (nic.mtu > nic.maxMtu) throw SchemaViolation{"/nics/" + name, "mtu must not be above max-mtu"};
    if (!known) nic.driverNumaNode = nic.numaNode;
    Check(PutNic(transaction, name, nic));
    if (const Json &bind = Member(object, "bind"); !bind.is_null())
        Check(ClaimNic(transaction, name, Text(bind, "switch"), Text(bind, "port")));
}

// ---- State of a portset ----

void ApplyPort(Transaction &transaction, const std::string &portset, const std::string &portId,
               const Json &object)
{
    for (const Json &member : Member(object, "macs")) {
        VSwitchMacEntry entry = {};
        ReadFields(member, vswitch::MAC_ENTRY_FIELDS, &entry);
        MacRecord record;
        record.fromScenario = 1;
        record.age = entry.age;
        if (entry.type) record.type = entry.type;
        Check(PutRecord(transaction, runtime::MacKey(portset, portId, entry.vlanId, entry.address), record));
    }
    ApplyFields<VSwitchPortLearningStats>(transaction, runtime::PortStatsKey(portset, portId),
                                          Member(object, "learning"), vswitch::PORT_LEARNING_FIELDS);
}

void ApplyLag(Transaction &transaction, const std::string &portset, const std::string &name,
              const Json &object)
{
    VSwitchLag lag = {};
    ReadFields(object, vswitch::LAG_FIELDS, &lag);
    SetField(lag.name, name);
    for (const Json &member : Member(object, "members"))
        SetField(lag.members[lag.memberCount++], member.get<std::string>());
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
    VSwitchMcastStats stats = {};
    uint32_t kind = 0;
    ReadFields(object, vswitch::MCAST_FIELDS, &stats);
    const std::string group = ParseAddress(Text(object, "group"), kind);
    std::string sources;
    for (const Json &source : Member(object, "sources")) {
        sources += ParseAddress(source, kind);
        stats.count++;
    }
    Check(transaction.Put(runtime::GroupKey(portset, kind, stats.vlanId, group),
                          std::string(BytesOf(stats)) + sources));
}

void ApplyPromiscuousPorts(Transaction &transaction, const std::string &portset, const Json &ports)
{
    if (ports.is_null()) return;
    std::string portIds;
    for (const Json &portId : ports)
        portIds += portId.get<std::string>() + '\0';
    Check(transaction.Put(runtime::PromiscuousKey(portset), portIds));
}

void ApplyPortset(Transaction &transaction, const std::string &portset, const Json &object)
{
    for (const auto &[portId, port] : Member(object, "ports").items())
        ApplyPort(transaction, portset, portId, port);
    ApplyLags(transaction, portset, Member(object, "lags"));
    for (const Json &group : Member(object, "groups"))
        ApplyGroup(transaction, portset, group);
    for (const auto &[id, session] : Member(object, "mirror-sessions").items())
        ApplyFields<VSwitchMirrorStats>(transaction, runtime::MirrorStatsKey(portset, id), session,
                                        vswitch::MIRROR_FIELDS);
    ApplyPromiscuousPorts(transaction, portset, Member(object, "promiscuous-ports"));
    ApplyFields<VSwitchRarpStats>(transaction, runtime::RarpKey(portset), Member(object, "rarp"),
                                  vswitch::RARP_FIELDS);
    ApplyFields<VSwitchTeamingStats>(transaction, runtime::TeamingKey(portset), Member(object, "teaming"),
                                     vswitch::TEAMING_FIELDS);
}

// ---- The whole host ----

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
    ApplyFields(transaction, runtime::LearningPropsKey(), Member(root, "mac-learning"),
                vswitch::LEARNING_PROPS_FIELDS, DEFAULT_LEARNING_PROPS);
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
