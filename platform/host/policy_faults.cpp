#include "platform/host/policy_faults.h"

#include <algorithm>
#include <iterator>

#include "platform/host/policy_records.h"
#include "platform/host/port_policies.h"
#include "platform/host/runtime.h"

namespace vshost {
namespace {

constexpr uint16_t MAX_VLAN = 4094;
constexpr uint32_t SECURITY_BITS =
    VSWITCH_SECURITY_ADDRESSED_ONLY | VSWITCH_SECURITY_ADDRESS_LOCK | VSWITCH_SECURITY_STATIC_ONLY;
constexpr const char *BAD_LENGTH = "its length is not that of its record";
constexpr const char *BAD_VERSION = "its version is not known";
constexpr const char *BAD_COUNT = "a count is larger than its array";

bool IsVlan(uint16_t vlan) { return vlan >= 1 && vlan <= MAX_VLAN; }

template<class Record> const char *FaultOfRecord(std::string_view value)
{
    Record record;
    return DecodeRecord(value, record) ? FaultOf(record) : BAD_LENGTH;
}

const char *FaultOfFlags(std::string_view value)
{
    uint32_t bits;
    return DecodeRecord(value, bits) ? FaultOfSecurity(bits) : BAD_LENGTH;
}

// The first fault among records of one size.
template<class Record> const char *FaultOfArray(std::string_view value)
{
    for (; value.size() >= sizeof(Record); value.remove_prefix(sizeof(Record)))
        if (const char *fault = FaultOfRecord<Record>(value.substr(0, sizeof(Record)))) return fault;
    return value.empty() ? nullptr : BAD_LENGTH;
}

const char *FaultOfNamedTeamings(std::string_view value)
{
    if (value.size() < sizeof(uint32_t)) return BAD_LENGTH;
    const uint64_t size = uint64_t{WordAt(value, 0)} * sizeof(VSwitchNamedTeaming);
    value.remove_prefix(sizeof(uint32_t));
    return size > value.size() ? BAD_COUNT : FaultOfArray<VSwitchNamedTeaming>(value.substr(0, size));
}

const char *FaultOfMirrors(std::string_view value)
{
    MirrorListHeader header;
    if (value.size() < sizeof(header)) return BAD_LENGTH;
    memcpy(&header, value.data(), sizeof(header));
    value.remove_prefix(sizeof(header));
    if (header.sessionCount * uint64_t{sizeof(MirrorRecord)} +
            header.portCount * uint64_t{sizeof(VSwitchMirrorPort)} >
        value.size())
        return BAD_COUNT;
    for (uint32_t i = 0; i < header.sessionCount; i++, value.remove_prefix(sizeof(MirrorRecord))) {
        MirrorRecord record;
        memcpy(&record, value.data(), sizeof(record));
        if (const char *fault = FaultOf(record.settings)) return fault;
        if (record.EndOfPorts() > header.portCount) return BAD_COUNT;
    }
    return nullptr;
}

const char *FaultOfVlan(std::string_view value)
{
    VlanRecord record;
    if (value.size() < sizeof(record)) return BAD_LENGTH;
    memcpy(&record, value.data(), sizeof(record));
    return value.size() == sizeof(record) + record.rangeCount * sizeof(uint32_t) ? nullptr : BAD_COUNT;
}

const char *FaultOfLearning(std::string_view value) { return value.size() == 11 ? nullptr : BAD_LENGTH; }

const char *FaultOfSwitchLearning(std::string_view value) { return value.size() == 8 ? nullptr : BAD_LENGTH; }

struct RecordKey {
    std::string_view key;
    const char *(*fault)(std::string_view value);
};

constexpr RecordKey RECORDS[] = {
    {"com.talpex.vswitch.teaming", FaultOfRecord<VSwitchTeamingPolicy>},
    {"com.talpex.vswitch.port.teaming.policy", FaultOfRecord<VSwitchTeamingPolicy>},
    {"com.talpex.vswitch.logicalswitch.teaming", FaultOfNamedTeamings},
    {"com.talpex.vswitch.pvlanMap", FaultOfArray<VSwitchPvlanEntry>},
    {KEY_SECURITY, FaultOfFlags},
    {KEY_ETH_FILTER, FaultOfRecord<VSwitchFilter>},
    {KEY_PORT_MIRROR, FaultOfMirrors},
    {KEY_HOST_MIRROR, FaultOfMirrors},
    {KEY_VLAN, FaultOfVlan},
    {KEY_PORT_MAC_MANAGEMENT, FaultOfLearning},
    {"com.talpex.vswitch.macLearning", FaultOfSwitchLearning},
};

}

const char *FaultOf(const VSwitchTeamingPolicy &policy)
{
    if (policy.version != VSWITCH_TEAMING_VERSION) return BAD_VERSION;
    if (policy.algorithm > VSWITCH_TEAMING_ORDER) return "its algorithm is not known";
    if (policy.failBack > 1 || policy.notify > 1) return "a flag is neither 0 nor 1";
    const bool fits = policy.activeCount <= VSWITCH_TEAMING_UPLINKS &&
                      policy.standbyCount <= VSWITCH_TEAMING_UPLINKS - policy.activeCount;
    return fits ? nullptr : BAD_COUNT;
}

const char *FaultOf(const VSwitchNamedTeaming &entry)
{
    if (strnlen(entry.name, sizeof(entry.name)) == sizeof(entry.name)) return "a name has no end";
    VSwitchTeamingPolicy policy;
    memcpy(&policy, &entry.policy, sizeof(policy));
    return FaultOf(policy);
}

const char *FaultOf(const VSwitchFilter &filter)
{
    if (filter.ruleCount > VSWITCH_FILTER_RULES) return BAD_COUNT;
    for (uint32_t i = 0; i < filter.ruleCount; i++) {
        if (filter.rules[i].direction > VSWITCH_FILTER_TO_PORT) return "the direction of a rule is not known";
        if (filter.rules[i].action > VSWITCH_FILTER_DROP) return "the action of a rule is not known";
    }
    return nullptr;
}

const char *FaultOf(const VSwitchPvlanEntry &entry)
{
    if (!IsVlan(entry.primary) || !IsVlan(entry.secondary)) return "a VLAN of an entry is not 1 to 4094";
    return entry.type > VSWITCH_PVLAN_COMMUNITY ? "the type of an entry is not known" : nullptr;
}

const char *FaultOf(const VSwitchMirrorSettings &settings)
{
    if (settings.version != VSWITCH_MIRROR_VERSION) return "the version of a session is not known";
    if (settings.enabled > 1 || settings.stripTag > 1) return "a flag of a session is neither 0 nor 1";
    return settings.outerVlan > MAX_VLAN ? "the outer VLAN of a session is larger than 4094" : nullptr;
}

const char *FaultOfSecurity(uint32_t bits)
{
    return bits & ~SECURITY_BITS ? "it has flags that are not known" : nullptr;
}

const char *PolicyFault(std::string_view key, std::string_view value)
{
    const auto record = std::find_if(std::begin(RECORDS), std::end(RECORDS),
                                     [&](const RecordKey &one) { return one.key == key; });
    return record == std::end(RECORDS) ? nullptr : record->fault(value);
}

}
