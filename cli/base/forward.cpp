// The library, loaded with the first call of it: what needs no platform works without one.
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
        throw Error(Exit::UNREACHABLE, "the platform cannot be loaded: " + Loaded().fault,
                    "'vsctl doctor' shows what of the platform is reachable");
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
                "install the library and vsctl in one version");
}

void *FindPlatformFunction(const char *name)
{
    LibraryHandle();
    return dlsym(RTLD_DEFAULT, name);
}

}
