// The storage engine on SQLite: one table of keys and values, a connection for readers and one for writers.
#include "platform/host/engine.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "platform/host/guard.h"

namespace vshost {
namespace {

namespace fs = std::filesystem;

constexpr const char *DATABASE_FILE = "/host.db";
constexpr const char *NEW_DATABASE_FILE = "/host.db.new";
constexpr const char *LOCK_FILE = "/write.lock";
constexpr uint32_t APPLICATION_ID = 0x76737764; // "vswd"
constexpr const char *CREATE_TABLE =
    "CREATE TABLE kv(key BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;";
constexpr int64_t FORMAT = 1; // of the tables; a host of another one is refused
constexpr size_t FILE_HEADER = 100;
constexpr char FILE_MAGIC[] = "SQLite format 3";

// SQLite keeps the locks that its process holds on a file by the file's device and inode. A forked child
// has none of those locks, so its files must look like others: each generation has devices of its own.
dev_t generation = 0;

int StatOfGeneration(int fd, struct stat *status)
{
    const int result = fstat(fd, status);
    if (result == 0) status->st_dev += generation << 32;
    return result;
}

void StartGeneration()
{
    ++generation;
    sqlite3_vfs *vfs = sqlite3_vfs_find(nullptr);
    vfs->xSetSystemCall(vfs, "fstat", reinterpret_cast<sqlite3_syscall_ptr>(StatOfGeneration));
}

// Another process checkpoints or recovers: that ends soon, so that busy never reaches a caller.
int WaitWhileBusy(void *, int)
{
    usleep(500);
    return 1;
}

// `error` is errno as SQLite left it: sqlite3_system_errno knows it only after the statement is reset.
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
    case SQLITE_CONSTRAINT: // the only one is the key
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

uint32_t HeaderWord(const unsigned char *at)
{
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

// What is wrong with a database file, by its header alone; empty when nothing is.
std::string FaultOfHeader(const unsigned char *header, size_t length)
{
    if (length < FILE_HEADER || memcmp(header, FILE_MAGIC, sizeof FILE_MAGIC) != 0)
        return "is damaged or no database: its header is not one";
    if (HeaderWord(header + 68) != APPLICATION_ID) return "is the database of another program";
    const uint32_t version = HeaderWord(header + 60);
    if (version == 0) return "is damaged: its header names no format version";
    if (version > FORMAT)
        return "has format version " + std::to_string(version) + ", newer than version " +
               std::to_string(FORMAT) + " of this program; use the newer program";
    return {};
}

struct FileDescriptor {
    explicit FileDescriptor(int number) : number(number) {}
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    ~FileDescriptor()
    {
        if (number >= 0) close(number);
    }
    const int number;
};

int OpenLockFile(const std::string &directory)
{
    return OpenKeptFile(directory + LOCK_FILE, O_RDWR | O_CREAT);
}

bool LockFile(int fd)
{
    int result;
    do
        result = flock(fd, LOCK_EX);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

VsStatus FailOnErrno(const std::string &path, const char *what, std::string &message)
{
    const int error = errno;
    message = path + ": cannot " + what + ": " + strerror(error);
    return StatusOfErrno(error);
}

}

// A connection with its prepared statements. It is used by one thread at a time.
class Connection {
public:
    explicit Connection(std::string path) : path(std::move(path)) {}
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection()
    {
        for (sqlite3_stmt *statement : statements)
            sqlite3_finalize(statement);
        sqlite3_close(database);
    }

    VsStatus Open(int flags)
    {
        const int result = sqlite3_open_v2(path.c_str(), &database, flags | SQLITE_OPEN_NOMUTEX, nullptr);
        if (result != SQLITE_OK) return Failed(result);
        sqlite3_extended_result_codes(database, 1);
        sqlite3_busy_handler(database, WaitWhileBusy, nullptr);
        return STATUS_OK;
    }

    VsStatus Execute(const std::string &sql)
    {
        const int result = sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr);
        return result == SQLITE_OK ? STATUS_OK : Failed(result);
    }

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

    VsStatus Get(std::string_view key, std::string &value)
    {
        Use get(*this, GET);
        if (VsStatus status = get.Bind(1, key)) return status;
        const int result = get.Step();
        if (result == SQLITE_DONE) return STATUS_NOT_FOUND;
        if (result != SQLITE_ROW) return Failed(result);
        value = get.Column(0);
        return STATUS_OK;
    }

    VsStatus Scan(std::string_view prefix, const Visit &visit, Order order)
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

    VsStatus Put(std::string_view key, std::string_view value, Statement how = PUT)
    {
        Use put(*this, how);
        if (VsStatus status = put.Bind(1, key)) return status;
        if (VsStatus status = put.Bind(2, value)) return status;
        return Finish(put.Step());
    }

    VsStatus Run(Statement which, std::string_view key = {})
    {
        Use statement(*this, which);
        if (which == REMOVE) {
            if (VsStatus status = statement.Bind(1, key)) return status;
        }
        return Finish(statement.Step());
    }

    VsStatus Number(const char *sql, int64_t &number)
    {
        sqlite3_stmt *statement = nullptr;
        int result = sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
        if (result == SQLITE_OK) result = sqlite3_step(statement);
        if (result == SQLITE_ROW) number = sqlite3_column_int64(statement, 0);
        const VsStatus status = result == SQLITE_ROW ? STATUS_OK : Failed(result);
        sqlite3_finalize(statement);
        return status;
    }

    bool InTransaction() const { return !sqlite3_get_autocommit(database); }
    bool IsDamaged() const { return damaged; }
    const char *Message() const { return sqlite3_errmsg(database); }

private:
    // A statement in use, reset when it goes out of scope.
    class Use {
    public:
        Use(Connection &connection, Statement which)
            : connection(connection), statement(connection.statements[which])
        {
            if (!statement) prepared = connection.Prepare(which, statement);
        }
        Use(const Use &) = delete;
        Use &operator=(const Use &) = delete;
        ~Use() { sqlite3_reset(statement); }

        // A bound value lives as long as the use: nothing is copied.
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

    int Prepare(Statement which, sqlite3_stmt *&statement)
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

    VsStatus Finish(int result) { return result == SQLITE_DONE ? STATUS_OK : Failed(result); }

    VsStatus Failed(int result)
    {
        damaged |= IsDamage(result);
        const VsStatus status = StatusOf(result, errno);
        return status == STATUS_OK ? STATUS_IO_ERROR : status;
    }

    // The first key after all those that begin with `prefix`. Prefixes end in a byte below 0xFF.
    static std::string Successor(std::string_view prefix)
    {
        std::string key(prefix);
        while (!key.empty() && key.back() == '\xFF')
            key.pop_back();
        if (key.empty()) return std::string(1024, '\xFF');
        key.back() = static_cast<char>(key.back() + 1);
        return key;
    }

    const std::string path;
    sqlite3 *database = nullptr;
    sqlite3_stmt *statements[COUNT] = {};
    bool damaged = false;
};

namespace {

// A checkpoint syncs twice, even where commits don't. The log's index finds a page in one step up to 4,062.
constexpr int PAGES_IN_LOG = 4000;

// A forked child keeps its parent's connections without ever using or closing them.
void Abandon(std::unique_ptr<Connection> &connection)
{
    static auto *const abandoned = new std::vector<std::unique_ptr<Connection>>;
    if (connection) abandoned->push_back(std::move(connection));
}

// The identity goes into the file before write-ahead logging starts, so that the header alone tells it.
VsStatus Build(const std::string &path, std::string &message)
{
    Connection connection(path);
    VsStatus status = connection.Open(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (status == STATUS_OK)
        status = connection.Execute("PRAGMA application_id=" + std::to_string(APPLICATION_ID) + ";" +
                                    CREATE_TABLE + "PRAGMA user_version=" + std::to_string(FORMAT) +
                                    ";PRAGMA journal_mode=WAL;");
    if (status != STATUS_OK) message = path + ": cannot make the database: " + connection.Message();
    return status;
}

// Puts the names that lead to a directory on disk, as far as its file system goes: whoever made it may not
// have done so.
VsStatus SyncPathTo(const std::string &directory)
{
    std::error_code error;
    struct stat inside = {}, above = {};
    fs::path path = fs::absolute(directory, error).lexically_normal() / "";
    if (error || stat(directory.c_str(), &inside) != 0) return STATUS_IO_ERROR;
    for (path = path.parent_path(); path.has_relative_path();) {
        path = path.parent_path();
        FileDescriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.number < 0 || fstat(folder.number, &above) != 0 || above.st_dev != inside.st_dev) break;
        if (fsync(folder.number) != 0) return StatusOfErrno(errno);
    }
    return STATUS_OK;
}

// Under a name of its own until it is whole: a database that exists is never half made, and not without
// the way to it. Its own name is synced by the first commit, with that of the log.
VsStatus Create(const std::string &directory, std::string &message)
{
    const std::string path = directory + NEW_DATABASE_FILE;
    unlink(path.c_str());
    VsStatus status = Build(path, message);
    if (status == STATUS_OK && (status = SyncPathTo(directory)))
        message = directory + ": cannot put the way to it on disk";
    if (status != STATUS_OK) {
        unlink(path.c_str());
        return status;
    }
    if (rename(path.c_str(), (directory + DATABASE_FILE).c_str()) != 0)
        return FailOnErrno(path, "rename the new database", message);
    return STATUS_OK;
}

VsStatus CreateIfMissing(const std::string &directory, int lockFd, std::string &message)
{
    const std::string path = directory + DATABASE_FILE;
    if (access(path.c_str(), F_OK) == 0) return STATUS_OK;
    if (!LockFile(lockFd)) return FailOnErrno(directory + LOCK_FILE, "lock the file", message);
    const VsStatus status = access(path.c_str(), F_OK) == 0 ? STATUS_OK : Create(directory, message);
    flock(lockFd, LOCK_UN);
    return status;
}

VsStatus CheckHeader(const std::string &path, std::string &message)
{
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    unsigned char header[FILE_HEADER];
    const ssize_t length = file.number < 0 ? -1 : read(file.number, header, sizeof header);
    if (length < 0) return FailOnErrno(path, "read the file", message);
    const std::string fault = FaultOfHeader(header, static_cast<size_t>(length));
    if (fault.empty()) return STATUS_OK;
    message = path + " " + fault;
    return STATUS_IO_ERROR;
}

}

Transaction::Transaction(Connection &connection, std::atomic<uint64_t> &changes)
    : connection(connection), changes(changes)
{}

VsStatus Transaction::Note(VsStatus status)
{
    if (status != STATUS_OK && status != STATUS_NOT_FOUND) failure = status;
    return status;
}

VsStatus Transaction::Get(std::string_view key, std::string &value)
{
    return Note(connection.Get(key, value));
}

VsStatus Transaction::Scan(std::string_view prefix, const Visit &visit, Order order)
{
    return Note(connection.Scan(prefix, visit, order));
}

VsStatus Transaction::Put(std::string_view key, std::string_view value)
{
    lastPut = {std::string(key), std::string(value)};
    return Note(connection.Put(key, value));
}

VsStatus Transaction::Add(std::string_view key, std::string_view value)
{
    lastPut = {std::string(key), std::string(value)};
    return Note(connection.Put(key, value, Connection::ADD));
}

VsStatus Transaction::Remove(std::string_view key)
{
    lastPut.key.clear();
    return Note(connection.Run(Connection::REMOVE, key));
}

void Transaction::InvalidateCaches()
{
    if (changes % 2 == 0) ++changes;
}

Engine::Engine(std::string directory, Durability durability, StoreCounters counters)
    : directory(std::move(directory)), durability(durability), counters(counters)
{}

Engine::~Engine()
{
    if (lockFd >= 0) close(lockFd);
}

VsStatus Engine::Open(const std::string &directory, Durability durability, StoreCounters counters,
                      std::unique_ptr<Engine> &engine, std::string &message)
{
    std::unique_ptr<Engine> opened(new Engine(directory, durability, counters));
    const std::string path = directory + DATABASE_FILE;
    opened->lockFd = OpenLockFile(directory);
    if (opened->lockFd < 0) return FailOnErrno(directory + LOCK_FILE, "open the file", message);
    if (VsStatus status = CreateIfMissing(directory, opened->lockFd, message)) return status;
    if (VsStatus status = CheckHeader(path, message)) return status;
    if (VsStatus status = opened->Connect(opened->reader)) {
        message = path + " cannot be opened; see that this user may read and write it";
        return status;
    }
    if (VsStatus status = opened->CheckTable(message)) return status;
    engine = std::move(opened);
    return STATUS_OK;
}

// The version counts as the log has it: the file's header may lag behind. The first read of the table
// shows damage at its root.
VsStatus Engine::CheckTable(std::string &message)
{
    const std::string path = directory + DATABASE_FILE;
    int64_t version = 0, entries = 0;
    VsStatus status = reader->Number("PRAGMA user_version", version);
    if (status == STATUS_OK && (version < 1 || version > FORMAT)) {
        message = path + (version < 1 ? " is damaged: it has no format version"
                                      : " was written by a newer program; use that one");
        return STATUS_IO_ERROR;
    }
    if (status == STATUS_OK)
        status = reader->Number("SELECT count(*) FROM (SELECT 1 FROM kv LIMIT 1)", entries);
    if (status != STATUS_OK) message = path + " is damaged or cannot be read: " + reader->Message();
    return status;
}

VsStatus Engine::Connect(std::unique_ptr<Connection> &connection)
{
    if (connection) return STATUS_OK;
    auto opened = std::make_unique<Connection>(directory + DATABASE_FILE);
    if (VsStatus status = opened->Open(SQLITE_OPEN_READWRITE)) return status;
    const std::string mode = durability == Durability::DISK ? "FULL" : "NORMAL";
    if (VsStatus status = opened->Execute("PRAGMA synchronous=" + mode +
                                          ";PRAGMA wal_autocheckpoint=" + std::to_string(PAGES_IN_LOG)))
        return status;
    connection = std::move(opened);
    return STATUS_OK;
}

// Damage ends the use of the file, so that nothing more is written to it.
VsStatus Engine::Checked(const Connection &connection, VsStatus status)
{
    if (connection.IsDamaged() && !damaged.exchange(true))
        fprintf(stderr, "vshost: %s%s is damaged: %s; put a copy in its place\n", directory.c_str(),
                DATABASE_FILE, connection.Message());
    return status;
}

VsStatus Engine::Get(std::string_view key, std::string &value)
{
    if (damaged) return STATUS_IO_ERROR;
    std::lock_guard lock(readMutex);
    const uint64_t commits = counters.commits;
    if (commits == recentCommits && key == recent.key) {
        value = recent.value;
        return STATUS_OK;
    }
    if (VsStatus status = Connect(reader)) return status;
    if (VsStatus status = Checked(*reader, reader->Get(key, value))) return status;
    RememberRead(key, value, commits);
    return STATUS_OK;
}

// `commits` is from before the read, under whose mutex this runs.
void Engine::RememberRead(std::string_view key, std::string_view value, uint64_t commits)
{
    recentCommits = NEVER;
    if (commits % 2 != 0) return; // what was read may change yet
    recent.key = key;
    recent.value = value;
    recentCommits = commits;
}

// After a commit, while the file's lock keeps all others from the next one.
void Engine::RememberPut()
{
    std::lock_guard lock(readMutex);
    recent = std::move(put);
    recentCommits = recent.key.empty() ? NEVER : counters.commits.load();
}

VsStatus Engine::Scan(std::string_view prefix, const Visit &visit, Order order)
{
    if (damaged) return STATUS_IO_ERROR;
    std::lock_guard lock(readMutex);
    if (VsStatus status = Connect(reader)) return status;
    return Checked(*reader, reader->Scan(prefix, visit, order));
}

VsStatus Engine::Write(const Work &work)
{
    if (damaged) return STATUS_IO_ERROR;
    Request request{&work, STATUS_OK, false};
    std::unique_lock lock(queueMutex);
    queue.push_back(&request);
    while (!request.done) {
        if (leading)
            finished.wait(lock);
        else
            Lead(lock);
    }
    return request.status;
}

// Commits all that is queued when the file's lock is ours.
void Engine::Lead(std::unique_lock<std::mutex> &lock)
{
    leading = true;
    lock.unlock();
    const bool locked = lockFd >= 0 && LockFile(lockFd);
    lock.lock();
    Batch batch;
    batch.swap(queue);
    lock.unlock();
    if (locked)
        Commit(batch);
    else
        for (Request *request : batch)
            request->status = STATUS_IO_ERROR;
    if (locked) flock(lockFd, LOCK_UN);
    lock.lock();
    for (Request *request : batch)
        request->done = true;
    leading = false;
    finished.notify_all();
}

void Engine::Commit(const Batch &batch)
{
    const VsStatus status = Guard([&] { return CommitLocked(batch); });
    if (status != STATUS_OK) {
        if (writer && writer->InTransaction()) writer->Run(Connection::ROLLBACK);
        for (Request *request : batch)
            if (request->status == STATUS_OK) request->status = status;
    }
    // Ours, or those of a process that died in a commit.
    if (counters.changes % 2 != 0) ++counters.changes;
    if (counters.commits % 2 != 0) ++counters.commits;
    if (status == STATUS_OK) RememberPut();
}

VsStatus Engine::CommitLocked(const Batch &batch)
{
    put = {};
    if (VsStatus status = Connect(writer)) return status;
    if (VsStatus status = writer->Run(Connection::BEGIN)) return Checked(*writer, status);
    bool anything = false;
    for (Request *request : batch) {
        RunOne(*request, batch.size() == 1);
        if (damaged || !writer->InTransaction()) return request->status;
        anything |= request->status == STATUS_OK;
    }
    if (!anything) return writer->Run(Connection::ROLLBACK);
    if (counters.commits % 2 == 0) ++counters.commits;
    return Checked(*writer, writer->Run(Connection::COMMIT));
}

// A work among others has a savepoint, so that its failure undoes no other's changes.
void Engine::RunOne(Request &request, bool alone)
{
    if (!alone && (request.status = writer->Run(Connection::SAVE))) return;
    Transaction transaction(*writer, counters.changes);
    request.status = Guard([&] { return (*request.work)(transaction); });
    if (VsStatus failure = transaction.Failure()) request.status = failure;
    Checked(*writer, request.status);
    put = alone && request.status == STATUS_OK ? std::move(transaction.LastPut()) : Entry{};
    if (alone || !writer->InTransaction()) return;
    if (request.status != STATUS_OK) writer->Run(Connection::UNDO);
    writer->Run(Connection::RELEASE);
}

int OpenKeptFile(const std::string &path, int flags)
{
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0644);
    if (file < 0 || file > STDERR_FILENO) return file;
    const int kept = fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(file);
    return kept;
}

void Engine::AbandonAfterFork()
{
    StartGeneration();
    Abandon(reader);
    Abandon(writer);
    if (lockFd >= 0) close(lockFd); // a lock of this descriptor would be the parent's too
    lockFd = OpenLockFile(directory);
}

}
