// vsfleet: the agent of a host, the driver of rollouts, and the commands of operators.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "fleet/agent/agent.h"
#include "fleet/command/commands.h"

namespace {

using namespace vsfleet;

// Exit codes of vsctl.
constexpr int FAILURE = 1, USAGE = 2, UNREACHABLE = 6, PERMISSION = 7;

struct Command {
    const char *name;
    const char *help;
    Action (*add)(CLI::App &command); // gives the command its arguments
};

constexpr Command COMMANDS[] = {
    {"agent", "Make this host follow its documents", AddAgent},
    {"drive", "Carry rollouts out; one of all drivers does at a time", AddDrive},
    {"push", "Make hosts follow a new revision of a document", AddPush},
    {"diff", "Show what a push would change on each host, and change nothing", AddDiff},
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
    {"enroll", "Make the key, certificate, user and role of a host, or renew them", AddEnroll},
    {"release", "Let another machine have a host's name", AddRelease},
    {"adopt", "Take an etcd that was restored for the right one", AddAdopt},
    {"setup", "Make a certificate authority, or write roles into etcd", AddSetup},
};

int Fail(const std::exception &error, int code)
{
    fprintf(stderr, "vsfleet: %s\n", error.what());
    return code;
}

int Run(const Action &action, const std::string &configFile)
{
    try {
        return action(configFile);
    } catch (const EtcdError &error) {
        return Fail(error, error.kind == EtcdError::Kind::UNREACHABLE ? UNREACHABLE
                           : error.kind == EtcdError::Kind::DENIED    ? PERMISSION
                                                                      : FAILURE);
    } catch (const std::exception &error) {
        return Fail(error, FAILURE);
    }
}

}

int main(int argc, char **argv)
{
    CLI::App app("Keeps the virtual switches of many hosts as documents in etcd describe them", "vsfleet");
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
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) ? USAGE : 0;
    }
    return Run(action, configFile);
}
