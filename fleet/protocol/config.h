// /etc/vswitchctl/fleet.toml: where etcd is, who this machine is, and where it keeps its files.
#pragma once

#include <functional>

#include "fleet/etcd/client.h"

namespace CLI {
class App;
}

namespace vsfleet {

inline constexpr const char *CONFIG_FILE = "/etc/vswitchctl/fleet.toml";

struct Config {
    Endpoints endpoints;
    std::string host;                                // this machine's name in the fleet
    std::string state = "/var/lib/vswitchctl/fleet"; // what the agent remembers
    std::string vsctl = "vsctl";                     // the command that it runs
    std::chrono::seconds lease{30};         // how long a claim outlives its agent, and a leader its driver
    std::chrono::seconds driftInterval{30}; // between looks at the host
};

// Throws an Error, with the file and the line, when the file can't be read or says something else
// than the above. Without a host name, the machine's own is taken.
// Certificates are relative to the file, so that a directory with both works wherever it is.
Config ReadConfig(const std::string &path);

std::string MachineName();

// What a command of vsfleet does once its arguments are read. Returns the exit code.
using Action = std::function<int(const std::string &configFile)>;

}
