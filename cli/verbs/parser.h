// The command line.
#pragma once

#include <memory>

#include "cli/verbs/verb.h"

namespace CLI {
class App;
}

namespace vsctl {

// Reads the arguments of one verb. `batch` reuses it for each line with that verb.
class Parser {
public:
    explicit Parser(const Verb &verb);
    ~Parser();
    // Sets those options that the words give.
    const Arguments &Parse(const std::vector<std::string> &words, Options &options);
    std::string Help() const;

private:
    const Verb &verb;
    std::unique_ptr<CLI::App> app;
    Arguments arguments;
};

// Thrown for --help.
struct HelpWanted {};

inline constexpr const char *VERSION = "--version"; // the only option that needs no verb

// How many of the words are options before the noun, with their values.
size_t LeadingOptions(const std::vector<std::string> &words);
// Moves options that stand before the noun behind the verb.
std::vector<std::string> OptionsBehindVerb(std::vector<std::string> words);
// Splits a line into words, with quotes as in a shell.
std::vector<std::string> SplitLine(const std::string &line);

// The arguments of a verb, and the options that every verb takes.
std::vector<Argument> AllArguments(const Verb &verb);

}
