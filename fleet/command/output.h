// What the commands print: rows, as an aligned table or as JSON, and errors of one line, as vsctl does.
#pragma once

#include <exception>

#include "fleet/protocol/records.h"

namespace vsfleet {

using Rows = nlohmann::ordered_json;

// The exit codes of vsctl.
enum class Exit {
    DONE = 0,
    FAILURE = 1,
    USAGE = 2,
    NOT_FOUND = 3,
    EXISTS = 4,
    BAD_VALUE = 5,
    UNREACHABLE = 6,
    PERMISSION = 7,
    TIMED_OUT = 8,
    PARTLY_UNDONE = 9,
    PENDING = 10
};

struct Error : std::exception {
    Error(Exit exit, std::string problem, std::string advice = "");
    const char *what() const noexcept override { return message.c_str(); }

    Exit exit;
    std::string problem;
    std::string advice; // what to do
    std::string message;
};

bool IsTerminal(int descriptor);
// Ends the command without an error when the reader has gone.
void Print(const std::string &text);
std::string TableText(const Rows &rows);
// {"command": …, "result": [rows]} with `json`, a table otherwise.
void PrintRows(const std::string &command, const Rows &rows, bool json);
void PrintError(const Error &error, bool json);
// On standard error.
void Note(const std::string &text);

// A text that is drawn over itself on a terminal.
class LiveText {
public:
    void Show(const std::string &text);

private:
    size_t lines = 0;
};

}
