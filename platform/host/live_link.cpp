#include "platform/host/live_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/host/files.h"
#include "platform/host/locations.h"

namespace vshost {

namespace {

constexpr auto LONGEST_WAIT = std::chrono::seconds(5);
constexpr useconds_t PAUSE = 1000; // between two attempts to reach vshostd

thread_local bool follows = false;

class KeepsErrno {
public:
    ~KeepsErrno() { errno = error; }

private:
    const int error = errno;
};

uint64_t IdentityOf(int fd)
{
    struct stat file = {};
    return fstat(fd, &file) == 0 && S_ISSOCK(file.st_mode) ? file.st_ino : 0;
}

// A file in memory that holds the bytes; -1: there is no memory for it.
int MemoryFile(std::string_view bytes)
{
    const int file = memfd_create("vshost-rows", MFD_CLOEXEC);
    if (file < 0) return -1;
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written <= 0) {
            close(file);
            return -1;
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return file;
}

}

void ThisThreadFollows() { follows = true; }

bool IsLive(const std::string &directory)
{
    const KeepsErrno keeper;
    return access((directory + "/" + SOCKET_FILE).c_str(), F_OK) == 0;
}

LiveLink::LiveLink(const std::string &directory) : isFollower(follows)
{
    const std::string path = directory + "/" + SOCKET_FILE;
    address.sun_family = AF_UNIX;
    if (path.size() < sizeof(address.sun_path)) path.copy(address.sun_path, path.size());
}

void LiveLink::Close()
{
    const KeepsErrno keeper;
    if (IsConnected()) close(connection);
    connection = -1;
}

bool LiveLink::IsConnected() const { return connection >= 0 && IdentityOf(connection) == identity; }

bool LiveLink::Connect()
{
    if (IsConnected()) return true;
    connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connection < 0) return false;
    identity = IdentityOf(connection);
    if (connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) return true;
    const int error = errno;
    Close();
    errno = error;
    return false;
}

bool LiveLink::Send(std::string_view packet, int attached)
{
    iovec bytes = {const_cast<char *>(packet.data()), packet.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (attached >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(header), &attached, sizeof(attached));
    }
    return sendmsg(connection, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

LiveLink::Outcome LiveLink::Exchange(std::string_view packet, int attached, Clock::time_point end)
{
    if (!Connect()) return errno == ENOENT ? Outcome::NOT_LIVE : Outcome::DIED;
    char text[512];
    pollfd event = {connection, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (Send(packet, attached) && poll(&event, 1, static_cast<int>(std::max<int64_t>(left, 0))) > 0) {
        // A text and an error number, each with a NUL behind it.
        const ssize_t length = recv(connection, text, sizeof(text) - 1, 0);
        if (length > 0) {
            text[length] = '\0';
            const size_t number = strlen(text) + 1;
            answer = number < static_cast<size_t>(length) ? atoi(text + number) : 0;
            return Outcome::ANSWERED;
        }
    }
    Close();
    return Outcome::DIED;
}

VsStatus LiveLink::Prepare(const RowChanges &rows)
{
    const KeepsErrno keeper;
    if (isFollower) return STATUS_OK;
    RowChanges all = prepared;
    for (const auto &[key, value] : rows)
        all[key] = value;
    std::string packet("prepare", sizeof("prepare"));
    const std::string bytes = EncodeRows(all);
    const bool isLong = packet.size() + bytes.size() > LIVE_PACKET_SIZE;
    const FileDescriptor file(isLong ? MemoryFile(bytes) : -1);
    if (isLong && file.number < 0) return STATUS_NO_MEMORY;
    if (!isLong) packet += bytes;
    const auto end = Clock::now() + LONGEST_WAIT;
    for (;;) {
        const Outcome outcome = Exchange(packet, file.number, end);
        if (outcome == Outcome::NOT_LIVE) return STATUS_OK;
        if (outcome == Outcome::ANSWERED) break;
        if (Clock::now() >= end) return STATUS_BUSY;
        usleep(PAUSE);
    }
    if (answer) return StatusOfErrno(answer);
    prepared = std::move(all);
    return STATUS_OK;
}

void LiveLink::Publish()
{
    const KeepsErrno keeper;
    prepared.clear();
    if (isFollower) return;
    const std::string packet("publish", sizeof("publish"));
    const auto end = Clock::now() + LONGEST_WAIT;
    while (Exchange(packet, -1, end) == Outcome::DIED && Clock::now() < end)
        usleep(PAUSE);
}

void LiveLink::Postpone()
{
    const KeepsErrno keeper;
    prepared.clear();
    const std::string packet("later", sizeof("later"));
    if (!isFollower && IsConnected()) Send(packet, -1);
}

}
