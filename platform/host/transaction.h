// Reading and writing the host's database: an ordered map of byte strings.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/host/row_changes.h"
#include "platform/host/status.h"

namespace vshost {

class Connection;

enum class Order { FORWARD, BACKWARD };

// Called with one entry of a scan; false ends the scan. It must not use the engine or the transaction.
using Visit = std::function<bool(std::string_view key, std::string_view value)>;

// What the engine and a transaction have in common, so that each table look-up is written once.
class Reader {
public:
    virtual ~Reader() = default;

    // STATUS_NOT_FOUND when the key is absent; `value` is then unchanged.
    virtual VsStatus Get(std::string_view key, std::string &value) = 0;

    // Visits the entries whose key begins with `prefix`, in the order of their bytes.
    virtual VsStatus Scan(std::string_view prefix, const Visit &visit, Order order = Order::FORWARD) = 0;
};

// Counters that all processes of a host share. A counter is odd while a write is in flight that changes it.
struct StoreCounters {
    std::atomic<uint64_t> &changes; // writes to what processes cache
    std::atomic<uint64_t> &commits; // all writes
};

// An entry of the map. An empty key means that there is no entry.
struct Entry {
    std::string key;
    std::string value;
};

// The transaction of one Engine::Write: it sees its own changes. After a failed operation the whole
// transaction is undone, whatever the work returns.
class Transaction : public Reader {
public:
    // `rows` gets what changes, unless it is null.
    Transaction(Connection &connection, std::atomic<uint64_t> &changes, RowChanges *rows = nullptr);

    VsStatus Get(std::string_view key, std::string &value) override;
    VsStatus Scan(std::string_view prefix, const Visit &visit, Order order = Order::FORWARD) override;
    VsStatus Put(std::string_view key, std::string_view value);
    VsStatus Add(std::string_view key, std::string_view value); // STATUS_EXISTS when the key is present
    VsStatus Remove(std::string_view key);                      // STATUS_OK when the key is absent

    // Must be called before a change to what processes cache: switches, aliases, and properties of the global
    // and host level.
    void InvalidateCaches();

    VsStatus Failure() const { return failure; }

    // The entry put last, unless an entry was removed after it.
    Entry &LastPut() { return lastPut; }

private:
    VsStatus KeepFailure(VsStatus status);
    void NotePut(std::string_view key, std::string_view value);

    Connection &connection;
    std::atomic<uint64_t> &changes;
    RowChanges *const rows;
    VsStatus failure = STATUS_OK;
    Entry lastPut;
};

using Work = std::function<VsStatus(Transaction &)>;

}
