#include "platform/live/plugged.h"

#include "platform/host/files.h"
#include "platform/host/runtime.h"

namespace live {

using namespace vshost;

VsStatus ReadPlugs(Reader &reader, Plugs &plugs)
{
    std::vector<NamedPlug> stored;
    if (VsStatus status = ListPlugs(reader, stored)) return status;
    const std::string boot = BootId();
    for (const auto &[interface, plug] : stored)
        if (plug.IsKept() || FieldText(plug.boot) == boot) plugs[interface] = plug;
    return STATUS_OK;
}

Wanted ReadWanted(Reader &reader, const Plugs &plugs, const Links &links)
{
    Wanted wanted;
    for (const auto &[interface, plug] : plugs) {
        const Link *link = links.Find(interface);
        std::string switchId(FieldText(plug.switchId)), portId(FieldText(plug.portId));
        Nic nic;
        if (plug.IsNic() && GetRecord(reader, runtime::NicKey(interface), nic) == STATUS_OK) {
            switchId = FieldText(nic.switchId);
            portId = FieldText(nic.portId);
        }
        if (portId.empty()) continue;
        wanted[switchId][portId] =
            link ? Interface{link->ifindex, link->adminUp && link->carrier} : Interface();
    }
    return wanted;
}

}
