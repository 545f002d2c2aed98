// Shell completion: the words that can come next on a command line.
#include "cli/verbs/completion.h"

#include "cli/base/platform.h"
#include "cli/verbs/parser.h"
#include "cli/verbs/schema.h"

namespace vsctl {

namespace {

std::vector<std::string> VerbNames(const std::string &noun)
{
    std::vector<std::string> names;
    for (const Verb &verb : Verbs()) {
        if (verb.noun == noun && !verb.name.empty()) names.push_back(verb.name);
    }
    return names;
}

std::vector<std::string> RunningUplinkNames(const std::string &alias)
{
    std::vector<std::string> names;
    for (const Json &row : IsEmbedded() ? RunningUplinks(alias) : Json::array())
        names.push_back(row["uplink"]);
    return names;
}

// None when the platform does not answer. A platform that does not list ports still lists uplinks, which are
// ports too.
std::vector<std::string> PortIds(const std::string &alias)
{
    std::vector<std::string> ids;
    try {
        if (!IsEmbedded()) return ReadUplinks(alias).ids;
        for (const vshost_port &port : PortsOf(alias))
            ids.emplace_back(port.id);
    } catch (const Error &) {
    }
    return ids;
}

// Names on the host; none when the platform does not answer.
std::vector<std::string> LiveNames(Names names, const std::string &alias)
{
    try {
        if (names == Names::SWITCH) return SwitchNames();
        if (names == Names::UPLINK) return ReadUplinks(alias).ids;
        if (names == Names::RUNNING_UPLINK) return RunningUplinkNames(alias);
    } catch (const Error &) {
    }
    return {};
}

// The values that a rule allows, where they are few.
std::vector<std::string> FixedValues(const std::optional<Field> &rule)
{
    if (!rule || (rule->form != Form::CHOICE && rule->form != Form::BOOLEAN)) return {};
    auto values =
        rule->form == Form::CHOICE ? Words(rule->choices, "|") : std::vector<std::string>{"on", "off"};
    if (rule->canBeNone) values.push_back(NONE);
    return values;
}

// The properties of the rows that the verb prints.
std::vector<std::string> ColumnNames(const Verb &verb)
{
    std::vector<std::string> names;
    const Json schema = OutputSchema();
    for (const Json &rule : schema["allOf"]) {
        if (rule["if"]["properties"]["command"]["const"] != verb.Title()) continue;
        const Json &rows = rule["then"]["properties"]["result"]["items"];
        for (const Json &kind : rows.contains("anyOf") ? rows["anyOf"] : Json::array({rows})) {
            const std::string reference = kind.value("$ref", "#");
            if (reference.ends_with("/opaque")) continue;
            const Json &row = reference == "#" ? kind : schema[Json::json_pointer(reference.substr(1))];
            for (const auto &[name, property] : row["properties"].items())
                names.push_back(name);
        }
    }
    return names;
}

// What a word before its last comma or range has, so that lists of names can be completed.
std::string ListStart(const std::string &typed)
{
    const size_t comma = typed.rfind(','), dots = typed.rfind("..");
    const size_t start =
        std::max(comma == std::string::npos ? 0 : comma + 1, dots == std::string::npos ? 0 : dots + 2);
    return typed.substr(0, start);
}

std::vector<std::string> Prefixed(const std::string &prefix, std::vector<std::string> names)
{
    for (std::string &name : names)
        name.insert(0, prefix);
    return names;
}

std::vector<std::string> OptionNames(const Verb &verb)
{
    std::vector<std::string> names;
    for (const Argument &argument : AllArguments(verb)) {
        if (argument.name.starts_with("-")) names.push_back(argument.name);
    }
    return names;
}

const Argument *FindArgument(const std::vector<Argument> &arguments, const std::string &name)
{
    for (const Argument &argument : arguments) {
        if (argument.name == name) return &argument;
    }
    return nullptr;
}

// The positional argument that the last word stands for. `alias` receives the first one, which names the
// switch.
const Argument *Positional(const std::vector<Argument> &arguments, const std::vector<std::string> &words,
                           std::string &alias)
{
    size_t position = 0;
    for (size_t i = 0; i + 1 < words.size(); i++) {
        const Argument *option = FindArgument(arguments, words[i]);
        if (option && option->shape == Shape::OPTION) i++;
        if (words[i].starts_with("-") || (option && option->shape == Shape::OPTION)) continue;
        if (position++ == 0) alias = words[i];
    }
    const Argument *last = nullptr;
    for (const Argument &argument : arguments) {
        if (argument.name.starts_with("-")) continue;
        last = &argument;
        if (position-- == 0) return last;
    }
    return last && (last->shape == Shape::MANY || last->shape == Shape::ANY) ? last : nullptr;
}

std::vector<std::string> CompleteArguments(const Verb &verb, const std::vector<std::string> &words)
{
    const std::vector<Argument> arguments = AllArguments(verb);
    const Argument *option = words.size() > 1 ? FindArgument(arguments, words[words.size() - 2]) : nullptr;
    const bool isValue = option && option->shape == Shape::OPTION;
    if (!isValue && words.back().starts_with("-")) return OptionNames(verb);
    std::string alias;
    const Argument *argument = Positional(arguments, words, alias);
    if (isValue) argument = option;
    if (!argument) return {};
    if (argument->names == Names::NOUN) return Nouns();
    if (argument->names == Names::VERB) return VerbNames(alias);
    if (argument->name == "--columns") return Prefixed(ListStart(words.back()), ColumnNames(verb));
    if (argument->names == Names::PORT) return Prefixed(ListStart(words.back()), PortIds(alias));
    if (argument->name == "VALUE" && verb.policy) return FixedValues(verb.policy->fields[0]);
    const auto values = FixedValues(argument->rule);
    return values.empty() ? LiveNames(argument->names, alias) : values;
}

// Options that stand before the noun are left out.
std::vector<std::string> WithoutLeadingOptions(const std::vector<std::string> &words)
{
    size_t first = 0;
    const auto takesWord = [](const std::string &option) {
        return TakesWord(option) || option == "--interval" || option == "--times"; // the last two are watch's
    };
    while (first + 1 < words.size() && words[first].starts_with("-"))
        first += takesWord(words[first]) ? 2 : 1;
    return {words.begin() + static_cast<ptrdiff_t>(std::min(first, words.size() - 1)), words.end()};
}

// What can begin a command line.
std::vector<std::string> FirstWords()
{
    std::vector<std::string> words = Nouns();
    words.push_back(FLEET);
    return words;
}

std::vector<std::string> Candidates(const std::vector<std::string> &given)
{
    const std::vector<std::string> words = WithoutLeadingOptions(given);
    if (words.size() == 1)
        return words[0].starts_with("-") ? std::vector<std::string>{"--json", "--timeout", VERSION, "--help"}
                                         : FirstWords();
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    if (words[0] == "watch") return Candidates(rest);
    if (const auto verbs = VerbNames(words[0]); words.size() == 2 && !verbs.empty()) return verbs;
    try {
        size_t used = 0;
        const Verb &verb = FindVerb(words, used);
        return CompleteArguments(verb, {words.begin() + static_cast<ptrdiff_t>(used), words.end()});
    } catch (const Error &) {
        return {};
    }
}

// bash makes three words of --option=value. Other shells leave it one word, and a candidate is that word.
struct Line {
    explicit Line(std::vector<std::string> given) : words(std::move(given))
    {
        for (size_t i = 1; i < words.size(); i++) {
            if (words[i] != "=" || !words[i - 1].starts_with("--")) continue;
            if (i + 1 == words.size()) words.emplace_back();
            words.erase(words.begin() + static_cast<ptrdiff_t>(i));
        }
        if (words.empty()) words.emplace_back();
        const std::string last = words.back();
        const size_t equals = last.find('=');
        if (!last.starts_with("--") || equals == std::string::npos) return;
        option = last.substr(0, equals + 1);
        words.back() = last.substr(0, equals);
        words.push_back(last.substr(equals + 1));
    }
    std::vector<std::string> words;
    std::string option; // with its "="
};

constexpr const char *BASH = R"(_vsctl()
{
    local IFS=$'\n'
    COMPREPLY=($(vsctl complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null))
    COMPREPLY=("${COMPREPLY[@]@Q}")
    COMPREPLY=("${COMPREPLY[@]#\'}")
    COMPREPLY=("${COMPREPLY[@]%\'}")
}
complete -o default -F _vsctl vsctl
)";

constexpr const char *ZSH = R"(#compdef vsctl
_vsctl()
{
    local -a candidates
    candidates=("${(@f)$(vsctl complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)}")
    if [[ -n "${candidates[1]}" ]]; then compadd -a candidates; else compset -P '--*='; _files; fi
}
if [[ $funcstack[1] == _vsctl ]]; then _vsctl "$@"; else compdef _vsctl vsctl; fi
)";

constexpr const char *FISH = R"(function __vsctl_candidates
    set -l words (commandline -opc) (commandline -ct)
    set -l candidates (vsctl complete -- $words[2..-1] 2>/dev/null)
    if count $candidates >/dev/null
        printf '%s\n' $candidates
    else
        set -l option (string match -r -- '^--[^=]*=' $words[-1])
        set -l paths (__fish_complete_path (string replace -- "$option" '' $words[-1]))
        test -z "$paths"; or printf '%s\n' "$option"$paths
    end
end
complete -c vsctl -f -a '(__vsctl_candidates)'
)";

}

std::vector<std::string> Complete(const std::vector<std::string> &words)
{
    const Line line(words);
    std::vector<std::string> matching;
    for (const std::string &candidate : Candidates(line.words)) {
        if (candidate.starts_with(line.words.back())) matching.push_back(line.option + candidate);
    }
    return matching;
}

std::string CompletionScript(const std::string &shell)
{
    if (shell == "bash") return BASH;
    if (shell == "zsh") return ZSH;
    return FISH;
}

}
