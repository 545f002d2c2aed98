// Values of policies: which are valid, and how the command line and files write them.
#include "cli/base/value.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <vswitch_policy.h>

#include "cli/base/records.h"
#include "frontend/document.h"

namespace vsctl {

namespace {

constexpr uint16_t MAX_VLAN = 4095;

// ---- Which values, or entries of a list, are valid ----

bool IsNumber(const Field &field, const Json &value)
{
    return value.is_number_integer() && value.get<int64_t>() >= field.min &&
           value.get<int64_t>() <= field.max;
}

bool IsChoice(const Field &field, const Json &value)
{
    return value.is_string() && Contains(Words(field.choices, "|"), value.get_ref<const std::string &>());
}

bool IsText(const Json &value, int64_t min, int64_t max)
{
    if (!value.is_string()) return false;
    const auto &text = value.get_ref<const std::string &>();
    const auto size = static_cast<int64_t>(text.size());
    return size >= min && size <= max && text.find('\0') == std::string::npos;
}

bool IsHex(const Field &field, const Json &value)
{
    if (!value.is_string()) return false;
    const auto &text = value.get_ref<const std::string &>();
    return text.size() == 2 * static_cast<size_t>(field.max) &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

bool IsRange(const Field &, const Json &value)
{
    if (!value.is_string()) return false;
    const auto range = ParseVlanRange(value.get_ref<const std::string &>());
    return range && range->first <= range->last && range->last <= MAX_VLAN;
}

// The name of a port, a number behind "#", or a whole entry in hexadecimal.
bool IsPortEntry(const Field &field, const Json &value)
{
    if (!IsText(value, 1, 2 * field.max)) return false;
    const auto &text = value.get_ref<const std::string &>();
    return PortEntryNumber(text) || text.size() < DV_PORT_ID_SIZE || IsHex(field, value);
}

// "a, b or c"
std::string Alternatives(const std::vector<std::string> &words)
{
    const std::span<const std::string> first(words.begin(), words.end() - 1);
    return fmt::format("{} or {}", fmt::join(first, ", "), words.back());
}

std::string BytesRule(const Field &field)
{
    return fmt::format("must be {} bytes in hexadecimal digits", field.max);
}

// ---- JSON schemas ----

Json TextSchema(int64_t min, int64_t max)
{
    return {{"type", "string"}, {"minLength", min}, {"maxLength", max}};
}

Json BytesSchema(const Field &field)
{
    return {{"type", "string"}, {"pattern", fmt::format("^[0-9a-fA-F]{{{}}}$", 2 * field.max)}};
}

// ---- Words of the command line: a word that is not a value stays a text, which is then refused ----

Json SameText(const std::string &word) { return word; }

Json FlagOf(const std::string &word)
{
    if (word == "on" || word == "true" || word == "yes") return true;
    if (word == "off" || word == "false" || word == "no") return false;
    return word;
}

Json NumberOf(const std::string &word)
{
    int64_t number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || end != word.data() + word.size()) return word;
    return number;
}

Json BytesOf(const std::string &word)
{
    const Bytes bytes = FromHex(word);
    return Hex(bytes.data(), bytes.size());
}

Json ListOf(const std::string &word) { return word.empty() ? Json::array() : Json(Words(word, ",")); }

Json SameTexts(const std::string &word) { return Json::array({word}); }

Json RangesOf(const std::string &word) { return Words(word, ","); }

// ---- The form in which a value is read back ----

Json Same(const Json &value) { return value; }

Json CanonicalBytes(const Json &value) { return BytesOf(value.get_ref<const std::string &>()); }

Json CanonicalRange(const Json &value)
{
    return VlanRangeText(*ParseVlanRange(value.get_ref<const std::string &>()));
}

Json CanonicalRule(const Json &value)
{
    return FilterRuleText(*ParseFilterRule(value.get_ref<const std::string &>()));
}

Json CanonicalEntry(const Json &value)
{
    return PortEntryText(PortEntryOf(value.get_ref<const std::string &>()));
}

// ---- The table ----

// How values of a form are handled; for a list, its entries.
struct FormRow {
    bool (*isValid)(const Field &, const Json &); // null for records, which their layouts check
    std::string (*rule)(const Field &);
    Json (*schema)(const Field &);
    Json (*fromWord)(const std::string &);
    Json (*canonical)(const Json &);
    bool isList = false;
    size_t least = 0; // entries
    size_t most = SIZE_MAX;
};

// By Form.
constexpr FormRow FORMS[] = {
    {[](const Field &, const Json &value) { return value.is_boolean(); },
     [](const Field &) -> std::string { return "must be true or false"; },
     [](const Field &) -> Json {
         return {{"type", "boolean"}};
     },
     FlagOf, Same},
    {IsNumber,
     [](const Field &field) { return fmt::format("must be a number from {} to {}", field.min, field.max); },
     [](const Field &field) -> Json {
         return {{"type", "integer"}, {"minimum", field.min}, {"maximum", field.max}};
     },
     NumberOf, Same},
    {IsChoice, [](const Field &field) { return "must be " + Alternatives(Words(field.choices, "|")); },
     [](const Field &field) -> Json {
         return {{"enum", Words(field.choices, "|")}};
     },
     SameText, Same},
    {[](const Field &field, const Json &value) { return IsText(value, field.min, field.max); },
     [](const Field &field) { return fmt::format("must be a text of {} to {} bytes", field.min, field.max); },
     [](const Field &field) { return TextSchema(field.min, field.max); }, SameText, Same},
    {IsHex, BytesRule, BytesSchema, BytesOf, CanonicalBytes},
    {IsRange,
     [](const Field &) -> std::string {
         return "must be a VLAN or a range of VLANs from 0 to 4095, like \"100-199\"";
     },
     [](const Field &) -> Json {
         return {{"type", "string"}, {"pattern", "^[0-9]{1,4}(-[0-9]{1,4})?$"}};
     },
     RangesOf, CanonicalRange, true, 1, UINT16_MAX},
    {[](const Field &field, const Json &value) { return IsText(value, 1, field.max); },
     [](const Field &field) { return fmt::format("must be a name of 1 to {} bytes", field.max); },
     [](const Field &field) { return TextSchema(1, field.max); }, ListOf, Same, true},
    {[](const Field &, const Json &value) { return value.is_string() && ParseFilterRule(value); },
     [](const Field &) -> std::string {
         return "must be a rule like \"drop to-port 0x0806\": pass or drop, from-port or to-port or neither, "
                "and an Ethernet type or any";
     },
     [](const Field &) -> Json {
         return {{"type", "string"}, {"pattern", "^(pass|drop) ((from|to)-port )?(any|0x[0-9a-fA-F]{1,4})$"}};
     },
     ListOf, CanonicalRule, true, 0, VSWITCH_FILTER_RULES},
    {IsPortEntry,
     [](const Field &field) {
         return fmt::format("must be the name of a port, a kernel number like #7, or {}",
                            BytesRule(field).substr(strlen("must be ")));
     },
     [](const Field &field) { return TextSchema(1, 2 * field.max); }, ListOf, CanonicalEntry, true},
    {nullptr, [](const Field &) -> std::string { return "must be a table"; },
     [](const Field &field) { return Schema(*field.layout); }, SameTexts, nullptr, true},
};
static_assert(std::size(FORMS) == static_cast<size_t>(Form::RECORDS) + 1);

const FormRow &RowOf(const Field &field) { return FORMS[static_cast<size_t>(field.form)]; }

std::optional<Violation> FindInEntry(const Field &field, const Json &entry, const std::string &pointer)
{
    const FormRow &form = RowOf(field);
    if (!form.isValid) return FindViolation(*field.layout, entry, pointer);
    if (form.isValid(field, entry)) return {};
    return Violation{pointer, form.rule(field)};
}

std::optional<Violation> FindInList(const Field &field, const Json &list, const std::string &pointer)
{
    const FormRow &form = RowOf(field);
    if (!list.is_array()) return Violation{pointer, "must be a list; each entry " + form.rule(field)};
    if (list.size() < form.least || list.size() > form.most)
        return Violation{pointer, fmt::format("must have {} to {} entries", form.least, form.most)};
    for (size_t i = 0; i < list.size(); i++) {
        if (auto violation = FindInEntry(field, list[i], fmt::format("{}/{}", pointer, i))) return violation;
    }
    return {};
}

// The field that holds a record in hexadecimal.
const Field &HexField(const Layout &layout) { return layout.beside[0]; }

Field BytesOfRecord(const Layout &layout)
{
    return {"", Form::BYTES, "The record in hexadecimal digits", 0, static_cast<int64_t>(layout.size)};
}

bool NamesFields(const Layout &layout, const Json &value)
{
    return value.is_object() &&
           std::any_of(layout.fields.begin(), layout.fields.end(),
                       [&value](const Field &field) { return value.contains(field.name); });
}

std::string FindFault(const Layout &layout, const Json &value)
{
    if (*layout.key && !value.contains(layout.key)) return fmt::format("must have a '{}'", layout.key);
    if (!layout.beside.empty() && value.contains(HexField(layout).name) && NamesFields(layout, value))
        return fmt::format("can have '{}' or the fields that it holds, not both", HexField(layout).name);
    return layout.findFault ? layout.findFault(value) : "";
}

}

const Field *FindField(std::span<const Field> fields, std::string_view name)
{
    const auto field =
        std::find_if(fields.begin(), fields.end(), [name](const Field &known) { return name == known.name; });
    return field == fields.end() ? nullptr : &*field;
}

std::optional<Violation> FindViolation(std::span<const Field> fields, const Json &value,
                                       const std::string &pointer)
{
    if (!value.is_object()) return Violation{pointer, "must be a table"};
    for (const auto &[key, member] : value.items()) {
        const Field *field = FindField(fields, key);
        if (!field) {
            std::vector<std::string> names;
            for (const Field &known : fields)
                names.emplace_back(known.name);
            return Violation{pointer + "/" + key, UnknownKey(key, names)};
        }
        if (auto violation = FindViolation(*field, member, pointer + "/" + key)) return violation;
    }
    return {};
}

std::optional<Violation> FindViolation(const Field &field, const Json &value, const std::string &pointer)
{
    if (field.canBeNone && value == NONE) return {};
    const FormRow &form = RowOf(field);
    if (form.isList) return FindInList(field, value, pointer);
    if (form.isValid(field, value)) return {};
    return Violation{pointer, form.rule(field) + (field.canBeNone ? ", or none" : "")};
}

void RequireName(const Field &rule, const std::string &name)
{
    if (auto violation = FindViolation(rule, name, ""))
        throw Error(Exit::BAD_VALUE,
                    fmt::format("{} {}, not '{}'", rule.help, violation->message, name.substr(0, 40)));
}

Json ParseWord(const Field &field, const std::string &word, const std::string &name)
{
    const Json value = field.canBeNone && word == NONE ? Json(word) : RowOf(field).fromWord(word);
    const auto violation = FindViolation(field, value, "");
    if (!violation) return value;
    const std::string own = *field.name ? "--" + std::string(field.name) : "the value";
    const std::string rule = field.form == Form::BOOLEAN ? "must be on or off" : violation->message;
    throw Error(Exit::BAD_VALUE,
                fmt::format("{} {}, not '{}'", name.empty() ? own : name, rule, word.substr(0, 40)));
}

Json Schema(const Field &field)
{
    const FormRow &form = RowOf(field);
    Json schema = form.schema(field);
    if (form.isList) {
        Json list = {{"type", "array"}};
        if (form.least) list.update({{"minItems", form.least}, {"maxItems", form.most}});
        list["items"] = schema;
        schema = list;
    }
    if (field.canBeNone) schema = {{"anyOf", {schema, {{"const", NONE}}}}};
    schema["description"] = field.help;
    if (field.defaultText) schema["default"] = Json::parse(field.defaultText);
    return schema;
}

Json Schema(std::span<const Field> fields)
{
    Json properties;
    for (const Field &field : fields)
        properties[field.name] = Schema(field);
    return {{"type", "object"}, {"properties", properties}, {"additionalProperties", false}};
}

Json Canonical(const Field &field, const Json &value)
{
    if (field.canBeNone && value == NONE) return value;
    const FormRow &form = RowOf(field);
    if (!form.isList) return form.canonical(value);
    Json list = Json::array();
    for (const Json &entry : value)
        list.push_back(field.layout ? CanonicalRecord(*field.layout, entry) : form.canonical(entry));
    return list;
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

std::vector<Field> AllFields(const Layout &layout)
{
    std::vector<Field> fields(layout.beside.begin(), layout.beside.end());
    fields.insert(fields.end(), layout.fields.begin(), layout.fields.end());
    return fields;
}

bool NeedsLayout(const Layout &layout, const Json &value)
{
    if (NamesFields(layout, value)) return true;
    for (const Field &field : layout.beside) {
        if (field.form != Form::ENTRIES) continue;
        for (const Json &entry : value.value(field.name, Json::array()))
            if (!IsHex(field, entry)) return true;
    }
    return false;
}

std::optional<Violation> FindViolation(const Layout &layout, const Json &value, const std::string &pointer)
{
    if (layout.beside.empty() && value.is_string())
        return FindViolation(BytesOfRecord(layout), value, pointer);
    if (auto fault = FindViolation(AllFields(layout), value, pointer)) return fault;
    if (std::string fault = FindFault(layout, value); !fault.empty()) return Violation{pointer, fault};
    return {};
}

// Of an entry whose record is beside other fields.
static Json CanonicalBeside(const Layout &layout, const Json &value)
{
    const Field &hex = HexField(layout);
    Json entry = Canonical(layout.beside.subspan(1), value);
    if (!value.contains(hex.name) && !NamesFields(layout, value) && !IsEmbedded()) {
        entry[hex.name] = std::string(2 * layout.size, '0');
        return entry;
    }
    const Json record = value.contains(hex.name)
                            ? RecordToJson(layout, RecordFromJson(layout, value[hex.name]).data())
                            : Canonical(layout.fields, value);
    if (record.is_string())
        entry[hex.name] = record;
    else
        entry.update(record);
    return entry;
}

Json CanonicalRecord(const Layout &layout, const Json &value)
{
    if (!layout.beside.empty()) return CanonicalBeside(layout, value);
    if (value.is_string()) return RecordToJson(layout, RecordFromJson(layout, value).data());
    return Canonical(layout.fields, value);
}

Json CanonicalRecordPart(const Layout &layout, const Json &value)
{
    return value.is_string() ? CanonicalRecord(layout, value) : CanonicalPart(layout.fields, value);
}

Json Schema(const Layout &layout)
{
    Json table = Schema(AllFields(layout));
    if (*layout.key) table["required"] = {layout.key};
    if (!layout.beside.empty()) return table;
    return {{"anyOf", {table, Schema(BytesOfRecord(layout))}}};
}

std::string EntryName(const Layout &layout, const Json &entry)
{
    if (entry.is_string()) return entry;
    const Json &name = entry[layout.key];
    return name.is_string() ? name.get<std::string>() : name.dump();
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
    const auto words = Words(field.choices, "|");
    return static_cast<uint32_t>(std::find(words.begin(), words.end(), word) - words.begin());
}

}
