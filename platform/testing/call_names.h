// The names of the calls that a test can fail.
#pragma once

#include <vshost.h>

#include <string>
#include <string_view>

namespace vshost {

bool IsCallName(vshost_kind kind, std::string_view name);
// What is wrong with a name that is not a call's, with the name that was probably meant.
std::string ExplainCallName(vshost_kind kind, std::string_view name);

}
