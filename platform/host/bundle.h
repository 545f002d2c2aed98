// A property bundle: keyed values in one byte string, with a length and a checksum. Stored rows and
// DVSData_Serialize use the same format:
//     magic, version, total length, entry count          u32 each
//     entries: key, flags, value
//     CRC-32 of everything before it                      u32
// A key is one byte: its place in known_keys.h, or 0 followed by the length and the text of the key. A value
// follows its length. Flags and lengths use 7 bits of each byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vshost {

struct BundleEntry {
    std::string_view key;
    uint32_t flags = 0;
    std::string_view value;
};

inline constexpr size_t BUNDLE_HEADER = 16;
inline constexpr size_t BUNDLE_TRAILER = 4;
inline constexpr size_t MAX_BUNDLE = 1u << 30; // what one row of the engine can hold

// Whether the bytes are one whole, undamaged bundle. The functions below expect one.
bool CheckBundle(std::string_view bundle);
bool FindEntry(std::string_view bundle, std::string_view key, BundleEntry &entry);
std::vector<BundleEntry> ListEntries(std::string_view bundle);

std::string EmptyBundle();
// Replaces the entry of this key or adds one; false when the bundle would exceed MAX_BUNDLE.
bool PutEntry(std::string &bundle, const BundleEntry &entry);
bool RemoveEntry(std::string &bundle, std::string_view key);

// For a bundle in memory of any kind: leave room for the header, write the entries, seal.
size_t EntrySize(const BundleEntry &entry);
char *WriteEntry(char *at, const BundleEntry &entry);
void SealBundle(char *bundle, size_t length, uint32_t count);

}
