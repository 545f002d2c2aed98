#include "tenant.h"

#include <string>

namespace {
std::string PortId(const char *tenant, unsigned index) { return tenant + ("-" + std::to_string(index)); }

VsStatus AddPort(const char *alias, const std::string &port, uint16_t vlanId)
{
    VsStatus status = VSDVS_AddDVPort(alias, port.c_str(), 1);
    if (status != STATUS_OK) return status;
    status = VSDVS_SetPortVLANPolicy(alias, port.c_str(), vlanId, VLAN_PRIORITY_NONE, 0, 0, nullptr, 0);
    if (status != STATUS_OK) VSDVS_RemoveDVPort(alias, port.c_str());
    return status;
}
}

VsStatus AddTenant(const char *alias, const char *tenant, unsigned count, uint16_t vlanId)
{
    for (unsigned added = 0; added < count; added++) {
        const VsStatus status = AddPort(alias, PortId(tenant, added), vlanId);
        if (status == STATUS_OK) continue;
        while (added-- > 0)
            VSDVS_RemoveDVPort(alias, PortId(tenant, added).c_str());
        return status;
    }
    return STATUS_OK;
}

int LiveUplinks(const char *portset)
{
    void *uplinks = nullptr;
    if (VSZOR_GetUplinks(portset, &uplinks) != STATUS_OK) return -1;
    const auto *list = static_cast<const ZorListHeader *>(uplinks);
    const auto *entry = reinterpret_cast<const char *>(list + 1); // begins with the uplink's name
    int live = 0;
    for (uint32_t i = 0; i < list->count; i++, entry += UPLINK_ENTRY_SIZE) {
        uint32_t up = 0;
        if (VSZOR_GetUplinkLinkState(portset, entry, &up) == STATUS_OK && up) live++;
    }
    VSZOR_FreeMemory(uplinks);
    return live;
}
