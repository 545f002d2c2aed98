#include "platform/live/machine.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/host/locations.h"
#include "platform/include/vswitch_driver.h"

namespace live {
namespace {

namespace fs = std::filesystem;

// New files get the directory's group. Nobody but root makes or removes one, so that root, who opens them by
// their names, never follows a user's link.
constexpr mode_t DIRECTORY_MODE = S_ISGID | 0750;
constexpr mode_t FILE_MODE = 0660;
constexpr const char *SHARED_FILES[] = {
    "host.db",  "host.db-wal", "host.db-shm",       vshost::CONTROL_FILE,
    "use.lock", "write.lock",  vshost::DEVICE_FILE, vshost::RTM_FILE,
};

struct DeviceLink {
    const char *path;
    const char *file; // in the host's directory
};
constexpr DeviceLink DEVICE_LINKS[] = {{VSWITCH_DRIVER_DEVICE, vshost::DEVICE_FILE},
                                       {VSWITCH_DRIVER_RTM_DEVICE, vshost::RTM_FILE}};

bool Give(const std::string &path, gid_t group, mode_t mode)
{
    return lchown(path.c_str(), 0, group) == 0 && chmod(path.c_str(), mode) == 0;
}

bool FailOn(const std::string &path, const char *what, int error, std::string &message)
{
    message = path + ": can't " + what + ": " + strerror(error);
    return false;
}

bool LeadsTo(const std::string &path, const std::string &target)
{
    std::error_code error;
    return fs::read_symlink(path, error) == target;
}

// Those of a path that are empty, but for the machine's own.
void RemoveDirectories(fs::path path)
{
    while (path != "/dev" && path.has_relative_path() && rmdir(path.c_str()) == 0)
        path = path.parent_path();
}

}

bool ShareWithGroup(const std::string &directory, std::string &message)
{
    const group *users = getgrnam(vshost::MACHINE_GROUP);
    if (!users) {
        message = std::string("there is no group ") + vshost::MACHINE_GROUP +
                  ", whose members use the machine's host; make it with `addgroup --system " +
                  vshost::MACHINE_GROUP + "`";
        return false;
    }
    if (!Give(directory, users->gr_gid, DIRECTORY_MODE))
        return FailOn(directory, "give the directory to the group", errno, message);
    for (const char *name : SHARED_FILES) {
        const std::string path = directory + "/" + name;
        if (!Give(path, users->gr_gid, FILE_MODE) && errno != ENOENT)
            return FailOn(path, "give the file to the group", errno, message);
    }
    return true;
}

bool LinkDevices(const std::string &directory, std::string &message)
{
    for (const auto &[path, file] : DEVICE_LINKS) {
        const std::string target = directory + "/" + file;
        std::error_code error;
        fs::create_directories(fs::path(path).parent_path(), error);
        if (error) return FailOn(path, "make the folder of the device", error.value(), message);
        if (LeadsTo(path, target) || symlink(target.c_str(), path) == 0) continue;
        if (errno != EEXIST) return FailOn(path, "make the link to the device", errno, message);
        message = std::string(path) +
                  " belongs to another switch driver; a machine has one. Run a live host " +
                  "beside it with `vshostd --state DIR`";
        return false;
    }
    return true;
}

void UnlinkDevices(const std::string &directory)
{
    for (const auto &[path, file] : DEVICE_LINKS)
        if (LeadsTo(path, directory + "/" + file) && unlink(path) == 0)
            RemoveDirectories(fs::path(path).parent_path());
}

}
