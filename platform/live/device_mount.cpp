#include "platform/live/device_mount.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <unistd.h>
#include <utility>

namespace live {
namespace {

constexpr size_t GREETING_ROOM = 1u << 16;
constexpr int NOTIFY_RESEND = 7; // FUSE_NOTIFY_RESEND of newer kernel headers

}

bool DeviceMount::Make(std::string &message)
{
    connection.fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (connection.fd < 0) {
        message = std::string("can't open /dev/fuse: ") + strerror(errno) +
                  "; load the kernel's module fuse, or allow this process to use the device";
        return false;
    }
    const std::string options = "fd=" + std::to_string(connection.fd) +
                                ",rootmode=40000,user_id=0,group_id=0,allow_other,default_permissions";
    if (mount("vshostd", path.c_str(), "fuse", MS_NOSUID | MS_NODEV | MS_NOEXEC, options.c_str()) != 0) {
        message = "can't mount the devices on " + path + ": " + strerror(errno) +
                  "; allow this process to mount FUSE file systems";
        close(std::exchange(connection.fd, -1));
        return false;
    }
    connection.greeting.resize(GREETING_ROOM);
    const ssize_t length = read(connection.fd, connection.greeting.data(), GREETING_ROOM);
    connection.greeting.resize(length > 0 ? static_cast<size_t>(length) : 0);
    if (length > 0) return true;
    message = std::string("the kernel doesn't greet on /dev/fuse: ") + strerror(errno);
    Remove();
    return false;
}

bool DeviceMount::RecoverRequests(std::string &message)
{
    const fuse_out_header resend = {.len = sizeof(resend), .error = NOTIFY_RESEND, .unique = 0};
    if (write(connection.fd, &resend, sizeof(resend)) == sizeof(resend)) return true;
    Remove();
    return Make(message);
}

// The callers that wait are told at the close of the connection.
void DeviceMount::Remove()
{
    if (connection.fd < 0) return;
    umount2(path.c_str(), MNT_DETACH);
    close(std::exchange(connection.fd, -1));
}

// Looking at what is mounted there would wait for a process that is about to die.
void RemoveDeviceMounts(const std::string &path)
{
    while (umount2(path.c_str(), MNT_DETACH) == 0) {
    }
}

}
