#include "platform/live/peers.h"

#include <algorithm>
#include <cstddef>
#include <sys/socket.h>
#include <sys/stat.h>
#include <vector>

namespace live {
namespace {

constexpr size_t MOST_GROUPS = 65536; // the kernel's limit

bool ReadUser(int client, ucred &user)
{
    socklen_t size = sizeof(user);
    return getsockopt(client, SOL_SOCKET, SO_PEERCRED, &user, &size) == 0;
}

bool IsInGroup(int client, const ucred &user, gid_t group)
{
    if (user.gid == group) return true;
    std::vector<gid_t> groups(64);
    socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(client, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        groups.resize(MOST_GROUPS);
        size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (getsockopt(client, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) return false;
    }
    const auto end = groups.begin() + static_cast<ptrdiff_t>(size / sizeof(gid_t));
    return std::find(groups.begin(), end, group) != end;
}

}

bool IsRoot(int client)
{
    ucred user = {};
    return ReadUser(client, user) && user.uid == 0;
}

bool MayWrite(int client, const std::string &path)
{
    ucred user = {};
    struct stat file = {};
    if (!ReadUser(client, user)) return false;
    if (user.uid == 0) return true;
    if (stat(path.c_str(), &file) != 0) return false;
    if (user.uid == file.st_uid) return file.st_mode & S_IWUSR;
    return file.st_mode & (IsInGroup(client, user, file.st_gid) ? S_IWGRP : S_IWOTH);
}

}
