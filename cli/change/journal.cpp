// The journal of a change, and the lock that keeps changes apart.
#include "cli/change/journal.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/base/output.h"

namespace vsctl {

namespace {

constexpr int FORMAT = 1;
constexpr useconds_t LOCK_POLL = 20000; // µs

[[noreturn]] void ThrowFileError(const std::string &path, const char *action)
{
    const int error = errno;
    const bool denied = error == EACCES || error == EPERM || error == EROFS;
    throw Error(denied ? Exit::PERMISSION : Exit::FAILURE,
                fmt::format("{} cannot be {}: {}", path, action, strerror(error)),
                "run vsctl as root, or set VSCTL_STATE to a directory that you can write");
}

// The journal needs to be as durable as the host's own data, no more.
bool OutlivesPowerCuts()
{
    const char *durability = getenv("VSHOST_DURABILITY");
    return !IsEmbedded() || !durability || strcmp(durability, "process") != 0;
}

std::string JournalPath() { return StateDirectory() + "/journal.cbor"; }
std::string LastPath() { return StateDirectory() + "/last.cbor"; }

// Writes a whole file, which is on disk when this returns.
void WriteFile(const std::string &path, const std::string &text)
{
    const std::string temporary = path + ".new";
    const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) ThrowFileError(temporary, "written");
    bool written = true;
    for (size_t done = 0; written && done < text.size();) {
        const ssize_t length = write(file, text.data() + done, text.size() - done);
        written = length > 0;
        if (written) done += static_cast<size_t>(length);
    }
    written = written && (!OutlivesPowerCuts() || fsync(file) == 0);
    close(file);
    if (!written || rename(temporary.c_str(), path.c_str()) != 0) ThrowFileError(path, "written");
}

void SyncDirectory()
{
    if (!OutlivesPowerCuts()) return;
    const int directory = open(StateDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0 || fsync(directory) != 0) ThrowFileError(StateDirectory(), "synchronized");
    close(directory);
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
    const std::string directory = StateDirectory();
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) ThrowFileError(directory, "created");
    const std::string path = directory + "/lock";
    descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) ThrowFileError(path, "opened");
    while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) ThrowFileError(path, "locked");
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
    WriteFile(JournalPath(), {bytes.begin(), bytes.end()});
    SyncDirectory();
}

namespace {

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

void Rename(const std::string &from, const std::string &to)
{
    if (rename(from.c_str(), to.c_str()) != 0) ThrowFileError(from, "renamed");
    SyncDirectory();
}

}

std::optional<Journal> Journal::Read() { return ReadFrom(JournalPath()); }
std::optional<Journal> Journal::ReadLast() { return ReadFrom(LastPath()); }
void Journal::Keep() { Rename(JournalPath(), LastPath()); }
void Journal::Reopen() { Rename(LastPath(), JournalPath()); }

void Journal::Remove()
{
    if (unlink(JournalPath().c_str()) != 0 && errno != ENOENT) ThrowFileError(JournalPath(), "removed");
    SyncDirectory();
}

}
