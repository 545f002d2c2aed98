#include "platform/shell/command_line.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/host/host.h"
#include "platform/shell/shell.h"

namespace vshost {

namespace {

constexpr std::string_view BLANKS = " \t";
constexpr std::string_view SPECIAL = "$`;&|<>()*?[]#~{}!\n"; // outside quotes
constexpr std::string_view NULL_DEVICE = "/dev/null";
constexpr int KILLED_STATUS = (128 + 9) << 8; // as sh reports it

bool IsOneOf(std::string_view set, char character) { return set.find(character) != set.npos; }

// Reads words from a command line.
class Splitter {
public:
    explicit Splitter(const char *line) : rest(line) {}

    bool Split(std::vector<std::string> &words, bool &discardErrors)
    {
        discardErrors = false;
        for (SkipBlanks(); !rest.empty(); SkipBlanks())
            if (SkipErrorsToNull())
                discardErrors = true;
            else if (!Word(words.emplace_back()))
                return false;
        return !words.empty();
    }

private:
    void SkipBlanks() { rest.remove_prefix(std::min(rest.find_first_not_of(BLANKS), rest.size())); }

    bool SkipErrorsToNull()
    {
        const std::string_view before = rest;
        if (!rest.starts_with("2>")) return false;
        rest.remove_prefix(2);
        SkipBlanks();
        const size_t length = NULL_DEVICE.size();
        if (rest.starts_with(NULL_DEVICE) && (rest.size() == length || IsOneOf(BLANKS, rest[length]))) {
            rest.remove_prefix(length);
            return true;
        }
        rest = before;
        return false;
    }

    char Next()
    {
        const char next = rest[0];
        rest.remove_prefix(1);
        return next;
    }

    bool Word(std::string &word)
    {
        while (!rest.empty() && !IsOneOf(BLANKS, rest[0]))
            if (const char next = Next(); !Piece(next, word)) return false;
        return true;
    }

    bool Piece(char next, std::string &word)
    {
        if (next == '\'') return Single(word);
        if (next == '"') return Double(word);
        if (IsOneOf(SPECIAL, next)) return false;
        if (next == '\\') {
            if (rest.empty() || rest[0] == '\n') return false;
            next = Next();
        }
        word += next;
        return true;
    }

    bool Single(std::string &word)
    {
        const size_t end = rest.find('\'');
        if (end == rest.npos) return false;
        word += rest.substr(0, end);
        rest.remove_prefix(end + 1);
        return true;
    }

    bool Double(std::string &word)
    {
        while (!rest.empty() && rest[0] != '"') {
            const char next = Next();
            if (next == '$' || next == '`') return false;
            const bool escapes = next == '\\' && !rest.empty() && IsOneOf("$`\"\\", rest[0]);
            word += escapes ? Next() : next;
        }
        if (rest.empty()) return false;
        rest.remove_prefix(1);
        return true;
    }

    std::string_view rest;
};

void WriteAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor, bytes.data(), bytes.size());
        if (written <= 0) return;
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

// False when memory is short.
bool Capture(const std::string &out, CommandResult &result)
{
    result.output = static_cast<char *>(malloc(out.size() + 1));
    if (!result.output) return false;
    memcpy(result.output, out.c_str(), out.size() + 1);
    result.length = out.size();
    return true;
}

// Whether a fault keeps the shell from starting. A shell that starts applies the other faults itself.
bool RefusedToStart(const std::vector<std::string> &arguments)
{
    HostUse host;
    uint32_t outcome = 0;
    const std::string operation = ShellOperation(arguments), text = JoinWords(arguments);
    if (!host || !host.GetFaults()->NextFails(VSHOST_SHELL, operation.c_str(), outcome)) return false;
    if (outcome != VSHOST_SHELL_NOT_STARTED) return false;
    const CallDetails details{.text = {text.c_str()}, .textCount = 1};
    return InterceptedCall(host.GetFaults(), VSHOST_SHELL, operation.c_str(), details).Fails();
}

}

bool SplitCommandLine(const char *line, std::vector<std::string> &words, bool &discardErrors)
{
    return Splitter(line).Split(words, discardErrors);
}

Verdict RunCommandLine(const char *line, bool inProcess, bool capture, CommandResult *result)
{
    std::vector<std::string> words;
    bool discardErrors;
    if (!SplitCommandLine(line, words, discardErrors)) return Verdict::PASS;
    if (words[0] != "tybel" && words[0] != "/bin/tybel") return Verdict::PASS;
    words.erase(words.begin());
    if (!inProcess) return RefusedToStart(words) ? Verdict::REFUSED : Verdict::PASS;

    std::string out, err;
    const unsigned code = RunShell(words, out, err);
    if (code == VSHOST_SHELL_NOT_STARTED) return Verdict::REFUSED;
    if (!discardErrors) WriteAll(STDERR_FILENO, err);
    if (!capture) WriteAll(STDOUT_FILENO, out);
    if (capture && !Capture(out, *result)) return Verdict::REFUSED;
    result->status = code == VSHOST_SHELL_KILLED ? KILLED_STATUS : static_cast<int>(code << 8);
    return Verdict::RAN;
}

}
