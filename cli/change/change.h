// Carrying out steps: all of them, or none.
#pragma once

#include "cli/change/result.h"

namespace vsctl {

// Carries out the steps of a result, undoing what was done when one fails, and fills its rows and exit
// code. With options.dryRun only shows them.
void Change(const std::string &command, Result &result, const Options &options);

// What was left of a change that was cut short, or waits for confirmation: undone, finished or kept.
Json UndoJournal();
Json ResumeJournal();
Json ConfirmJournal();
// In a process of its own: undoes the journal with this id after so many seconds, unless it was confirmed.
void GuardJournal(const std::string &id, double seconds);
// What stands in the way of another change, as a row of `vsctl doctor`; null when nothing does.
Json JournalState();

}
