// Makes a change: all of its steps or none.
#pragma once

#include "cli/change/result.h"

namespace vsctl {

// Performs the steps of a result, undoes them when one fails, and fills the rows and the exit code. With
// options.dryRun it only shows them.
void Change(const std::string &command, Result &result, const Options &options);

// Undo, finish or keep a change that was cut short or waits for confirmation.
Json UndoJournal();
// Undoes a change that was to be confirmed, when the machine was started again since.
Json UndoJournalOfOtherBoot();
Json ResumeJournal();
// Takes back the last change that was made, which the result then shows.
void UndoLast(Result &result, const Options &options);
Json ConfirmJournal();
// Undoes the change with this id after so many seconds, unless it was confirmed. Runs in its own process.
void GuardJournal(const std::string &id, double seconds);
// What blocks other changes, for `vsctl doctor`; null when nothing does.
Json JournalState();

}
