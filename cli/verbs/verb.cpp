// The table of verbs, and the arguments given to a verb.
#include "cli/verbs/verb.h"

#include <charconv>
#include <fmt/format.h>

namespace vsctl {

bool Arguments::Has(const std::string &name) const { return !List(name).empty(); }

const std::vector<std::string> &Arguments::List(const std::string &name) const
{
    static const std::vector<std::string> NOTHING;
    const auto found = words.find(name);
    return found == words.end() ? NOTHING : found->second;
}

const std::string &Arguments::Text(const std::string &name) const
{
    static const std::string NOTHING;
    return Has(name) ? List(name).front() : NOTHING;
}

std::string Arguments::Text(const std::string &name, const std::string &absent) const
{
    return Has(name) ? Text(name) : absent;
}

uint32_t Arguments::Number(const std::string &name, uint32_t absent) const
{
    uint32_t number = absent;
    const std::string &word = Text(name);
    std::from_chars(word.data(), word.data() + word.size(), number);
    return number;
}

double Arguments::Seconds(const std::string &name, double absent) const
{
    return Has(name) ? ParseSeconds(name, Text(name)) : absent;
}

Target Arguments::Target() const { return {Text("SWITCH"), Text("PORT", Text("--port"))}; }

std::vector<std::string> Arguments::PortIds(bool changes) const
{
    if (Has("PORT")) return PortNames(Text("PORT"));
    if (changes && !Has(ALL_PORTS.name))
        throw Error(Exit::USAGE, "there is no port to change", "name ports, or give --all-ports");
    RequireOwnPlatform("list ports: name them");
    std::vector<std::string> names;
    for (const vshost_port &port : PortsOf(Text("SWITCH"))) {
        if (!Has(ALL_PORTS.name) || !port.isUplink) names.emplace_back(port.id);
    }
    return names;
}

std::vector<Target> Arguments::Ports(bool changes) const
{
    std::vector<struct Target> ports;
    for (const std::string &id : PortIds(changes))
        ports.push_back({Text("SWITCH"), id});
    if (Has(EXISTING.name)) std::erase_if(ports, [](const struct Target &port) { return !PortExists(port); });
    return ports;
}

void RequirePublishedLayout(const char *arguments)
{
    if (IsEmbedded()) return;
    throw Error(Exit::USAGE,
                fmt::format("{} needs a driver that publishes the layout of its records", arguments),
                "give the record with --hex or --file");
}

bool GivesBytes(const Arguments &arguments)
{
    return arguments.Has(HEX.name) || arguments.Has(FROM_FILE.name);
}

Bytes GivenBytes(const Arguments &arguments, size_t size, const char *ways)
{
    if (!GivesBytes(arguments))
        throw Error(Exit::USAGE, "there is nothing to send or store", fmt::format("give {}", ways));
    const bool isHex = arguments.Has(HEX.name);
    const std::string content = isHex ? arguments.Text(HEX.name) : ReadFile(arguments.Text(FROM_FILE.name));
    const Bytes bytes = isHex ? FromHex(content) : Bytes(content.begin(), content.end());
    if (size && bytes.size() != size)
        throw Error(Exit::BAD_VALUE,
                    fmt::format("the record must have {} bytes, not {}", size, bytes.size()));
    return bytes;
}

Json GivenHex(const Arguments &arguments, size_t size)
{
    const Bytes bytes = GivenBytes(arguments, size);
    return Hex(bytes.data(), bytes.size());
}

Argument NumberOption(const char *name, const char *help, int64_t max)
{
    return {name, Shape::OPTION, help, Names::NONE, Field{"", Form::NUMBER, "", 0, max}};
}

Argument ChoiceOption(const char *name, const char *help, const char *choices)
{
    return {name, Shape::OPTION, help, Names::NONE, Field{"", Form::CHOICE, "", 0, 0, choices}};
}

namespace {

std::string OptionName(const Field &field) { return std::string("--") + field.name; }

[[noreturn]] void ThrowUnknownVerb(const std::string &noun, const std::string &name)
{
    const auto names = VerbNames(noun);
    if (names.empty()) {
        const std::string suggestion = Suggest(noun, Nouns());
        throw Error(Exit::USAGE,
                    noun.empty() ? "a noun is missing" : fmt::format("there is no noun '{}'", noun),
                    suggestion.empty() ? "'vsctl help' lists the nouns" : suggestion);
    }
    const std::string list = fmt::format("the verbs of {} are {}", noun, fmt::join(names, ", "));
    if (name.empty()) throw Error(Exit::USAGE, fmt::format("'{}' needs a verb", noun), list);
    const std::string suggestion = Suggest(name, names);
    throw Error(Exit::USAGE, fmt::format("{} has no verb '{}'", noun, name),
                suggestion.empty() ? list : suggestion);
}

}

std::vector<Argument> FieldOptions(std::span<const Field> fields)
{
    std::vector<Argument> options;
    for (const Field &field : fields)
        options.push_back({OptionName(field), Shape::OPTION, field.help,
                           field.form == Form::ENTRIES ? Names::PORT : Names::NONE, field});
    return options;
}

std::vector<Argument> OrBytes(std::vector<Argument> arguments)
{
    std::vector<Argument> others = arguments;
    std::erase_if(others, [](const Argument &argument) { return argument.shape == Shape::REQUIRED; });
    arguments.push_back(Excluding(HEX, NamesOf(others)));
    others.push_back(HEX);
    arguments.push_back(Excluding(FROM_FILE, NamesOf(others)));
    return arguments;
}

const Argument *FindArgument(const std::vector<Argument> &arguments, const std::string &name)
{
    const auto found = std::find_if(arguments.begin(), arguments.end(),
                                    [&name](const Argument &argument) { return argument.name == name; });
    return found == arguments.end() ? nullptr : &*found;
}

std::vector<std::string> NamesOf(const std::vector<Argument> &arguments)
{
    std::vector<std::string> names;
    for (const Argument &argument : arguments)
        names.push_back(argument.name);
    return names;
}

Json GivenFields(std::span<const Field> fields, const Arguments &arguments)
{
    Json given;
    for (const Field &field : fields) {
        const std::string option = OptionName(field);
        if (arguments.Has(option)) given[field.name] = ParseWord(field, arguments.Text(option));
    }
    return given;
}

Argument Excluding(Argument argument, std::vector<std::string> excluded)
{
    argument.excludes = std::move(excluded);
    return argument;
}

Argument Needing(Argument argument, const char *needed)
{
    argument.needs = {needed};
    return argument;
}

Result RunVerb(const Verb &verb, const Arguments &arguments)
{
    Result result = verb.run(verb, arguments);
    const bool isOptional = arguments.Has(IF_ABSENT.name) || arguments.Has(IF_PRESENT.name);
    for (Step &step : result.steps)
        step.isOptional = step.isOptional || isOptional;
    return result;
}

Result Rows(Json rows)
{
    Result result;
    result.rows = rows.is_array() ? std::move(rows) : Json::array({std::move(rows)});
    return result;
}

Json OrNull(const std::string &text) { return text.empty() ? Json() : Json(text); }

Json RowOf(const Target &target, const Json &fields)
{
    Json row = {{"switch", target.alias}};
    if (!target.port.empty()) row["port"] = target.port;
    row.update(fields);
    return row;
}

Result Changed(const Arguments &arguments, Json rows, bool changes)
{
    if (!arguments.IsDryRun()) return Rows(std::move(rows));
    if (!changes) return {};
    Result result = Rows(std::move(rows));
    result.exit = Exit::PENDING;
    return result;
}

Result Steps(std::vector<Step> steps)
{
    Result result;
    result.steps = std::move(steps);
    return result;
}

Result Text(std::string text)
{
    Result result;
    result.text = std::move(text);
    return result;
}

std::vector<std::string> Verb::Examples() const
{
    std::vector<std::string> commands;
    for (const std::string &example : Words(manual.examples, "\n"))
        commands.push_back("vsctl " + Title() + (example.empty() ? "" : " ") + example);
    return commands;
}

const std::vector<Verb> &Verbs()
{
    static const std::vector<Verb> VERBS = [] {
        std::vector<Verb> all;
        for (auto verbs : {ShowVerbs, TopologyVerbs, TopVerbs, MetricsVerbs, SwitchVerbs, PortVerbs,
                           PolicyVerbs, UplinkVerbs, MacVerbs, StatisticsVerbs, MulticastVerbs, ListVerbs,
                           RuntimeVerbs, PropertyVerbs, ChangeVerbs, GeneralVerbs}) {
            for (Verb &verb : verbs())
                all.push_back(std::move(verb));
        }
        return all;
    }();
    return VERBS;
}

Json VerbRow(const Verb &verb)
{
    Json arguments = Json::array();
    for (const Argument &argument : verb.arguments) {
        const Shape shape = argument.shape;
        arguments.push_back({{"argument", argument.name},
                             {"purpose", argument.help},
                             {"required", shape == Shape::REQUIRED || shape == Shape::MANY},
                             {"repeats", shape == Shape::MANY || shape == Shape::ANY},
                             {"takes-value", shape != Shape::FLAG}});
    }
    return {{"verb", verb.Title()},
            {"purpose", verb.manual.help},
            {"changes", verb.effect != Effect::READS},
            {"arguments", arguments},
            {"examples", verb.Examples()}};
}

std::vector<std::string> Nouns()
{
    std::vector<std::string> nouns;
    for (const Verb &verb : Verbs()) {
        if (!Contains(nouns, verb.noun)) nouns.push_back(verb.noun);
    }
    return nouns;
}

std::vector<std::string> VerbNames(const std::string &noun)
{
    std::vector<std::string> names;
    for (const Verb &verb : Verbs()) {
        if (verb.noun == noun && !verb.name.empty()) names.push_back(verb.name);
    }
    return names;
}

const Verb &TakeVerb(std::vector<std::string> &words)
{
    const std::string noun = words.empty() ? "" : words[0];
    const std::string name = words.size() < 2 || words[1].starts_with("-") ? "" : words[1];
    for (const Verb &verb : Verbs()) {
        if (verb.noun != noun || (!verb.name.empty() && verb.name != name)) continue;
        words.erase(words.begin(), words.begin() + (verb.name.empty() ? 1 : 2));
        return verb;
    }
    ThrowUnknownVerb(noun, name);
}

}
