// vsfleet: the agent of a host, the driver of rollouts, and the commands of operators.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <sstream>

#include "fleet/agent/agent.h"
#include "fleet/command/commands.h"
#include "fleet/command/output.h"

namespace {

using namespace vsfleet;

struct Command {
    const char *name;
    const char *help;
    Action (*add)(CLI::App &command); // gives the command its arguments
};

constexpr Command COMMANDS[] = {
    {"agent", "Make this host follow its documents", AddAgent},
    {"drive", "Carry rollouts out; one of all drivers does at a time", AddDrive},
    {"push", "Make hosts follow a new revision of a document", AddPush},
    {"diff", "Show what a push would change, and change nothing", AddDiff},
    {"status", "Show the documents, or the hosts of one", AddStatus},
    {"hosts", "Show all hosts", AddHosts},
    {"watch", "Show the status, and each change of it", AddWatch},
    {"history", "Show who changed a document, when and how", AddHistory},
    {"rollback", "Make hosts follow an earlier revision", AddRollback},
    {"pause", "Begin no further wave of a rollout", AddPause},
    {"resume", "Go on with a paused rollout", AddResume},
    {"abort", "Stop a rollout, and bring its hosts back", AddAbort},
    {"remove", "Make hosts no longer follow a document", AddRemove},
    {"label", "Show or change the labels of a host", AddLabel},
    {"enroll", "Make or renew a host's certificate, user and role", AddEnroll},
    {"release", "Let another machine have a host's name", AddRelease},
    {"adopt", "Take an etcd that was restored for the right one", AddAdopt},
    {"setup", "Make a certificate authority, or write roles into etcd", AddSetup},
};

constexpr size_t WIDTH = 80, COLUMN = 26;

class HelpFormat : public CLI::Formatter {
    std::string make_option_desc(const CLI::Option *option) const override
    {
        std::string text, line;
        std::istringstream words(CLI::Formatter::make_option_desc(option));
        for (std::string word; words >> word;) {
            if (line.size() + 1 + word.size() > WIDTH - COLUMN) text += std::exchange(line, "") + "\n";
            line += (line.empty() ? "" : " ") + word;
        }
        return text + line;
    }

    std::string make_option_opts(const CLI::Option *option) const override
    {
        const std::string type = option->get_type_name(),
                          repeats = option->get_expected_max() > 1 ? " ..." : "";
        const std::string value =
            option->nonpositional() && !type.empty() ? " " + type.substr(0, type.find(':')) : "";
        return value + repeats + (option->get_required() ? " REQUIRED" : "");
    }
};

// Null: there is no such command.
const CLI::App *FindCommand(const CLI::App &app, const std::string &name)
{
    const auto found =
        app.get_subcommands([&](const CLI::App *command) { return command->get_name() == name; });
    return found.empty() ? nullptr : found[0];
}

// Prints what the last of the words can be: a command or an option. `vsctl complete` asks for it.
int Complete(const CLI::App &app, const std::vector<std::string> &words)
{
    std::vector<std::string> names;
    if (words.size() == 1) {
        for (const CLI::App *command : app.get_subcommands({}))
            names.push_back(command->get_name());
    } else if (const CLI::App *command = FindCommand(app, words[0])) {
        for (const CLI::Option *option : command->get_options())
            names.push_back(option->get_name());
    }
    std::erase_if(names, [&words](const std::string &name) { return !name.starts_with(words.back()); });
    for (const std::string &name : names)
        Print(name + "\n");
    const bool takesFile = words.size() > 1 && (words[0] == "push" || words[words.size() - 2] == "--config");
    if (names.empty() && takesFile) Print(":files\n"); // the shell completes its name
    return 0;
}

int Fail(const std::exception &error, Exit exit)
{
    fprintf(stderr, "vsfleet: %s\n", error.what());
    return static_cast<int>(exit);
}

int Run(const Action &action, const std::string &configFile)
{
    try {
        return action(configFile);
    } catch (const EtcdError &error) {
        return Fail(error, error.kind == EtcdError::Kind::UNREACHABLE ? Exit::UNREACHABLE
                           : error.kind == EtcdError::Kind::DENIED    ? Exit::PERMISSION
                                                                      : Exit::FAILURE);
    } catch (const std::exception &error) {
        return Fail(error, Exit::FAILURE);
    }
}

}

int main(int argc, char **argv)
{
    CLI::App app("Keeps the virtual switches of many hosts as documents in etcd describe them", "vsfleet");
    const auto format = std::make_shared<HelpFormat>();
    format->column_width(COLUMN);
    app.formatter(format); // and of all commands, which are made later
    app.set_version_flag("--version", "vsfleet " VSWITCHCTL_VERSION);
    app.require_subcommand(1);
    app.fallthrough(); // --config may stand behind the command
    std::string configFile = CONFIG_FILE;
    app.add_option("--config", configFile, "The configuration file; else $VSFLEET_CONFIG")
        ->envname("VSFLEET_CONFIG")
        ->capture_default_str();
    Action action;
    for (const Command &command : COMMANDS) {
        CLI::App &added = *app.add_subcommand(command.name, command.help);
        added.callback([&action, act = command.add(added)] { action = act; });
    }
    app.add_subcommand("help", "Show the commands, or explain one");
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "help") { // the same as --help
        words.erase(words.begin());
        words.push_back("--help");
    }
    if (words.size() > 1 && words[0] == "complete") return Complete(app, {words.begin() + 1, words.end()});
    try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    } catch (const CLI::ParseError &error) {
        return static_cast<int>(app.exit(error) ? Exit::USAGE : Exit::DONE);
    }
    return Run(action, configFile);
}
