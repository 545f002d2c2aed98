#include "platform/driver/driver_table.h"

#include "platform/driver/driver.h"
#include "platform/shell/shell.h"

namespace {

int Open(int device, int flags, unsigned mode)
{
    return vshost::OpenDevice(vshost::Device{device}, flags, mode);
}

int Run(int device, uint32_t number, void *header)
{
    return vshost::RunCommand(vshost::Device{device}, number, header);
}

VshostShellVerdict Shell(const char *line, int inProcess, int capture, VshostShellResult *result)
try {
    return vshost::RunCommandLine(line, inProcess != 0, capture != 0, result);
} catch (...) {
    return VSHOST_SHELL_REFUSED;
}

constexpr VshostDriver DRIVER = {Open, Run, Shell};

}

const VshostDriver *vshost_driver(void) { return &DRIVER; }
