// Reading and writing the host's database: an ordered map of byte strings.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/host/status.h"

namespace vshost {

class Connection;

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
    VsStatus KeepFailure(VsStatus status);

    Connection &connection;
    std::atomic<uint64_t> &changes;
    VsStatus failure = STATUS_OK;
    Entry lastPut;
};

using Work = std::function<VsStatus(Transaction &)>;

}
