#include "platform/host/database_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "platform/host/files.h"

namespace vshost {

namespace {

namespace fs = std::filesystem;

constexpr const char *NEW_DATABASE_FILE = "/host.db.new";
constexpr uint32_t APPLICATION_ID = 0x76737764; // "vswd"
constexpr const char *CREATE_TABLE =
    "CREATE TABLE kv(key BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;";
constexpr int64_t FORMAT = 1; // of the tables; a database of another format is refused
constexpr size_t FILE_HEADER = 100;
constexpr char FILE_MAGIC[] = "SQLite format 3";

uint32_t HeaderWord(const unsigned char *at)
{
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

// What is wrong with a database file, judged by its header alone; empty when it is sound.
std::string FaultOfHeader(const unsigned char *header, size_t length)
{
    if (length < FILE_HEADER || memcmp(header, FILE_MAGIC, sizeof(FILE_MAGIC)) != 0)
        return "is damaged or is not a database: its header is not that of one";
    if (HeaderWord(header + 68) != APPLICATION_ID) return "is the database of another program";
    const uint32_t version = HeaderWord(header + 60);
    if (version == 0) return "is damaged: its header names no format version";
    if (version > FORMAT)
        return "has format version " + std::to_string(version) + ", newer than version " +
               std::to_string(FORMAT) + " of this program; use the newer program";
    return {};
}

// The identity is written before write-ahead logging starts, so that it is in the file's header.
VsStatus Build(const std::string &path, std::string &message)
{
    Connection connection(path);
    const std::string sql = "PRAGMA application_id=" + std::to_string(APPLICATION_ID) + ";" + CREATE_TABLE +
                            "PRAGMA user_version=" + std::to_string(FORMAT) + ";PRAGMA journal_mode=WAL;";
    const VsStatus opened = connection.Create();
    const VsStatus status = opened ? opened : connection.Execute(sql);
    if (status) message = path + ": cannot make the database: " + connection.Message();
    return status;
}

// Syncs the directories above a host's directory, up to the root of its file system: the program that made
// them may not have done so.
VsStatus SyncParents(const std::string &directory)
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

VsStatus SyncPathTo(const std::string &directory, std::string &message)
{
    const VsStatus status = SyncParents(directory);
    if (status) message = directory + ": cannot sync the directories above it to disk";
    return status;
}

// The database has another name until it is whole, so that a database that exists is never half made and its
// directory is on disk. The first commit syncs its own name, with that of the log.
VsStatus Create(const std::string &directory, std::string &message)
{
    const std::string path = directory + NEW_DATABASE_FILE;
    unlink(path.c_str());
    VsStatus status = Build(path, message);
    if (!status) status = SyncPathTo(directory, message);
    if (status) {
        unlink(path.c_str());
        return status;
    }
    if (rename(path.c_str(), (directory + DATABASE_FILE).c_str()) != 0)
        return FailOnErrno(path, "rename the new database", message);
    return STATUS_OK;
}

}

VsStatus CreateIfMissing(const std::string &directory, int lockFd, std::string &message)
{
    const std::string path = directory + DATABASE_FILE;
    if (access(path.c_str(), F_OK) == 0) return STATUS_OK;
    if (!LockFile(lockFd, LOCK_EX)) return FailOnErrno(directory + WRITE_LOCK_FILE, "lock the file", message);
    const VsStatus status = access(path.c_str(), F_OK) == 0 ? STATUS_OK : Create(directory, message);
    flock(lockFd, LOCK_UN);
    return status;
}

VsStatus CheckHeader(const std::string &path, std::string &message)
{
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    unsigned char header[FILE_HEADER];
    const ssize_t length = file.number < 0 ? -1 : read(file.number, header, sizeof(header));
    if (length < 0) return FailOnErrno(path, "read the file", message);
    const std::string fault = FaultOfHeader(header, static_cast<size_t>(length));
    if (fault.empty()) return STATUS_OK;
    message = path + " " + fault;
    return STATUS_IO_ERROR;
}

// The log may hold a newer version than the file's header. The first read of the table shows damage at its
// root.
VsStatus CheckTable(Connection &connection, const std::string &path, std::string &message)
{
    const auto read = [&](const char *sql, int64_t &number) {
        const VsStatus status = connection.Number(sql, number);
        if (status) message = path + " is damaged or cannot be read: " + connection.Message();
        return status;
    };
    int64_t version = 0, entries = 0;
    if (VsStatus status = read("PRAGMA user_version", version)) return status;
    if (version < 1 || version > FORMAT) {
        message = path + (version < 1 ? " is damaged: it has no format version"
                                      : " was written by a newer program; use the newer program");
        return STATUS_IO_ERROR;
    }
    return read("SELECT count(*) FROM (SELECT 1 FROM kv LIMIT 1)", entries);
}

}
