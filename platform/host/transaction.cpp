#include "platform/host/transaction.h"

#include "platform/host/connection.h"

namespace vshost {

Transaction::Transaction(Connection &connection, std::atomic<uint64_t> &changes, RowChanges *rows)
    : connection(connection), changes(changes), rows(rows)
{}

void Transaction::NotePut(std::string_view key, std::string_view value)
{
    lastPut = {std::string(key), std::string(value)};
    if (rows) (*rows)[lastPut.key] = lastPut.value;
}

VsStatus Transaction::KeepFailure(VsStatus status)
{
    if (status != STATUS_OK && status != STATUS_NOT_FOUND) failure = status;
    return status;
}

VsStatus Transaction::Get(std::string_view key, std::string &value)
{
    return KeepFailure(connection.Get(key, value));
}

VsStatus Transaction::Scan(std::string_view prefix, const Visit &visit, Order order)
{
    return KeepFailure(connection.Scan(prefix, visit, order));
}

VsStatus Transaction::Put(std::string_view key, std::string_view value)
{
    NotePut(key, value);
    return KeepFailure(connection.Put(key, value));
}

VsStatus Transaction::Add(std::string_view key, std::string_view value)
{
    NotePut(key, value);
    return KeepFailure(connection.Put(key, value, Connection::ADD));
}

VsStatus Transaction::Remove(std::string_view key)
{
    lastPut.key.clear();
    if (rows) (*rows)[std::string(key)].reset();
    return KeepFailure(connection.Run(Connection::REMOVE, key));
}

void Transaction::InvalidateCaches()
{
    if (changes % 2 == 0) changes++;
}

}
