// The data path's configuration: what it refuses, takes over from an earlier process, and removes.
#include <filesystem>
#include <map>
#include <set>

#include "tests/live_fixture.h"

namespace live_test {
namespace {

using namespace vshost;

PortConfig Port(uint32_t number, uint32_t ifindex)
{
    PortConfig port;
    port.number = number;
    port.ifindex = ifindex;
    return port;
}

SwitchConfig Switch(const std::string &id, std::vector<PortConfig> ports)
{
    SwitchConfig config;
    config.id = id;
    config.ports = std::move(ports);
    return config;
}

SwitchConfig ManyPorts(const std::string &id, uint32_t first, uint32_t count)
{
    SwitchConfig config = Switch(id, {});
    for (uint32_t i = first; i < first + count; i++)
        config.ports.push_back(Port(i, i));
    return config;
}

Bytes FrameOf(uint8_t source, uint8_t destination)
{
    Bytes frame = {2, 0, 0, 0, 0, destination, 2, 0, 0, 0, 0, source, 0x12, 0x34};
    frame.resize(64);
    return frame;
}

Bytes BroadcastOf(uint8_t source)
{
    Bytes frame = FrameOf(source, 0);
    std::fill_n(frame.begin(), 6, uint8_t{0xff});
    return frame;
}

// Copies of what port 1 sends, at port 2.
MirrorSession Session(const std::string &id)
{
    MirrorSession session;
    session.id = id;
    session.from = {1};
    session.destinations = {2};
    return session;
}

// Sent copies by session.
std::map<std::string, uint64_t> Copies(TestRun &run)
{
    std::vector<MirrorEntry> entries;
    std::map<std::string, uint64_t> copies;
    EXPECT_EQ(run.path.Tables().ReadMirrors("one", entries), STATUS_OK);
    for (const MirrorEntry &entry : entries)
        copies[entry.id] = entry.counters.values[LIVE_MIRROR_SENT_PACKETS];
    return copies;
}

std::set<uint32_t> Places(TestRun &run, uint32_t switchIndex)
{
    std::set<uint32_t> places;
    for (uint32_t slot = 0; slot < run.path.Kernel().mirrors.Size(); slot++) {
        const LiveMirrorSlot &mirror = run.path.Kernel().mirrors[slot];
        if (mirror.inUse && mirror.switchIndex == switchIndex) places.insert(mirror.place);
    }
    return places;
}

class LiveDataPath : public LiveTest {};

TEST_F(LiveDataPath, RefusesWhatItCannotCarryOutAndStaysAsItIs)
{
    LoadOptions options = Options();
    options.capacity = {.ports = 8, .switches = 2, .addresses = 16};
    TestRun run(options);
    run.Publish(ManyPorts("one", 1, 4));
    run.Publish(ManyPorts("two", 5, 3));

    const SwitchConfig tooManyUplinks = [] {
        SwitchConfig config = ManyPorts("one", 200, 33);
        for (PortConfig &port : config.ports)
            port.uplink = true, port.ifindex = 0;
        return config;
    }();
    SwitchConfig tooManyMirrors = ManyPorts("one", 1, 4), tooManyDestinations = tooManyMirrors;
    for (uint32_t i = 0; i < 33; i++)
        tooManyMirrors.mirrors.push_back(Session("m" + std::to_string(i)));
    tooManyDestinations.mirrors = {Session("m")};
    tooManyDestinations.mirrors[0].destinations.resize(33);
    const struct {
        const char *name;
        SwitchConfig config;
        VsStatus status;
    } cases[] = {
        {"too many ports", ManyPorts("one", 100, 6), STATUS_NO_SPACE},
        {"too many switches", Switch("three", {}), STATUS_NO_SPACE},
        {"the port of another switch", Switch("one", {Port(5, 9)}), STATUS_EXISTS},
        {"an interface of another switch", Switch("one", {Port(1, 5)}), STATUS_EXISTS},
        {"a port twice", Switch("one", {Port(1, 1), Port(1, 2)}), STATUS_EXISTS},
        {"an interface twice", Switch("one", {Port(1, 1), Port(2, 1)}), STATUS_EXISTS},
        {"too many uplinks", tooManyUplinks, STATUS_NO_SPACE},
        {"too many mirror sessions", tooManyMirrors, STATUS_NO_SPACE},
        {"too many destinations", tooManyDestinations, STATUS_NO_SPACE},
        {"no id", Switch("", {}), STATUS_BAD_PARAM},
        {"too long an id", Switch(std::string(65, 'x'), {}), STATUS_BAD_PARAM},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        Change change;
        EXPECT_EQ(run.path.PrepareSwitch(row.config, change), row.status);
        EXPECT_FALSE(run.path.Message().empty());
        EXPECT_EQ(Ports(run.Run(1, BroadcastOf(1))), (Numbers{2, 3, 4}));
        EXPECT_EQ(Ports(run.Run(5, BroadcastOf(2))), (Numbers{6, 7}));
    }
    // No place was lost: the last one is free.
    SwitchConfig fifth = ManyPorts("one", 1, 4);
    fifth.ports.push_back(Port(8, 8));
    run.Publish(fifth);
    EXPECT_EQ(Ports(run.Run(8, BroadcastOf(3))), (Numbers{1, 2, 3, 4}));

    Change change;
    EXPECT_EQ(run.path.PreparePort(Port(99, 99), change), STATUS_NOT_FOUND);
    EXPECT_EQ(run.path.PrepareRemoval("three", change), STATUS_NOT_FOUND);
}

TEST_F(LiveDataPath, SaysWhenTheAddressTableIsFull)
{
    LoadOptions options = Options();
    options.capacity = {.ports = 8, .switches = 2, .addresses = 16};
    TestRun run(options);
    SwitchConfig config = ManyPorts("one", 1, 2);
    config.ports[0].learning = true;
    run.Publish(config);
    uint8_t mac[6] = {2, 0, 0, 0, 1, 0};
    for (mac[5] = 0; mac[5] < 16; mac[5]++)
        EXPECT_EQ(run.path.AddStaticAddress(1, 0, mac), STATUS_OK);
    EXPECT_EQ(run.path.AddStaticAddress(1, 0, mac), STATUS_NO_SPACE);
    EXPECT_EQ(Ports(run.Run(1, BroadcastOf(9))), Numbers{});  // an address that can't be learned
    EXPECT_EQ(Ports(run.Run(2, BroadcastOf(8))), Numbers{1}); // a port without learning is not held to it
    mac[5] = 3;
    EXPECT_EQ(run.path.RemoveAddress(2, 0, mac), STATUS_NOT_FOUND);
    EXPECT_EQ(run.path.RemoveAddress(1, 0, mac), STATUS_OK);
    EXPECT_EQ(Ports(run.Run(1, BroadcastOf(9))), Numbers{2});
    EXPECT_EQ(Ports(run.Run(2, FrameOf(8, 9))), Numbers{1});
}

TEST_F(LiveDataPath, TakesOverWhatAnotherProcessLeft)
{
    SwitchConfig one = ManyPorts("one", 1, 3), two = ManyPorts("two", 11, 2);
    one.ports[2].trunk = true;
    one.ports[2].ranges = {{0, 5}};
    {
        TestRun run(Options());
        EXPECT_FALSE(run.path.StartedAfresh());
        run.Publish(one);
        run.Publish(two);
        run.Run(1, BroadcastOf(1));
        run.Run(11, BroadcastOf(2));
    }
    {
        LoadOptions options = Options();
        options.capacity.ports = 2; // counts for new maps alone
        TestRun run(options);
        EXPECT_EQ(run.path.SwitchIds(), (std::vector<std::string>{"one", "two"}));
        EXPECT_EQ(Ports(run.Run(2, FrameOf(3, 1))), Numbers{1})
            << "before the first configuration was published";
        EXPECT_EQ(Ports(run.Run(2, BroadcastOf(3))), (Numbers{1, 3}));
        LiveCounters counters;
        ASSERT_EQ(run.path.Tables().ReadCounters(1, counters), STATUS_OK);
        EXPECT_EQ(counters.values[LIVE_FROM_PACKETS], 1u);
        EXPECT_EQ(counters.values[LIVE_TO_PACKETS], 2u);

        one.ports[1].vlanId = 7;
        one.ports.push_back(Port(4, 4));
        run.Publish(one);
        EXPECT_EQ(Ports(run.Run(4, FrameOf(4, 1))), Numbers{1}) << "addresses of ports that stay are kept";
        EXPECT_EQ(Ports(run.Run(4, BroadcastOf(4))), (Numbers{1, 3}));
        Change change;
        ASSERT_EQ(run.path.PrepareRemoval("two", change), STATUS_OK);
        run.path.Publish(change);
        EXPECT_EQ(Ports(run.Run(11, BroadcastOf(2))), Numbers{});
        EXPECT_EQ(run.path.SwitchIds(), std::vector<std::string>{"one"});
        run.path.RemovePins();
        EXPECT_FALSE(std::filesystem::exists(PinsOf(Options().bpffs, Options().identity)));
    }
}

TEST_F(LiveDataPath, TakesOverMirrorSessions)
{
    SwitchConfig one = ManyPorts("one", 1, 3);
    one.mirrors = {Session("kept"), Session("lost")};
    {
        TestRun run(Options());
        run.Publish(one);
        run.Run(1, BroadcastOf(1));
    }
    TestRun run(Options());
    EXPECT_EQ(Ports(run.Run(1, BroadcastOf(1))), (Numbers{2, 2, 2, 3}))
        << "before a configuration was published";
    one.mirrors = {Session("new"), Session("kept")};
    run.Publish(one);
    EXPECT_EQ(Copies(run), (std::map<std::string, uint64_t>{{"kept", 2}, {"new", 0}}));
    EXPECT_EQ(Ports(run.Run(1, BroadcastOf(1))), (Numbers{2, 2, 2, 3}));
    EXPECT_EQ(Copies(run), (std::map<std::string, uint64_t>{{"kept", 3}, {"new", 1}}));
    Change change;
    ASSERT_EQ(run.path.PrepareRemoval("one", change), STATUS_OK);
    run.path.Publish(change);
    run.Publish(one);
    EXPECT_EQ(Copies(run), (std::map<std::string, uint64_t>{{"kept", 0}, {"new", 0}}));
}

// 1,024 sessions of a host, and a place for each one that comes, also when all that are there go.
TEST_F(LiveDataPath, GivesMirrorSessionsPlacesAndTakesThemBack)
{
    LoadOptions options = Options();
    options.capacity = {.ports = 256, .switches = 64, .addresses = 1024};
    TestRun run(options);
    const auto full = [](uint32_t number, const std::string &prefix) {
        SwitchConfig config =
            ManyPorts(number == 0 ? "one" : "s" + std::to_string(number), 3 * number + 1, 3);
        for (uint32_t i = 0; i < 32; i++) {
            config.mirrors.push_back(Session(prefix + std::to_string(i)));
            config.mirrors.back().from = {3 * number + 1};
            config.mirrors.back().destinations = {3 * number + 2};
        }
        return config;
    };
    for (uint32_t number = 1; number <= 30; number++)
        run.Publish(full(number, "m"));
    std::set<uint32_t> before;
    for (const char *prefix : {"a", "b", "c"}) {
        run.Publish(full(0, prefix));
        // A frame that meets both snapshots takes no session for another one.
        const std::set<uint32_t> places = Places(run, 30);
        EXPECT_EQ(places.size(), 32u);
        for (uint32_t place : places)
            EXPECT_TRUE(place < LIVE_MIRROR_PLACES && !before.contains(place)) << place;
        before = places;
        EXPECT_EQ(run.Run(1, BroadcastOf(1)).size(), 2u + 32);
        EXPECT_EQ(Copies(run).size(), 32u);
    }
    run.Publish(full(31, "m"));
    Change refused;
    EXPECT_EQ(run.path.PrepareSwitch(full(40, "m"), refused), STATUS_NO_SPACE);
    Change change;
    ASSERT_EQ(run.path.PrepareRemoval("one", change), STATUS_OK);
    run.path.Publish(change);
    run.Publish(full(0, "d"));
    EXPECT_EQ(run.Run(1, BroadcastOf(1)).size(), 2u + 32);
    EXPECT_EQ(Copies(run).at("d31"), 1u);
}

// The one before was killed, and what the store says is what it said then.
TEST_F(LiveDataPath, TakesOverWhatPortsHaveLearnedAndWhichUplinksTheyHaveLeft)
{
    SwitchConfig one = ManyPorts("one", 1, 4);
    one.privateVlans = {{.primary = 5, .secondary = 6, .type = PrivateVlanType::ISOLATED}};
    one.ports[0].learning = true;
    one.ports[1].trunk = true;
    one.ports[1].ranges = {{0, 5}};
    for (const size_t uplink : {size_t{2}, size_t{3}}) {
        one.ports[uplink].uplink = one.ports[uplink].trunk = true;
        one.ports[uplink].ranges = {{1, LIVE_VLAN_MAX}};
    }
    Team team;
    team.algorithm = VSWITCH_TEAMING_ORDER;
    team.active = {3, 4};
    team.failBack = false;
    one.ports[0].team = team;
    {
        TestRun run(Options());
        run.Publish(one);
        run.SetLink(3, 2);
        for (const uint8_t address : {uint8_t{1}, uint8_t{2}})
            EXPECT_EQ(Ports(run.Run(1, FrameOf(address, 9))), Numbers{4});
        run.Run(2, BroadcastOf(3));
        run.SetLink(3, 0);
    }
    TestRun run(Options());
    run.SetLink(3, 0);
    for (int i = 0; i < 2; i++) {
        run.Publish(one);
        EXPECT_EQ(Ports(run.Run(1, FrameOf(1, 9))), Numbers{4});
        EXPECT_EQ(Ports(run.Run(2, FrameOf(3, 1))), Numbers{1});
        EXPECT_EQ(Ports(run.Run(2, FrameOf(3, 2))), Numbers{1});
        EXPECT_EQ(Ports(run.Run(1, FrameOf(1, 3))), Numbers{2});
    }
    one.ports[0].learning = false;
    run.Publish(one);
    EXPECT_EQ(Ports(run.Run(2, FrameOf(3, 2))), Numbers{3});
}

TEST_F(LiveDataPath, SaysThatItStartsAfreshAfterAnotherLayout)
{
    const std::string old = Options().bpffs + "/" + Options().identity + "-v0";
    std::filesystem::create_directory(old);
    TestRun run(Options());
    EXPECT_TRUE(run.path.StartedAfresh());
    run.path.ForgetPredecessors();
    EXPECT_FALSE(std::filesystem::exists(old));
}

TEST_F(LiveDataPath, PublishesManySwitchesAtOnce)
{
    TestRun run(Options());
    std::vector<Change> changes(7);
    std::vector<Change *> all;
    for (uint32_t i = 0; i < changes.size(); i++) {
        ASSERT_EQ(run.path.PrepareSwitch(ManyPorts("s" + std::to_string(i), 10 * i + 1, 3), changes[i]),
                  STATUS_OK);
        all.push_back(&changes[i]);
        // Before it is published, it has no effect.
        EXPECT_EQ(Ports(run.Run(10 * i + 1, BroadcastOf(1))), Numbers{});
    }
    run.path.Publish(all);
    for (uint32_t i = 0; i < changes.size(); i++)
        EXPECT_EQ(Ports(run.Run(10 * i + 1, BroadcastOf(1))), (Numbers{10 * i + 2, 10 * i + 3}));
}

TEST_F(LiveDataPath, HasPortsWithoutInterfaceAndWithLargeOnes)
{
    TestRun run(Options());
    run.Publish(Switch("one", {Port(1, 3000000), Port(2, 0), Port(3, 3)}));
    EXPECT_EQ(Ports(run.Run(3000000, BroadcastOf(1))), Numbers{3});
    EXPECT_EQ(Ports(run.Run(3, FrameOf(2, 1))), Numbers{3000000});
    // The interface returns with another index; then two ports exchange their interfaces.
    run.Publish(Switch("one", {Port(1, 3000001), Port(2, 9), Port(3, 3)}));
    EXPECT_EQ(Ports(run.Run(3000000, BroadcastOf(1))), Numbers{});
    EXPECT_EQ(Ports(run.Run(3, FrameOf(2, 1))), Numbers{})
        << "addresses learned by the old interface are forgotten";
    EXPECT_EQ(Ports(run.Run(3000001, BroadcastOf(1))), (Numbers{3, 9}));
    run.Publish(Switch("one", {Port(1, 9), Port(2, 3000001), Port(3, 3)}));
    EXPECT_EQ(Ports(run.Run(9, BroadcastOf(1))), (Numbers{3, 3000001}));
    EXPECT_EQ(Ports(run.Run(3, FrameOf(2, 1))), Numbers{9});
    LiveCounters counters;
    ASSERT_EQ(run.path.Tables().ReadCounters(1, counters), STATUS_OK);
    EXPECT_EQ(counters.values[LIVE_FROM_PACKETS], 3u)
        << "counters belong to the port, whatever its interface";
}

}
}
