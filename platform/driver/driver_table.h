/* The driver's and the shell's part of the bridge from the preload to libvshostcore.so. */
#ifndef PLATFORM_DRIVER_DRIVER_TABLE_H
#define PLATFORM_DRIVER_DRIVER_TABLE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What became of a command line that system() or popen() was given. */
enum VshostShellVerdict {
    VSHOST_SHELL_PASS,    /* it is for the real ones */
    VSHOST_SHELL_REFUSED, /* it can't be started */
    VSHOST_SHELL_RAN      /* it ran in this process: the result holds how it ended */
};

struct VshostShellResult {
    int status;   /* as system() returns it */
    char *output; /* what it wrote, when that was to be captured; the caller frees it */
    size_t length;
};

struct VshostDriver {
    /* Devices: 0 is the driver's, 1 is the RTM device. Returns a descriptor, or -1 with errno. */
    int (*openDevice)(int device, int flags, unsigned mode);
    /* Runs the command whose VSwitchRequest is at `header`. Returns 0 or an errno value. */
    int (*command)(int device, uint32_t number, void *header);
    /* Answers system() and popen(); the latter captures. */
    enum VshostShellVerdict (*shell)(const char *line, int inProcess, int capture,
                                     struct VshostShellResult *result);
};

__attribute__((visibility("default"))) const struct VshostDriver *vshost_driver(void);

#ifdef __cplusplus
}
#endif

#endif
