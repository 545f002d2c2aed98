// The fields of the driver's records by their names in JSON, which scenarios and vsctl share.
#pragma once

#include <vswitch_driver.h>

#include <bit>
#include <cstddef>
#include <cstring>

namespace vswitch {

enum class FieldKind { NUMBER, FLAG, WORD, TEXT, ADDRESS };
using enum FieldKind;

struct RecordField {
    const char *name;
    size_t offset;
    size_t width;
    FieldKind kind = NUMBER;
    uint32_t bits = ~0u;       // of a flag
    const char *words[3] = {}; // by their numbers
};

static_assert(std::endian::native == std::endian::little);

// Of a number, flag or word; a flag is 0 or 1.
inline uint64_t NumberOf(const RecordField &field, const void *record)
{
    uint64_t number = 0;
    std::memcpy(&number, static_cast<const char *>(record) + field.offset, field.width);
    return field.kind == FLAG ? (number & field.bits) != 0 : number;
}

inline void SetNumber(const RecordField &field, void *record, uint64_t number)
{
    std::memcpy(static_cast<char *>(record) + field.offset, &number, field.width);
}

// Where a field is in its record.
#define VSWITCH_FIELD(record, field) offsetof(record, field), sizeof(record::field)

inline constexpr RecordField INFO_FIELDS[] = {
    {"portset", VSWITCH_FIELD(VSwitchInfo, portset), TEXT},
    {"switch-id", VSWITCH_FIELD(VSwitchInfo, switchId), TEXT},
    {"max-ports", VSWITCH_FIELD(VSwitchInfo, ports)},
    {"used-ports", VSWITCH_FIELD(VSwitchInfo, usedPorts)},
    {"mtu", VSWITCH_FIELD(VSwitchInfo, mtu)},
    {"uplinks", VSWITCH_FIELD(VSwitchInfo, uplinks)},
    {"associated", VSWITCH_FIELD(VSwitchInfo, flags), FLAG, VSWITCH_INFO_ASSOCIATED},
    {"snooping", VSWITCH_FIELD(VSwitchInfo, flags), FLAG, VSWITCH_INFO_SNOOPING},
    {"mirroring", VSWITCH_FIELD(VSwitchInfo, flags), FLAG, VSWITCH_INFO_MIRRORING},
    {"mac-learning", VSWITCH_FIELD(VSwitchInfo, flags), FLAG, VSWITCH_INFO_MAC_LEARNING},
};

inline constexpr RecordField UPLINK_FIELDS[] = {
    {"uplink", VSWITCH_FIELD(VSwitchUplink, name), TEXT},
    {"link", VSWITCH_FIELD(VSwitchUplink, flags), FLAG, VSWITCH_UPLINK_LINK_UP},
    {"admin", VSWITCH_FIELD(VSwitchUplink, flags), FLAG, VSWITCH_UPLINK_ADMIN_UP},
    {"full-duplex", VSWITCH_FIELD(VSwitchUplink, flags), FLAG, VSWITCH_UPLINK_FULL_DUPLEX},
    {"in-lag", VSWITCH_FIELD(VSwitchUplink, flags), FLAG, VSWITCH_UPLINK_IN_LAG},
};

// Without the members.
inline constexpr RecordField LAG_FIELDS[] = {
    {"lag", VSWITCH_FIELD(VSwitchLag, name), TEXT},
    {"mode", VSWITCH_FIELD(VSwitchLag, mode), WORD, 0, {"passive", "active"}},
    {"timeout", VSWITCH_FIELD(VSwitchLag, fastTimeout), WORD, 0, {"long", "short"}},
    {"load-balance", VSWITCH_FIELD(VSwitchLag, loadBalance)},
    {"link", VSWITCH_FIELD(VSwitchLag, linkUp), FLAG},
};

inline constexpr RecordField MAC_ENTRY_FIELDS[] = {
    {"address", VSWITCH_FIELD(VSwitchMacEntry, address), ADDRESS},
    {"vlan", VSWITCH_FIELD(VSwitchMacEntry, vlanId)},
    {"type", VSWITCH_FIELD(VSwitchMacEntry, type), WORD, 0, {"static", "static", "learned"}},
    {"age", VSWITCH_FIELD(VSwitchMacEntry, age)},
    {"port-number", VSWITCH_FIELD(VSwitchMacEntry, portId)},
};

inline constexpr RecordField LEARNING_PROPS_FIELDS[] = {
    {"enabled", VSWITCH_FIELD(VSwitchLearningProps, enabled), FLAG},
    {"aging", VSWITCH_FIELD(VSwitchLearningProps, agingSeconds)},
    {"limit", VSWITCH_FIELD(VSwitchLearningProps, limit)},
};

inline constexpr RecordField PORT_LEARNING_FIELDS[] = {
    {"entries", VSWITCH_FIELD(VSwitchPortLearningStats, entries)},
    {"limit", VSWITCH_FIELD(VSwitchPortLearningStats, limit)},
    {"learned", VSWITCH_FIELD(VSwitchPortLearningStats, learned)},
    {"moved", VSWITCH_FIELD(VSwitchPortLearningStats, moved)},
    {"aged", VSWITCH_FIELD(VSwitchPortLearningStats, aged)},
    {"refused", VSWITCH_FIELD(VSwitchPortLearningStats, refused)},
    {"dropped", VSWITCH_FIELD(VSwitchPortLearningStats, dropped)},
};

inline constexpr RecordField LEARNING_INFO_FIELDS[] = {
    {"aging", VSWITCH_FIELD(VSwitchLearningInfo, agingSeconds)},
    {"limit", VSWITCH_FIELD(VSwitchLearningInfo, limit)},
    {"policy-byte", VSWITCH_FIELD(VSwitchLearningInfo, policyByte)},
    {"learn-static", VSWITCH_FIELD(VSwitchLearningInfo, learnStatic), FLAG},
    {"learning-ports", VSWITCH_FIELD(VSwitchLearningInfo, learningPorts)},
    {"entries", VSWITCH_FIELD(VSwitchLearningInfo, entries)},
    {"static-entries", VSWITCH_FIELD(VSwitchLearningInfo, staticEntries)},
    {"learned-entries", VSWITCH_FIELD(VSwitchLearningInfo, learnedEntries)},
    {"team-entries", VSWITCH_FIELD(VSwitchLearningInfo, teamEntries)},
    {"learned", VSWITCH_FIELD(VSwitchLearningInfo, learned)},
    {"moved", VSWITCH_FIELD(VSwitchLearningInfo, moved)},
    {"aged", VSWITCH_FIELD(VSwitchLearningInfo, aged)},
    {"refused", VSWITCH_FIELD(VSwitchLearningInfo, refused)},
    {"dropped", VSWITCH_FIELD(VSwitchLearningInfo, dropped)},
};

inline constexpr RecordField RARP_FIELDS[] = {
    {"sent", VSWITCH_FIELD(VSwitchRarpStats, sent)},
    {"failed", VSWITCH_FIELD(VSwitchRarpStats, failed)},
};

inline constexpr RecordField TEAMING_FIELDS[] = {
    {"tx-packets", VSWITCH_FIELD(VSwitchTeamingStats, txPackets)},
    {"tx-bytes", VSWITCH_FIELD(VSwitchTeamingStats, txBytes)},
    {"rx-packets", VSWITCH_FIELD(VSwitchTeamingStats, rxPackets)},
    {"rx-bytes", VSWITCH_FIELD(VSwitchTeamingStats, rxBytes)},
    {"failovers", VSWITCH_FIELD(VSwitchTeamingStats, failovers)},
    {"failbacks", VSWITCH_FIELD(VSwitchTeamingStats, failbacks)},
};

inline constexpr RecordField MIRROR_FIELDS[] = {
    {"session", VSWITCH_FIELD(VSwitchMirrorStats, sessionId), TEXT},
    {"active", VSWITCH_FIELD(VSwitchMirrorStats, active), FLAG},
    {"mirrored-packets", VSWITCH_FIELD(VSwitchMirrorStats, mirroredPackets)},
    {"mirrored-bytes", VSWITCH_FIELD(VSwitchMirrorStats, mirroredBytes)},
    {"dropped-packets", VSWITCH_FIELD(VSwitchMirrorStats, droppedPackets)},
    {"dropped-bytes", VSWITCH_FIELD(VSwitchMirrorStats, droppedBytes)},
    {"tx-packets", VSWITCH_FIELD(VSwitchMirrorStats, txPackets)},
    {"tx-bytes", VSWITCH_FIELD(VSwitchMirrorStats, txBytes)},
    {"rx-packets", VSWITCH_FIELD(VSwitchMirrorStats, rxPackets)},
    {"rx-bytes", VSWITCH_FIELD(VSwitchMirrorStats, rxBytes)},
    {"truncated", VSWITCH_FIELD(VSwitchMirrorStats, truncated)},
    {"encapsulation-errors", VSWITCH_FIELD(VSwitchMirrorStats, encapsulationErrors)},
    {"unreachable", VSWITCH_FIELD(VSwitchMirrorStats, unreachable)},
};

// Without the sources.
inline constexpr RecordField MCAST_FIELDS[] = {
    {"vlan", VSWITCH_FIELD(VSwitchMcastStats, vlanId)},
    {"joins", VSWITCH_FIELD(VSwitchMcastStats, joins)},
    {"leaves", VSWITCH_FIELD(VSwitchMcastStats, leaves)},
    {"queries", VSWITCH_FIELD(VSwitchMcastStats, queries)},
    {"ports", VSWITCH_FIELD(VSwitchMcastStats, ports)},
    {"filter", VSWITCH_FIELD(VSwitchMcastStats, filter), WORD, 0, {"include", "exclude"}},
};

inline constexpr RecordField OPTION_FIELDS[] = {
    {"option", VSWITCH_FIELD(VSwitchOption, id)},
    {"value", VSWITCH_FIELD(VSwitchOption, value)},
};

inline constexpr RecordField PORT_STATISTICS_FIELDS[] = {
    {"from-packets", VSWITCH_FIELD(VSwitchPortStatistics, fromPackets)},
    {"from-bytes", VSWITCH_FIELD(VSwitchPortStatistics, fromBytes)},
    {"to-packets", VSWITCH_FIELD(VSwitchPortStatistics, toPackets)},
    {"to-bytes", VSWITCH_FIELD(VSwitchPortStatistics, toBytes)},
    {"from-multicast", VSWITCH_FIELD(VSwitchPortStatistics, fromMulticast)},
    {"from-broadcast", VSWITCH_FIELD(VSwitchPortStatistics, fromBroadcast)},
    {"to-multicast", VSWITCH_FIELD(VSwitchPortStatistics, toMulticast)},
    {"to-broadcast", VSWITCH_FIELD(VSwitchPortStatistics, toBroadcast)},
    {"dropped-blocked", VSWITCH_FIELD(VSwitchPortStatistics, droppedBlocked)},
    {"dropped-vlan", VSWITCH_FIELD(VSwitchPortStatistics, droppedVlan)},
    {"dropped-security", VSWITCH_FIELD(VSwitchPortStatistics, droppedSecurity)},
    {"dropped-learning-limit", VSWITCH_FIELD(VSwitchPortStatistics, droppedLearningLimit)},
    {"dropped-filter", VSWITCH_FIELD(VSwitchPortStatistics, droppedFilter)},
    {"dropped-length", VSWITCH_FIELD(VSwitchPortStatistics, droppedLength)},
    {"dropped-flood-limit", VSWITCH_FIELD(VSwitchPortStatistics, droppedFloodLimit)},
    {"dropped-not-sent", VSWITCH_FIELD(VSwitchPortStatistics, droppedNotSent)},
};

#undef VSWITCH_FIELD

}
