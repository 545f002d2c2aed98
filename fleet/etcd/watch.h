// A watch: what happens to a range of keys, from a revision on.
//
// etcd's own silence says nothing: a stopped server, a partition and a lost quorum all look like a range in
// which nothing happens. So the watch asks for progress every 2 seconds, and ends when nothing comes back
// in 3.
#pragma once

#include <memory>
#include <optional>

#include "fleet/etcd/client.h"

namespace vsfleet {

struct KeyEvent {
    Entry entry; // of a deleted key: its name and the revision alone
    bool isDeleted = false;
};

class Watch {
public:
    // Of all keys with the prefix, or, without a "/" at its end, of one key. What happened at `revision` is
    // included.
    Watch(Client &client, const std::string &range, int64_t revision);
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;
    ~Watch();

    // Waits for events, at most the time given, and returns those that have come. Throws UNREACHABLE when the
    // server is silent, and COMPACTED when etcd has compacted the revision: read the range anew then.
    std::vector<KeyEvent> Next(Milliseconds time);
    // The first revision that no event has shown yet: where a later watch goes on.
    int64_t NextRevision() const { return nextRevision; }

private:
    struct Stream;

    bool Wait(Clock::time_point until);
    void AskForProgress();
    void TakeAnswer();

    std::unique_ptr<Stream> stream;
    std::vector<KeyEvent> events;
    Clock::time_point lastAnswer, nextQuestion;
    int64_t nextRevision;
};

}
