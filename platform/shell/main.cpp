// tybel: the system-information shell as a program.
#include <signal.h>
#include <vshost.h>

#include <cstdio>
#include <exception>

#include "platform/shell/shell.h"

namespace {
constexpr int NOT_STARTED_CODE = 127; // as sh reports a program that it can't start
}

int main(int count, char **arguments)
try {
    std::string out, err;
    const unsigned code = vshost::RunShell({arguments + 1, arguments + count}, out, err);
    if (code == VSHOST_SHELL_KILLED) raise(SIGKILL);
    if (code == VSHOST_SHELL_NOT_STARTED) return NOT_STARTED_CODE;
    fputs(err.c_str(), stderr);
    const bool written = fwrite(out.data(), 1, out.size(), stdout) == out.size() && fflush(stdout) == 0;
    return written ? static_cast<int>(code) : 1;
} catch (const std::exception &error) {
    fprintf(stderr, "tybel: %s\n", error.what());
    return 1;
}
