// Files that are read and written whole.
#pragma once

#include <functional>
#include <sys/types.h>

#include "frontend/error.h"

namespace frontend {

// The text of a file; "-" is standard input. `onBlock` is called after each part of it.
std::string ReadFile(
    const std::string &path, const std::function<void()> &onBlock = [] {});

// A file that is removed with this object, unless it is kept.
struct TemporaryFile {
    TemporaryFile(const std::string &text, const std::string &ending);
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    ~TemporaryFile();
    std::string path;
    bool isKept = false;
};

// The files of a command in one directory. At each moment a file is the old one or the new one, whole.
class Files {
public:
    // `advice` says what to do when one can't be written. What is durable survives a power cut.
    explicit Files(std::string directory, std::string advice = "", bool isDurable = true);

    std::string Path(const std::string &name) const { return directory + "/" + name; }
    void Write(const std::string &name, const std::string &text, mode_t mode = 0600) const;
    void Move(const std::string &from, const std::string &to) const;
    void Remove(const std::string &name) const; // if it is there
    // Throws what errno says of a file.
    [[noreturn]] void Fail(const std::string &path, const char *action) const;

private:
    void Synchronize() const;

    const std::string directory, advice;
    const bool isDurable;
};

}
