// The time limit of waiting, and the signals that stop the command.
#include "cli/base/limit.h"

#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include "cli/base/clock.h"
#include "cli/base/error.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

constexpr int SIGNALS[] = {SIGALRM, SIGINT, SIGTERM, SIGHUP};
constexpr int SIGNAL_EXIT = 128; // as shells report a command that a signal ended

volatile sig_atomic_t changing = 0;
volatile sig_atomic_t stopSignal = 0;
double limit = 0;
std::string timeoutError;

void Stop(int signal)
{
    if (changing && signal != SIGALRM) {
        stopSignal = signal;
        return;
    }
    if (signal != SIGALRM) _exit(SIGNAL_EXIT + signal);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, timeoutError.data(), timeoutError.size());
    _exit(static_cast<int>(Exit::TIMED_OUT));
}

void SetTimer(double seconds)
{
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    timer.it_value.tv_usec =
        static_cast<suseconds_t>((seconds - static_cast<double>(timer.it_value.tv_sec)) * 1e6);
    setitimer(ITIMER_REAL, &timer, nullptr);
}

}

void StartTimeLimit(double seconds, bool json)
{
    limit = seconds;
    timeoutError = ErrorText(Error(Exit::TIMED_OUT, "timed out while waiting, and nothing was changed",
                                   AdviceFor(Exit::TIMED_OUT)),
                             json);
    struct sigaction action {};
    action.sa_handler = Stop;
    action.sa_flags = SA_RESTART;
    for (int signal : SIGNALS)
        sigaction(signal, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    SetTimer(seconds);
}

void RestartTimeLimit()
{
    if (limit > 0 && !changing) SetTimer(limit);
}

void EndTimeLimit()
{
    limit = 0;
    SetTimer(0);
}

void RestUntil(double time)
{
    SetTimer(0);
    SleepUntil(time);
    RestartTimeLimit();
}

ChangeScope::ChangeScope()
{
    SetTimer(0);
    changing = 1;
}

ChangeScope::~ChangeScope()
{
    changing = 0;
    RestartTimeLimit();
}

void ThrowIfStopped()
{
    const int signal = stopSignal;
    if (!signal) return;
    stopSignal = 0;
    throw Error(Exit::FAILURE, fmt::format("stopped by a signal ({})", strsignal(signal)));
}

}
