// How a write reaches the data path of a live host. In its open transaction the writer has vshostd prepare
// what the change needs; after the commit vshostd publishes it, and the writer waits for that.
//
// The requests go by the socket of live_requests.h, each a packet:
//     prepare\0ROWS   answered: 0, or ENOSPC. ROWS are RowChanges; many are in a memory file sent with it.
//     publish\0       answered when the next packet obeys.
//     later\0         not answered: a publish of this connection follows.
// If the connection ends before its publish, vshostd publishes what the store holds.
#pragma once

#include <sys/un.h>

#include <chrono>
#include <string>

#include "platform/host/row_changes.h"
#include "platform/host/status.h"

namespace vshost {

inline constexpr size_t LIVE_PACKET_SIZE = 65536; // at most

// Whether vshostd is to answer for the host.
bool IsLive(const std::string &directory);

// This thread is the one that publishes: its own writes are not followed.
void ThisThreadFollows();

// The way to vshostd for one commit, or for a bulk of them. One thread at a time uses it.
class LiveLink {
public:
    explicit LiveLink(const std::string &directory);
    LiveLink(const LiveLink &) = delete;
    LiveLink &operator=(const LiveLink &) = delete;
    ~LiveLink() { Close(); }

    // STATUS_OK when the host is not a live one, or no longer. STATUS_NO_SPACE: the data path cannot carry
    // the change out; what was prepared before stays. STATUS_BUSY: vshostd has not answered for 5 seconds.
    VsStatus Prepare(const RowChanges &rows);

    // In place of a commit.
    void Forget() { prepared.clear(); }

    // After the commit. A daemon that dies meanwhile is waited for, up to 5 seconds; the next one publishes
    // what it finds in the store.
    void Publish();
    // In its place, for a commit of a bulk: a later Publish() publishes all.
    void Postpone();

private:
    using Clock = std::chrono::steady_clock;
    enum class Outcome { ANSWERED, DIED, NOT_LIVE };

    Outcome Exchange(std::string_view packet, int attached, Clock::time_point end);
    bool Connect();
    bool IsConnected() const;
    bool Send(std::string_view packet, int attached);
    void Close();

    sockaddr_un address = {};
    bool isFollower = false;
    int connection = -1;
    uint64_t identity = 0; // of the socket: the program that this library is in may close any descriptor
    int answer = 0;
    RowChanges prepared;
};

}
