// vsctl: the command.
#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <new>
#include <unistd.h>

#include "cli/base/limit.h"
#include "cli/change/change.h"
#include "cli/verbs/completion.h"
#include "cli/verbs/parser.h"
#include "frontend/output.h"

namespace {

using namespace vsctl;

// Shows the result. When that fails, the change is already made, and the error says so.
Exit Show(const Verb &verb, const Result &result, const Options &options)
{
    const bool isPlan = verb.noun == "plan" || verb.noun == "apply" || verb.noun == "batch";
    const bool hasText = !result.text.empty() && !(options.json && !result.rows.empty());
    try {
        if (hasText)
            Print(result.text);
        else if ((isPlan || options.dryRun) && result.rows.empty() && !options.json)
            Print("nothing to change\n");
        else if (verb.noun != "watch")
            PrintRows(verb.Title(), result.rows, options.json, options.style);
        if (!result.note.empty() && (hasText || !options.json)) Print(result.note + "\n");
        return result.exit;
    } catch (const Error &error) {
        if (verb.effect == Effect::READS || options.dryRun) throw;
        throw Error(error, error.problem, "the change is made, but its result cannot be shown");
    }
}

Exit Run(const std::vector<std::string> &words, Options &options)
{
    if (words[0] == VERSION) {
        Print("vsctl " VSWITCHCTL_VERSION "\n");
        return Exit::DONE;
    }
    std::vector<std::string> rest = words;
    const Verb &verb = TakeVerb(rest);
    Parser parser(verb);
    try {
        const Arguments &arguments = parser.Parse(rest, options);
        StartTimeLimit(options.timeout, options.json);
        Result result = RunVerb(verb, arguments);
        if (verb.noun == "undo") UndoLast(result, options);
        if (!result.steps.empty() || result.planOnly)
            Change(fmt::format("vsctl {}", fmt::join(words, " ")), result, options);
        EndTimeLimit();
        return Show(verb, result, options);
    } catch (const HelpWanted &) {
        if (options.json)
            PrintRows("help", Json::array({VerbRow(verb)}), true);
        else
            Print(parser.Help());
        return Exit::DONE;
    }
}

// `vsctl fleet …` is `vsfleet …`, which has a package of its own. Returns if the words are for vsctl itself.
void BecomeFleet(const std::vector<std::string> &words)
{
    const bool isCompletion = words.size() > 3 && words[0] == "complete" && words[2] == FLEET;
    if (!isCompletion && (words.empty() || words[0] != FLEET)) return;
    std::vector<std::string> command(words.begin() + (isCompletion ? 2 : 0), words.end());
    command[0] = "vsfleet";
    if (isCompletion) command.insert(command.begin() + 1, "complete");
    std::vector<char *> arguments;
    for (std::string &word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    execv((self.parent_path() / command[0]).c_str(), arguments.data());
    execvp(arguments[0], arguments.data());
    throw Error(Exit::NOT_FOUND, "vsfleet, the command for fleets, is not installed",
                "install the package vsfleet");
}

// Keeps a file that vsctl opens from becoming a standard stream that the caller has closed.
void HoldStandardStreams()
{
    for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // Opened for the wrong direction, so that using it fails as on a closed stream.
        if (fcntl(stream, F_GETFD) < 0) open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

}

int main(int count, char **given)
{
    HoldStandardStreams();
    const std::vector<std::string> words(given + 1, given + count);
    Options options;
    // Errors in the words themselves are printed in this form too.
    options.json = std::count(words.begin(), std::find(words.begin(), words.end(), "--"), "--json") > 0;
    try {
        BecomeFleet(words);
        return static_cast<int>(Run(OptionsBehindVerb(words), options));
    } catch (const Error &error) {
        PrintError(error, options.json);
        return static_cast<int>(error.exit);
    } catch (const std::bad_alloc &) {
        PrintError(Error(Exit::FAILURE, "not enough memory"), options.json);
    } catch (const std::exception &error) {
        PrintError(Error(Exit::FAILURE, error.what(), "this is a bug in vsctl: please report it"),
                   options.json);
    }
    return static_cast<int>(Exit::FAILURE);
}
