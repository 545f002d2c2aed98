// The layouts of the records of policies.
#include "cli/base/records.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <vswitch_policy.h>

namespace vsctl {

namespace {

#define PLACE(Record, member)                                                                                \
    {                                                                                                        \
        offsetof(Record, member), sizeof(Record::member)                                                     \
    }

uint32_t LoadNumber(const Place &place, const uint8_t *record)
{
    uint32_t number = 0;
    memcpy(&number, record + place.offset, place.width);
    return number;
}

// A number that is not a valid value of its field stays a number.
Json DecodeField(const Field &field, const Place &place, const uint8_t *record)
{
    if (field.form == Form::TEXT)
        return Name(reinterpret_cast<const char *>(record + place.offset), place.width);
    const uint32_t number = LoadNumber(place, record);
    if (field.form == Form::BOOLEAN) return (number & place.bits) != 0;
    const auto words = Words(field.choices, "|");
    return field.form == Form::CHOICE && number < words.size() ? Json(words[number]) : Json(number);
}

void EncodeField(const Field &field, const Place &place, const Json &value, uint8_t *record)
{
    if (field.form == Form::TEXT) {
        const auto &text = value.get_ref<const std::string &>();
        return void(memcpy(record + place.offset, text.data(), std::min(text.size(), place.width)));
    }
    uint32_t number = LoadNumber(place, record); // which other flags may share
    if (field.form == Form::BOOLEAN)
        number |= value.get<bool>() ? place.bits : 0;
    else
        number = field.form == Form::CHOICE ? ChoiceIndex(field, value) : value.get<uint32_t>();
    memcpy(record + place.offset, &number, place.width);
}

Json DecodeRecord(const Layout &layout, const uint8_t *record)
{
    Json fields = Json::object();
    for (size_t i = 0; i < layout.fields.size(); i++) {
        const Field &field = layout.fields[i];
        const Place &place = layout.places[i];
        fields[field.name] =
            place.width ? DecodeField(field, place, record) : layout.decodeList(field, record + layout.base);
    }
    return fields;
}

void EncodeRecord(const Layout &layout, const Json &fields, uint8_t *record)
{
    if (layout.version) memcpy(record + layout.base, &layout.version, sizeof layout.version);
    for (size_t i = 0; i < layout.fields.size(); i++) {
        const Field &field = layout.fields[i];
        if (layout.places[i].width) EncodeField(field, layout.places[i], fields[field.name], record);
    }
    if (layout.encodeLists) layout.encodeLists(fields, record + layout.base);
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
constexpr Place TEAMING_PLACES[] = {PLACE(VSwitchTeamingPolicy, algorithm),
                                    {},
                                    {},
                                    PLACE(VSwitchTeamingPolicy, failBack),
                                    PLACE(VSwitchTeamingPolicy, notify)};
constexpr Place NAMED_TEAMING_PLACES[] = {PLACE(VSwitchNamedTeaming, name),
                                          PLACE(VSwitchNamedTeaming, policy.algorithm),
                                          {},
                                          {},
                                          PLACE(VSwitchNamedTeaming, policy.failBack),
                                          PLACE(VSwitchNamedTeaming, policy.notify)};

// A policy that counts more uplinks than it can hold has none here, and so is shown by its bytes.
Json DecodeUplinks(const Field &field, const uint8_t *bytes)
{
    const auto policy = Load<VSwitchTeamingPolicy>(bytes);
    Json active = Json::array(), standby = Json::array();
    const uint64_t count = uint64_t{policy.activeCount} + policy.standbyCount;
    for (size_t i = 0; count <= VSWITCH_TEAMING_UPLINKS && i < count; i++)
        (i < policy.activeCount ? active : standby).push_back(Name(policy.uplinks[i], UPLINK_SIZE));
    return std::string_view(field.name) == "active" ? active : standby;
}

void EncodeUplinks(const Json &fields, uint8_t *bytes)
{
    auto policy = Load<VSwitchTeamingPolicy>(bytes);
    policy.activeCount = static_cast<uint32_t>(fields["active"].size());
    policy.standbyCount = static_cast<uint32_t>(fields["standby"].size());
    size_t next = 0;
    for (const char *list : {"active", "standby"}) {
        for (const Json &name : fields[list])
            name.get_ref<const std::string &>().copy(policy.uplinks[next++], UPLINK_SIZE);
    }
    memcpy(bytes, &policy, sizeof policy);
}

std::string FindTeamingFault(const Json &fields)
{
    const size_t count = fields.value("active", Json()).size() + fields.value("standby", Json()).size();
    return count <= VSWITCH_TEAMING_UPLINKS
               ? ""
               : fmt::format("can have {} uplinks, not {}", VSWITCH_TEAMING_UPLINKS, count);
}

// ---- Private VLANs ----

constexpr Field PRIVATE_VLAN_FIELDS[] = {
    {"primary", Form::NUMBER, "VLAN id of the private VLAN", 1, 4094},
    {"secondary", Form::NUMBER, "VLAN id of its ports that have this role", 1, 4094},
    {"type", Form::CHOICE, "What these ports may reach", 0, 0, "promiscuous|isolated|community"},
};

constexpr Place PRIVATE_VLAN_PLACES[] = {PLACE(VSwitchPvlanEntry, primary),
                                         PLACE(VSwitchPvlanEntry, secondary), PLACE(VSwitchPvlanEntry, type)};

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
constexpr Place SECURITY_PLACES[] = {{0, sizeof(uint32_t), VSWITCH_SECURITY_ADDRESSED_ONLY},
                                     {0, sizeof(uint32_t), VSWITCH_SECURITY_ADDRESS_LOCK},
                                     {0, sizeof(uint32_t), VSWITCH_SECURITY_STATIC_ONLY}};

// ---- Ethernet filter ----

constexpr const char *ACTIONS[] = {"pass", "drop"};
constexpr const char *DIRECTIONS[] = {"", "from-port", "to-port"};

constexpr Field FILTER_FIELDS[] = {
    {"rules", Form::RULES, "Rules, of which the first that matches decides, like \"drop to-port 0x0806\"", 0,
     VSWITCH_FILTER_RULES, "", "[]"},
    {"sink", Form::BOOLEAN, "Whether the port gets unicast to unknown addresses", 0, 0, "", "false"},
};

constexpr Place FILTER_PLACES[] = {{},
                                   {offsetof(VSwitchFilter, flags), sizeof(uint32_t), VSWITCH_FILTER_SINK}};

Json DecodeRules(const Field &, const uint8_t *bytes)
{
    const auto filter = Load<VSwitchFilter>(bytes);
    Json rules = Json::array();
    for (size_t i = 0; i < std::min<size_t>(filter.ruleCount, VSWITCH_FILTER_RULES); i++)
        rules.push_back(
            FilterRuleText({filter.rules[i].etherType, filter.rules[i].direction, filter.rules[i].action}));
    return rules;
}

void EncodeRules(const Json &fields, uint8_t *bytes)
{
    auto filter = Load<VSwitchFilter>(bytes);
    for (const Json &text : fields["rules"]) {
        const FilterRule rule = ParseFilterRule(text).value_or(FilterRule{});
        filter.rules[filter.ruleCount++] = {rule.etherType, rule.direction, rule.action, 0};
    }
    memcpy(bytes, &filter, sizeof filter);
}

// ---- MAC learning ----

constexpr Field PORT_LEARNING_FIELDS[] = {
    {"learning", Form::BOOLEAN, "Whether the port learns addresses", 0, 0, "", "false"},
    {"flood", Form::BOOLEAN, "Whether the port gets unicast to unknown addresses", 0, 0, "", "false"},
    {"limit", Form::NUMBER, "Addresses that the port learns", 0, UINT32_MAX, "", "4096"},
    {"at-limit", Form::CHOICE, "What happens to frames from further addresses", 0, 0, "drop|forward",
     "\"drop\""},
};

constexpr Place PORT_LEARNING_PLACES[] = {
    PLACE(PortMACLearningConfig, portFlagA), PLACE(PortMACLearningConfig, portFlagB),
    PLACE(PortMACLearningConfig, portValueA), PLACE(PortMACLearningConfig, portValueB)};

constexpr Field SWITCH_LEARNING_FIELDS[] = {
    {"aging", Form::NUMBER, "Seconds until an address is forgotten (0: never)", 0, 1000000, "", "600"},
    {"limit", Form::NUMBER, "Addresses that the ports learn together", 0, UINT32_MAX, "", "65536"},
    {"policy-byte", Form::NUMBER, "A byte that is kept and has no effect", 0, 255, "", "0"},
};

constexpr Place SWITCH_LEARNING_PLACES[] = {PLACE(SwitchMACLearningRecord, switchValueA),
                                            PLACE(SwitchMACLearningRecord, switchValueB),
                                            PLACE(SwitchMACLearningRecord, switchByte)};

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

constexpr Place SETTINGS_PLACES[] = {
    PLACE(VSwitchMirrorSettings, enabled), PLACE(VSwitchMirrorSettings, stripTag),
    PLACE(VSwitchMirrorSettings, outerVlan), PLACE(VSwitchMirrorSettings, snapLength),
    PLACE(VSwitchMirrorSettings, sampling)};

}

constinit const Layout TEAMING{
    TEAMING_FIELDS, TEAMING_PLACES,  sizeof(VSwitchTeamingPolicy), VSWITCH_TEAMING_VERSION, 0, DecodeUplinks,
    EncodeUplinks,  FindTeamingFault};
constinit const Layout NAMED_TEAMING{NAMED_TEAMING_FIELDS,
                                     NAMED_TEAMING_PLACES,
                                     sizeof(VSwitchNamedTeaming),
                                     VSWITCH_TEAMING_VERSION,
                                     offsetof(VSwitchNamedTeaming, policy),
                                     DecodeUplinks,
                                     EncodeUplinks,
                                     FindTeamingFault,
                                     "name"};
constinit const Layout PRIVATE_VLAN{
    PRIVATE_VLAN_FIELDS,  PRIVATE_VLAN_PLACES, sizeof(VSwitchPvlanEntry), 0, 0, nullptr, nullptr,
    FindPrivateVlanFault, "secondary"};
constinit const Layout SECURITY{SECURITY_FIELDS, SECURITY_PLACES, sizeof(uint32_t)};
constinit const Layout ETHERNET_FILTER{FILTER_FIELDS, FILTER_PLACES, sizeof(VSwitchFilter), 0, 0,
                                       DecodeRules,   EncodeRules};
constinit const Layout PORT_LEARNING{PORT_LEARNING_FIELDS, PORT_LEARNING_PLACES,
                                     sizeof(PortMACLearningConfig)};
constinit const Layout SWITCH_LEARNING{SWITCH_LEARNING_FIELDS, SWITCH_LEARNING_PLACES,
                                       sizeof(SwitchMACLearningRecord)};
constinit const Layout MIRROR_SESSION{std::span(SESSION_FIELDS).subspan(BESIDE),
                                      SETTINGS_PLACES,
                                      sizeof(VSwitchMirrorSettings),
                                      VSWITCH_MIRROR_VERSION,
                                      0,
                                      nullptr,
                                      nullptr,
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
        Json fields = DecodeRecord(layout, record);
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
    EncodeRecord(layout, Canonical(layout.fields, value), bytes.data());
    return bytes;
}

}
