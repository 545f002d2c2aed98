// The data path at interfaces: the tables of frames once more, and what happens when programs are replaced
// and policies change.
#include <algorithm>
#include <atomic>
#include <thread>
#include <unistd.h>

#include "tests/live_multicast.h"
#include "tests/live_scenario.h"
#include "tests/live_wires.h"

namespace live_test {
namespace {

using namespace vshost;

// ---- The tables ----

class LiveWires : public LiveTest, public testing::WithParamInterface<Table> {};

TEST_P(LiveWires, PassFramesAsTheTableSays)
{
    WireSet set = MakeWires({2, 5});
    Wires wires(Options(), set);
    for (const Row &row : GetParam().rows) {
        if (NeedsTestRun(row)) continue;
        Play(wires, row);
        wires.Clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Tables, LiveWires, testing::ValuesIn(FrameTables()),
                         [](const auto &info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(MoreTables, LiveWires, testing::ValuesIn(MulticastTables()),
                         [](const auto &info) { return info.param.name; });

// ---- Streams of numbered frames ----

constexpr uint32_t SENDER = 1;
constexpr uint8_t SOURCE = 0x11; // the last byte of an address
constexpr uint8_t EVERYBODY = 0xff;
constexpr uint8_t GROUP = 0xfe;

Bytes NumberedFrame(uint32_t number, uint8_t destination)
{
    Bytes frame = {2, 0, 0, 0, 0, destination, 2, 0, 0, 0, 0, SOURCE, 0x12, 0x34};
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<uint8_t>(number >> shift));
    if (destination == EVERYBODY) std::fill_n(frame.begin(), 6, destination);
    frame.resize(64);
    return frame;
}

// The number is the source's address in the packet to the group.
Bytes NumberedGroupFrame(uint32_t number)
{
    const Bytes head = {1,    0,    0x5e, 1, 2, 'G', 2, 0, 0, 0, 0,  SOURCE, 0x08,
                        0x00, 0x45, 0,    0, 0, 0,   0, 0, 0, 1, 17, 0,      0};
    Bytes frame = head;
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<uint8_t>(number >> shift));
    frame.insert(frame.end(), {239, 1, 2, 'G'});
    frame.resize(64);
    return frame;
}

// A frame by which an address is learned.
Bytes Hello(uint8_t source)
{
    Bytes frame = NumberedFrame(0, EVERYBODY);
    frame[11] = source;
    return frame;
}

uint32_t NumberOf(const Bytes &frame)
{
    const size_t offset = frame[12] == 0x81 ? 18 : frame[12] == 0x08 ? 26 : 14; // behind the tag
    const uint8_t *number = frame.data() + offset;
    return static_cast<uint32_t>(number[0] << 24 | number[1] << 16 | number[2] << 8 | number[3]);
}

SwitchConfig Switch(uint32_t ports, const std::vector<uint32_t> &uplinks)
{
    SwitchConfig config;
    config.id = "switch";
    for (uint32_t number = 1; number <= ports; number++) {
        PortConfig port;
        port.number = number;
        port.ifindex = ANY_INTERFACE;
        port.uplink = port.trunk = std::count(uplinks.begin(), uplinks.end(), number) != 0;
        config.ports.push_back(port);
    }
    return config;
}

// Sends numbered frames until it is stopped.
class Stream {
public:
    Stream(Wire &wire, uint8_t destination)
        : thread([this, &wire, destination] {
              StayOnProcessor(1);
              while (!stop) {
                  before = number;
                  wire.Send(destination == GROUP ? NumberedGroupFrame(number)
                                                 : NumberedFrame(number, destination));
                  after = ++number;
                  // The receiver's buffer holds what nobody has taken yet; leave it some room.
                  if (number % 8 == 0) usleep(1000);
              }
          })
    {}
    ~Stream() { Stop(); }

    // How many it has sent.
    uint32_t Stop()
    {
        stop = true;
        if (thread.joinable()) thread.join();
        return after;
    }

    // Waits until `count` further frames were sent whole, and answers the number of the next one.
    uint32_t Pass(uint32_t count)
    {
        const uint32_t goal = after + count + 1;
        while (after < goal)
            usleep(100);
        return after;
    }

    std::atomic<uint32_t> before{0}; // begun
    std::atomic<uint32_t> after{0};  // done

private:
    uint32_t number = 0;
    std::atomic<bool> stop{false};
    std::thread thread;
};

// How often each numbered frame has arrived at a port.
std::vector<uint32_t> Arrivals(const std::vector<Sent> &sent, uint32_t count)
{
    std::vector<uint32_t> arrivals(count);
    for (const Sent &one : sent)
        if (one.head[11] == SOURCE && NumberOf(one.head) < count) arrivals[NumberOf(one.head)]++;
    return arrivals;
}

// ---- Programs ----

class LiveInterfaces : public LiveTest {};

TEST_F(LiveInterfaces, LoseNoFrameWhenTheProgramIsReplaced)
{
    WireSet set = MakeWires();
    Wires wires(Options(), set);
    wires.Publish(Switch(3, {}));
    wires.Run(2, Hello(0x22));

    std::vector<Sent> sent;
    const auto collect = [&] {
        const std::vector<Sent> some = wires.Settle();
        sent.insert(sent.end(), some.begin(), some.end());
    };
    Stream stream(wires.At(SENDER), 0x22);
    for (int i = 0; i < 20; i++) {
        DataPath next;
        ASSERT_EQ(next.Open(Options()), STATUS_OK) << next.Message();
        for (uint32_t port = 1; port <= 9; port++)
            ASSERT_EQ(next.Attach(wires.InterfaceOf(port)), STATUS_OK) << next.Message();
        next.ForgetPredecessors();
        stream.Pass(20);
        collect();
    }
    const uint32_t count = stream.Stop();
    collect();
    EXPECT_EQ(Arrivals(sent, count), std::vector<uint32_t>(count, 1));

    // The first data path doesn't know the programs of its successors.
    DataPath last;
    ASSERT_EQ(last.Open(Options()), STATUS_OK);
    for (uint32_t port = 1; port <= 9; port++) {
        EXPECT_EQ(last.Attach(wires.InterfaceOf(port)), STATUS_OK) << last.Message();
        EXPECT_EQ(wires.path.Detach(wires.InterfaceOf(port)), STATUS_NOT_FOUND);
        EXPECT_EQ(last.Detach(wires.InterfaceOf(port)), STATUS_OK) << last.Message();
    }
}

TEST_F(LiveInterfaces, KeepOthersFiltersAsTheyAre)
{
    WireSet set = MakeWires();
    Wires wires(Options(), set);
    LoadOptions other = Options();
    other.identity = "other";
    DataPath path;
    ASSERT_EQ(path.Open(other), STATUS_OK);
    EXPECT_EQ(path.Attach(wires.InterfaceOf(1)), STATUS_EXISTS);
    EXPECT_NE(path.Message().find("filter"), std::string::npos);
    EXPECT_EQ(path.Detach(wires.InterfaceOf(1)), STATUS_NOT_FOUND);
    EXPECT_EQ(path.Attach(999999), STATUS_NOT_FOUND);
    path.RemovePins();
}

// ---- What is published is true ----

// A frame that is sent need not be forwarded yet; it is when the next one is.
void WaitUntilForwarded(Wires &wires, uint32_t frames)
{
    LiveCounters counters = {};
    while (counters.values[LIVE_FROM_PACKETS] <= frames && !testing::Test::HasFailure())
        ASSERT_EQ(wires.path.Tables().ReadCounters(SENDER, counters), STATUS_OK);
}

// Frames sent after Publish() has returned, and before the next change begins, obey it.
TEST_F(LiveInterfaces, ObeyAChangeFromTheNextFrameOn)
{
    constexpr uint32_t FLIPS = 500;
    WireSet set = MakeWires();
    Wires wires(Options(), set);
    SwitchConfig config = Switch(2, {});
    config.ports[0].vlanId = config.ports[1].vlanId = 7;
    wires.Publish(config);
    struct Span {
        uint32_t first, last; // frames that were sent whole while nothing changed
        bool passes;
    };
    std::vector<Span> spans;
    Stream stream(wires.At(SENDER), EVERYBODY);
    std::vector<Sent> arrived;
    for (uint32_t i = 0; i < FLIPS; i++) {
        PortConfig &port = config.ports[i / 2 % 2];
        const bool passes = i % 2;
        const uint16_t vlan = passes ? 7 : 8;
        switch (i / 4 % 3) {
        case 0:
            port.blocked = !passes;
            break;
        case 1:
            port.vlanId = vlan;
            break;
        default: // this one takes a snapshot; the sender has no use for it
            config.ports[1].trunk = i % 4 != 3;
            config.ports[1].ranges = {{vlan, vlan}};
            wires.Publish(config.ports[1]);
        }
        wires.Publish(port);
        const uint32_t first = stream.before + 1;
        const uint32_t last = stream.Pass(2);
        spans.push_back({first, last, passes});
        WaitUntilForwarded(wires, last);
        while (const std::optional<Bytes> frame = wires.At(2).Receive())
            arrived.push_back(MakeSent(2, *frame));
    }
    const uint32_t count = stream.Stop();
    for (const Sent &one : wires.Settle())
        arrived.push_back(one);
    const std::vector<uint32_t> arrivals = Arrivals(arrived, count);
    uint32_t judged = 0;
    for (const Span &span : spans)
        for (uint32_t i = span.first; i < span.last; i++, judged++)
            ASSERT_EQ(arrivals[i], span.passes ? 1u : 0u) << "frame " << i;
    EXPECT_GE(judged, FLIPS);
}

TEST_F(LiveInterfaces, ObeyTheMulticastModeFromTheNextFrameOn)
{
    constexpr uint32_t FLIPS = 100, OTHER = 2, MEMBER = 3;
    WireSet set = MakeWires();
    Wires wires(Options(), set);
    SwitchConfig config = Switch(3, {});
    const auto hasMember = [&] {
        std::vector<GroupEntry> groups;
        EXPECT_EQ(wires.path.Tables().ReadGroups(config.id, groups), STATUS_OK);
        return !groups.empty();
    };
    MulticastPacket report;
    report.Take("igmp2=G");
    Bytes reportFrame = report.Destination();
    reportFrame.insert(reportFrame.end(), {2, 0, 0, 0, 0, MEMBER, 0x08, 0x00});
    const Bytes payload = report.Payload('m');
    reportFrame.insert(reportFrame.end(), payload.begin(), payload.end());
    wires.Publish(config);
    struct Span {
        uint32_t first, last; // frames that were sent whole while nothing changed
        bool isForAll;
        bool isForMember;
    };
    std::vector<Span> spans;
    Stream stream(wires.At(SENDER), GROUP);
    std::vector<Sent> arrived;
    const auto pass = [&](bool isForAll, bool isForMember) {
        const uint32_t first = stream.before + 1;
        const uint32_t last = stream.Pass(2);
        spans.push_back({first, last, isForAll, isForMember});
        WaitUntilForwarded(wires, last);
        for (uint32_t port : {OTHER, MEMBER})
            while (const std::optional<Bytes> frame = wires.At(port).Receive())
                arrived.push_back(MakeSent(port, *frame));
    };
    for (uint32_t i = 0; i < FLIPS; i++) {
        config.snooping = i % 2 == 0;
        wires.Publish(config);
        pass(!config.snooping, !config.snooping);
        if (!config.snooping) continue;
        EXPECT_FALSE(hasMember());
        wires.At(MEMBER).Send(reportFrame);
        while (!hasMember() && !HasFailure())
            usleep(100);
        pass(false, true);
    }
    const uint32_t count = stream.Stop();
    for (const Sent &one : wires.Settle())
        arrived.push_back(one);
    const auto at = [&](uint32_t port) {
        std::vector<Sent> some;
        std::copy_if(arrived.begin(), arrived.end(), std::back_inserter(some),
                     [&](const Sent &one) { return one.port == port; });
        return Arrivals(some, count);
    };
    const std::vector<uint32_t> other = at(OTHER), member = at(MEMBER);
    uint32_t judged = 0;
    for (const Span &span : spans)
        for (uint32_t i = span.first; i < span.last; i++, judged++) {
            ASSERT_EQ(other[i], span.isForAll) << "frame " << i;
            ASSERT_EQ(member[i], span.isForMember) << "frame " << i;
        }
    EXPECT_GE(judged, FLIPS);
}

// ---- Several processors ----

TEST_F(LiveInterfaces, CountAddressesRightWhateverHappensAtOnce)
{
    constexpr uint32_t SENDERS = 4;
    constexpr uint32_t FRAMES = 5000; // at least, of each sender
    WireSet set = MakeWires();
    Wires wires(Options(), set);
    SwitchConfig config = Switch(9, {9});
    for (PortConfig &port : config.ports) {
        port.learning = port.number != 1; // that one replaces its address all the time
        port.addressLimit = 20;
    }
    config.addressLimit = 50;
    wires.Publish(config);

    std::atomic<bool> stop{false};
    std::atomic<uint32_t> sent[SENDERS] = {};
    std::vector<std::thread> senders;
    for (uint32_t i = 0; i < SENDERS; i++)
        senders.emplace_back([&, i] {
            StayOnProcessor(i);
            const uint32_t port = i == 0 ? 9 : i; // addresses wander between the network and the ports
            for (uint32_t number = i; !stop; number = number * 1103515245 + 12345) {
                Bytes frame = NumberedFrame(number, 0x77);
                const uint32_t address = number >> 16;
                frame[11] = static_cast<uint8_t>(address % 4 == 0 ? address % 32
                                                                  : address % 2); // two are fought over
                wires.At(port).Send(frame);
                sent[i]++;
            }
        });
    for (uint32_t i = 0; *std::min_element(sent, sent + SENDERS) < FRAMES; i++) {
        const uint8_t mac[6] = {2, 0, 0, 0, 0, static_cast<uint8_t>(i % 32)};
        EXPECT_EQ(wires.path.ForgetLearned(1 + i % 3), STATUS_OK);
        wires.path.AddStaticAddress(2, 0, mac);
        wires.path.RemoveAddress(2, 0, mac);
    }
    stop = true;
    for (std::thread &sender : senders)
        sender.join();
    wires.Settle();

    ASSERT_EQ(wires.path.Sweep(), STATUS_OK);
    std::vector<AddressEntry> entries;
    ASSERT_EQ(wires.path.Tables().ReadAddresses("switch", entries), STATUS_OK);
    EXPECT_EQ(wires.path.Kernel().host[0].learned, entries.size());
    EXPECT_EQ(wires.path.Kernel().switches[0].learned, entries.size());
    for (uint32_t number = 1; number <= 9; number++) {
        uint32_t slot = 0;
        ASSERT_EQ(wires.path.SlotOfPort(number, slot), STATUS_OK);
        EXPECT_EQ(wires.path.Kernel().ports[slot].learned,
                  std::count_if(entries.begin(), entries.end(),
                                [&](const AddressEntry &entry) { return entry.portNumber == number; }))
            << "port " << number;
    }
    LiveCounters counters;
    ASSERT_EQ(wires.path.Tables().ReadCounters(1, counters), STATUS_OK);
    EXPECT_GT(counters.values[LIVE_MOVED], 0u);
}

}
}
