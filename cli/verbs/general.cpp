// vsctl doctor, help, watch, completion and schema.
#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

#include "cli/base/forward.h"
#include "cli/change/change.h"
#include "cli/change/plan.h"
#include "cli/verbs/completion.h"
#include "cli/verbs/schema.h"
#include "cli/verbs/watch.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

Json Part(const char *part, bool works, const std::string &state, const std::string &advice)
{
    return {{"part", part}, {"works", works}, {"state", state}, {"advice", works ? Json() : Json(advice)}};
}

Json LibraryPart()
{
    const std::string fault = LibraryFault();
    return Part(
        "library", fault.empty(), fault.empty() ? VSWITCHCTL_LIBRARY : fault,
        "install the missing library where the loader finds it, or run 'vshost run --state DIR -- vsctl …'");
}

Json StorePart()
{
    if (!LibraryFault().empty())
        return Part("configuration store", false, "not checked: the library does not load",
                    "fix the library first");
    int32_t length = 0;
    const NamedProperty nowhere{PropertyLevel::GLOBAL, {"vsctl-doctor", ""}, "com.talpex.common.alias", true};
    const VsStatus status = nowhere.Length(length);
    const bool works = status == STATUS_OK || status == STATUS_NOT_FOUND;
    return Part("configuration store", works, works ? "answers" : Describe(status).name,
                "check that the platform's configuration service runs and that you may use it");
}

Json DevicePart(const char *part, const char *device, const char *advice)
{
    const int error = DeviceError(device);
    return Part(part, error == 0, error ? fmt::format("{}: {}", device, strerror(error)) : device, advice);
}

Json ShellPart()
{
    const int result = system("/bin/tybel -e ls /net/portsets >/dev/null 2>&1");
    return Part("system-information shell", result == 0,
                result == 0 ? "answers" : "/bin/tybel does not answer",
                "without the shell, vsctl cannot create switches or read MTUs: install it, or use an "
                "embedded host");
}

Json StatePart()
{
    try {
        const Json pending = JournalState();
        return Part("changes", pending.is_null(),
                    pending.is_null() ? "no change is unfinished" : pending.get<std::string>(),
                    "run 'vsctl apply --resume', 'vsctl apply --undo' or 'vsctl confirm'");
    } catch (const Error &error) {
        return Part("changes", false, error.problem, error.advice);
    }
}

Json HostPart()
{
    if (!IsEmbedded()) return Part("host", true, "a hypervisor", "");
    const auto current = PlatformFunction<decltype(vshost_directory)>("vshost_directory");
    const char *directory = getenv("VSHOST_DIR");
    if (!directory && current) directory = current();
    const bool isNamed = directory && *directory;
    return Part("host", isNamed,
                isNamed ? fmt::format("embedded, in {}", directory) : "embedded, but no host is named",
                "run 'vshost run --state DIR -- vsctl …'");
}

// A row for each stored record that has no effect.
Json PolicyParts()
{
    Json rows = Json::array();
    if (!LibraryFault().empty() || !IsEmbedded()) return rows;
    for (const std::string &switchId : StoredSwitchIds())
        for (const vshost_policy_fault &fault : ListPolicyFaults(switchId)) {
            const std::string alias = AliasOfId(switchId);
            const std::string where = fmt::format("switch {}{}{}", alias.empty() ? switchId : alias,
                                                  fault.portId[0] ? ", port " : "", fault.portId);
            rows.push_back(
                Part("policy", false,
                     fmt::format("{}: {} is kept and not enforced: {}", where, fault.key, fault.reason),
                     "set it again, or remove it with 'vsctl property clear'"));
        }
    return rows;
}

Result Doctor(const Verb &, const Arguments &)
{
    const char *onHost = "load the switch driver, or run 'vshost run --state DIR -- vsctl …'";
    Result result;
    result.rows = Json::array({LibraryPart(), StorePart(), DevicePart("switch driver", ZOR_DEVICE, onHost),
                               DevicePart("RTM device", ZOR_RTM_DEVICE, onHost), ShellPart()});
    result.rows.insert(result.rows.begin(), StatePart());
    if (LibraryFault().empty()) result.rows.push_back(HostPart());
    for (const Json &part : result.rows) {
        if (!part["works"]) result.exit = part["part"] == "changes" ? Exit::PENDING : Exit::UNREACHABLE;
    }
    // These say nothing of the platform, and don't change the exit code.
    for (Json &part : PolicyParts())
        result.rows.push_back(std::move(part));
    return result;
}

std::string Overview()
{
    std::string text = "vsctl controls the virtual switches of this host.\n\n"
                       "  vsctl NOUN VERB [ARGUMENTS] [--json] [--timeout TIME]\n\n";
    for (const std::string &noun : Nouns()) {
        std::vector<std::string> verbs;
        std::string help;
        for (const Verb &verb : Verbs()) {
            if (verb.noun != noun) continue;
            if (!verb.name.empty()) verbs.push_back(verb.name);
            help = verb.manual.help;
        }
        const std::string rest =
            verbs.empty() ? help
                          : fmt::format("{}", fmt::join(InLines(verbs, ", ", 14), ",\n              "));
        text += fmt::format("  {:<12}{}\n", noun, rest);
    }
    return text + "\n'vsctl help NOUN VERB' explains a verb with examples. 'vsctl help exit' lists\n"
                  "the exit codes, and 'vsctl help operations' lists the library operations\n"
                  "with the verbs that use them. 'vsctl fleet' is vsfleet, for many hosts.\n";
}

Json ExitCodes()
{
    Json rows = Json::array();
    for (int code = 0; code < EXITS; code++)
        rows.push_back({{"code", code}, {"meaning", MeaningOf(static_cast<Exit>(code))}});
    return rows;
}

// One row for each operation, with the verbs that use it.
Json OperationRows()
{
    std::map<std::string, std::string> users;
    for (const Verb &verb : Verbs()) {
        if (verb.manual.operations.empty()) continue;
        for (const std::string &operation : Words(verb.manual.operations, " ")) {
            std::string &list = users[operation];
            list += (list.empty() ? "" : ", ") + verb.Title();
        }
    }
    Json rows = Json::array();
    for (const auto &[operation, verbs] : users)
        rows.push_back({{"operation", operation}, {"verbs", verbs}});
    return rows;
}

// A table of the verbs of a noun; empty where the noun is the whole command.
std::string NounHelp(const std::string &noun)
{
    Json rows = Json::array();
    for (const Verb &verb : Verbs()) {
        if (verb.noun == noun && !verb.name.empty())
            rows.push_back({{"verb", verb.Title()}, {"purpose", verb.manual.help}});
    }
    return TableText(rows);
}

// Prints the rows with --json, and the text without it.
Result HelpOf(Json rows, std::string text)
{
    Result result = Rows(std::move(rows));
    result.text = std::move(text);
    return result;
}

Result HelpOn(const std::string &noun, const std::string &name)
{
    if (noun == "exit") return HelpOf(ExitCodes(), TableText(ExitCodes()));
    if (noun == "operations") return HelpOf(OperationRows(), TableText(OperationRows()));
    Json rows = Json::array();
    for (const Verb &verb : Verbs()) {
        if (noun.empty() || (verb.noun == noun && (name.empty() || verb.name == name)))
            rows.push_back(VerbRow(verb));
    }
    if (noun.empty()) return HelpOf(rows, Overview());
    if (const std::string verbs = NounHelp(noun); name.empty() && !verbs.empty()) return HelpOf(rows, verbs);
    size_t used = 0;
    return HelpOf(rows, Parser(FindVerb({noun, name}, used)).Help());
}

Result Help(const Verb &, const Arguments &arguments)
{
    return HelpOn(arguments.Text("NOUN"), arguments.Text("VERB"));
}

Result CompleteWords(const Verb &, const Arguments &arguments)
{
    Result result;
    for (const std::string &candidate : Complete(arguments.List("WORD")))
        result.text += candidate + "\n";
    return result;
}

Result Script(const Verb &, const Arguments &arguments)
{
    return Text(CompletionScript(arguments.Text("SHELL")));
}

Result ShowSchema(const Verb &, const Arguments &arguments)
{
    return Text((arguments.Has("--output") ? OutputSchema() : PlanSchema()).dump(2) + "\n");
}

}

std::vector<Verb> GeneralVerbs()
{
    Argument shell{"SHELL", Shape::REQUIRED, "Bash, zsh or fish"};
    shell.rule = Field{"", Form::CHOICE, "", 0, 0, "bash|zsh|fish"};
    return {
        Reads("watch", Watch,
              {{"--interval", Shape::OPTION, "Time between two runs (default 1s)"},
               NumberOption("--times", "Number of runs (default: until Ctrl-C)", UINT32_MAX)},
              {"Repeat a verb that reads and show what changes",
               "uplink list lab\n--interval 200ms port show lab port0 --json", "LibraryInit"}),
        Reads("doctor", Doctor, {},
              {"Show which parts of the platform work, and how to fix the others", "", "",
               "part, works:boolean, state, advice?"}),
        Reads("completion", Script, {shell},
              {"Print the completion script of a shell", "bash > /etc/bash_completion.d/vsctl", ""}),
        Reads("complete", CompleteWords, {{"WORD", Shape::ANY, "The words after vsctl"}},
              {"Print completions of a command line, for the completion scripts", "-- switch sh", ""}),
        Reads("schema", ShowSchema, {{"--output", Shape::FLAG, "Print the schema of what --json prints"}},
              {"Print the JSON schema of the files for plan and apply", "\n--output", ""}),
        Reads("help", Help,
              {{"NOUN", Shape::OPTIONAL, "A noun, 'exit' or 'operations'", Names::NOUN},
               {"VERB", Shape::OPTIONAL, "One of its verbs", Names::VERB}},
              {"Explain nouns and verbs", "port vlan\napply", "",
               "@verb | code:number, meaning | operation, verbs"}),
    };
}

}
