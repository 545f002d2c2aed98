#include "platform/host/files.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace vshost {

int OpenKeptFile(const std::string &path, int flags)
{
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0644);
    if (file < 0 || file > STDERR_FILENO) return file;
    const int kept = fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(file);
    return kept;
}

std::string BootId()
{
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

bool LockFile(int fd, int operation)
{
    int result;
    do
        result = flock(fd, operation);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

VsStatus FailOnErrno(const std::string &path, const char *what, std::string &message)
{
    const int error = errno;
    message = path + ": cannot " + what + ": " + strerror(error);
    return StatusOfErrno(error);
}

}
