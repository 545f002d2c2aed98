// The table of verbs, and the words given to one.
#include "cli/verbs/verb.h"

#include <charconv>
#include <fmt/format.h>

namespace vsctl {

bool Arguments::Has(const std::string &name) const
{
    const auto found = words.find(name);
    return found != words.end() && !found->second.empty();
}

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

uint32_t Arguments::Number(const std::string &name, uint32_t absent, uint32_t max) const
{
    if (!Has(name)) return absent;
    const std::string help = name;
    const Field field{"", Form::NUMBER, help.c_str(), 0, max};
    try {
        return ParseWord(field, Text(name)).get<uint32_t>();
    } catch (const Error &) {
        throw Error(Exit::BAD_VALUE,
                    fmt::format("{} must be a number from 0 to {}, not '{}'", name, max, Text(name)));
    }
}

Target Arguments::Target() const { return {Text("SWITCH"), Text("PORT")}; }

std::vector<Target> Arguments::Ports() const
{
    std::vector<struct Target> ports;
    for (const std::string &port : PortNames(Text("PORT")))
        ports.push_back({Text("SWITCH"), port});
    return ports;
}

void RefuseBytes(const Arguments &arguments, const char *fields)
{
    if (arguments.Has("--hex") || arguments.Has("--file"))
        throw Error(Exit::USAGE, fmt::format("{} and --hex or --file exclude each other", fields));
}

Bytes GivenBytes(const Arguments &arguments, size_t size)
{
    if (arguments.Has("--hex") == arguments.Has("--file"))
        throw Error(Exit::USAGE, "the bytes are given by --hex or by --file");
    Bytes bytes;
    if (arguments.Has("--hex")) {
        bytes = FromHex(arguments.Text("--hex"));
    } else {
        const std::string content = ReadFile(arguments.Text("--file"));
        bytes.assign(content.begin(), content.end());
    }
    if (size && bytes.size() != size)
        throw Error(Exit::BAD_VALUE, fmt::format("{} bytes are needed, not {}", size, bytes.size()));
    return bytes;
}

Verb Reads(std::string noun, std::string name, std::string help, std::vector<Argument> arguments,
           std::string example, std::string operations, Result (*run)(const Verb &, const Arguments &))
{
    return {std::move(noun),
            std::move(name),
            std::move(help),
            std::move(arguments),
            std::move(example),
            std::move(operations),
            run};
}

Verb Changes(std::string noun, std::string name, std::string help, std::vector<Argument> arguments,
             std::string example, std::string operations, Result (*run)(const Verb &, const Arguments &))
{
    Verb verb = Reads(std::move(noun), std::move(name), std::move(help), std::move(arguments),
                      std::move(example), std::move(operations), run);
    verb.effect = Effect::STEPS;
    return verb;
}

Verb ChangesNow(std::string noun, std::string name, std::string help, std::vector<Argument> arguments,
                std::string example, std::string operations, Result (*run)(const Verb &, const Arguments &))
{
    Verb verb = Reads(std::move(noun), std::move(name), std::move(help), std::move(arguments),
                      std::move(example), std::move(operations), run);
    verb.effect = Effect::DIRECT;
    return verb;
}

Result Rows(Json rows)
{
    Result result;
    result.rows = rows.is_array() ? std::move(rows) : Json::array({std::move(rows)});
    return result;
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

const std::vector<Verb> &Verbs()
{
    static const std::vector<Verb> VERBS = [] {
        std::vector<Verb> all;
        for (auto verbs : {SwitchVerbs, PortVerbs, PolicyVerbs, UplinkVerbs, MacVerbs, MulticastVerbs,
                           MirrorVerbs, RuntimeVerbs, PropertyVerbs, ChangeVerbs, GeneralVerbs}) {
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
    Json examples = Json::array();
    for (const std::string &example : Words(verb.example, '\n'))
        examples.push_back("vsctl " + verb.Title() + (example.empty() ? "" : " ") + example);
    return {{"verb", verb.Title()},
            {"purpose", verb.help},
            {"changes", verb.effect != Effect::READS},
            {"arguments", arguments},
            {"examples", examples}};
}

std::vector<std::string> Nouns()
{
    std::vector<std::string> nouns;
    for (const Verb &verb : Verbs()) {
        if (std::find(nouns.begin(), nouns.end(), verb.noun) == nouns.end()) nouns.push_back(verb.noun);
    }
    return nouns;
}

namespace {

[[noreturn]] void ThrowUnknownVerb(const std::string &noun, const std::string &name)
{
    std::vector<std::string> names;
    for (const Verb &verb : Verbs()) {
        if (verb.noun == noun) names.push_back(verb.name);
    }
    if (names.empty()) {
        const std::string suggestion = Suggest(noun, Nouns());
        throw Error(Exit::USAGE, fmt::format("there is no noun '{}'", noun),
                    suggestion.empty() ? "'vsctl help' lists them" : suggestion);
    }
    const std::string list = fmt::format("{} can {}", noun, fmt::join(names, ", "));
    if (name.empty()) throw Error(Exit::USAGE, fmt::format("'{}' needs a verb", noun), list);
    const std::string suggestion = Suggest(name, names);
    throw Error(Exit::USAGE, fmt::format("{} has no verb '{}'", noun, name),
                suggestion.empty() ? list : suggestion);
}

}

const Verb &FindVerb(const std::vector<std::string> &words, size_t &used)
{
    const std::string noun = words.empty() ? "" : words[0];
    const std::string name = words.size() < 2 ? "" : words[1];
    for (const Verb &verb : Verbs()) {
        if (verb.noun != noun || (!verb.name.empty() && verb.name != name)) continue;
        used = verb.name.empty() ? 1 : 2;
        return verb;
    }
    ThrowUnknownVerb(noun, name);
}

}
