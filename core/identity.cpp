// The three names of a switch: its alias, its id in the store, and its portset name in the kernel.
// All are read from the store's cache.
#include "core/identity.h"

#include <cstring>
#include <string_view>

#include "core/property.h"
#include "core/text.h"

namespace {

constexpr std::string_view VSWITCH_CLASS = "vswitch";

using Lookup = VsStatus (*)(const char *switchId, const char *key, PropHandle **property);

const char *CachedText(Lookup lookup, const char *switchId, const Property &property)
{
    PropHandle *handle = nullptr;
    if (lookup(switchId, property.key, &handle) != STATUS_OK) return nullptr;
    void *value = nullptr;
    DVSData_Data(handle, &value);
    return static_cast<const char *>(value);
}

const char *CachedPortsetName(const char *switchId)
{
    return CachedText(DVSState_HostPropLookup, switchId, SWITCH_PORTSET);
}

const char *CachedAlias(const char *switchId)
{
    return CachedText(DVSState_GlobalPropLookup, switchId, SWITCH_ALIAS);
}

}

VsStatus ResolveSwitchId(const char *alias, char *switchId)
{
    SwitchHandle *handle = DVSState_SwitchFindByAlias(alias);
    if (!handle) return STATUS_NOT_FOUND;
    if (VSWITCH_CLASS != DVS_ClassName(handle)) return STATUS_BAD_PARAM;
    memcpy(switchId, DVS_SwitchId(handle), SWITCH_ID_SIZE);
    switchId[SWITCH_ID_SIZE - 1] = '\0';
    return STATUS_OK;
}

VsStatus DVSAliasToSwitchId(const char *alias, char *switchIdOut)
{
    if (!alias || !switchIdOut) return STATUS_BAD_PARAM;
    return ResolveSwitchId(alias, switchIdOut);
}

VsStatus DVSAliasToPortsetName(const char *alias, char *portsetOut)
{
    if (!alias || !portsetOut) return STATUS_BAD_PARAM;
    SwitchHandle *handle = DVSState_SwitchFindByAlias(alias);
    if (!handle) return STATUS_NOT_FOUND;
    const char *switchId = DVS_SwitchId(handle);
    const char *name = CachedPortsetName(switchId);
    if (!name) name = CachedAlias(switchId);
    memset(portsetOut, 0, PORTSET_NAME_SIZE);
    if (name)
        text::strlcpy(portsetOut, name, PORTSET_NAME_SIZE);
    else
        memcpy(portsetOut, switchId, strnlen(switchId, SWITCH_ID_SIZE - 1)); // an id may fill its field
    return STATUS_OK;
}

int DVSFindAliasForPortsetNameCB(SwitchHandle *handle, void *context)
{
    auto *search = static_cast<AliasSearchContext *>(context);
    if (search->found) return 1; // the store went on calling
    const char *switchId = DVS_SwitchId(handle);
    const char *portsetName = CachedPortsetName(switchId);
    if (!portsetName || strncmp(search->wanted, portsetName, strlen(portsetName)) != 0) return 0;
    search->found = true;
    const char *alias = CachedAlias(switchId);
    text::strlcpy(search->alias, alias ? alias : search->wanted, sizeof(search->alias));
    return 1;
}

VsStatus DVSPortsetNameToAlias(const char *portsetName, char *aliasOut)
{
    if (!portsetName || !aliasOut || !*portsetName) return STATUS_BAD_PARAM;
    AliasSearchContext search = {false, portsetName, {}};
    DVSState_SwitchForEach(DVSFindAliasForPortsetNameCB, &search);
    memcpy(aliasOut, search.alias, sizeof(search.alias));
    return STATUS_OK;
}

VsStatus VSDVS_GetAliasFromPortset(const char *portsetName, char *aliasOut)
{
    return DVSPortsetNameToAlias(portsetName, aliasOut);
}

VsStatus CopySwitchId(const char *dvsId, char *switchId)
{
    if (!dvsId || strlen(dvsId) >= SWITCH_ID_SIZE) return STATUS_BAD_PARAM;
    strncpy(switchId, dvsId, SWITCH_ID_SIZE);
    return STATUS_OK;
}

uint8_t DVPortExist(const char *switchId, const char *dvPortId)
{
    return DVSState_PortFind(switchId, dvPortId) != nullptr;
}
