// The storage engine: an ordered map of byte strings that survives its process. Threads share commits.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/live_link.h"
#include "platform/host/status.h"
#include "platform/host/transaction.h"

namespace vshost {

enum class Durability {
    PROCESS, // a committed write survives the death of any process
    DISK,    // a committed write is on disk
};

struct EngineOptions {
    std::string directory;
    Durability durability;
    StoreCounters counters;
};

class Engine : public Reader {
public:
    // Opens the database of a host directory, which is made if it is missing. A file that is damaged, of
    // another program or newer than this engine is refused and never written to. `message` then says which
    // file it is and what is wrong with it.
    static VsStatus Open(const EngineOptions &options, std::unique_ptr<Engine> &engine, std::string &message);
    ~Engine() override;

    VsStatus Get(std::string_view key, std::string &value) override;
    VsStatus Scan(std::string_view prefix, const Visit &visit, Order order = Order::FORWARD) override;

    // Runs `work` atomically: committed when it returns STATUS_OK, undone otherwise. Several threads share a
    // commit, so `work` may run on another thread while this one waits.
    VsStatus Write(const Work &work);

    // Within a bulk the writes of this process are stored one by one, and a live host forwards by all of them
    // when the last bulk ends.
    void BeginBulk();
    void EndBulk();

    // For a forked child, while no thread is inside: neither uses nor closes the parent's connections, and
    // opens its own at the next call.
    void AbandonAfterFork();

private:
    struct QueuedWrite {
        const Work *work;
        VsStatus status;
        bool done;
    };
    using Batch = std::vector<QueuedWrite *>;
    static constexpr uint64_t NEVER = UINT64_MAX;

    explicit Engine(const EngineOptions &options);
    VsStatus Connect(std::unique_ptr<Connection> &connection);
    void Lead(std::unique_lock<std::mutex> &lock);
    VsStatus Checked(const Connection &connection, VsStatus status);
    void Commit(const Batch &batch);
    VsStatus CommitLocked(const Batch &batch);
    void RunOne(QueuedWrite &write, bool alone);
    void PublishCommit();
    void RememberRead(std::string_view key, std::string_view value, uint64_t commits);
    void RememberPut();

    const std::string directory;
    const Durability durability;
    const StoreCounters counters;
    std::atomic<bool> damaged = false;

    std::mutex readMutex;
    std::unique_ptr<Connection> reader;
    // The entry that was read or put last; valid while the commit counter is unchanged. A policy is several
    // properties of one row, which are read one after another.
    Entry recent;
    uint64_t recentCommits = NEVER;

    std::mutex queueMutex;
    std::condition_variable finished;
    Batch queue;
    bool leading = false;
    uint32_t bulks = 0;
    std::unique_ptr<LiveLink> link;     // the leader's; stays for a bulk
    bool committed = false;             // the leader's
    std::unique_ptr<Connection> writer; // the leader's
    Entry put;                          // the leader's: the last put of a batch that is a single write
    int lockFd = -1;                    // the leader's
};

}
