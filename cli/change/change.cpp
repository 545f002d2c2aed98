// Makes a change: all of its steps or none.
#include "cli/change/change.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/base/clock.h"
#include "cli/base/limit.h"
#include "cli/base/platform.h"
#include "cli/change/difference.h"
#include "cli/change/journal.h"
#include "cli/change/precondition.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

// What an undo could not restore.
struct UndoReport {
    std::vector<std::string> failures;
    std::vector<std::string> losses; // what cannot be restored at all
};

constexpr const char *UNDO_AGAIN = "remove the cause, then run 'vsctl apply --undo' again";

// Restores the steps in reverse order.
UndoReport Undo(std::span<const Step> steps)
{
    UndoReport undone;
    Places places;
    for (size_t i = steps.size(); i-- > 0;) {
        const Step &step = steps[i];
        places.Add(step.target, step.saved);
        try {
            if (Restore(step)) undone.losses.push_back(LossText(step));
        } catch (const Error &error) {
            undone.failures.push_back(fmt::format("{} stays changed ({})", StepText(step), error.message));
        }
    }
    try {
        for (std::string &failure : places.Restore())
            undone.failures.push_back(std::move(failure));
    } catch (const Error &error) {
        undone.failures.push_back(error.message);
    }
    return undone;
}

// The first texts of a list, and how many more there are.
std::string Listed(std::vector<std::string> texts)
{
    constexpr size_t MOST = 3;
    if (texts.size() <= MOST) return fmt::format("{}", fmt::join(texts, "; "));
    const size_t more = texts.size() - MOST;
    texts.resize(MOST);
    return fmt::format("{}; and {} more", fmt::join(texts, "; "), more);
}

// The error of the failed step, with the outcome of the undo.
Error UndoneError(const Error &cause, size_t done, const UndoReport &undone)
{
    if (!undone.failures.empty()) {
        Error error(cause,
                    fmt::format("{}; the undo failed in part: {}", cause.problem, Listed(undone.failures)),
                    UNDO_AGAIN);
        error.exit = Exit::PARTLY_UNDONE;
        return error;
    }
    std::string outcome = "; nothing was changed";
    if (done)
        outcome = fmt::format("; {} undone", done == 1 ? "the step before it is"
                                                       : fmt::format("the {} steps before it are", done));
    if (!undone.losses.empty())
        outcome += fmt::format("; everything is restored except {}", Listed(undone.losses));
    return {cause, cause.problem + outcome, cause.advice};
}

bool MakesUplinks(const Step &step) { return step.item == "switch" || step.item == "uplinks"; }

// The NICs behind new uplinks, and so their MTUs, are known only when the uplinks exist.
bool IsSavedLate(const std::vector<Step> &steps, const Step &step)
{
    return step.item == "mtu" && std::any_of(steps.data(), &step, [&step](const Step &earlier) {
               return earlier.target.alias == step.target.alias && MakesUplinks(earlier);
           });
}

// Saves what is known now: the steps that are saved late, up to the next one that makes uplinks. Returns it.
Step *SaveLate(Journal &journal, Step *step)
{
    Step *const end = std::find_if(step, journal.steps.data() + journal.steps.size(), MakesUplinks);
    Saver saver;
    for (; step != end; step++) {
        if (IsSavedLate(journal.steps, *step)) Save(*step, saver);
    }
    journal.Write();
    return end;
}

void ThrowIfPast(double deadline)
{
    if (deadline > 0 && SecondsSinceBoot() > deadline)
        throw Error(Exit::TIMED_OUT, "the change takes longer than --deadline allows",
                    "allow it more time, or change less at once");
}

// A bar at the terminal while a change takes long.
class Progress {
public:
    Progress(size_t total, bool isShown) : total(total), isShown(isShown && isatty(STDERR_FILENO)) {}
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    ~Progress()
    {
        if (isDrawn) Write("\r\x1b[K");
    }

    void Show(size_t done)
    {
        constexpr double PATIENCE = 1, INTERVAL = 0.1; // seconds
        if (!isShown) return;
        const double now = SecondsSinceBoot() - start;
        if (now < PATIENCE || now < lastDrawn + INTERVAL) return;
        lastDrawn = now;
        isDrawn = true;
        constexpr size_t WIDTH = 30;
        const double rate = static_cast<double>(done) / now;
        const double left = rate > 0 ? static_cast<double>(total - done) / rate : 0;
        Write(fmt::format("\r[{:<{}}] {}/{} steps, {:.0f}/s, {:.0f} s left\x1b[K",
                          std::string(WIDTH * done / total, '#'), WIDTH, done, total, rate, left));
    }

private:
    static void Write(const std::string &text)
    {
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
    }

    const size_t total;
    const bool isShown;
    bool isDrawn = false;
    double lastDrawn = 0;
    const double start = SecondsSinceBoot();
};

// `deadline` is in seconds since boot; 0: none.
void PerformAll(Journal &journal, bool showsProgress, double deadline = 0)
{
    std::vector<Step> &steps = journal.steps;
    const Step *saved = steps.data();
    size_t done = 0;
    Progress progress(steps.size(), showsProgress);
    const Bulk bulk;
    try {
        for (Step &step : steps) {
            ThrowIfStopped();
            ThrowIfPast(deadline);
            if (&step >= saved && IsSavedLate(steps, step)) saved = SaveLate(journal, &step);
            Perform(step);
            progress.Show(++done);
        }
        ThrowIfPast(deadline);
    } catch (const Error &error) {
        // The failed step may be half done.
        const size_t begun = std::min(done + 1, steps.size());
        const UndoReport undone = Undo(std::span(steps).first(begun));
        if (undone.failures.empty()) Journal::Remove();
        Error outcome = UndoneError(error, done, undone);
        for (size_t i = 0; i < done && undone.failures.empty(); i++)
            outcome.undone.push_back(StepText(steps[i]));
        throw outcome;
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
        throw Error(Exit::FAILURE,
                    fmt::format("this removes {}, and an undo would lose {}", StepText(step), LossText(step)),
                    "--allow-removals allows it");
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

// Starts `vsctl confirm --guard` in its own session, which outlives the terminal. The terminal's signals are
// blocked until then, and the guard ignores those that are pending.
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
        throw Error(Exit::FAILURE, "cannot start the process that undoes the change in time",
                    "'vsctl apply --undo' undoes it now, 'vsctl confirm' keeps it");
}

int64_t ConfirmBy(double seconds) { return std::llround(std::ceil(SecondsSinceBoot() + seconds)); }

void AwaitConfirmation(Journal &journal, double seconds)
{
    journal.awaitsConfirmation = true;
    journal.confirmBy = ConfirmBy(seconds);
    journal.Write();
    StartGuard(journal.id, seconds);
}

void SaveAll(std::vector<Step> &steps)
{
    Saver saver;
    for (Step &step : steps)
        Save(step, saver);
}

// A plan reads the host before the change holds its lock.
void RequireUnchanged(const std::vector<Step> &steps)
{
    for (const Step &step : steps) {
        if (!step.isRead) continue;
        Step now = step;
        now.isRead = false;
        ReadBefore(now);
        if (now.before == step.before) continue;
        throw Error(Exit::FAILURE, fmt::format("{} was changed by another process meanwhile", StepText(step)),
                    "vsctl changed nothing: try again");
    }
}

// A switch that is given no id gets one when the change is made.
void ChooseIds(std::vector<Step> &steps)
{
    for (Step &step : steps) {
        if (step.item != "switch" || step.value.is_null() || step.value.contains("id")) continue;
        Json value = {{"id", NewSwitchId()}};
        value.update(step.value);
        step.value = std::move(value);
    }
}

Preview CarryOut(const std::string &command, Result &result, const Options &options)
{
    if (result.steps.empty()) return {};
    const ChangeLock lock;
    ThrowIfUnfinished(); // undoing or resuming it would overwrite this change
    RequireUnchanged(result.steps);
    ChooseIds(result.steps);
    Preview preview = CheckSteps(result.steps);
    if (result.steps.empty()) return preview; // nothing is left to do
    SaveAll(result.steps);
    Journal journal{NewJournalId(), command, std::move(result.steps)};
    journal.boot = BootId();
    if (result.confirmWithin > 0) journal.confirmBy = ConfirmBy(result.confirmWithin);
    const ChangeScope changing; // from the journal's first byte to its removal
    journal.Write();
    PerformAll(journal, !options.quiet && !options.json, result.deadline);
    if (result.confirmWithin > 0) {
        AwaitConfirmation(journal, result.confirmWithin);
        result.note = fmt::format("vsctl undoes this in {} s unless you run 'vsctl confirm' first",
                                  result.confirmWithin);
    } else {
        Journal::Keep();
    }
    result.steps = std::move(journal.steps);
    return preview;
}

std::string PlanText(const Json &rows) { return DifferenceText(rows) + SummaryText(rows, false); }

// Rows instead of a difference.
bool WantsRows(const Options &options)
{
    return options.json || options.style.form != "table" || !options.style.columns.empty();
}

bool CanAsk(const Options &options) { return !options.json && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO); }

// Shows a plan to a user at a terminal and asks for consent. Elsewhere nobody can be asked.
bool IsAgreed(const std::string &plan, const Options &options)
{
    if (!CanAsk(options)) return true;
    Print(plan + "Make this change? [y/N] ");
    EndTimeLimit();
    char answer[16] = "";
    return fgets(answer, sizeof answer, stdin) && (*answer == 'y' || *answer == 'Y');
}

void ShowNothing(Result &result)
{
    result.steps.clear();
    result.note.clear();
    result.text = "nothing was changed\n";
    if (result.edited) result.text += fmt::format("'{}' applies your edit\n", result.edited->Keep());
}

bool IsAgreed(const Result &result, const Options &options)
{
    std::vector<Step> steps = result.steps;
    const Preview preview = CheckSteps(steps);
    return !preview.changes || IsAgreed(PlanText(preview.rows), options);
}

// What people read of a change that is planned or made. They have seen the difference if they were asked.
void Report(Result &result, const Options &options, bool isMade)
{
    if (result.rows.empty() || WantsRows(options)) return;
    if (!isMade || !result.asks || !CanAsk(options)) result.text = DifferenceText(result.rows);
    if (!options.quiet) result.text += SummaryText(result.rows, isMade);
}

Journal RequireJournal()
{
    auto journal = Journal::Read();
    if (!journal) throw Error(Exit::NOT_FOUND, "no change was cut short or waits for confirmation");
    return *journal;
}

void ThrowUnlessUndone(const Journal &journal, const UndoReport &undone)
{
    if (undone.failures.empty()) return;
    throw Error(Exit::PARTLY_UNDONE,
                fmt::format("undoing '{}' failed in part: {}", journal.command, Listed(undone.failures)),
                UNDO_AGAIN);
}

// Undoes the journal's steps and forgets it; keeps it while something could not be undone.
UndoReport UndoAll(const Journal &journal)
{
    const ChangeScope changing;
    UndoReport undone = Undo(journal.steps);
    ThrowUnlessUndone(journal, undone);
    Journal::Remove();
    return undone;
}

Json JournalRow(const Journal &journal, const char *outcome)
{
    return {{"change", journal.command}, {"steps", journal.steps.size()}, {"outcome", outcome}};
}

// Whether what the step left is still there; `after` is what it left.
bool IsAsLeft(const Step &step, const Json &after)
{
    Step now = step;
    now.isRead = false;
    if (step.item == "switch" || step.item == "port") return IsThere(step.target) != after.is_null();
    if (!IsThere(step.target))
        return step.item != "property" || step.value.contains("by-id") || after.is_null();
    ReadBefore(now);
    return step.item == "uplinks" ? now.before["ids"] == after["ids"] : now.before == after;
}

// What a row of a change is about.
Json SubjectOf(Json row)
{
    for (const char *key : {"before", "after", "ports"})
        row.erase(key);
    return row;
}

// An undo must not overwrite what came later.
void RequireAsLeft(const std::vector<Step> &steps, const Json &rows)
{
    std::set<Json> seen; // the last step about something tells
    for (size_t i = steps.size(); i-- > 0;) {
        if (!seen.insert(SubjectOf(rows[i])).second || IsAsLeft(steps[i], rows[i]["after"])) continue;
        throw Error(Exit::FAILURE, fmt::format("{} has been changed since", StepText(steps[i])),
                    "vsctl takes back only what is as it left it: change it by hand");
    }
}

// The row of the undo of a step, with what that cannot bring back.
Json UndoRow(const Step &step, Json row)
{
    std::swap(row["before"], row["after"]);
    row.erase("ports");
    if (step.item == "switch" && row["after"].is_null() && IsEmbedded())
        row["ports"] = PortsOf(step.target.alias).size();
    if (Loses(step)) row["lost"] = LossText(step);
    return row;
}

Journal RequireLast()
{
    ThrowIfUnfinished();
    auto journal = Journal::ReadLast();
    if (!journal) throw Error(Exit::NOT_FOUND, "there is no change to undo", "vsctl keeps only the last one");
    return *journal;
}

// Takes back what a user at a terminal has agreed to.
void TakeBack(const Journal &journal, const Json &rows)
{
    const ChangeLock lock;
    if (RequireLast().id != journal.id)
        throw Error(Exit::FAILURE, "another change was made meanwhile", "vsctl changed nothing: try again");
    RequireAsLeft(journal.steps, rows);
    const ChangeScope changing;
    Journal::Reopen();
    UndoAll(journal);
}

void MakeOrShow(const std::string &command, Result &result, const Options &options)
{
    const bool onlyShows = options.dryRun || result.planOnly;
    if (!result.planOnly) ThrowIfRemovalsForbidden(result);
    if (onlyShows && !result.planOnly) ThrowIfUnfinished();
    if (!onlyShows && result.asks && !IsAgreed(result, options)) return ShowNothing(result);
    Preview preview = onlyShows ? CheckSteps(result.steps) : CarryOut(command, result, options);
    if (onlyShows && preview.changes) result.exit = Exit::PENDING;
    if (!onlyShows || preview.changes) result.rows = std::move(preview.rows);
    Report(result, options, !onlyShows);
}

}

std::string Edited::Keep()
{
    before.isKept = file.isKept = true;
    return fmt::format("vsctl apply {} --replaces {}", file.path, before.path);
}

void Change(const std::string &command, Result &result, const Options &options)
{
    try {
        MakeOrShow(command, result, options);
    } catch (const Error &error) {
        if (!result.edited) throw;
        throw Error(error, error.problem,
                    fmt::format("{}{}'{}' applies your edit", error.advice, error.advice.empty() ? "" : "; ",
                                result.edited->Keep()));
    }
}

Json UndoJournal()
{
    const ChangeLock lock;
    const Journal journal = RequireJournal();
    const UndoReport undone = UndoAll(journal);
    Json row = JournalRow(journal, "undone");
    if (!undone.losses.empty()) row["lost"] = undone.losses;
    return Json::array({row});
}

void UndoLast(Result &result, const Options &options)
{
    const Journal journal = RequireLast();
    const Json rows = PreviewOf(journal.steps).rows;
    RequireAsLeft(journal.steps, rows);
    std::vector<std::string> losses;
    for (size_t i = journal.steps.size(); i-- > 0;) {
        const Json &row = result.rows.emplace_back(UndoRow(journal.steps[i], rows[i]));
        if (row.contains("lost")) losses.push_back(row["lost"]);
    }
    if (!losses.empty()) result.note = fmt::format("not brought back: {}", Listed(losses));
    result.asks = true;
    if (options.dryRun) {
        result.exit = Exit::PENDING;
    } else {
        const std::string note = result.note.empty() ? "" : result.note + "\n";
        if (!IsAgreed(PlanText(result.rows) + note, options)) return ShowNothing(result);
        TakeBack(journal, rows);
    }
    Report(result, options, !options.dryRun);
}

Json UndoJournalOfOtherBoot()
{
    const auto journal = Journal::Read();
    const bool isLeft = journal && journal->confirmBy && journal->boot != BootId();
    return isLeft ? UndoJournal() : Json::array();
}

// Undoes what is done, then performs all steps.
Json ResumeJournal()
{
    const ChangeLock lock;
    Journal journal = RequireJournal();
    if (journal.awaitsConfirmation) ThrowIfUnfinished();
    const ChangeScope changing;
    ThrowUnlessUndone(journal, Undo(journal.steps));
    PerformAll(journal, true);
    Journal::Keep();
    return Json::array({JournalRow(journal, "finished")});
}

Json ConfirmJournal()
{
    const ChangeLock lock;
    const Journal journal = RequireJournal();
    if (!journal.awaitsConfirmation) ThrowIfUnfinished();
    if (journal.boot != BootId() || SecondsSinceBoot() > static_cast<double>(journal.confirmBy)) {
        throw Error(Exit::TIMED_OUT, fmt::format("the time to confirm '{}' has passed", journal.command),
                    "'vsctl apply --undo' undoes it now");
    }
    Journal::Keep();
    return Json::array({JournalRow(journal, "confirmed")});
}

void GuardJournal(const std::string &id, double seconds)
{
    EndTimeLimit();
    SleepUntil(SecondsSinceBoot() + seconds);
    const ChangeLock lock;
    const auto journal = Journal::Read();
    if (!journal || journal->id != id) return;
    LibraryInit(); // reload the cache, which may miss changes by other processes
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
