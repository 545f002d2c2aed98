#include "fleet/agent/agent.h"

namespace vsfleet {

Action AddAgent(CLI::App &)
{
    return [](const std::string &configFile) -> int {
        ReadConfig(configFile);
        throw std::runtime_error("this build has no agent yet");
    };
}

}
