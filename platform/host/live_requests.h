// Requests to vshostd, the daemon of a live host.
#pragma once

#include <string>
#include <vector>

namespace vshost {

struct LiveAnswer {
    int error = 0; // 0, or an errno value; the text then says why and what to do, in one line
    std::string text;
};

// ECONNREFUSED: vshostd doesn't run there. EACCES: it does this for root alone.
LiveAnswer AskVshostd(const std::string &directory, const std::vector<std::string> &request);

}
