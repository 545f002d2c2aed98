// The statuses by their names.
#pragma once

#include <string_view>

#include "platform/host/status.h"

namespace vshost {

// The status of this name, as "STATUS_NO_SPACE"; STATUS_OK when there is none of it.
VsStatus StatusOfName(std::string_view name);

}
