// Counts the allocations that the control library itself makes, and fails the ones that a test wants to fail.
// It changes the library's own table of imported functions, so that no other allocation is affected and any
// allocator can be behind it.
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/preload/preload.h"

namespace {

constexpr char LIBRARY[] = "libvswitchctl.so.1";
std::atomic<uint64_t> allocations;

// Counts one allocation; true when it must fail.
bool MustFail(const char *operation, size_t size)
{
    allocations++;
    const VshostCore *core = LoadedCore();
    const int error = errno;
    const PreloadCall call{VSHOST_ALLOCATION, operation, LIBRARY, static_cast<uint32_t>(size)};
    const bool fails = core && core->intercept(&call);
    errno = fails ? ENOMEM : error;
    return fails;
}

void *Malloc(size_t size) { return MustFail("malloc", size) ? nullptr : malloc(size); }

void *Calloc(size_t count, size_t size)
{
    return MustFail("calloc", count * size) ? nullptr : calloc(count, size);
}

void *Realloc(void *block, size_t size) { return MustFail("realloc", size) ? nullptr : realloc(block, size); }

void *Replacement(const char *name)
{
    if (strcmp(name, "malloc") == 0) return reinterpret_cast<void *>(&Malloc);
    if (strcmp(name, "calloc") == 0) return reinterpret_cast<void *>(&Calloc);
    if (strcmp(name, "realloc") == 0) return reinterpret_cast<void *>(&Realloc);
    return nullptr;
}

// The parts of a loaded object's dynamic section that patching needs.
struct Object {
    explicit Object(const dl_phdr_info &info) : base(info.dlpi_addr)
    {
        for (size_t i = 0; i < info.dlpi_phnum; i++)
            if (info.dlpi_phdr[i].p_type == PT_DYNAMIC)
                Read(reinterpret_cast<const Elf64_Dyn *>(base + info.dlpi_phdr[i].p_vaddr));
            else if (info.dlpi_phdr[i].p_type == PT_GNU_RELRO)
                relro = &info.dlpi_phdr[i];
    }

    // The loader has made the addresses absolute, except in the kernel's own object, which it cannot change.
    Elf64_Addr Address(const Elf64_Dyn &entry) const
    {
        return entry.d_un.d_ptr < base ? base + entry.d_un.d_ptr : entry.d_un.d_ptr;
    }

    void Read(const Elf64_Dyn *entry)
    {
        for (; entry->d_tag != DT_NULL; entry++)
            switch (entry->d_tag) {
            case DT_STRTAB:
                strings = reinterpret_cast<const char *>(Address(*entry));
                break;
            case DT_SYMTAB:
                symbols = reinterpret_cast<const Elf64_Sym *>(Address(*entry));
                break;
            case DT_SONAME:
                soname = entry->d_un.d_val;
                break;
            case DT_JMPREL:
                calls = reinterpret_cast<const Elf64_Rela *>(Address(*entry));
                break;
            case DT_PLTRELSZ:
                callCount = entry->d_un.d_val / sizeof(Elf64_Rela);
                break;
            case DT_RELA:
                others = reinterpret_cast<const Elf64_Rela *>(Address(*entry));
                break;
            case DT_RELASZ:
                otherCount = entry->d_un.d_val / sizeof(Elf64_Rela);
                break;
            default:
                break;
            }
    }

    bool IsNamed(const char *name) const { return strings && soname && strcmp(strings + soname, name) == 0; }

    // After start-up the relocated part is read-only: its page must be made writable for the change.
    void Write(void **slot, void *value) const
    {
        const auto address = reinterpret_cast<uintptr_t>(slot);
        const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        void *start = reinterpret_cast<void *>(address & ~(page - 1));
        const bool readOnly =
            relro && address - base >= relro->p_vaddr && address - base < relro->p_vaddr + relro->p_memsz;
        if (readOnly && mprotect(start, page, PROT_READ | PROT_WRITE) != 0) return;
        __atomic_store_n(slot, value, __ATOMIC_RELEASE);
        if (readOnly) mprotect(start, page, PROT_READ);
    }

    void Patch(const Elf64_Rela *relocations, size_t count) const
    {
        for (size_t i = 0; i < count; i++) {
            const auto type = ELF64_R_TYPE(relocations[i].r_info);
            if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT) continue;
            const Elf64_Sym &symbol = symbols[ELF64_R_SYM(relocations[i].r_info)];
            if (void *function = Replacement(strings + symbol.st_name))
                Write(reinterpret_cast<void **>(base + relocations[i].r_offset), function);
        }
    }

    Elf64_Addr base;
    const Elf64_Phdr *relro = nullptr;
    const char *strings = nullptr;
    const Elf64_Sym *symbols = nullptr;
    size_t soname = 0;
    const Elf64_Rela *calls = nullptr, *others = nullptr;
    size_t callCount = 0, otherCount = 0;
};

int PatchObject(dl_phdr_info *info, size_t, void *)
{
    const Object object(*info);
    if (!object.IsNamed(LIBRARY)) return 0;
    object.Patch(object.calls, object.callCount);
    object.Patch(object.others, object.otherCount);
    return 1;
}

}

void PatchAllocations() { dl_iterate_phdr(PatchObject, nullptr); }

uint64_t ResetAllocationCount() { return allocations.exchange(0); }
