#include "platform/host/live_link.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/host/locations.h"

namespace vshost {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto LONGEST_WAIT = std::chrono::seconds(5);
constexpr char REQUEST[] = "follow";

thread_local bool follows = false;

enum class Answer { FOLLOWED, NOBODY, DIED };

// A connection for each write: the program that this library is in may close any descriptor that stays open.
Answer Ask(const sockaddr_un &address)
{
    const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connection < 0) return Answer::NOBODY;
    const timeval patience = {.tv_sec = LONGEST_WAIT.count(), .tv_usec = 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    Answer answer = Answer::NOBODY;
    char packet[256];
    if (connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        const bool isSent = send(connection, REQUEST, sizeof REQUEST, MSG_NOSIGNAL) > 0;
        const bool isAnswered = isSent && recv(connection, packet, sizeof packet, 0) > 0;
        answer = isAnswered ? Answer::FOLLOWED : Answer::DIED;
    }
    close(connection);
    return answer;
}

}

void ThisThreadFollows() { follows = true; }

bool IsLive(const std::string &directory)
{
    const int error = errno;
    const bool isLive = access((directory + "/" + SOCKET_FILE).c_str(), F_OK) == 0;
    errno = error;
    return isLive;
}

void AwaitFollower(const std::string &directory)
{
    const std::string path = directory + "/" + SOCKET_FILE;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (follows || path.size() >= sizeof address.sun_path || access(path.c_str(), F_OK) != 0) return;
    path.copy(address.sun_path, path.size());
    const int error = errno;
    const auto end = Clock::now() + LONGEST_WAIT;
    while (Ask(address) == Answer::DIED && Clock::now() < end)
        usleep(1000);
    errno = error;
}

}
