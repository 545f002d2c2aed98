// A property bundle under construction, in memory from its owner's allocation functions.
#pragma once

#include "platform/host/bundle.h"
#include "platform/host/status.h"

namespace vshost {

using Allocate = void *(*)(size_t);
using Release = void (*)(void *);

class BundleBuilder {
public:
    static VsStatus Make(Allocate allocate, Release release, BundleBuilder **made);
    void Destroy();

    // Serialize() returns the first failure of Add().
    void Add(const BundleEntry &entry);
    void Fail(VsStatus status) { failure = status; }
    VsStatus Serialize(void **buffer, uint32_t *length) const;

private:
    BundleBuilder(Allocate allocate, Release release) : allocate(allocate), release(release) {}
    bool Reserve(size_t needed);

    const Allocate allocate;
    const Release release;
    char *entries = nullptr;
    size_t size = 0;
    size_t capacity = 0;
    uint32_t count = 0;
    VsStatus failure = STATUS_OK;
};

}
