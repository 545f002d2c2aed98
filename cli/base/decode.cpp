// The driver's records, as fields where their layout is published.
#include "cli/base/decode.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/ether.h>
#include <vswitch_driver.h>

namespace vsctl {

namespace {

// A packed field cannot be bound to a reference, so its value is copied.
template<class Value> Value Copy(Value value) { return value; }

template<class T> T Load(const void *bytes, size_t size = sizeof(T))
{
    T record{};
    memcpy(&record, bytes, std::min(size, sizeof record));
    return record;
}

Json DecodeInfo(const void *bytes, size_t)
{
    const auto info = Load<VSwitchInfo>(bytes);
    return {{"portset", Name(info.portset, sizeof info.portset)},
            {"switch-id", Name(info.switchId, sizeof info.switchId)},
            {"max-ports", Copy(info.ports)},
            {"used-ports", Copy(info.usedPorts)},
            {"mtu", Copy(info.mtu)},
            {"uplinks", Copy(info.uplinks)},
            {"associated", (info.flags & VSWITCH_INFO_ASSOCIATED) != 0},
            {"snooping", (info.flags & VSWITCH_INFO_SNOOPING) != 0},
            {"mirroring", (info.flags & VSWITCH_INFO_MIRRORING) != 0},
            {"mac-learning", (info.flags & VSWITCH_INFO_MAC_LEARNING) != 0}};
}

Json DecodeUplink(const void *bytes, size_t)
{
    const auto uplink = Load<VSwitchUplink>(bytes);
    return {{"uplink", Name(uplink.name, sizeof uplink.name)},
            {"link", (uplink.flags & VSWITCH_UPLINK_LINK_UP) != 0},
            {"admin", (uplink.flags & VSWITCH_UPLINK_ADMIN_UP) != 0},
            {"full-duplex", (uplink.flags & VSWITCH_UPLINK_FULL_DUPLEX) != 0},
            {"in-lag", (uplink.flags & VSWITCH_UPLINK_IN_LAG) != 0}};
}

Json DecodeLag(const VSwitchLag &lag)
{
    Json members = Json::array();
    for (size_t i = 0; i < std::min<size_t>(lag.memberCount, std::size(lag.members)); i++)
        members.push_back(Name(lag.members[i], sizeof lag.members[i]));
    return {{"lag", Name(lag.name, sizeof lag.name)},
            {"mode", lag.mode ? "active" : "passive"},
            {"timeout", lag.fastTimeout ? "short" : "long"},
            {"load-balance", lag.loadBalance},
            {"link", lag.linkUp != 0},
            {"members", members}};
}

Json DecodeLags(const void *bytes, size_t)
{
    const auto table = Load<VSwitchLagTable>(bytes);
    Json lags = Json::array();
    for (size_t i = 0; i < std::min<size_t>(table.count, std::size(table.lags)); i++)
        lags.push_back(DecodeLag(table.lags[i]));
    return lags;
}

Json DecodeMacEntry(const void *bytes, size_t)
{
    const auto entry = Load<VSwitchMacEntry>(bytes);
    return {{"address", AddressText(entry.address, sizeof entry.address)},
            {"vlan", Copy(entry.vlanId)},
            {"type", entry.type == VSWITCH_MAC_LEARNED ? "learned" : "static"},
            {"age", Copy(entry.age)},
            {"port-number", Copy(entry.portId)}};
}

Json DecodeLearningProps(const void *bytes, size_t)
{
    const auto props = Load<VSwitchLearningProps>(bytes);
    return {
        {"enabled", props.enabled != 0}, {"aging", Copy(props.agingSeconds)}, {"limit", Copy(props.limit)}};
}

Json DecodePortLearning(const void *bytes, size_t)
{
    const auto stats = Load<VSwitchPortLearningStats>(bytes);
    return {{"entries", Copy(stats.entries)}, {"limit", Copy(stats.limit)}, {"learned", Copy(stats.learned)},
            {"moved", Copy(stats.moved)},     {"aged", Copy(stats.aged)},   {"refused", Copy(stats.refused)},
            {"dropped", Copy(stats.dropped)}};
}

Json DecodeLearningInfo(const void *bytes, size_t)
{
    const auto info = Load<VSwitchLearningInfo>(bytes);
    return {{"aging", Copy(info.agingSeconds)},
            {"limit", Copy(info.limit)},
            {"policy-byte", info.policyByte},
            {"learn-static", info.learnStatic != 0},
            {"learning-ports", Copy(info.learningPorts)},
            {"entries", Copy(info.entries)},
            {"static", Copy(info.staticEntries)},
            {"learned", Copy(info.learnedEntries)},
            {"team", Copy(info.teamEntries)},
            {"ever-learned", Copy(info.learned)},
            {"moved", Copy(info.moved)},
            {"aged", Copy(info.aged)},
            {"refused", Copy(info.refused)},
            {"dropped", Copy(info.dropped)}};
}

Json DecodeRarp(const void *bytes, size_t)
{
    const auto stats = Load<VSwitchRarpStats>(bytes);
    return {{"sent", Copy(stats.sent)}, {"failed", Copy(stats.failed)}};
}

Json DecodeTeaming(const void *bytes, size_t)
{
    const auto stats = Load<VSwitchTeamingStats>(bytes);
    return {{"tx-packets", Copy(stats.txPackets)}, {"tx-bytes", Copy(stats.txBytes)},
            {"rx-packets", Copy(stats.rxPackets)}, {"rx-bytes", Copy(stats.rxBytes)},
            {"failovers", Copy(stats.failovers)},  {"failbacks", Copy(stats.failbacks)}};
}

Json DecodeMirror(const void *bytes, size_t)
{
    const auto stats = Load<VSwitchMirrorStats>(bytes);
    return {{"session", Name(stats.sessionId, sizeof stats.sessionId)},
            {"active", stats.active != 0},
            {"mirrored-packets", Copy(stats.mirroredPackets)},
            {"mirrored-bytes", Copy(stats.mirroredBytes)},
            {"dropped-packets", Copy(stats.droppedPackets)},
            {"dropped-bytes", Copy(stats.droppedBytes)},
            {"tx-packets", Copy(stats.txPackets)},
            {"tx-bytes", Copy(stats.txBytes)},
            {"rx-packets", Copy(stats.rxPackets)},
            {"rx-bytes", Copy(stats.rxBytes)},
            {"truncated", Copy(stats.truncated)},
            {"encapsulation-errors", Copy(stats.encapsulationErrors)},
            {"unreachable", Copy(stats.unreachable)}};
}

Json DecodeMcast(const void *bytes, size_t size)
{
    const auto stats = Load<VSwitchMcastStats>(bytes);
    Json sources = Json::array();
    const size_t width = stats.count ? (size - sizeof stats) / stats.count : 0;
    for (uint32_t i = 0; i < stats.count; i++)
        sources.push_back(AddressText(static_cast<const uint8_t *>(bytes) + sizeof stats + i * width, width));
    return {{"vlan", Copy(stats.vlanId)},
            {"joins", Copy(stats.joins)},
            {"leaves", Copy(stats.leaves)},
            {"queries", Copy(stats.queries)},
            {"ports", Copy(stats.ports)},
            {"filter", stats.filter ? "exclude" : "include"},
            {"sources", sources}};
}

Json DecodeOptions(const void *bytes, size_t size)
{
    const auto header = Load<VSwitchOptions>(bytes, size);
    Json options = Json::array();
    const size_t room = size > sizeof header ? (size - sizeof header) / sizeof(VSwitchOption) : 0;
    for (size_t i = 0; i < std::min<size_t>(header.count, room); i++) {
        const auto option = Load<VSwitchOption>(static_cast<const uint8_t *>(bytes) + sizeof header +
                                                i * sizeof(VSwitchOption));
        options.push_back({{"option", Copy(option.id)}, {"value", Copy(option.value)}});
    }
    return options;
}

Json DecodeDestination(const void *bytes, size_t) { return {{"port-number", Load<uint32_t>(bytes)}}; }

Json DecodeHint(const void *bytes, size_t size)
{
    return {{"uplink", Name(static_cast<const char *>(bytes), size)}};
}

Json DecodeStatistics(const void *bytes, size_t)
{
    const auto counted = Load<VSwitchPortStatistics>(bytes);
    return {{"from-packets", Copy(counted.fromPackets)},
            {"from-bytes", Copy(counted.fromBytes)},
            {"to-packets", Copy(counted.toPackets)},
            {"to-bytes", Copy(counted.toBytes)},
            {"from-multicast", Copy(counted.fromMulticast)},
            {"from-broadcast", Copy(counted.fromBroadcast)},
            {"to-multicast", Copy(counted.toMulticast)},
            {"to-broadcast", Copy(counted.toBroadcast)},
            {"dropped-blocked", Copy(counted.droppedBlocked)},
            {"dropped-vlan", Copy(counted.droppedVlan)},
            {"dropped-security", Copy(counted.droppedSecurity)},
            {"dropped-learning-limit", Copy(counted.droppedLearningLimit)},
            {"dropped-filter", Copy(counted.droppedFilter)},
            {"dropped-length", Copy(counted.droppedLength)},
            {"dropped-flood-limit", Copy(counted.droppedFloodLimit)},
            {"dropped-not-sent", Copy(counted.droppedNotSent)}};
}

struct RecordInfo {
    Json (*decode)(const void *, size_t);
    size_t size; // of the record, or of an entry of a list
    const char *what;
};

// By Record.
constexpr RecordInfo RECORDS[] = {
    {DecodeInfo, VS_INFO_SIZE, "state"},
    {DecodeUplink, UPLINK_ENTRY_SIZE, "running uplinks"},
    {DecodeLags, LAG_TABLE_SIZE, "LAGs"},
    {DecodeMacEntry, sizeof(ZorMacTableEntry), "MAC table"},
    {DecodeLearningProps, sizeof(ZorMacLearningProps), "MAC learning properties"},
    {DecodePortLearning, PORT_MAC_LEARNING_STATS_SIZE, "MAC learning statistics"},
    {DecodeLearningInfo, SWITCH_MAC_LEARNING_INFO_SIZE, "MAC learning state"},
    {DecodeRarp, RARP_STATS_SIZE, "RARP statistics"},
    {DecodeTeaming, SERVICE_PORT_TEAMING_STATS_SIZE, "teaming statistics"},
    {DecodeMirror, MIRROR_SESSION_STATS_SIZE, "mirror statistics"},
    {DecodeMcast, sizeof(ZorMcastStatsHeader), "multicast statistics"},
    {DecodeOptions, RUNTIME_OPTIONS_SIZE, "options"},
    {DecodeDestination, sizeof(uint32_t), "promiscuous ports"},
    {DecodeHint, UPLINK_HINT_SIZE, "uplink"},
    {DecodeStatistics, sizeof(VSwitchPortStatistics), "counters"},
};
static_assert(std::size(RECORDS) == static_cast<size_t>(Record::PORT_STATISTICS) + 1);

const RecordInfo &InfoOf(Record record) { return RECORDS[static_cast<size_t>(record)]; }

}

Json Decode(Record record, const void *bytes, size_t size)
{
    if (IsEmbedded()) return InfoOf(record).decode(bytes, size);
    return {{"bytes", Hex(bytes, size)}};
}

Json DecodeZeros(Record record)
{
    static const Bytes zeros(LAG_TABLE_SIZE);
    return InfoOf(record).decode(zeros.data(), zeros.size());
}

Json ReadRecord(Record record, const Target &target, const Reader &read, const std::string &listed)
{
    Bytes bytes(InfoOf(record).size);
    CheckDriver(read(bytes.data()), fmt::format("reading the {} of", InfoOf(record).what), target, listed);
    return Decode(record, bytes.data(), bytes.size());
}

Json ReadRecords(Record record, const Target &target, const std::function<VsStatus(void **list)> &read)
{
    DriverBuffer<> list;
    CheckDriver(read(list.Out()), fmt::format("reading the {} of", InfoOf(record).what), target);
    return DecodeList(record, list.Get(), InfoOf(record).size);
}

Json DecodeList(Record record, const void *list, size_t entrySize)
{
    const auto header = Load<ZorListHeader>(list);
    RequireEntries(list, sizeof header, header.count, entrySize);
    const auto *entries = static_cast<const uint8_t *>(list) + sizeof header;
    Json rows = Json::array();
    for (uint32_t i = 0; i < header.count; i++)
        rows.push_back(Decode(record, entries + i * entrySize, entrySize));
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
    if (const ether_addr *ethernet = ether_aton(text.c_str())) {
        bytes.assign(ethernet->ether_addr_octet, ethernet->ether_addr_octet + sizeof *ethernet);
    } else if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        bytes.resize(sizeof(in_addr));
    } else if (inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1) {
        bytes.clear();
    }
    if (bytes.empty() || (size && bytes.size() != size)) {
        throw Error(Exit::BAD_VALUE,
                    fmt::format("'{}' is not a {} address", text, size == 6 ? "MAC" : "group"),
                    size == 6 ? "write it like 02:00:00:00:00:01" : "write it like 224.1.1.1 or ff02::1");
    }
    return bytes;
}

namespace {

template<class T> Bytes Pack(const T &record)
{
    Bytes bytes(sizeof record);
    memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

constexpr uint16_t MAX_ENTRY_VLAN = 4094;

}

Bytes MacEntry(const std::string &address, uint16_t vlan)
{
    VSwitchMacEntry entry{};
    memcpy(entry.address, ParseAddress(address, sizeof entry.address).data(), sizeof entry.address);
    entry.vlanId = vlan;
    return Pack(entry);
}

void RequireStation(const ZorMacTableEntry &bytes)
{
    if (!IsEmbedded()) return;
    const auto entry = Load<VSwitchMacEntry>(&bytes);
    const uint8_t nothing[sizeof entry.address] = {};
    const bool isGroup = entry.address[0] & 1;
    if (isGroup || memcmp(entry.address, nothing, sizeof nothing) == 0) {
        throw Error(
            Exit::BAD_VALUE,
            fmt::format("{} is not a unicast address", AddressText(entry.address, sizeof entry.address)),
            "its first byte must be even, and one of its bytes not zero");
    }
    if (entry.vlanId > MAX_ENTRY_VLAN || entry.type > VSWITCH_MAC_LEARNED)
        throw Error(Exit::BAD_VALUE, "the VLAN or type of the entry is out of range");
}

Bytes LearningProps(bool enabled, uint32_t aging, uint32_t limit)
{
    return Pack(VSwitchLearningProps{enabled, aging, limit});
}

Bytes OptionsRecord(const std::vector<std::pair<uint16_t, uint32_t>> &options)
{
    VSwitchOptions header{};
    header.count = static_cast<uint32_t>(options.size());
    header.length = static_cast<uint32_t>(sizeof header + options.size() * sizeof(VSwitchOption));
    Bytes record = Pack(header);
    for (const auto &[id, value] : options) {
        const Bytes option = Pack(VSwitchOption{id, 0, value});
        record.insert(record.end(), option.begin(), option.end());
    }
    return record;
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
    if (!IsEmbedded() || VSZOR_GetVSInfo(portset.c_str(), &info) != STATUS_OK) return nullptr;
    return Copy(info.ports);
}

}
