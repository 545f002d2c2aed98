#include "fleet/command/follow.h"

#include <algorithm>
#include <fmt/format.h>
#include <thread>
#include <unistd.h>

#include "fleet/protocol/keys.h"

namespace vsfleet {

namespace {

constexpr int BAR = 30;
constexpr size_t MAX_HOSTS = 12;

Turn TurnOf(const Rollout &rollout, const std::string &host)
{
    const auto turn = rollout.turns.find(host);
    return turn == rollout.turns.end() ? Turn::WAITING : turn->second;
}

std::string Bar(int64_t done, int64_t all)
{
    const int64_t full = all ? done * BAR / all : BAR;
    std::string bar;
    for (int64_t i = 0; i < BAR; i++)
        bar += i < full ? "█" : "░";
    return bar;
}

std::string ErrorOf(const Fleet &fleet, const Rollout &rollout, const std::string &host)
{
    const auto found = fleet.hosts.find(host);
    if (found == fleet.hosts.end()) return "";
    const Turn turn = TurnOf(rollout, host);
    const auto plan = found->second.plans.find(rollout.id);
    if (turn == Turn::REFUSED && plan != found->second.plans.end()) return plan->second.record.error;
    return found->second.status.record.error;
}

// Reads the fleet again and again while etcd is away.
std::unique_ptr<Watch> ReadAndWatch(Console &console)
{
    for (;;) {
        try {
            console.ReadFleet();
            return std::make_unique<Watch>(console.client, keys::ROOT, console.revision + 1);
        } catch (const EtcdError &error) {
            if (error.kind != EtcdError::Kind::UNREACHABLE) throw;
            std::this_thread::sleep_for(Milliseconds(500));
        }
    }
}

}

Rows TurnCounts(const Rollout &rollout)
{
    std::map<Turn, int> counts;
    for (const std::string &host : rollout.hosts)
        counts[TurnOf(rollout, host)]++;
    Rows rows = Rows::object();
    for (const auto &[turn, count] : counts)
        rows[Json(turn).get<std::string>()] = count;
    return rows;
}

Rows HostRows(const Fleet &fleet, const Rollout &rollout)
{
    Rows rows = Rows::array();
    for (const std::string &host : rollout.hosts) {
        Rows row = {{"host", host}, {"turn", Json(TurnOf(rollout, host)).get<std::string>()}};
        if (const auto found = fleet.hosts.find(host); found != fleet.hosts.end()) {
            const auto plan = found->second.plans.find(rollout.id);
            row["changes"] = plan == found->second.plans.end() ? Rows() : Rows(plan->second.record.changes);
        }
        row["error"] = ErrorOf(fleet, rollout, host);
        rows.push_back(row);
    }
    return rows;
}

std::string ProgressText(const Fleet &fleet, const Rollout &rollout)
{
    const auto all = std::ssize(rollout.hosts);
    const auto done = std::count_if(rollout.hosts.begin(), rollout.hosts.end(), [&](const auto &host) {
        const Turn turn = TurnOf(rollout, host);
        return turn != Turn::WAITING && turn != Turn::STARTED && turn != Turn::ROLLING_BACK;
    });
    std::string text = fmt::format("{} {}  {}  {} {} of {} hosts", rollout.head.document.name,
                                   rollout.head.document.revision, Json(rollout.state).get<std::string>(),
                                   Bar(done, all), done, all);
    const Rows counts = TurnCounts(rollout);
    for (const auto &[turn, count] : counts.items())
        text += fmt::format("  {} {}", turn, count.get<int>());
    text += rollout.message.empty() ? "\n" : fmt::format("\n{}\n", rollout.message);
    Rows shown = Rows::array();
    const Rows rows = HostRows(fleet, rollout);
    for (const Rows &row : rows) {
        if (row["turn"] != "confirmed" && row["turn"] != "waiting" && shown.size() < MAX_HOSTS)
            shown.push_back(row);
    }
    return text + TableText(Readable(shown), {"wide"}); // lines, which are cut where they are drawn
}

Rollout Follow(Console &console, const std::string &id)
{
    LiveText live;
    const bool isLive = !console.json && CanDraw();
    for (std::unique_ptr<Watch> watch = ReadAndWatch(console);;) {
        const auto found = console.fleet.rollouts.find(id);
        if (found == console.fleet.rollouts.end())
            throw Error(Exit::NOT_FOUND, "the rollout is gone: a later one has followed it");
        const Rollout &rollout = found->second.record;
        if (isLive) live.Show(ProgressText(console.fleet, rollout));
        if (!IsActive(rollout.state)) {
            if (isLive) live.Show("");
            return rollout;
        }
        try {
            for (const KeyEvent &event : watch->Next(Milliseconds(1000)))
                console.fleet.Take(event);
        } catch (const EtcdError &error) {
            if (error.kind != EtcdError::Kind::UNREACHABLE && error.kind != EtcdError::Kind::COMPACTED) throw;
            console.client.Reconnect();
            watch = ReadAndWatch(console);
        }
    }
}

Exit Report(const Console &console, const Rollout &rollout)
{
    if (rollout.state == RolloutState::DONE) {
        console.PrintRows(HostRows(console.fleet, rollout));
        if (rollout.hosts.empty()) Note(rollout.message);
        return Exit::DONE;
    }
    const bool isPartly = std::any_of(rollout.turns.begin(), rollout.turns.end(),
                                      [](const auto &item) { return item.second == Turn::ROLL_BACK_FAILED; });
    std::string how = Json(rollout.state).get<std::string>();
    std::replace(how.begin(), how.end(), '-', ' ');
    throw Error(isPartly ? Exit::PARTLY_UNDONE : Exit::FAILURE,
                fmt::format("{} {}: {}: {}", rollout.head.document.name, rollout.head.document.revision, how,
                            rollout.message),
                fmt::format("see `vsfleet status {}`", rollout.head.document.name));
}

}
