// What a transaction has changed in the rows, as a writer tells it to vshostd before it commits.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vshost {

// By key; no value: the row is removed.
using RowChanges = std::map<std::string, std::optional<std::string>, std::less<>>;

std::string EncodeRows(const RowChanges &rows);
bool DecodeRows(std::string_view bytes, RowChanges &rows); // false: they are not what EncodeRows makes

}
