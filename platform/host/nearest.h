// Suggestions for mistyped names.
#pragma once

#include <string_view>
#include <vector>

namespace vshost {

// The name that differs least from `word`; empty when no name is similar.
std::string_view NearestName(std::string_view word, const std::vector<std::string_view> &names);

}
