// Records and words as bytes, as they stand in memory.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace vshost {

template<class Record> std::string_view BytesOf(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof(record)};
}

// 0 where the bytes end before the word does.
inline uint32_t WordAt(std::string_view bytes, size_t offset)
{
    uint32_t word = 0;
    if (offset + sizeof(word) <= bytes.size()) memcpy(&word, bytes.data() + offset, sizeof(word));
    return word;
}

}
