#pragma once
#include <cstdint>
#include <vswitchctl.h>

// Puts `count` ports ("<tenant>-0", …) of a tenant on a VLAN; all of them, or none.
VsStatus AddTenant(const char *alias, const char *tenant, unsigned count, uint16_t vlanId);

// How many uplinks of a running switch have a link; less than 0 when the driver can't be asked.
int LiveUplinks(const char *portset);
