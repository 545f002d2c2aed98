// The layouts of the records of policies.
#include "cli/base/records.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <vswitch_policy.h>

namespace vsctl {

namespace {

template<class Record> Record Load(const uint8_t *bytes)
{
    Record record;
    memcpy(&record, bytes, sizeof record);
    return record;
}

template<class Record> void Store(const Record &record, uint8_t *bytes)
{
    memcpy(bytes, &record, sizeof record);
}

template<size_t SIZE> void StoreName(const Json &name, char (&field)[SIZE])
{
    name.get_ref<const std::string &>().copy(field, SIZE);
}

// The choice with this number; a number without one stays a number, which is not a valid choice.
Json ChoiceOf(const Field &field, uint32_t number)
{
    const auto words = Words(field.choices, "|");
    return number < words.size() ? Json(words[number]) : Json(number);
}

uint32_t NumberOf(const Field &field, const Json &choice)
{
    return ChoiceIndex(field, choice.get_ref<const std::string &>());
}

// ---- Teaming ----

constexpr size_t UPLINK_SIZE = sizeof VSwitchTeamingPolicy::uplinks[0];

constexpr Field NAMED_TEAMING_FIELDS[] = {
    {"name", Form::TEXT, "Name of the policy", 1, sizeof VSwitchNamedTeaming::name - 1},
    {"algorithm", Form::CHOICE, "How a port finds its uplink among the active ones", 0, 0,
     "port|source-mac|ip|l4|order", "\"port\""},
    {"active", Form::NAMES, "Uplinks that are used while one of them works", 0, UPLINK_SIZE - 1, "", "[]"},
    {"standby", Form::NAMES, "Uplinks that are used then, in their order", 0, UPLINK_SIZE - 1, "", "[]"},
    {"failback", Form::BOOLEAN, "Whether traffic returns to an uplink that works again", 0, 0, "", "false"},
    {"notify", Form::BOOLEAN, "Whether RARP frames tell the network of a change of uplink", 0, 0, "",
     "false"},
};
constexpr std::span<const Field> TEAMING_FIELDS = std::span(NAMED_TEAMING_FIELDS).subspan(1);
constexpr const Field &ALGORITHM = TEAMING_FIELDS[0];

// A policy that counts more uplinks than it can hold has none here, and so is shown by its bytes.
Json DecodeTeaming(const uint8_t *bytes)
{
    const auto policy = Load<VSwitchTeamingPolicy>(bytes);
    std::vector<std::string> active, standby;
    const uint64_t count = uint64_t{policy.activeCount} + policy.standbyCount;
    for (size_t i = 0; count <= VSWITCH_TEAMING_UPLINKS && i < count; i++)
        (i < policy.activeCount ? active : standby).push_back(Name(policy.uplinks[i], UPLINK_SIZE));
    return {{"algorithm", ChoiceOf(ALGORITHM, policy.algorithm)},
            {"active", active},
            {"standby", standby},
            {"failback", policy.failBack != 0},
            {"notify", policy.notify != 0}};
}

void EncodeTeaming(const Json &fields, uint8_t *bytes)
{
    VSwitchTeamingPolicy policy{};
    policy.version = VSWITCH_TEAMING_VERSION;
    policy.algorithm = NumberOf(ALGORITHM, fields["algorithm"]);
    policy.failBack = fields["failback"].get<bool>();
    policy.notify = fields["notify"].get<bool>();
    policy.activeCount = static_cast<uint32_t>(fields["active"].size());
    policy.standbyCount = static_cast<uint32_t>(fields["standby"].size());
    size_t next = 0;
    for (const char *list : {"active", "standby"}) {
        for (const Json &name : fields[list])
            StoreName(name, policy.uplinks[next++]);
    }
    Store(policy, bytes);
}

std::string FindTeamingFault(const Json &fields)
{
    const size_t count = fields.value("active", Json()).size() + fields.value("standby", Json()).size();
    return count <= VSWITCH_TEAMING_UPLINKS
               ? ""
               : fmt::format("can have {} uplinks, not {}", VSWITCH_TEAMING_UPLINKS, count);
}

Json DecodeNamedTeaming(const uint8_t *bytes)
{
    Json fields = {{"name", Name(reinterpret_cast<const char *>(bytes), sizeof VSwitchNamedTeaming::name)}};
    fields.update(DecodeTeaming(bytes + offsetof(VSwitchNamedTeaming, policy)));
    return fields;
}

void EncodeNamedTeaming(const Json &fields, uint8_t *bytes)
{
    VSwitchNamedTeaming named{};
    StoreName(fields["name"], named.name);
    EncodeTeaming(fields, reinterpret_cast<uint8_t *>(&named.policy));
    Store(named, bytes);
}

// ---- Private VLANs ----

constexpr Field PRIVATE_VLAN_FIELDS[] = {
    {"primary", Form::NUMBER, "VLAN id of the private VLAN", 1, 4094},
    {"secondary", Form::NUMBER, "VLAN id of its ports that have this role", 1, 4094},
    {"type", Form::CHOICE, "What these ports may reach", 0, 0, "promiscuous|isolated|community"},
};

Json DecodePrivateVlan(const uint8_t *bytes)
{
    const auto entry = Load<VSwitchPvlanEntry>(bytes);
    const uint16_t primary = entry.primary, secondary = entry.secondary;
    return {{"primary", primary},
            {"secondary", secondary},
            {"type", ChoiceOf(PRIVATE_VLAN_FIELDS[2], entry.type)}};
}

void EncodePrivateVlan(const Json &fields, uint8_t *bytes)
{
    VSwitchPvlanEntry entry{};
    entry.primary = fields["primary"];
    entry.secondary = fields["secondary"];
    entry.type = static_cast<uint8_t>(NumberOf(PRIVATE_VLAN_FIELDS[2], fields["type"]));
    Store(entry, bytes);
}

std::string FindPrivateVlanFault(const Json &fields)
{
    for (const Field &field : PRIVATE_VLAN_FIELDS) {
        if (!fields.contains(field.name)) return fmt::format("must have a '{}'", field.name);
    }
    const bool isOwn = fields["primary"] == fields["secondary"];
    if (isOwn == (fields["type"] == "promiscuous")) return "";
    return isOwn ? "can only be promiscuous in its own primary VLAN"
                 : "can only be promiscuous in the primary VLAN itself";
}

// ---- Security ----

constexpr Field SECURITY_FIELDS[] = {
    {"addressed-only", Form::BOOLEAN, "Whether the port gets only frames that are addressed to it", 0, 0, "",
     "true"},
    {"lock-address", Form::BOOLEAN, "Whether the port may only send from the first address that it has used",
     0, 0, "", "false"},
    {"static-only", Form::BOOLEAN, "Whether the port may only send from its static addresses", 0, 0, "",
     "false"},
};
constexpr uint32_t SECURITY_BITS[] = {VSWITCH_SECURITY_ADDRESSED_ONLY, VSWITCH_SECURITY_ADDRESS_LOCK,
                                      VSWITCH_SECURITY_STATIC_ONLY};
static_assert(std::size(SECURITY_FIELDS) == std::size(SECURITY_BITS));

Json DecodeSecurity(const uint8_t *bytes)
{
    const auto flags = Load<uint32_t>(bytes);
    Json fields;
    for (size_t i = 0; i < std::size(SECURITY_BITS); i++)
        fields[SECURITY_FIELDS[i].name] = (flags & SECURITY_BITS[i]) != 0;
    return fields;
}

void EncodeSecurity(const Json &fields, uint8_t *bytes)
{
    uint32_t flags = 0;
    for (size_t i = 0; i < std::size(SECURITY_BITS); i++) {
        if (fields[SECURITY_FIELDS[i].name].get<bool>()) flags |= SECURITY_BITS[i];
    }
    Store(flags, bytes);
}

// ---- Ethernet filter ----

constexpr const char *ACTIONS[] = {"pass", "drop"};
constexpr const char *DIRECTIONS[] = {"", "from-port", "to-port"};

constexpr Field FILTER_FIELDS[] = {
    {"rules", Form::RULES, "Rules, of which the first that matches decides, like \"drop to-port 0x0806\"", 0,
     VSWITCH_FILTER_RULES, "", "[]"},
    {"sink", Form::BOOLEAN, "Whether the port gets unicast to unknown addresses", 0, 0, "", "false"},
};

Json DecodeFilter(const uint8_t *bytes)
{
    const auto filter = Load<VSwitchFilter>(bytes);
    Json rules = Json::array();
    for (size_t i = 0; i < std::min<size_t>(filter.ruleCount, VSWITCH_FILTER_RULES); i++)
        rules.push_back(
            FilterRuleText({filter.rules[i].etherType, filter.rules[i].direction, filter.rules[i].action}));
    return {{"rules", rules}, {"sink", (filter.flags & VSWITCH_FILTER_SINK) != 0}};
}

void EncodeFilter(const Json &fields, uint8_t *bytes)
{
    VSwitchFilter filter{};
    if (fields["sink"]) filter.flags = VSWITCH_FILTER_SINK;
    for (const Json &text : fields["rules"]) {
        const FilterRule rule = ParseFilterRule(text).value_or(FilterRule{});
        filter.rules[filter.ruleCount++] = {rule.etherType, rule.direction, rule.action, 0};
    }
    Store(filter, bytes);
}

// ---- MAC learning ----

constexpr Field PORT_LEARNING_FIELDS[] = {
    {"learning", Form::BOOLEAN, "Whether the port learns addresses", 0, 0, "", "false"},
    {"flood", Form::BOOLEAN, "Whether the port gets unicast to unknown addresses", 0, 0, "", "false"},
    {"limit", Form::NUMBER, "Addresses that the port learns", 0, UINT32_MAX, "", "4096"},
    {"at-limit", Form::CHOICE, "What happens to frames from further addresses", 0, 0, "drop|forward",
     "\"drop\""},
};

Json DecodePortLearning(const uint8_t *bytes)
{
    const auto config = Load<PortMACLearningConfig>(bytes);
    const uint32_t limit = config.portValueA, atLimit = config.portValueB;
    return {{"learning", config.portFlagA != 0},
            {"flood", config.portFlagB != 0},
            {"limit", limit},
            {"at-limit", ChoiceOf(PORT_LEARNING_FIELDS[3], atLimit)}};
}

void EncodePortLearning(const Json &fields, uint8_t *bytes)
{
    Store(PortMACLearningConfig{fields["learning"].get<bool>(), fields["flood"].get<bool>(), fields["limit"],
                                NumberOf(PORT_LEARNING_FIELDS[3], fields["at-limit"])},
          bytes);
}

constexpr Field SWITCH_LEARNING_FIELDS[] = {
    {"aging", Form::NUMBER, "Seconds until an address is forgotten (0: never)", 0, 1000000, "", "600"},
    {"limit", Form::NUMBER, "Addresses that the ports learn together", 0, UINT32_MAX, "", "65536"},
    {"policy-byte", Form::NUMBER, "A byte that is kept and has no effect", 0, 255, "", "0"},
};

Json DecodeSwitchLearning(const uint8_t *bytes)
{
    const auto record = Load<SwitchMACLearningRecord>(bytes);
    uint32_t aging = 0;
    memcpy(&aging, record.switchValueA, sizeof record.switchValueA);
    const uint32_t limit = record.switchValueB;
    return {{"aging", aging}, {"limit", limit}, {"policy-byte", record.switchByte}};
}

void EncodeSwitchLearning(const Json &fields, uint8_t *bytes)
{
    SwitchMACLearningRecord record{{}, fields["policy-byte"], fields["limit"]};
    const uint32_t aging = fields["aging"];
    memcpy(record.switchValueA, &aging, sizeof record.switchValueA);
    Store(record, bytes);
}

// ---- Mirror sessions ----

constexpr Field SESSION_FIELDS[] = {
    {"settings", Form::BYTES, "Its other settings, instead of the fields below", 0,
     sizeof MirrorSessionRecord::settings},
    {"session", Form::TEXT, "Name of the session", 1, sizeof MirrorSessionRecord::sessionId},
    {"from", Form::ENTRIES, "Ports whose frames are copied, those that they send", 0, sizeof(MirrorPortEntry),
     "", "[]"},
    {"received-by", Form::ENTRIES, "Ports whose frames are copied, those that they get", 0,
     sizeof(MirrorPortEntry), "", "[]"},
    {"to", Form::ENTRIES, "Ports that get the copies", 0, sizeof(MirrorPortEntry), "", "[]"},
    {"enabled", Form::BOOLEAN, "Whether anything is copied", 0, 0, "", "true"},
    {"strip-tag", Form::BOOLEAN, "Whether copies lose their VLAN tag", 0, 0, "", "false"},
    {"outer-vlan", Form::NUMBER, "VLAN id of a tag around each copy (0: none)", 0, 4094, "", "0"},
    {"snap", Form::NUMBER, "Bytes of each copy (0: all)", 0, UINT32_MAX, "", "0"},
    {"sampling", Form::NUMBER, "Every n-th frame is copied", 0, UINT32_MAX, "", "1"},
};
constexpr size_t BESIDE = 5; // fields that are not in the settings

Json DecodeSettings(const uint8_t *bytes)
{
    const auto settings = Load<VSwitchMirrorSettings>(bytes);
    const uint16_t outerVlan = settings.outerVlan;
    const uint32_t snap = settings.snapLength, sampling = settings.sampling;
    return {{"enabled", settings.enabled != 0},
            {"strip-tag", settings.stripTag != 0},
            {"outer-vlan", outerVlan},
            {"snap", snap},
            {"sampling", sampling}};
}

void EncodeSettings(const Json &fields, uint8_t *bytes)
{
    VSwitchMirrorSettings settings{};
    settings.version = VSWITCH_MIRROR_VERSION;
    settings.enabled = fields["enabled"].get<bool>();
    settings.stripTag = fields["strip-tag"].get<bool>();
    settings.outerVlan = fields["outer-vlan"];
    settings.snapLength = fields["snap"];
    settings.sampling = fields["sampling"];
    Store(settings, bytes);
}

}

constinit const Layout TEAMING{TEAMING_FIELDS, sizeof(VSwitchTeamingPolicy), DecodeTeaming, EncodeTeaming,
                               FindTeamingFault};
constinit const Layout NAMED_TEAMING{NAMED_TEAMING_FIELDS, sizeof(VSwitchNamedTeaming),
                                     DecodeNamedTeaming,   EncodeNamedTeaming,
                                     FindTeamingFault,     "name"};
constinit const Layout PRIVATE_VLAN{PRIVATE_VLAN_FIELDS, sizeof(VSwitchPvlanEntry), DecodePrivateVlan,
                                    EncodePrivateVlan,   FindPrivateVlanFault,      "secondary"};
constinit const Layout SECURITY{SECURITY_FIELDS, sizeof(uint32_t), DecodeSecurity, EncodeSecurity};
constinit const Layout ETHERNET_FILTER{FILTER_FIELDS, sizeof(VSwitchFilter), DecodeFilter, EncodeFilter};
constinit const Layout PORT_LEARNING{PORT_LEARNING_FIELDS, sizeof(PortMACLearningConfig), DecodePortLearning,
                                     EncodePortLearning};
constinit const Layout SWITCH_LEARNING{SWITCH_LEARNING_FIELDS, sizeof(SwitchMACLearningRecord),
                                       DecodeSwitchLearning, EncodeSwitchLearning};
constinit const Layout MIRROR_SESSION{std::span(SESSION_FIELDS).subspan(BESIDE),
                                      sizeof(VSwitchMirrorSettings),
                                      DecodeSettings,
                                      EncodeSettings,
                                      nullptr,
                                      "session",
                                      std::span(SESSION_FIELDS).first(BESIDE)};

std::optional<FilterRule> ParseFilterRule(const std::string &text)
{
    const auto words = Words(text, " ");
    if (words.size() < 2 || words.size() > 3) return {};
    const auto action = std::find(std::begin(ACTIONS), std::end(ACTIONS), words[0]);
    const auto direction = words.size() == 3 ? std::find(DIRECTIONS + 1, std::end(DIRECTIONS), words[1])
                                             : std::begin(DIRECTIONS);
    if (action == std::end(ACTIONS) || direction == std::end(DIRECTIONS)) return {};
    FilterRule rule{0, static_cast<uint8_t>(direction - DIRECTIONS), static_cast<uint8_t>(action - ACTIONS)};
    const std::string &type = words.back();
    if (type == "any") return rule;
    const char *const end = type.data() + type.size();
    const bool isWhole =
        type.starts_with("0x") && std::from_chars(type.data() + 2, end, rule.etherType, 16).ptr == end;
    return isWhole && rule.etherType ? std::optional(rule) : std::nullopt;
}

// A direction or action that has no name makes a text that is not a rule.
std::string FilterRuleText(const FilterRule &rule)
{
    const auto name = [](auto &names, size_t number) {
        return number < std::size(names) ? std::string(names[number]) : fmt::format("{}", number);
    };
    const std::string direction = name(DIRECTIONS, rule.direction);
    return fmt::format("{} {}{}{}", name(ACTIONS, rule.action), direction, direction.empty() ? "" : " ",
                       rule.etherType ? fmt::format("0x{:04x}", rule.etherType) : "any");
}

Json RecordToJson(const Layout &layout, const void *bytes)
{
    const auto *record = static_cast<const uint8_t *>(bytes);
    if (IsEmbedded()) {
        Json fields = layout.decode(record);
        const bool isSound = !FindViolation(layout.fields, fields, "") &&
                             (!layout.findFault || layout.findFault(fields).empty());
        if (isSound) {
            const Bytes again = RecordFromJson(layout, fields);
            if (memcmp(again.data(), record, layout.size) == 0) return fields;
        }
    }
    return Hex(record, layout.size);
}

Bytes RecordFromJson(const Layout &layout, const Json &value)
{
    if (value.is_string()) return FromHex(value.get_ref<const std::string &>());
    Bytes bytes(layout.size);
    layout.encode(Canonical(layout.fields, value), bytes.data());
    return bytes;
}

}
