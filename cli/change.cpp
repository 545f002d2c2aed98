// Carrying out steps: all of them, or none.
#include "change.h"

#include <cmath>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include "journal.h"
#include "limit.h"
#include "precondition.h"
#include "preview.h"

namespace vsctl {

namespace {

// Restores the steps in reverse order; returns what could not be restored.
std::vector<std::string> Undo(std::span<const Step> steps)
{
    std::vector<std::string> failures;
    for (size_t i = steps.size(); i-- > 0;) {
        try {
            Restore(steps[i]);
        } catch (const Error &error) {
            failures.push_back(fmt::format("{} stays changed ({})", StepText(steps[i]), error.message));
        }
    }
    return failures;
}

std::string Count(size_t number, const char *what)
{
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

// The error of the step that failed, with what became of the steps before it.
Error UndoneError(const Error &cause, size_t done, const std::vector<std::string> &failures)
{
    if (!failures.empty()) {
        Error error(Exit::PARTLY_UNDONE,
                    fmt::format("{}; undoing failed in part: {}", cause.problem, fmt::join(failures, ", ")),
                    "when the cause is gone, 'vsctl apply --undo' tries again");
        error.status = cause.status;
        return error;
    }
    const std::string undone =
        done ? fmt::format("; what was done before it ({}) is undone, and all is as it was",
                           Count(done, "step"))
             : "; nothing was changed";
    Error error(cause.exit, cause.problem + undone, cause.advice);
    error.status = cause.status;
    return error;
}

void PerformAll(const std::vector<Step> &steps)
{
    size_t done = 0;
    try {
        for (const Step &step : steps) {
            ThrowIfStopped();
            Perform(step);
            done++;
        }
    } catch (const Error &error) {
        // The one that failed may have got half-way.
        const size_t begun = std::min(done + 1, steps.size());
        const auto failures = Undo(std::span(steps).first(begun));
        if (failures.empty()) Journal::Remove();
        throw UndoneError(error, done, failures);
    }
}

void ThrowIfUnfinished()
{
    const auto journal = Journal::Read();
    if (!journal) return;
    if (journal->awaitsConfirmation) {
        throw Error(Exit::FAILURE, fmt::format("'{}' still waits for confirmation", journal->command),
                    "'vsctl confirm' keeps it, 'vsctl apply --undo' undoes it");
    }
    throw Error(Exit::FAILURE, fmt::format("'{}' was cut short", journal->command),
                "'vsctl apply --resume' finishes it, 'vsctl apply --undo' undoes it");
}

void ThrowIfRemovalsForbidden(const Result &result)
{
    if (result.allowRemovals) return;
    for (const Step &step : result.steps) {
        if (!IsRemoval(step)) continue;
        throw Error(
            Exit::FAILURE,
            fmt::format("this removes {}, and a removal cannot be undone entirely (numbers and statistics "
                        "of ports are lost)",
                        StepText(step)),
            "--allow-removals agrees to it");
    }
}

std::string NewJournalId() { return fmt::format("{}-{}", time(nullptr), getpid()); }

[[noreturn]] void BecomeGuard(const std::string &id, double seconds)
{
    const int nothing = open("/dev/null", O_RDWR);
    for (int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(nothing, descriptor);
    const std::string time = fmt::format("{}ms", std::llround(seconds * 1000));
    execl("/proc/self/exe", "vsctl", "confirm", "--guard", id.c_str(), "--after", time.c_str(), nullptr);
    _exit(static_cast<int>(Exit::FAILURE));
}

// Starts `vsctl confirm --guard` in a session of its own, which no terminal ends. Signals to the terminal's
// processes wait until it is there, and it forgets those that came before.
void StartGuard(const std::string &id, double seconds)
{
    sigset_t all, before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    const pid_t child = fork();
    if (child == 0) {
        for (int signal : {SIGHUP, SIGINT, SIGTERM, SIGQUIT})
            ::signal(signal, SIG_IGN);
        setsid();
        sigprocmask(SIG_SETMASK, &before, nullptr);
        if (fork() == 0) BecomeGuard(id, seconds);
        _exit(static_cast<int>(Exit::DONE));
    }
    const bool started = child > 0 && waitpid(child, nullptr, 0) == child;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (!started)
        throw Error(Exit::FAILURE, "no process can be started that would undo the change in time",
                    "'vsctl apply --undo' undoes it now, 'vsctl confirm' keeps it");
}

void AwaitConfirmation(Journal &journal, double seconds)
{
    journal.awaitsConfirmation = true;
    journal.confirmBy = time(nullptr) + std::llround(std::ceil(seconds));
    journal.Write();
    StartGuard(journal.id, seconds);
}

Preview ReadAllBefore(std::vector<Step> &steps)
{
    CheckSteps(steps);
    for (Step &step : steps)
        ReadBefore(step);
    return PreviewOf(steps);
}

// What a plan has read was read before this change had the host for itself.
void RequireUnchanged(const std::vector<Step> &steps)
{
    for (const Step &step : steps) {
        if (!step.isRead) continue;
        Step now = step;
        now.isRead = false;
        ReadBefore(now);
        if (now.before == step.before) continue;
        throw Error(Exit::FAILURE, fmt::format("{} was changed by somebody else meanwhile", StepText(step)),
                    "nothing was changed: try again");
    }
}

Preview CarryOut(const std::string &command, Result &result)
{
    if (result.steps.empty()) return {};
    const HostLock lock;
    ThrowIfUnfinished(); // to undo or resume it would overwrite this change
    RequireUnchanged(result.steps);
    Preview preview = ReadAllBefore(result.steps);
    Journal journal{NewJournalId(), command, std::move(result.steps)};
    const ChangeScope changing; // from the journal's first byte to its removal
    journal.Write();
    PerformAll(journal.steps);
    if (result.confirmWithin > 0) {
        AwaitConfirmation(journal, result.confirmWithin);
        result.note = fmt::format("all of this is undone in {} s unless 'vsctl confirm' comes first",
                                  result.confirmWithin);
    } else {
        Journal::Remove();
    }
    result.steps = std::move(journal.steps);
    return preview;
}

}

void Change(const std::string &command, Result &result, const Options &options)
{
    const bool onlyShows = options.dryRun || result.planOnly;
    Preview preview;
    if (onlyShows) {
        if (!result.planOnly) {
            ThrowIfRemovalsForbidden(result);
            ThrowIfUnfinished();
        }
        preview = ReadAllBefore(result.steps);
    } else {
        ThrowIfRemovalsForbidden(result);
        preview = CarryOut(command, result);
    }
    if (onlyShows && preview.changes) result.exit = Exit::PENDING;
    if (!onlyShows || preview.changes) result.rows = std::move(preview.rows);
}

namespace {

Journal RequireJournal()
{
    auto journal = Journal::Read();
    if (!journal) throw Error(Exit::NOT_FOUND, "no change was cut short or waits for confirmation");
    return *journal;
}

// Undoes the journal's steps and forgets it; keeps it while something could not be undone.
void UndoAll(const Journal &journal)
{
    const ChangeScope changing;
    const auto failures = Undo(journal.steps);
    if (failures.empty()) {
        Journal::Remove();
        return;
    }
    throw Error(Exit::PARTLY_UNDONE,
                fmt::format("undoing '{}' failed in part: {}", journal.command, fmt::join(failures, ", ")),
                "when the cause is gone, 'vsctl apply --undo' tries again");
}

Json JournalRow(const Journal &journal, const char *outcome)
{
    return Json::array(
        {{{"change", journal.command}, {"steps", journal.steps.size()}, {"outcome", outcome}}});
}

}

Json UndoJournal()
{
    const HostLock lock;
    const Journal journal = RequireJournal();
    UndoAll(journal);
    return JournalRow(journal, "undone");
}

Json ResumeJournal()
{
    const HostLock lock;
    Journal journal = RequireJournal();
    if (journal.awaitsConfirmation) ThrowIfUnfinished();
    const ChangeScope changing;
    Repeat(journal.steps);
    Journal::Remove();
    return JournalRow(journal, "finished");
}

Json ConfirmJournal()
{
    const HostLock lock;
    const Journal journal = RequireJournal();
    if (!journal.awaitsConfirmation) ThrowIfUnfinished();
    if (time(nullptr) > journal.confirmBy) {
        throw Error(Exit::TIMED_OUT, fmt::format("the time to confirm '{}' is over", journal.command),
                    "'vsctl apply --undo' undoes it, if that has not happened yet");
    }
    Journal::Remove();
    return JournalRow(journal, "confirmed");
}

void GuardJournal(const std::string &id, double seconds)
{
    EndTimeLimit();
    timespec wait{static_cast<time_t>(seconds), 0};
    wait.tv_nsec = std::lround((seconds - static_cast<double>(wait.tv_sec)) * 1e9);
    while (nanosleep(&wait, &wait) != 0) {
    }
    const HostLock lock;
    const auto journal = Journal::Read();
    if (!journal || journal->id != id) return;
    LibraryInit(); // what others have changed meanwhile
    UndoAll(*journal);
}

Json JournalState()
{
    const auto journal = Journal::Read();
    if (!journal) return nullptr;
    return journal->awaitsConfirmation ? fmt::format("'{}' waits for 'vsctl confirm'", journal->command)
                                       : fmt::format("'{}' was cut short", journal->command);
}

}
