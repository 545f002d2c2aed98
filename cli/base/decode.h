// The driver's records. Only an embedded host publishes their layout; on other platforms they are bytes.
#pragma once

#include <functional>
#include <optional>

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
// One row for each entry of a list that a ZorListHeader begins.
Json DecodeList(Record record, const void *list, size_t entrySize);
// A record of a switch or port that the driver fills, or the rows of a list that it makes. `listed` is the
// advice for something missing other than the target.
using Reader = std::function<VsStatus(void *bytes)>;
Json ReadRecord(Record record, const Target &target, const Reader &read, const std::string &listed = "");
Json ReadRecords(Record record, const Target &target, const std::function<VsStatus(void **list)> &read);

// "00:50:56:01:02:03", "224.0.0.1" or an IPv6 address, by the address's length.
std::string AddressText(const uint8_t *bytes, size_t size);
// The bytes of such a text. Throws unless it is an address of `size` bytes (0: any kind).
Bytes ParseAddress(const std::string &text, size_t size);

// Records of an embedded host's driver.
Bytes MacEntry(const std::string &address, uint16_t vlan);
// Throws unless a port can have the entry. Where the layout is not published, the driver checks it.
void RequireStation(const ZorMacTableEntry &entry);
Bytes LearningProps(bool enabled, uint32_t aging, uint32_t limit);
Bytes OptionsRecord(const std::vector<std::pair<uint16_t, uint32_t>> &options);

// The rows of the uplinks that the driver runs.
Json RunningUplinks(const std::string &alias);
// Advice for an uplink that the switch does not run.
std::string RunningUplinksAdvice(const std::string &alias);
// Whether the uplink is administratively up; where that is unknown, whether it has a link.
bool UplinkIsUp(const std::string &alias, const std::string &uplink);
Json MaxPorts(const std::string &portset);     // null where it is unknown
bool IsAssociated(const std::string &portset); // true where it is unknown

}
