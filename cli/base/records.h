// The records of policies: between their bytes, and fields or hexadecimal digits in JSON.
#pragma once

#include "cli/base/value.h"

namespace vsctl {

extern const Layout TEAMING;       // of a switch or port
extern const Layout NAMED_TEAMING; // of logical switches
extern const Layout PRIVATE_VLAN;
extern const Layout SECURITY;
extern const Layout ETHERNET_FILTER;
extern const Layout PORT_LEARNING;
extern const Layout SWITCH_LEARNING;
extern const Layout MIRROR_SESSION;

std::vector<Field> AllFields(const Layout &layout); // those beside the record first
// The fields of a record; hexadecimal digits where the platform doesn't publish the layout, or where the
// fields don't give the same bytes again.
Json RecordToJson(const Layout &layout, const void *bytes);
// Of a valid value. Fields that are not there get their defaults.
Bytes RecordFromJson(const Layout &layout, const Json &value);

template<class Record> Json ListToJson(const Layout &layout, std::span<const Record> records)
{
    Json list = Json::array();
    for (const Record &record : records)
        list.push_back(RecordToJson(layout, &record));
    return list;
}

template<class Record> std::vector<Record> ListFromJson(const Layout &layout, const Json &list)
{
    std::vector<Record> records(list.size());
    for (size_t i = 0; i < list.size(); i++)
        memcpy(&records[i], RecordFromJson(layout, list[i]).data(), sizeof(Record));
    return records;
}

// Mirror sessions of a library's list, and back.
Json SessionsToJson(const MirrorSessionList *list);
Bytes SessionsFromJson(const Json &sessions);

// A port entry of a mirror session: the name of a port, its kernel number like "#7", or hexadecimal digits.
std::string PortEntryText(const MirrorPortEntry &entry);
MirrorPortEntry PortEntryOf(const std::string &text);
std::optional<uint32_t> PortEntryNumber(const std::string &text);

// "drop to-port 0x0806"; nothing for other texts.
struct FilterRule {
    uint16_t etherType; // 0: any
    uint8_t direction;
    uint8_t action;
};
std::optional<FilterRule> ParseFilterRule(const std::string &text);
std::string FilterRuleText(const FilterRule &rule);

}
