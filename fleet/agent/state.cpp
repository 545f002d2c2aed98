// The agent's files.
#include "fleet/agent/state.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <unistd.h>

#include "fleet/protocol/certificates.h"

namespace vsfleet {

namespace {

constexpr const char *MEMORY_FILE = "agent.json";
constexpr const char *TEXTS = "documents";

[[noreturn]] void Fail(const std::string &path, const char *action)
{
    throw std::runtime_error(fmt::format("{} can't be {}: {}", path, action, strerror(errno)));
}

std::string ReadText(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool WriteAll(int file, const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t length = write(file, text.data() + done, text.size() - done);
        if (length <= 0) return false;
        done += static_cast<size_t>(length);
    }
    return true;
}

void SyncDirectory(const std::string &path)
{
    const int directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0 || fsync(directory)) Fail(path, "synchronized");
    close(directory);
}

std::string TextName(const DocumentRevision &document)
{
    return fmt::format("{}/{}.json", TEXTS, document.sum);
}

}

State::State(std::string path) : directory(std::move(path))
{
    std::error_code error;
    std::filesystem::create_directories(Path(TEXTS), error);
    if (error) throw std::runtime_error(fmt::format("{} can't be created: {}", directory, error.message()));
    lock = open(Path("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0) Fail(Path("lock"), "opened");
    if (flock(lock, LOCK_EX | LOCK_NB))
        throw std::runtime_error(fmt::format("another agent uses {}", directory));
    memory = FromText<Memory>(ReadText(Path(MEMORY_FILE)));
}

State::~State() { close(lock); }

void State::Write(const std::string &name, const std::string &text)
{
    const std::string path = Path(name), temporary = path + ".new";
    const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) Fail(temporary, "written");
    const bool isWritten = WriteAll(file, text) && !fsync(file);
    close(file);
    if (!isWritten || rename(temporary.c_str(), path.c_str())) Fail(path, "written");
    SyncDirectory(std::filesystem::path(path).parent_path());
}

void State::Save() { Write(MEMORY_FILE, ToText(memory)); }

std::string State::Text(const DocumentRevision &document) const
{
    const std::string text = ReadText(Path(TextName(document)));
    return Sha256(text) == document.sum ? text : "";
}

void State::Keep(const DocumentRevision &document, const std::string &text)
{
    Write(TextName(document), text);
}

void State::RemoveOthers()
{
    std::set<std::string> kept;
    for (const auto *list : {&memory.documents, &memory.next}) {
        for (const DocumentRevision &document : *list)
            kept.insert(Path(TextName(document)));
    }
    for (const auto &entry : std::filesystem::directory_iterator(Path(TEXTS))) {
        if (!kept.contains(entry.path())) std::filesystem::remove(entry.path());
    }
}

}
