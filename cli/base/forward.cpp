// Loads the library at the first call, so that verbs that need no platform work without one.
#include "cli/base/forward.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "cli/base/error.h"

namespace vsctl {

namespace {

struct Library {
    Library() : handle(dlopen(VSWITCHCTL_LIBRARY, RTLD_NOW | RTLD_GLOBAL))
    {
        if (!handle) fault = dlerror();
    }
    void *handle;
    std::string fault;
};

const Library &Loaded()
{
    static const Library LIBRARY;
    return LIBRARY;
}

void *LibraryHandle()
{
    if (!Loaded().handle) {
        throw Error(Exit::UNREACHABLE, "cannot load the library: " + Loaded().fault,
                    AdviceFor(Exit::UNREACHABLE));
    }
    return Loaded().handle;
}

}

std::string LibraryFault() { return Loaded().fault; }

void *FindOperation(const char *name)
{
    void *const operation = dlsym(LibraryHandle(), name);
    if (operation) return operation;
    throw Error(Exit::UNREACHABLE, fmt::format("the installed {} has no {}", VSWITCHCTL_LIBRARY, name),
                "install the same version of vsctl and the library");
}

void *FindPlatformFunction(const char *name)
{
    LibraryHandle();
    return dlsym(RTLD_DEFAULT, name);
}

}
