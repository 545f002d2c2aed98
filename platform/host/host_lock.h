// Who is on a host. Each process on it holds a lock on one of its files, shared with the others; the maker
// of a throw-away host holds one that its children inherit. A throw-away host whose lock nobody holds was
// left by processes that were killed.
#ifndef PLATFORM_HOST_HOST_LOCK_H
#define PLATFORM_HOST_HOST_LOCK_H

#include <string>

namespace vshost {

class HostLock {
public:
    HostLock() = default;
    HostLock(const HostLock &) = delete;
    HostLock &operator=(const HostLock &) = delete;
    ~HostLock() { Release(); }

    // Shares the lock. False with errno, which is ENOENT when the directory is gone.
    bool Take(const std::string &directory, bool inherited);
    // Takes it if it is there and nobody has it.
    bool TakeAlone(const std::string &directory);
    void Release();

private:
    int fd = -1;
};

// Makes a throw-away directory in memory-backed files, and removes those that are left over there. Empty
// when that fails (errno).
std::string MakeThrowAwayDirectory(HostLock &lock);
void RemoveHostDirectory(const std::string &directory);

}

#endif
