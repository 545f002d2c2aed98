// Values of policies: what a value may be, how it reads on the command line and in a file.
#include "cli/base/value.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace vsctl {

namespace {

constexpr uint16_t MAX_VLAN = 4095;
constexpr size_t MAX_RANGES = UINT16_MAX;
constexpr size_t SESSION_ID_SIZE = sizeof MirrorSessionRecord::sessionId;
constexpr size_t SESSION_SETTINGS_SIZE = sizeof MirrorSessionRecord::settings;

bool IsHex(const Json &value, int64_t bytes)
{
    if (!value.is_string()) return false;
    const auto &text = value.get_ref<const std::string &>();
    return text.size() == 2 * static_cast<size_t>(bytes) &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::string BytesRule(int64_t bytes) { return fmt::format("must be {} bytes in hexadecimal digits", bytes); }

std::optional<Violation> FaultInEach(const Json &list, const std::string &pointer,
                                     bool (*valid)(const Json &, int64_t), int64_t bytes,
                                     const std::string &rule)
{
    if (!list.is_array()) return Violation{pointer, "must be a list; each entry " + rule};
    for (size_t i = 0; i < list.size(); i++) {
        if (!valid(list[i], bytes)) return Violation{fmt::format("{}/{}", pointer, i), rule};
    }
    return {};
}

bool IsText(const Json &value, int64_t min, int64_t max)
{
    if (!value.is_string()) return false;
    const auto &text = value.get_ref<const std::string &>();
    const auto size = static_cast<int64_t>(text.size());
    return size >= min && size <= max && text.find('\0') == std::string::npos;
}

bool IsName(const Json &value, int64_t bytes) { return IsText(value, 1, bytes); }

bool IsRange(const Json &value, int64_t)
{
    if (!value.is_string()) return false;
    const auto range = ParseVlanRange(value.get_ref<const std::string &>());
    return range && range->first <= range->last && range->last <= MAX_VLAN;
}

// What a mirror session consists of.
constexpr Field SESSION_FIELDS[] = {
    {"id", Form::TEXT, "the session's id", 1, SESSION_ID_SIZE},
    {"settings", Form::BYTES, "its other settings", 0, SESSION_SETTINGS_SIZE},
    {"entries-a", Form::BYTES_LIST, "port entries of its first kind", 0, sizeof(MirrorPortEntry), "", "[]"},
    {"entries-b", Form::BYTES_LIST, "port entries of its second kind", 0, sizeof(MirrorPortEntry), "", "[]"},
    {"entries-c", Form::BYTES_LIST, "port entries of its third kind", 0, sizeof(MirrorPortEntry), "", "[]"},
};

}

std::optional<Violation> FindViolation(std::span<const Field> fields, const Json &value,
                                       const std::string &pointer)
{
    if (!value.is_object()) return Violation{pointer, "must be a table"};
    for (const auto &[key, member] : value.items()) {
        const auto field = std::find_if(fields.begin(), fields.end(),
                                        [&key = key](const Field &f) { return key == f.name; });
        if (field == fields.end()) {
            std::vector<std::string_view> names;
            for (const Field &known : fields)
                names.emplace_back(known.name);
            return Violation{pointer + "/" + key, "is no known key; " + Suggest(key, names)};
        }
        if (auto fault = FindViolation(*field, member, pointer + "/" + key)) return fault;
    }
    return {};
}

namespace {

std::optional<Violation> FaultInSessions(const Json &value, const std::string &pointer)
{
    if (!value.is_array()) return Violation{pointer, "must be a list of mirror sessions"};
    for (size_t i = 0; i < value.size(); i++) {
        const std::string session = fmt::format("{}/{}", pointer, i);
        if (auto fault = FindViolation(SESSION_FIELDS, value[i], session)) return fault;
        if (!value[i].contains("id")) return Violation{session, "a mirror session needs an 'id'"};
    }
    return {};
}

// "a, b or c"
std::string Alternatives(const std::vector<std::string> &words)
{
    const std::span<const std::string> first(words.begin(), words.end() - 1);
    return fmt::format("{} or {}", fmt::join(first, ", "), words.back());
}

std::string Rule(const Field &field)
{
    switch (field.form) {
    case Form::BOOLEAN:
        return "must be true or false";
    case Form::NUMBER:
        return fmt::format("must be a number from {} to {}", field.min, field.max);
    case Form::CHOICE:
        return "must be " + Alternatives(Words(field.choices, '|'));
    case Form::TEXT:
        return fmt::format("must be a text of {} to {} bytes", field.min, field.max);
    case Form::BYTES:
        return BytesRule(field.max);
    case Form::RANGES:
        return "must be a VLAN or a range of VLANs from 0 to 4095, like \"100-199\"";
    case Form::BYTES_LIST:
        return BytesRule(field.max);
    case Form::NAMES:
        return fmt::format("must be a name of 1 to {} bytes", field.max);
    case Form::SESSIONS:
        return "";
    }
    return "";
}

bool IsValid(const Field &field, const Json &value)
{
    switch (field.form) {
    case Form::BOOLEAN:
        return value.is_boolean();
    case Form::NUMBER:
        return value.is_number_integer() && value.get<int64_t>() >= field.min &&
               value.get<int64_t>() <= field.max;
    case Form::CHOICE: {
        const auto words = Words(field.choices, '|');
        return value.is_string() &&
               std::find(words.begin(), words.end(), value.get<std::string>()) != words.end();
    }
    case Form::TEXT:
        return IsText(value, field.min, field.max);
    default:
        return IsHex(value, field.max);
    }
}

}

std::optional<Violation> FindViolation(const Field &field, const Json &value, const std::string &pointer)
{
    if (field.canBeNone && value == NONE) return {};
    switch (field.form) {
    case Form::RANGES:
        if (value.is_array() && (value.empty() || value.size() > MAX_RANGES))
            return Violation{pointer, fmt::format("must name 1 to {} VLANs or ranges", MAX_RANGES)};
        return FaultInEach(value, pointer, IsRange, 0, Rule(field));
    case Form::BYTES_LIST:
        return FaultInEach(value, pointer, IsHex, field.max, Rule(field));
    case Form::NAMES:
        return FaultInEach(value, pointer, IsName, field.max, Rule(field));
    case Form::SESSIONS:
        return FaultInSessions(value, pointer);
    default:
        break;
    }
    if (IsValid(field, value)) return {};
    return Violation{pointer, Rule(field) + (field.canBeNone ? ", or none" : "")};
}

void RequireName(const Field &rule, const std::string &name)
{
    if (auto fault = FindViolation(rule, name, ""))
        throw Error(Exit::BAD_VALUE,
                    fmt::format("{} {}, not '{}'", rule.help, fault->message, name.substr(0, 40)));
}

namespace {

Json WordToJson(const Field &field, const std::string &word)
{
    switch (field.form) {
    case Form::BOOLEAN:
        if (word == "on" || word == "true" || word == "yes") return true;
        if (word == "off" || word == "false" || word == "no") return false;
        return word;
    case Form::NUMBER: {
        int64_t number = 0;
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
        if (error != std::errc() || end != word.data() + word.size()) return word;
        return number;
    }
    case Form::RANGES:
    case Form::NAMES:
        return Words(word, ',');
    case Form::BYTES_LIST:
        return word.empty() ? Json::array() : Json(Words(word, ','));
    case Form::BYTES:
        return Hex(FromHex(word).data(), FromHex(word).size());
    case Form::SESSIONS: {
        const Json list = Json::parse(word, nullptr, false);
        return list.is_discarded() ? Json(word) : list;
    }
    default:
        return word;
    }
}

}

Json ParseWord(const Field &field, const std::string &word, const std::string &name)
{
    const Json value = field.canBeNone && word == NONE ? Json(word) : WordToJson(field, word);
    if (auto fault = FindViolation(field, value, "")) {
        const std::string what = !name.empty() ? name
                                 : *field.name ? "--" + std::string(field.name)
                                               : "the value";
        const std::string rule = field.form == Form::BOOLEAN ? "must be on or off" : fault->message;
        throw Error(Exit::BAD_VALUE, fmt::format("{} {}, not '{}'", what, rule, word.substr(0, 40)));
    }
    return value;
}

namespace {

Json BytesSchema(int64_t bytes)
{
    return {{"type", "string"}, {"pattern", fmt::format("^[0-9a-fA-F]{{{}}}$", 2 * bytes)}};
}

Json SessionsSchema()
{
    Json properties;
    for (const Field &field : SESSION_FIELDS)
        properties[field.name] = Schema(field);
    const Json session = {{"type", "object"},
                          {"properties", properties},
                          {"required", {"id"}},
                          {"additionalProperties", false}};
    return {{"type", "array"}, {"items", session}};
}

Json ValueSchema(const Field &field)
{
    switch (field.form) {
    case Form::BOOLEAN:
        return {{"type", "boolean"}};
    case Form::NUMBER:
        return {{"type", "integer"}, {"minimum", field.min}, {"maximum", field.max}};
    case Form::CHOICE:
        return {{"enum", Words(field.choices, '|')}};
    case Form::TEXT:
        return {{"type", "string"}, {"minLength", field.min}, {"maxLength", field.max}};
    case Form::BYTES:
        return BytesSchema(field.max);
    case Form::RANGES:
        return {{"type", "array"},
                {"minItems", 1},
                {"maxItems", MAX_RANGES},
                {"items", {{"type", "string"}, {"pattern", "^[0-9]{1,4}(-[0-9]{1,4})?$"}}}};
    case Form::BYTES_LIST:
        return {{"type", "array"}, {"items", BytesSchema(field.max)}};
    case Form::NAMES:
        return {{"type", "array"},
                {"items", {{"type", "string"}, {"minLength", 1}, {"maxLength", field.max}}}};
    case Form::SESSIONS:
        return SessionsSchema();
    }
    return {};
}

}

Json Schema(const Field &field)
{
    Json schema = ValueSchema(field);
    if (field.canBeNone) schema = {{"anyOf", {schema, {{"const", NONE}}}}};
    schema["description"] = field.help;
    if (field.defaultText) schema["default"] = Json::parse(field.defaultText);
    return schema;
}

namespace {

template<class Change> Json ForEach(const Json &list, Change change)
{
    Json changed = Json::array();
    for (const Json &entry : list)
        changed.push_back(change(entry));
    return changed;
}

Json CanonicalBytes(const Json &value)
{
    const Bytes bytes = FromHex(value.get_ref<const std::string &>());
    return Hex(bytes.data(), bytes.size());
}

Json CanonicalRange(const Json &value)
{
    return VlanRangeText(*ParseVlanRange(value.get_ref<const std::string &>()));
}

Json CanonicalSession(const Json &value)
{
    Json session = value;
    if (!session.contains("settings")) session["settings"] = std::string(2 * SESSION_SETTINGS_SIZE, '0');
    return Canonical(SESSION_FIELDS, session);
}

}

Json Canonical(const Field &field, const Json &value)
{
    if (field.canBeNone && value == NONE) return value;
    switch (field.form) {
    case Form::BYTES:
        return CanonicalBytes(value);
    case Form::BYTES_LIST:
        return ForEach(value, CanonicalBytes);
    case Form::RANGES:
        return ForEach(value, CanonicalRange);
    case Form::SESSIONS:
        return ForEach(value, CanonicalSession);
    default:
        return value;
    }
}

Json CanonicalPart(std::span<const Field> fields, const Json &value)
{
    Json part = Json::object();
    for (const Field &field : fields) {
        if (value.contains(field.name)) part[field.name] = Canonical(field, value[field.name]);
    }
    return part;
}

Json Canonical(std::span<const Field> fields, const Json &value)
{
    Json complete = Json::object();
    for (const Field &field : fields) {
        if (value.contains(field.name))
            complete[field.name] = Canonical(field, value[field.name]);
        else if (field.defaultText)
            complete[field.name] = Json::parse(field.defaultText);
    }
    return complete;
}

std::vector<std::string> Words(std::string_view text, char separator)
{
    std::vector<std::string> words;
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find(separator, start), text.size());
        words.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    return words;
}

std::optional<VLANRange> ParseVlanRange(std::string_view text)
{
    VLANRange range{};
    uint16_t first = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), first);
    uint16_t last = first;
    const char *const stop = text.data() + text.size();
    if (error == std::errc() && end != stop && *end == '-') {
        const auto second = std::from_chars(end + 1, stop, last);
        end = second.ptr;
        error = second.ec;
    }
    if (error != std::errc() || end != stop) return {};
    range.first = first;
    range.last = last;
    return range;
}

std::string VlanRangeText(const VLANRange &range)
{
    const uint16_t first = range.first;
    const uint16_t last = range.last;
    return first == last ? fmt::format("{}", first) : fmt::format("{}-{}", first, last);
}

uint32_t ChoiceIndex(const Field &field, const std::string &word)
{
    const auto words = Words(field.choices, '|');
    return static_cast<uint32_t>(std::find(words.begin(), words.end(), word) - words.begin());
}

}
