// What a verb gives back, and the options that every verb takes.
#pragma once

#include "cli/change/step.h"

namespace vsctl {

struct Options {
    bool json = false;
    bool dryRun = false;
    double timeout = 30; // seconds
};

struct Result {
    Json rows = Json::array();
    std::vector<Step> steps; // a change that is still to be made
    bool allowRemovals = true;
    bool planOnly = false;
    double confirmWithin = 0; // seconds
    std::string note;         // a line for people, after the rows
    std::string text;         // printed as it is, instead of rows; with --json, where there are no rows
    Exit exit = Exit::DONE;
};

}
