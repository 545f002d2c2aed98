// Shell completion: the words that can come next on a command line.
#pragma once

#include "cli/verbs/verb.h"

namespace vsctl {

inline constexpr const char *FLEET = "fleet"; // what follows is for vsfleet

// Candidates for the last of the words, which is still being typed; ":files" where that names a file.
std::vector<std::string> Complete(const std::vector<std::string> &words);
// The script that a shell ("bash", "zsh" or "fish") reads at its start.
std::string CompletionScript(const std::string &shell);

}
