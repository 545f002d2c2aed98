// What a verb returns, and the options that every verb takes.
#pragma once

#include <memory>

#include "cli/change/step.h"
#include "frontend/files.h"
#include "frontend/output.h"

namespace vsctl {

struct Options {
    bool json = false;
    bool dryRun = false;
    bool quiet = false; // neither a progress bar nor a summary
    TableStyle style;
    double timeout = 30; // seconds
};

// A file that the user has edited, and what it was before.
struct Edited {
    explicit Edited(const std::string &text) : before(text, ".toml"), file(text, ".toml") {}
    // Keeps both, because the change isn't made. Returns the command that makes it.
    std::string Keep();

    frontend::TemporaryFile before, file;
};

struct Result {
    Json rows = Json::array();
    std::vector<Step> steps; // the change to make
    bool allowRemovals = true;
    bool planOnly = false;
    bool asks = false; // whether a user at a terminal is asked first
    std::shared_ptr<Edited> edited;
    double confirmWithin = 0; // seconds
    double deadline = 0;      // seconds since boot; 0: none
    std::string note;         // a line for people, after the rows
    std::string text;         // printed instead of rows; with --json, only when there are no rows
    Exit exit = Exit::DONE;
};

}
