// vshostd: runs a live host, whose switches forward packets.
#include <CLI/CLI.hpp>

#include "platform/live/supervisor.h"

int main(int count, char **arguments)
{
    CLI::App app("Live host: virtual switches that forward packets");
    app.set_version_flag("--version", "vshostd " VSHOST_VERSION);
    std::string state;
    bool removes = false, checks = false;
    live::Capacity capacity;
    app.add_option("--state", state, "Directory of the host, made when missing")->required();
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
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (checks) return live::CheckLiveHost(state);
    return removes ? live::RemoveLiveHost(state) : live::Supervise(state, capacity);
}
