#include "platform/host/row_changes.h"

#include <cstdint>

#include "platform/host/bytes.h"

namespace vshost {

namespace {

constexpr uint32_t REMOVED = UINT32_MAX;
constexpr size_t LENGTHS = 2 * sizeof(uint32_t); // of a key and of its value, before both

}

std::string EncodeRows(const RowChanges &rows)
{
    std::string bytes;
    for (const auto &[key, value] : rows) {
        const auto keyLength = static_cast<uint32_t>(key.size());
        const uint32_t valueLength = value ? static_cast<uint32_t>(value->size()) : REMOVED;
        bytes.append(BytesOf(keyLength)).append(BytesOf(valueLength)).append(key);
        if (value) bytes.append(*value);
    }
    return bytes;
}

bool DecodeRows(std::string_view bytes, RowChanges &rows)
{
    while (!bytes.empty()) {
        if (bytes.size() < LENGTHS) return false;
        const size_t keyLength = WordAt(bytes, 0);
        const uint32_t valueLength = WordAt(bytes, sizeof(uint32_t));
        const size_t taken = valueLength == REMOVED ? 0 : valueLength;
        bytes.remove_prefix(LENGTHS);
        if (keyLength + taken > bytes.size()) return false;
        std::optional<std::string> &value = rows[std::string(bytes.substr(0, keyLength))];
        if (valueLength == REMOVED)
            value.reset();
        else
            value = bytes.substr(keyLength, taken);
        bytes.remove_prefix(keyLength + taken);
    }
    return true;
}

}
