// The functions of vshost.h: each calls the core and does what only the preload can do.
#include <errno.h>
#include <type_traits>
#include <vshost.h>

#include "platform/preload/preload.h"

namespace {
// Result of the functions that return an errno value when the core cannot be loaded.
constexpr int NO_CORE = ENOENT;

// Calls a function of the core; the result is `missing` when the core cannot be loaded.
template<class Result, class... Parameters, class... Arguments>
Result Call(Result (*VshostCore::*function)(Parameters...), std::type_identity_t<Result> missing,
            Arguments... arguments)
{
    const VshostCore *core = Core();
    return core ? (core->*function)(arguments...) : missing;
}

}

int vshost_start(const char *directory, int durable)
{
    const VshostCore *core = Core();
    if (!core) return NO_CORE;
    ForgetHost();
    const int error = core->start(directory, durable);
    AdoptHost();
    return error;
}

void vshost_stop(void)
{
    ForgetHost();
    if (const VshostCore *core = Core()) core->stop();
}

const char *vshost_directory(void) { return Call(&VshostCore::directory, nullptr); }

const char *vshost_error(void)
{
    return Call(&VshostCore::error, "libvshostcore.so could not be loaded from the folder of libvshost.so");
}

int vshost_scenario(const char *json)
{
    const VshostCore *core = Core();
    if (!core) return NO_CORE;
    const int error = core->scenario(json);
    if (AllocationsMayFail()) PatchAllocations();
    return error;
}

int vshost_reset(void) { return Call(&VshostCore::reset, NO_CORE); }

int vshost_fail(enum vshost_kind kind, const char *operation, unsigned nth, unsigned times, uint32_t outcome)
{
    const VshostCore *core = Core();
    if (!core) return NO_CORE;
    const int error = core->fail(kind, operation, nth, times, outcome);
    if (kind == VSHOST_ALLOCATION && !error) PatchAllocations();
    return error;
}

unsigned vshost_failed(void) { return Call(&VshostCore::failed, 0); }

int vshost_answer(uint32_t command, unsigned times, const void *bytes, uint32_t length)
{
    return Call(&VshostCore::answer, NO_CORE, command, times, bytes, length);
}

int vshost_shell_output(const char *verb, const void *bytes, uint32_t length)
{
    return Call(&VshostCore::shellOutput, NO_CORE, verb, bytes, length);
}

void vshost_shell_in_process(int on) { ShellInProcess(on != 0); }

void vshost_clear(void)
{
    if (const VshostCore *core = Core()) core->clear();
}

void vshost_record(int on)
{
    if (const VshostCore *core = Core()) core->record(on);
}

size_t vshost_call_count(void) { return Call(&VshostCore::callCount, 0); }

int vshost_call(size_t index, struct vshost_call *call)
{
    return Call(&VshostCore::call, NO_CORE, index, call);
}

uint64_t vshost_allocations(void)
{
    PatchAllocations();
    return ResetAllocationCount();
}

int64_t vshost_values_lent(void) { return Call(&VshostCore::valuesLent, 0); }

int vshost_property(enum vshost_level level, const char *switchId, const char *portId, const char *key,
                    void *value, uint32_t capacity, uint32_t *length, uint32_t *flags)
{
    return Call(&VshostCore::property, NO_CORE, level, switchId, portId, key, value, capacity, length, flags);
}

uint64_t vshost_fingerprint(void) { return Call(&VshostCore::fingerprint, 0); }
