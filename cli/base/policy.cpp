// The table of the policies of switches and ports.
#include "cli/base/policy.h"

#include <fmt/format.h>

#include "cli/base/records.h"

namespace vsctl {

namespace {

const std::string &Text(const Json &value) { return value.get_ref<const std::string &>(); }

// ---- Policies of a common shape ----

// Calls an operation of ports, or of switches.
template<auto OPERATION, class... Values> VsStatus Call(const Target &target, Values... values)
{
    if constexpr (std::is_invocable_v<decltype(OPERATION), const char *, const char *, Values...>)
        return OPERATION(target.Alias(), target.Port(), values...);
    else
        return OPERATION(target.Alias(), values...);
}

template<auto GET> VsStatus ReadFlag(const Target &target, Json &value)
{
    uint8_t enabled = 0;
    if (VsStatus status = Call<GET>(target, &enabled)) return status;
    value = enabled != 0;
    return STATUS_OK;
}

template<auto SET> VsStatus WriteFlag(const Target &target, const Json &value)
{
    return Call<SET>(target, static_cast<uint8_t>(value.get<bool>()));
}

template<const Layout &LAYOUT, class Record, auto GET> VsStatus ReadRecord(const Target &target, Json &value)
{
    Record record{};
    if (VsStatus status = Call<GET>(target, &record)) return status;
    value = RecordToJson(LAYOUT, &record);
    return STATUS_OK;
}

template<const Layout &LAYOUT, class Record, auto SET>
VsStatus WriteRecord(const Target &target, const Json &value)
{
    Record record;
    memcpy(&record, RecordFromJson(LAYOUT, value).data(), sizeof record);
    return Call<SET>(target, &record);
}

template<size_t SIZE, auto GET> VsStatus ReadText(const Target &target, Json &value)
{
    char text[SIZE];
    if (VsStatus status = Call<GET>(target, text)) return status;
    value = Name(text, sizeof text);
    return STATUS_OK;
}

template<auto SET> VsStatus WriteText(const Target &target, const Json &value)
{
    return Call<SET>(target, Text(value).c_str());
}

// A number that stands for a word. An unknown number counts as the first.
template<const auto &FIELDS, class Number, auto GET> VsStatus ReadChoice(const Target &target, Json &value)
{
    Number number = 0;
    if (VsStatus status = Call<GET>(target, &number)) return status;
    const auto words = Words(FIELDS[0].choices, "|");
    value = words[number < words.size() ? number : 0];
    return STATUS_OK;
}

template<const auto &FIELDS, class Number, auto SET>
VsStatus WriteChoice(const Target &target, const Json &value)
{
    return Call<SET>(target, static_cast<Number>(ChoiceIndex(FIELDS[0], Text(value))));
}

// ---- VLAN ----

constexpr Field VLAN_FIELDS[] = {
    {"id", Form::NUMBER, "VLAN id", 0, 4095, "", "0"},
    {"priority", Form::NUMBER, "802.1p priority, 0 to 7", 0, 7, "", nullptr, true},
    {"trunk", Form::RANGES, "Make the port a trunk of these VLANs, like 100-199,300", 0, 0, "", nullptr,
     true},
    {"ranges", Form::RANGES, "VLAN ranges to keep with a port that is not a trunk", 0, 0, "", nullptr, true},
    {"option", Form::BOOLEAN, "Option flag of the policy: on or off", 0, 0, "", "false"},
};

Json RangesToJson(const PortVLANRecord *record)
{
    Json ranges = Json::array();
    for (const VLANRange &range : Entries<VLANRange>(record, record->rangeCount))
        ranges.push_back(VlanRangeText(range));
    return ranges;
}

// The library returns 0 for a priority that it cannot read, so a 0 is read again.
VsStatus ConfirmPriority(const Target &port, uint32_t &priority)
{
    if (priority) return STATUS_OK;
    Bytes bytes;
    const VsStatus status =
        NamedProperty{PropertyLevel::PORT, port, "com.talpex.vswitch.port.priority"}.Get(bytes);
    if (bytes.size() == sizeof priority) memcpy(&priority, bytes.data(), sizeof priority);
    return status == STATUS_NOT_FOUND ? STATUS_OK : status;
}

VsStatus ReadVlan(const Target &target, Json &value)
{
    StoreBuffer<PortVLANRecord> record;
    uint32_t priority = 0;
    if (VsStatus status = VSDVS_GetPortVLANPolicy(target.Alias(), target.Port(), record.Out(), &priority))
        return status;
    const bool trunk = record->flags & VLAN_FLAG_TRUNK;
    const uint16_t id = record->vlanId;
    value = {{"id", id}};
    if (record->flags & VLAN_FLAG_PRIORITY) {
        if (VsStatus status = ConfirmPriority(target, priority)) return status;
        value["priority"] = priority;
    }
    if (trunk || record->rangeCount) value[trunk ? "trunk" : "ranges"] = RangesToJson(record.Get());
    value["option"] = (record->flags & VLAN_FLAG_OPTION) != 0;
    return STATUS_OK;
}

VsStatus WriteVlan(const Target &target, const Json &value)
{
    const bool trunk = value.contains("trunk");
    std::vector<VLANRange> ranges;
    for (const Json &range : value.value(trunk ? "trunk" : "ranges", Json::array()))
        ranges.push_back(ParseVlanRange(Text(range)).value_or(VLANRange{}));
    return VSDVS_SetPortVLANPolicy(target.Alias(), target.Port(), value.value("id", uint16_t{0}),
                                   value.value("priority", VLAN_PRIORITY_NONE), trunk,
                                   value.value("option", false), ranges.data(),
                                   static_cast<uint16_t>(ranges.size()));
}

constexpr Field PVLAN_FIELDS[] = {
    {"", Form::RECORDS, "Roles in private VLANs", 0, 0, "", nullptr, false, &PRIVATE_VLAN}};

VsStatus ReadPrivateVlans(const Target &target, Json &value)
{
    StoreBuffer<PVLANMapEntry> entries;
    uint32_t count = 0;
    if (VsStatus status = VSDVS_GetPrivateVLANMap(target.Alias(), entries.Out(), &count)) return status;
    value = ListToJson(PRIVATE_VLAN, std::span<const PVLANMapEntry>(entries.Get(), count));
    return STATUS_OK;
}

VsStatus WritePrivateVlans(const Target &target, const Json &value)
{
    const auto entries = ListFromJson<PVLANMapEntry>(PRIVATE_VLAN, value);
    return VSDVS_SetPrivateVLANMap(target.Alias(), entries.data(), static_cast<uint32_t>(entries.size()));
}

VsStatus ClearPrivateVlans(const Target &target)
{
    return VSDVS_SetPrivateVLANMap(target.Alias(), nullptr, 0);
}

constexpr Field SWITCH_VALUE[] = {{"", Form::BOOLEAN, "on or off"}};

// ---- Port block ----

constexpr const char *BLOCK_KEY = "com.talpex.common.port.block";

VsStatus ReadBlock(const Target &target, Json &value)
{
    Bytes text;
    if (VsStatus status = NamedProperty{PropertyLevel::PORT, target, BLOCK_KEY}.Get(text)) return status;
    value = Name(reinterpret_cast<const char *>(text.data()), text.size()) == "true";
    return STATUS_OK;
}

VsStatus WriteBlock(const Target &target, const Json &value)
{
    const std::string text = value.dump(); // "true" or "false", with a NUL
    return NamedProperty{PropertyLevel::PORT, target, BLOCK_KEY}.Set(
        {text.c_str(), text.c_str() + text.size() + 1});
}

// ---- Teaming ----

constexpr Field OVERRIDE_FIELDS[] = {
    {"", Form::TEXT, "The override, a text of at most 80 bytes", 0, TEAMING_OVERRIDE_SIZE - 1}};

constexpr Field TX_UPLINK_FIELDS[] = {{"", Form::CHOICE, "normal or always", 0, 0, "normal|always"}};

// ---- Logical-switch teaming ----

constexpr Field LS_TABLE_FIELDS[] = {
    {"", Form::RECORDS, "Teaming policies by name", 0, 0, "", nullptr, false, &NAMED_TEAMING}};

// The library returns a stored table without checking its length, so its count is compared with the length
// of the property.
template<bool BY_ID> VsStatus ReadLsTable(const Target &target, Json &value)
{
    StoreBuffer<LSTeamingPolicyTable> table;
    const VsStatus status = BY_ID ? VSDVS_GetLSTeamingPolicyTableFromDVSID(target.Alias(), table.Out())
                                  : VSDVS_GetLSTeamingPolicyTable(target.Alias(), table.Out());
    if (status != STATUS_OK) return status;
    int32_t length = 0;
    const NamedProperty property{PropertyLevel::GLOBAL, target, "com.talpex.vswitch.logicalswitch.teaming",
                                 BY_ID};
    if (auto failed = property.Length(length)) return failed;
    const uint64_t needed = sizeof *table.Get() + uint64_t{table->count} * sizeof(LSTeamingPolicyEntry);
    if (needed > static_cast<uint64_t>(length)) return STATUS_FAILURE;
    value = ListToJson(NAMED_TEAMING, Entries<LSTeamingPolicyEntry>(table.Get(), table->count));
    return STATUS_OK;
}

VsStatus ReadLiveLsTable(const Target &target, Json &value)
{
    DriverBuffer<LSTeamingPolicyTable> table;
    if (VsStatus status = VSZOR_GetLSTeamingPolicyTable(target.Alias(), table.Out())) return status;
    value = ListToJson(NAMED_TEAMING, DriverEntries<LSTeamingPolicyEntry>(table.Get()));
    return STATUS_OK;
}

VsStatus WriteLsTable(const Target &target, const Json &value)
{
    const auto count = static_cast<uint32_t>(value.size());
    Bytes table(sizeof count + count * sizeof(LSTeamingPolicyEntry));
    memcpy(table.data(), &count, sizeof count);
    const auto entries = ListFromJson<LSTeamingPolicyEntry>(NAMED_TEAMING, value);
    if (count) memcpy(table.data() + sizeof count, entries.data(), count * sizeof(LSTeamingPolicyEntry));
    return VSDVS_SetLSTeamingPolicy(target.Alias(), reinterpret_cast<LSTeamingPolicyTable *>(table.data()));
}

constexpr Field LS_NAME_FIELDS[] = {
    {"", Form::TEXT, "Name of the policy that the port follows", 0, LS_TEAMING_POLICY_NAME_SIZE - 1}};

VsStatus ReadLiveLsName(const Target &target, Json &value)
{
    uint32_t number = 0;
    char name[LS_TEAMING_POLICY_NAME_SIZE];
    if (VsStatus status = VSDVS_DvPortIDToPortID(target.Alias(), target.Port(), &number)) return status;
    if (VsStatus status = VSZOR_GetPortLSTeamingPolicyName(number, name)) return status;
    if (*name) value = Name(name, sizeof name); // none is not a name
    return STATUS_OK;
}

// ---- Multicast, MTU, mirror sessions ----

constexpr Field MULTICAST_FIELDS[] = {{"", Form::CHOICE, "legacy or snooping", 0, 0, "legacy|snooping"}};

VsStatus ReadLiveMulticast(const Target &target, Json &value)
{
    return ReadChoice<MULTICAST_FIELDS, uint32_t, VSZOR_GetMcastFilterMode>({PortsetOf(target.alias), ""},
                                                                            value);
}

constexpr Field MTU_FIELDS[] = {{"", Form::NUMBER, "Bytes, 1280 to 9000", MTU_MIN, MTU_MAX}};

VsStatus ReadMtu(const Target &target, Json &value)
{
    int32_t mtu = 0;
    if (!IsRunning(target.alias)) return STATUS_NOT_FOUND;
    if (VsStatus status = VSDVS_GetMTU(target.Alias(), &mtu)) return status;
    value = mtu;
    return STATUS_OK;
}

VsStatus WriteMtu(const Target &target, const Json &value)
{
    RequireRunning("setting mtu of", target);
    return VSDVS_SetMTU(target.Alias(), value.get<int32_t>());
}

constexpr Field MIRROR_FIELDS[] = {
    {"", Form::RECORDS, "Mirror sessions", 0, 0, "", nullptr, false, &MIRROR_SESSION}};

VsStatus ReadMirror(const Target &target, Json &value)
{
    StoreBuffer<MirrorSessionList> list;
    if (VsStatus status = VSDVS_GetDVMirrorSessions(target.Alias(), target.Port(), list.Out())) return status;
    value = SessionsToJson(list.Get());
    return STATUS_OK;
}

VsStatus ClearMirror(const Target &target)
{
    return VSDVS_ClearDVMirrorSessions(target.Alias(), target.Port());
}

VsStatus AppendMirror(const Target &target, const Json &sessions)
{
    const Bytes list = SessionsFromJson(sessions);
    return VSDVS_AppendDVMirrorSessions(target.Alias(), target.Port(),
                                        reinterpret_cast<const MirrorSessionList *>(list.data()));
}

VsStatus WriteMirror(const Target &target, const Json &value)
{
    if (VsStatus status = ClearMirror(target)) return status;
    return AppendMirror(target, value);
}

VsStatus RemoveMirror(const Target &target, const Json &names)
{
    for (const Json &name : names) {
        const VsStatus status =
            VSDVS_RemoveDVMirrorSession(target.Alias(), target.Port(), Text(name).c_str());
        if (status != STATUS_OK) return status;
    }
    return STATUS_OK;
}

constexpr const char *MIRROR_OPERATIONS =
    "VSDVS_GetDVMirrorSessions VSDVS_AppendDVMirrorSessions VSDVS_RemoveDVMirrorSession "
    "VSDVS_ClearDVMirrorSessions";

const Policy POLICIES[] = {
    {"mtu", PropertyLevel::GLOBAL, "", false, "MTU of a switch and its uplinks", MTU_FIELDS, ReadMtu,
     WriteMtu, nullptr, "9000", "VSDVS_GetMTU VSDVS_SetMTU"},
    {"multicast", PropertyLevel::GLOBAL, "com.talpex.vswitch.multicastFilter", true,
     "multicast filter mode of a switch", MULTICAST_FIELDS,
     ReadChoice<MULTICAST_FIELDS, uint32_t, VSDVS_GetMcastFilterMode>,
     WriteChoice<MULTICAST_FIELDS, int32_t, VSDVS_SetMcastFilterMode>, nullptr, "snooping",
     "VSDVS_GetMcastFilterMode VSDVS_SetMcastFilterMode VSZOR_GetMcastFilterMode", nullptr,
     ReadLiveMulticast},
    {"teaming", PropertyLevel::GLOBAL, "com.talpex.vswitch.teaming", false, "teaming policy of a switch",
     TEAMING.fields, ReadRecord<TEAMING, TeamingPolicy, VSDVS_GetTeamingPolicy>,
     WriteRecord<TEAMING, TeamingPolicy, VSDVS_SetTeamingPolicy>, Call<VSDVS_ClearTeamingPolicy>,
     "--active uplink0 --standby uplink1 --notify",
     "VSDVS_GetTeamingPolicy VSDVS_GetTeamingPolicyFromDVSID VSDVS_SetTeamingPolicy VSDVS_ClearTeamingPolicy",
     &TEAMING, nullptr, ReadRecord<TEAMING, TeamingPolicy, VSDVS_GetTeamingPolicyFromDVSID>},
    {"mac-learning", PropertyLevel::HOST, "com.talpex.vswitch.macLearning", true,
     "MAC learning of a switch on this host", SWITCH_LEARNING.fields,
     ReadRecord<SWITCH_LEARNING, SwitchMACLearningRecord, VSDVS_GetMACLearning>,
     WriteRecord<SWITCH_LEARNING, SwitchMACLearningRecord, VSDVS_SetMACLearning>,
     Call<VSDVS_ClearMACLearning>, "--aging 300 --limit 1024",
     "VSDVS_GetMACLearning VSDVS_SetMACLearning VSDVS_ClearMACLearning", &SWITCH_LEARNING},
    {"learn-static", PropertyLevel::HOST, "com.talpex.vswitch.macLearning.learnStatic", true,
     "learning of static MAC addresses", SWITCH_VALUE, ReadFlag<VSDVS_GetLearnStatic>,
     WriteFlag<VSDVS_SetLearnStatic>, Call<VSDVS_ClearLearnStatic>, "on",
     "VSDVS_GetLearnStatic VSDVS_SetLearnStatic VSDVS_ClearLearnStatic"},
    {"pvlan", PropertyLevel::GLOBAL, "com.talpex.vswitch.pvlanMap", false, "private VLAN map of a switch",
     PVLAN_FIELDS, ReadPrivateVlans, WritePrivateVlans, ClearPrivateVlans, "",
     "VSDVS_GetPrivateVLANMap VSDVS_SetPrivateVLANMap", nullptr, nullptr, nullptr, nullptr, "private VLAN"},
    {"ls-teaming", PropertyLevel::GLOBAL, "com.talpex.vswitch.logicalswitch.teaming", false,
     "logical-switch teaming policies of a switch", LS_TABLE_FIELDS, ReadLsTable<false>, WriteLsTable,
     Call<VSDVS_ClearLSTeamingPolicy>, "",
     "VSDVS_GetLSTeamingPolicyTable VSDVS_GetLSTeamingPolicyTableFromDVSID VSDVS_SetLSTeamingPolicy "
     "VSDVS_ClearLSTeamingPolicy VSZOR_GetLSTeamingPolicyTable",
     nullptr, ReadLiveLsTable, ReadLsTable<true>, nullptr, "policy"},
    {"mirror", PropertyLevel::HOST, "com.talpex.vswitch.uplinkMirrorSessions", true,
     "mirror sessions of a switch's uplinks on this host", MIRROR_FIELDS, ReadMirror, WriteMirror,
     ClearMirror, "", MIRROR_OPERATIONS, nullptr, nullptr, nullptr, nullptr, "mirror session", AppendMirror,
     RemoveMirror},
    {"block", PropertyLevel::PORT, BLOCK_KEY, false, "block of ports: a blocked port sends and gets nothing",
     SWITCH_VALUE, ReadBlock, WriteBlock, nullptr, "on", "VSDVS_GetPortProp VSDVS_SetPortProp", nullptr,
     nullptr, nullptr, "false"},
    {"vlan", PropertyLevel::PORT, "com.talpex.vswitch.port.vlan", false, "VLAN policy of ports", VLAN_FIELDS,
     ReadVlan, WriteVlan, Call<VSDVS_ClearPortVLANPolicy>, "--id 100 --priority 3",
     "VSDVS_GetPortVLANPolicy VSDVS_SetPortVLANPolicy VSDVS_ClearPortVLANPolicy"},
    {"nested-vlan", PropertyLevel::PORT, "com.talpex.vswitch.port.vlanNestedTag", true,
     "nested VLAN tagging of ports", SWITCH_VALUE, ReadFlag<VSDVS_GetPortNestedVLANTagging>,
     WriteFlag<VSDVS_SetPortNestedVLANTagging>, nullptr, "on",
     "VSDVS_GetPortNestedVLANTagging VSDVS_SetPortNestedVLANTagging"},
    {"security", PropertyLevel::PORT, "com.talpex.vswitch.port.security", true, "security flags of ports",
     SECURITY.fields, ReadRecord<SECURITY, uint32_t, VSDVS_GetPortSecurity>,
     WriteRecord<SECURITY, uint32_t, VSDVS_SetPortSecurity>, nullptr,
     "--addressed-only off --lock-address on", "VSDVS_GetPortSecurity VSDVS_SetPortSecurity", &SECURITY},
    {"eth-filter", PropertyLevel::PORT, "com.talpex.vswitch.port.extraEthFRP", true,
     "extra Ethernet filter of ports", ETHERNET_FILTER.fields,
     ReadRecord<ETHERNET_FILTER, ExtraEthFilterRecord, VSDVS_GetExtraEthFilter>,
     WriteRecord<ETHERNET_FILTER, ExtraEthFilterRecord, VSDVS_SetExtraEthFilter>,
     Call<VSDVS_ClearExtraEthFilter>, "--rules 'drop 0x86dd,pass any'",
     "VSDVS_GetExtraEthFilter VSDVS_SetExtraEthFilter VSDVS_ClearExtraEthFilter", &ETHERNET_FILTER},
    {"sink", PropertyLevel::PORT, "com.talpex.vswitch.port.extraEthFRP", true,
     "sink bit in the extra Ethernet filter of ports", SWITCH_VALUE, ReadFlag<VSDVS_IsSinkPortEnabled>,
     WriteFlag<VSDVS_ConfigureSinkPort>, nullptr, "on", "VSDVS_IsSinkPortEnabled VSDVS_ConfigureSinkPort"},
    {"mac-learning", PropertyLevel::PORT, "com.talpex.vswitch.port.macManagement", true,
     "MAC learning of ports", PORT_LEARNING.fields,
     ReadRecord<PORT_LEARNING, PortMACLearningConfig, VSDVS_GetPortMACLearning>,
     WriteRecord<PORT_LEARNING, PortMACLearningConfig, VSDVS_SetPortMACLearning>, nullptr,
     "--learning --limit 100", "VSDVS_GetPortMACLearning VSDVS_SetPortMACLearning", &PORT_LEARNING},
    {"teaming", PropertyLevel::PORT, "com.talpex.vswitch.port.teaming.policy", false,
     "teaming policy of ports", TEAMING.fields,
     ReadRecord<TEAMING, TeamingPolicy, VSDVS_GetPortTeamingPolicy>,
     WriteRecord<TEAMING, TeamingPolicy, VSDVS_SetPortTeamingPolicy>, Call<VSDVS_ClearPortTeamingPolicy>,
     "--algorithm order --active uplink1",
     "VSDVS_GetPortTeamingPolicy VSDVS_SetPortTeamingPolicy VSDVS_ClearPortTeamingPolicy", &TEAMING},
    {"override", PropertyLevel::PORT, "com.talpex.vswitch.port.teaming.override", false,
     "teaming override of ports", OVERRIDE_FIELDS,
     ReadText<TEAMING_OVERRIDE_SIZE, VSDVS_GetPortTeamingOverride>, WriteText<VSDVS_SetPortTeamingOverride>,
     Call<VSDVS_ClearPortTeamingOverride>, "uplink0",
     "VSDVS_GetPortTeamingOverride VSDVS_SetPortTeamingOverride VSDVS_ClearPortTeamingOverride"},
    {"tx-uplink", PropertyLevel::PORT, "com.talpex.vswitch.port.txUplink", false,
     "transmit-uplink mode of ports", TX_UPLINK_FIELDS,
     ReadChoice<TX_UPLINK_FIELDS, uint8_t, VSDVS_GetTxUplinkAlways>,
     WriteChoice<TX_UPLINK_FIELDS, uint8_t, VSDVS_SetTxUplinkAlways>, nullptr, "always",
     "VSDVS_GetTxUplinkAlways VSDVS_SetTxUplinkAlways"},
    {"ls-teaming", PropertyLevel::PORT, "com.talpex.vswitch.port.logicalswitch.teaming", false,
     "logical-switch teaming policy of ports", LS_NAME_FIELDS,
     ReadText<LS_TEAMING_POLICY_NAME_SIZE, VSDVS_GetPortLSTeamingPolicyName>,
     WriteText<VSDVS_SetPortLSTeamingPolicy>, Call<VSDVS_ClearPortLSTeamingPolicy>, "gold",
     "VSDVS_GetPortLSTeamingPolicyName VSDVS_SetPortLSTeamingPolicy VSDVS_ClearPortLSTeamingPolicy "
     "VSZOR_GetPortLSTeamingPolicyName",
     nullptr, ReadLiveLsName},
    {"mirror", PropertyLevel::PORT, "com.talpex.vswitch.port.mirrorSessions", true,
     "mirror sessions of ports", MIRROR_FIELDS, ReadMirror, WriteMirror, ClearMirror, "", MIRROR_OPERATIONS,
     nullptr, nullptr, nullptr, nullptr, "mirror session", AppendMirror, RemoveMirror},
};

// A stored record that cannot be read can still be removed by its key.
Error DamagedError(const Error &error, const Policy &policy, const Target &target)
{
    const std::string place = policy.IsOfPort()                     ? "--port " + target.port
                              : policy.level == PropertyLevel::HOST ? "--level host"
                                                                    : "";
    return {error, error.problem,
            fmt::format("'vsctl property clear {} {} {}' removes what is stored", target.alias, policy.key,
                        place)};
}

VsStatus Clear(const Policy &policy, const Target &target)
{
    if (policy.initial) return policy.write(target, Json::parse(policy.initial));
    if (!policy.CanClear()) return STATUS_OK; // it exists as long as the switch
    return policy.clear ? policy.clear(target) : NamedProperty{policy.level, target, policy.key}.Clear();
}

bool Sets(const Json &value, const char *field) { return value.contains(field) && value[field] != NONE; }

// A port is in one VLAN or is a trunk. An id ends a trunk, and a trunk ends the VLAN that the port was in. A
// value that names both sets both.
void DropExcluded(Json &stored, const Json &value)
{
    if (Sets(value, "trunk")) {
        stored.erase("ranges");
        if (!stored.contains("trunk")) stored.erase("id");
    } else if (Sets(value, "id") || Sets(value, "ranges")) {
        stored.erase("trunk");
    }
}

// A list after the entries of {"add": …} have come to it, or those that {"remove": …} names have gone.
Json MergedList(const Policy &policy, const Json &stored, const Json &change)
{
    Json list = stored.is_null() ? Json::array() : stored;
    for (const Json &entry : change.value("add", Json::array())) {
        const Json canonical = CanonicalRecord(*policy.fields[0].layout, entry);
        if (!Contains(list, canonical)) list.push_back(canonical);
    }
    for (const Json &name : change.value("remove", Json::array()))
        std::erase_if(list.get_ref<Json::array_t &>(),
                      [&](const Json &entry) { return IsNamed(policy, entry, name); });
    return list.empty() ? Json() : list;
}

}

std::span<const Policy> Policies() { return POLICIES; }

std::vector<const Policy *> PoliciesOf(bool ports)
{
    std::vector<const Policy *> found;
    for (const Policy &policy : POLICIES) {
        if (policy.IsOfPort() == ports) found.push_back(&policy);
    }
    return found;
}

const Policy *FindPolicy(std::string_view name, bool ofPort)
{
    for (const Policy &policy : POLICIES) {
        if (name == policy.name && policy.IsOfPort() == ofPort) return &policy;
    }
    return nullptr;
}

const Policy &MirrorPolicy(const Target &target) { return *FindPolicy("mirror", !target.port.empty()); }

Json ReadPolicy(const Policy &policy, const Target &target)
{
    Json value;
    try {
        const VsStatus status = policy.read(target, value);
        if (status == STATUS_NOT_FOUND) return nullptr;
        Check(status, fmt::format("reading {} of", policy.name), target);
    } catch (const Error &error) {
        if (error.exit != Exit::FAILURE || !policy.CanClear()) throw;
        throw DamagedError(error, policy, target);
    }
    return Canonical(policy, value);
}

Json ReadStored(const Policy &policy, const Target &target)
{
    if (policy.hidesAbsence) {
        int32_t length = 0;
        const VsStatus status = NamedProperty{policy.level, target, policy.key}.Length(length);
        if (status == STATUS_NOT_FOUND) return nullptr;
        Check(status, fmt::format("reading {} of", policy.name), target);
    }
    return ReadPolicy(policy, target);
}

bool NeedsPublishedLayout(const Policy &policy, const Json &value)
{
    if (policy.layout) return NeedsLayout(*policy.layout, value);
    if (!policy.IsList()) return false;
    const Json entries = value.is_object() ? value.value("add", Json::array()) : value;
    return std::any_of(entries.begin(), entries.end(),
                       [&policy](const Json &entry) { return NeedsLayout(*policy.fields[0].layout, entry); });
}

void WriteEntries(const Policy &policy, const Target &target, const Json &change)
{
    const std::string action = fmt::format("changing {} of", policy.name);
    if (policy.add && change.contains("add")) return Check(policy.add(target, change["add"]), action, target);
    if (policy.remove && change.contains("remove"))
        return Check(policy.remove(target, change["remove"]), action, target);
    WritePolicy(policy, target, Merged(policy, ReadStored(policy, target), change));
}

void WritePolicy(const Policy &policy, const Target &target, const Json &value)
{
    if (!value.is_null()) {
        Check(policy.write(target, value), fmt::format("setting {} of", policy.name), target);
        return;
    }
    const VsStatus status = Clear(policy, target);
    if (status != STATUS_NOT_FOUND) Check(status, fmt::format("clearing {} of", policy.name), target);
}

std::optional<Violation> FindViolation(const Policy &policy, const Json &value, const std::string &pointer)
{
    if (policy.layout) return FindViolation(*policy.layout, value, pointer);
    if (policy.IsScalar()) return FindViolation(policy.fields[0], value, pointer);
    if (auto fault = FindViolation(policy.fields, value, pointer)) return fault;
    if (Sets(value, "trunk") && Sets(value, "ranges"))
        return Violation{pointer, "can have 'trunk' or 'ranges', not both"};
    return {};
}

Json Canonical(const Policy &policy, const Json &value)
{
    if (value.is_null()) return value;
    if (policy.layout) return CanonicalRecord(*policy.layout, value);
    return policy.IsScalar() ? Canonical(policy.fields[0], value) : Canonical(policy.fields, value);
}

Json CanonicalPart(const Policy &policy, const Json &value)
{
    if (policy.layout && !value.is_null()) return CanonicalRecordPart(*policy.layout, value);
    if (value.is_null() || policy.IsScalar()) return Canonical(policy, value);
    return CanonicalPart(policy.fields, value);
}

bool IsNamed(const Policy &policy, const Json &entry, const std::string &name)
{
    const bool isPrimary = entry.is_object() && entry.contains("primary") && entry["primary"].dump() == name;
    return isPrimary || EntryName(*policy.fields[0].layout, entry) == name;
}

Json Merged(const Policy &policy, const Json &stored, const Json &value)
{
    if (policy.initial && value.is_null()) return Json::parse(policy.initial);
    if (policy.IsList() && value.is_object()) return MergedList(policy, stored, value);
    if (value.is_null() || value.is_string() || policy.IsScalar()) return value;
    Json merged = stored.is_object() ? stored : Json::object();
    DropExcluded(merged, value);
    merged.update(value);
    for (const Field &field : policy.fields) {
        if (field.canBeNone && !Sets(merged, field.name)) merged.erase(field.name);
    }
    return Canonical(policy, merged);
}

Json Schema(const Policy &policy)
{
    Json schema = policy.layout       ? Schema(*policy.layout)
                  : policy.IsScalar() ? Schema(policy.fields[0])
                                      : Schema(policy.fields);
    schema["description"] = policy.help;
    return schema;
}

}
