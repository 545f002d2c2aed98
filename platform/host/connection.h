// A connection to the host's database, with its prepared statements. One thread uses it at a time. Its source
// file is the only one that knows SQLite.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/host/transaction.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vshost {

class Connection {
public:
    enum Statement {
        GET,
        PUT,
        ADD,
        REMOVE,
        FORWARD,
        BACKWARD,
        BEGIN,
        COMMIT,
        ROLLBACK,
        SAVE,
        RELEASE,
        UNDO,
        COUNT
    };

    explicit Connection(std::string path) : path(std::move(path)) {}
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection();

    VsStatus Open();
    VsStatus Create(); // opens the file, which is made when it is missing
    VsStatus Execute(const std::string &sql);
    VsStatus Number(const char *sql, int64_t &number);

    VsStatus Get(std::string_view key, std::string &value);
    VsStatus Scan(std::string_view prefix, const Visit &visit, Order order);
    VsStatus Put(std::string_view key, std::string_view value, Statement how = PUT);
    VsStatus Run(Statement which, std::string_view key = {});

    bool InTransaction() const;
    bool IsDamaged() const { return damaged; }
    const char *Message() const;

private:
    class Use;
    VsStatus OpenWith(int flags);
    int Prepare(Statement which, sqlite3_stmt *&statement);
    VsStatus Finish(int result);
    VsStatus Failed(int result);

    const std::string path;
    sqlite3 *database = nullptr;
    sqlite3_stmt *statements[COUNT] = {};
    bool damaged = false;
};

// For a forked child: SQLite no longer recognises the files that the parent has open.
void ForgetParentsFiles();

// For a forked child: keeps a connection of the parent without ever using or closing it.
void Abandon(std::unique_ptr<Connection> &connection);

}
