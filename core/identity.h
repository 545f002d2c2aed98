#pragma once

#include "core/store.h"

struct AliasSearchContext {
    bool found;
    const char *wanted;
    char alias[SWITCH_ALIAS_SIZE];
};

int DVSFindAliasForPortsetNameCB(SwitchHandle *handle, void *context);

// Takes the alias when useAlias is nonzero, else the id as it stands; the store is not asked for it.
VsStatus VSDVSResolveDVSId(const char *alias, const char *dvsId, char *switchIdOut, uint8_t useAlias);
