// Running a command line in place of system() and popen(). The preload links no C++ runtime and includes this
// file too.
#pragma once

#include <stddef.h>

namespace vshost {

enum class Verdict {
    PASS,    // the real function must run it
    REFUSED, // it cannot be started
    RAN      // it ran in this process: the result holds how it ended
};

struct CommandResult {
    int status;   // as system() returns it
    char *output; // its standard output, if captured; the caller frees it
    size_t length;
};

// Runs a command line of the shell; `capture` is for popen().
Verdict RunCommandLine(const char *line, bool inProcess, bool capture, CommandResult *result);

}
