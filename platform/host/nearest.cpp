#include "platform/host/nearest.h"

#include <algorithm>
#include <numeric>

namespace vshost {

namespace {

// How many characters must be inserted, removed or replaced to turn one word into the other.
size_t Distance(std::string_view from, std::string_view to)
{
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (const char character : from) {
        size_t diagonal = row[0]++;
        for (size_t i = 0; i < to.size(); i++) {
            const size_t replaced = diagonal + (character != to[i]);
            diagonal = row[i + 1];
            row[i + 1] = std::min({replaced, row[i] + 1, row[i + 1] + 1});
        }
    }
    return row.back();
}

}

std::string_view NearestName(std::string_view word, const std::vector<std::string_view> &names)
{
    constexpr size_t LONGEST = 64;
    std::string_view nearest;
    size_t least = std::max<size_t>(word.size() / 3, 1) + 1;
    if (word.size() > LONGEST) return nearest;
    for (const std::string_view name : names)
        if (const size_t distance = Distance(word, name); distance < least) {
            least = distance;
            nearest = name;
        }
    return nearest;
}

}
