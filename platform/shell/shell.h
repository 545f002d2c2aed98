// The system-information shell: a tree of nodes over the host's runtime tables.
#pragma once

#include <string>
#include <vector>

namespace vshost {

// Runs one command, "-e VERB NODE [VALUE…]", on this process's host. Returns its exit code, or
// VSHOST_SHELL_KILLED or VSHOST_SHELL_NOT_STARTED, which the caller must carry out.
unsigned RunShell(const std::vector<std::string> &arguments, std::string &out, std::string &err);

std::string JoinWords(const std::vector<std::string> &words);

// The name of the command in faults and recorded calls.
std::string ShellOperation(const std::vector<std::string> &arguments);

// Splits a command line as sh does; false when it holds anything but plain words, quoted words and
// "2>/dev/null".
bool SplitCommandLine(const char *line, std::vector<std::string> &words, bool &discardErrors);

}
