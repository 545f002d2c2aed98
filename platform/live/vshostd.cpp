// vshostd: runs a live host, whose switches forward packets.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "platform/host/host.h"
#include "platform/live/supervisor.h"

int main(int count, char **arguments)
{
    CLI::App app("Live host: virtual switches that forward packets");
    app.set_version_flag("--version", "vshostd " VSHOST_VERSION);
    std::string state;
    bool removes = false, checks = false, isMachines = false;
    live::Capacity capacity;
    CLI::Option_group &which = *app.add_option_group("host");
    which.add_option("--state", state, "Directory of the host, made when missing");
    which.add_flag("--machine", isMachines,
                   "The machine's own host, for programs that name none: in /var/lib/vswitchctl/host, with "
                   "/dev/vswitch, for members of the group vswitchctl");
    which.require_option(1);
    app.add_flag("--remove", removes, "Take away what a host that is not running has left in the kernel");
    app.add_flag("--check", checks, "Compare the kernel with the store; a line for each difference")
        ->excludes("--remove");
    const std::string atMost = " at most; holds from the next start after `vshost stop` on";
    app.add_option("--ports", capacity.ports, "Ports with an interface" + atMost)
        ->check(CLI::Range(1, 65536));
    app.add_option("--switches", capacity.switches, "Switches that have such ports" + atMost)
        ->check(CLI::Range(1, 65536));
    app.add_option("--addresses", capacity.addresses, "MAC addresses, half of them static ones" + atMost)
        ->check(CLI::Range(2, 1 << 22));
    app.add_option("--groups", capacity.groups, "Multicast groups of ports, and as many sources" + atMost)
        ->check(CLI::Range(64, 1 << 22));
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (isMachines) state = vshost::MachineDirectory();
    if (state.empty()) {
        fputs("vshostd: this vshostd is not installed as the machine's own host; install the package "
              "vswitchctl-live, or name a directory with --state\n",
              stderr);
        return 1;
    }
    if (checks) return live::CheckLiveHost(state);
    return removes ? live::RemoveLiveHost(state) : live::Supervise({state, capacity, isMachines});
}
