// The codec of property bundles.
#include "platform/host/bundle.h"

#include <array>
#include <cstring>

namespace vshost {
namespace {

constexpr uint32_t MAGIC = 0x42505356; // "VSPB"
constexpr uint32_t VERSION = 1;
constexpr size_t ENTRY_HEADER = 12;

uint32_t ReadWord(const char *at)
{
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return word;
}

void WriteWord(char *at, uint32_t word) { memcpy(at, &word, sizeof word); }

// CRC-32C, reflected. Processors of this decade have an instruction for it.
constexpr uint32_t POLYNOMIAL = 0x82F63B78;

constexpr std::array<uint32_t, 256> MakeTable()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t remainder = byte;
        for (int bit = 0; bit < 8; ++bit)
            remainder = remainder >> 1 ^ (remainder & 1 ? POLYNOMIAL : 0);
        table[byte] = remainder;
    }
    return table;
}

uint32_t AddBytes(uint32_t crc, std::string_view bytes)
{
    static constexpr std::array<uint32_t, 256> TABLE = MakeTable();
    for (const char byte : bytes)
        crc = crc >> 8 ^ TABLE[(crc ^ static_cast<unsigned char>(byte)) & 0xFF];
    return crc;
}

[[gnu::target("sse4.2")]] uint32_t AddWords(uint32_t crc, std::string_view words)
{
    uint64_t wide = crc;
    for (size_t at = 0; at < words.size(); at += sizeof wide) {
        uint64_t word;
        memcpy(&word, words.data() + at, sizeof word);
        wide = __builtin_ia32_crc32di(wide, word);
    }
    return static_cast<uint32_t>(wide);
}

uint32_t Checksum(std::string_view bytes)
{
    static const bool hasInstruction = __builtin_cpu_supports("sse4.2");
    const size_t wholeWords = hasInstruction ? bytes.size() / sizeof(uint64_t) * sizeof(uint64_t) : 0;
    const uint32_t crc = hasInstruction ? AddWords(~0u, bytes.substr(0, wholeWords)) : ~0u;
    return ~AddBytes(crc, bytes.substr(wholeWords));
}

uint32_t EntryCount(std::string_view bundle) { return ReadWord(bundle.data() + 12); }

// Walks the entries. Next() is false at the end and at an entry that leaves the bundle.
class EntryWalk {
public:
    explicit EntryWalk(std::string_view bundle)
        : at(bundle.data() + BUNDLE_HEADER), end(bundle.data() + bundle.size() - BUNDLE_TRAILER)
    {}

    bool AtEnd() const { return at == end; }
    const char *Position() const { return at; }
    bool Next(BundleEntry &entry)
    {
        if (Left() < ENTRY_HEADER) return false;
        const size_t keyLength = ReadWord(at), valueLength = ReadWord(at + 8);
        if (Left() - ENTRY_HEADER < keyLength + valueLength) return false;
        const char *key = at + ENTRY_HEADER;
        entry = {{key, keyLength}, ReadWord(at + 4), {key + keyLength, valueLength}};
        at = key + keyLength + valueLength;
        return true;
    }

private:
    size_t Left() const { return static_cast<size_t>(end - at); }

    const char *at;
    const char *end;
};

// Offset of the entry of `key`, or npos.
size_t EntryOffset(std::string_view bundle, std::string_view key, BundleEntry &entry)
{
    EntryWalk walk(bundle);
    for (;;) {
        const char *start = walk.Position();
        if (!walk.Next(entry)) return std::string_view::npos;
        if (entry.key == key) return static_cast<size_t>(start - bundle.data());
    }
}

void Seal(std::string &bundle, uint32_t count) { SealBundle(bundle.data(), bundle.size(), count); }

}

bool CheckBundle(std::string_view bundle)
{
    if (bundle.size() < BUNDLE_HEADER + BUNDLE_TRAILER || bundle.size() > MAX_BUNDLE) return false;
    const size_t checkedLength = bundle.size() - BUNDLE_TRAILER;
    if (ReadWord(bundle.data()) != MAGIC || ReadWord(bundle.data() + 4) != VERSION ||
        ReadWord(bundle.data() + 8) != bundle.size() ||
        ReadWord(bundle.data() + checkedLength) != Checksum(bundle.substr(0, checkedLength)))
        return false;
    EntryWalk walk(bundle);
    BundleEntry entry;
    uint32_t count = 0;
    while (walk.Next(entry))
        ++count;
    return walk.AtEnd() && count == EntryCount(bundle);
}

bool FindEntry(std::string_view bundle, std::string_view key, BundleEntry &entry)
{
    return EntryOffset(bundle, key, entry) != std::string_view::npos;
}

std::string EmptyBundle()
{
    std::string bundle(BUNDLE_HEADER + BUNDLE_TRAILER, '\0');
    Seal(bundle, 0);
    return bundle;
}

bool PutEntry(std::string &bundle, const BundleEntry &entry)
{
    BundleEntry old;
    const size_t found = EntryOffset(bundle, entry.key, old);
    const bool isNew = found == std::string_view::npos;
    const size_t offset = isNew ? bundle.size() - BUNDLE_TRAILER : found;
    const size_t oldSize = isNew ? 0 : EntrySize(old);
    if (bundle.size() - oldSize + EntrySize(entry) > MAX_BUNDLE) return false;
    bundle.replace(offset, oldSize, EntrySize(entry), '\0');
    WriteEntry(bundle.data() + offset, entry);
    Seal(bundle, EntryCount(bundle) + isNew);
    return true;
}

bool RemoveEntry(std::string &bundle, std::string_view key)
{
    BundleEntry old;
    const size_t found = EntryOffset(bundle, key, old);
    if (found == std::string_view::npos) return false;
    bundle.erase(found, EntrySize(old));
    Seal(bundle, EntryCount(bundle) - 1);
    return true;
}

size_t EntrySize(const BundleEntry &entry) { return ENTRY_HEADER + entry.key.size() + entry.value.size(); }

char *WriteEntry(char *at, const BundleEntry &entry)
{
    WriteWord(at, static_cast<uint32_t>(entry.key.size()));
    WriteWord(at + 4, entry.flags);
    WriteWord(at + 8, static_cast<uint32_t>(entry.value.size()));
    char *key = at + ENTRY_HEADER;
    entry.key.copy(key, entry.key.size());
    char *value = key + entry.key.size();
    entry.value.copy(value, entry.value.size());
    return value + entry.value.size();
}

void SealBundle(char *bundle, size_t length, uint32_t count)
{
    WriteWord(bundle, MAGIC);
    WriteWord(bundle + 4, VERSION);
    WriteWord(bundle + 8, static_cast<uint32_t>(length));
    WriteWord(bundle + 12, count);
    const size_t checkedLength = length - BUNDLE_TRAILER;
    WriteWord(bundle + checkedLength, Checksum({bundle, checkedLength}));
}

}
