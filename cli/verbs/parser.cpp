// Reads the command line with CLI11, which no other file uses. Only the arguments of one verb are built.
#include "cli/verbs/parser.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <set>

#include "frontend/output.h"

namespace vsctl {

namespace {

const Argument JSON{"--json", Shape::FLAG, "Print JSON"};
const Argument TIMEOUT{"--timeout", Shape::OPTION, "Longest wait, like 500ms, 30s or 2m (default 30s)"};
const Argument STYLE = Excluding({"-o", Shape::OPTION, "How rows are printed: table, wide or name",
                                  Names::NONE, Field{"", Form::CHOICE, "", 0, 0, "table|wide|name"}},
                                 {"--json"});
const Argument COLUMNS =
    Excluding({"--columns", Shape::OPTION, "Columns to print, like port,vlan"}, {"--json"});
const Argument DRY_RUN{"--dry-run", Shape::FLAG, "Show what would change and change nothing"};
const Argument QUIET{"--quiet", Shape::FLAG, "Show neither progress nor a summary"};

std::string Footer(const Verb &verb)
{
    const std::string footer = fmt::format("Examples:\n  {}", fmt::join(verb.Examples(), "\n  "));
    if (verb.manual.operations.empty()) return footer;
    const auto lines = InLines(Words(verb.manual.operations, " "), " ", 2);
    return footer + fmt::format("\nLibrary operations:\n  {}", fmt::join(lines, "\n  "));
}

void AddArgument(CLI::App &app, const Argument &argument, std::vector<std::string> &slot)
{
    if (argument.shape == Shape::FLAG) {
        app.add_flag_function(
            argument.name, [&slot](int64_t) { slot = {"on"}; }, argument.help);
        return;
    }
    const auto setSlot = [&slot](const std::string &word) { slot = {word}; };
    const bool repeats = argument.shape == Shape::MANY || argument.shape == Shape::ANY;
    CLI::Option *option = repeats
                              ? app.add_option(argument.name, slot, argument.help)->expected(-1)
                              : app.add_option_function<std::string>(argument.name, setSlot, argument.help);
    const bool isFlag = argument.rule && argument.rule->form == Form::BOOLEAN;
    if (isFlag) option->expected(0, 1)->default_str("on"); // --notify is --notify on
    option->type_name("")->required(argument.shape == Shape::REQUIRED || argument.shape == Shape::MANY);
    if (!argument.rule) return;
    option->check([rule = *argument.rule, name = argument.name](const std::string &word) {
        ParseWord(rule, word, name);
        return std::string();
    });
}

// Leaves exclusions out of the help: CLI11 lists them in no particular order.
class HelpFormat : public CLI::Formatter {
    std::string make_usage(const CLI::App *app, std::string name) const override
    {
        if (!app->get_prefix_command()) return CLI::Formatter::make_usage(app, name);
        return fmt::format("Usage: {} [OPTIONS] NOUN VERB [ARGUMENTS]\n", name);
    }

    std::string make_option_desc(const CLI::Option *option) const override
    {
        const size_t margin = get_column_width();
        return fmt::format("{}", fmt::join(Wrapped(CLI::Formatter::make_option_desc(option),
                                                   std::max(TerminalWidth(), margin + 20) - margin),
                                           "\n"));
    }

    std::string make_option_opts(const CLI::Option *option) const override
    {
        const std::string repeats = option->get_expected_max() > 1 ? " ..." : "";
        return repeats + (option->get_required() ? " REQUIRED" : "");
    }
};

void ReadCommon(const Arguments &arguments, Options &options)
{
    if (arguments.Has("--json")) options.json = true;
    if (arguments.Has("--dry-run")) options.dryRun = true;
    if (arguments.Has("--quiet")) options.quiet = true;
    options.style.form = arguments.Text(STYLE.name, "table");
    if (arguments.Has(COLUMNS.name)) options.style.columns = Words(arguments.Text(COLUMNS.name), ",");
    options.timeout = arguments.Seconds(TIMEOUT.name, options.timeout);
}

// The words of CLI11, as one line in the style of other errors.
std::string Problem(const CLI::ParseError &error)
{
    std::string problem = error.what();
    std::replace(problem.begin(), problem.end(), '\n', ' ');
    const std::string first = problem.substr(0, problem.find_first_of(": "));
    const std::string last = problem.substr(problem.rfind(' ') + 1);
    if (dynamic_cast<const CLI::ExcludesError *>(&error))
        return fmt::format("{} and {} exclude each other", first, last);
    if (dynamic_cast<const CLI::ArgumentMismatch *>(&error)) return fmt::format("{} requires a value", first);
    if (dynamic_cast<const CLI::ExtrasError *>(&error)) return "unexpected argument " + last;
    return problem;
}

Error UsageError(const Verb &verb, const CLI::ParseError &error, const std::vector<std::string> &words)
{
    std::string advice;
    const auto names = NamesOf(AllArguments(verb));
    for (const std::string &word : words) {
        const std::string name = word.substr(0, word.find('='));
        const bool isOption = name.size() > 2 && name.starts_with("--");
        if (isOption && !Contains(names, name)) advice = Suggest(name, names);
    }
    if (advice.empty()) advice = fmt::format("see 'vsctl help {}'", verb.Title());
    return Error(Exit::USAGE, fmt::format("{}: {}", verb.Title(), Problem(error)), advice);
}

bool Takes(const Verb &verb, const std::string &name) { return FindArgument(verb.arguments, name); }

// The alias of the switch with this id, and ports behind a slash.
std::string ByAlias(const std::string &word)
{
    const size_t slash = SwitchIdExists(word) ? std::string::npos : word.rfind('/');
    const std::string id = word.substr(0, slash), alias = AliasOfId(id);
    if (alias.empty()) {
        throw Error(Exit::NOT_FOUND, fmt::format("no switch with a name has the id '{}'", id),
                    "'vsctl switch list' shows the ids of the switches");
    }
    return slash == std::string::npos ? alias : alias + word.substr(slash);
}

// With --all-ports no port is named: the word in the place of PORT is the next argument.
void ShiftPort(const Verb &verb, Arguments &arguments)
{
    std::vector<std::string> &port = arguments.Slot("PORT");
    if (!arguments.Has(ALL_PORTS.name) || port.empty()) return;
    const bool hasValue = Takes(verb, "VALUE") && !arguments.Has("VALUE");
    if (!hasValue)
        throw Error(Exit::USAGE, "PORT and --all-ports exclude each other", "name ports, or all of them");
    std::swap(arguments.Slot("VALUE"), port);
}

bool IsHelp(const std::string &word) { return word == "-h" || word == "--help"; }

// Whether the words name a noun without the verb that it needs.
bool LacksVerb(const std::vector<std::string> &words)
{
    return (words.size() < 2 || words[1].starts_with("-")) && !VerbNames(words[0]).empty();
}

}

std::vector<Argument> AllArguments(const Verb &verb)
{
    std::vector<Argument> arguments = verb.arguments;
    const Argument *alias = FindArgument(arguments, SWITCH.name);
    if (alias && alias->names == Names::SWITCH && !Takes(verb, BY_ID.name)) arguments.push_back(BY_ID);
    arguments.push_back(JSON);
    if (verb.effect == Effect::STEPS) {
        if (verb.name == "create" || verb.name == "add") arguments.push_back(IF_ABSENT);
        if (verb.name == "destroy" || verb.name == "remove") arguments.push_back(IF_PRESENT);
    }
    if (verb.effect != Effect::READS) arguments.insert(arguments.end(), {DRY_RUN, QUIET});
    if (verb.PrintsTable()) arguments.insert(arguments.end(), {STYLE, COLUMNS});
    arguments.push_back(TIMEOUT);
    return arguments;
}

Parser::Parser(const Verb &verb)
    : verb(verb), app(std::make_unique<CLI::App>(verb.manual.help, "vsctl " + verb.Title()))
{
    auto format = std::make_shared<HelpFormat>();
    format->column_width(24);
    app->formatter(std::move(format));
    app->set_help_flag("-h,--help", "Show this help");
    for (const Argument &argument : AllArguments(verb))
        AddArgument(*app, argument, arguments.Slot(argument.name));
    for (const Argument &argument : AllArguments(verb)) {
        CLI::Option *const option = app->get_option(argument.name);
        for (const std::string &other : argument.excludes)
            option->excludes(app->get_option(other));
        for (const std::string &other : argument.needs)
            option->needs(app->get_option(other));
    }
    if (verb.noun == "watch") app->prefix_command();
    app->footer([&verb] { return Footer(verb); });
}

Parser::~Parser() = default;

const Arguments &Parser::Parse(const std::vector<std::string> &words, Options &options)
{
    arguments.Clear();
    try {
        app->parse(std::vector<std::string>(words.rbegin(), words.rend()));
    } catch (const CLI::CallForHelp &) {
        throw HelpWanted();
    } catch (const CLI::ParseError &error) {
        throw UsageError(verb, error, words);
    }
    if (verb.noun == "watch") arguments.Slot("COMMAND") = app->remaining();
    ReadCommon(arguments, options);
    ShiftPort(verb, arguments);
    if (arguments.Has(BY_ID.name) && !Takes(verb, BY_ID.name)) {
        for (std::string &word : arguments.Slot(SWITCH.name))
            word = ByAlias(word);
    }
    return arguments;
}

std::string Parser::Help() const { return app->help(); }

size_t LeadingOptions(const std::vector<std::string> &words)
{
    static const std::set<std::string> TAKE_WORD = {TIMEOUT.name, STYLE.name, COLUMNS.name, "--interval",
                                                    "--times"}; // the last two are watch's
    size_t count = 0;
    while (count < words.size() && words[count].starts_with("-"))
        count += TAKE_WORD.contains(words[count]) ? 2 : 1;
    return std::min(count, words.size());
}

std::vector<std::string> OptionsBehindVerb(std::vector<std::string> words)
{
    const auto noun = words.begin() + static_cast<ptrdiff_t>(LeadingOptions(words));
    std::vector<std::string> options(words.begin(), noun);
    words.erase(words.begin(), noun);
    if (Contains(options, VERSION)) return {VERSION};
    if (words.empty()) {
        words = {"help"};
        std::erase_if(options, IsHelp);
    }
    const bool lacksVerb = LacksVerb(words);
    std::vector<std::string> rest = words;
    if (lacksVerb)
        rest.erase(rest.begin());
    else
        TakeVerb(rest);
    words.insert(words.end() - static_cast<ptrdiff_t>(rest.size()), options.begin(), options.end());
    // `vsctl switch --help` is `vsctl help switch`.
    if (lacksVerb && std::erase_if(words, IsHelp)) words.insert(words.begin(), "help");
    return words;
}

std::vector<std::string> SplitLine(const std::string &line)
{
    if (line.find('\0') != std::string::npos) throw Error(Exit::USAGE, "the line contains a NUL byte");
    std::vector<std::string> words;
    bool inWord = false;
    char quote = 0;
    for (size_t i = 0; i < line.size(); i++) {
        const char c = line[i];
        if (!quote && isspace(static_cast<unsigned char>(c))) {
            inWord = false;
            continue;
        }
        if (!inWord) words.emplace_back();
        inWord = true;
        const bool escapes = !quote || (quote == '"' && strchr("\"\\$`", line[i + 1]));
        if (c == '\\' && quote != '\'' && i + 1 < line.size() && escapes)
            words.back() += line[++i];
        else if (c == quote)
            quote = 0;
        else if (!quote && (c == '"' || c == '\''))
            quote = c;
        else
            words.back() += c;
    }
    if (quote) throw Error(Exit::USAGE, fmt::format("the quote {} is not closed", quote));
    return words;
}

}
