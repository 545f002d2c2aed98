// Who is on a host. Each process on it holds a lock on one of its files, shared with the others; the maker
// of a throw-away host holds one that its children inherit. A throw-away host whose lock nobody holds was
// left by processes that were killed.
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
    // Takes it if it is there and nobody has it.
    bool LockAlone(const std::string &directory);
    void Release();

private:
    int fd = -1;
};

// Makes a throw-away directory in memory-backed files, and removes those that are left over there. Empty
// when that fails (errno).
std::string MakeThrowAwayDirectory(UseLock &lock);
void RemoveHostDirectory(const std::string &directory);

}
