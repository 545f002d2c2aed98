// The storage engine: an ordered map of byte strings that survives its process. Its source file is the
// only place that knows SQLite.
#ifndef PLATFORM_HOST_ENGINE_H
#define PLATFORM_HOST_ENGINE_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/host_lock.h"
#include "platform/host/status.h"

namespace vshost {

class Connection;

// Opens a file that stays open, with close-on-exec. It is none of the standard streams, which a caller may
// have closed: what programs print would go into it.
int OpenKeptFile(const std::string &path, int flags);

enum class Durability {
    PROCESS, // a committed write survives the death of any process
    DISK,    // a committed write is on disk
};

enum class Order { FORWARD, BACKWARD };

// Looks at one entry; false ends the scan. It must not use the engine or the transaction.
using Visit = std::function<bool(std::string_view key, std::string_view value)>;

// What reads and transactions have in common, so that a table look-up is written once.
class Reader {
public:
    virtual ~Reader() = default;

    // STATUS_NOT_FOUND when the key is absent; `value` is then unchanged.
    virtual VsStatus Get(std::string_view key, std::string &value) = 0;

    // Visits the entries whose key begins with `prefix`, in the order of their bytes.
    virtual VsStatus Scan(std::string_view prefix, const Visit &visit, Order order = Order::FORWARD) = 0;
};

// Shared by all processes of a host, and odd while a write is in flight that moves them.
struct StoreCounters {
    std::atomic<uint64_t> &changes; // of what the caches of processes hold
    std::atomic<uint64_t> &commits; // of anything
};

// An entry of the map; none when the key is empty.
struct Entry {
    std::string key;
    std::string value;
};

// The inside of one Engine::Write: sees its own changes. A failed operation of the engine undoes the
// whole work, whatever the work returns.
class Transaction : public Reader {
public:
    Transaction(Connection &connection, std::atomic<uint64_t> &changes);

    VsStatus Get(std::string_view key, std::string &value) override;
    VsStatus Scan(std::string_view prefix, const Visit &visit, Order order = Order::FORWARD) override;
    VsStatus Put(std::string_view key, std::string_view value);
    VsStatus Add(std::string_view key, std::string_view value); // STATUS_EXISTS when the key is there
    VsStatus Remove(std::string_view key);                      // STATUS_OK when the key is absent

    // To be called before a change of what the caches of processes hold: switches, aliases and the
    // properties of the global and host level.
    void InvalidateCaches();

    VsStatus Failure() const { return failure; }

    // The entry put last, if nothing was removed after it.
    Entry &LastPut() { return lastPut; }

private:
    VsStatus Note(VsStatus status);

    Connection &connection;
    std::atomic<uint64_t> &changes;
    VsStatus failure = STATUS_OK;
    Entry lastPut;
};

using Work = std::function<VsStatus(Transaction &)>;

class Engine : public Reader {
public:
    // Opens the database of a host directory and makes it when there is none. A file that is damaged,
    // foreign or newer than this engine is refused and never written to. `message` then says which file
    // it is and what is wrong with it.
    static VsStatus Open(const std::string &directory, Durability durability, StoreCounters counters,
                         std::unique_ptr<Engine> &engine, std::string &message);
    ~Engine() override;

    VsStatus Get(std::string_view key, std::string &value) override;
    VsStatus Scan(std::string_view prefix, const Visit &visit, Order order = Order::FORWARD) override;

    // Runs `work` atomically: committed when it returns STATUS_OK, undone otherwise. Works of several
    // threads share a commit, so `work` may run on another thread, while this one waits.
    VsStatus Write(const Work &work);

    // In a forked child, while no thread is inside: leaves the parent's connections alone, never closing
    // them, and opens own ones at the next call.
    void AbandonAfterFork();

private:
    struct Request {
        const Work *work;
        VsStatus status;
        bool done;
    };
    using Batch = std::vector<Request *>;

    Engine(std::string directory, Durability durability, StoreCounters counters);
    VsStatus Connect(std::unique_ptr<Connection> &connection);
    void Lead(std::unique_lock<std::mutex> &lock);
    VsStatus CheckTable(std::string &message);
    VsStatus Checked(const Connection &connection, VsStatus status);
    void Commit(const Batch &batch);
    VsStatus CommitLocked(const Batch &batch);
    void RunOne(Request &request, bool alone);
    void RememberRead(std::string_view key, std::string_view value, uint64_t commits);
    void RememberPut();

    const std::string directory;
    const Durability durability;
    const StoreCounters counters;
    static constexpr uint64_t NEVER = UINT64_MAX;

    std::atomic<bool> damaged = false;

    std::mutex readMutex;
    std::unique_ptr<Connection> reader;
    // The entry that was read or put last, while `commits` stands where it stood then: a policy is several
    // properties of one row, read one after another.
    Entry recent;
    uint64_t recentCommits = NEVER;

    std::mutex queueMutex;
    std::condition_variable finished;
    Batch queue;
    bool leading = false;
    std::unique_ptr<Connection> writer; // the leader's
    Entry put;                          // the leader's: what the only work of a batch put last
    int lockFd = -1;                    // the leader's
};

} // namespace vshost

#endif
