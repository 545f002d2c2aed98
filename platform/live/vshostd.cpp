// vshostd: runs a live host, whose switches forward packets.
#include <CLI/CLI.hpp>

#include "platform/live/supervisor.h"

int main(int count, char **arguments)
{
    CLI::App app("Live host: virtual switches that forward packets");
    app.set_version_flag("--version", "vshostd " VSHOST_VERSION);
    std::string state;
    bool removes = false, checks = false;
    app.add_option("--state", state, "Directory of the host, made when missing")->required();
    app.add_flag("--remove", removes, "Take away what a host that is not running has left in the kernel");
    app.add_flag("--check", checks, "Compare the kernel with the store; a line for each difference")
        ->excludes("--remove");
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (checks) return live::CheckLiveHost(state);
    return removes ? live::RemoveLiveHost(state) : live::Supervise(state);
}
