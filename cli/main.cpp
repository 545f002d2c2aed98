// vsctl: the command.
#include <fmt/format.h>
#include <new>

#include "change.h"
#include "limit.h"
#include "output.h"

namespace {

using namespace vsctl;

Exit Finish(const Verb &verb, const Result &result, const Options &options)
{
    if (!result.text.empty()) {
        Print(result.text);
        return result.exit;
    }
    const bool isPlan = verb.noun == "plan" || verb.noun == "apply" || verb.noun == "batch";
    if (isPlan && result.rows.empty() && !options.json)
        Print("nothing to change\n");
    else if (verb.noun != "watch")
        PrintRows(verb.Title(), result.rows, options.json);
    if (!result.note.empty() && !options.json) Print(result.note + "\n");
    return result.exit;
}

Exit Run(std::vector<std::string> words, Options &options)
{
    words = ParseLeading(words, options);
    if (words.empty()) words = {"help"};
    size_t used = 0;
    const Verb &verb = FindVerb(words, used);
    Parser parser(verb);
    try {
        const Arguments &arguments =
            parser.Parse({words.begin() + static_cast<ptrdiff_t>(used), words.end()}, options);
        StartTimeLimit(options.timeout);
        Result result = verb.run(verb, arguments);
        if (!result.steps.empty() || result.planOnly)
            Change(fmt::format("vsctl {}", fmt::join(words, " ")), result, options);
        return Finish(verb, result, options);
    } catch (const HelpWanted &) {
        Print(parser.Help());
        return Exit::DONE;
    }
}

}

int main(int count, char **words)
{
    Options options;
    try {
        return static_cast<int>(Run({words + 1, words + count}, options));
    } catch (const HelpWanted &) {
        return static_cast<int>(Run({"help"}, options));
    } catch (const Error &error) {
        PrintError(error, options.json);
        return static_cast<int>(error.exit);
    } catch (const std::bad_alloc &) {
        PrintError(Error(Exit::FAILURE, "not enough memory"), options.json);
    } catch (const std::exception &error) {
        PrintError(Error(Exit::FAILURE, error.what(), "this is a fault of vsctl itself: please report it"),
                   options.json);
    }
    return static_cast<int>(Exit::FAILURE);
}
