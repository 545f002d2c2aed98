// Starting programs: "/bin/tybel" is the shell beside this library, however a child process starts it.
// system() and popen() can run it without a child, or fail.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/preload/preload.h"

using vshost::CommandResult;
using vshost::Verdict;

namespace {

constexpr char SHELL_PATH[] = "/bin/tybel";
std::atomic<bool> inProcess;

// Runs between vfork and exec too: must not allocate or lock.
const char *Program(const char *path)
{
    return path && CurrentHost() && strcmp(path, SHELL_PATH) == 0 ? TybelPath() : path;
}

// What popen() returned for a command that ran in process.
struct ShellStream {
    FILE *stream;
    char *output;
    int status;
    ShellStream *next;
};
pthread_mutex_t streamsMutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<ShellStream *> streams;

// Passes a command line to the core if it may be one of the shell.
Verdict RunInCore(const char *command, bool capture, CommandResult *result)
{
    if (!command || !CurrentHost() || !strstr(command, "tybel")) return Verdict::PASS;
    const VshostCore *core = Core();
    return core ? core->shell(command, inProcess, capture, result) : Verdict::PASS;
}

FILE *OpenStream(const CommandResult &result)
{
    auto *entry = static_cast<ShellStream *>(malloc(sizeof(ShellStream)));
    FILE *stream = entry ? fmemopen(result.output, result.length, "r") : nullptr;
    if (!stream) {
        free(entry);
        free(result.output);
        return nullptr;
    }
    pthread_mutex_lock(&streamsMutex);
    *entry = {stream, result.output, result.status, streams};
    streams = entry;
    pthread_mutex_unlock(&streamsMutex);
    return stream;
}

ShellStream *RemoveStream(const FILE *stream)
{
    if (!streams) return nullptr;
    pthread_mutex_lock(&streamsMutex);
    ShellStream *found = streams, *before = nullptr;
    for (; found && found->stream != stream; found = found->next)
        before = found;
    if (before && found) before->next = found->next;
    if (!before && found) streams = found->next;
    pthread_mutex_unlock(&streamsMutex);
    return found;
}

}

void ShellInProcess(bool on) { inProcess = on; }

// A forked child must not inherit the list of streams in the middle of another thread's change.
void HoldStreamsAcrossForks()
{
    pthread_atfork([] { pthread_mutex_lock(&streamsMutex); }, [] { pthread_mutex_unlock(&streamsMutex); },
                   [] { pthread_mutex_unlock(&streamsMutex); });
}

SHIM_EXPORT int execve(const char *path, char *const argv[], char *const envp[])
{
    return Real().execve(Program(path), argv, envp);
}

SHIM_EXPORT int execv(const char *path, char *const argv[])
{
    return Real().execve(Program(path), argv, environ);
}

SHIM_EXPORT int execvp(const char *file, char *const argv[])
{
    return Real().execvpe(Program(file), argv, environ);
}

SHIM_EXPORT int execvpe(const char *file, char *const argv[], char *const envp[])
{
    return Real().execvpe(Program(file), argv, envp);
}

SHIM_EXPORT int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                            const posix_spawnattr_t *attributes, char *const argv[], char *const envp[])
{
    return Real().posixSpawn(pid, Program(path), actions, attributes, argv, envp);
}

SHIM_EXPORT int posix_spawnp(pid_t *pid, const char *file, const posix_spawn_file_actions_t *actions,
                             const posix_spawnattr_t *attributes, char *const argv[], char *const envp[])
{
    return Real().posixSpawnp(pid, Program(file), actions, attributes, argv, envp);
}

SHIM_EXPORT int system(const char *command)
{
    CommandResult result = {};
    switch (RunInCore(command, false, &result)) {
    case Verdict::PASS:
        return Real().system(command);
    case Verdict::REFUSED:
        errno = EAGAIN;
        return -1;
    case Verdict::RAN:
        break;
    }
    return result.status;
}

SHIM_EXPORT FILE *popen(const char *command, const char *type)
{
    CommandResult result = {};
    if (type[0] != 'r') return Real().popen(command, type);
    switch (RunInCore(command, true, &result)) {
    case Verdict::PASS:
        return Real().popen(command, type);
    case Verdict::REFUSED:
        errno = EAGAIN;
        return nullptr;
    case Verdict::RAN:
        break;
    }
    return OpenStream(result);
}

SHIM_EXPORT int pclose(FILE *stream)
{
    ShellStream *entry = RemoveStream(stream);
    if (!entry) return Real().pclose(stream);
    const int status = entry->status;
    fclose(stream);
    free(entry->output);
    free(entry);
    return status;
}
