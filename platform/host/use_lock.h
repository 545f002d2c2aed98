// The lock that shows whether a host is in use. Each process on the host holds it, shared with the others.
// The process that makes a throw-away host lets its children inherit it. A throw-away host whose lock no
// process holds was left behind by processes that were killed.
#pragma once

#include <string>

namespace vshost {

class UseLock {
public:
    UseLock() = default;
    UseLock(const UseLock &) = delete;
    UseLock &operator=(const UseLock &) = delete;
    ~UseLock() { Release(); }

    // Shares the lock. False with errno, which is ENOENT when the directory is gone.
    bool Share(const std::string &directory, bool inherited);
    // Locks it exclusively; false when the lock file is absent or a process holds the lock.
    bool LockAlone(const std::string &directory);
    void Release();

private:
    int fd = -1;
};

// Makes a throw-away directory in memory-backed files, and removes the ones that killed processes left there.
// Empty when that fails (errno).
std::string MakeThrowAwayDirectory(UseLock &lock);
void RemoveHostDirectory(const std::string &directory);

}
