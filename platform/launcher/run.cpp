// vshost run: the environment of a host, and the command in it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "platform/launcher/launcher.h"
#include "platform/scenario/scenario.h"

namespace vshost {

namespace {

constexpr int CANNOT_RUN = 126;
constexpr int NOT_FOUND = 127;
constexpr int FORWARDED[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2};

volatile sig_atomic_t child;

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) throw LauncherError{path + ": can't be read: " + strerror(errno)};
    return {std::istreambuf_iterator<char>(file), {}};
}

// Makes the host if it is missing, and applies the scenario.
void PrepareHost(const std::string &directory, const RunOptions &options)
{
    std::unique_ptr<Host> host;
    std::string message;
    const Durability durability = options.durable ? Durability::DISK : Durability::PROCESS;
    if (Host::Open({directory, durability, true}, host, message)) throw LauncherError{message};
    if (options.scenario.empty()) return;
    if (!ApplyScenario(host->GetEngine(), host->GetControl(), ReadFile(options.scenario), message))
        throw LauncherError{options.scenario + ": " + message};
}

[[noreturn]] void Execute(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    fprintf(stderr, "vshost: can't run %s: %s\n", arguments[0], strerror(errno));
    _exit(errno == ENOENT ? NOT_FOUND : CANNOT_RUN);
}

// The terminal signals the command itself (it is in the foreground process group).
void Forward(int signal, siginfo_t *info, void *)
{
    const int error = errno;
    if (child > 0 && info->si_code != SI_KERNEL) kill(child, signal);
    errno = error;
}

// Runs the command as a child and forwards signals to it, so that the host can be removed afterwards.
int RunAsChild(const std::vector<std::string> &command)
{
    sigset_t signals, before;
    sigemptyset(&signals);
    for (int signal : FORWARDED)
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, &before);
    // While SIGCHLD is ignored, a child leaves no exit status. The command gets the inherited action back.
    struct sigaction reported = {}, inherited;
    reported.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &reported, &inherited);
    const pid_t started = fork();
    if (started == 0) {
        sigaction(SIGCHLD, &inherited, nullptr);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        Execute(command);
    }
    if (started < 0) throw LauncherError{std::string("can't start a process: ") + strerror(errno)};
    child = started;
    for (int signal : FORWARDED) {
        struct sigaction action = {};
        action.sa_sigaction = Forward;
        action.sa_flags = SA_SIGINFO;
        sigaction(signal, &action, nullptr);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    int status = 0;
    while (waitpid(started, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Ends as the command ended: with its exit code or by its signal.
int EndLike(int status)
{
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    signal(WTERMSIG(status), SIG_DFL);
    raise(WTERMSIG(status));
    return 128 + WTERMSIG(status);
}

int RunThrowAway(const RunOptions &options)
{
    UseLock lock; // the command and what it starts inherit it
    const std::string directory = MakeThrowAwayDirectory(lock);
    if (directory.empty())
        throw LauncherError{std::string("can't make a throw-away host: ") + strerror(errno)};
    int status = 0;
    try {
        PrepareHost(directory, options);
        SetChildEnvironment(directory, options.durable ? Durability::DISK : Durability::PROCESS);
        status = RunAsChild(options.command);
    } catch (...) {
        RemoveHostDirectory(directory);
        throw;
    }
    RemoveHostDirectory(directory);
    return EndLike(status);
}

}

int RunOnHost(const RunOptions &options)
{
    if (options.state.empty()) return RunThrowAway(options);
    PrepareHost(options.state, options);
    std::unique_ptr<char, decltype(&free)> directory(realpath(options.state.c_str(), nullptr), free);
    if (!directory) throw LauncherError{options.state + ": " + strerror(errno)};
    SetChildEnvironment(directory.get(), options.durable ? Durability::DISK : Durability::PROCESS);
    Execute(options.command);
}

}
