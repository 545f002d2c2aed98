// vsctl doctor, help, watch, completion and schema.
#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>

#include "cli/base/forward.h"
#include "cli/change/change.h"
#include "cli/change/plan.h"
#include "cli/verbs/completion.h"
#include "cli/verbs/schema.h"
#include "cli/verbs/watch.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

// A part works unless it has a fault.
Json Part(const char *part, const std::string &fault, const std::string &state, const std::string &advice)
{
    const bool works = fault.empty();
    return {{"part", part},
            {"works", works},
            {"state", works ? state : fault},
            {"advice", works ? Json() : Json(advice)}};
}

Json StatePart()
{
    try {
        const Json pending = JournalState();
        return Part("changes", pending.is_null() ? "" : pending.get<std::string>(), "no change is unfinished",
                    "run 'vsctl apply --resume', 'vsctl apply --undo' or 'vsctl confirm'");
    } catch (const Error &error) {
        return Part("changes", error.problem, "", error.advice);
    }
}

Json StorePart()
{
    if (!LibraryFault().empty())
        return Part("configuration store", "not checked: the library does not load", "",
                    "fix the library first");
    int32_t length = 0;
    const NamedProperty nowhere{PropertyLevel::GLOBAL, {"vsctl-doctor", ""}, "com.talpex.common.alias", true};
    const VsStatus status = nowhere.Length(length);
    const bool works = status == STATUS_OK || status == STATUS_NOT_FOUND;
    return Part("configuration store", works ? "" : Describe(status).name, "answers",
                "check that the platform's configuration service runs and that you may use it");
}

Json DevicePart(const char *part, const char *device)
{
    const int error = DeviceError(device);
    return Part(part, error ? fmt::format("{}: {}", device, strerror(error)) : "", device,
                "load the switch driver, or run 'vshost run --state DIR -- vsctl …'");
}

Json HostPart()
{
    if (!IsEmbedded()) return Part("host", "", "a hypervisor", "");
    const auto current = PlatformFunction<decltype(vshost_directory)>("vshost_directory");
    const char *directory = getenv("VSHOST_DIR");
    if (!directory && current) directory = current();
    const bool isNamed = directory && *directory;
    return Part("host", isNamed ? "" : "embedded, but no host is named",
                fmt::format("embedded, in {}", isNamed ? directory : ""),
                "run 'vshost run --state DIR -- vsctl …'");
}

// A row for each stored record that has no effect. It says nothing of the platform.
void AddPolicyParts(Json &rows)
{
    if (!LibraryFault().empty() || !IsEmbedded()) return;
    for (const std::string &switchId : StoredSwitchIds())
        for (const vshost_policy_fault &fault : ListPolicyFaults(switchId)) {
            const std::string alias = AliasOfId(switchId);
            const std::string where = fmt::format("switch {}{}{}", alias.empty() ? switchId : alias,
                                                  fault.portId[0] ? ", port " : "", fault.portId);
            rows.push_back(Part(
                "policy", fmt::format("{}: {} is kept and not enforced: {}", where, fault.key, fault.reason),
                "", "set it again, or remove it with 'vsctl property clear'"));
        }
}

Result Doctor(const Verb &, const Arguments &)
{
    const bool hasShell = system("/bin/tybel -e ls /net/portsets >/dev/null 2>&1") == 0;
    Result result = Rows(
        {StatePart(),
         Part("library", LibraryFault(), VSWITCHCTL_LIBRARY,
              "install the missing library where the loader finds it, or run 'vshost run --state DIR -- "
              "vsctl …'"),
         StorePart(), DevicePart("switch driver", ZOR_DEVICE), DevicePart("RTM device", ZOR_RTM_DEVICE),
         Part("system-information shell", hasShell ? "" : "/bin/tybel does not answer", "answers",
              "without the shell, vsctl cannot create switches or read MTUs: install it, or use an embedded "
              "host")});
    if (LibraryFault().empty()) result.rows.push_back(HostPart());
    for (const Json &part : result.rows) {
        if (!part["works"]) result.exit = part["part"] == "changes" ? Exit::PENDING : Exit::UNREACHABLE;
    }
    AddPolicyParts(result.rows); // which don't change the exit code
    return result;
}

std::string Overview()
{
    std::string text = "vsctl controls the virtual switches of this host.\n\n"
                       "  vsctl NOUN VERB [ARGUMENTS] [--json] [--timeout TIME]\n\n";
    for (const std::string &noun : Nouns()) {
        const auto verbs = VerbNames(noun);
        std::vector<std::string> words = {noun};
        const auto lines =
            verbs.empty() ? std::vector{TakeVerb(words).manual.help} : InLines(verbs, ", ", 14);
        text += fmt::format("  {:<12}{}\n", noun, fmt::join(lines, ",\n              "));
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

// Prints the rows with --json, and the text without it.
Result HelpOf(Json rows, std::string text)
{
    Result result = Rows(std::move(rows));
    result.text = std::move(text);
    return result;
}

Result Help(const Verb &, const Arguments &arguments)
{
    const std::string &noun = arguments.Text("NOUN"), &name = arguments.Text("VERB");
    if (noun == "exit") return HelpOf(ExitCodes(), TableText(ExitCodes()));
    if (noun == "operations") return HelpOf(OperationRows(), TableText(OperationRows()));
    Json rows = Json::array(), purposes = Json::array();
    for (const Verb &verb : Verbs()) {
        if (!noun.empty() && (verb.noun != noun || (!name.empty() && verb.name != name))) continue;
        rows.push_back(VerbRow(verb));
        purposes.push_back({{"verb", verb.Title()}, {"purpose", verb.manual.help}});
    }
    if (noun.empty()) return HelpOf(rows, Overview());
    if (name.empty() && !VerbNames(noun).empty()) return HelpOf(rows, TableText(purposes));
    std::vector<std::string> words = {noun, name};
    return HelpOf(rows, Parser(TakeVerb(words)).Help());
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
