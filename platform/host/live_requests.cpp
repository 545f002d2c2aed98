#include "platform/host/live_requests.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/host/locations.h"

namespace vshost {

namespace {

constexpr size_t LONGEST_ANSWER = 4096;
constexpr unsigned TRIES = 3;

bool FindSocket(const std::string &directory, sockaddr_un &address)
{
    const std::unique_ptr<char, decltype(&free)> whole(realpath(directory.c_str(), nullptr), free);
    if (!whole) return false;
    const std::string path = std::string(whole.get()) + "/" + SOCKET_FILE;
    if (path.size() >= sizeof(address.sun_path)) return false;
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    return true;
}

LiveAnswer Unreachable(int error)
{
    if (error == EACCES || error == EPERM) return {EACCES, "vshostd answers only root; run this as root"};
    return {ECONNREFUSED, "vshostd doesn't run on this host; start it with `vshostd --state DIR` as root"};
}

// False when the daemon died while it carried the request out.
bool Exchange(const sockaddr_un &address, const std::string &request, LiveAnswer &answer)
{
    const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    char packet[LONGEST_ANSWER] = {};
    ssize_t length = -1;
    const bool isThere =
        connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    const int error = errno;
    if (isThere && send(connection, request.data(), request.size(), MSG_NOSIGNAL) > 0)
        length = recv(connection, packet, sizeof(packet) - 1, 0);
    close(connection);
    if (!isThere) {
        answer = Unreachable(error);
        return true;
    }
    if (length <= 0) return false;
    answer.text = packet;
    answer.error = atoi(packet + std::min(answer.text.size() + 1, LONGEST_ANSWER - 1));
    return true;
}

}

LiveAnswer AskVshostd(const std::string &directory, const std::vector<std::string> &request)
{
    sockaddr_un address = {};
    if (!FindSocket(directory, address)) return Unreachable(ENOENT);
    std::string packet;
    for (const std::string &word : request)
        packet.append(word.c_str(), word.size() + 1);
    LiveAnswer answer;
    // A request that a killed daemon has carried out is refused by the next one, or carried out again.
    for (unsigned tries = 0; tries < TRIES; tries++)
        if (Exchange(address, packet, answer)) return answer;
    return {EIO, "vshostd died three times while it carried out this request; see its log"};
}

}
