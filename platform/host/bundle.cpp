// The codec of property bundles.
#include "platform/host/bundle.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include <zlib.h>

#include "platform/host/bytes.h"
#include "platform/host/known_keys.h"

namespace vshost {
namespace {

constexpr uint32_t MAGIC = 0x42505356; // "VSPB"
constexpr uint32_t VERSION = 1;

void WriteWord(char *at, uint32_t word) { memcpy(at, &word, sizeof(word)); }

uint32_t Checksum(std::string_view bytes)
{
    return static_cast<uint32_t>(crc32_z(0, reinterpret_cast<const Bytef *>(bytes.data()), bytes.size()));
}

// ---- Numbers of an entry: 7 bits a byte, the lowest first; a set top bit means that more follow ----

constexpr size_t MAX_NUMBER = 5;

size_t NumberSize(uint32_t number)
{
    size_t size = 1;
    while (number >>= 7)
        size++;
    return size;
}

char *WriteNumber(char *at, uint32_t number)
{
    for (; number >= 0x80; number >>= 7)
        *at++ = static_cast<char>(number | 0x80);
    *at++ = static_cast<char>(number);
    return at;
}

// False when the bytes end within the number, or it exceeds 32 bits.
bool ReadNumber(std::string_view &bytes, uint32_t &number)
{
    uint64_t read = 0;
    for (size_t i = 0; i < std::min(bytes.size(), MAX_NUMBER); i++) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        read |= static_cast<uint64_t>(byte & 0x7F) << 7 * i;
        if (byte & 0x80) continue;
        bytes.remove_prefix(i + 1);
        number = static_cast<uint32_t>(read);
        return read <= UINT32_MAX;
    }
    return false;
}

// ---- Entries ----

// Position of the key in the list of known ones, from 1; 0 when it is spelled out.
unsigned char KeyCode(std::string_view key)
{
    static_assert(std::size(KNOWN_KEYS) < UINT8_MAX);
    const auto known = std::find(std::begin(KNOWN_KEYS), std::end(KNOWN_KEYS), key);
    if (known == std::end(KNOWN_KEYS)) return 0;
    return static_cast<unsigned char>(known - std::begin(KNOWN_KEYS) + 1);
}

uint32_t Length(std::string_view text) { return static_cast<uint32_t>(text.size()); }

char *WriteText(char *at, std::string_view text)
{
    at = WriteNumber(at, Length(text));
    return at + text.copy(at, text.size());
}

bool ReadText(std::string_view &bytes, std::string_view &text)
{
    uint32_t length = 0;
    if (!ReadNumber(bytes, length) || bytes.size() < length) return false;
    text = bytes.substr(0, length);
    bytes.remove_prefix(length);
    return true;
}

bool ReadKey(std::string_view &bytes, std::string_view &key)
{
    if (bytes.empty()) return false;
    const auto code = static_cast<unsigned char>(bytes[0]);
    bytes.remove_prefix(1);
    if (code == 0) return ReadText(bytes, key) && KeyCode(key) == 0;
    if (code > std::size(KNOWN_KEYS)) return false;
    key = KNOWN_KEYS[code - 1];
    return true;
}

uint32_t EntryCount(std::string_view bundle) { return WordAt(bundle, 12); }

// Walks the entries. Next() is false at the end, and at an entry that is damaged or reaches beyond the
// bundle.
class EntryWalk {
public:
    explicit EntryWalk(std::string_view bundle)
        : left(bundle.substr(BUNDLE_HEADER, bundle.size() - BUNDLE_HEADER - BUNDLE_TRAILER))
    {}

    bool AtEnd() const { return left.empty(); }
    const char *Position() const { return left.data(); }
    bool Next(BundleEntry &entry)
    {
        return ReadKey(left, entry.key) && ReadNumber(left, entry.flags) && ReadText(left, entry.value);
    }

private:
    std::string_view left;
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

// Known keys come in the order of their codes, then the others in that of their texts.
bool ComesBefore(unsigned char code, std::string_view key, std::string_view other)
{
    const unsigned char otherCode = KeyCode(other);
    if (code == 0 || otherCode == 0) return code != 0 || (otherCode == 0 && key < other);
    return code < otherCode;
}

// Where a new entry belongs, so that bundles with the same entries are the same bytes however they came
// about.
size_t NewOffset(std::string_view bundle, std::string_view key)
{
    const unsigned char code = KeyCode(key);
    EntryWalk walk(bundle);
    BundleEntry entry;
    for (;;) {
        const char *start = walk.Position();
        if (!walk.Next(entry) || ComesBefore(code, key, entry.key))
            return static_cast<size_t>(start - bundle.data());
    }
}

void Seal(std::string &bundle, uint32_t count) { SealBundle(bundle.data(), bundle.size(), count); }

}

bool CheckBundle(std::string_view bundle)
{
    if (bundle.size() < BUNDLE_HEADER + BUNDLE_TRAILER || bundle.size() > MAX_BUNDLE) return false;
    const size_t checkedLength = bundle.size() - BUNDLE_TRAILER;
    if (WordAt(bundle, 0) != MAGIC || WordAt(bundle, 4) != VERSION || WordAt(bundle, 8) != bundle.size() ||
        WordAt(bundle, checkedLength) != Checksum(bundle.substr(0, checkedLength)))
        return false;
    EntryWalk walk(bundle);
    BundleEntry entry;
    uint32_t count = 0;
    while (walk.Next(entry))
        count++;
    return walk.AtEnd() && count == EntryCount(bundle);
}

bool FindEntry(std::string_view bundle, std::string_view key, BundleEntry &entry)
{
    return EntryOffset(bundle, key, entry) != std::string_view::npos;
}

std::vector<BundleEntry> ListEntries(std::string_view bundle)
{
    std::vector<BundleEntry> entries;
    BundleEntry entry;
    for (EntryWalk walk(bundle); walk.Next(entry);)
        entries.push_back(entry);
    return entries;
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
    const size_t offset = isNew ? NewOffset(bundle, entry.key) : found;
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

size_t EntrySize(const BundleEntry &entry)
{
    const size_t keySize = KeyCode(entry.key) ? 0 : NumberSize(Length(entry.key)) + entry.key.size();
    return 1 + keySize + NumberSize(entry.flags) + NumberSize(Length(entry.value)) + entry.value.size();
}

char *WriteEntry(char *at, const BundleEntry &entry)
{
    const unsigned char code = KeyCode(entry.key);
    *at++ = static_cast<char>(code);
    if (code == 0) at = WriteText(at, entry.key);
    return WriteText(WriteNumber(at, entry.flags), entry.value);
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
