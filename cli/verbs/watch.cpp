// Repeats a verb that reads, and shows what has changed.
#include "cli/verbs/watch.h"

#include <csignal>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/color.h>
#include <poll.h>
#include <unistd.h>

#include "cli/base/limit.h"
#include "cli/change/change.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

// The keys whose values identify a row.
constexpr const char *NAME_KEYS[] = {"switch",  "portset", "port", "uplink", "lag",
                                     "address", "vlan",    "kind", "group",  "session",
                                     "option",  "part",    "item", "name",   "secondary"};

std::string RowName(const Json &row, size_t index)
{
    std::vector<std::string> names;
    for (const char *key : NAME_KEYS) {
        if (row.contains(key) && row[key].is_primitive() && !row[key].is_null())
            names.push_back(CellText(row[key]));
    }
    return names.empty() ? std::to_string(index + 1) : fmt::format("{}", fmt::join(names, " "));
}

// The rows by their names.
std::map<std::string, Json> ByName(const Json &rows)
{
    std::map<std::string, Json> named;
    for (size_t i = 0; i < rows.size(); i++)
        named[RowName(rows[i], i)] = rows[i];
    return named;
}

void AddDifferences(const std::string &name, const Json &before, const Json &after, Json &changes)
{
    Json all = before;
    all.update(after);
    for (const auto &[key, value] : all.items()) {
        const Json old = before.value(key, Json());
        const Json now = after.value(key, Json());
        if (old != now)
            changes.push_back({{"object", name}, {"field", key}, {"before", old}, {"after", now}});
    }
}

std::string Clock() { return fmt::format("{:%H:%M:%S}", fmt::localtime(time(nullptr))); }

std::string ChangeLine(const Json &change)
{
    const std::string after = CellText(change["after"]);
    return fmt::format("{} {} {}: {} -> {}\n", Clock(), change["object"].get<std::string>(),
                       change["field"].get<std::string>(), CellText(change["before"]),
                       HasColor(STDOUT_FILENO) ? fmt::format(fmt::emphasis::bold, "{}", after) : after);
}

void Show(const std::string &title, const Json &rows, const Options &options)
{
    if (options.json)
        Print(Dump({{"command", title}, {"time", time(nullptr)}, {"result", rows}}) + "\n");
    else
        Print(fmt::format("{} {}\n{}", Clock(), title, TableText(rows, options.style)));
}

void ShowChanges(const std::string &title, const Json &changes, bool json)
{
    if (json) {
        Print(Dump({{"command", title}, {"time", time(nullptr)}, {"changes", changes}}) + "\n");
        return;
    }
    for (const Json &change : changes)
        Print(ChangeLine(change));
}

volatile sig_atomic_t interrupted = 0;

// Sleeps. Returns false when a signal has arrived, or when the reader of the output has gone.
bool Pause(double seconds)
{
    pollfd out{STDOUT_FILENO, 0, 0};
    const int ready = poll(&out, 1, static_cast<int>(seconds * 1000));
    return !interrupted && !(ready > 0 && (out.revents & (POLLERR | POLLHUP)));
}

}

Json Differences(const Json &before, const Json &after)
{
    Json changes = Json::array();
    const auto old = ByName(before);
    const auto now = ByName(after);
    for (const auto &[name, row] : now)
        AddDifferences(name, old.contains(name) ? old.at(name) : Json::object(), row, changes);
    for (const auto &[name, row] : old) {
        if (!now.contains(name)) AddDifferences(name, row, Json::object(), changes);
    }
    return changes;
}

Result Watch(const Verb &, const Arguments &arguments)
{
    const double interval =
        arguments.Has("--interval") ? ParseSeconds("--interval", arguments.Text("--interval")) : 1;
    const uint32_t times = arguments.Number("--times", 0);
    const auto &words = arguments.List("COMMAND");
    size_t used = 0;
    const Verb &verb = FindVerb(words, used);
    Parser parser(verb);
    Options options;
    options.json = arguments.Has("--json");
    const Arguments &watched =
        parser.Parse({words.begin() + static_cast<ptrdiff_t>(used), words.end()}, options);
    if (verb.effect == Effect::DIRECT || verb.noun == "watch")
        throw Error(Exit::USAGE, verb.Title() + " cannot be watched", "watch takes a verb that only reads");
    EndTimeLimit();
    signal(SIGINT, [](int) { interrupted = 1; });
    signal(SIGTERM, [](int) { interrupted = 1; });
    Json before;
    for (uint32_t round = 0; times == 0 || round < times; round++) {
        if (round && !Pause(interval)) break;
        if (round) LibraryInit(); // reload the cache, which may miss changes by other processes
        Result now = verb.run(verb, watched);
        if (!now.text.empty())
            throw Error(Exit::USAGE, verb.Title() + " prints a text", "watch takes a verb that prints rows");
        if (now.planOnly)
            Change(verb.Title(), now, options);
        else if (!now.steps.empty())
            throw Error(Exit::USAGE, verb.Title() + " would change something", "watch only reads");
        if (round == 0)
            Show(verb.Title(), now.rows, options);
        else if (const Json changes = Differences(before, now.rows); !changes.empty())
            ShowChanges(verb.Title(), changes, options.json);
        before = now.rows;
    }
    return {};
}

}
