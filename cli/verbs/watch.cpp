// Repeats a verb that reads, and shows what has changed.
#include "cli/verbs/watch.h"

#include <csignal>
#include <fmt/chrono.h>
#include <poll.h>
#include <unistd.h>

#include "cli/base/limit.h"
#include "cli/change/change.h"
#include "cli/change/difference.h"
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

std::string Clock() { return fmt::format("{:%H:%M:%S}", fmt::localtime(time(nullptr))); }

std::string ChangeLine(const Json &change)
{
    return fmt::format("{} {} {}: {} -> {}\n", Clock(), change["object"].get<std::string>(),
                       change["field"].get<std::string>(), CellText(change["before"]),
                       TitleText(CellText(change["after"])));
}

// The first result, or what has changed since.
void Show(const std::string &title, const Json &shown, bool isFirst, const Options &options)
{
    const char *const key = isFirst ? "result" : "changes";
    if (options.json) return Print(Dump({{"command", title}, {"time", time(nullptr)}, {key, shown}}) + "\n");
    if (isFirst) return Print(fmt::format("{} {}\n{}", Clock(), title, TableText(shown, options.style)));
    for (const Json &change : shown)
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
    struct States {
        Json before = Json::object();
        Json after = Json::object();
    };
    std::map<std::string, States> rows; // by their names
    for (size_t i = 0; i < before.size(); i++)
        rows[RowName(before[i], i)].before = before[i];
    for (size_t i = 0; i < after.size(); i++)
        rows[RowName(after[i], i)].after = after[i];
    Json changes = Json::array();
    for (const auto &[name, states] : rows) {
        for (const auto &[field, old, now] : FieldChanges(states.before, states.after))
            changes.push_back({{"object", name}, {"field", field}, {"before", old}, {"after", now}});
    }
    return changes;
}

Result Watch(const Verb &, const Arguments &arguments)
{
    const double interval = arguments.Seconds("--interval", 1);
    const uint32_t times = arguments.Number("--times", 0);
    std::vector<std::string> words = arguments.List("COMMAND");
    const Verb &verb = TakeVerb(words);
    Parser parser(verb);
    Options options;
    options.json = arguments.Has("--json");
    const Arguments &watched = parser.Parse(words, options);
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
        const Json shown = round == 0 ? now.rows : Differences(before, now.rows);
        if (round == 0 || !shown.empty()) Show(verb.Title(), shown, round == 0, options);
        before = now.rows;
    }
    return {};
}

}
