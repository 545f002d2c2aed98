// vshost: runs programs on an embedded host, and shows and changes what is on one.
#include <algorithm>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string_view>

#include "platform/launcher/launcher.h"
#include "platform/store/plugging.h"

namespace {

using namespace vshost;

// What the command line says.
struct Options {
    RunOptions run;
    NicOptions nic;
    std::string durability = "disk";
    std::string state, boundNic, switchName, portId, interface;
    bool json = false;
    bool keeps = false;
    int (*action)(const Options &) = nullptr;
};

using Action = int (*)(const Options &);

CLI::App &AddCommand(CLI::App &parent, Options &options, const char *name, const char *help, Action action)
{
    CLI::App *command = parent.add_subcommand(name, help);
    // A command with commands of its own acts when none of these is given.
    command->callback([command, &options, action] {
        if (command->get_subcommands().empty()) options.action = action;
    });
    return *command;
}

CLI::Option *
AddState(CLI::App &command, Options &options,
         const char *help = "Directory of the host; without it, the host that this process is on")
{
    return command.add_option("--state", options.state, help);
}

void AddRun(CLI::App &app, Options &options)
{
    const Action act = [](const Options &given) { return RunOnHost(given.run); };
    CLI::App &run = AddCommand(app, options, "run", "Run a program and its child processes on a host", act);
    run.add_option("--state", options.run.state,
                   "Directory of the host, created if it is missing; without it the host is a "
                   "throw-away host");
    run.add_option("--durability", options.durability,
                   "disk: a write that succeeds is on disk; process: it survives the "
                   "death of any process")
        ->check(CLI::IsMember({"disk", "process"}))
        ->capture_default_str();
    run.add_option("--scenario", options.run.scenario,
                   "JSON file with NICs, links, MAC tables, statistics, faults")
        ->check(CLI::ExistingFile);
    run.add_option("command", options.run.command, "The program and its arguments, after \"--\"")->required();
}

CLI::App &AddNic(CLI::App &app, Options &options)
{
    const Action act = [](const Options &given) { return ChangeNic(given.state, given.nic); };
    CLI::App &nic = AddCommand(app, options, "nic", "Add a physical NIC or change it", act);
    nic.add_option("name", options.nic.name, "Name of the NIC");
    AddState(nic, options);
    nic.add_option("--link", options.nic.link, "Carrier")->check(CLI::IsMember({"up", "down"}));
    nic.add_option("--admin", options.nic.admin, "Administrative state")
        ->check(CLI::IsMember({"up", "down"}));
    nic.add_option("--duplex", options.nic.duplex, "Duplex")->check(CLI::IsMember({"full", "half"}));
    nic.add_option("--speed", options.nic.speed, "Speed in Mb/s")->check(CLI::Range(1, 10000000));
    nic.add_option("--mtu", options.nic.mtu, "MTU in bytes")->check(CLI::Range(MIN_MTU, MAX_MTU));
    nic.add_option("--max-mtu", options.nic.maxMtu, "Largest MTU that the NIC accepts")
        ->check(CLI::Range(MIN_MTU, MAX_MTU));
    nic.add_option("--numa-node", options.nic.numaNode, "NUMA node of the device")
        ->check(CLI::Range(0, 1023));
    return nic;
}

void AddHostCommands(CLI::App &app, Options &options)
{
    CLI::App &show = AddCommand(app, options, "show", "Show switches, portsets, ports and NICs of a host",
                                [](const Options &given) { return ShowHost(given.state, given.json); });
    AddState(show, options);
    show.add_flag("--json", options.json, "As JSON");

    AddState(AddCommand(app, options, "reset",
                        "Reboot: end everything that runs, then run the stored switches",
                        [](const Options &given) { return ResetHost(given.state); }),
             options);

    const Action bindNic = [](const Options &given) {
        return BindNicOnHost(given.state, given.boundNic, given.switchName, given.portId);
    };
    CLI::App &bind = AddCommand(app, options, "bind", "Bind a NIC to an uplink port of a switch", bindNic);
    AddState(bind, options);
    bind.add_option("nic", options.boundNic, "Name of the NIC")->required();
    bind.add_option("switch", options.switchName, "Alias, id or portset name of the switch")->required();
    bind.add_option("port", options.portId, "Id of the uplink port")->required();

    CLI::App &remove =
        AddCommand(app, options, "remove-nic", "Remove a NIC from the host",
                   [](const Options &given) { return RemoveNic(given.state, given.boundNic); });
    AddState(remove, options);
    remove.add_option("name", options.boundNic, "Name of the NIC")->required();
}

void AddInterface(CLI::App &command, Options &options)
{
    command.add_option("interface", options.interface, "Name of the network interface")->required();
}

void AddKeep(CLI::App &command, Options &options)
{
    command.add_flag("--keep", options.keeps, "Keep it after the next start of the machine");
}

int Plug(const Options &given)
{
    EnterLiveHost(given.state);
    return Answered(
        PlugInterface(given.switchName.c_str(), given.portId.c_str(), given.interface.c_str(), given.keeps));
}

int Unplug(const Options &given)
{
    EnterLiveHost(given.state);
    return Answered(UnplugInterface(given.interface.c_str()));
}

int AddLiveNicToHost(const Options &given)
{
    EnterLiveHost(given.state);
    return Answered(AddLiveNic(given.interface.c_str(), given.keeps));
}

int RemoveLiveNicFromHost(const Options &given)
{
    EnterLiveHost(given.state);
    return Answered(RemoveLiveNic(given.interface.c_str()));
}

void AddPlugging(CLI::App &app, CLI::App &nic, Options &options)
{
    CLI::App &plug = AddCommand(app, options, "plug",
                                "Plug a network interface of the machine to a port of a live host", Plug);
    AddState(plug, options);
    plug.add_option("switch", options.switchName, "Alias, id or portset name of the switch")->required();
    plug.add_option("port", options.portId, "Id of the port")->required();
    AddInterface(plug, options);
    AddKeep(plug, options);

    CLI::App &unplug = AddCommand(app, options, "unplug", "Unplug a network interface from its port", Unplug);
    AddState(unplug, options);
    AddInterface(unplug, options);

    CLI::App &add =
        AddCommand(nic, options, "add", "Make a network interface of the machine a NIC of a live host",
                   AddLiveNicToHost);
    AddState(add, options);
    AddInterface(add, options);
    AddKeep(add, options);

    CLI::App &remove = AddCommand(nic, options, "remove", "Give a network interface back to the machine",
                                  RemoveLiveNicFromHost);
    AddState(remove, options);
    AddInterface(remove, options);
}

void AddLiveHost(CLI::App &app, Options &options)
{
    AddState(
        AddCommand(app, options, "check",
                   "Compare what a live host has in the kernel with its store; a line for each difference",
                   [](const Options &given) { return CheckLiveHost(given.state); }),
        options);
    AddState(AddCommand(app, options, "stop", "End vshostd and remove what it has in the kernel",
                        [](const Options &given) { return StopLiveHost(given.state); }),
             options);
}

int Main(int count, char **arguments)
{
    CLI::App app("Embedded host for virtual switches");
    Options options;
    app.set_version_flag("--version", "vshost " VSHOST_VERSION);
    app.require_subcommand(1);
    AddRun(app, options);
    CLI::App &nic = AddNic(app, options);
    AddHostCommands(app, options);
    AddPlugging(app, nic, options);
    AddLiveHost(app, options);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    options.run.durable = options.durability == "disk";
    // CLI11 takes an argument in square brackets apart; the command's own are passed on as they are.
    char **const end = arguments + count, **const dashes = std::find(arguments, end, std::string_view("--"));
    if (dashes != end) options.run.command.assign(dashes + 1, end);
    return options.action(options);
}

}

int main(int count, char **arguments)
try {
    return Main(count, arguments);
} catch (const LauncherError &error) {
    fprintf(stderr, "vshost: %s\n", error.message.c_str());
    return error.exitCode;
} catch (const std::exception &error) {
    fprintf(stderr, "vshost: %s\n", error.what());
    return 1;
}
