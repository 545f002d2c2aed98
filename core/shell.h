// The platform's system-information shell. Nothing else runs commands.
#pragma once

#include "vswitchctl.h"

#include <cstdio>

// A command that names one object. It is ready to run, or unformed and must not run.
class ShellCommand {
public:
    // The format takes the name first, then the number if it has one. The shell sees any name as one plain
    // word; a name that cannot be a step of a node's path leaves the command unformed.
    ShellCommand(const char *format, const char *name, int32_t number = 0);

    bool Formed() const { return formed; }
    // STATUS_FAILURE unless the command ran and exited with 0.
    VsStatus Run() const;

private:
    friend class ShellOutput;

    char text[256];
    bool formed;
};

// What a command prints.
class ShellOutput {
public:
    explicit ShellOutput(const ShellCommand &command);
    ShellOutput(const ShellOutput &) = delete;
    ShellOutput &operator=(const ShellOutput &) = delete;
    ~ShellOutput();

    bool Started() const { return pipe != nullptr; }
    size_t Read(char *buffer, size_t size) { return fread(buffer, 1, size, pipe); }

    enum class Line { TAKEN, TOO_LONG, END };
    // The next line that is not blank, up to its line end or the first carriage return.
    Line ReadLine(char *line, size_t size);

private:
    FILE *pipe;
};
