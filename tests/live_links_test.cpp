// Links: what the kernel says of interfaces, what is changed on them, and their coming and going.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <sched.h>
#include <sstream>
#include <thread>

#include "platform/live/links.h"

namespace {

using live::Link;
using live::Links;

constexpr std::chrono::seconds LONGEST_WAIT(20);

// The process's own network namespace, made once; null: the machine refuses.
const char *Obstacle()
{
    static const char *const obstacle = unshare(CLONE_NEWNET) == 0 ? nullptr : "no network namespaces";
    return obstacle;
}

class LinksTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (Obstacle() && getenv("VSWITCHCTL_REQUIRE_LIVE")) FAIL() << Obstacle();
        if (Obstacle()) GTEST_SKIP() << Obstacle();
        Run("ip link add one type veth peer name two");
        std::string message;
        ASSERT_TRUE(links.Open(message)) << message;
    }

    void TearDown() override
    {
        if (!Obstacle()) [[maybe_unused]]
            const int gone = system("ip link del one 2>/dev/null");
    }

    static void Run(const char *command) { ASSERT_EQ(system(command), 0) << command; }

    template<typename Holds> bool Await(Holds holds)
    {
        const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;
        while (!holds()) {
            if (std::chrono::steady_clock::now() > end) return false;
            links.Update();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }

    // A copy; one without a name when there is none.
    Link Get(const char *name) const
    {
        const Link *link = links.Find(name);
        return link ? *link : Link{};
    }

    Links links;
};

TEST_F(LinksTest, AreReadAtTheStart)
{
    const Link one = Get("one");
    EXPECT_NE(one.ifindex, 0u);
    EXPECT_FALSE(one.adminUp);
    EXPECT_FALSE(one.carrier);
    EXPECT_EQ(one.mtu, 1500u);
    EXPECT_EQ(one.speed, 10000u);
    EXPECT_TRUE(one.fullDuplex);
    EXPECT_EQ(one.numaNode, -1);
    EXPECT_EQ(links.Find("three"), nullptr);
}

TEST_F(LinksTest, AreFollowed)
{
    Run("ip link set one up && ip link set two up");
    EXPECT_TRUE(Await([&] { return Get("one").adminUp && Get("one").carrier; }));
    Run("ip link set two down");
    EXPECT_TRUE(Await([&] { return Get("one").adminUp && !Get("one").carrier; }));
    Run("ip link set one mtu 4000 && ip link set two name three");
    EXPECT_TRUE(Await([&] { return Get("one").mtu == 4000 && links.Find("three") && !links.Find("two"); }));
    Run("ip link del one");
    EXPECT_TRUE(Await([&] { return !links.Find("one") && !links.Find("three"); }));
    Run("ip link add one type veth peer name two");
    EXPECT_TRUE(Await([&] { return links.Find("one") != nullptr; }));
}

TEST_F(LinksTest, ThatLeaveABridgeStay)
{
    Run("ip link add bridge type bridge && ip link set one master bridge && ip link set one nomaster && "
        "ip link del bridge && ip link set two name three");
    EXPECT_TRUE(Await([&] { return links.Find("three") && !links.Find("bridge"); }));
    EXPECT_NE(links.Find("one"), nullptr);
}

TEST_F(LinksTest, SayNothingWhenNothingHasChanged)
{
    Run("ip link set one up && ip link set two up");
    ASSERT_TRUE(Await([&] { return Get("one").carrier && Get("two").carrier; }));
    while (links.Update())
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(links.Update());
    EXPECT_FALSE(links.PollCarrier(Get("one").ifindex));
}

TEST_F(LinksTest, CarrierIsSeenWithoutAnEvent)
{
    Run("ip link set one up && ip link set two up");
    ASSERT_TRUE(Await([&] { return Get("one").carrier; }));
    Run("ip link set two down");
    const uint32_t one = Get("one").ifindex;
    EXPECT_TRUE(links.PollCarrier(one));
    EXPECT_FALSE(Get("one").carrier);
    EXPECT_FALSE(links.PollCarrier(one));
}

TEST_F(LinksTest, AreChanged)
{
    const uint32_t one = Get("one").ifindex;
    EXPECT_EQ(links.SetAdminUp(one, true), 0);
    EXPECT_EQ(links.SetMtu(one, 3000), 0);
    EXPECT_EQ(links.SetPromiscuous(one, true), 0);
    EXPECT_TRUE(
        Await([&] { return Get("one").adminUp && Get("one").mtu == 3000 && Get("one").promiscuous; }));
    EXPECT_EQ(links.SetPromiscuous(one, false), 0);
    EXPECT_EQ(links.SetAdminUp(one, false), 0);
    EXPECT_TRUE(Await([&] { return !Get("one").adminUp && !Get("one").promiscuous; }));
    EXPECT_EQ(Get("one").mtu, 3000u);

    EXPECT_EQ(links.SetMtu(one, 1000000), EINVAL);
    EXPECT_EQ(links.SetAdminUp(0x7ffffff0, true), ENODEV);
}

TEST_F(LinksTest, FeaturesAndIpv6AreTurnedOffAndOn)
{
    const uint32_t one = Get("one").ifindex;
    EXPECT_TRUE(links.IsFeatureOn(one, "tx-tcp-segmentation"));
    for (const bool on : {false, true}) {
        EXPECT_EQ(links.SetFeature(one, "tx-tcp-segmentation", on), 0);
        EXPECT_EQ(links.IsFeatureOn(one, "tx-tcp-segmentation"), on);
        EXPECT_TRUE(links.IsFeatureOn(one, "tx-tcp6-segmentation"));
        EXPECT_EQ(links.SetIpv6(one, on), 0);
        EXPECT_EQ(links.IsIpv6On(one), on);
    }
    // What an interface doesn't have needs no turning off.
    EXPECT_FALSE(links.IsFeatureOn(one, "rx-lro"));
    EXPECT_EQ(links.SetFeature(one, "rx-lro", true), EOPNOTSUPP);
    EXPECT_FALSE(links.IsFeatureOn(one, "no-such-feature"));
    EXPECT_EQ(links.SetFeature(one, "no-such-feature", false), EOPNOTSUPP);
    EXPECT_FALSE(links.IsFeatureOn(0x7ffffff0, "rx-lro"));
    EXPECT_FALSE(links.IsIpv6On(0x7ffffff0));
}

TEST_F(LinksTest, ManyAreFollowed)
{
    Run("for i in $(seq 60); do ip link set one mtu 2000; ip link set one mtu 1500; "
        "ip link add extra$i type veth peer name other$i; done");
    EXPECT_TRUE(Await([&] { return links.Find("extra60") != nullptr && links.Find("extra1") != nullptr; }));
    Run("for i in $(seq 60); do ip link del extra$i; done");
    EXPECT_TRUE(Await([&] { return links.All().size() == 3; })); // lo, one and two
}

// ---- Bonds ----
// The kernels of test machines have none, so these are the messages that a kernel with bonds sends.

using Message = std::unique_ptr<nl_msg, void (*)(nl_msg *)>;

// "bond mode=4 hash=1 rate=1": the attributes of a bond; "in=3 mii=0": those of a member.
Message MakeMessage(const std::map<std::string, int> &words)
{
    Message message(nlmsg_alloc_simple(RTM_NEWLINK, 0), nlmsg_free);
    const ifinfomsg header = {};
    nlmsg_append(message.get(), const_cast<ifinfomsg *>(&header), sizeof(header), NLMSG_ALIGNTO);
    const auto put = [&](const char *word, int attribute) {
        if (const auto found = words.find(word); found != words.end())
            nla_put_u8(message.get(), attribute, static_cast<uint8_t>(found->second));
    };
    if (words.contains("in")) nla_put_u32(message.get(), IFLA_MASTER, static_cast<uint32_t>(words.at("in")));
    nlattr *info = nla_nest_start(message.get(), IFLA_LINKINFO);
    if (words.contains("bond")) {
        nla_put_string(message.get(), IFLA_INFO_KIND, "bond");
        nlattr *data = nla_nest_start(message.get(), IFLA_INFO_DATA);
        put("mode", IFLA_BOND_MODE);
        put("hash", IFLA_BOND_XMIT_HASH_POLICY);
        put("rate", IFLA_BOND_AD_LACP_RATE);
        put("active", IFLA_BOND_AD_LACP_ACTIVE);
        nla_nest_end(message.get(), data);
    }
    if (words.contains("in")) {
        nla_put_string(message.get(), IFLA_INFO_SLAVE_KIND, words.contains("bridged") ? "bridge" : "bond");
        nlattr *data = nla_nest_start(message.get(), IFLA_INFO_SLAVE_DATA);
        put("mii", IFLA_BOND_SLAVE_MII_STATUS);
        nla_nest_end(message.get(), data);
    }
    nla_nest_end(message.get(), info);
    return message;
}

// "3 bond0 bond mode=4": the number and the name of an interface, and what the kernel says of it.
Link MakeLink(const std::string &text)
{
    Link link;
    std::istringstream stream(text);
    std::map<std::string, int> words;
    stream >> link.ifindex >> link.name;
    for (std::string word; stream >> word;) {
        const size_t equals = std::min(word.find('='), word.size());
        words[word.substr(0, equals)] = equals < word.size() ? std::stoi(word.substr(equals + 1)) : 1;
    }
    link.adminUp = link.carrier = words.contains("up");
    link.bonding = live::ReadBonding(*nlmsg_hdr(MakeMessage(words).get()));
    return link;
}

// "bond0 active fast hash1 up: eth0+ eth1-"
std::string Describe(const VSwitchLag &lag)
{
    std::string text = lag.name;
    text += lag.mode ? " active" : "";
    text += lag.fastTimeout ? " fast" : "";
    text += " hash" + std::to_string(lag.loadBalance) + (lag.linkUp ? " up:" : ":");
    for (uint32_t i = 0; i < lag.memberCount; i++)
        text += std::string(" ") + lag.members[i] + (lag.linkMask >> i & 1 ? "+" : "-");
    return text;
}

TEST(Bonds, AreLagsWhoseMembersAreRead)
{
    const struct {
        const char *name;
        std::vector<const char *> links;
        std::vector<std::string> lags;
    } cases[] = {
        {"none", {"1 eth0 up", "2 br0 up", "3 eth1 in=2 bridged up"}, {}},
        {"LACP",
         {"3 bond0 bond mode=4 hash=1 rate=1 active=1", "4 eth0 in=3 mii=0 up", "5 eth1 in=3 mii=2 up",
          "6 eth2 in=3 mii=0", "7 eth3 up"},
         {"bond0 active fast hash1 up: eth0+ eth1- eth2-"}},
        {"a passive one, slow, whose members have no link",
         {"3 bond0 bond mode=4 hash=2 rate=0 active=0", "4 eth0 in=3 mii=2"},
         {"bond0 hash2: eth0-"}},
        {"of a kernel that says no more than the mode",
         {"3 bond0 bond mode=4", "4 eth0 in=3 up"},
         {"bond0 active hash0 up: eth0+"}},
        {"without LACP",
         {"1 rr bond mode=0 rate=1", "2 xor bond mode=2 hash=3", "3 all bond mode=3", "4 eth0 in=2 mii=0 up"},
         {"rr hash0:", "xor hash3 up: eth0+", "all hash0:"}},
        {"those whose other end is not an aggregate",
         {"1 backup bond mode=1", "2 tlb bond mode=5", "3 alb bond mode=6", "4 new bond mode=7", "5 bad bond",
          "6 eth0 in=1 mii=0 up"},
         {}},
        {"more members than a row has, and a long name",
         {"1 abcdefghijklmno bond mode=4", "2 a in=1 up", "3 b in=1 up", "4 c in=1 up", "5 d in=1 up",
          "6 e in=1 up", "7 f in=1 up", "8 g in=1 up", "9 h in=1 up", "10 i in=1 up", "11 j in=1 up",
          "12 k in=1 up", "13 l in=1 up", "14 m in=1 up", "15 n in=1 up", "16 o in=1 up", "17 p in=1 up",
          "18 q in=1 up"},
         {"abcdefghijklmno active hash0 up: a+ b+ c+ d+ e+ f+ g+ h+ i+ j+ k+ l+ m+ n+ o+ p+"}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        std::map<uint32_t, Link> links;
        for (const char *text : row.links) {
            const Link link = MakeLink(text);
            links[link.ifindex] = link;
        }
        std::vector<std::string> lags;
        for (const VSwitchLag &lag : live::LagsOf(links))
            lags.push_back(Describe(lag));
        EXPECT_EQ(lags, row.lags);
    }
}

TEST(Bonds, AreNotReadFromPartsOfMessages)
{
    for (const char *words : {"bond", "in"}) {
        const Message whole = MakeMessage({{words, 3}, {"mode", 4}, {"mii", 0}, {"rate", 1}});
        const nlmsghdr &header = *nlmsg_hdr(whole.get());
        for (uint32_t length = sizeof(nlmsghdr); length < header.nlmsg_len; length++) {
            std::vector<uint32_t> part(length / sizeof(uint32_t) + 1); // an object of its own, for sanitizers
            memcpy(part.data(), &header, length);
            auto &cut = *reinterpret_cast<nlmsghdr *>(part.data());
            cut.nlmsg_len = length;
            const live::Bonding bonding = live::ReadBonding(cut);
            EXPECT_FALSE(bonding.bond || bonding.member) << words << ", " << length << " bytes";
        }
    }
}

}
