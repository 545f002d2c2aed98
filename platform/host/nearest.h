// What somebody meant who mistyped a name.
#pragma once

#include <string_view>
#include <vector>

namespace vshost {

// The name that differs least from `word`; empty when none is much like it.
std::string_view NearestName(std::string_view word, const std::vector<std::string_view> &names);

}
