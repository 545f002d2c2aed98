// The machine's network interfaces that a live host uses: plugged to ports, or as physical NICs.
#pragma once

#include <string>
#include <vector>

#include "platform/host/tables.h"

namespace vshost {

enum PlugChange : uint32_t {
    PLUG_MADE_PROMISCUOUS = 1,
    PLUG_MADE_CLSACT = 2,
    PLUG_LRO_OFF = 4, // large receive offload
    PLUG_VLAN_FILTER_OFF = 8,
    PLUG_IPV6_OFF = 16,
};

struct Plug {
    char switchId[64] = {}; // the port; empty for a NIC, which is bound to its own uplink port
    char portId[48] = {};
    char boot[40] = {};   // the start of the machine with which the plug ends; empty when it is kept
    uint32_t oldMtu = 0;  // of the interface before it was plugged; 0: not changed
    uint32_t changes = 0; // PLUG_…: what plugging changed and unplugging puts back

    bool IsNic() const { return portId[0] == 0; }
    bool IsKept() const { return boot[0] == 0; }
};

struct NamedPlug {
    std::string interface;
    Plug plug;
};

VsStatus ListPlugs(Reader &reader, std::vector<NamedPlug> &plugs);
VsStatus GetPlug(Reader &reader, std::string_view interface, Plug &plug);
VsStatus PutPlug(Transaction &transaction, std::string_view interface, const Plug &plug);
VsStatus RemovePlug(Transaction &transaction, std::string_view interface);

// Of net.core.netdev_max_backlog, which a live host raises.
struct RaisedBacklog {
    uint32_t before = 0;
    uint32_t now = 0;
};
VsStatus GetRaisedBacklog(Reader &reader, RaisedBacklog &raised);
VsStatus PutRaisedBacklog(Transaction &transaction, const RaisedBacklog &raised);
VsStatus RemoveRaisedBacklog(Transaction &transaction);

// Removes the plugs that are not kept.
VsStatus RemoveTransientPlugs(Transaction &transaction);

}
