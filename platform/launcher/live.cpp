// vshost plug, unplug, nic add, nic remove, check and stop: what is asked of vshostd, and its end.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "platform/launcher/launcher.h"

namespace vshost {

namespace {

constexpr unsigned LONGEST_END = 30; // seconds

std::string WholePath(const std::string &state)
{
    const std::unique_ptr<char, decltype(&free)> whole(realpath(state.c_str(), nullptr), free);
    if (!whole) throw LauncherError{state + " is not a host: " + strerror(errno)};
    return whole.get();
}

void WaitForEnd(int file, const std::string &directory)
{
    // flock() has no time limit of its own.
    for (unsigned tenths = 0; tenths < LONGEST_END * 10; tenths++) {
        if (flock(file, LOCK_SH | LOCK_NB) == 0) return;
        usleep(100000);
    }
    throw LauncherError{directory + ": vshostd doesn't end; see its log"};
}

// The process that holds the file's lock has written its id to the file.
void EndSupervisor(const std::string &directory)
{
    const std::string path = directory + "/" + PROCESS_FILE;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 || flock(file, LOCK_SH | LOCK_NB) == 0) {
        if (file >= 0) close(file);
        return;
    }
    pid_t process = 0;
    std::ifstream(path) >> process;
    // If the process is gone, its daemon holds the lock and is about to end.
    if (process <= 0 || (kill(process, SIGTERM) != 0 && errno != ESRCH)) {
        const std::string reason = process <= 0 ? path + " holds no process id" : strerror(errno);
        throw LauncherError{directory + ": can't end vshostd: " + reason + "; run vshost stop as root"};
    }
    WaitForEnd(file, directory);
    close(file);
}

// vshostd knows what a live host has in the kernel.
int RunVshostd(const std::string &directory, const char *option)
{
    const std::string program = PlatformDirectory() + "/vshostd";
    const pid_t child = fork();
    if (child == 0) {
        execl(program.c_str(), "vshostd", "--state", directory.c_str(), option, nullptr);
        fprintf(stderr, "vshost: can't run %s: %s\n", program.c_str(), strerror(errno));
        _exit(1);
    }
    int status = 0;
    if (child < 0) throw LauncherError{std::string("can't start a process: ") + strerror(errno)};
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}

void EnterLiveHost(const std::string &state)
{
    const std::string directory = OpenHost(state)->Directory();
    if (StartHost(directory.c_str(), true)) throw LauncherError{LastError()};
}

int Answered(int error)
{
    if (error) throw LauncherError{LastError()};
    return 0;
}

int CheckLiveHost(const std::string &state) { return RunVshostd(OpenHost(state)->Directory(), "--check"); }

int StopLiveHost(const std::string &state)
{
    const std::string directory = WholePath(DirectoryOf(state));
    // The host is not opened: the devices of a killed vshostd do not answer.
    if (access((directory + "/host.db").c_str(), F_OK) != 0)
        throw LauncherError{directory + " is not a host; name the directory of a host"};
    EndSupervisor(directory);
    return RunVshostd(directory, "--remove");
}

}
