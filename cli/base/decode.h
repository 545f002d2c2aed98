// The driver's records. Only an embedded host publishes their layout; on other platforms they are bytes.
#pragma once

#include <functional>
#include <vswitch_fields.h>

#include "cli/base/library.h"

namespace vsctl {

enum class Record {
    INFO,
    UPLINK,
    LAG_TABLE,
    MAC_ENTRY,
    LEARNING_PROPS,
    PORT_LEARNING_STATS,
    LEARNING_INFO,
    RARP_STATS,
    TEAMING_STATS,
    MIRROR_STATS,
    MCAST_STATS,
    OPTIONS,
    DESTINATION,
    HINT,
    PORT_STATISTICS
};

// The record's fields, or {"bytes": …}.
Json Decode(Record record, const void *bytes, size_t size);
// The fields of an embedded host's record of zeros; of a record that holds a list, the list, which is empty.
Json DecodeZeros(Record record);
std::span<const vswitch::RecordField> FieldsOf(Record record);
// A record of a switch or port that the driver fills, and its fields. `listed` is the advice for something
// missing other than the target.
using Reader = std::function<VsStatus(void *bytes)>;
Bytes ReadBytes(Record record, const Target &target, const Reader &read, const std::string &listed = "");
Json ReadRecord(Record record, const Target &target, const Reader &read, const std::string &listed = "");
// What the library returns in a buffer of its own: a record that holds a list, or a list, as rows or as
// bytes.
using ListReader = std::function<VsStatus(void **list)>;
Json ReadTable(Record record, const Target &target, const ListReader &read, const std::string &listed = "");
Json ReadRecords(Record record, const Target &target, const ListReader &read);
std::vector<Bytes> ReadEntries(size_t size, const char *action, const Target &target, const ListReader &read);

// "00:50:56:01:02:03", "224.0.0.1" or an IPv6 address, by the address's length.
std::string AddressText(const uint8_t *bytes, size_t size);
// The bytes of such a text. Throws unless it is an address of `size` bytes (0: any kind).
Bytes ParseAddress(const std::string &text, size_t size);

// Records of an embedded host's driver; what `fields` does not name is zero.
Bytes Encode(Record record, const Json &fields);
Bytes EncodeOptions(const Json &options);
// Throws unless a port can have the entry. Where the layout is not published, the driver checks it.
void RequireStation(const ZorMacTableEntry &entry);

// What the port has counted. Throws where the platform does not publish its counters.
VSwitchPortStatistics ReadStatistics(const Target &port);
uint64_t DroppedOf(const VSwitchPortStatistics &statistics);
// The MAC table of a port or, without one, of the team of a switch's uplinks.
Json MacTable(const Target &target, uint8_t selector);

// How the driver lists multicast groups.
struct AddressKind {
    const char *name;
    int32_t number;
    size_t width;
};
inline constexpr AddressKind ADDRESS_KINDS[] = {
    {"ethernet", ADDRESS_KIND_ETHERNET, 6}, {"ipv4", ADDRESS_KIND_IPV4, 4}, {"ipv6", ADDRESS_KIND_IPV6, 16}};

// The addresses of the groups, and the names of the mirror sessions, that the driver runs.
std::vector<Bytes> RunningGroups(const Target &target, const AddressKind &kind, uint32_t selector);
std::vector<std::string> RunningSessions(const Target &target);
// The rows of the uplinks that the driver runs.
Json RunningUplinks(const std::string &alias);
// Advice for an uplink that the switch does not run.
std::string RunningUplinksAdvice(const std::string &alias);
// Whether the uplink is administratively up; where that is unknown, whether it has a link.
bool UplinkIsUp(const std::string &alias, const std::string &uplink);
Json MaxPorts(const std::string &portset);     // null where it is unknown
bool IsAssociated(const std::string &portset); // true where it is unknown

}
