#include "fleet/command/output.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vsfleet {

namespace {

constexpr size_t MAX_CELL = 60;
constexpr const char *BOLD = "\x1b[1m", *PLAIN = "\x1b[0m";

size_t Width(const std::string &text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string CellText(const Rows &value)
{
    if (value.is_null()) return "-";
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (!value.is_structured() && !value.is_string()) return value.dump();
    std::string text;
    if (value.is_string()) {
        for (const char c : value.get_ref<const std::string &>()) {
            const auto byte = static_cast<unsigned char>(c);
            text += byte < ' ' || byte == 0x7f ? fmt::format("\\x{:02x}", byte) : std::string(1, c);
        }
        return text.empty() ? "-" : text;
    }
    for (const auto &[key, member] : value.items()) {
        if (!text.empty()) text += value.is_array() ? "," : " ";
        text += value.is_array() ? CellText(member) : fmt::format("{}={}", key, CellText(member));
    }
    return text.empty() ? "-" : text;
}

std::string Title(const std::string &text)
{
    const char *noColor = getenv("NO_COLOR");
    const bool isPlain = (noColor && *noColor) || !IsTerminal(STDOUT_FILENO);
    return isPlain ? text : BOLD + text + PLAIN;
}

}

Error::Error(Exit exit, std::string problemText, std::string adviceText)
    : exit(exit), problem(std::move(problemText)), advice(std::move(adviceText)),
      message(advice.empty() ? problem : fmt::format("{}; {}", problem, advice))
{}

bool IsTerminal(int descriptor)
{
    const char *terminal = getenv("TERM");
    return isatty(descriptor) && terminal && strcmp(terminal, "dumb") != 0;
}

void Print(const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (written < 0 && errno == EPIPE) _exit(0);
        if (written < 0 && errno != EINTR)
            throw Error(Exit::FAILURE, fmt::format("cannot write standard output: {}", strerror(errno)));
        done += static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
}

std::string TableText(const Rows &rows)
{
    std::vector<std::string> columns;
    for (const Rows &row : rows) {
        for (const auto &[key, value] : row.items()) {
            if (std::find(columns.begin(), columns.end(), key) == columns.end()) columns.push_back(key);
        }
    }
    std::vector<std::vector<std::string>> lines(1);
    for (std::string column : columns) {
        std::transform(column.begin(), column.end(), column.begin(),
                       [](unsigned char c) { return c == '-' ? ' ' : static_cast<char>(toupper(c)); });
        lines[0].push_back(column);
    }
    for (const Rows &row : rows) {
        auto &line = lines.emplace_back();
        for (const std::string &column : columns)
            line.push_back(row.contains(column) ? CellText(row[column]) : "-");
    }
    std::vector<size_t> widths(columns.size());
    for (const auto &line : lines) {
        for (size_t i = 0; i < widths.size(); i++)
            widths[i] = std::max(widths[i], std::min(Width(line[i]), MAX_CELL));
    }
    std::string text;
    for (const auto &line : lines) {
        std::string joined;
        for (size_t i = 0; i < line.size(); i++) {
            joined += line[i];
            if (i + 1 == line.size()) break;
            joined += std::string(widths[i] - std::min(widths[i], Width(line[i])) + 2, ' ');
        }
        text += (&line == lines.data() ? Title(joined) : joined) + "\n";
    }
    return rows.empty() ? "" : text;
}

void PrintRows(const std::string &command, const Rows &rows, bool json)
{
    if (json)
        Print(Rows{{"command", command}, {"result", rows}}.dump(-1, ' ', false,
                                                                Rows::error_handler_t::replace) +
              "\n");
    else
        Print(TableText(rows));
}

void PrintError(const Error &error, bool json)
{
    std::string text = "vsfleet: " + error.message;
    if (json)
        text = Rows{{"error",
                     {{"problem", error.problem},
                      {"advice", error.advice},
                      {"exit", static_cast<int>(error.exit)}}}}
                   .dump(-1, ' ', false, Rows::error_handler_t::replace);
    std::replace(text.begin(), text.end(), '\n', ' ');
    fmt::print(stderr, "{}\n", text);
}

void Note(const std::string &text) { fmt::print(stderr, "vsfleet: {}\n", text); }

void LiveText::Show(const std::string &text)
{
    winsize size = {};
    const size_t height = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) || !size.ws_row ? 24 : size.ws_row;
    std::string shown = lines ? fmt::format("\x1b[{}A\x1b[J", lines) : "";
    lines = 0;
    for (size_t begin = 0; begin < text.size() && lines + 1 < height; lines++) {
        const size_t end = text.find('\n', begin) + 1;
        std::string line = text.substr(begin, end - begin - 1);
        // A line that the terminal would break spoils the count.
        const bool isCut = size.ws_col && Width(line) > size.ws_col;
        while (size.ws_col && Width(line) > size.ws_col)
            line.pop_back();
        if (isCut && line.find('\x1b') != std::string::npos) line += PLAIN;
        shown += line + "\n";
        begin = end;
    }
    Print(shown);
}

}
