#pragma once

#include "core/store.h"

struct AliasSearchContext {
    bool found;
    const char *wanted;
    char alias[SWITCH_ALIAS_SIZE];
};

int DVSFindAliasForPortsetNameCB(SwitchHandle *handle, void *context);

// DVSAliasToSwitchId without the tests of its arguments.
VsStatus ResolveSwitchId(const char *alias, char *switchId);
// The same for a switch that is named by its id.
VsStatus CopySwitchId(const char *dvsId, char *switchId);

// Takes the alias when useAlias is nonzero, else the id unchanged, without asking the store.
inline VsStatus VSDVSResolveDVSId(const char *alias, const char *dvsId, char *switchId, uint8_t useAlias)
{
    if (useAlias) return alias ? ResolveSwitchId(alias, switchId) : STATUS_BAD_PARAM;
    return CopySwitchId(dvsId, switchId);
}
