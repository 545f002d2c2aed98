// The JSON schema of what --json prints. A verb tells its rows in a notation of its own:
//   name         a text                   name?        a text or null
//   name:type    a value of this type     name=a|b     one of these texts
//   [field]      a row need not have it   [*switch]    the policies of switches, or [*port] of ports
//   @name        the row is a definition  a, b | c     alternatives
#include "cli/verbs/schema.h"

#include <fmt/format.h>
#include <set>

#include "cli/change/plan.h"

namespace vsctl {

namespace {

Json Reference(const std::string &definition) { return {{"$ref", "#/$defs/" + definition}}; }

std::string PolicyPath(const Policy &policy)
{
    return fmt::format("{}/properties/{}", policy.IsOfPort() ? "port" : "switch", policy.name);
}

Json Type(const std::string &type)
{
    if (type == "any") return true;
    if (type == "number") return {{"type", "integer"}, {"minimum", 0}};
    if (type == "hex") return {{"type", "string"}, {"pattern", "^([0-9a-f]{2})*$"}};
    if (type == "texts") return {{"type", "array"}, {"items", {{"type", "string"}}}};
    if (type == "record") return {{"type", {"object", "string"}}}; // a text where there is none
    return {{"type", type}};
}

Json FieldSchema(char mark, const std::string &rest)
{
    if (mark == '?') return {{"type", {"string", "null"}}};
    if (mark == '=') return {{"enum", Words(rest, "|")}};
    return Type(mark == ':' ? rest : "string");
}

void AddField(std::string field, Json &row)
{
    const bool isOptional = field.starts_with("[");
    if (isOptional) field = field.substr(1, field.size() - 2);
    if (field.starts_with("*")) {
        for (const Policy *policy : PoliciesOf(field == "*port"))
            row["properties"][policy->name] = Reference(PolicyPath(*policy));
        return;
    }
    const size_t end = std::min(field.find_first_of("?:="), field.size());
    const std::string name = field.substr(0, end);
    row["properties"][name] = FieldSchema(field[end], field.substr(std::min(end + 1, field.size())));
    if (!isOptional) row["required"].push_back(name);
}

Json RowSchema(const std::string &fields, const char *description = nullptr)
{
    if (fields.starts_with("@")) return Reference(fields.substr(1));
    Json row = {{"type", "object"},
                {"properties", Json::object()},
                {"required", Json::array()},
                {"additionalProperties", false}};
    if (description) row["description"] = description;
    for (const std::string &field : Words(fields, ", ")) {
        if (!field.empty()) AddField(field, row);
    }
    return row;
}

// Zeros have the types of all values.
void AddRecord(const Json &zeros, Json &row)
{
    for (const auto &[name, zero] : zeros.items()) {
        row["properties"][name] = Type(zero.type_name());
        row["required"].push_back(name);
    }
}

// The row that shows a policy: its fields, or its value by the name of the policy; null where there is none.
Json PolicyRow(const Policy &policy)
{
    Json row = RowSchema(policy.IsOfPort() ? "switch, port" : "switch");
    Json &properties = row["properties"];
    if (policy.IsScalar()) {
        properties[policy.name] = {{"anyOf", {Reference(PolicyPath(policy)), {{"type", "null"}}}}};
        row["required"].push_back(policy.name);
        return row;
    }
    for (const Field &field : policy.fields)
        properties[field.name] = Schema(field);
    properties[policy.name] = {{"type", policy.layout ? Json{"string", "null"} : Json("null")}};
    return row;
}

// Fields of an entry of a list behind those that say where it is.
Json EntryRow(const char *place, const Policy &policy)
{
    Json row = RowSchema(place);
    const Json entry = Schema(*policy.fields[0].layout);
    const Json &table = entry.contains("anyOf") ? entry["anyOf"][0] : entry;
    row["properties"].update(table["properties"]);
    row["properties"]["bytes"] = Type("hex");
    return row;
}

// The kinds of rows that a verb prints; empty for one that prints no rows.
Json RowKinds(const Verb &verb)
{
    Json kinds = Json::array();
    if (verb.effect == Effect::STEPS) kinds.push_back(Reference("change"));
    if (verb.policy) kinds.push_back(PolicyRow(*verb.policy));
    if (verb.manual.rows.empty() && !verb.manual.record) return kinds;
    for (const std::string &fields : Words(verb.manual.rows, " | "))
        kinds.push_back(RowSchema(fields));
    if (!verb.manual.record) return kinds;
    const Json zeros = DecodeZeros(*verb.manual.record);
    if (zeros.is_object()) AddRecord(zeros, kinds[0]);
    kinds.push_back(Reference("opaque"));
    return kinds;
}

// What the result of a verb holds.
Json ResultSchema(const Verb &verb, const Json &kinds)
{
    const Json rows = kinds.size() == 1 ? kinds[0] : Json{{"anyOf", kinds}};
    return {{"if", {{"properties", {{"command", {{"const", verb.Title()}}}}}}},
            {"then", {{"properties", {{"result", {{"items", rows}}}}}}}};
}

// What `show` prints: the host as one document.
Json HostSchema()
{
    const auto list = [](const char *fields) {
        return Json{{"type", "array"}, {"items", RowSchema(fields)}};
    };
    constexpr const char *NIC =
        "[nic], [link:boolean], [admin:boolean], [speed:number], [full-duplex:boolean], "
        "[mtu:number], [numa-node:integer]";
    Json one =
        RowSchema("switch, id, portset, state=running|not running, mtu:any, max-ports:any, used-ports:any, "
                  "policies:object, uplinks:array, [ports:array], mirrors:array");
    Json &fields = one["properties"];
    fields["uplinks"] = list((std::string("uplink, port, ") + NIC).c_str());
    fields["ports"] = list("ports:texts, count:number, policies:object, plugged:object");
    Json host = RowSchema("switches:array, [free-nics:array]",
                          "The host, or one of its switches. Ports with equal policies are one entry.");
    host["properties"]["switches"]["items"] = one;
    host["properties"]["free-nics"] = list(NIC);
    return host;
}

Json Definitions()
{
    Json definitions = PlanSchema()["$defs"];
    definitions["session"] = EntryRow("switch, port?", *FindPolicy("mirror", true));
    definitions["private-vlan"] = EntryRow("switch", *FindPolicy("pvlan", false));
    definitions["named-teaming"] = EntryRow("switch", *FindPolicy("ls-teaming", false));
    definitions["change"] = RowSchema(
        "switch, port?, item, [level], [key], [uplink], before:any, after:any, [ports:number], [lost]",
        "A step of a change: what there is before and after it, or null.");
    definitions["outcome"] =
        RowSchema("change, steps:number, outcome=undone|finished|confirmed, [lost:texts]",
                  "How a change of several steps ended, and what an undo could not bring back.");
    definitions["opaque"] = RowSchema("[switch], [port], [group], [session], bytes:hex",
                                      "A record whose layout the platform does not publish.");
    definitions["host"] = HostSchema();
    Json &verb = definitions["verb"] = RowSchema(
        "verb, purpose, changes:boolean, arguments:array, examples:texts", "A verb and its arguments.");
    verb["properties"]["arguments"]["items"] =
        RowSchema("argument, purpose, required:boolean, repeats:boolean, takes-value:boolean");
    return definitions;
}

}

std::vector<std::string> ColumnNames(const Verb &verb)
{
    std::set<std::string> names;
    const Json schema = {{"$defs", Definitions()}};
    for (const Json &kind : RowKinds(verb)) {
        const std::string reference = kind.value("$ref", "#");
        if (reference.ends_with("/opaque")) continue;
        const Json &row = reference == "#" ? kind : schema[Json::json_pointer(reference.substr(1))];
        for (const auto &[name, property] : row["properties"].items())
            names.insert(name);
    }
    return {names.begin(), names.end()};
}

Json OutputSchema()
{
    Json commands = Json::array(), results = Json::array();
    for (const Verb &verb : Verbs()) {
        const Json kinds = RowKinds(verb);
        if (kinds.empty()) continue;
        commands.push_back(verb.Title());
        results.push_back(ResultSchema(verb, kinds));
    }
    const Json change = RowSchema("object, field, before:any, after:any");
    return {{"$schema", "https://json-schema.org/draft/2020-12/schema"},
            {"title", "What vsctl prints with --json"},
            {"description",
             "One object a line. `vsctl watch` prints the first result with the time, then objects with the "
             "changes. Verbs that print a text or a file print it with --json too."},
            {"type", "object"},
            {"properties",
             {{"command", {{"enum", commands}}},
              {"time", {{"type", "integer"}, {"description", "seconds since 1970"}}},
              {"result", {{"type", "array"}, {"items", {{"type", "object"}}}}},
              {"changes", {{"type", "array"}, {"items", change}}}}},
            {"required", {"command"}},
            {"oneOf", {{{"required", {"result"}}}, {{"required", {"changes", "time"}}}}},
            {"additionalProperties", false},
            {"allOf", results},
            {"$defs", Definitions()}};
}

}
