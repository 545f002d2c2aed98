// What the files of the preloaded library share. The library is in every process of a host, shells included.
// It links no C++ runtime, and loads the host's core only when the process first needs it.
#pragma once

#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <atomic>

#include "platform/host/locations.h"
#include "platform/preload/bridge.h"

#define SHIM_EXPORT extern "C" __attribute__((visibility("default")))

// The functions behind the interposed ones: the C library's or, strictly, the next library's.
struct RealFunctions {
    int (*open)(const char *, int, ...);
    int (*openat)(int, const char *, int, ...);
    int (*ioctl)(int, unsigned long, ...);
    int (*close)(int);
    int (*execve)(const char *, char *const[], char *const[]);
    int (*execvpe)(const char *, char *const[], char *const[]);
    decltype(&::posix_spawn) posixSpawn;
    decltype(&::posix_spawnp) posixSpawnp;
    int (*system)(const char *);
    FILE *(*popen)(const char *, const char *);
    int (*pclose)(FILE *);
};

// The host that this process is on. The record of an earlier host is never freed: another thread may still be
// reading it.
struct ShimHost {
    ShimHost *previous;
    std::atomic<bool> known; // whether the files of the devices have been looked up
    std::atomic<dev_t> filesystem;
    std::atomic<ino_t> files[2];
    char directory[];
};

const RealFunctions &Real();
ShimHost *CurrentHost();  // null when this process is not on a host
void ForgetHost();        // before the core attaches or detaches, as it then opens and closes device files
void AdoptHost();         // after the core has attached
const VshostCore *Core(); // loads the core; null when that fails
const VshostCore *LoadedCore(); // null as long as this process has not needed it
const char *TybelPath();        // the shell beside this library
void ShellInProcess(bool on);
void HoldStreamsAcrossForks();
bool AllocationsMayFail(); // by the rules of this process's host
void PatchAllocations();   // from now on the control library's allocations are counted and may fail
uint64_t ResetAllocationCount();
