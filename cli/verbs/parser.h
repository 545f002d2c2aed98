// The command line.
#pragma once

#include <memory>

#include "cli/verbs/verb.h"

namespace CLI {
class App;
}

namespace vsctl {

// Reads the words of one verb; a batch uses it again for each line with that verb.
class Parser {
public:
    explicit Parser(const Verb &verb);
    ~Parser();
    // Sets the options that are given.
    const Arguments &Parse(const std::vector<std::string> &words, Options &options);
    std::string Help() const;

private:
    const Verb &verb;
    std::unique_ptr<CLI::App> app;
    Arguments arguments;
};

// Thrown for --help.
struct HelpWanted {};

inline constexpr const char *VERSION = "--version"; // the only option that goes without a verb

// Options may stand before the noun too: the same words with all of them behind the verb.
std::vector<std::string> OptionsBehindVerb(std::vector<std::string> words);
// The words of a line, with quotes as in a shell.
std::vector<std::string> SplitLine(const std::string &line);
double ParseSeconds(const std::string &name, const std::string &text);

// The arguments of a verb, and the options that every verb takes.
std::vector<Argument> AllArguments(const Verb &verb);

}
