// vsctl plan, apply, confirm, export and batch: changes of many steps.
#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>

#include "cli/base/clock.h"
#include "cli/base/limit.h"
#include "cli/change/change.h"
#include "cli/change/plan.h"
#include "cli/verbs/parser.h"
#include "frontend/files.h"

namespace vsctl {

namespace {

Document ReadDocument(const std::string &path)
{
    return {path == "-" ? "standard input" : path, ReadFile(path)};
}

std::vector<Step> StepsOfFile(const Arguments &arguments)
{
    const Document document = ReadDocument(arguments.Text("FILE"));
    if (!arguments.Has("--replaces")) return PlanSteps(document);
    return PlanSteps(document, ReadDocument(arguments.Text("--replaces")));
}

// What can be said of a file without a host; with --json, the file as JSON.
Result CheckFile(const Arguments &arguments)
{
    const Document document = ReadDocument(arguments.Text("FILE"));
    CheckDocument(document);
    return Text(arguments.Has("--json") ? document.Root().dump() + "\n" : "the file is valid\n");
}

Result Plan(const Verb &, const Arguments &arguments)
{
    if (arguments.Has("--check")) return CheckFile(arguments);
    Result result;
    result.steps = StepsOfFile(arguments);
    result.planOnly = true;
    return result;
}

// What undoing or finishing a journal changes is not known beforehand.
void RefuseDryRun(const Arguments &arguments)
{
    if (arguments.IsDryRun())
        throw Error(Exit::USAGE, "an unfinished change has no dry run", "'vsctl doctor' shows the change");
}

Result Apply(const Verb &, const Arguments &arguments)
{
    if (!arguments.Has("FILE")) {
        if (!arguments.Has("--resume") && !arguments.Has("--undo"))
            throw Error(Exit::USAGE, "there is nothing to apply", "give a FILE, --resume or --undo");
        RefuseDryRun(arguments);
        if (arguments.Has("--if-rebooted")) return Rows(UndoJournalOfOtherBoot());
        return Rows(arguments.Has("--resume") ? ResumeJournal() : UndoJournal());
    }
    Result result;
    result.confirmWithin = arguments.Seconds("--confirm-within", 0);
    if (arguments.Has("--deadline"))
        result.deadline = SecondsSinceBoot() + arguments.Seconds("--deadline", 0);
    result.steps = StepsOfFile(arguments);
    result.allowRemovals = arguments.Has("--allow-removals");
    return result;
}

Result Confirm(const Verb &, const Arguments &arguments)
{
    RefuseDryRun(arguments);
    Result result;
    if (arguments.Has("--guard"))
        GuardJournal(arguments.Text("--guard"), arguments.Seconds("--after", 0));
    else
        result.rows = ConfirmJournal();
    return result;
}

// What is undone is known when the change is undone.
Result Undo(const Verb &, const Arguments &) { return {}; }

std::string FileText(const Json &file, bool isJson)
{
    try {
        const std::string json = file.dump(2) + "\n";
        return isJson ? json : TomlText(file);
    } catch (const Json::type_error &) {
        throw Error(Exit::FAILURE, "a stored text is not UTF-8, and a file holds only UTF-8",
                    "'vsctl port show' and 'vsctl switch show' show the text");
    }
}

Result Export(const Verb &, const Arguments &arguments)
{
    std::vector<Target> targets;
    for (const std::string &word : arguments.Has("SWITCH") ? arguments.List("SWITCH") : SwitchNames()) {
        const size_t slash = SwitchExists(word) ? std::string::npos : word.rfind('/');
        const bool hasPorts = slash != std::string::npos;
        for (const std::string &port :
             hasPorts ? PortNames(word.substr(slash + 1)) : std::vector{std::string()})
            targets.push_back({word.substr(0, slash), port});
    }
    return Text(FileText(ExportFile(targets), arguments.Has("--json")));
}

void RunEditor(const std::string &path)
{
    const char *editor = getenv("VISUAL");
    if (!editor || !*editor) editor = getenv("EDITOR");
    const std::string command = fmt::format("{} {}", editor && *editor ? editor : "vi", path);
    EndTimeLimit();
    if (system(command.c_str()) != 0)
        throw Error(Exit::FAILURE, fmt::format("the editor failed: {}", command),
                    "set EDITOR to one that works");
}

// What the user deletes from the file goes.
Result Edit(const Verb &, const Arguments &arguments)
{
    const std::string text = FileText(ExportFile({{arguments.Text("SWITCH"), ""}}), false);
    Result result;
    result.edited = std::make_shared<Edited>(text);
    result.asks = true;
    RunEditor(result.edited->file.path);
    try {
        result.steps =
            PlanSteps(ReadDocument(result.edited->file.path), ReadDocument(result.edited->before.path));
    } catch (const Error &error) {
        throw Error(error, error.problem, fmt::format("correct it, then run '{}'", result.edited->Keep()));
    }
    if (result.steps.empty()) result.text = "nothing to change\n";
    return result;
}

// The steps of one line; none for a blank line or a comment.
std::vector<Step> LineSteps(const std::string &line, std::map<std::string, std::unique_ptr<Parser>> &parsers)
{
    std::vector<std::string> words = SplitLine(line);
    if (words.empty() || words[0].starts_with("#")) return {};
    if (words[0] == "vsctl") words.erase(words.begin());
    const Verb &verb = TakeVerb(words);
    const Error unfit(Exit::USAGE, verb.Title() + " is not a change that can be undone",
                      "a batch takes only such changes");
    if (verb.effect != Effect::STEPS) throw unfit;
    auto &parser = parsers[verb.Title()];
    if (!parser) parser = std::make_unique<Parser>(verb);
    Options options;
    const Arguments &arguments = parser->Parse(words, options);
    if (options.dryRun) throw Error(Exit::USAGE, "a line cannot have --dry-run", "give it to batch itself");
    Result result = RunVerb(verb, arguments);
    if (result.steps.empty()) throw unfit;
    return std::move(result.steps);
}

Result Batch(const Verb &, const Arguments &arguments)
{
    const std::string path = arguments.Text("FILE", "-");
    std::map<std::string, std::unique_ptr<Parser>> parsers;
    Result result;
    size_t number = 0;
    for (const std::string &line : Words(ReadFile(path), "\n")) {
        number++;
        RestartTimeLimit(); // reading many lines is progress, not waiting
        try {
            for (Step &step : LineSteps(line, parsers))
                result.steps.push_back(std::move(step));
        } catch (const Error &error) {
            throw Error(
                error, fmt::format("{}:{}: {}", path == "-" ? "standard input" : path, number, error.problem),
                error.advice);
        }
    }
    result.allowRemovals = arguments.Has("--allow-removals");
    return result;
}

const Argument FILE_ARGUMENT{"FILE", Shape::REQUIRED, "Desired state, TOML or JSON (- for standard input)",
                             Names::FILE};
const Argument ALLOW{"--allow-removals", Shape::FLAG, "Allow removals, which an undo restores only in part"};

const Argument REPLACES =
    Needing({"--replaces", Shape::OPTION,
             "An older file: what it names and FILE doesn't is removed or cleared", Names::FILE},
            "FILE");

std::vector<Argument> ApplyArguments()
{
    Argument someFile = Excluding(FILE_ARGUMENT, {"--resume", "--undo"});
    someFile.shape = Shape::OPTIONAL;
    return {
        someFile,
        REPLACES,
        ALLOW,
        Needing({"--confirm-within", Shape::OPTION, "Undo it all after this time without 'vsctl confirm'"},
                "FILE"),
        Needing({"--deadline", Shape::OPTION, "Undo it all when it isn't done after this time"}, "FILE"),
        Excluding({"--resume", Shape::FLAG, "Finish a change that was cut short"}, {"--undo"}),
        {"--undo", Shape::FLAG, "Undo a change that was cut short or is unconfirmed"},
        Needing({"--if-rebooted", Shape::FLAG,
                 "Undo only a change that waited for confirmation before the machine was "
                 "restarted"},
                "--undo")};
}

}

std::vector<Verb> ChangeVerbs()
{
    return {
        Reads("plan", Plan,
              {FILE_ARGUMENT, REPLACES,
               Excluding(
                   {"--check", Shape::FLAG, "Check the file alone, without a host; --json prints it as JSON"},
                   {"--replaces"})},
              {"Show what apply would change; exit code 10 if anything",
               "lab.toml\nlab.toml --replaces old.toml\nlab.toml --check", "", "@change"}),
        ChangesNow("apply", Apply, ApplyArguments(),
                   {"Make switches and ports as a file describes them: all or nothing",
                    "lab.toml\nlab.toml --confirm-within 60s\n--undo", "", "@change | @outcome"}),
        ChangesNow("confirm", Confirm,
                   {{"--guard", Shape::OPTION, "(used by vsctl itself) Undo the change with this id"},
                    {"--after", Shape::OPTION, "(used by vsctl itself) Wait for this time first"}},
                   {"Keep the changes of apply --confirm-within", "", "", "@outcome"}),
        Reads("export", Export,
              {{"SWITCH", Shape::ANY,
                "Switches (default: all), with some of their ports as in lab/port0..port7", Names::SWITCH}},
              {"Write a file for apply that describes what exists",
               "> host.toml\nlab > lab.toml\nlab/port0..port7", ""}),
        ChangesNow("edit", Edit, {SWITCH},
                   {"Edit the file of a switch in $EDITOR and apply it", "lab", "", "@change"}),
        ChangesNow("undo", Undo, {},
                   {"Take back the last change, which is shown first", "\n--dry-run", "", "@change"}),
        ChangesNow(
            "batch", Batch,
            {{"FILE", Shape::OPTIONAL, "Commands, one a line (default: standard input)", Names::FILE}, ALLOW},
            {"Run the changes of a file: all or nothing", "changes.txt\n< changes.txt", "", "@change"}),
    };
}

}
