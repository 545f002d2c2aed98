// The exact command lines that the library passes to the shell.
#pragma once

#include <cstdio>
#include <dlfcn.h>
#include <string>
#include <utility>
#include <vector>

inline std::vector<std::string> commandLines;

inline std::vector<std::string> TakeCommandLines() { return std::exchange(commandLines, {}); }

extern "C" int system(const char *command)
{
    commandLines.emplace_back(command);
    return reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "system"))(command);
}

extern "C" FILE *popen(const char *command, const char *type)
{
    commandLines.emplace_back(command);
    return reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "popen"))(command, type);
}
