#include "frontend/output.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fmt/color.h>
#include <numeric>
#include <sys/ioctl.h>
#include <unistd.h>

namespace frontend {

namespace {

constexpr size_t USUAL_WIDTH = 80;
constexpr size_t MAX_TABLE_COLUMNS = 9;
constexpr size_t LEAST_LAST_COLUMN = 30; // of a table whose last column alone is too wide
constexpr size_t MAX_CELL = 48;
constexpr size_t SHOWN_OF_LONG_CELL = 32;

bool IsHexText(const std::string &text)
{
    return text.size() % 2 == 0 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string Shortened(const std::string &text)
{
    if (text.size() <= MAX_CELL) return text;
    const std::string start = text.substr(0, SHOWN_OF_LONG_CELL);
    return IsHexText(text) ? fmt::format("{}… ({} bytes)", start, text.size() / 2) : text;
}

// Control characters in a name must not reach a terminal or break a line.
std::string Printable(const std::string &bytes)
{
    // Bytes that are not UTF-8 are shown as in JSON.
    const bool isAscii =
        std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<uint8_t>(c) < 0x80; });
    const std::string text = isAscii ? bytes : Json::parse(Dump(bytes)).get<std::string>();
    std::string printable;
    for (size_t i = 0; i < text.size(); i++) {
        auto byte = static_cast<uint8_t>(text[i]);
        const auto next = static_cast<uint8_t>(i + 1 < text.size() ? text[i + 1] : 0);
        const bool isHigh = byte == 0xc2 && next >= 0x80 && next <= 0x9f; // in UTF-8
        if (isHigh) byte = static_cast<uint8_t>(text[++i]);
        if (byte < ' ' || byte == 0x7f || isHigh)
            printable += fmt::format("\\x{:02x}", byte);
        else
            printable += text[i];
    }
    return printable;
}

std::string Header(const std::string &key)
{
    std::string header = key;
    std::transform(header.begin(), header.end(), header.begin(),
                   [](unsigned char c) { return c == '-' ? ' ' : static_cast<char>(toupper(c)); });
    return header;
}

std::vector<std::string> Columns(const Json &rows)
{
    std::vector<std::string> columns;
    for (const Json &row : rows) {
        for (const auto &[key, value] : row.items()) {
            if (!Contains(columns, key)) columns.push_back(key);
        }
    }
    return columns;
}

std::string Pad(const std::string &text, size_t width)
{
    return text + std::string(width - TextWidth(text), ' ');
}

std::string Upright(const Json &row)
{
    size_t width = 0;
    for (const auto &[key, value] : row.items())
        width = std::max(width, TextWidth(key));
    const size_t room = std::max<size_t>(TerminalWidth(), width + 22) - width - 2;
    std::string text;
    for (const auto &[key, value] : row.items()) {
        const auto lines =
            isatty(STDOUT_FILENO) ? Wrapped(CellText(value), room) : std::vector{CellText(value)};
        const std::string separator = "\n" + std::string(width + 2, ' ');
        text += fmt::format("{}  {}\n", TitleText(Pad(key, width)), fmt::join(lines, separator));
    }
    return text;
}

std::string AllUpright(const Json &rows)
{
    std::string text;
    for (const Json &row : rows)
        text += (text.empty() ? "" : "\n") + Upright(row);
    return text;
}

// The last cell may go on below.
std::string JoinLine(const std::vector<std::string> &cells, const std::vector<size_t> &widths)
{
    std::string line;
    for (size_t i = 0; i + 1 < cells.size(); i++)
        line += Pad(cells[i], widths[i]) + "  ";
    if (TextWidth(cells.back()) <= widths.back()) return line + cells.back();
    const std::string separator = "\n" + std::string(TextWidth(line), ' ');
    return line + fmt::format("{}", fmt::join(Wrapped(cells.back(), widths.back()), separator));
}

// Where a line of so many columns ends: before a space or behind a comma if there is one, never within a
// character.
size_t LineEnd(std::string_view text, size_t columns)
{
    size_t end = 0;
    for (size_t used = 0; end < text.size() && (used < columns || (text[end] & 0xC0) == 0x80); end++)
        used += (text[end] & 0xC0) != 0x80;
    if (end == text.size()) return end;
    const size_t space = text.substr(0, end + 1).find_last_of(' ') + 1;
    const size_t comma = text.substr(0, end).find_last_of(',') + 1;
    const size_t best = std::max(space, comma);
    return best == 0 ? end : best == space ? space - 1 : comma;
}

// The keys that name what a row is about, the most exact one first. A row that begins with another name than
// its switch is about that.
constexpr const char *NAME_KEYS[] = {"session", "name", "secondary", "address", "group",
                                     "option",  "lag",  "key",       "uplink",  "port"};

bool IsName(const Json &value) { return value.is_string() || value.is_number(); }

const Json &NameOf(const Json &row)
{
    if (row.contains("switch") && row.begin().key() != "switch") return row.front();
    for (const char *key : NAME_KEYS) {
        if (row.contains(key) && IsName(row[key])) return row[key];
    }
    return row.front();
}

std::string WholeText(const Json &value)
{
    return value.is_string() ? Printable(value.get_ref<const std::string &>()) : CellText(value);
}

std::string NamesText(const Json &rows)
{
    std::string text;
    for (const Json &row : rows)
        text += WholeText(NameOf(row)) + "\n";
    return text;
}

// The rows with these columns only.
Json Chosen(const Json &rows, const std::vector<std::string> &columns)
{
    const auto known = Columns(rows);
    for (const std::string &column : columns) {
        if (Contains(known, column)) continue;
        throw Error(Exit::USAGE, fmt::format("there is no column '{}'", column),
                    fmt::format("the columns are {}", fmt::join(known, ",")));
    }
    Json chosen = Json::array();
    for (const Json &row : rows) {
        Json &only = chosen.emplace_back(Json::object());
        for (const std::string &column : columns)
            only[column] = row.value(column, Json());
    }
    return chosen;
}

}

bool HasColor(int descriptor)
{
    const char *noColor = getenv("NO_COLOR");
    const char *terminal = getenv("TERM");
    return isatty(descriptor) && !(noColor && *noColor) && terminal && strcmp(terminal, "dumb") != 0;
}

size_t TerminalWidth()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return USUAL_WIDTH;
    return size.ws_col;
}

size_t TextWidth(std::string_view text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string TitleText(const std::string &text)
{
    return HasColor(STDOUT_FILENO) ? fmt::format(fmt::emphasis::bold, "{}", text) : text;
}

std::vector<std::string> Wrapped(const std::string &text, size_t columns)
{
    std::vector<std::string> lines;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t end = LineEnd(rest, columns);
        lines.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + (end < rest.size() && rest[end] == ' '), rest.size()));
    }
    return lines;
}

void Print(const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (written < 0 && errno == EPIPE) _exit(static_cast<int>(Exit::DONE));
        if (written < 0 && errno != EINTR)
            throw Error(Exit::FAILURE, fmt::format("cannot write standard output: {}", strerror(errno)));
        done += static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
}

std::string Dump(const Json &value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string Counted(size_t count, const char *noun)
{
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string CellText(const Json &value)
{
    if (value.is_null()) return "-";
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (value.is_string()) return Printable(Shortened(value.get_ref<const std::string &>()));
    if (!value.is_structured()) return Dump(value);
    std::vector<std::string> parts;
    for (const auto &[key, member] : value.items()) {
        const std::string text = member.is_object() ? "{" + CellText(member) + "}" : CellText(member);
        parts.push_back(value.is_array() ? text : fmt::format("{}={}", key, text));
    }
    if (parts.empty()) return "none";
    return fmt::format("{}", fmt::join(parts, value.is_array() ? "," : " "));
}

std::string TableText(const Json &rows, const TableStyle &style)
{
    if (rows.empty()) return "";
    if (!style.columns.empty()) return TableText(Chosen(rows, style.columns), {style.form});
    if (style.form == "name") return NamesText(rows);
    const bool isWide = style.form == "wide", isShown = isatty(STDOUT_FILENO) != 0;
    const auto columns = Columns(rows);
    const bool isBlock = rows.size() == 1 || !isShown; // where the width doesn't tell
    if (columns.size() > MAX_TABLE_COLUMNS && !isWide && isBlock) return AllUpright(rows);
    std::vector<std::vector<std::string>> lines(1);
    for (const std::string &column : columns)
        lines[0].push_back(Header(column));
    for (const Json &row : rows) {
        auto &line = lines.emplace_back();
        for (const std::string &column : columns) {
            const Json value = row.value(column, Json());
            line.push_back(isWide ? WholeText(value) : CellText(value));
        }
    }
    std::vector<size_t> widths(columns.size());
    for (const auto &line : lines) {
        for (size_t i = 0; i < widths.size(); i++)
            widths[i] = std::max(widths[i], TextWidth(line[i]));
    }
    const size_t total = std::accumulate(widths.begin(), widths.end(), 2 * widths.size() - 2);
    if (!isWide && isShown && total > TerminalWidth()) {
        const size_t before = total - widths.back();
        if (before + LEAST_LAST_COLUMN > TerminalWidth()) return AllUpright(rows);
        widths.back() = TerminalWidth() - before;
    }
    std::string text = TitleText(JoinLine(lines[0], widths)) + "\n";
    for (size_t i = 1; i < lines.size(); i++)
        text += JoinLine(lines[i], widths) + "\n";
    return text;
}

std::vector<std::string> InLines(const std::vector<std::string> &words, std::string_view separator,
                                 size_t margin)
{
    const size_t width = TerminalWidth();
    std::vector<std::string> lines;
    for (const std::string &word : words) {
        const bool fits =
            !lines.empty() && margin + lines.back().size() + 2 * separator.size() + word.size() < width;
        if (fits)
            (lines.back() += separator) += word;
        else
            lines.push_back(word);
    }
    return lines;
}

void PrintRows(const std::string &title, const Json &rows, bool json, const TableStyle &style)
{
    if (json)
        Print(Dump({{"command", title}, {"result", rows}}) + "\n");
    else
        Print(TableText(rows, style));
}

std::string ErrorText(const Error &error, bool json)
{
    if (json) {
        Json details = {
            {"problem", error.problem}, {"advice", error.advice}, {"exit", static_cast<int>(error.exit)}};
        if (error.status) {
            details["status"] = fmt::format("0x{:08X}", error.status);
            details["name"] = error.statusName;
        }
        if (!error.undone.empty()) details["undone"] = error.undone;
        if (!error.more.empty()) details["more"] = error.more;
        return Dump({{"error", details}}) + "\n";
    }
    const std::string name = std::string(program_invocation_short_name) + ":";
    const std::string start =
        HasColor(STDERR_FILENO) ? fmt::format(fmt::fg(fmt::terminal_color::red), "{}", name) : name;
    std::string text = fmt::format("{} {}\n", start, Printable(error.message));
    for (const std::string &problem : error.more)
        text += fmt::format("{} {}\n", start, Printable(problem));
    return text;
}

void PrintError(const Error &error, bool json)
{
    const std::string text = ErrorText(error, json);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

}
