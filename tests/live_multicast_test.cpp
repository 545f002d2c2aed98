// Multicast snooping: hosts that change what they want, senders that lie, and what another process takes
// over. VSWITCHCTL_LIVE_SEED says which random walk is taken.
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>

#include "tests/live_multicast.h"
#include "tests/live_wires.h"

namespace live_test {
namespace {

using namespace vshost;

class LiveMulticast : public LiveTest {};

PortConfig Port(uint32_t number)
{
    PortConfig port;
    port.number = number;
    port.ifindex = ANY_INTERFACE;
    port.learning = true;
    return port;
}

SwitchConfig Snooping(uint32_t ports)
{
    SwitchConfig config;
    config.id = "switch";
    config.snooping = true;
    for (uint32_t number = 1; number <= ports; number++)
        config.ports.push_back(Port(number));
    return config;
}

// "igmp2=G sum": a frame as in the tables.
Bytes FrameOf(char sender, const std::vector<std::string> &words)
{
    MulticastPacket packet;
    for (const std::string &word : words)
        EXPECT_TRUE(packet.Take(word)) << word;
    Bytes frame = packet.Destination();
    const Bytes source = {2, 0, 0, 0, 0, static_cast<uint8_t>(sender)}, payload = packet.Payload(sender);
    frame.insert(frame.end(), source.begin(), source.end());
    frame.push_back(static_cast<uint8_t>(packet.EtherType() >> 8));
    frame.push_back(static_cast<uint8_t>(packet.EtherType()));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

uint32_t Below(std::mt19937 &random, size_t limit) { return static_cast<uint32_t>(random() % limit); }

void Sweep(Medium &run) { EXPECT_EQ(run.path.Sweep(), STATUS_OK); }

LivePort &WordsOf(Medium &run, uint32_t port)
{
    uint32_t slot = 0;
    EXPECT_EQ(run.path.SlotOfPort(port, slot), STATUS_OK);
    return run.path.Kernel().ports[slot];
}

// What the words of ports and host say of the tables is what is in them.
void ExpectCountsRight(Medium &run, uint32_t ports)
{
    KernelPart &kernel = run.path.Kernel();
    std::map<uint32_t, uint32_t> groups, sources, queriers; // by slot
    const VisitEntry<LiveGroupKey, LiveGroup> addGroup = [&](const LiveGroupKey &key,
                                                             const LiveGroup &group) {
        groups[group.owner]++;
        if (key.slot == group.owner) queriers[key.slot] += group.isQuerier;
    };
    const VisitEntry<LiveSourceKey, LiveSource> addSource =
        [&](const LiveSourceKey &key, const LiveSource &) { sources[key.group.slot]++; };
    ASSERT_EQ(VisitEntries(kernel.MapDescriptor("groups"), addGroup), STATUS_OK);
    ASSERT_EQ(VisitEntries(kernel.MapDescriptor("group_sources"), addSource), STATUS_OK);
    const uint32_t share = kernel.host[0].groupShare;
    uint32_t sharedGroups = 0, sharedSources = 0;
    for (uint32_t number = 1; number <= ports; number++) {
        uint32_t slot = 0;
        ASSERT_EQ(run.path.SlotOfPort(number, slot), STATUS_OK);
        EXPECT_EQ(kernel.ports[slot].groups, groups[slot]) << "port " << number;
        EXPECT_EQ(kernel.ports[slot].groupSources, sources[slot]) << "port " << number;
        EXPECT_EQ(kernel.ports[slot].queriers, queriers[slot]) << "port " << number;
        sharedGroups += std::max(groups[slot], share) - share;
        sharedSources += std::max(sources[slot], share) - share;
    }
    EXPECT_EQ(kernel.host[0].sharedGroups, sharedGroups);
    EXPECT_EQ(kernel.host[0].sharedSources, sharedSources);
}

uint64_t Refused(Medium &run, uint32_t port)
{
    LiveCounters counters = {};
    EXPECT_EQ(run.path.Tables().ReadCounters(port, counters), STATUS_OK);
    return counters.values[LIVE_GROUPS_REFUSED];
}

// ---- Hosts that change what they want ----

// What a host of IGMPv3 wants of a group.
struct Filter {
    bool excludes = false;
    std::string sources;

    bool Wants(char source) const { return (sources.find(source) != std::string::npos) != excludes; }
};

std::string Without(const std::string &sources, const std::string &others)
{
    std::string rest;
    for (char source : sources)
        if (others.find(source) == std::string::npos) rest += source;
    return rest;
}

// The reports that a host sends when its filter changes, and what it answers to queries.
std::string ChangeRecords(char group, const Filter &from, const Filter &to)
{
    const std::string name = std::string(":") + group;
    if (from.excludes != to.excludes) return (to.excludes ? "toex" : "toin") + name + "/" + to.sources;
    const Filter &more = to.excludes ? from : to, &less = to.excludes ? to : from;
    std::string records;
    if (const std::string allowed = Without(more.sources, less.sources); !allowed.empty())
        records = "allow" + name + "/" + allowed;
    if (const std::string blocked = Without(less.sources, more.sources); !blocked.empty())
        records += (records.empty() ? "" : ",") + ("block" + name + "/" + blocked);
    return records;
}

std::string CurrentRecord(char group, const Filter &filter)
{
    return std::string(filter.excludes ? "ex:" : "in:") + group + "/" + filter.sources;
}

TEST_F(LiveMulticast, FollowsHostsThatChangeWhatTheyWant)
{
    constexpr uint32_t HOSTS = 4, STEPS = 1500;
    constexpr uint64_t SECOND = 1000000000;
    const char *seed = getenv("VSWITCHCTL_LIVE_SEED");
    std::mt19937 random(seed ? static_cast<uint32_t>(strtoul(seed, nullptr, 10)) : 1);
    const std::string all = "wxyz";
    TestRun run(Options());
    run.Publish(Snooping(HOSTS + 1));
    uint64_t now = SECOND, reported = now;
    for (const bool isIpv6 : {false, true}) {
        Filter filters[HOSTS];
        uint64_t changed[HOSTS] = {};
        const auto report = [&](uint32_t host, const std::string &records) {
            if (records.empty()) return;
            run.Run(2 + host, FrameOf('h', {(isIpv6 ? "mld2=" : "igmp3=") + records}));
        };
        for (uint32_t step = 0; step < STEPS; step++) {
            const uint32_t changing = Below(random, HOSTS);
            Filter wanted = {Below(random, 2) != 0, {}};
            for (char source : all)
                if (Below(random, 2)) wanted.sources += source;
            report(changing, ChangeRecords('G', filters[changing], wanted));
            filters[changing] = wanted;
            changed[changing] = now;
            run.SetTime(now += SECOND / 2 + (Below(random, 4) ? 2 : Below(random, 100)) * SECOND);
            if (now - reported > 100 * SECOND) {
                reported = now;
                for (uint32_t host = 0; host < HOSTS; host++)
                    report(host, CurrentRecord('G', filters[host]));
            }
            if (Below(random, 8) == 0) Sweep(run);
            const char source = all[Below(random, all.size())];
            const std::vector<Sent> sent = run.Run(1, FrameOf(source, {isIpv6 ? "ip6=G" : "ip4=G"}));
            for (uint32_t host = 0; host < HOSTS; host++) {
                const bool isWanted = filters[host].Wants(source);
                // Other hosts at the port might still want what this one doesn't.
                if (!isWanted && now - changed[host] < 2 * SECOND) continue;
                ASSERT_EQ(std::count_if(sent.begin(), sent.end(),
                                        [&](const Sent &one) { return one.port == 2 + host; }),
                          isWanted)
                    << "step " << step << ", host " << host << ", source " << source;
            }
        }
    }
    ExpectCountsRight(run, HOSTS + 1);
    run.SetTime(now += 600 * SECOND);
    EXPECT_EQ(run.path.Sweep(), STATUS_OK);
    ExpectCountsRight(run, HOSTS + 1);
    for (uint32_t port = 1; port <= HOSTS + 1; port++)
        EXPECT_EQ(WordsOf(run, port).groups + WordsOf(run, port).groupSources, 0u);
}

// ---- Senders that lie ----

// An IGMPv3 report with `count` records of groups from `first` on, or with so many sources of one group.
Bytes LargeReport(uint32_t first, uint32_t count, bool ofSources)
{
    std::vector<uint32_t> words; // of the message
    if (!ofSources)
        for (uint32_t i = first; i < first + count; i++)
            words.insert(words.end(), {0x04000000, 0xef000000 + i});
    else {
        words.insert(words.end(), {0x05000000 + count, 0xefffff00});
        for (uint32_t i = first; i < first + count; i++)
            words.push_back(0x0a000000 + i);
    }
    words.insert(words.begin(), {0x22000000, ofSources ? 1 : count});
    uint64_t sum = 0;
    for (uint32_t word : words)
        sum += (word >> 16) + (word & 0xffff);
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    words[0] |= static_cast<uint32_t>(~sum & 0xffff);
    Bytes frame = FrameOf('h', {"igmp3=ex:G"});
    frame.resize(14 + 24);
    for (uint32_t word : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            frame.push_back(static_cast<uint8_t>(word >> shift));
    const size_t length = frame.size() - 14;
    frame[16] = static_cast<uint8_t>(length >> 8);
    frame[17] = static_cast<uint8_t>(length);
    frame[24] = frame[25] = 0;
    sum = 0;
    for (size_t i = 14; i < 38; i += 2)
        sum += static_cast<uint64_t>(frame[i] << 8 | frame[i + 1]);
    sum = (sum & 0xffff) + (sum >> 16);
    frame[24] = static_cast<uint8_t>(~sum >> 8);
    frame[25] = static_cast<uint8_t>(~sum);
    return frame;
}

TEST_F(LiveMulticast, SendersOfManyJoinsFillNothingBeyondTheirLimit)
{
    constexpr uint32_t HOSTILE = 60, JOINS = 100000, AT_ONCE = 170;
    constexpr uint32_t VICTIM = HOSTILE + 1, SENDER = HOSTILE + 2, PORTS = HOSTILE + 2;
    for (const bool ofSources : {false, true}) {
        SCOPED_TRACE(ofSources ? "sources" : "groups");
        TestRun run(Options());
        run.Publish(Snooping(PORTS));
        const LiveHost &limits = run.path.Kernel().host[0];
        for (uint32_t join = 0; join < JOINS; join += AT_ONCE)
            run.Run(1 + join / AT_ONCE % HOSTILE, LargeReport(join, AT_ONCE, ofSources));
        ExpectCountsRight(run, PORTS);
        const uint32_t shared = ofSources ? limits.sharedSources : limits.sharedGroups;
        EXPECT_EQ(shared, limits.sharedGroupLimit) << "the hostile ports together reach the common limit";
        for (uint32_t port = 1; port <= HOSTILE; port++) {
            EXPECT_LE(ofSources ? WordsOf(run, port).groupSources : WordsOf(run, port).groups,
                      limits.groupLimit);
            EXPECT_GT(Refused(run, port), 0u) << "port " << port;
        }

        // The victim has its share, and what it joined alone.
        ASSERT_GE(limits.groupShare, 8u);
        run.Run(VICTIM, FrameOf('v', {"igmp3=in:A/x,in:B/x,ex:C,ex:D,ex:E,ex:F"}));
        EXPECT_EQ(Refused(run, VICTIM), 0u);
        for (char group = 'A'; group <= 'H'; group++) {
            const Numbers ports = Ports(run.Run(SENDER, FrameOf('x', {std::string("ip4=") + group})));
            EXPECT_EQ(std::count(ports.begin(), ports.end(), VICTIM), group <= 'F') << group;
            // Who has no room for what it joined gets all groups.
            EXPECT_EQ(std::count(ports.begin(), ports.end(), 1u), 1) << group;
        }
        EXPECT_EQ(run.path.ForgetLearned(1), STATUS_OK);
        EXPECT_EQ(Ports(run.Run(SENDER, FrameOf('x', {"ip4=H"}))).front(), 2u)
            << "what is forgotten needs no room";
        run.SetTime(262 * uint64_t{1000000000});
        EXPECT_EQ(run.path.Sweep(), STATUS_OK);
        ExpectCountsRight(run, PORTS);
        EXPECT_EQ(limits.sharedGroups + limits.sharedSources, 0u);
        EXPECT_EQ(Ports(run.Run(SENDER, FrameOf('x', {"ip4=A"}))), Numbers{});
        run.path.RemovePins();
    }
}

// Messages with bytes changed and cut off, with right checksums and wrong ones.
TEST_F(LiveMulticast, MutatedMessagesLeaveTheTablesInOrder)
{
    constexpr uint32_t PORTS = 5, FRAMES = 20000;
    const std::vector<std::vector<std::string>> messages = {{"igmp1=G"},
                                                            {"igmp2=G"},
                                                            {"leave4=G"},
                                                            {"query4"},
                                                            {"query4=r3i20"},
                                                            {"igmp3=ex:G/xy"},
                                                            {"igmp3=in:G/x,toin:H"},
                                                            {"mld1=G"},
                                                            {"leave6=G"},
                                                            {"query6=r2i9"},
                                                            {"mld2=allow:G/xyz"},
                                                            {"mld2=block:G/x,toex:G/z"}};
    std::mt19937 random(1);
    TestRun run(Options());
    SwitchConfig config = Snooping(PORTS);
    config.ports[4].uplink = config.ports[4].trunk = true;
    run.Publish(config);
    uint64_t now = 1000000000;
    for (uint32_t i = 0; i < FRAMES; i++) {
        Bytes frame = FrameOf('h', messages[Below(random, messages.size())]);
        const size_t ip = 14, message = frame[12] == 8 ? ip + 24 : ip + 48;
        if (Below(random, 4)) {
            // Within the message, with the checksum kept right.
            const size_t at = message + 4 + Below(random, frame.size() - message - 4);
            const auto value = static_cast<uint8_t>(random());
            const uint32_t word = (at - message) % 2 ? 1 : 256;
            uint32_t sum = static_cast<uint32_t>(frame[message + 2] << 8 | frame[message + 3]);
            sum = (~sum & 0xffff) + 0xffff - frame[at] * word % 0xffff + value * word;
            while (sum > 0xffff)
                sum = (sum & 0xffff) + (sum >> 16);
            frame[at] = value;
            frame[message + 2] = static_cast<uint8_t>(~sum >> 8);
            frame[message + 3] = static_cast<uint8_t>(~sum);
        }
        if (Below(random, 8) == 0)
            frame[ip + Below(random, frame.size() - ip)] ^= static_cast<uint8_t>(random());
        if (Below(random, 16) == 0) frame.resize(std::max<size_t>(ip + 40, Below(random, frame.size())));
        run.SetTime(now += Below(random, 1000) * 1000000);
        run.Run(1 + Below(random, PORTS), frame);
        if (Below(random, 64) == 0) Sweep(run);
    }
    ExpectCountsRight(run, PORTS);
    EXPECT_GT(run.path.Kernel().ports[0].groups, 0u);
    run.Publish(Snooping(2));
    run.Publish(Snooping(PORTS));
    ExpectCountsRight(run, PORTS);
    EXPECT_EQ(WordsOf(run, 5).groups, 0u) << "a port that is made anew has nothing of the one before";
}

// ---- Several processors, several processes ----

TEST_F(LiveMulticast, CountsAreRightWhateverHappensAtOnce)
{
    constexpr uint32_t SENDERS = 4, PORTS = 6, FRAMES = 4000;
    WireSet set = MakeWires();
    Wires wires(Options(), set);
    wires.Publish(Snooping(PORTS));
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> sent[SENDERS] = {};
    std::vector<std::thread> senders;
    for (uint32_t i = 0; i < SENDERS; i++)
        senders.emplace_back([&, i] {
            StayOnProcessor(i);
            // Two processors serve each port.
            for (uint32_t number = 0; !stop; number++) {
                wires.At(1 + i / 2).Send(LargeReport(number % 8 * 16, 16, number % 2));
                if (number % 16 == 0) usleep(1000);
                sent[i]++;
            }
        });
    while (*std::min_element(sent, sent + SENDERS) < FRAMES) {
        EXPECT_EQ(wires.path.ForgetLearned(1), STATUS_OK);
        EXPECT_EQ(wires.path.ForgetLearned(2), STATUS_OK);
    }
    stop = true;
    for (std::thread &sender : senders)
        sender.join();
    wires.Settle();
    ExpectCountsRight(wires, PORTS);
    EXPECT_GT(Refused(wires, 1) + WordsOf(wires, 1).groups, 0u);
}

TEST_F(LiveMulticast, AnotherProcessTakesOverWhatIsKnown)
{
    SwitchConfig config = Snooping(4);
    config.ports[1].trunk = true;
    config.ports[1].ranges = {{0, 9}};
    config.ports[3].uplink = config.ports[3].trunk = true;
    const Bytes toNetwork = [] {
        Bytes frame = {2, 0, 0, 0, 0, 'n', 2, 0, 0, 0, 0, 'a', 0x12, 0x34};
        frame.resize(64);
        return frame;
    }();
    {
        TestRun run(Options());
        run.Publish(config);
        run.Run(2, FrameOf('b', {"igmp2=G"}));
        run.Run(3, FrameOf('c', {"igmp3=in:G/x"}));
        run.Run(3, FrameOf('c', {"query6"}));
        run.Run(4, FrameOf('n', {"ip4=1"}));
    }
    TestRun run(Options());
    const auto expectAsBefore = [&] {
        EXPECT_EQ(Ports(run.Run(1, FrameOf('x', {"ip4=G"}))), (Numbers{2, 3, 4}));
        EXPECT_EQ(Ports(run.Run(1, FrameOf('a', {"ip4=G"}))), (Numbers{2, 4}));
        EXPECT_EQ(Ports(run.Run(1, FrameOf('a', {"ip6=G"}))), (Numbers{3, 4}));
        EXPECT_EQ(Ports(run.Run(1, toNetwork)), Numbers{4});
        std::vector<AddressEntry> addresses;
        EXPECT_EQ(run.path.Tables().ReadAddresses("switch", addresses), STATUS_OK);
        EXPECT_EQ(std::count_if(
                      addresses.begin(), addresses.end(),
                      [](const AddressEntry &entry) { return entry.mac[5] == 'n' || entry.mac[5] == 'b'; }),
                  2)
            << "what a trunk and an uplink have learned";
    };
    expectAsBefore();
    run.Publish(config);
    expectAsBefore();
    ExpectCountsRight(run, 4);
}

}
}
