// The journal of a change, and the lock that keeps changes apart.
#include "cli/change/journal.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frontend/files.h"

namespace vsctl {

namespace {

constexpr int FORMAT = 1;
constexpr useconds_t LOCK_POLL = 20000; // µs

// The journal needs to be as durable as the host's own data, no more.
bool OutlivesPowerCuts()
{
    const char *durability = getenv("VSHOST_DURABILITY");
    return !IsEmbedded() || !durability || strcmp(durability, "process") != 0;
}

constexpr const char *UNFINISHED = "journal.cbor", *LAST = "last.cbor";

Files StateFiles()
{
    return Files(StateDirectory(), "run vsctl as root, or set VSCTL_STATE to a directory that you can write",
                 OutlivesPowerCuts());
}

std::optional<Journal> ReadFrom(const std::string &path)
{
    if (access(path.c_str(), F_OK) != 0) return {};
    const Json json = Json::from_cbor(ReadFile(path), true, false);
    try {
        if (json.at("format") != FORMAT) throw Error(Exit::FAILURE, "another version of vsctl wrote it");
        Journal journal{json.at("id"),         json.at("command"),    {}, json.at("awaits-confirmation"),
                        json.at("confirm-by"), json.value("boot", "")};
        for (const Json &step : json.at("steps"))
            journal.steps.push_back(StepFromJson(step));
        return journal;
    } catch (const std::exception &error) {
        throw Error(Exit::FAILURE, fmt::format("{} cannot be understood: {}", path, error.what()),
                    "use the vsctl that wrote it, or move the file away");
    }
}

}

std::string StateDirectory()
{
    const char *const asked = getenv("VSCTL_STATE");
    if (asked && *asked) return asked;
    const char *const host = getenv("VSHOST_DIR");
    if (host && *host && IsEmbedded()) return std::string(host) + "/vsctl";
    return "/var/lib/vsctl";
}

ChangeLock::ChangeLock()
{
    const Files files = StateFiles();
    const std::string directory = StateDirectory(), path = files.Path("lock");
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) files.Fail(directory, "created");
    descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) files.Fail(path, "opened");
    while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) files.Fail(path, "locked");
        usleep(LOCK_POLL);
    }
}

ChangeLock::~ChangeLock() { close(descriptor); }

void Journal::Write() const
{
    Json entries = Json::array();
    for (const Step &step : steps)
        entries.push_back(ToJson(step));
    const Json json = {{"format", FORMAT},        {"id", id},
                       {"command", command},      {"awaits-confirmation", awaitsConfirmation},
                       {"confirm-by", confirmBy}, {"boot", boot},
                       {"steps", entries}};
    // Not JSON, which requires UTF-8: names and texts may be anything.
    const Bytes bytes = Json::to_cbor(json);
    StateFiles().Write(UNFINISHED, {bytes.begin(), bytes.end()});
}

std::optional<Journal> Journal::Read() { return ReadFrom(StateFiles().Path(UNFINISHED)); }
std::optional<Journal> Journal::ReadLast() { return ReadFrom(StateFiles().Path(LAST)); }
void Journal::Keep() { StateFiles().Move(UNFINISHED, LAST); }
void Journal::Reopen() { StateFiles().Move(LAST, UNFINISHED); }
void Journal::Remove() { StateFiles().Remove(UNFINISHED); }

}
