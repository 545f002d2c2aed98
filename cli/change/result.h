// What a verb returns, and the options that every verb takes.
#pragma once

#include "cli/change/step.h"
#include "frontend/output.h"

namespace vsctl {

struct Options {
    bool json = false;
    bool dryRun = false;
    bool quiet = false; // neither a progress bar nor a summary
    TableStyle style;
    double timeout = 30; // seconds
};

struct Result {
    Json rows = Json::array();
    std::vector<Step> steps; // the change to make
    bool allowRemovals = true;
    bool planOnly = false;
    bool asks = false;        // whether a user at a terminal is asked first
    double confirmWithin = 0; // seconds
    double deadline = 0;      // seconds since boot; 0: none
    std::string note;         // a line for people, after the rows
    std::string text;         // printed instead of rows; with --json, only when there are no rows
    Exit exit = Exit::DONE;
};

}
