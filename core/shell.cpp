#include "core/shell.h"

#include <cstdlib>
#include <cstring>

#include "core/text.h"

namespace {

constexpr char PLAIN[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-:@+=,%";

bool IsPlain(const char *name) { return name[strspn(name, PLAIN)] == '\0'; }

// Whether the name can be one step of a node's path and is not an option.
bool IsNodeName(const char *name)
{
    return *name && *name != '-' && !strchr(name, '/') && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

// Single quotes protect every character but themselves from the shell. False when the word does not fit.
bool Quote(const char *name, char *word, size_t size)
{
    size_t length = 0;
    const auto append = [&](const char *piece) {
        length += text::strlcpy(word + length, piece, size - length);
        return length < size;
    };
    if (!append("'")) return false;
    for (; *name; name++) {
        const char single[] = {*name, '\0'};
        if (!append(*name == '\'' ? "'\\''" : single)) return false;
    }
    return append("'");
}

}

ShellCommand::ShellCommand(const char *format, const char *name, int32_t number) : text(), formed(false)
{
    if (!IsNodeName(name)) return;
    char quoted[sizeof(text)];
    const bool plain = IsPlain(name);
    if (!plain && !Quote(name, quoted, sizeof(quoted))) return;
    const int length = snprintf(text, sizeof(text), format, plain ? name : quoted, number);
    // A plain command that is too long is cut. A quoted command is not, because its word would lose its end.
    formed = length >= 0 && (plain || static_cast<size_t>(length) < sizeof(text));
}

VsStatus ShellCommand::Run() const { return formed && system(text) == 0 ? STATUS_OK : STATUS_FAILURE; }

ShellOutput::ShellOutput(const ShellCommand &command)
    : pipe(command.formed ? popen(command.text, "r") : nullptr)
{}

ShellOutput::~ShellOutput()
{
    if (pipe) pclose(pipe);
}

ShellOutput::Line ShellOutput::ReadLine(char *line, size_t size)
{
    size_t length = 0;
    bool ended = false; // by a carriage return
    int character = 0;
    while ((character = getc(pipe)) != EOF) {
        if (character == '\n') {
            if (length > 0) break;
            ended = false;
            continue;
        }
        ended |= character == '\r';
        if (ended) continue;
        if (length == size - 1) return Line::TOO_LONG;
        line[length++] = static_cast<char>(character);
    }
    line[length] = '\0';
    return length > 0 ? Line::TAKEN : Line::END;
}
