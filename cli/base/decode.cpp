// The driver's records, as fields where their layout is published.
#include "cli/base/decode.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/ether.h>
#include <vswitch_fields.h>

namespace vsctl {

namespace {

using vswitch::RecordField;
using Fields = std::span<const RecordField>;

Json DecodeField(const RecordField &field, const void *record)
{
    const char *place = static_cast<const char *>(record) + field.offset;
    if (field.kind == vswitch::TEXT) return Name(place, field.width);
    if (field.kind == vswitch::ADDRESS)
        return AddressText(reinterpret_cast<const uint8_t *>(place), field.width);
    const uint64_t number = NumberOf(field, record);
    if (field.kind == vswitch::FLAG) return number != 0;
    if (field.kind == vswitch::NUMBER) return number;
    const bool isKnown = number < std::size(field.words) && field.words[number];
    return field.words[isKnown ? number : 0];
}

Json DecodeFields(Fields fields, const void *record)
{
    Json decoded = Json::object();
    for (const RecordField &field : fields)
        decoded[field.name] = DecodeField(field, record);
    return decoded;
}

void EncodeFields(Fields fields, const Json &values, uint8_t *record)
{
    for (const RecordField &field : fields) {
        const auto value = values.find(field.name);
        if (value == values.end()) continue;
        if (field.kind == vswitch::ADDRESS)
            memcpy(record + field.offset, ParseAddress(*value, field.width).data(), field.width);
        else
            SetNumber(field, record, value->is_boolean() ? value->get<bool>() : value->get<uint64_t>());
    }
}

Json DecodeLags(Fields fields, const void *bytes, size_t)
{
    const auto table = Load<VSwitchLagTable>(bytes);
    Json lags = Json::array();
    for (const VSwitchLag &lag :
         std::span(table.lags).first(std::min<size_t>(table.count, std::size(table.lags)))) {
        Json &decoded = lags.emplace_back(DecodeFields(fields, &lag));
        Json &members = decoded["members"] = Json::array();
        for (size_t i = 0; i < std::min<size_t>(lag.memberCount, std::size(lag.members)); i++)
            members.push_back(Name(lag.members[i], sizeof lag.members[i]));
    }
    return lags;
}

Json DecodeMcast(Fields fields, const void *bytes, size_t size)
{
    const auto stats = Load<VSwitchMcastStats>(bytes);
    Json decoded = DecodeFields(fields, bytes);
    Json &sources = decoded["sources"] = Json::array();
    const size_t width = stats.count ? (size - sizeof stats) / stats.count : 0;
    for (uint32_t i = 0; i < stats.count; i++)
        sources.push_back(AddressText(static_cast<const uint8_t *>(bytes) + sizeof stats + i * width, width));
    return decoded;
}

Json DecodeOptions(Fields fields, const void *bytes, size_t size)
{
    const auto header = Load<VSwitchOptions>(bytes, size);
    const auto *entries = static_cast<const uint8_t *>(bytes) + sizeof header;
    const size_t room = size > sizeof header ? (size - sizeof header) / sizeof(VSwitchOption) : 0;
    Json options = Json::array();
    for (size_t i = 0; i < std::min<size_t>(header.count, room); i++)
        options.push_back(DecodeFields(fields, entries + i * sizeof(VSwitchOption)));
    return options;
}

constexpr RecordField DESTINATION_FIELDS[] = {{"port-number", 0, sizeof(uint32_t)}};
constexpr RecordField HINT_FIELDS[] = {{"uplink", 0, UPLINK_HINT_SIZE, vswitch::TEXT}};

struct RecordInfo {
    Fields fields;
    size_t size; // of the record, or of an entry of a list
    const char *action;
    Json (*decode)(Fields, const void *, size_t) = nullptr; // of a record that holds a list
};

// By Record.
constexpr RecordInfo RECORDS[] = {
    {vswitch::INFO_FIELDS, VS_INFO_SIZE, "reading the state of"},
    {vswitch::UPLINK_FIELDS, UPLINK_ENTRY_SIZE, "reading the running uplinks of"},
    {vswitch::LAG_FIELDS, LAG_TABLE_SIZE, "reading the LAGs of", DecodeLags},
    {vswitch::MAC_ENTRY_FIELDS, sizeof(ZorMacTableEntry), "reading the MAC table of"},
    {vswitch::LEARNING_PROPS_FIELDS, sizeof(ZorMacLearningProps), "reading the MAC learning properties of"},
    {vswitch::PORT_LEARNING_FIELDS, PORT_MAC_LEARNING_STATS_SIZE, "reading the MAC learning statistics of"},
    {vswitch::LEARNING_INFO_FIELDS, SWITCH_MAC_LEARNING_INFO_SIZE, "reading the MAC learning state of"},
    {vswitch::RARP_FIELDS, RARP_STATS_SIZE, "reading the RARP statistics of"},
    {vswitch::TEAMING_FIELDS, SERVICE_PORT_TEAMING_STATS_SIZE, "reading the teaming statistics of"},
    {vswitch::MIRROR_FIELDS, MIRROR_SESSION_STATS_SIZE, "reading the mirror statistics of"},
    {vswitch::MCAST_FIELDS, sizeof(ZorMcastStatsHeader), "reading the multicast statistics of", DecodeMcast},
    {vswitch::OPTION_FIELDS, RUNTIME_OPTIONS_SIZE, "reading the options of", DecodeOptions},
    {DESTINATION_FIELDS, sizeof(uint32_t), "reading the promiscuous ports of"},
    {HINT_FIELDS, UPLINK_HINT_SIZE, "reading the uplink of"},
    {vswitch::PORT_STATISTICS_FIELDS, sizeof(VSwitchPortStatistics), "reading the counters of"},
};
static_assert(std::size(RECORDS) == static_cast<size_t>(Record::PORT_STATISTICS) + 1);

const RecordInfo &InfoOf(Record record) { return RECORDS[static_cast<size_t>(record)]; }

Json DecodePublished(const RecordInfo &info, const void *bytes, size_t size)
{
    return info.decode ? info.decode(info.fields, bytes, size) : DecodeFields(info.fields, bytes);
}

}

std::span<const RecordField> FieldsOf(Record record) { return InfoOf(record).fields; }

Json Decode(Record record, const void *bytes, size_t size)
{
    if (IsEmbedded()) return DecodePublished(InfoOf(record), bytes, size);
    return {{"bytes", Hex(bytes, size)}};
}

Json DecodeZeros(Record record)
{
    static const Bytes zeros(LAG_TABLE_SIZE);
    return DecodePublished(InfoOf(record), zeros.data(), zeros.size());
}

Bytes ReadBytes(Record record, const Target &target, const Reader &read, const std::string &listed)
{
    Bytes bytes(InfoOf(record).size);
    CheckDriver(read(bytes.data()), InfoOf(record).action, target, listed);
    return bytes;
}

Json ReadRecord(Record record, const Target &target, const Reader &read, const std::string &listed)
{
    const Bytes bytes = ReadBytes(record, target, read, listed);
    return Decode(record, bytes.data(), bytes.size());
}

Json ReadTable(Record record, const Target &target, const ListReader &read, const std::string &listed)
{
    DriverBuffer<> table;
    CheckDriver(read(table.Out()), InfoOf(record).action, target, listed);
    return Decode(record, table.Get(), InfoOf(record).size);
}

std::vector<Bytes> ReadEntries(size_t size, const char *action, const Target &target, const ListReader &read)
{
    DriverBuffer<> list;
    CheckDriver(read(list.Out()), action, target);
    const auto header = Load<ZorListHeader>(list.Get());
    RequireEntries(list.Get(), sizeof header, header.count, size);
    std::vector<Bytes> entries;
    const uint8_t *entry = list.Raw() + sizeof header;
    for (uint32_t i = 0; i < header.count; i++, entry += size)
        entries.emplace_back(entry, entry + size);
    return entries;
}

Json ReadRecords(Record record, const Target &target, const ListReader &read)
{
    const RecordInfo &info = InfoOf(record);
    Json rows = Json::array();
    for (const Bytes &entry : ReadEntries(info.size, info.action, target, read))
        rows.push_back(Decode(record, entry.data(), entry.size()));
    return rows;
}

std::string AddressText(const uint8_t *bytes, size_t size)
{
    if (size == sizeof(ether_addr)) return fmt::format("{:02x}", fmt::join(bytes, bytes + size, ":"));
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(size == sizeof(in_addr) ? AF_INET : AF_INET6, bytes, text, sizeof text);
    return text;
}

Bytes ParseAddress(const std::string &text, size_t size)
{
    Bytes bytes(sizeof(in6_addr));
    const size_t length = ether_aton_r(text.c_str(), reinterpret_cast<ether_addr *>(bytes.data()))
                              ? sizeof(ether_addr)
                          : inet_pton(AF_INET, text.c_str(), bytes.data()) == 1  ? sizeof(in_addr)
                          : inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1 ? sizeof(in6_addr)
                                                                                 : 0;
    if (length == 0 || (size && length != size))
        throw Error(Exit::BAD_VALUE,
                    fmt::format("'{}' is not a {} address", text, size == 6 ? "MAC" : "group"),
                    size == 6 ? "write it like 02:00:00:00:00:01" : "write it like 224.1.1.1 or ff02::1");
    bytes.resize(length);
    return bytes;
}

Bytes Encode(Record record, const Json &fields)
{
    Bytes bytes(InfoOf(record).size);
    EncodeFields(InfoOf(record).fields, fields, bytes.data());
    return bytes;
}

Bytes EncodeOptions(const Json &options)
{
    Bytes record(sizeof(VSwitchOptions) + options.size() * sizeof(VSwitchOption));
    const VSwitchOptions header{static_cast<uint32_t>(record.size()), static_cast<uint32_t>(options.size())};
    memcpy(record.data(), &header, sizeof header);
    for (size_t i = 0; i < options.size(); i++)
        EncodeFields(vswitch::OPTION_FIELDS, options[i],
                     record.data() + sizeof header + i * sizeof(VSwitchOption));
    return record;
}

void RequireStation(const ZorMacTableEntry &bytes)
{
    if (!IsEmbedded()) return;
    const auto entry = Load<VSwitchMacEntry>(&bytes);
    const std::string address = AddressText(entry.address, sizeof entry.address);
    if (entry.address[0] & 1 || address == "00:00:00:00:00:00")
        throw Error(Exit::BAD_VALUE, fmt::format("{} is not a unicast address", address),
                    "its first byte must be even, and one of its bytes not zero");
    if (entry.vlanId > 4094 || entry.type > VSWITCH_MAC_LEARNED)
        throw Error(Exit::BAD_VALUE, "the VLAN or type of the entry is out of range");
}

VSwitchPortStatistics ReadStatistics(const Target &port)
{
    VSwitchPortStatistics statistics{};
    PropValueBuffer buffer{sizeof statistics, &statistics};
    const VsStatus status = VSDVS_GetPortProp(port.Alias(), port.Port(), "com.talpex.common.port.statistics",
                                              &buffer, port.Alias(), true);
    if (status == STATUS_NOT_FOUND && PortExists(port)) return statistics; // nothing is counted yet
    CheckDriver(status, "reading the counters of", port);
    return statistics;
}

uint64_t DroppedOf(const VSwitchPortStatistics &statistics)
{
    uint64_t dropped = 0;
    for (const vswitch::RecordField &field : vswitch::PORT_STATISTICS_FIELDS)
        dropped += std::string_view(field.name).starts_with("dropped-") ? NumberOf(field, &statistics) : 0;
    return dropped;
}

Json MacTable(const Target &target, uint8_t selector)
{
    return ReadRecords(Record::MAC_ENTRY, target, [&](void **table) {
        return target.port.empty() ? VSZOR_GetTeamMACTable(target.Alias(), selector, table)
                                   : VSZOR_GetPortMACTable(target.Alias(), target.Port(), selector, table);
    });
}

std::vector<Bytes> RunningGroups(const Target &target, const AddressKind &kind, uint32_t selector)
{
    const std::string portset = PortsetOf(target.alias);
    return ReadEntries(kind.width, "listing the multicast groups of", target, [&](void **list) {
        return VSZOR_GetMcastFilters(portset.c_str(), selector, kind.number, list);
    });
}

std::vector<std::string> RunningSessions(const Target &target)
{
    std::vector<std::string> sessions;
    for (const Bytes &id :
         ReadEntries(sizeof MirrorSessionRecord::sessionId, "listing the running mirror sessions of", target,
                     [&](void **list) { return VSZOR_GetDVMirrorSessionIDs(target.Alias(), list); }))
        sessions.push_back(Name(reinterpret_cast<const char *>(id.data()), id.size()));
    return sessions;
}

std::string RunningUplinksAdvice(const std::string &alias)
{
    return fmt::format("'vsctl uplink live {}' lists the running uplinks", alias);
}

Json RunningUplinks(const std::string &alias)
{
    const std::string portset = PortsetOf(alias);
    return ReadRecords(Record::UPLINK, {alias, ""},
                       [&](void **list) { return VSZOR_GetUplinks(portset.c_str(), list); });
}

bool UplinkIsUp(const std::string &alias, const std::string &uplink)
{
    for (const Json &row : IsEmbedded() ? RunningUplinks(alias) : Json::array()) {
        if (row["uplink"] == uplink) return row["admin"];
    }
    uint32_t up = 0;
    CheckDriver(VSZOR_GetUplinkLinkState(PortsetOf(alias).c_str(), uplink.c_str(), &up),
                "reading the link of uplink " + uplink + " of", {alias, ""}, RunningUplinksAdvice(alias));
    return up != 0;
}

bool IsAssociated(const std::string &portset)
{
    VSwitchInfo info{};
    return !IsEmbedded() || VSZOR_GetVSInfo(portset.c_str(), &info) != STATUS_OK ||
           (info.flags & VSWITCH_INFO_ASSOCIATED);
}

Json MaxPorts(const std::string &portset)
{
    VSwitchInfo info{};
    const bool isKnown = IsEmbedded() && VSZOR_GetVSInfo(portset.c_str(), &info) == STATUS_OK;
    return isKnown ? Json(uint32_t{info.ports}) : Json();
}

}
