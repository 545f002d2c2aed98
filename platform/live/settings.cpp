#include "platform/live/settings.h"

namespace live {
namespace {

using namespace vshost;

// A feature of the network card that is turned off.
struct Feature {
    uint32_t change;
    const char *kernelName;
    const char *name;
    bool onlyNics;
};

// Frames that the card joins are not those that came; and frames of all VLANs are for the ports.
constexpr Feature FEATURES[] = {
    {PLUG_LRO_OFF, "rx-lro", "large receive offload", false},
    {PLUG_VLAN_FILTER_OFF, "rx-vlan-filter", "the VLAN receive filter", true},
};

std::string Add(const std::string &list, const char *name)
{
    return list + (list.empty() ? "" : ", ") + name;
}

}

uint32_t FindSettings(const Links &links, const Link &link, const Plug &plug)
{
    uint32_t changes = 0;
    for (const Feature &feature : FEATURES)
        if ((plug.IsNic() || !feature.onlyNics) && links.IsFeatureOn(link.ifindex, feature.kernelName))
            changes |= feature.change;
    // The machine's own stack sends nothing of its own accord through a plugged interface.
    if (links.IsIpv6On(link.ifindex)) changes |= PLUG_IPV6_OFF;
    if (!links.HasClsact(link.ifindex)) changes |= PLUG_MADE_CLSACT;
    return changes;
}

std::string ChangeSettings(const Links &links, const Link &link, const Plug &plug)
{
    std::string refused;
    for (const Feature &feature : FEATURES)
        if (plug.changes & feature.change && links.SetFeature(link.ifindex, feature.kernelName, false) != 0)
            refused = feature.name;
    if (plug.changes & PLUG_IPV6_OFF && links.SetIpv6(link.ifindex, false) != 0) refused = "IPv6";
    return refused;
}

void PutBackSettings(const Links &links, const Link &link, const Plug &plug)
{
    for (const Feature &feature : FEATURES)
        if (plug.changes & feature.change) links.SetFeature(link.ifindex, feature.kernelName, true);
    if (plug.changes & PLUG_IPV6_OFF) links.SetIpv6(link.ifindex, true);
}

std::string NamesOfSettings(uint32_t changes)
{
    std::string names;
    if (changes & PLUG_IPV6_OFF) names = Add(names, "IPv6");
    for (const Feature &feature : FEATURES)
        if (changes & feature.change) names = Add(names, feature.name);
    return names;
}

}
