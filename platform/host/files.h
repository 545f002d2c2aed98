// Files of a host: opened so that they can stay open, and locked. The machine's id that some of them hold.
#pragma once

#include <unistd.h>

#include <string>

#include "platform/host/status.h"

namespace vshost {

struct FileDescriptor {
    explicit FileDescriptor(int number) : number(number) {}
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    ~FileDescriptor()
    {
        if (number >= 0) close(number);
    }
    const int number;
};

// Opens a file that stays open, with close-on-exec. Its number is never that of a standard stream, which the
// program may have closed: the program's output would go into the file.
int OpenKeptFile(const std::string &path, int flags);

// The kernel's id of the machine's current start; empty when it cannot be read.
std::string BootId();

// flock(), again after a signal.
bool LockFile(int fd, int operation);

// The status for errno, and a message that says what could not be done with which file.
VsStatus FailOnErrno(const std::string &path, const char *what, std::string &message);

}
