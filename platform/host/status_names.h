// Statuses by their names.
#pragma once

#include <string_view>

#include "platform/host/status.h"

namespace vshost {

// The status with this name, such as "STATUS_NO_SPACE"; STATUS_OK when no status has it.
VsStatus StatusOfName(std::string_view name);

}
