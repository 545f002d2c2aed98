// vshost: runs programs on an embedded host, and shows and changes what is on one.
#include <algorithm>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string_view>

#include "platform/launcher/launcher.h"
#include "platform/store/plugging.h"

namespace {

using namespace vshost;

void AddRun(CLI::App &app, RunOptions &options, std::string &durability)
{
    CLI::App *run = app.add_subcommand("run", "Run a program and its child processes on a host");
    run->add_option("--state", options.state,
                    "Directory of the host, created if it is missing; without it the host is a "
                    "throw-away host");
    run->add_option("--durability", durability,
                    "disk: a write that succeeds is on disk; process: it survives the "
                    "death of any process")
        ->check(CLI::IsMember({"disk", "process"}))
        ->capture_default_str();
    run->add_option("--scenario", options.scenario,
                    "JSON file with NICs, links, MAC tables, statistics, faults")
        ->check(CLI::ExistingFile);
    run->add_option("command", options.command, "The program and its arguments, after \"--\"")->required();
}

template<typename AddOthers>
void AddInterface(CLI::App &command, std::string &state, std::string &interface, bool *keeps,
                  AddOthers addOthers)
{
    command.add_option("--state", state, "Directory of the host");
    addOthers();
    command.add_option("interface", interface, "Name of the network interface")->required();
    if (keeps) command.add_flag("--keep", *keeps, "Keep it after the next start of the machine");
}

CLI::App *AddNic(CLI::App &app, std::string &state, NicOptions &options)
{
    CLI::App *nic = app.add_subcommand("nic", "Add a physical NIC or change it");
    nic->add_option("name", options.name, "Name of the NIC");
    nic->add_option("--state", state, "Directory of the host");
    nic->add_option("--link", options.link, "Carrier")->check(CLI::IsMember({"up", "down"}));
    nic->add_option("--admin", options.admin, "Administrative state")->check(CLI::IsMember({"up", "down"}));
    nic->add_option("--duplex", options.duplex, "Duplex")->check(CLI::IsMember({"full", "half"}));
    nic->add_option("--speed", options.speed, "Speed in Mb/s")->check(CLI::Range(1, 10000000));
    nic->add_option("--mtu", options.mtu, "MTU in bytes")->check(CLI::Range(MIN_MTU, MAX_MTU));
    nic->add_option("--max-mtu", options.maxMtu, "Largest MTU that the NIC accepts")
        ->check(CLI::Range(MIN_MTU, MAX_MTU));
    nic->add_option("--numa-node", options.numaNode, "NUMA node of the device")->check(CLI::Range(0, 1023));
    return nic;
}

int Main(int count, char **arguments)
{
    CLI::App app("Embedded host for virtual switches");
    app.set_version_flag("--version", "vshost " VSHOST_VERSION);
    app.require_subcommand(1);
    RunOptions run;
    NicOptions nic;
    std::string durability = "disk", state, bound, switchName, portId;
    bool json = false;
    AddRun(app, run, durability);
    CLI::App *nicApp = AddNic(app, state, nic);

    CLI::App *show = app.add_subcommand("show", "Show switches, portsets, ports and NICs of a host");
    show->add_option("--state", state, "Directory of the host; without it, the host that this process is on");
    show->add_flag("--json", json, "As JSON");
    CLI::App *reset =
        app.add_subcommand("reset", "Reboot: end everything that runs, then run the stored switches");
    reset->add_option("--state", state, "Directory of the host");
    CLI::App *bind = app.add_subcommand("bind", "Bind a NIC to an uplink port of a switch");
    bind->add_option("--state", state, "Directory of the host");
    bind->add_option("nic", bound, "Name of the NIC")->required();
    bind->add_option("switch", switchName, "Alias, id or portset name of the switch")->required();
    bind->add_option("port", portId, "Id of the uplink port")->required();
    CLI::App *remove = app.add_subcommand("remove-nic", "Remove a NIC from the host");
    remove->add_option("--state", state, "Directory of the host");
    remove->add_option("name", bound, "Name of the NIC")->required();

    std::string interface;
    bool keeps = false;
    CLI::App *plug =
        app.add_subcommand("plug", "Plug a network interface of the machine to a port of a live host");
    AddInterface(*plug, state, interface, &keeps, [&] {
        plug->add_option("switch", switchName, "Alias, id or portset name of the switch")->required();
        plug->add_option("port", portId, "Id of the port")->required();
    });
    CLI::App *unplug = app.add_subcommand("unplug", "Unplug a network interface from its port");
    AddInterface(*unplug, state, interface, nullptr, [] {});
    CLI::App *addNic =
        nicApp->add_subcommand("add", "Make a network interface of the machine a NIC of a live host");
    AddInterface(*addNic, state, interface, &keeps, [] {});
    CLI::App *releaseNic = nicApp->add_subcommand("remove", "Give a network interface back to the machine");
    AddInterface(*releaseNic, state, interface, nullptr, [] {});
    CLI::App *check = app.add_subcommand(
        "check", "Compare what a live host has in the kernel with its store; a line for each difference");
    check->add_option("--state", state, "Directory of the host");
    CLI::App *stop = app.add_subcommand("stop", "End vshostd and remove what it has in the kernel");
    stop->add_option("--state", state, "Directory of the host")->required();

    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    run.durable = durability == "disk";
    // CLI11 takes an argument in square brackets apart; the command's own are passed on as they are.
    char **const end = arguments + count, **const dashes = std::find(arguments, end, std::string_view("--"));
    if (dashes != end) run.command.assign(dashes + 1, end);
    if (app.got_subcommand("run")) return RunOnHost(run);
    if (app.got_subcommand(show)) return ShowHost(state, json);
    if (app.got_subcommand(reset)) return ResetHost(state);
    const bool isPlug = app.got_subcommand(plug), isUnplug = app.got_subcommand(unplug),
               isAdd = nicApp->got_subcommand(addNic), isRelease = nicApp->got_subcommand(releaseNic);
    if (isPlug || isUnplug || isAdd || isRelease) EnterLiveHost(state);
    if (isPlug) return Answered(PlugInterface(switchName.c_str(), portId.c_str(), interface.c_str(), keeps));
    if (isUnplug) return Answered(UnplugInterface(interface.c_str()));
    if (isAdd) return Answered(AddLiveNic(interface.c_str(), keeps));
    if (isRelease) return Answered(RemoveLiveNic(interface.c_str()));
    if (app.got_subcommand(check)) return CheckLiveHost(state);
    if (app.got_subcommand(stop)) return StopLiveHost(state);
    if (app.got_subcommand(bind)) return BindNicOnHost(state, bound, switchName, portId);
    if (app.got_subcommand(remove)) return RemoveNic(state, bound);
    return ChangeNic(state, nic);
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
