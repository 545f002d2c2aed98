// Random and mutated frames through the data path, beside a model of the switch. VSWITCHCTL_LIVE_FRAMES says
// how many, VSWITCHCTL_LIVE_SEED which.
#include <cstdlib>
#include <random>

#include "tests/live_model.h"

namespace live_test {
namespace {

uint64_t FromEnvironment(const char *name, uint64_t otherwise)
{
    const char *text = getenv(name);
    return text ? strtoull(text, nullptr, 10) : otherwise;
}

constexpr uint32_t PORTS = 10;
constexpr uint32_t FIRST_UPLINK = 8;

class Walk {
public:
    Walk(const LoadOptions &options, uint64_t seed) : random(seed), run(options)
    {
        model.vswitch.id = "switch";
        model.now = 1000000000;
        for (uint32_t number = 1; number <= PORTS; number++)
            model.Configure(RandomPort(number));
        model.vswitch.addressLimit = 40;
        PublishAll();
    }

    // False at the first difference.
    bool Step(uint64_t step)
    {
        if (step % 64 == 0) ChangeSomething();
        if (step % 4096 == 0) ChangePorts();
        if (step % 256 == 0 && Chance(80)) Serve();
        run.SetTime(model.now += Below(100) == 0 ? Below(1500) * 1000000 : Below(3) * 1000000);
        const uint32_t port = 1 + Below(PORTS);
        const Bytes frame = RandomFrame(model.ports[port].trunk);
        const uint32_t segmentSize = frame.size() > 200 && Below(2) ? 60 + Below(1500) : 0;
        const std::vector<Sent> expected = model.Receive(port, frame, segmentSize);
        const std::vector<Sent> sent = run.Run(port, frame, segmentSize);
        if (sent != expected) Explain(port, frame, expected, sent);
        if (model.NeedsSweep()) Sweep();
        if (step % 4096 == 4095) Compare();
        return !testing::Test::HasFailure();
    }

    void Compare()
    {
        CompareTables();
        for (const auto &[number, port] : model.ports) {
            uint32_t slot = 0;
            ASSERT_EQ(run.path.SlotOfPort(number, slot), vshost::STATUS_OK);
            EXPECT_EQ(run.path.Kernel().ports[slot].learned, model.LearnedBy(number)) << "port " << number;
            LiveCounters counters;
            ASSERT_EQ(run.path.Tables().ReadCounters(number, counters), vshost::STATUS_OK);
            for (uint32_t i = 0; i < LIVE_COUNTERS; i++)
                EXPECT_EQ(counters.values[i], model.counters[number][i])
                    << "port " << number << ", counter " << i;
        }
        EXPECT_EQ(run.path.Kernel().host[0].learned, model.LearnedBy({}));
        CompareMirrors();
    }

    // Whether the walk has reached every counter.
    void ExpectAllCountersMoved() const
    {
        for (uint32_t i = 0; i < LIVE_COUNTERS; i++) {
            uint64_t sum = 0;
            for (const auto &[number, counters] : model.counters)
                sum += counters[i];
            const bool isRoom = i == LIVE_GROUPS_REFUSED; // it doesn't snoop
            EXPECT_EQ(sum == 0, isRoom) << "counter " << i;
            RecordProperty(i, sum);
        }
        for (uint32_t i = 0; i < LIVE_MIRROR_COUNTERS; i++)
            EXPECT_EQ(mirrorSums.values[i] == 0, i == LIVE_MIRROR_NOT_TAGGED) << "mirror counter " << i;
    }

private:
    static void RecordProperty(uint32_t counter, uint64_t sum)
    {
        testing::Test::RecordProperty("counter" + std::to_string(counter), std::to_string(sum));
    }

    uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(random() % limit); }
    bool Chance(uint32_t percent) { return Below(100) < percent; }

    uint16_t RandomVlan()
    {
        const uint16_t vlans[] = {0, 0, 1, 3, 3, 3, 3, 4094, 4095, 2};
        return vlans[Below(Chance(5) ? 10 : 8)];
    }

    PortConfig RandomPort(uint32_t number)
    {
        PortConfig port;
        port.number = port.ifindex = number;
        port.uplink = number >= FIRST_UPLINK && hasUplinks;
        port.uplinkActive = Chance(80);
        port.blocked = Chance(5);
        port.trunk = Chance(port.uplink ? 95 : 40);
        port.vlanId = Chance(2) ? 5000 : RandomVlan();
        port.nested = Chance(15);
        for (uint32_t i = Below(4); i > 0; i--)
            port.ranges.push_back({RandomVlan(), RandomVlan()});
        if (port.uplink && Chance(80)) port.ranges = {{1, 4094}};
        port.priority = Below(12);
        SetLearning(port);
        SetSecurity(port);
        if (Chance(50)) port.team = RandomTeam();
        return port;
    }

    Team RandomTeam()
    {
        Team team;
        team.algorithm = static_cast<VSwitchTeamingAlgorithm>(Below(5));
        team.failBack = Chance(50);
        team.anyUplink = Chance(30);
        for (uint32_t i = Below(4); i > 0; i--)
            team.active.push_back(FIRST_UPLINK - 1 + Below(4));
        for (uint32_t i = Below(3); i > 0; i--)
            team.standby.push_back(FIRST_UPLINK - 1 + Below(4));
        return team;
    }

    void SetSecurity(PortConfig &port)
    {
        port.getsAllFrames = Chance(8);
        port.addressLock = Chance(8);
        port.staticOnly = Chance(8);
        const uint16_t types[] = {0, 0x1234, 0x0800, 0x86dd, 0x0806};
        for (uint32_t i = Chance(20) ? 1 + Below(4) : 0; i > 0; i--)
            port.filter.push_back({types[Below(5)], static_cast<VSwitchFilterDirection>(Below(3)),
                                   static_cast<VSwitchFilterAction>(Below(2))});
    }

    std::vector<PrivateVlan> RandomPrivateVlans()
    {
        std::vector<PrivateVlan> map;
        const PrivateVlanType types[] = {PrivateVlanType::PROMISCUOUS, PrivateVlanType::ISOLATED,
                                         PrivateVlanType::COMMUNITY, PrivateVlanType::COMMUNITY};
        const uint16_t vlans[] = {1, 2, 3, 4094};
        for (uint32_t i = Below(5); i > 0; i--)
            map.push_back({vlans[Below(4)], vlans[Below(4)], types[Below(4)]});
        return map;
    }

    std::vector<uint32_t> RandomPorts(uint32_t percent)
    {
        std::vector<uint32_t> numbers;
        for (uint32_t number = 1; number <= PORTS + 1; number++)
            if (Chance(percent)) numbers.push_back(number);
        return numbers;
    }

    std::vector<MirrorSession> RandomMirrors()
    {
        std::vector<MirrorSession> sessions;
        for (const char *id : {"a", "b", "c", "d", "e"}) {
            if (Chance(50)) continue;
            MirrorSession &session = sessions.emplace_back();
            session.id = id;
            session.isEnabled = Chance(90);
            session.snapLength = Chance(50) ? 0 : Below(120);
            session.sampling = Chance(70) ? Below(2) : Below(9);
            session.outerVlan = Chance(30) ? static_cast<uint16_t>(1 + Below(4094)) : uint16_t{0};
            session.stripsTag = Chance(30);
            session.from = RandomPorts(20);
            session.to = RandomPorts(20);
            session.destinations = RandomPorts(20);
        }
        return sessions;
    }

    void SetLearning(PortConfig &port)
    {
        port.learning = Chance(40);
        port.addressLimit = Below(8);
        if (port.uplink) port.addressLimit *= 4;
        port.forwardsOverLimit = Chance(50);
        port.takesUnknown = Chance(20);
        port.sink = Chance(10);
    }

    Model::Mac RandomAddress()
    {
        if (Chance(2)) return {};
        if (Chance(2)) return {1, 0, 0x5e, 0, 0, 1};
        return {2, 0, 0, 0, 0, static_cast<uint8_t>(1 + Below(12))};
    }

    Model::Mac RandomDestination()
    {
        if (Chance(15)) return {255, 255, 255, 255, 255, 255};
        if (Chance(10)) return {1, 0, 0x5e, 0, 0, static_cast<uint8_t>(Below(9))};
        return RandomAddress();
    }

    Bytes RandomFrame(bool fromTrunk)
    {
        Bytes frame;
        for (uint8_t byte : RandomDestination())
            frame.push_back(byte);
        for (uint8_t byte : RandomAddress())
            frame.push_back(byte);
        const auto append = [&](uint32_t word) {
            frame.push_back(static_cast<uint8_t>(word >> 8));
            frame.push_back(static_cast<uint8_t>(word));
        };
        for (uint32_t tags = Chance(fromTrunk ? 80 : 15) ? 1 + Chance(10) + Chance(5) : 0; tags > 0; tags--) {
            append(Chance(95) ? 0x8100 : 0x88a8);
            append(RandomVlan() | (Chance(20) ? Below(16) << 12 : 0));
        }
        const uint32_t types[] = {0x1234, 0x0800, 0x86dd, 0x0806, 40};
        append(types[Below(5)]);
        const bool isLong = Chance(3);
        const size_t length = isLong ? 1400 + Below(300) : 66 + Below(40);
        while (frame.size() < length)
            frame.push_back(static_cast<uint8_t>(random()));
        if (Chance(50)) frame[23] = static_cast<uint8_t>(Chance(50) ? 6 : 17); // TCP or UDP over IPv4
        if (Chance(10)) frame[Below(24)] ^= static_cast<uint8_t>(1u << Below(8));
        return frame;
    }

    // ---- Changes ----

    SwitchConfig Whole() const
    {
        SwitchConfig config = model.vswitch;
        for (const auto &[number, port] : model.ports)
            config.ports.push_back(port);
        return config;
    }

    void PublishAll()
    {
        run.Publish(Whole());
        model.ChooseNetworkUplinks();
    }

    void Serve()
    {
        run.Serve();
        model.servedUntil = model.now + 1000000000;
    }

    void PublishPort(const PortConfig &port)
    {
        Change change;
        ASSERT_EQ(run.path.PreparePort(port, change), vshost::STATUS_OK) << run.path.Message();
        run.path.Publish(change);
        const bool isWhole = port.uplink || DifferInSnapshot(model.ports[port.number], port);
        model.Configure(port);
        if (isWhole)
            model.ChooseNetworkUplinks();
        else
            model.ChooseNetworkUplink(port.number);
    }

    void Sweep()
    {
        ASSERT_EQ(run.path.Sweep(), vshost::STATUS_OK);
        model.Sweep();
    }

    void ChangeSomething()
    {
        PortConfig port = model.ports[1 + Below(PORTS)];
        switch (Below(9)) {
        case 0:
            return ChangeLink(port.number);
        case 1:
            return ChangeHost();
        case 2:
            return ChangeStatic(port.number);
        case 3:
            port.blocked = Chance(10);
            break;
        case 4:
            port.vlanId = RandomVlan();
            break;
        case 5:
            port.priority = Below(12);
            port.uplinkActive = Chance(70);
            break;
        case 6:
            port.filter.clear();
            SetSecurity(port);
            break;
        case 7:
            port.addressLimit = Below(port.uplink ? 30 : 8);
            port.forwardsOverLimit = Chance(50);
            port.learning = Chance(40);
            break;
        default:
            return Forget(port.number);
        }
        Sweep(); // so that a sweep during a change finds nothing
        PublishPort(port);
    }

    void ChangeLink(uint32_t port)
    {
        const int results[] = {0, 0, 0, 1, 2, -100, -19};
        run.SetLink(port, model.links[port] = results[Below(7)]);
    }

    void ChangeHost()
    {
        model.host.learningEnabled = Chance(90);
        model.host.addressLimit = Chance(80) ? 1000 : Below(40);
        model.host.floodLimit = Chance(60) ? 0 : 1 + Below(20);
        run.path.SetHost(model.host);
    }

    void ChangeStatic(uint32_t port)
    {
        const Model::Mac mac = {2, 0, 0, 0, 0, static_cast<uint8_t>(1 + Below(12))};
        const uint16_t vlan = RandomVlan();
        const auto found = model.table.find({vlan, mac});
        if (Chance(40)) {
            ASSERT_EQ(run.path.AddStaticAddress(port, vlan, mac.data()), vshost::STATUS_OK);
            const uint64_t lastSeen = found == model.table.end() ? 0 : found->second.lastSeen;
            model.table[{vlan, mac}] = {.port = port, .isStatic = true, .lastSeen = lastSeen};
        } else if (found != model.table.end()) {
            ASSERT_EQ(run.path.RemoveAddress(found->second.port, vlan, mac.data()), vshost::STATUS_OK);
            model.table.erase(found);
        }
    }

    void Forget(uint32_t port)
    {
        Sweep();
        ASSERT_EQ(run.path.ForgetLearned(port), vshost::STATUS_OK);
        model.Forget(port);
    }

    // Changes that need a snapshot and so take longer.
    void ChangePorts()
    {
        Sweep();
        const bool changesAll = hasUplinks != Chance(85);
        hasUplinks ^= changesAll;
        std::vector<PortConfig> changed;
        for (uint32_t number = 1; number <= PORTS; number++) {
            if (!changesAll && !Chance(30)) continue;
            PortConfig port = RandomPort(number);
            if (Chance(5)) port.ifindex = 0;
            changed.push_back(port);
        }
        SwitchConfig config = model.vswitch;
        config.mtu = Chance(50) ? 1500 : 60 + Below(30);
        config.addressLimit = Chance(50) ? 1000 : Below(30);
        config.ageingSeconds = Chance(20) ? 0 : 1 + Below(20);
        if (Chance(30)) config.privateVlans = RandomPrivateVlans();
        config.learnsStatic = Chance(20);
        if (Chance(50)) {
            CompareMirrors(); // before the counters of those that go are forgotten
            config.mirrors = RandomMirrors();
        }
        model.Configure(config, changed);
        PublishAll();
        Sweep();
    }

    // ---- Differences ----

    void CompareTables()
    {
        Sweep();
        std::vector<AddressEntry> entries;
        ASSERT_EQ(run.path.Tables().ReadAddresses("switch", entries), vshost::STATUS_OK);
        std::map<std::pair<uint16_t, Model::Mac>, std::pair<uint32_t, bool>> found, expected;
        for (const AddressEntry &entry : entries) {
            Model::Mac mac;
            std::copy_n(entry.mac, mac.size(), mac.begin());
            found[{entry.vlan, mac}] = {entry.portNumber, entry.isStatic};
        }
        for (const auto &[key, entry] : model.table)
            expected[key] = {entry.port, entry.isStatic};
        EXPECT_EQ(found, expected);
    }

    void CompareMirrors()
    {
        std::vector<MirrorEntry> entries;
        ASSERT_EQ(run.path.Tables().ReadMirrors("switch", entries), vshost::STATUS_OK);
        EXPECT_EQ(entries.size(), model.vswitch.mirrors.size());
        for (const MirrorEntry &entry : entries)
            for (uint32_t i = 0; i < LIVE_MIRROR_COUNTERS; i++) {
                mirrorSums.values[i] += entry.counters.values[i];
                EXPECT_EQ(entry.counters.values[i], model.mirrorCounters[entry.id].values[i])
                    << "session " << entry.id << ", counter " << i;
            }
    }

    static std::string Describe(const std::vector<Sent> &sent)
    {
        std::string text;
        for (const Sent &one : sent)
            text += "  port " + std::to_string(one.port) + ": " + Hex(one.head) + "\n";
        return text;
    }

    static std::string Hex(const Bytes &bytes)
    {
        std::string text;
        char byte[4];
        for (size_t i = 0; i < std::min<size_t>(bytes.size(), 24); i++) {
            snprintf(byte, sizeof(byte), "%02x ", bytes[i]);
            text += byte;
        }
        return text;
    }

    void Explain(uint32_t port, const Bytes &frame, const std::vector<Sent> &expected,
                 const std::vector<Sent> &sent)
    {
        ADD_FAILURE() << "into port " << port << ": " << Hex(frame) << "(" << frame.size()
                      << " bytes)\nexpected\n"
                      << Describe(expected) << "sent\n"
                      << Describe(sent);
    }

    std::mt19937_64 random;
    bool hasUplinks = true;
    Model model;
    LiveMirrorCounters mirrorSums = {};
    TestRun run;
};

class LiveModel : public LiveTest {};

TEST_F(LiveModel, AgreesOnRandomFrames)
{
    const uint64_t frames = FromEnvironment("VSWITCHCTL_LIVE_FRAMES", 1000000);
    const uint64_t seed = FromEnvironment("VSWITCHCTL_LIVE_SEED", 20260101);
    LoadOptions options = Options();
    options.capacity.addresses = 1024;
    Walk walk(options, seed);
    for (uint64_t step = 0; step < frames; step++)
        ASSERT_TRUE(walk.Step(step)) << "frame " << step << " of seed " << seed;
    walk.Compare();
    walk.ExpectAllCountersMoved();
}

}
}
