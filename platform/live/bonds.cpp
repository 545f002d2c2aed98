#include "platform/live/bonds.h"

#include <algorithm>
#include <iterator>
#include <linux/if_bonding.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <string>
#include <string_view>

#include "platform/live/links.h"

namespace live {
namespace {

constexpr uint8_t BOND_FAST = 1; // IFLA_BOND_AD_LACP_RATE

// The attributes within one; none when it is absent or not whole.
template<int MAX> struct Attributes {
    explicit Attributes(nlattr *outer)
    {
        if (outer && nla_parse_nested(values, MAX, outer, nullptr) != 0)
            std::fill(values, values + MAX + 1, nullptr);
    }
    nlattr *At(int type, size_t size) const
    {
        return values[type] && static_cast<size_t>(nla_len(values[type])) >= size ? values[type] : nullptr;
    }
    uint8_t Byte(int type, uint8_t absent) const { return At(type, 1) ? nla_get_u8(values[type]) : absent; }
    bool Is(int type, std::string_view text) const
    {
        if (!At(type, 1)) return false;
        const auto length = static_cast<size_t>(nla_len(values[type]));
        const auto *data = static_cast<const char *>(nla_data(values[type]));
        return std::string_view(data, strnlen(data, length)) == text;
    }

    nlattr *values[MAX + 1] = {};
};

Bond BondOf(nlattr *data)
{
    const Attributes<IFLA_BOND_MAX> bond(data);
    return {.mode = bond.Byte(IFLA_BOND_MODE, BOND_MODE_ACTIVEBACKUP),
            .hashPolicy = bond.Byte(IFLA_BOND_XMIT_HASH_POLICY, BOND_XMIT_POLICY_LAYER2),
            .isActive = bond.Byte(IFLA_BOND_AD_LACP_ACTIVE, 1) != 0,
            .isFast = bond.Byte(IFLA_BOND_AD_LACP_RATE, 0) == BOND_FAST};
}

// The bond and its members make one link for the other end.
bool IsAggregate(const Bond &bond)
{
    return bond.mode == BOND_MODE_ROUNDROBIN || bond.mode == BOND_MODE_XOR ||
           bond.mode == BOND_MODE_BROADCAST || bond.mode == BOND_MODE_8023AD;
}

template<size_t SIZE> void SetName(char (&field)[SIZE], const std::string &name)
{
    name.copy(field, SIZE - 1);
}

VSwitchLag LagOf(const Link &link)
{
    const Bond &bond = *link.bonding.bond;
    VSwitchLag lag = {};
    SetName(lag.name, link.name);
    lag.mode = bond.mode == BOND_MODE_8023AD && bond.isActive;
    lag.fastTimeout = bond.mode == BOND_MODE_8023AD && bond.isFast;
    lag.loadBalance = bond.hashPolicy;
    return lag;
}

void AddMember(VSwitchLag &lag, const Link &link)
{
    if (lag.memberCount == std::size(lag.members)) return;
    if (link.IsUp() && link.bonding.member->isUp) lag.linkMask |= 1u << lag.memberCount;
    lag.linkUp = lag.linkMask != 0;
    SetName(lag.members[lag.memberCount++], link.name);
}

}

Bonding ReadBonding(const nlmsghdr &message)
{
    Bonding bonding;
    nlattr *values[IFLA_MAX + 1] = {};
    auto *header = const_cast<nlmsghdr *>(&message); // libnl changes nothing
    if (nlmsg_parse(header, sizeof(ifinfomsg), values, IFLA_MAX, nullptr) != 0) return bonding;
    const Attributes<IFLA_INFO_MAX> info(values[IFLA_LINKINFO]);
    if (info.Is(IFLA_INFO_KIND, "bond")) bonding.bond = BondOf(info.values[IFLA_INFO_DATA]);
    const nlattr *bond = values[IFLA_MASTER];
    if (!info.Is(IFLA_INFO_SLAVE_KIND, "bond") || !bond || nla_len(bond) < 4) return bonding;
    const Attributes<IFLA_BOND_SLAVE_MAX> member(info.values[IFLA_INFO_SLAVE_DATA]);
    bonding.member = {.bond = nla_get_u32(bond),
                      .isUp = member.Byte(IFLA_BOND_SLAVE_MII_STATUS, BOND_LINK_UP) == BOND_LINK_UP};
    return bonding;
}

std::vector<VSwitchLag> LagsOf(const std::map<uint32_t, Link> &links)
{
    std::vector<VSwitchLag> lags;
    for (const auto &[ifindex, link] : links) {
        if (!link.bonding.bond || !IsAggregate(*link.bonding.bond)) continue;
        VSwitchLag &lag = lags.emplace_back(LagOf(link));
        for (const auto &[index, other] : links)
            if (other.bonding.member && other.bonding.member->bond == ifindex) AddMember(lag, other);
    }
    return lags;
}

}
