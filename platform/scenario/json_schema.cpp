#include "platform/scenario/json_schema.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "platform/host/nearest.h"

namespace vshost {

namespace {

using Json = nlohmann::json;
using Schema = nlohmann::ordered_json;

// 5.0 is a whole number too.
bool IsWhole(const Json &value)
{
    return value.is_number_integer() || (value.is_number_float() && value == std::floor(value.get<double>()));
}

bool HasType(const Schema &type, const Json &value)
{
    return type == "integer" ? IsWhole(value) : type == value.type_name();
}

bool IsWord(const Schema &word, const Json &value)
{
    return value.is_string() && value.get_ref<const std::string &>() == word.get_ref<const std::string &>();
}

bool IsAmong(const Schema &words, const Json &value)
{
    return std::any_of(words.begin(), words.end(), [&](const Schema &word) { return IsWord(word, value); });
}

// Exact for every 64-bit number.
bool IsAtLeast(const Schema &least, const Json &value)
{
    return !value.is_number() || value.get<long double>() >= least.get<long double>();
}

bool IsAtMost(const Schema &most, const Json &value)
{
    return !value.is_number() || value.get<long double>() <= most.get<long double>();
}

size_t LengthOf(const Json &value) { return value.get_ref<const std::string &>().size(); }

bool HasFormat(const Schema &format, const Json &value)
{
    if (!value.is_string()) return true;
    unsigned char address[sizeof(in6_addr)];
    const auto &text = value.get_ref<const std::string &>();
    const int family = format == "ipv4" ? AF_INET : AF_INET6;
    return text.find('\0') == text.npos && inet_pton(family, text.c_str(), address) == 1;
}

// The keywords that judge a value by their argument alone.
const std::map<std::string, bool (*)(const Schema &argument, const Json &value)> PREDICATES = {
    {"type", HasType},
    {"enum", IsAmong},
    {"const", IsWord},
    {"minimum", IsAtLeast},
    {"maximum", IsAtMost},
    {"minLength",
     [](const Schema &least, const Json &value) { return !value.is_string() || LengthOf(value) >= least; }},
    {"maxLength",
     [](const Schema &most, const Json &value) { return !value.is_string() || LengthOf(value) <= most; }},
    {"maxItems",
     [](const Schema &most, const Json &value) { return !value.is_array() || value.size() <= most; }},
    {"maxProperties",
     [](const Schema &most, const Json &value) { return !value.is_object() || value.size() <= most; }},
    {"format", HasFormat},
};

bool IsAnnotation(std::string_view keyword)
{
    return keyword == "$schema" || keyword == "title" || keyword == "description" || keyword == "default";
}

std::string List(const std::vector<std::string_view> &words)
{
    std::string list;
    for (const std::string_view word : words)
        list.append(list.empty() ? "" : ", ").append(word);
    return list;
}

// " of 1 to 30 bytes"; empty when the schema sets no limits.
std::string Limits(const Schema &schema, const char *least, const char *most, const char *unit)
{
    if (!schema.contains(most)) return "";
    const std::string from = schema.contains(least) ? schema[least].dump() + " to " : "at most ";
    return " of " + from + schema[most].dump() + unit;
}

std::string AboutKey(std::string_view key, const std::vector<std::string_view> &known)
{
    const std::string_view nearest = NearestName(key, known);
    if (nearest.empty()) return "unknown key; use one of " + List(known);
    return "unknown key; did you mean " + std::string(nearest) + "?";
}

}

const std::map<std::string, JsonSchema::Keyword> JsonSchema::KEYWORDS = {
    {"$ref", &JsonSchema::Reference},
    {"pattern", &JsonSchema::Pattern},
    {"anyOf", &JsonSchema::AnyOf},
    {"allOf", &JsonSchema::AllOf},
    {"then", &JsonSchema::Then},
    {"required", &JsonSchema::Required},
    {"propertyNames", &JsonSchema::PropertyNames},
    {"properties", &JsonSchema::Properties},
    {"additionalProperties", &JsonSchema::AdditionalProperties},
    {"items", &JsonSchema::Items},
};

JsonSchema::JsonSchema(const char *text) : root(Schema::parse(text)) { Prepare(root); }

void JsonSchema::Check(const Json &value) const { CheckValue(root, {value, ""}); }

// Compiles the patterns.
void JsonSchema::Prepare(const Schema &schema)
{
    if (!schema.is_object()) return;
    for (const auto &[keyword, argument] : schema.items()) {
        const bool checked = KEYWORDS.contains(keyword) || PREDICATES.contains(keyword) || keyword == "if";
        if (!checked && keyword != "$defs" && !IsAnnotation(keyword))
            throw std::invalid_argument("unknown keyword " + keyword);
        if (keyword == "pattern") patterns.emplace(argument, std::regex(argument.get<std::string>()));
        const bool holdsSeveral = keyword == "$defs" || keyword == "properties" || argument.is_array();
        if (!holdsSeveral) Prepare(argument);
        if (holdsSeveral)
            for (const Schema &part : argument)
                Prepare(part);
    }
}

bool JsonSchema::Matches(const Schema &schema, const Json &value) const
try {
    CheckValue(schema, {value, ""});
    return true;
} catch (const SchemaViolation &) {
    return false;
}

void JsonSchema::CheckValue(const Schema &schema, const Subject &subject) const
{
    for (const auto &[keyword, argument] : schema.items()) {
        const auto predicate = PREDICATES.find(keyword);
        if (predicate != PREDICATES.end() && !predicate->second(argument, subject.value))
            throw SchemaViolation{subject.path, Complaint(schema, subject.value)};
        const auto other = KEYWORDS.find(keyword);
        if (other != KEYWORDS.end()) (this->*other->second)(schema, subject);
    }
}

// The schema itself, or the schema that it refers to.
const JsonSchema::Schema &JsonSchema::Resolve(const Schema &schema) const
{
    const auto reference = schema.find("$ref");
    if (reference == schema.end()) return schema;
    return root.at(Schema::json_pointer(reference->get<std::string>().substr(strlen("#"))));
}

void JsonSchema::Reference(const Schema &schema, const Subject &subject) const
{
    CheckValue(Resolve(schema), subject);
}

void JsonSchema::Pattern(const Schema &schema, const Subject &subject) const
{
    if (!subject.value.is_string()) return;
    const auto &text = subject.value.get_ref<const std::string &>();
    if (!std::regex_search(text, patterns.at(schema["pattern"])))
        throw SchemaViolation{subject.path, Complaint(schema, subject.value)};
}

void JsonSchema::AnyOf(const Schema &schema, const Subject &subject) const
{
    const Schema &parts = schema["anyOf"];
    const auto matches = [&](const Schema &part) { return Matches(part, subject.value); };
    if (std::none_of(parts.begin(), parts.end(), matches))
        throw SchemaViolation{subject.path, Complaint(schema, subject.value)};
}

void JsonSchema::AllOf(const Schema &schema, const Subject &subject) const
{
    for (const Schema &part : schema["allOf"])
        CheckValue(part, subject);
}

void JsonSchema::Then(const Schema &schema, const Subject &subject) const
{
    if (Matches(schema["if"], subject.value)) CheckValue(schema["then"], subject);
}

void JsonSchema::Required(const Schema &schema, const Subject &subject) const
{
    for (const Schema &name : schema["required"])
        if (subject.value.is_object() && !subject.value.contains(name))
            throw SchemaViolation{subject.path, "needs " + name.get<std::string>()};
}

void JsonSchema::PropertyNames(const Schema &schema, const Subject &subject) const
{
    if (!subject.value.is_object()) return;
    for (const auto &[key, member] : subject.value.items())
        if (!Matches(schema["propertyNames"], key))
            throw SchemaViolation{subject.path + "/" + key,
                                  "this name " + Complaint(schema["propertyNames"], nullptr)};
}

void JsonSchema::Properties(const Schema &schema, const Subject &subject) const
{
    if (!subject.value.is_object()) return;
    for (const auto &[key, part] : schema["properties"].items())
        if (const auto member = subject.value.find(key); member != subject.value.end())
            CheckValue(part, {*member, subject.path + "/" + key});
}

void JsonSchema::AdditionalProperties(const Schema &schema, const Subject &subject) const
{
    if (!subject.value.is_object()) return;
    std::vector<std::string_view> known;
    if (schema.contains("properties"))
        for (const auto &[key, part] : schema["properties"].items())
            known.push_back(key);
    const Schema &others = schema["additionalProperties"];
    for (const auto &[key, member] : subject.value.items()) {
        if (std::find(known.begin(), known.end(), key) != known.end()) continue;
        const std::string path = subject.path + "/" + key;
        if (!others.is_object()) throw SchemaViolation{path, AboutKey(key, known)};
        CheckValue(others, {member, path});
    }
}

void JsonSchema::Items(const Schema &schema, const Subject &subject) const
{
    if (!subject.value.is_array()) return;
    for (size_t i = 0; i < subject.value.size(); i++)
        CheckValue(schema["items"], {subject.value[i], subject.path + "/" + std::to_string(i)});
}

// The text after "must be".
std::string JsonSchema::Expected(const Schema &schema) const
{
    const Schema &resolved = Resolve(schema);
    const std::string type = resolved.value("type", "");
    if (type == "object") return "an object" + Limits(resolved, "minProperties", "maxProperties", " members");
    if (resolved.contains("title")) return resolved["title"];
    if (type == "boolean") return "true or false";
    if (type == "integer")
        return "a whole number from " + resolved["minimum"].dump() + " to " + resolved["maximum"].dump();
    if (type == "string") return "a string" + Limits(resolved, "minLength", "maxLength", " bytes");
    if (type == "array") return "an array" + Limits(resolved, "minItems", "maxItems", " elements");
    std::vector<std::string_view> words;
    CollectWords(resolved, words);
    return "one of " + List(words);
}

std::string JsonSchema::Complaint(const Schema &schema, const Json &value) const
{
    std::vector<std::string_view> words;
    CollectWords(schema, words);
    const std::string_view nearest =
        value.is_string() ? NearestName(value.get_ref<const std::string &>(), words) : std::string_view();
    if (nearest.empty()) return "must be " + Expected(schema);
    return value.dump() + " is unknown; did you mean " + std::string(nearest) + "?";
}

// The words that a value may be, including those of alternatives.
void JsonSchema::CollectWords(const Schema &schema, std::vector<std::string_view> &words) const
{
    const Schema &resolved = Resolve(schema);
    if (resolved.contains("enum"))
        for (const Schema &word : resolved["enum"])
            words.push_back(word.get_ref<const std::string &>());
    if (resolved.contains("anyOf"))
        for (const Schema &part : resolved["anyOf"])
            CollectWords(part, words);
}

}
