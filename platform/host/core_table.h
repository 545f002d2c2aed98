// The bridge from the preload, which links no C++ runtime, to libvshostcore.so, which it opens when it
// first needs it.
#ifndef PLATFORM_HOST_CORE_TABLE_H
#define PLATFORM_HOST_CORE_TABLE_H

#include <vshost.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What of the control file the preload reads itself, before it needs the core: a word of flags. */
#define VSHOST_CONTROL_FILE "/control"
#define VSHOST_CONTROL_FLAGS 16           /* where the word is */
#define VSHOST_CONTROL_HAS_ALLOCATIONS 4u /* rules make allocations fail */

struct VshostCore {
    // The functions of vshost.h, but for those that the preload does itself.
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

    // For calls that the preload answers itself: 1 and the outcome when a fault refuses the call, which
    // is recorded too; 0 otherwise, and then `outcome`, given in, is what is recorded.
    int (*gate)(enum vshost_kind kind, const char *operation, const char *text, uint32_t length,
                uint32_t *outcome);

    // The rest belongs to the driver: see platform/driver/.
};

__attribute__((visibility("default"))) const struct VshostCore *vshost_core(void);

#ifdef __cplusplus
}
#endif

#endif
