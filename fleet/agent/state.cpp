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

// Empty when it can't be read.
std::string TextOf(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string TextName(const DocumentRevision &document)
{
    return fmt::format("{}/{}.json", TEXTS, document.sum);
}

}

State::State(const std::string &directory) : files(directory)
{
    std::error_code error;
    std::filesystem::create_directories(Path(TEXTS), error);
    if (error) throw std::runtime_error(fmt::format("{} can't be created: {}", directory, error.message()));
    lock = open(Path("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0) files.Fail(Path("lock"), "opened");
    if (flock(lock, LOCK_EX | LOCK_NB))
        throw std::runtime_error(fmt::format("another agent uses {}", directory));
    memory = FromText<Memory>(TextOf(Path(MEMORY_FILE)));
}

State::~State() { close(lock); }

void State::Save() { files.Write(MEMORY_FILE, ToText(memory)); }

std::string State::Text(const DocumentRevision &document) const
{
    const std::string text = TextOf(Path(TextName(document)));
    return Sha256(text) == document.sum ? text : "";
}

void State::Keep(const DocumentRevision &document, const std::string &text)
{
    files.Write(TextName(document), text);
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
