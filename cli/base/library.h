// The library for C++: buffers that release themselves, names, and bytes as text.
#pragma once

#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>
#include <vswitchctl.h>

#include "cli/base/error.h"
#include "cli/base/platform.h"
#include "frontend/output.h"

namespace vsctl {

using Bytes = std::vector<uint8_t>;

// A buffer that the library made for its caller.
template<class T, void (*RELEASE)(void *)> class Buffer {
public:
    Buffer() = default;
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer()
    {
        if (data) RELEASE(data);
    }
    T **Out() { return &data; }
    T *operator->() const { return data; }
    T *Get() const { return data; }
    const uint8_t *Raw() const { return reinterpret_cast<const uint8_t *>(data); }

private:
    T *data = nullptr;
};
template<class T> using StoreBuffer = Buffer<T, VSDVS_FreeMemory>;
template<class T = void> using DriverBuffer = Buffer<T, VSZOR_FreeMemory>;

// A record of which there are `size` bytes; the rest is zero.
template<class Record> Record Load(const void *bytes, size_t size = sizeof(Record))
{
    Record record{};
    memcpy(&record, bytes, std::min(size, sizeof record));
    return record;
}

// Throws when a driver's list counts more entries than its buffer, which comes from malloc, has room for. A
// list that grows between the two requests for it is read in part.
void RequireEntries(const void *list, size_t headerSize, size_t count, size_t entrySize);

// The `count` entries behind a list's header.
template<class Entry, class List> std::span<const Entry> Entries(const List *list, size_t count)
{
    return {reinterpret_cast<const Entry *>(list + 1), count};
}

// The entries of a driver's list, after that check.
template<class Entry, class List> std::span<const Entry> DriverEntries(const List *list)
{
    RequireEntries(list, sizeof *list, list->count, sizeof(Entry));
    return Entries<Entry>(list, list->count);
}

std::string Hex(const void *bytes, size_t length);
// The bytes of an even number of hexadecimal digits (spaces and colons are skipped). Throws on anything else.
Bytes FromHex(std::string_view text);
// A name that fills its field, or ends at a NUL.
std::string Name(const char *field, size_t size);
// The words between separators.
std::vector<std::string> Words(std::string_view text, std::string_view separator);
std::string ReadFile(const std::string &path); // "-" is standard input
// Throws unless a request to the driver succeeded. The error tells a missing driver and a switch that does
// not run from a missing object. `listed` is the advice for something missing other than the target.
void CheckDriver(VsStatus status, std::string_view action, const Target &target,
                 const std::string &listed = "");

// Names of the running portsets.
std::vector<std::string> Portsets();
// Whether the driver runs the switch's portset; true where no driver can be asked.
bool IsRunning(const std::string &alias);
// Throws when it does not.
void RequireRunning(std::string_view action, const Target &target);
// The alias of the switch with exactly this portset; empty when there is none. The library also finds a
// portset by a prefix of its name, so the result is checked.
std::string AliasOf(const std::string &portset);
std::vector<std::string> SwitchNames(); // of running switches, then of stored switches that do not run
// Ids of the stored switches; none where the platform's store cannot list them.
std::vector<std::string> StoredSwitchIds();
std::string AliasOfId(const std::string &id); // empty when it has none
std::string PortsetOf(const std::string &alias);
bool SwitchExists(const std::string &alias);
// Whether a switch with this id is stored, running or not.
bool SwitchIdExists(const std::string &id);
void RequireSwitchId(const std::string &id);
// The switch that uses the portset, like "switch lab", running or not; empty when none does.
std::string PortsetUser(const std::string &portset);
// Throws when the portset runs without a switch. A creation or destruction that is cut short leaves one.
void RequireNoBarePortset(const std::string &portset);
// Throws, with the nearest name, when the switch does not exist.
std::string SwitchId(const std::string &alias);

// Throws where the platform cannot do what only an embedded host can: "list ports".
void RequireOwnPlatform(const char *action);

bool PortExists(const Target &port);
// The ports of a switch, by number; none where the platform cannot list them.
std::vector<vshost_port> PortsOf(const std::string &alias);
// Advice for a port, or a property, that does not exist.
std::string PortAdvice(const Target &port);
std::string PropertyAdvice(const Target &target, bool byId);
// "port0..port7,uplink0" → their names.
std::vector<std::string> PortNames(const std::string &list);
// port2 comes before port10.
bool ComesBefore(const std::string &port, const std::string &other);
// Names as a sorted list with ranges.
std::vector<std::string> PortRanges(std::vector<std::string> names);

enum class PropertyLevel { GLOBAL, HOST, PORT };
const char *LevelName(PropertyLevel level);
PropertyLevel LevelOf(std::string_view name); // of one of these names

// A property by its key, of a switch named by alias or (byId) by its id.
struct NamedProperty {
    PropertyLevel level = PropertyLevel::GLOBAL;
    Target target;
    std::string key;
    bool byId = false;

    VsStatus Length(int32_t &length) const;
    VsStatus Get(Bytes &value) const;
    VsStatus Set(const Bytes &value) const;
    VsStatus Clear() const;
};

}
