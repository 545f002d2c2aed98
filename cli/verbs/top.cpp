// vsctl top: rates of ports and uplinks, the busiest first.
#include <algorithm>
#include <csignal>
#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "cli/base/clock.h"
#include "cli/base/limit.h"
#include "cli/verbs/parser.h"
#include "frontend/output.h"

namespace vsctl {

namespace {

volatile sig_atomic_t stopped = 0;

struct Counted {
    Target port;
    Json plugged; // the NIC or interface of the port, or null
    VSwitchPortStatistics counters;
};

struct Sample {
    double time = 0;
    std::vector<Counted> ports;
};

Sample Measure(const std::vector<std::string> &aliases)
{
    Sample sample{SecondsSinceBoot(), {}};
    for (const std::string &alias : aliases) {
        for (const vshost_port &port : PortsOf(alias)) {
            const Target target{alias, port.id};
            const std::string plugged = *port.nic ? port.nic : port.interface;
            if (!PortExists(target)) continue; // it is gone meanwhile
            sample.ports.push_back(
                {target, plugged.empty() ? Json() : Json(plugged), ReadStatistics(target)});
        }
    }
    return sample;
}

// In a second. A counter that began again counts from 0.
uint64_t Rate(uint64_t before, uint64_t now, double seconds)
{
    return static_cast<uint64_t>(static_cast<double>(now >= before ? now - before : now) / seconds + 0.5);
}

uint64_t Busy(const Json &row) { return row["from-bits"].get<uint64_t>() + row["to-bits"].get<uint64_t>(); }

// The busiest first, then those that drop most; the others in their order.
Json Rates(const Sample &before, const Sample &now)
{
    std::map<std::pair<std::string, std::string>, VSwitchPortStatistics> known;
    for (const Counted &counted : before.ports)
        known[{counted.port.alias, counted.port.port}] = counted.counters;
    std::vector<Json> rows;
    const double seconds = std::max(now.time - before.time, 1e-3);
    for (const auto &[port, plugged, counters] : now.ports) {
        const auto &old = known.try_emplace({port.alias, port.port}, counters).first->second;
        const auto rate = [&](uint64_t was, uint64_t is) { return Rate(was, is, seconds); };
        rows.push_back(RowOf(port, {{"plugged", plugged},
                                    {"from-packets", rate(old.fromPackets, counters.fromPackets)},
                                    {"from-bits", 8 * rate(old.fromBytes, counters.fromBytes)},
                                    {"to-packets", rate(old.toPackets, counters.toPackets)},
                                    {"to-bits", 8 * rate(old.toBytes, counters.toBytes)},
                                    {"dropped", rate(DroppedOf(old), DroppedOf(counters))}}));
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Json &left, const Json &right) {
        return std::pair(Busy(left), left["dropped"].get<uint64_t>()) >
               std::pair(Busy(right), right["dropped"].get<uint64_t>());
    });
    return rows;
}

// "1.2M"; as many columns as a table of rates has room for.
std::string Short(uint64_t number)
{
    if (number < 10000) return std::to_string(number);
    auto value = static_cast<double>(number);
    const char *unit = " kMGT";
    for (; value >= 1000 && unit[1]; unit++)
        value /= 1000;
    return fmt::format("{:.1f}{}", value, *unit);
}

// What people read: rates with units, like "1.2M", and what stands behind them.
Json Readable(Json rows, const char *behind)
{
    for (Json &row : rows) {
        for (const char *key : {"from-packets", "from-bits", "to-packets", "to-bits", "dropped"})
            row[key] = Short(row[key]) + behind;
    }
    return rows;
}

// While it lives, the terminal gives each key at once and shows a screen of its own.
class Screen {
public:
    Screen()
    {
        tcgetattr(STDIN_FILENO, &before);
        termios now = before;
        now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &now);
        Print("\x1b[?1049h\x1b[?25l\x1b[?7l"); // its own screen, no cursor, long lines are cut
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;
    ~Screen()
    {
        const std::string leave = "\x1b[?7h\x1b[?25h\x1b[?1049l";
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, leave.data(), leave.size());
        tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }

private:
    termios before{};
};

size_t ScreenLines()
{
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : 24;
}

// Waits; false when the user leaves.
bool Wait(double seconds)
{
    const double end = SecondsSinceBoot() + seconds;
    for (double rest = seconds; rest > 0 && !stopped; rest = end - SecondsSinceBoot()) {
        pollfd keys{STDIN_FILENO, POLLIN, 0};
        char key = 0;
        if (poll(&keys, 1, static_cast<int>(rest * 1000) + 1) <= 0) continue;
        if (read(STDIN_FILENO, &key, 1) <= 0 || key == 'q') return false;
    }
    return !stopped;
}

void Draw(const Json &rows)
{
    Json shown = Json::array();
    const size_t room = ScreenLines() - std::min<size_t>(ScreenLines() - 1, 4);
    for (size_t i = 0; i < std::min(rows.size(), room); i++)
        shown.push_back(rows[i]);
    std::string text = fmt::format("{} of {} ports, rates a second, the busiest first; q leaves\n\n",
                                   shown.size(), rows.size());
    text += TableText(Readable(std::move(shown), ""), {"wide"});
    std::string screen = "\x1b[H";
    for (const std::string &line : Words(text, "\n"))
        screen += line + "\x1b[K\r\n";
    screen.resize(screen.size() - 2);
    Print(screen + "\x1b[J");
}

void Follow(const std::vector<std::string> &aliases, double interval)
{
    const auto stop = [](int) { stopped = 1; };
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        signal(number, stop);
    const Screen screen;
    Sample before = Measure(aliases);
    Draw(Rates(before, before));
    while (Wait(interval)) {
        Sample now = Measure(aliases);
        Draw(Rates(before, now));
        before = std::move(now);
    }
}

Result Top(const Verb &, const Arguments &arguments)
{
    RequireOwnPlatform("list ports");
    const double interval = arguments.Seconds("--interval", 1);
    std::vector<std::string> aliases = SwitchNames();
    if (arguments.Has("SWITCH")) {
        SwitchId(arguments.Text("SWITCH"));
        aliases = {arguments.Text("SWITCH")};
    }
    if (!arguments.Has("--json") && isatty(STDOUT_FILENO) && isatty(STDIN_FILENO)) {
        EndTimeLimit();
        Follow(aliases, interval);
        return {};
    }
    const Sample before = Measure(aliases);
    RestUntil(before.time + interval);
    const Json rows = Rates(before, Measure(aliases));
    return Rows(arguments.Has("--json") ? rows : Readable(rows, "/s"));
}

}

std::vector<Verb> TopVerbs()
{
    return {Reads("top", Top,
                  {{"SWITCH", Shape::OPTIONAL, "Alias of a switch (default: all)", Names::SWITCH},
                   {"--interval", Shape::OPTION, "Time between two looks at the counters (default 1s)"}},
                  {"Show the rates of ports and uplinks, the busiest first", "\nlab --interval 5s\n--json",
                   "VSDVS_GetPortProp",
                   "switch, port, plugged?, from-packets:number, from-bits:number, to-packets:number, "
                   "to-bits:number, dropped:number"})};
}

}
