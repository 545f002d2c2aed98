// Start-up of the preloaded library: the real functions, the host that the environment names, and the core.
#include "platform/preload/preload.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr size_t PATH_SIZE = 4096;
constexpr char CORE_FILE[] = "libvshostcore.so";
constexpr char SHELL_FILE[] = "tybel";

RealFunctions real;
char tybelPath[PATH_SIZE];
char corePath[PATH_SIZE];
std::atomic<ShimHost *> currentHost;
std::atomic<ShimHost *> newestHost; // head of the list that keeps all of them reachable
std::atomic<const VshostCore *> loadedCore;
pthread_once_t resolveOnce = PTHREAD_ONCE_INIT;
pthread_once_t loadOnce = PTHREAD_ONCE_INIT;

template<class Function> void Resolve(Function &function, const char *name)
{
    function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void ResolveAll()
{
    Resolve(real.open, "open");
    Resolve(real.openat, "openat");
    Resolve(real.ioctl, "ioctl");
    Resolve(real.close, "close");
    Resolve(real.execve, "execve");
    Resolve(real.execvpe, "execvpe");
    Resolve(real.posixSpawn, "posix_spawn");
    Resolve(real.posixSpawnp, "posix_spawnp");
    Resolve(real.system, "system");
    Resolve(real.popen, "popen");
    Resolve(real.pclose, "pclose");
}

// Sets `path` to the file `name` in the folder of this library; leaves it empty when that is too long.
void PlaceBeside(char *path, const char *library, const char *name)
{
    const char *slash = strrchr(library, '/');
    const size_t folder = slash ? static_cast<size_t>(slash - library) + 1 : 0;
    if (folder + strlen(name) >= PATH_SIZE) return;
    memcpy(path, library, folder);
    strcpy(path + folder, name);
}

void LoadCore()
{
    void *library = dlopen(corePath, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        fprintf(stderr, "libvshost: %s; install the embedded host's files in one folder\n", dlerror());
        return;
    }
    const auto core = reinterpret_cast<decltype(&vshost_core)>(dlsym(library, "vshost_core"));
    if (core) loadedCore = core();
}

void EnterHost(const char *directory)
{
    const size_t size = strlen(directory) + 1;
    auto *host = static_cast<ShimHost *>(calloc(1, sizeof(ShimHost) + size));
    if (!host) return;
    memcpy(host->directory, directory, size);
    ShimHost *newest = newestHost;
    do {
        host->previous = newest;
    } while (!newestHost.compare_exchange_weak(newest, host));
    currentHost = host;
}

// Makes the host's directory absolute before the program changes its current directory, also in the
// environment of its children. Null when the process is not on a host.
const char *StartDirectory()
{
    const char *directory = getenv(vshost::ENVIRONMENT_DIRECTORY);
    if (!directory || !*directory) return nullptr;
    char current[PATH_SIZE], absolute[PATH_SIZE];
    if (*directory == '/' || !getcwd(current, sizeof(current))) return directory;
    const int length = snprintf(absolute, sizeof(absolute), "%s/%s", current, directory);
    if (length < static_cast<int>(sizeof(absolute))) setenv(vshost::ENVIRONMENT_DIRECTORY, absolute, 1);
    return getenv(vshost::ENVIRONMENT_DIRECTORY);
}

__attribute__((constructor)) void Load()
{
    Real();
    HoldStreamsAcrossForks();
    Dl_info self;
    char library[PATH_SIZE];
    if (dladdr(reinterpret_cast<void *>(&Load), &self) && realpath(self.dli_fname, library)) {
        PlaceBeside(tybelPath, library, SHELL_FILE);
        PlaceBeside(corePath, library, CORE_FILE);
    }
    const char *directory = StartDirectory();
    if (directory) EnterHost(directory);
    if (AllocationsMayFail() && Core()) PatchAllocations();
}

}

// Other libraries may open files before Load() has run.
const RealFunctions &Real()
{
    pthread_once(&resolveOnce, ResolveAll);
    return real;
}

bool AllocationsMayFail()
{
    const ShimHost *host = CurrentHost();
    char path[PATH_SIZE];
    uint32_t flags = 0;
    if (!host ||
        snprintf(path, sizeof(path), "%s/%s", host->directory, vshost::CONTROL_FILE) >= int{PATH_SIZE})
        return false;
    const int file = Real().open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    const bool known = pread(file, &flags, sizeof(flags), vshost::CONTROL_FLAGS) == sizeof(flags);
    Real().close(file);
    return known && flags & vshost::CONTROL_HAS_ALLOCATIONS;
}

ShimHost *CurrentHost() { return currentHost.load(std::memory_order_acquire); }

void ForgetHost() { currentHost = nullptr; }

void AdoptHost()
{
    const VshostCore *core = LoadedCore();
    const char *directory = core ? core->directory() : nullptr;
    if (directory) EnterHost(directory);
}

const VshostCore *Core()
{
    const int error = errno;
    pthread_once(&loadOnce, LoadCore);
    errno = error;
    return LoadedCore();
}

const VshostCore *LoadedCore() { return loadedCore.load(std::memory_order_acquire); }

const char *TybelPath() { return tybelPath; }
