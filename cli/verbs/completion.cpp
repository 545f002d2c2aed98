// Shell completion: the words that can come next on a command line.
#include "cli/verbs/completion.h"

#include "cli/base/platform.h"
#include "cli/verbs/parser.h"
#include "cli/verbs/schema.h"

namespace vsctl {

namespace {

// The only candidate where a file can stand: the shell completes its name.
constexpr const char *FILES = ":files";

// Names of files or on the host; none when the platform does not answer. A platform that does not list ports
// still lists uplinks, which are ports too.
std::vector<std::string> LiveNames(Names names, const std::string &alias)
{
    std::vector<std::string> found;
    try {
        if (names == Names::FILE) return {FILES};
        if (names == Names::SWITCH) return SwitchNames();
        if (names == Names::UPLINK || (names == Names::PORT && !IsEmbedded())) return ReadUplinks(alias).ids;
        for (const vshost_port &port : names == Names::PORT ? PortsOf(alias) : std::vector<vshost_port>())
            found.emplace_back(port.id);
        if (names == Names::RUNNING_UPLINK && IsEmbedded())
            for (const Json &row : RunningUplinks(alias))
                found.push_back(row["uplink"]);
    } catch (const Error &) {
    }
    return found;
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

// The names behind the last comma or range of a list, with what stands before it.
std::vector<std::string> AsList(const std::string &typed, std::vector<std::string> names)
{
    const size_t comma = typed.rfind(','), dots = typed.rfind("..");
    const size_t start =
        std::max(comma == std::string::npos ? 0 : comma + 1, dots == std::string::npos ? 0 : dots + 2);
    for (std::string &name : names)
        name.insert(0, typed, 0, start);
    return names;
}

// The positional argument that the last word stands for. `alias` receives the first one, which names the
// switch.
const Argument *Positional(const std::vector<Argument> &options, const std::vector<Argument> &positionals,
                           const std::vector<std::string> &words, std::string &alias)
{
    size_t position = 0;
    for (size_t i = 0; i + 1 < words.size(); i++) {
        const Argument *option = FindArgument(options, words[i]);
        if (option && option->shape == Shape::OPTION)
            i++; // its value
        else if (!words[i].starts_with("-") && position++ == 0)
            alias = words[i];
    }
    if (position < positionals.size()) return &positionals[position];
    const Shape last = positionals.empty() ? Shape::FLAG : positionals.back().shape;
    return last == Shape::MANY || last == Shape::ANY ? &positionals.back() : nullptr;
}

std::vector<std::string> CompleteArguments(const Verb &verb, const std::vector<std::string> &words)
{
    std::vector<Argument> options, positionals;
    for (const Argument &argument : AllArguments(verb))
        (argument.name.starts_with("-") ? options : positionals).push_back(argument);
    const Argument *option = words.size() > 1 ? FindArgument(options, words[words.size() - 2]) : nullptr;
    const bool isValue = option && option->shape == Shape::OPTION;
    if (!isValue && words.back().starts_with("-")) return NamesOf(options);
    std::string alias;
    const Argument *argument = Positional(options, positionals, words, alias);
    if (isValue) argument = option;
    if (!argument) return {};
    if (argument->names == Names::NOUN) return Nouns();
    if (argument->names == Names::VERB) return VerbNames(alias);
    if (argument->name == "--columns") return AsList(words.back(), ColumnNames(verb));
    if (argument->name == "VALUE" && verb.policy) return FixedValues(verb.policy->fields[0]);
    if (const auto values = FixedValues(argument->rule); !values.empty()) return values;
    const auto names = LiveNames(argument->names, alias);
    return argument->names == Names::PORT ? AsList(words.back(), names) : names;
}

std::vector<std::string> Candidates(std::vector<std::string> words)
{
    const size_t first = std::min(LeadingOptions(words), words.size() - 1);
    words.erase(words.begin(), words.begin() + static_cast<ptrdiff_t>(first));
    if (words.size() == 1 && words[0].starts_with("-")) return {"--json", "--timeout", VERSION, "--help"};
    if (words.size() == 1) {
        words = Nouns();
        words.push_back(FLEET);
        return words;
    }
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    if (words[0] == "watch" && LeadingOptions(rest) < rest.size()) return Candidates(rest);
    if (const auto verbs = VerbNames(words[0]); words.size() == 2 && !verbs.empty()) return verbs;
    try {
        const Verb &verb = TakeVerb(words);
        return CompleteArguments(verb, words);
    } catch (const Error &) {
        return {};
    }
}

constexpr const char *BASH = R"(_vsctl()
{
    local IFS=$'\n'
    COMPREPLY=($(vsctl complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null))
    if [[ $COMPREPLY == :files ]]; then
        compopt -o default
        COMPREPLY=()
    fi
    COMPREPLY=("${COMPREPLY[@]@Q}")
    COMPREPLY=("${COMPREPLY[@]#\'}")
    COMPREPLY=("${COMPREPLY[@]%\'}")
}
complete -F _vsctl vsctl
)";

constexpr const char *ZSH = R"(#compdef vsctl
_vsctl()
{
    local -a candidates
    candidates=("${(@f)$(vsctl complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)}")
    if [[ "${candidates[1]}" == :files ]]; then
        compset -P '--*='
        _files
    elif [[ -n "${candidates[1]}" ]]; then
        compadd -a candidates
    fi
}
if [[ $funcstack[1] == _vsctl ]]; then _vsctl "$@"; else compdef _vsctl vsctl; fi
)";

constexpr const char *FISH = R"(function __vsctl_candidates
    set -l words (commandline -opc) (commandline -ct)
    set -l candidates (vsctl complete -- $words[2..-1] 2>/dev/null)
    if test "$candidates" = :files
        set -l option (string match -r -- '^--[^=]*=' $words[-1])
        set candidates "$option"(__fish_complete_path (string replace -- "$option" '' $words[-1]))
    end
    test -z "$candidates"; or printf '%s\n' $candidates
end
complete -c vsctl -f -a '(__vsctl_candidates)'
)";

}

std::vector<std::string> Complete(const std::vector<std::string> &given)
{
    std::vector<std::string> words, matching;
    std::string option; // with its "=": a candidate is the whole word
    for (const std::string &word : given) {
        // bash makes three words of --option=value.
        if (word == "=" && !words.empty() && words.back().starts_with("--")) continue;
        const size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
        words.push_back(word.substr(0, equals));
        option = equals == std::string::npos ? "" : word.substr(0, equals + 1);
        if (!option.empty()) words.push_back(word.substr(equals + 1));
    }
    if (words.empty() || (given.back() == "=" && words.back() != "=")) words.emplace_back();
    for (const std::string &candidate : Candidates(words)) {
        if (candidate == FILES) return {FILES};
        if (candidate.starts_with(words.back())) matching.push_back(option + candidate);
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
