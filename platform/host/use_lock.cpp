#include "platform/host/use_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "platform/host/files.h"

namespace vshost {
namespace {

namespace fs = std::filesystem;

constexpr const char *LOCK_FILE = "/use.lock";
constexpr const char *THROW_AWAY = "/vshost-";
constexpr const char *GONE = ".gone"; // renamed, so that no process attaches to a host that is being removed

bool IsOwnDirectory(const fs::path &path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid();
}

// A directory without a lock file is removed only if it is empty: otherwise it may be in use.
void RemoveIfLeft(const std::string &directory)
{
    UseLock lock;
    if (!lock.LockAlone(directory)) {
        rmdir(directory.c_str());
        return;
    }
    const std::string gone = directory.ends_with(GONE) ? directory : directory + GONE;
    rename(directory.c_str(), gone.c_str());
    RemoveHostDirectory(gone);
}

// While the directory has no lock, another process may take it for a left-over one and remove it.
bool MakeLocked(const std::string &parent, std::string &directory, UseLock &lock)
{
    do {
        directory = parent + THROW_AWAY + "XXXXXX";
        if (!mkdtemp(directory.data())) return false;
        if (lock.Share(directory, true)) return true;
    } while (errno == ENOENT);
    const int error = errno;
    rmdir(directory.c_str());
    errno = error;
    return false;
}

void RemoveLeftOver(const std::string &parent)
{
    std::error_code error;
    for (fs::directory_iterator entry(parent, error), end; entry != end; entry.increment(error))
        if (entry->path().native().starts_with(parent + THROW_AWAY) && IsOwnDirectory(entry->path()))
            RemoveIfLeft(entry->path());
}

}

bool UseLock::Share(const std::string &directory, bool inherited)
{
    struct stat status = {};
    Release();
    fd = OpenKeptFile(directory + LOCK_FILE, O_RDWR | O_CREAT);
    if (fd < 0 || (inherited && fcntl(fd, F_SETFD, 0) != 0)) return false;
    if (!LockFile(fd, LOCK_SH) || fstat(fd, &status) != 0) return false;
    if (status.st_nlink > 0) return true;
    errno = ENOENT;
    return false;
}

bool UseLock::LockAlone(const std::string &directory)
{
    Release();
    fd = open((directory + LOCK_FILE).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    return fd >= 0 && LockFile(fd, LOCK_EX | LOCK_NB);
}

void UseLock::Release()
{
    if (fd >= 0) close(fd);
    fd = -1;
}

std::string MakeThrowAwayDirectory(UseLock &lock)
{
    for (const char *parent : {"/dev/shm", "/tmp"}) {
        std::string directory;
        RemoveLeftOver(parent);
        if (MakeLocked(parent, directory, lock)) return directory;
    }
    return {};
}

void RemoveHostDirectory(const std::string &directory)
{
    std::error_code ignored;
    fs::remove_all(directory, ignored);
}

}
