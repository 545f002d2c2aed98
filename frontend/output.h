// What a command prints: rows, as an aligned table or as JSON.
#pragma once

#include <algorithm>
#include <nlohmann/json.hpp>

#include "frontend/error.h"

namespace frontend {

using Json = nlohmann::ordered_json;

template<class List, class Value> bool Contains(const List &list, const Value &value)
{
    return std::find(std::begin(list), std::end(list), value) != std::end(list);
}

// Writes to standard output. Ends the command without an error when the reader has gone.
void Print(const std::string &text);
// Whether colours may be used on the descriptor.
bool HasColor(int descriptor);

// The columns of the terminal on standard output; 80 where it is not a terminal.
size_t TerminalWidth();
// The columns that a text takes.
size_t TextWidth(std::string_view text);
std::string TitleText(const std::string &text); // bold where colours may be used
// The text in lines of at most so many columns.
std::vector<std::string> Wrapped(const std::string &text, size_t columns);

// "1 port" or "2 ports".
std::string Counted(size_t count, const char *noun);
// A value in one cell: objects as "key=value …", long bytes shortened.
std::string CellText(const Json &value);
// How rows are printed for people.
struct TableStyle {
    std::string form = "table"; // "table"; "wide": a line for each row, whole; "name": what each row is about
    std::vector<std::string> columns = {}; // empty: all
};
// An aligned table with a column for each key of the rows. Rows with many keys, or wider than the terminal,
// stand upright.
std::string TableText(const Json &rows, const TableStyle &style = {});
// The words, joined to lines that fit a terminal beside a margin of so many columns.
std::vector<std::string> InLines(const std::vector<std::string> &words, std::string_view separator,
                                 size_t margin);
void PrintRows(const std::string &title, const Json &rows, bool json, const TableStyle &style = {});
// One line, which ends in a newline; a JSON object with `json`.
std::string ErrorText(const Error &error, bool json);
// Writes it to standard error.
void PrintError(const Error &error, bool json);
std::string Dump(const Json &value);

}
