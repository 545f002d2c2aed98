#include "platform/live/daemon.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/host/host.h"

namespace live {
namespace {

// This process sees the plain files where others see the devices: it would wait for itself otherwise.
bool LeaveDevices(const std::string &directory)
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           umount2((directory + "/dev").c_str(), MNT_DETACH) == 0;
}

bool Start(const DaemonOptions &options, std::string &message)
{
    if (!LeaveDevices(options.directory)) {
        message = std::string("can't leave the mount of the devices: ") + strerror(errno);
        return false;
    }
    if (vshost::StartHost(options.directory.c_str(), true) != 0) {
        message = vshost::LastError();
        return false;
    }
    return ServeDevices(options.devices, options.directory, message);
}

}

void Say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char text[1024];
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    fprintf(stderr, "vshostd: %s\n", text);
}

int RunDaemon(const DaemonOptions &options)
{
    std::string message;
    if (!Start(options, message)) {
        Say("%s", message.c_str());
        return DAEMON_CANNOT_WORK;
    }
    if (write(options.ready, "", 1) != 1) return DAEMON_CANNOT_WORK;
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    int signal;
    sigwait(&ends, &signal);
    return 0;
}

}
