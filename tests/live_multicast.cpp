#include "tests/live_multicast.h"

#include <sstream>

namespace live_test {
namespace {

void Append(Bytes &bytes, uint32_t value, size_t size)
{
    while (size-- > 0)
        bytes.push_back(static_cast<uint8_t>(value >> 8 * size));
}

void Append(Bytes &bytes, const Bytes &more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

void Set16(Bytes &bytes, size_t at, uint32_t value)
{
    bytes[at] = static_cast<uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<uint8_t>(value);
}

uint32_t Checksum(Bytes bytes)
{
    uint32_t sum = 0;
    if (bytes.size() % 2) bytes.push_back(0);
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return ~sum & 0xffff;
}

std::vector<std::string> Split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    return parts;
}

Bytes Ipv6Address(uint32_t first, uint8_t middle, uint8_t last)
{
    Bytes address;
    Append(address, first, 2);
    address.resize(16);
    address[11] = middle;
    address[15] = last;
    return address;
}

bool IsMessage(const std::string &kind) { return kind != "ip4" && kind != "ip6"; }

}

Bytes GroupBytes(bool isIpv6, char group)
{
    const auto upper = static_cast<uint8_t>(toupper(group));
    const bool isOther = islower(group);
    if (group == '1') return isIpv6 ? Ipv6Address(0xff02, 0, 0xfb) : Bytes{224, 0, 0, 251};
    if (isIpv6) return Ipv6Address(0xff15, isOther, upper);
    return {239, static_cast<uint8_t>(isOther ? 129 : 1), 2, upper};
}

char GroupLetter(bool isIpv6, const uint8_t *address)
{
    for (char letter = 'A'; letter <= 'z'; letter++) {
        const Bytes bytes = GroupBytes(isIpv6, letter);
        if (std::equal(bytes.begin(), bytes.end(), address)) return letter;
    }
    return '?';
}

Bytes SourceBytes(bool isIpv6, char source)
{
    const auto last = static_cast<uint8_t>(source);
    return isIpv6 ? Ipv6Address(0xfd00, 0, last) : Bytes{10, 0, 0, last};
}

bool MulticastPacket::Take(const std::string &word)
{
    static const std::string KINDS[] = {"ip4",    "ip6",   "igmp1", "igmp2",  "leave4", "mld1",
                                        "leave6", "igmp3", "mld2",  "query4", "query6"};
    static const std::string SPOILS[] = {"sum",      "ipsum", "ttl", "from",    "to",     "plain",
                                         "fragment", "short", "cut", "records", "sources"};
    const size_t equals = std::min(word.find('='), word.size());
    const std::string name = word.substr(0, equals);
    const std::string rest = equals < word.size() ? word.substr(equals + 1) : "";
    if (std::find(std::begin(SPOILS), std::end(SPOILS), name) != std::end(SPOILS)) {
        spoils[name] = rest;
        return true;
    }
    if (std::find(std::begin(KINDS), std::end(KINDS), name) == std::end(KINDS)) return false;
    kind = name;
    value = rest;
    isIpv6 = name.back() == '6' || name.starts_with("mld");
    return true;
}

uint32_t MulticastPacket::Spoil(const std::string &word, uint32_t otherwise) const
{
    const auto found = spoils.find(word);
    return found == spoils.end() ? otherwise : static_cast<uint32_t>(std::stoul(found->second));
}

Bytes MulticastPacket::IpDestination() const
{
    if (IsSpoiled("to")) return GroupBytes(isIpv6, spoils.at("to")[0]);
    const bool isOfGroup = kind == "ip4" || kind == "ip6" || kind == "igmp1" || kind == "igmp2" ||
                           kind == "mld1" || (kind.starts_with("query") && value.size() == 1 && value != "1");
    if (isOfGroup) return GroupBytes(isIpv6, value[0]);
    if (kind == "igmp3") return {224, 0, 0, 22};
    if (kind == "mld2") return Ipv6Address(0xff02, 0, 0x16);
    const uint8_t last = kind.starts_with("leave") ? 2 : 1; // routers, or all hosts
    return isIpv6 ? Ipv6Address(0xff02, 0, last) : Bytes{224, 0, 0, last};
}

Bytes MulticastPacket::Destination() const
{
    const Bytes address = IpDestination();
    if (!isIpv6) return {1, 0, 0x5e, static_cast<uint8_t>(address[1] & 0x7f), address[2], address[3]};
    return {0x33, 0x33, address[12], address[13], address[14], address[15]};
}

// "r3i20", a group, "1" for the oldest version, or nothing.
Bytes MulticastPacket::Query() const
{
    const bool isLatest = value.size() > 1, isOfGroup = value.size() == 1 && value != "1";
    Bytes message;
    Append(message, isIpv6 ? 130 : 0x11, 1);
    Append(message, isIpv6 || value == "1" ? 0 : 100, 1); // 10 seconds
    Append(message, 0, 2);
    if (isIpv6) Append(message, 10000, 2);
    if (isIpv6) Append(message, 0, 2);
    if (isOfGroup)
        Append(message, GroupBytes(isIpv6, value[0]));
    else
        message.resize(message.size() + (isIpv6 ? 16 : 4));
    if (!isLatest) return message;
    const size_t interval = value.find('i');
    Append(message, static_cast<uint32_t>(std::stoul(value.substr(1, interval - 1))), 1);
    Append(message, static_cast<uint32_t>(std::stoul(value.substr(interval + 1))), 1);
    Append(message, 0, 2);
    return message;
}

// "ex:G,in:H/xy"
Bytes MulticastPacket::Records() const
{
    static const std::map<std::string, uint32_t> TYPES = {{"in", 1},   {"ex", 2},    {"toin", 3},
                                                          {"toex", 4}, {"allow", 5}, {"block", 6}};
    const std::vector<std::string> records = Split(value, ',');
    Bytes message;
    Append(message, isIpv6 ? 143 : 0x22, 1);
    message.resize(6);
    Append(message, Spoil("records", static_cast<uint32_t>(records.size())), 2);
    for (const std::string &record : records) {
        const size_t colon = record.find(':');
        const std::string sources = record.size() > colon + 3 ? record.substr(colon + 3) : "";
        Append(message, TYPES.at(record.substr(0, colon)), 1);
        Append(message, 0, 1);
        Append(message, Spoil("sources", static_cast<uint32_t>(sources.size())), 2);
        Append(message, GroupBytes(isIpv6, record[colon + 1]));
        for (char source : sources)
            Append(message, SourceBytes(isIpv6, source));
    }
    return message;
}

Bytes MulticastPacket::Message() const
{
    static const std::map<std::string, uint32_t> TYPES = {
        {"igmp1", 0x12}, {"igmp2", 0x16}, {"leave4", 0x17}, {"mld1", 131}, {"leave6", 132}};
    if (kind.starts_with("query")) return Query();
    if (kind == "igmp3" || kind == "mld2") return Records();
    if (!IsMessage(kind)) return Bytes(24, 0x5a);
    Bytes message;
    Append(message, TYPES.at(kind), 1);
    message.resize(isIpv6 ? 8 : 4);
    Append(message, GroupBytes(isIpv6, value[0]));
    return message;
}

Bytes MulticastPacket::Ipv4(char sender, const Bytes &message) const
{
    const uint32_t protocol = IsMessage(kind) ? 2 : 17;
    const char source = IsSpoiled("from") ? spoils.at("from")[0] : sender;
    Bytes packet = {0x46, 0};
    Append(packet, static_cast<uint32_t>(24 + message.size()), 2);
    Append(packet, 0, 2);
    Append(packet, IsSpoiled("fragment") ? 0x2000 : 0, 2);
    Append(packet, Spoil("ttl", 1), 1);
    Append(packet, protocol, 1);
    Append(packet, 0, 2);
    Append(packet, source == '0'     ? Bytes(4)
                   : isupper(source) ? GroupBytes(false, source)
                                     : SourceBytes(false, source));
    Append(packet, IpDestination());
    Append(packet, 0x94040000, 4); // the router alert
    Set16(packet, 10, Checksum(packet) ^ (IsSpoiled("ipsum") ? 1u : 0u));
    Append(packet, message);
    return packet;
}

Bytes MulticastPacket::Ipv6(char sender, Bytes message) const
{
    const bool isMessage = IsMessage(kind), hasAlert = isMessage && !IsSpoiled("plain");
    const char source = IsSpoiled("from") ? spoils.at("from")[0] : sender;
    Bytes packet, addresses;
    if (source == '0')
        addresses.resize(16);
    else if (isupper(source))
        Append(addresses, GroupBytes(true, source));
    else if (isMessage && source != 'w')
        Append(addresses, Ipv6Address(0xfe80, 0, static_cast<uint8_t>(source)));
    else
        Append(addresses, SourceBytes(true, source));
    Append(addresses, IpDestination());
    if (isMessage) {
        Bytes pseudo = addresses;
        Append(pseudo, static_cast<uint32_t>(message.size()), 4);
        Append(pseudo, 58, 4);
        Append(pseudo, message);
        Set16(message, 2, Checksum(pseudo) ^ (IsSpoiled("sum") ? 1u : 0u));
    }
    const Bytes options = hasAlert    ? Bytes{58, 0, 5, 2, 0, 0, 1, 0}
                          : isMessage ? Bytes{58, 0, 1, 4, 0, 0, 0, 0}
                                      : Bytes{};
    Append(packet, 0x60000000, 4);
    Append(packet, static_cast<uint32_t>(options.size() + message.size()), 2);
    Append(packet, isMessage ? 0 : 17, 1);
    Append(packet, Spoil("ttl", 1), 1);
    Append(packet, addresses);
    Append(packet, options);
    Append(packet, message);
    return packet;
}

Bytes MulticastPacket::Payload(char sender) const
{
    Bytes message = Message();
    message.resize(message.size() - Spoil("short", 0));
    if (IsMessage(kind) && !isIpv6) Set16(message, 2, Checksum(message) ^ (IsSpoiled("sum") ? 1u : 0u));
    Bytes packet = isIpv6 ? Ipv6(sender, message) : Ipv4(sender, message);
    packet.resize(packet.size() - Spoil("cut", 0));
    return packet;
}

}
