// Network interfaces of the machine at ports.
#include "cli/base/plug.h"

#include <cstring>
#include <vshost.h>

#include "cli/base/forward.h"

namespace vsctl {

namespace {

// What the platform says of a call that failed.
std::string FaultOf(int error)
{
    static auto *const fault = PlatformFunction<decltype(vshost_error)>("vshost_error");
    return error == 0 ? "" : fault ? fault() : strerror(error);
}

}

std::string Plug(const std::string &alias, const std::string &port, const std::string &interface)
{
    static auto *const plug = PlatformFunction<decltype(vshost_plug)>("vshost_plug");
    return FaultOf(plug(alias.c_str(), port.c_str(), interface.c_str(), 1));
}

std::string Unplug(const std::string &interface)
{
    static auto *const unplug = PlatformFunction<decltype(vshost_unplug)>("vshost_unplug");
    return FaultOf(unplug(interface.c_str()));
}

}
