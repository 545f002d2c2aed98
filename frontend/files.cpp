#include "frontend/files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace frontend {

namespace {

bool WriteAll(int file, const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t length = write(file, text.data() + done, text.size() - done);
        if (length <= 0) return false;
        done += static_cast<size_t>(length);
    }
    return true;
}

}

std::string ReadFile(const std::string &path, const std::function<void()> &onBlock)
{
    const int descriptor = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string text;
    char block[65536];
    ssize_t length = descriptor;
    while (descriptor >= 0 && (length = read(descriptor, block, sizeof block)) > 0) {
        text.append(block, static_cast<size_t>(length));
        onBlock();
    }
    const int error = errno;
    if (descriptor > STDIN_FILENO) close(descriptor);
    if (length < 0) {
        throw Error(error == EACCES ? Exit::PERMISSION : Exit::NOT_FOUND,
                    fmt::format("{} cannot be read: {}", path, strerror(error)),
                    "name a file, or - for standard input");
    }
    return text;
}

TemporaryFile::TemporaryFile(const std::string &text, const std::string &ending)
    : path(fmt::format("/tmp/{}-XXXXXX{}", program_invocation_short_name, ending))
{
    const int file = mkstemps(path.data(), static_cast<int>(ending.size()));
    const bool isWritten = file >= 0 && WriteAll(file, text);
    const int error = errno;
    if (file >= 0) close(file);
    if (isWritten) return;
    unlink(path.c_str());
    throw Error(Exit::FAILURE, fmt::format("{} cannot be written: {}", path, strerror(error)),
                "make room in /tmp");
}

TemporaryFile::~TemporaryFile()
{
    if (!isKept) unlink(path.c_str());
}

Files::Files(std::string directory, std::string advice, bool isDurable)
    : directory(std::move(directory)), advice(std::move(advice)), isDurable(isDurable)
{}

void Files::Fail(const std::string &path, const char *action) const
{
    const int error = errno;
    const bool isDenied = error == EACCES || error == EPERM || error == EROFS;
    throw Error(isDenied ? Exit::PERMISSION : Exit::FAILURE,
                fmt::format("{} cannot be {}: {}", path, action, strerror(error)), advice);
}

void Files::Write(const std::string &name, const std::string &text, mode_t mode) const
{
    const std::string path = Path(name), temporary = path + ".new";
    const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (file < 0) Fail(temporary, "written");
    // The file may be there from an earlier time, with another mode.
    const bool isWritten =
        fchmod(file, mode) == 0 && WriteAll(file, text) && (!isDurable || fsync(file) == 0);
    close(file);
    if (!isWritten || rename(temporary.c_str(), path.c_str()) != 0) Fail(path, "written");
    Synchronize();
}

void Files::Move(const std::string &from, const std::string &to) const
{
    if (rename(Path(from).c_str(), Path(to).c_str()) != 0) Fail(Path(from), "renamed");
    Synchronize();
}

void Files::Remove(const std::string &name) const
{
    if (unlink(Path(name).c_str()) != 0 && errno != ENOENT) Fail(Path(name), "removed");
    Synchronize();
}

void Files::Synchronize() const
{
    if (!isDurable) return;
    const int opened = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0 || fsync(opened) != 0) Fail(directory, "synchronized");
    close(opened);
}

}
