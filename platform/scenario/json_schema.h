// Checks JSON values against a schema, with the keywords of JSON Schema (2020-12) that the schemas here use.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace vshost {

// Where a value is wrong, and what is expected there.
struct SchemaViolation {
    std::string path; // "/nics/nic0/mtu"; empty: the whole value
    std::string what;
};

class JsonSchema {
public:
    // Throws std::invalid_argument for a keyword that Check doesn't know.
    explicit JsonSchema(const char *text);
    // Throws SchemaViolation. The length of a string counts bytes of UTF-8, as the host's fields do.
    void Check(const nlohmann::json &value) const;

private:
    using Json = nlohmann::json;
    using Schema = nlohmann::ordered_json; // keywords are checked in the order in which they are written
    struct Subject {
        const Json &value;
        std::string path;
    };
    using Keyword = void (JsonSchema::*)(const Schema &schema, const Subject &subject) const;

    static const std::map<std::string, Keyword> KEYWORDS;

    void Prepare(const Schema &schema);
    const Schema &Resolve(const Schema &schema) const;
    bool Matches(const Schema &schema, const Json &value) const;
    void CheckValue(const Schema &schema, const Subject &subject) const;
    std::string Expected(const Schema &schema) const;
    std::string Complaint(const Schema &schema, const Json &value) const;
    void CollectWords(const Schema &schema, std::vector<std::string_view> &words) const;

    // Keywords that hold other schemas or use prepared patterns.
    void Reference(const Schema &schema, const Subject &subject) const;
    void Pattern(const Schema &schema, const Subject &subject) const;
    void AnyOf(const Schema &schema, const Subject &subject) const;
    void AllOf(const Schema &schema, const Subject &subject) const;
    void Then(const Schema &schema, const Subject &subject) const;
    void Required(const Schema &schema, const Subject &subject) const;
    void PropertyNames(const Schema &schema, const Subject &subject) const;
    void Properties(const Schema &schema, const Subject &subject) const;
    void AdditionalProperties(const Schema &schema, const Subject &subject) const;
    void Items(const Schema &schema, const Subject &subject) const;

    Schema root;
    std::map<std::string, std::regex> patterns;
};

}
