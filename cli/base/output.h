// What the command prints: rows, as an aligned table or as JSON.
#pragma once

#include "cli/base/error.h"
#include "cli/base/library.h"

namespace vsctl {

// Writes to standard output. Ends the command without an error when the reader has gone.
void Print(const std::string &text);
// Whether colours may be used on the descriptor.
bool HasColor(int descriptor);

// A value in one cell: objects as "key=value …", long bytes shortened.
std::string CellText(const Json &value);
// An aligned table with a column for each key of the rows; rows with many keys stand upright.
std::string TableText(const Json &rows);
// The words, joined to lines that fit a terminal beside a margin of so many columns.
std::vector<std::string> InLines(const std::vector<std::string> &words, std::string_view separator,
                                 size_t margin);
void PrintRows(const std::string &title, const Json &rows, bool json);
// One line, which ends in a newline; a JSON object with `json`.
std::string ErrorText(const Error &error, bool json);
// Writes it to standard error.
void PrintError(const Error &error, bool json);
std::string Dump(const Json &value);

}
