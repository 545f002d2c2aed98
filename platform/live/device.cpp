#include "platform/live/device.h"

#define FUSE_USE_VERSION 312
#include <cerrno>
#include <cstring>
#include <fuse_lowlevel.h>
#include <memory>
#include <sys/stat.h>
#include <thread>

#include "platform/driver/driver.h"
#include "platform/host/locations.h"

namespace live {
namespace {

using vshost::Device;

constexpr double FOREVER = 1e9; // seconds that the kernel may keep what it was told
constexpr int MAX_ERRNO = 511;  // the kernel takes no larger one from a file system
constexpr unsigned THREADS = 8;

struct File {
    fuse_ino_t inode;
    Device device;
    const char *path; // in the host's directory
    const char *Name() const { return strrchr(path, '/') + 1; }
};

constexpr File FILES[] = {{2, Device::SWITCH, vshost::DEVICE_FILE}, {3, Device::RTM, vshost::RTM_FILE}};

const File *FindFile(fuse_ino_t inode)
{
    for (const File &file : FILES)
        if (file.inode == inode) return &file;
    return nullptr;
}

std::string &Directory()
{
    static auto *const directory = new std::string; // threads use it until the process ends
    return *directory;
}

// Owner, group and mode are the plain file's.
bool Describe(fuse_ino_t inode, struct stat &attributes)
{
    const File *file = FindFile(inode);
    const std::string path = Directory() + "/" + (file ? file->path : "dev");
    if ((!file && inode != FUSE_ROOT_ID) || stat(path.c_str(), &attributes) != 0) return false;
    attributes.st_ino = inode;
    return true;
}

void LookUp(fuse_req_t request, fuse_ino_t, const char *name)
{
    for (const File &file : FILES) {
        fuse_entry_param entry = {};
        if (strcmp(name, file.Name()) != 0 || !Describe(file.inode, entry.attr)) continue;
        entry.ino = file.inode;
        entry.attr_timeout = entry.entry_timeout = FOREVER;
        fuse_reply_entry(request, &entry);
        return;
    }
    fuse_reply_err(request, ENOENT);
}

void GetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info *)
{
    struct stat attributes = {};
    if (Describe(inode, attributes))
        fuse_reply_attr(request, &attributes, FOREVER);
    else
        fuse_reply_err(request, ENOENT);
}

// From the first ENOSYS on, the kernel opens the files by itself, so that a driver request is one message.
void Open(fuse_req_t request, fuse_ino_t, fuse_file_info *) { fuse_reply_err(request, ENOSYS); }

void ReadDirectory(fuse_req_t request, fuse_ino_t, size_t room, off_t first, fuse_file_info *)
{
    std::string list(room, '\0');
    size_t used = 0;
    for (size_t i = static_cast<size_t>(first); i < std::size(FILES); i++) {
        struct stat attributes = {};
        attributes.st_ino = FILES[i].inode;
        attributes.st_mode = S_IFREG;
        const size_t length = fuse_add_direntry(request, list.data() + used, room - used, FILES[i].Name(),
                                                &attributes, static_cast<off_t>(i + 1));
        if (length > room - used) break;
        used += length;
    }
    fuse_reply_buf(request, list.data(), used);
}

void Control(fuse_req_t request, fuse_ino_t inode, unsigned number, void *argument, fuse_file_info *,
             unsigned flags, const void *, size_t, size_t)
{
    const File *file = FindFile(inode);
    const pid_t caller = fuse_req_ctx(request)->pid;
    int error = ENOTTY;
    if (flags & FUSE_IOCTL_COMPAT)
        error = ENOSYS;
    else if (caller == 0) // it is in a process namespace that this one doesn't see
        error = EPERM;
    else if (file)
        error = RunCommandOf(caller, file->device, number, reinterpret_cast<uint64_t>(argument));
    if (error == 0)
        fuse_reply_ioctl(request, 0, nullptr, 0);
    else
        fuse_reply_err(request, error > 0 && error <= MAX_ERRNO ? error : EIO);
}

fuse_lowlevel_ops Operations()
{
    fuse_lowlevel_ops operations = {};
    operations.lookup = LookUp;
    operations.getattr = GetAttributes;
    operations.open = Open;
    operations.readdir = ReadDirectory;
    operations.ioctl = Control;
    return operations;
}

fuse_session *NewSession()
{
    static const fuse_lowlevel_ops operations = Operations();
    char name[] = "vshostd";
    char *arguments[] = {name, nullptr};
    fuse_args list = FUSE_ARGS_INIT(1, arguments);
    return fuse_session_new(&list, &operations, sizeof(operations), nullptr);
}

void Serve(fuse_session *session)
{
    fuse_loop_config *config = fuse_loop_cfg_create();
    fuse_loop_cfg_set_max_threads(config, THREADS);
    fuse_loop_cfg_set_idle_threads(config, THREADS);
    fuse_session_loop_mt(session, config);
    fuse_loop_cfg_destroy(config);
}

}

bool ServeDevices(const DeviceConnection &connection, const std::string &directory, std::string &message)
{
    Directory() = directory;
    fuse_session *session = NewSession();
    const std::string path = "/dev/fd/" + std::to_string(connection.fd);
    if (!session || fuse_session_mount(session, path.c_str()) != 0) {
        message = "the FUSE library refuses the devices";
        return false;
    }
    // The kernel drops the answer to a greeting that was answered before.
    std::string greeting = connection.greeting;
    fuse_buf buffer = {};
    buffer.size = greeting.size();
    buffer.mem = greeting.data();
    fuse_session_process_buf(session, &buffer);
    std::thread(Serve, session).detach();
    return true;
}

}
