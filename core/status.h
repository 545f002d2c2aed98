#pragma once

#include "vswitchctl.h"

VsStatus ErrnoToStatus(int32_t error);
