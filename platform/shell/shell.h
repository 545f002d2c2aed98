// The system-information shell: a tree of nodes over the host's runtime tables.
#pragma once

#include <string>
#include <vector>

namespace vshost {

// Runs one command, "-e VERB NODE [VALUE…]", on this process's host. Returns its exit code, or one of
// VSHOST_SHELL_KILLED and VSHOST_SHELL_NOT_STARTED, which the caller has to bring about.
unsigned RunShell(const std::vector<std::string> &arguments, std::string &out, std::string &err);

std::string JoinWords(const std::vector<std::string> &words);

// The command as faults and the recording name it.
std::string ShellOperation(const std::vector<std::string> &arguments);

// Splits a command line as sh does, when it consists of plain and quoted words and "2>/dev/null" alone.
bool SplitCommandLine(const char *line, std::vector<std::string> &words, bool &discardErrors);

}
