#include "platform/live/overlay.h"

#include <map>

namespace live {

using namespace vshost;

VsStatus Overlay::Get(std::string_view key, std::string &value)
{
    const auto row = rows.find(key);
    if (row == rows.end()) return store.Get(key, value);
    if (!row->second) return STATUS_NOT_FOUND;
    value = *row->second;
    return STATUS_OK;
}

VsStatus Overlay::Scan(std::string_view prefix, const Visit &visit, Order order)
{
    const auto first = rows.lower_bound(prefix);
    if (first == rows.end() || !first->first.starts_with(prefix)) return store.Scan(prefix, visit, order);

    std::map<std::string, std::string> found;
    const auto take = [&](std::string_view key, std::string_view value) {
        found.emplace(key, value);
        return true;
    };
    if (VsStatus status = store.Scan(prefix, take)) return status;
    for (auto row = first; row != rows.end() && row->first.starts_with(prefix); ++row)
        if (row->second)
            found[row->first] = *row->second;
        else
            found.erase(row->first);
    const auto all = [&](auto begin, auto end) {
        for (auto entry = begin; entry != end && visit(entry->first, entry->second);)
            ++entry;
    };
    if (order == Order::FORWARD)
        all(found.begin(), found.end());
    else
        all(found.rbegin(), found.rend());
    return STATUS_OK;
}

}
