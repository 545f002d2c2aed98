#include "platform/host/engine.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>

#include "platform/host/connection.h"
#include "platform/host/database_file.h"
#include "platform/host/files.h"
#include "platform/host/guard.h"

namespace vshost {

namespace {

// A checkpoint syncs twice, even where commits don't. The log's index finds a page in one step up to 4,062.
constexpr int PAGES_IN_LOG = 4000;

}

Engine::Engine(const EngineOptions &options)
    : directory(options.directory), durability(options.durability), counters(options.counters)
{}

Engine::~Engine()
{
    if (lockFd >= 0) close(lockFd);
}

VsStatus Engine::Open(const EngineOptions &options, std::unique_ptr<Engine> &engine, std::string &message)
{
    std::unique_ptr<Engine> opened(new Engine(options));
    const std::string &directory = opened->directory;
    const std::string path = directory + DATABASE_FILE;
    opened->lockFd = OpenKeptFile(directory + WRITE_LOCK_FILE, O_RDWR | O_CREAT);
    if (opened->lockFd < 0) return FailOnErrno(directory + WRITE_LOCK_FILE, "open the file", message);
    if (VsStatus status = CreateIfMissing(directory, opened->lockFd, message)) return status;
    if (VsStatus status = CheckHeader(path, message)) return status;
    if (VsStatus status = opened->Connect(opened->reader)) {
        message = path + " cannot be opened; see that this user may read and write it";
        return status;
    }
    if (VsStatus status = CheckTable(*opened->reader, path, message)) return status;
    engine = std::move(opened);
    return STATUS_OK;
}

VsStatus Engine::Connect(std::unique_ptr<Connection> &connection)
{
    if (connection) return STATUS_OK;
    auto opened = std::make_unique<Connection>(directory + DATABASE_FILE);
    if (VsStatus status = opened->Open()) return status;
    const std::string mode = durability == Durability::DISK ? "FULL" : "NORMAL";
    if (VsStatus status = opened->Execute("PRAGMA synchronous=" + mode +
                                          ";PRAGMA wal_autocheckpoint=" + std::to_string(PAGES_IN_LOG)))
        return status;
    connection = std::move(opened);
    return STATUS_OK;
}

// After damage is found the file is not used any more, so that nothing more is written to it.
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

// `commits` is the counter from before the read. The caller holds `readMutex`.
void Engine::RememberRead(std::string_view key, std::string_view value, uint64_t commits)
{
    recentCommits = NEVER;
    if (commits % 2 != 0) return; // a commit is in flight: the entry may change
    recent.key = key;
    recent.value = value;
    recentCommits = commits;
}

// Called after a commit, while the file's lock still keeps other processes from committing.
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
    QueuedWrite write{&work, STATUS_OK, false};
    std::unique_lock lock(queueMutex);
    queue.push_back(&write);
    while (!write.done) {
        if (leading)
            finished.wait(lock);
        else
            Lead(lock);
    }
    return write.status;
}

void Engine::BeginBulk()
{
    std::lock_guard lock(queueMutex);
    bulks++;
}

void Engine::EndBulk()
{
    std::unique_lock lock(queueMutex);
    while (leading)
        finished.wait(lock);
    if (bulks == 0 || --bulks > 0 || !link) return;
    leading = true;
    lock.unlock();
    link->Publish();
    link.reset();
    lock.lock();
    leading = false;
    finished.notify_all();
}

// Waits for the file's lock, then commits all writes that are queued by then.
void Engine::Lead(std::unique_lock<std::mutex> &lock)
{
    leading = true;
    lock.unlock();
    const bool locked = lockFd >= 0 && LockFile(lockFd, LOCK_EX);
    lock.lock();
    Batch batch;
    batch.swap(queue);
    lock.unlock();
    if (locked)
        Commit(batch);
    else
        for (QueuedWrite *write : batch)
            write->status = STATUS_IO_ERROR;
    if (locked) flock(lockFd, LOCK_UN);
    lock.lock();
    for (QueuedWrite *write : batch)
        write->done = true;
    leading = false;
    finished.notify_all();
}

void Engine::Commit(const Batch &batch)
{
    const VsStatus status = Guard([&] { return CommitLocked(batch); });
    if (status != STATUS_OK) {
        if (writer && writer->InTransaction()) writer->Run(Connection::ROLLBACK);
        for (QueuedWrite *write : batch)
            if (write->status == STATUS_OK) write->status = status;
    }
    // This process made them odd, or a process that died during a commit.
    if (counters.changes % 2 != 0) counters.changes++;
    if (counters.commits % 2 != 0) counters.commits++;
    if (status == STATUS_OK) RememberPut();
    PublishCommit();
}

// Under the file's lock, so that vshostd has to do with one writer at a time. What is prepared and not
// committed ends with the link.
void Engine::PublishCommit()
{
    bool isBulk = false;
    {
        std::lock_guard lock(queueMutex);
        isBulk = bulks > 0;
    }
    if (!link) return;
    if (!committed)
        link->Forget();
    else if (isBulk)
        link->Postpone();
    else
        link->Publish();
    if (!isBulk) link.reset();
}

VsStatus Engine::CommitLocked(const Batch &batch)
{
    put = {};
    committed = false;
    if (!link && IsLive(directory)) link = std::make_unique<LiveLink>(directory);
    if (VsStatus status = Connect(writer)) return status;
    if (VsStatus status = writer->Run(Connection::BEGIN)) return Checked(*writer, status);
    bool anything = false;
    for (QueuedWrite *write : batch) {
        RunOne(*write, batch.size() == 1);
        if (damaged || !writer->InTransaction()) return write->status;
        anything |= write->status == STATUS_OK;
    }
    if (!anything) return writer->Run(Connection::ROLLBACK);
    if (counters.commits % 2 == 0) counters.commits++;
    const VsStatus status = Checked(*writer, writer->Run(Connection::COMMIT));
    committed = status == STATUS_OK;
    return status;
}

// If several writes share the commit, each has a savepoint: a failed write then undoes only its own changes.
void Engine::RunOne(QueuedWrite &write, bool alone)
{
    if (!alone && (write.status = writer->Run(Connection::SAVE))) return;
    RowChanges rows;
    Transaction transaction(*writer, counters.changes, link ? &rows : nullptr);
    write.status = Guard([&] { return (*write.work)(transaction); });
    if (VsStatus failure = transaction.Failure()) write.status = failure;
    if (link && write.status == STATUS_OK) write.status = link->Prepare(rows);
    Checked(*writer, write.status);
    put = alone && write.status == STATUS_OK ? std::move(transaction.LastPut()) : Entry{};
    if (alone || !writer->InTransaction()) return;
    if (write.status != STATUS_OK) writer->Run(Connection::UNDO);
    writer->Run(Connection::RELEASE);
}

void Engine::AbandonAfterFork()
{
    ForgetParentsFiles();
    link.reset();
    bulks = 0;
    Abandon(reader);
    Abandon(writer);
    if (lockFd >= 0) close(lockFd); // a lock of this descriptor would be the parent's too
    lockFd = OpenKeptFile(directory + WRITE_LOCK_FILE, O_RDWR | O_CREAT);
}

}
