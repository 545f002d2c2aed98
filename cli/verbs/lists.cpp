// vsctl pvlan and ls-teaming: policies of a switch that are lists.
#include <fmt/format.h>

#include "cli/verbs/verb.h"

namespace vsctl {

namespace {

const Policy &ListOf(const Verb &verb) { return *FindPolicy(verb.noun, false); }

const Layout &LayoutOf(const Verb &verb) { return *ListOf(verb).fields[0].layout; }

// The entry that --hex or --file gives.
Json GivenRecord(const Verb &verb, const Arguments &arguments)
{
    const Bytes bytes = GivenBytes(arguments, LayoutOf(verb).size);
    return Json::array({Hex(bytes.data(), bytes.size())});
}

bool GivesRecord(const Arguments &arguments) { return arguments.Has("--hex") || arguments.Has("--file"); }

Result List(const Verb &verb, const Arguments &arguments)
{
    const Target target = arguments.Target();
    SwitchId(target.alias);
    const Json entries = ReadAsAsked(ListOf(verb), target, arguments);
    Result result;
    for (const Json &entry : entries.is_null() ? Json::array() : entries)
        result.rows.push_back(RowOf(target, entry.is_string() ? Json{{"bytes", entry}} : entry));
    return result;
}

Result AddSteps(const Verb &verb, const Arguments &arguments, const Json &entries)
{
    if (auto fault = FindViolation(ListOf(verb).fields[0], entries, ""))
        throw Error(Exit::BAD_VALUE, fmt::format("{} {}", verb.noun, fault->message));
    return Steps({AddEntries(ListOf(verb), arguments.Target(), entries)});
}

Result AddTeaming(const Verb &verb, const Arguments &arguments)
{
    if (GivesRecord(arguments)) return AddSteps(verb, arguments, GivenRecord(verb, arguments));
    if (!arguments.Has("NAME"))
        throw Error(Exit::USAGE, "the policy has no name", "give NAME, or the record with --hex or --file");
    Json entry = GivenFields(LayoutOf(verb).fields, arguments);
    entry["name"] = arguments.Text("NAME");
    return AddSteps(verb, arguments, Json::array({entry}));
}

// The primary VLAN itself is promiscuous.
Result AddPrivateVlan(const Verb &verb, const Arguments &arguments)
{
    if (GivesRecord(arguments)) return AddSteps(verb, arguments, GivenRecord(verb, arguments));
    if (!arguments.Has("PRIMARY"))
        throw Error(Exit::USAGE, "there is no primary VLAN",
                    "give PRIMARY, or an entry with --hex or --file");
    const uint32_t primary = arguments.Number("PRIMARY", 0);
    Json entries = {{{"primary", primary}, {"secondary", primary}, {"type", "promiscuous"}}};
    for (const char *type : {"isolated", "community"}) {
        const std::string option = fmt::format("--{}", type);
        for (const std::string &word : Words(arguments.Text(option), ",")) {
            if (!arguments.Has(option)) break;
            entries.push_back({{"primary", primary},
                               {"secondary", ParseWord(LayoutOf(verb).fields[1], word, option)},
                               {"type", type}});
        }
    }
    return AddSteps(verb, arguments, entries);
}

Result Remove(const Verb &verb, const Arguments &arguments)
{
    const Json names = arguments.List(verb.arguments.back().name);
    return Steps({RemoveEntries(ListOf(verb), arguments.Target(), names)});
}

Result Clear(const Verb &verb, const Arguments &arguments)
{
    return Steps({SetPolicy(ListOf(verb), arguments.Target(), nullptr)});
}

}

std::vector<Verb> ListVerbs()
{
    const Policy &vlans = *FindPolicy("pvlan", false), &teaming = *FindPolicy("ls-teaming", false);
    const Field &vlan = vlans.fields[0].layout->fields[0];
    const std::vector<std::string> record = {"--hex", "--file"};
    const Argument primary = Excluding({"PRIMARY", Shape::OPTIONAL, vlan.help, Names::NONE, vlan}, record);
    std::vector<Argument> ofTeaming = {SWITCH,
                                       Excluding({"NAME", Shape::OPTIONAL, "Name of the policy"}, record)};
    for (const Argument &option : FieldOptions(teaming.fields[0].layout->fields.subspan(1)))
        ofTeaming.push_back(Excluding(option, record));
    ofTeaming.push_back(HEX);
    ofTeaming.push_back(FROM_FILE);
    return {
        Reads("pvlan list", List, {SWITCH},
              {"List the private VLANs of a switch", "lab", vlans.operations, "@private-vlan"}),
        Changes("pvlan add", AddPrivateVlan,
                {SWITCH, primary,
                 Excluding({"--isolated", Shape::OPTION, "VLANs whose ports reach promiscuous ports alone"},
                           record),
                 Excluding({"--community", Shape::OPTION,
                            "VLANs whose ports reach promiscuous ports and each other"},
                           record),
                 HEX, FROM_FILE},
                {"Add a primary VLAN, or more secondary VLANs to it",
                 "lab 100 --isolated 101 --community 102,103", vlans.operations}),
        Changes("pvlan remove", Remove,
                {SWITCH, {"VLAN", Shape::MANY, "Secondary VLANs, or a primary VLAN with all of its own"}},
                {"Remove private VLANs", "lab 101\nlab 100", vlans.operations}),
        Changes("pvlan clear", Clear, {SWITCH}, {"Remove all private VLANs", "lab", vlans.operations}),
        Reads("ls-teaming list", List, {SWITCH, {"--live", Shape::FLAG, "Show what the driver runs with"}},
              {"List the teaming policies that ports name", "lab\nlab --live", teaming.operations,
               "@named-teaming"}),
        Changes("ls-teaming add", AddTeaming, ofTeaming,
                {"Add a teaming policy that ports can name", "lab gold --algorithm order --active uplink0",
                 teaming.operations}),
        Changes("ls-teaming remove", Remove, {SWITCH, {"NAME", Shape::MANY, "Names of the policies"}},
                {"Remove teaming policies that ports can name", "lab gold", teaming.operations}),
        Changes("ls-teaming clear", Clear, {SWITCH},
                {"Remove all teaming policies that ports can name", "lab", teaming.operations}),
    };
}

}
