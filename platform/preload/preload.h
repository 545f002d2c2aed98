// What the files of the preloaded library share. It is in every process of a host, the shells included:
// it links no C++ runtime, and loads the host's core only when a process first needs it.
#pragma once

#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <atomic>

#include "platform/host/locations.h"
#include "platform/preload/bridge.h"

#define SHIM_EXPORT extern "C" __attribute__((visibility("default")))

// The C library's own functions, behind the interposed ones; the next library's, strictly.
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

// The host that this process is on. One is made for each that it was ever on, and stays, since another
// thread may be looking at it.
struct ShimHost {
    ShimHost *previous;
    std::atomic<bool> known; // the files that stand for the devices are
    std::atomic<dev_t> filesystem;
    std::atomic<ino_t> files[2];
    char directory[];
};

const RealFunctions &Real();
ShimHost *CurrentHost();  // null: this process is on none
void LeaveHost();         // before the core comes to a host or leaves it: it opens and closes device files
void FollowHost();        // after the core has come to a host or left it
const VshostCore *Core(); // loads the core; null when that fails
const VshostCore *LoadedCore(); // null as long as this process didn't need it
const char *TybelPath();        // the shell that stands beside this library
void ShellInProcess(bool on);
void HoldStreamsAcrossForks();
bool AllocationsMayFail(); // by the rules of this process's host
void PatchAllocations();   // from now on, those of the control library are counted and may fail
uint64_t ResetAllocationCount();
