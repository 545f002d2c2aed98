#include "platform/store/bundle_builder.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace vshost {
namespace {
constexpr size_t FIRST_CAPACITY = 1024; // enough for the initial properties of a port
}

VsStatus BundleBuilder::Make(Allocate allocate, Release release, BundleBuilder **made)
{
    void *memory = allocate(sizeof(BundleBuilder));
    if (!memory) return STATUS_NO_MEMORY;
    *made = new (memory) BundleBuilder(allocate, release);
    return STATUS_OK;
}

void BundleBuilder::Destroy()
{
    const Release releaseSelf = release;
    if (entries) release(entries);
    releaseSelf(this);
}

bool BundleBuilder::Reserve(size_t needed)
{
    if (needed <= capacity) return true;
    const size_t grown = std::max({needed, 2 * capacity, FIRST_CAPACITY});
    char *moved = static_cast<char *>(allocate(grown));
    if (!moved) return false;
    if (entries) {
        memcpy(moved, entries, size);
        release(entries);
    }
    entries = moved;
    capacity = grown;
    return true;
}

void BundleBuilder::Add(const BundleEntry &entry)
{
    if (failure != STATUS_OK) return;
    const size_t grown = size + EntrySize(entry);
    if (grown + BUNDLE_HEADER + BUNDLE_TRAILER > MAX_BUNDLE) return Fail(STATUS_TOO_LARGE);
    if (!Reserve(grown)) return Fail(STATUS_NO_MEMORY);
    WriteEntry(entries + size, entry);
    size = grown;
    count++;
}

VsStatus BundleBuilder::Serialize(void **buffer, uint32_t *length) const
{
    if (failure != STATUS_OK) return failure;
    const size_t whole = BUNDLE_HEADER + size + BUNDLE_TRAILER;
    char *bundle = static_cast<char *>(allocate(whole));
    if (!bundle) return STATUS_NO_MEMORY;
    if (size > 0) memcpy(bundle + BUNDLE_HEADER, entries, size);
    SealBundle(bundle, whole, count);
    *buffer = bundle;
    *length = static_cast<uint32_t>(whole);
    return STATUS_OK;
}

}
