// The bridge from the preload, which links no C++ runtime, to libvshostcore.so. The preload opens that
// library when its process first needs it.
#pragma once

#include <vshost.h>

#include <stddef.h>
#include <stdint.h>

#include "platform/driver/driver.h"
#include "platform/shell/command_line.h"

// A call that the preload answers itself: the allocations of the control library, and the closing of a
// device.
struct PreloadCall {
    enum vshost_kind kind;
    const char *operation;
    const char *text;
    uint32_t length;
};

struct VshostCore {
    // The functions of vshost.h, except the ones that the preload implements itself.
    int (*start)(const char *directory, int durable);
    void (*stop)(void);
    const char *(*directory)(void);
    const char *(*error)(void);
    int (*scenario)(const char *json);
    int (*reset)(void);
    int (*fail)(enum vshost_kind kind, const char *operation, unsigned nth, unsigned times, uint32_t outcome);
    unsigned (*failed)(void);
    int (*answer)(uint32_t command, unsigned times, const void *bytes, uint32_t length);
    int (*shellOutput)(const char *verb, const void *bytes, uint32_t length);
    void (*clear)(void);
    void (*record)(int on);
    size_t (*callCount)(void);
    int (*call)(size_t index, struct vshost_call *call);
    int64_t (*valuesLent)(void);
    int (*property)(enum vshost_level level, const char *switchId, const char *portId, const char *key,
                    void *value, uint32_t capacity, uint32_t *length, uint32_t *flags);
    uint64_t (*fingerprint)(void);

    // 1 when a rule fails the call, 0 otherwise; it is recorded in either case.
    int (*intercept)(const PreloadCall *call);

    // The devices: a descriptor or -1 with errno, and 0 or an errno value.
    int (*openDevice)(vshost::Device device, int flags, unsigned mode);
    int (*command)(vshost::Device device, uint32_t number, void *header);

    // system() and popen().
    vshost::Verdict (*shell)(const char *line, bool inProcess, bool capture, vshost::CommandResult *result);
};

extern "C" __attribute__((visibility("default"))) const VshostCore *vshost_core(void);
