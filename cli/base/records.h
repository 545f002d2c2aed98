// Opaque records in JSON: hexadecimal text, or lists of it.
#pragma once

#include <algorithm>

#include "cli/base/library.h"

namespace vsctl {

// Copies hexadecimal digits into a record, whose rest is zero.
template<class Record> Record FromText(const Json &value)
{
    Record record{};
    const Bytes bytes = FromHex(value.get_ref<const std::string &>());
    memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

template<class Record> Json ToText(const Record &record) { return Hex(&record, sizeof record); }

template<class Record> Json ListToJson(std::span<const Record> records)
{
    Json list = Json::array();
    for (const Record &record : records)
        list.push_back(ToText(record));
    return list;
}

template<class Record> std::vector<Record> ListFromJson(const Json &list)
{
    std::vector<Record> records;
    for (const Json &entry : list)
        records.push_back(FromText<Record>(entry));
    return records;
}

}
