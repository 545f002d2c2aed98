// Shell completion: the words that can come next on a command line.
#include "cli/verbs/completion.h"

#include "cli/base/platform.h"
#include "cli/verbs/parser.h"

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

// A platform that does not list ports still lists uplinks, which are ports too.
std::vector<std::string> PortIds(const std::string &alias)
{
    if (!IsEmbedded()) return ReadUplinks(alias).ids;
    std::vector<std::string> ids;
    for (const vshost_port &port : PortsOf(alias))
        ids.emplace_back(port.id);
    return ids;
}

// Names on the host; none when the platform does not answer.
std::vector<std::string> LiveNames(Names names, const std::string &alias)
{
    try {
        if (names == Names::SWITCH) return SwitchNames();
        if (names == Names::UPLINK) return ReadUplinks(alias).ids;
        if (names == Names::PORT) return PortIds(alias);
        if (names == Names::RUNNING_UPLINK) return RunningUplinkNames(alias);
    } catch (const Error &) {
    }
    return {};
}

std::vector<std::string> OptionNames(const Verb &verb)
{
    std::vector<std::string> names;
    for (const Argument &argument : AllArguments(verb)) {
        if (argument.name.starts_with("--")) names.push_back(argument.name);
    }
    return names;
}

const Argument *FindArgument(const Verb &verb, const std::string &name)
{
    for (const Argument &argument : verb.arguments) {
        if (argument.name == name) return &argument;
    }
    return nullptr;
}

// The positional argument that the last word stands for. `alias` receives the first one, which names the
// switch.
const Argument *Positional(const Verb &verb, const std::vector<std::string> &words, std::string &alias)
{
    size_t position = 0;
    for (size_t i = 0; i + 1 < words.size(); i++) {
        const Argument *option = FindArgument(verb, words[i]);
        if (option && option->shape == Shape::OPTION) i++;
        if (words[i].starts_with("--") || (option && option->shape == Shape::OPTION)) continue;
        if (position++ == 0) alias = words[i];
    }
    const Argument *last = nullptr;
    for (const Argument &argument : verb.arguments) {
        if (argument.name.starts_with("--")) continue;
        last = &argument;
        if (position-- == 0) return last;
    }
    return last && (last->shape == Shape::MANY || last->shape == Shape::ANY) ? last : nullptr;
}

std::vector<std::string> CompleteArguments(const Verb &verb, const std::vector<std::string> &words)
{
    if (words.back().starts_with("-")) return OptionNames(verb);
    std::string alias;
    const Argument *argument = Positional(verb, words, alias);
    const Argument *option = words.size() > 1 ? FindArgument(verb, words[words.size() - 2]) : nullptr;
    if (option && option->shape == Shape::OPTION) argument = option;
    if (!argument) return {};
    if (argument->names == Names::NOUN) return Nouns();
    if (argument->names == Names::VERB) return VerbNames(alias);
    return LiveNames(argument->names, alias);
}

std::vector<std::string> Candidates(const std::vector<std::string> &words)
{
    if (words.size() <= 1) return Nouns();
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
    if [[ -n "${candidates[1]}" ]]; then compadd -a candidates; else _files; fi
}
if [[ $funcstack[1] == _vsctl ]]; then _vsctl "$@"; else compdef _vsctl vsctl; fi
)";

constexpr const char *FISH = R"(function __vsctl_candidates
    set -l words (commandline -opc) (commandline -ct)
    set -l candidates (vsctl complete -- $words[2..-1] 2>/dev/null)
    if count $candidates >/dev/null
        printf '%s\n' $candidates
    else
        __fish_complete_path (commandline -ct)
    end
end
complete -c vsctl -f -a '(__vsctl_candidates)'
)";

}

std::vector<std::string> Complete(const std::vector<std::string> &words)
{
    const std::string typed = words.empty() ? "" : words.back();
    std::vector<std::string> matching;
    for (const std::string &candidate : Candidates(words)) {
        if (candidate.starts_with(typed)) matching.push_back(candidate);
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
