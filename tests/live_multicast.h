// Multicast packets of the tables of frames, and messages of IGMP and MLD.
#pragma once

#include <map>

#include "tests/live_fixture.h"

namespace live_test {

// A group in the tables. 'G' and 'g' have the same Ethernet address; '1' is a group of the link.
Bytes GroupBytes(bool isIpv6, char group);
char GroupLetter(bool isIpv6, const uint8_t *address);
Bytes SourceBytes(bool isIpv6, char source);

// A packet that words describe.
//   ip4=G ip6=G        to a group
//   igmp1=G igmp2=G leave4=G mld1=G leave6=G
//   igmp3=ex:G,in:H/xy mld2=…    records: in, ex, toin, toex, allow, block, with sources
//   query4 query6 query4=G       of IGMPv2 and MLDv1; query4=1 is that of IGMPv1
//   query4=r3i20                 of IGMPv3 and MLDv2: robustness and interval
// Further words spoil it:
//   sum ipsum          a wrong checksum
//   ttl=5              another hop limit
//   from=H             another IP source: 0 none, G a group's, w one that is not of the link
//   to=G               another IP destination
//   plain              without the router alert
//   fragment
//   short=4            so many bytes less
//   cut=4              so many bytes less than its headers say
//   records=9 sources=9    counts that are not true
class MulticastPacket {
public:
    bool Take(const std::string &word); // false: the word is of another kind
    bool IsSet() const { return !kind.empty(); }
    uint32_t EtherType() const { return isIpv6 ? 0x86dd : 0x0800; }
    // Ethernet destination, and the packet.
    Bytes Destination() const;
    Bytes Payload(char sender) const;

private:
    Bytes IpDestination() const;
    Bytes Message() const;
    Bytes Query() const;
    Bytes Records() const;
    Bytes Ipv4(char sender, const Bytes &message) const;
    Bytes Ipv6(char sender, Bytes message) const;
    bool IsSpoiled(const std::string &word) const { return spoils.contains(word); }
    uint32_t Spoil(const std::string &word, uint32_t otherwise) const;

    std::string kind, value;
    bool isIpv6 = false;
    std::map<std::string, std::string> spoils;
};

}
