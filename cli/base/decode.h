// The driver's records. Their fields are known only where the platform says that it is an embedded host;
// anywhere else they are shown as bytes.
#pragma once

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
    HINT
};

// The record's fields, or {"bytes": …}.
Json Decode(Record record, const void *bytes, size_t size);
// The fields of an embedded host's record of zeros; of a record that holds a list, the list, which is empty.
Json DecodeZeros(Record record);
// One row for each entry of a list that a ZorListHeader begins.
Json DecodeList(Record record, const void *list, size_t entrySize);

// "00:50:56:01:02:03", "224.0.0.1" or an IPv6 address, by the address's length.
std::string AddressText(const uint8_t *bytes, size_t size);
// The bytes of such a text; throws when it is none of `size` bytes (0: any).
Bytes ParseAddress(const std::string &text, size_t size);

// A MAC entry of an embedded host's driver.
Bytes MacEntry(const std::string &address, uint16_t vlan);
// Throws unless the entry can be set on a port. Where the driver keeps its layout to itself, it has to tell.
void RequireStation(const ZorMacTableEntry &entry);
Bytes LearningProps(bool enabled, uint32_t aging, uint32_t limit);
Bytes OptionsRecord(const std::vector<std::pair<uint16_t, uint32_t>> &options);

// What to try when a switch runs no such uplink.
std::string RunningUplinksAdvice(const std::string &alias);
// Whether the uplink is administratively up; where that isn't known, whether it has a link.
bool UplinkIsUp(const std::string &portset, const std::string &uplink, const Target &target);
Json MaxPorts(const std::string &portset);     // null where it isn't known
bool IsAssociated(const std::string &portset); // true where it isn't known

}
