#include "platform/host/connection.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace vshost {

namespace {

// SQLite keeps the locks that its process holds on a file by the file's device and inode. A forked child
// holds none of them, so each generation of processes shows SQLite device numbers of its own.
dev_t generation = 0;

int StatOfGeneration(int fd, struct stat *status)
{
    const int result = fstat(fd, status);
    if (result == 0) status->st_dev += generation << 32;
    return result;
}

// Another process checkpoints or recovers. Both end soon, so that a caller never sees SQLITE_BUSY.
int WaitWhileBusy(void *, int)
{
    usleep(500);
    return 1;
}

// `error` is errno as SQLite left it: sqlite3_system_errno returns it only after the statement is reset.
VsStatus StatusOf(int result, int error)
{
    switch (result & 0xFF) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW:
        return STATUS_OK;
    case SQLITE_FULL:
        return STATUS_NO_SPACE;
    case SQLITE_READONLY:
    case SQLITE_PERM:
        return STATUS_READ_ONLY;
    case SQLITE_NOMEM:
        return STATUS_NO_MEMORY;
    case SQLITE_CONSTRAINT: // the primary key is the only constraint
        return STATUS_EXISTS;
    case SQLITE_TOOBIG:
        return STATUS_TOO_LARGE;
    case SQLITE_CANTOPEN:
        return StatusOfErrno(error);
    default:
        break;
    }
    if (result == SQLITE_IOERR_NOMEM) return STATUS_NO_MEMORY;
    const bool full = result == SQLITE_IOERR_SHMSIZE ||
                      (result == SQLITE_IOERR_WRITE && StatusOfErrno(error) == STATUS_NO_SPACE);
    return full ? STATUS_NO_SPACE : STATUS_IO_ERROR;
}

bool IsDamage(int result) { return (result & 0xFF) == SQLITE_CORRUPT || (result & 0xFF) == SQLITE_NOTADB; }

// The first key after all keys that begin with `prefix`.
std::string Successor(std::string_view prefix)
{
    std::string key(prefix);
    while (!key.empty() && key.back() == '\xFF')
        key.pop_back();
    if (key.empty()) return std::string(1024, '\xFF');
    key.back() = static_cast<char>(key.back() + 1);
    return key;
}

}

void ForgetParentsFiles()
{
    generation++;
    sqlite3_vfs *vfs = sqlite3_vfs_find(nullptr);
    vfs->xSetSystemCall(vfs, "fstat", reinterpret_cast<sqlite3_syscall_ptr>(StatOfGeneration));
}

void Abandon(std::unique_ptr<Connection> &connection)
{
    static auto *const abandoned = new std::vector<std::unique_ptr<Connection>>;
    if (connection) abandoned->push_back(std::move(connection));
}

// A statement in use, reset when it goes out of scope.
class Connection::Use {
public:
    Use(Connection &connection, Statement which)
        : connection(connection), statement(connection.statements[which])
    {
        if (!statement) prepared = connection.Prepare(which, statement);
    }
    Use(const Use &) = delete;
    Use &operator=(const Use &) = delete;
    ~Use() { sqlite3_reset(statement); }

    // Does not copy the bytes: they must stay valid until the statement is reset.
    VsStatus Bind(int index, std::string_view bytes)
    {
        if (prepared != SQLITE_OK) return connection.Failed(prepared);
        const char *data = bytes.data() ? bytes.data() : "";
        const int result = sqlite3_bind_blob64(statement, index, data, bytes.size(), SQLITE_STATIC);
        return result == SQLITE_OK ? STATUS_OK : connection.Failed(result);
    }
    int Step() { return prepared == SQLITE_OK ? sqlite3_step(statement) : prepared; }
    std::string_view Column(int index) const
    {
        const void *bytes = sqlite3_column_blob(statement, index);
        return {static_cast<const char *>(bytes),
                static_cast<size_t>(sqlite3_column_bytes(statement, index))};
    }

private:
    Connection &connection;
    sqlite3_stmt *&statement;
    int prepared = SQLITE_OK;
};

Connection::~Connection()
{
    for (sqlite3_stmt *statement : statements)
        sqlite3_finalize(statement);
    sqlite3_close(database);
}

VsStatus Connection::Open() { return OpenWith(SQLITE_OPEN_READWRITE); }

VsStatus Connection::Create() { return OpenWith(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE); }

VsStatus Connection::OpenWith(int flags)
{
    const int result = sqlite3_open_v2(path.c_str(), &database, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    if (result != SQLITE_OK) return Failed(result);
    sqlite3_extended_result_codes(database, 1);
    sqlite3_busy_handler(database, WaitWhileBusy, nullptr);
    return STATUS_OK;
}

VsStatus Connection::Execute(const std::string &sql)
{
    const int result = sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr);
    return result == SQLITE_OK ? STATUS_OK : Failed(result);
}

VsStatus Connection::Get(std::string_view key, std::string &value)
{
    Use get(*this, GET);
    if (VsStatus status = get.Bind(1, key)) return status;
    const int result = get.Step();
    if (result == SQLITE_DONE) return STATUS_NOT_FOUND;
    if (result != SQLITE_ROW) return Failed(result);
    value = get.Column(0);
    return STATUS_OK;
}

VsStatus Connection::Scan(std::string_view prefix, const Visit &visit, Order order)
{
    Use scan(*this, order == Order::FORWARD ? FORWARD : BACKWARD);
    const std::string from = order == Order::FORWARD ? std::string(prefix) : Successor(prefix);
    if (VsStatus status = scan.Bind(1, from)) return status;
    int result;
    while ((result = scan.Step()) == SQLITE_ROW) {
        const std::string_view key = scan.Column(0);
        if (!key.starts_with(prefix) || !visit(key, scan.Column(1))) return STATUS_OK;
    }
    return result == SQLITE_DONE ? STATUS_OK : Failed(result);
}

VsStatus Connection::Put(std::string_view key, std::string_view value, Statement how)
{
    Use put(*this, how);
    if (VsStatus status = put.Bind(1, key)) return status;
    if (VsStatus status = put.Bind(2, value)) return status;
    return Finish(put.Step());
}

VsStatus Connection::Run(Statement which, std::string_view key)
{
    Use statement(*this, which);
    if (which == REMOVE) {
        if (VsStatus status = statement.Bind(1, key)) return status;
    }
    return Finish(statement.Step());
}

VsStatus Connection::Number(const char *sql, int64_t &number)
{
    sqlite3_stmt *statement = nullptr;
    int result = sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
    if (result == SQLITE_OK) result = sqlite3_step(statement);
    if (result == SQLITE_ROW) number = sqlite3_column_int64(statement, 0);
    const VsStatus status = result == SQLITE_ROW ? STATUS_OK : Failed(result);
    sqlite3_finalize(statement);
    return status;
}

bool Connection::InTransaction() const { return !sqlite3_get_autocommit(database); }

const char *Connection::Message() const { return sqlite3_errmsg(database); }

int Connection::Prepare(Statement which, sqlite3_stmt *&statement)
{
    static constexpr const char *SQL[COUNT] = {
        "SELECT value FROM kv WHERE key = ?",
        "INSERT OR REPLACE INTO kv VALUES(?, ?)",
        "INSERT INTO kv VALUES(?, ?)",
        "DELETE FROM kv WHERE key = ?",
        "SELECT key, value FROM kv WHERE key >= ? ORDER BY key",
        "SELECT key, value FROM kv WHERE key < ? ORDER BY key DESC",
        "BEGIN IMMEDIATE",
        "COMMIT",
        "ROLLBACK",
        "SAVEPOINT work",
        "RELEASE work",
        "ROLLBACK TO work",
    };
    return sqlite3_prepare_v3(database, SQL[which], -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
}

VsStatus Connection::Finish(int result) { return result == SQLITE_DONE ? STATUS_OK : Failed(result); }

VsStatus Connection::Failed(int result)
{
    damaged |= IsDamage(result);
    const VsStatus status = StatusOf(result, errno);
    return status == STATUS_OK ? STATUS_IO_ERROR : status;
}

}
