// open, ioctl and close of the driver's two devices. On a host each device is an empty file of the host's
// directory, or, while vshostd answers, a file of its own. A descriptor belongs to a device when it refers to
// that file, however the process got it: dup, fork, exec and descriptors passed over a socket need no extra
// code.
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "platform/include/vswitch_driver.h"
#include "platform/preload/preload.h"

namespace {

constexpr const char *DEVICE_PATHS[] = {VSWITCH_DRIVER_DEVICE, VSWITCH_DRIVER_RTM_DEVICE};
constexpr const char *DEVICE_FILES[] = {vshost::DEVICE_FILE, vshost::RTM_FILE}; // in the host's directory
constexpr int NO_DEVICE = -1;

int DeviceOfPath(const char *path)
{
    if (!path || path[0] != '/' || !CurrentHost()) return NO_DEVICE;
    for (int device = 0; device < 2; device++)
        if (strcmp(path, DEVICE_PATHS[device]) == 0) return device;
    return NO_DEVICE;
}

int OpenDevice(int device, int flags, mode_t mode)
{
    const VshostCore *core = Core();
    if (core) return core->openDevice(vshost::Device{device}, flags, mode);
    errno = ENOENT;
    return -1;
}

bool Identify(const ShimHost &host, int device, struct stat &file)
{
    char path[4096];
    const int length = snprintf(path, sizeof(path), "%s/%s", host.directory, DEVICE_FILES[device]);
    return length < static_cast<int>(sizeof(path)) && stat(path, &file) == 0;
}

// Whether vshostd answers at the file.
bool IsServed(int descriptor)
{
    struct statfs filesystem;
    return fstatfs(descriptor, &filesystem) == 0 && filesystem.f_type == FUSE_SUPER_MAGIC;
}

// Looks up the host's device files, once for those that stay. Threads that do so at the same time find the
// same files.
bool LookUpFiles(ShimHost &host, bool isServed)
{
    struct stat files[2];
    if (host.known.load(std::memory_order_acquire)) return true;
    for (int device = 0; device < 2; device++) {
        if (!Identify(host, device, files[device])) return false;
        host.files[device] = files[device].st_ino;
    }
    host.filesystem = files[0].st_dev;
    host.known.store(!isServed, std::memory_order_release);
    return true;
}

int DeviceOfDescriptor(int descriptor)
{
    ShimHost *host = CurrentHost();
    if (!host) return NO_DEVICE;
    const int error = errno;
    int found = NO_DEVICE;
    struct stat opened;
    if (fstat(descriptor, &opened) == 0 && S_ISREG(opened.st_mode) &&
        LookUpFiles(*host, IsServed(descriptor)))
        for (int device = 0; device < 2; device++)
            if (opened.st_ino == host->files[device] && opened.st_dev == host->filesystem) found = device;
    errno = error;
    return found;
}

bool HasMode(int flags) { return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE; }

mode_t ModeOf(int flags, va_list arguments)
{
    return HasMode(flags) ? static_cast<mode_t>(va_arg(arguments, int)) : 0;
}

int Open(const char *path, int flags, mode_t mode)
{
    const int device = DeviceOfPath(path);
    return device == NO_DEVICE ? Real().open(path, flags, mode) : OpenDevice(device, flags, mode);
}

int OpenAt(int folder, const char *path, int flags, mode_t mode)
{
    const int device = DeviceOfPath(path);
    return device == NO_DEVICE ? Real().openat(folder, path, flags, mode) : OpenDevice(device, flags, mode);
}

void RecordClose(int device)
{
    const int error = errno;
    const PreloadCall call{VSHOST_CLOSE, DEVICE_PATHS[device], DEVICE_PATHS[device], 0};
    LoadedCore()->intercept(&call);
    errno = error;
}

}

SHIM_EXPORT int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeOf(flags, arguments);
    va_end(arguments);
    return Open(path, flags, mode);
}

SHIM_EXPORT int openat(int folder, const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = ModeOf(flags, arguments);
    va_end(arguments);
    return OpenAt(folder, path, flags, mode);
}

// On a 64-bit machine the variants for large files are the same functions. The variants of fortified programs
// differ only in what the compiler checks.
SHIM_EXPORT int open64(const char *path, int flags, ...) __attribute__((alias("open")));
SHIM_EXPORT int openat64(int folder, const char *path, int flags, ...) __attribute__((alias("openat")));
SHIM_EXPORT int __open_2(const char *path, int flags) { return Open(path, flags, 0); }
SHIM_EXPORT int __open64_2(const char *path, int flags) { return Open(path, flags, 0); }
SHIM_EXPORT int __openat_2(int folder, const char *path, int flags) { return OpenAt(folder, path, flags, 0); }
SHIM_EXPORT int __openat64_2(int folder, const char *path, int flags)
{
    return OpenAt(folder, path, flags, 0);
}

SHIM_EXPORT int ioctl(int descriptor, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);

    // The kernel keeps some numbers from vshostd, and the RTM device takes all: its requests run here.
    const int device = DeviceOfDescriptor(descriptor);
    const bool runsHere = device == static_cast<int>(vshost::Device::RTM) || !IsServed(descriptor);
    if (device == NO_DEVICE || !runsHere) return Real().ioctl(descriptor, request, argument);
    const VshostCore *core = Core();
    const int error =
        core ? core->command(vshost::Device{device}, static_cast<uint32_t>(request), argument) : ENODEV;
    if (error) errno = error;
    return error ? -1 : 0;
}

SHIM_EXPORT int close(int descriptor)
{
    const int device = LoadedCore() ? DeviceOfDescriptor(descriptor) : NO_DEVICE;
    const int result = Real().close(descriptor);
    if (device != NO_DEVICE && result == 0) RecordClose(device);
    return result;
}
