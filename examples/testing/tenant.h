#pragma once
#include <cstdint>
#include <vswitchctl.h>

// Puts `count` ports ("<tenant>-0", …) of a tenant on a VLAN: all of them or none.
VsStatus AddTenant(const char *alias, const char *tenant, unsigned count, uint16_t vlanId);

// The number of uplinks of a running switch that have a link; negative when the driver does not answer.
int LiveUplinks(const char *portset);
