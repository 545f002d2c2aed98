// A change as a difference for people: what comes, changes and goes, by switch.
#include "cli/change/difference.h"

#include <algorithm>
#include <fmt/color.h>
#include <map>
#include <unistd.h>

#include "frontend/output.h"

namespace vsctl {

namespace {

constexpr size_t MOST_LINES = 50;

struct Line {
    char sign; // '+', '~' or '-'
    std::string item;
    std::string details;
    bool operator<(const Line &other) const
    {
        return std::tie(sign, item, details) < std::tie(other.sign, other.item, other.details);
    }
};

char SignOf(const Json &before, const Json &after)
{
    return before.is_null() ? '+' : after.is_null() ? '-' : '~';
}

std::string ValueText(const Json &value) { return value.is_null() ? "none" : CellText(value); }

std::string ArrowText(const Json &before, const Json &after)
{
    return fmt::format("{} -> {}", ValueText(before), ValueText(after));
}

// Of tables, the fields that differ.
std::string ChangeText(const Json &before, const Json &after)
{
    if (before.is_null()) return ValueText(after);
    if (after.is_null()) return ValueText(before);
    if (!before.is_object() || !after.is_object()) return ArrowText(before, after);
    std::vector<std::string> parts;
    for (const auto &[field, old, now] : FieldChanges(before, after))
        parts.push_back(fmt::format("{} {}", field, ArrowText(old, now)));
    return fmt::format("{}", fmt::join(parts, ", "));
}

// Entries of a list that come or go.
std::vector<Line> EntryLines(const std::string &item, const Json &before, const Json &after)
{
    std::vector<Line> lines;
    const auto add = [&](char sign, const Json &from, const Json &in) {
        for (const Json &entry : from.is_null() ? Json::array() : from) {
            if (in.is_null() || std::find(in.begin(), in.end(), entry) == in.end())
                lines.push_back({sign, item, CellText(entry)});
        }
    };
    add('-', before, after);
    add('+', after, before);
    return lines;
}

// A new order of the same uplinks is one line.
std::vector<Line> UplinkLines(const Json &before, const Json &after)
{
    const auto idsOf = [](const Json &lists) { return lists.is_null() ? lists : lists["ids"]; };
    const Json old = idsOf(before), now = idsOf(after);
    std::vector<Line> lines = EntryLines("uplink", old, now);
    for (auto &[sign, item, details] : lines)
        item += " " + std::exchange(details, "");
    if (lines.empty() && before != after) lines = {{'~', "uplinks", ArrowText(old, now)}};
    return lines;
}

std::string SwitchText(const Json &row)
{
    if (!row["after"].is_null()) return CellText(row["after"]);
    return row.contains("ports") ? "with " + Counted(row["ports"], "port") : "";
}

std::vector<Line> LinesOf(const Json &row)
{
    const std::string item = row["item"];
    const Json &before = row["before"], &after = row["after"];
    if (item == "switch") return {{SignOf(before, after), "", SwitchText(row)}};
    if (item == "port") return {{SignOf(before, after), "", after.is_null() ? "" : CellText(after)}};
    if (item == "uplinks") return UplinkLines(before, after);
    if (item == "uplink-admin" && before != after) {
        const auto state = [](const Json &up) { return up == true ? "up" : "down"; };
        return {
            {'~', "uplink " + CellText(row["uplink"]), fmt::format("{} -> {}", state(before), state(after))}};
    }
    const std::string name = item == "property" ? "property " + CellText(row["key"]) : item;
    if (before == after) return {};
    if (before.is_array() || after.is_array()) return EntryLines(name, before, after);
    return {{SignOf(before, after), name, ChangeText(before, after)}};
}

std::string Painted(char sign, const std::string &text)
{
    if (!HasColor(STDOUT_FILENO)) return text;
    const auto color = sign == '+'   ? fmt::terminal_color::green
                       : sign == '-' ? fmt::terminal_color::red
                                     : fmt::terminal_color::yellow;
    return fmt::format(fmt::fg(color), "{}", text);
}

// A line that begins with a mark in the colour of its sign. On a terminal, what does not fit stands below.
std::string LineOf(size_t margin, const Line &line, const std::string &mark, const std::string &rest)
{
    constexpr size_t INDENT = 4, LEAST_ROOM = 20;
    const std::string below(margin + INDENT, ' ');
    const size_t room = std::max(TerminalWidth(), below.size() + LEAST_ROOM) - below.size();
    const auto parts = isatty(STDOUT_FILENO) ? Wrapped(mark + rest, room) : std::vector{mark + rest};
    std::string text = fmt::format("{}", fmt::join(parts, "\n" + below));
    if (text.starts_with(mark)) text.replace(0, mark.size(), Painted(line.sign, mark));
    return std::string(margin, ' ') + text;
}

// The lines of one switch, in the order in which they first come up.
class SwitchLines {
public:
    void Add(const Json &row)
    {
        const bool isSwitch = row["item"] == "switch";
        for (Line &line : LinesOf(row)) {
            if (isSwitch) {
                heading = line;
                continue;
            }
            const auto [known, isNew] = places.try_emplace(line, lines.size());
            if (isNew) lines.push_back({line, {}});
            if (!row["port"].is_null()) lines[known->second].second.push_back(row["port"]);
        }
    }

    void AppendTo(std::vector<std::string> &text, const std::string &alias) const
    {
        if (lines.empty() && !heading) return;
        const std::string name = "switch " + CellText(alias);
        if (heading)
            text.push_back(LineOf(0, *heading, fmt::format("{} {}", heading->sign, name),
                                  heading->details.empty() ? "" : "  " + heading->details));
        else
            text.push_back(name);
        for (const auto &[line, ports] : lines)
            text.push_back(LineText(line, ports));
    }

private:
    static std::string LineText(const Line &line, const std::vector<std::string> &ports)
    {
        std::vector<std::string> shown;
        for (const std::string &range : PortRanges(ports))
            shown.push_back(CellText(range));
        std::string subject = fmt::format("{}", fmt::join(shown, ","));
        if (!line.item.empty()) subject += (subject.empty() ? "" : "  ") + line.item;
        const char *const colon = line.item.empty() || line.details.empty() ? "  " : ": ";
        return LineOf(2, line, fmt::format("{} ", line.sign),
                      subject + (line.details.empty() ? "" : colon + line.details));
    }

    std::optional<Line> heading; // of a switch that comes or goes
    std::map<Line, size_t> places;
    std::vector<std::pair<Line, std::vector<std::string>>> lines; // with their ports
};

}

std::vector<FieldChange> FieldChanges(const Json &before, const Json &after)
{
    Json all = before;
    all.update(after);
    std::vector<FieldChange> changes;
    for (const auto &[field, value] : all.items()) {
        const Json old = before.value(field, Json()), now = after.value(field, Json());
        if (old != now) changes.push_back({field, old, now});
    }
    return changes;
}

std::string DifferenceText(const Json &rows)
{
    std::vector<std::string> aliases;
    std::map<std::string, SwitchLines> switches;
    for (const Json &row : rows) {
        const std::string alias = row["switch"];
        const auto [found, isNew] = switches.try_emplace(alias);
        if (isNew) aliases.push_back(alias);
        found->second.Add(row);
    }
    std::vector<std::string> lines;
    for (const std::string &alias : aliases)
        switches.at(alias).AppendTo(lines, alias);
    const size_t more = lines.size() > MOST_LINES ? lines.size() - MOST_LINES : 0;
    lines.resize(lines.size() - more);
    if (more) lines.push_back(fmt::format("  … and {} more lines, which --json shows", more));
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

std::string SummaryText(const Json &rows, bool isMade)
{
    std::map<char, size_t> counts;
    for (const Json &row : rows) {
        for (const Line &line : LinesOf(row))
            counts[line.sign]++;
    }
    return fmt::format(fmt::runtime(isMade ? "{} added, {} changed, {} removed\n"
                                           : "{} to add, {} to change, {} to remove\n"),
                       counts['+'], counts['~'], counts['-']);
}

}
