// Links: what the kernel says of interfaces, what is changed on them, and their coming and going.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sched.h>
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

}
