// What becomes of a command line that system() or popen() was given. The preload, which links no C++ runtime,
// includes this too.
#pragma once

#include <stddef.h>

namespace vshost {

enum class Verdict {
    PASS,    // it is for the real functions
    REFUSED, // it cannot be started
    RAN      // it ran in this process: the result holds how it ended
};

struct CommandResult {
    int status;   // as system() returns it
    char *output; // what it wrote, when that was to be captured; the caller frees it
    size_t length;
};

// Answers system() and popen() in their stead; popen() captures.
Verdict RunCommandLine(const char *line, bool inProcess, bool capture, CommandResult *result);

}
