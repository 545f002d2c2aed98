#include "tests/live_scenario.h"

#include <algorithm>
#include <array>
#include <functional>
#include <linux/if_ether.h>
#include <map>
#include <sstream>

#include "tests/live_multicast.h"

namespace live_test {
namespace {

std::vector<std::string> Split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        if (!part.empty()) parts.push_back(part);
    return parts;
}

uint32_t Number(const std::string &text) { return static_cast<uint32_t>(std::stoul(text)); }

// ---- How the tables are written ----
// A switch is "1 vlan=10; 2 trunk=0,5-7; 9 up; switch mtu=1000": ports by their numbers, with their policies.

std::vector<VlanRange> Ranges(const std::string &text)
{
    std::vector<VlanRange> ranges;
    for (const std::string &part : Split(text, ',')) {
        const size_t dash = part.find('-');
        ranges.push_back({static_cast<uint16_t>(Number(part.substr(0, dash))),
                          static_cast<uint16_t>(Number(part.substr(dash + 1)))});
    }
    return ranges;
}

// "806fd,0tp": EtherType in hexadecimal, from or to the port (b: both), drop or pass.
std::vector<FilterRule> Rules(const std::string &text)
{
    static const std::map<char, VSwitchFilterDirection> DIRECTIONS = {
        {'f', VSWITCH_FILTER_FROM_PORT}, {'t', VSWITCH_FILTER_TO_PORT}, {'b', VSWITCH_FILTER_BOTH}};
    std::vector<FilterRule> rules;
    for (const std::string &word : Split(text, ',')) {
        const std::string type = word.substr(0, word.size() - 2);
        rules.push_back({static_cast<uint16_t>(std::stoul(type, nullptr, 16)),
                         DIRECTIONS.at(word[word.size() - 2]),
                         word.back() == 'd' ? VSWITCH_FILTER_DROP : VSWITCH_FILTER_PASS});
    }
    return rules;
}

// "order:8,9/7": active and standby uplinks.
Team TeamOf(const std::string &text)
{
    static const std::map<std::string, VSwitchTeamingAlgorithm> ALGORITHMS = {
        {"port", VSWITCH_TEAMING_PORT},
        {"mac", VSWITCH_TEAMING_SOURCE_MAC},
        {"ip", VSWITCH_TEAMING_IP},
        {"l4", VSWITCH_TEAMING_L4},
        {"order", VSWITCH_TEAMING_ORDER}};
    const size_t colon = text.find(':'), slash = std::min(text.find('/'), text.size());
    Team team;
    team.algorithm = ALGORITHMS.at(text.substr(0, colon));
    for (const std::string &uplink : Split(text.substr(colon + 1, slash - colon - 1), ','))
        team.active.push_back(Number(uplink));
    if (slash < text.size())
        for (const std::string &uplink : Split(text.substr(slash + 1), ','))
            team.standby.push_back(Number(uplink));
    return team;
}

void SetUplink(PortConfig &port)
{
    port.uplink = port.trunk = true;
    port.ranges = {{1, LIVE_VLAN_MAX}};
}

// A policy as a word: "block", "vlan=10".
void SetPolicy(PortConfig &port, const std::string &word)
{
    const size_t equals = word.find('=');
    const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
    const std::map<std::string, std::function<void()>> policies = {
        {"up", [&] { SetUplink(port); }},
        {"idle", [&] { port.uplinkActive = false; }},
        {"nested", [&] { port.nested = true; }},
        {"trunk", [&] { port.trunk = true, port.ranges = Ranges(value); }},
        {"vlan", [&] { port.vlanId = static_cast<uint16_t>(Number(value)); }},
        {"prio", [&] { port.priority = Number(value); }},
        {"block", [&] { port.blocked = true; }},
        {"learn", [&] { port.learning = true, port.addressLimit = Number(value); }},
        {"over", [&] { port.forwardsOverLimit = true; }},
        {"unknown", [&] { port.takesUnknown = true; }},
        {"sink", [&] { port.sink = true; }},
        {"team", [&] { port.team = TeamOf(value); }},
        {"hold", [&] { port.team->failBack = false; }},
        {"all", [&] { port.getsAllFrames = true; }},
        {"lock", [&] { port.addressLock = true; }},
        {"filter", [&] { port.filter = Rules(value); }},
    };
    policies.at(word.substr(0, equals))();
}

// "100:101i,102c,100p": private VLANs of one primary VLAN.
void AddPrivateVlans(SwitchConfig &config, const std::string &text)
{
    static const std::map<char, PrivateVlanType> TYPES = {{'p', PrivateVlanType::PROMISCUOUS},
                                                          {'i', PrivateVlanType::ISOLATED},
                                                          {'c', PrivateVlanType::COMMUNITY}};
    const auto primary = static_cast<uint16_t>(Number(text));
    for (const std::string &word : Split(text.substr(text.find(':') + 1), ','))
        config.privateVlans.push_back({primary, static_cast<uint16_t>(Number(word)), TYPES.at(word.back())});
}

// "m:1,2:3:9:snap=20,outer=99,strip": id, what sends, what gets, destinations, settings.
MirrorSession MirrorOf(const std::string &text)
{
    const std::vector<std::string> fields = Split(text, ':');
    const auto numbers = [](const std::string &field) {
        std::vector<uint32_t> numbers;
        for (const std::string &word : Split(field == "-" ? "" : field, ','))
            numbers.push_back(Number(word));
        return numbers;
    };
    MirrorSession session;
    session.id = fields[0];
    session.from = numbers(fields[1]);
    session.to = numbers(fields[2]);
    session.destinations = numbers(fields[3]);
    for (const std::string &word : Split(fields.size() > 4 ? fields[4] : "", ',')) {
        const std::string value = word.substr(word.find('=') + 1);
        if (word.starts_with("snap=")) session.snapLength = Number(value);
        if (word.starts_with("outer=")) session.outerVlan = static_cast<uint16_t>(Number(value));
        if (word == "strip") session.stripsTag = true;
    }
    return session;
}

SwitchConfig Config(const std::string &text)
{
    SwitchConfig config;
    config.id = "switch";
    for (const std::string &part : Split(text, ';')) {
        std::vector<std::string> words = Split(part, ' ');
        if (words[0] == "switch") {
            for (const std::string &word : words) {
                const std::string value = word.substr(word.find('=') + 1);
                if (word.starts_with("mtu=")) config.mtu = Number(value);
                if (word.starts_with("pvlan=")) AddPrivateVlans(config, value);
                if (word.starts_with("mirror=")) config.mirrors.push_back(MirrorOf(value));
                if (word == "snooping") config.snooping = true;
            }
            continue;
        }
        PortConfig port;
        port.number = Number(words[0]);
        port.ifindex = ANY_INTERFACE;
        for (size_t i = 1; i < words.size(); i++)
            SetPolicy(port, words[i]);
        config.ports.push_back(port);
    }
    return config;
}

// Addresses are letters; '*' is the broadcast, '+' a multicast and '0' no address at all.
std::array<uint8_t, 6> Mac(char letter)
{
    if (letter == '*') return {255, 255, 255, 255, 255, 255};
    if (letter == '+') return {1, 0, 0x5e, 1, 2, 3};
    if (letter == '0') return {};
    return {2, 0, 0, 0, 0, static_cast<uint8_t>(letter)};
}

// A tag is "VLAN", "VLAN/PRIORITY" or "VLAN/PRIORITY/1" with the drop bit; "s" before it makes it 802.1ad.
uint32_t Tag(const std::string &text)
{
    const std::vector<std::string> fields = Split(text[0] == 's' ? text.substr(1) : text, '/');
    const uint32_t type = text[0] == 's' ? 0x88a8 : 0x8100;
    uint32_t tci = Number(fields[0]);
    if (fields.size() > 1) tci |= Number(fields[1]) << 13;
    if (fields.size() > 2) tci |= Number(fields[2]) << 12;
    return type << 16 | tci;
}

void Append(Bytes &bytes, uint32_t value, size_t size)
{
    while (size-- > 0)
        bytes.push_back(static_cast<uint8_t>(value >> 8 * size));
}

struct TestFrame {
    char source = 'a';
    char destination = 'b';
    std::vector<std::string> tags; // the outer one first
    uint32_t length = 64;          // without the outer tag
    uint32_t segmentSize = 0;
    uint32_t etherType = 0x1234;
    Bytes payload; // what the payload begins with
    MulticastPacket multicast;

    // Without the outer tag.
    Bytes Inner() const
    {
        Bytes bytes;
        if (multicast.IsSet())
            bytes = multicast.Destination();
        else
            for (uint8_t byte : Mac(destination))
                bytes.push_back(byte);
        for (uint8_t byte : Mac(source))
            bytes.push_back(byte);
        for (size_t i = 1; i < tags.size(); i++)
            Append(bytes, Tag(tags[i]), 4);
        Append(bytes, etherType, 2);
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        while (bytes.size() < length)
            bytes.push_back(static_cast<uint8_t>(bytes.size()));
        return bytes;
    }

    // With other tags in place of the outer one: "10/3", "s10,30", or none. "10^20": the bytes behind them
    // are cut to 20.
    Bytes With(std::string outer) const
    {
        Bytes bytes = Inner(), inserted;
        const size_t cut = outer.find('^');
        if (cut != std::string::npos) {
            bytes.resize(std::min<size_t>(bytes.size(), Number(outer.substr(cut + 1))));
            outer.resize(cut);
        }
        for (const std::string &tag : Split(outer, ','))
            Append(inserted, Tag(tag), 4);
        bytes.insert(bytes.begin() + 12, inserted.begin(), inserted.end());
        return bytes;
    }
};

// "a>b 10/3,7 len=1000 seg=500 tcp": source, destination, tags, and further words.
TestFrame Frame(const std::vector<std::string> &words)
{
    TestFrame frame;
    frame.source = words[0][0];
    frame.destination = words[0][2];
    for (size_t i = 1; i < words.size(); i++) {
        const std::string &word = words[i];
        const std::string value = word.substr(word.find('=') + 1);
        if (word.starts_with("len="))
            frame.length = Number(value);
        else if (word.starts_with("seg="))
            frame.segmentSize = Number(value);
        else if (word.starts_with("type="))
            frame.etherType = static_cast<uint32_t>(std::stoul(value, nullptr, 16));
        else if (word == "tcp4" || word == "udp4") { // a header of 24 bytes, TCP of 32 bytes
            frame.etherType = 0x0800;
            frame.payload.assign(56, 0);
            frame.payload[0] = 0x46;
            frame.payload[9] = word == "tcp4" ? 6 : 17;
            frame.payload[24 + 12] = 0x80;
        } else if (word == "tcp6") {
            frame.etherType = 0x86dd;
            frame.payload.assign(60, 0);
            frame.payload[6] = 6;
            frame.payload[40 + 12] = 0x50;
        } else if (!frame.multicast.Take(word))
            for (const std::string &tag : Split(word, ','))
                frame.tags.push_back(tag);
    }
    if (!frame.multicast.IsSet()) return frame;
    frame.etherType = frame.multicast.EtherType();
    frame.payload = frame.multicast.Payload(frame.source);
    frame.length = static_cast<uint32_t>(ETH_HLEN + frame.payload.size());
    return frame;
}

const std::map<std::string, uint32_t> DROPS = {
    {"BLOCKED", LIVE_DROP_BLOCKED},   {"VLAN", LIVE_DROP_VLAN},         {"LIMIT", LIVE_DROP_LEARNING_LIMIT},
    {"FILTER", LIVE_DROP_FILTER},     {"LENGTH", LIVE_DROP_LENGTH},     {"FLOOD", LIVE_DROP_FLOOD_LIMIT},
    {"NOT_SENT", LIVE_DROP_NOT_SENT}, {"SECURITY", LIVE_DROP_SECURITY},
};

// "1 a>b 10 => 2 9:10/3 !VLAN": a frame into port 1; it leaves by port 2 untagged and by port 9 with a tag,
// and counts as dropped at port 1 ("2!VLAN": at port 2). Other lines change something, see Do().
class Scenario {
public:
    Scenario(Medium &medium, const Row &row) : row(row), config(Config(row.ports)), run(medium)
    {
        run.SetTime(now);
        run.Publish(config);
    }

    void Play()
    {
        for (const char *line : row.lines) {
            SCOPED_TRACE(std::string(row.name) + ": " + line);
            const std::string text = line;
            if (isdigit(text[0]))
                Send(text);
            else
                Do(Split(text, ' '));
        }
    }

private:
    using Drops = std::map<std::pair<uint32_t, uint32_t>, uint64_t>; // by port and counter

    Drops ReadDrops()
    {
        Drops drops;
        for (const PortConfig &port : config.ports) {
            LiveCounters counters;
            EXPECT_EQ(run.path.Tables().ReadCounters(port.number, counters), vshost::STATUS_OK);
            for (const auto &[name, counter] : DROPS)
                drops[{port.number, counter}] = counters.values[counter];
        }
        return drops;
    }

    // The frames that were sent, in the form of a row.
    static std::string Describe(const std::vector<Sent> &sent)
    {
        std::string text;
        for (const Sent &one : sent) {
            const uint8_t *tag = &one.head[12];
            text += std::to_string(one.port);
            if (tag[0] == 0x81 || tag[0] == 0x88)
                text += (tag[0] == 0x81 ? ":" : ":s") + std::to_string((tag[2] & 15) << 8 | tag[3]) + "/" +
                        std::to_string(tag[2] >> 5) + ((tag[2] & 0x10) ? "/1 " : " ");
            else
                text += " ";
        }
        return text;
    }

    void Send(const std::string &line)
    {
        const size_t arrow = line.find("=>");
        std::vector<std::string> in = Split(line.substr(0, arrow), ' ');
        const uint32_t port = Number(in[0]);
        const TestFrame frame = Frame({in.begin() + 1, in.end()});
        Drops drops = ReadDrops();

        std::vector<Sent> expected;
        for (const std::string &word : Split(line.substr(arrow + 2), ' ')) {
            const size_t mark = word.find('!');
            if (mark != std::string::npos) {
                drops[{mark == 0 ? port : Number(word), DROPS.at(word.substr(mark + 1))}]++;
                continue;
            }
            const size_t colon = word.find(':');
            const size_t cut = std::min(word.find('^'), word.size());
            const std::string tag = colon == std::string::npos ? word.substr(cut) : word.substr(colon + 1);
            expected.push_back(MakeSent(Number(word), frame.With(tag)));
        }
        std::sort(expected.begin(), expected.end());
        const std::vector<Sent> sent =
            run.Run(port, frame.With(frame.tags.empty() ? "" : frame.tags[0]), frame.segmentSize);
        EXPECT_TRUE(sent == expected) << "sent " << Describe(sent) << "\nexpected " << Describe(expected);
        EXPECT_EQ(ReadDrops(), drops);
    }

    PortConfig &Port(uint32_t number)
    {
        return *std::find_if(config.ports.begin(), config.ports.end(),
                             [&](const PortConfig &port) { return port.number == number; });
    }

    void Do(const std::vector<std::string> &words)
    {
        static const std::map<std::string, void (Scenario::*)(const std::vector<std::string> &)> VERBS = {
            {"wait", &Scenario::Wait},         {"link", &Scenario::SetLink},
            {"set", &Scenario::SetPort},       {"add", &Scenario::AddTo},
            {"switch", &Scenario::Rewrite},    {"ports", &Scenario::Replug},
            {"sweep", &Scenario::Sweep},       {"forget", &Scenario::Forget},
            {"static", &Scenario::Static},     {"count", &Scenario::CheckCounters},
            {"table", &Scenario::CheckTable},  {"session", &Scenario::CheckSession},
            {"announce", &Scenario::Announce}, {"groups", &Scenario::CheckGroups},
            {"rooms", &Scenario::CheckRooms},  {"serve", &Scenario::Serve},
        };
        (this->*VERBS.at(words[0]))(words);
    }

    void Expect(vshost::VsStatus status) { EXPECT_EQ(status, vshost::STATUS_OK) << run.path.Message(); }

    // "wait 1000": milliseconds pass.
    void Wait(const std::vector<std::string> &words)
    {
        run.SetTime(now += Number(words[1]) * uint64_t{1000000});
    }

    // "link 9 2": sending to the port's interface answers 2.
    void SetLink(const std::vector<std::string> &words)
    {
        run.SetLink(Number(words[1]), std::stoi(words[2]));
    }

    // "set 1 vlan=10": replaces the port's policies.
    void SetPort(const std::vector<std::string> &words)
    {
        const PortConfig port = Config(words[1]).ports[0];
        Port(port.number) = port;
        AddTo(words);
    }

    // "add 1 block": adds these policies.
    void AddTo(const std::vector<std::string> &words)
    {
        PortConfig &port = Port(Number(words[1]));
        for (size_t i = 2; i < words.size(); i++)
            SetPolicy(port, words[i]);
        run.Publish(port);
    }

    // "switch mtu=1000": the row's ports with other policies of the switch.
    void Rewrite(const std::vector<std::string> &words)
    {
        run.Publish(config = Config(std::string(row.ports) + "; " + Join(words)));
    }

    // "ports 1; 9 up": replaces the ports.
    void Replug(const std::vector<std::string> &words)
    {
        run.Publish(config = Config(Join({words.begin() + 1, words.end()})));
    }

    // "serve": a daemon follows links.
    void Serve(const std::vector<std::string> &) { run.Serve(); }

    void Sweep(const std::vector<std::string> &) { Expect(run.path.Sweep()); }

    void Forget(const std::vector<std::string> &words) { Expect(run.path.ForgetLearned(Number(words[1]))); }

    // "static 1 10 s": port, VLAN, address.
    void Static(const std::vector<std::string> &words)
    {
        const auto vlan = static_cast<uint16_t>(Number(words[2]));
        Expect(run.path.AddStaticAddress(Number(words[1]), vlan, Mac(words[3][0]).data()));
    }

    // "announce 1 10 a 9 => 9:10": the network is told of an address of port 1 in VLAN 10 by uplink 9, and
    // the frame leaves by it tagged. What the data path answers instead of sending stands in the frame's
    // place. "8!" before the uplink: the port has gone past uplink 8.
    void Announce(const std::vector<std::string> &words)
    {
        static const std::map<std::string, int> RESULTS = {
            {"gone", LIVE_NOT_FOUND}, {"not-carried", LIVE_NOT_CARRIED}, {"not-sent", LIVE_NOT_SENT}};
        const size_t mark = words[4].find('!');
        const uint32_t uplink = Number(words[4].substr(mark == std::string::npos ? 0 : mark + 1));
        Announcement announcement;
        announcement.address.vlan = static_cast<uint16_t>(Number(words[2]));
        std::memcpy(announcement.address.mac, Mac(words[3][0]).data(), 6);
        announcement.place = PlaceOf(uplink);
        if (mark != std::string::npos) announcement.passed = 1u << PlaceOf(Number(words[4]));
        Expect(run.path.SlotOfPort(Number(words[1]), announcement.slot));
        Expect(run.path.SlotOfPort(uplink, announcement.uplinkSlot));

        TestFrame frame;
        frame.source = words[3][0];
        frame.destination = '*';
        frame.etherType = 0x8035;
        frame.payload = {0, 1, 8, 0, 6, 4, 0, 3};
        for (int address = 0; address < 2; address++) {
            for (uint8_t byte : Mac(words[3][0]))
                frame.payload.push_back(byte);
            frame.payload.insert(frame.payload.end(), 4, 0);
        }
        frame.length = 60;
        frame.payload.resize(frame.length - 14);
        const auto failure = RESULTS.find(words[6]);
        const size_t colon = words[6].find(':');
        std::vector<Sent> expected;
        if (failure == RESULTS.end())
            expected = {
                MakeSent(uplink, frame.With(colon == std::string::npos ? "" : words[6].substr(colon + 1)))};
        int result = 0;
        const std::vector<Sent> sent = run.Announce(announcement, result);
        EXPECT_TRUE(sent == expected) << "sent " << Describe(sent) << "\nexpected " << Describe(expected);
        EXPECT_EQ(result, failure == RESULTS.end() ? LIVE_DONE : failure->second);
    }

    // Among the uplinks of the snapshot.
    uint32_t PlaceOf(uint32_t uplink) const
    {
        return static_cast<uint32_t>(
            std::count_if(config.ports.begin(), config.ports.end(),
                          [&](const PortConfig &port) { return port.uplink && port.number < uplink; }));
    }

    void CheckTable(const std::vector<std::string> &words)
    {
        EXPECT_EQ(Table(), Join({words.begin() + 1, words.end()}));
    }

    static std::string Join(const std::vector<std::string> &words)
    {
        std::string text;
        for (const std::string &word : words)
            text += (text.empty() ? "" : " ") + word;
        return text;
    }

    // "count 1 LEARNED=3": counters of a port.
    void CheckCounters(const std::vector<std::string> &words)
    {
        static const std::map<std::string, uint32_t> NAMES = {
            {"FROM", LIVE_FROM_PACKETS},
            {"FROM_BYTES", LIVE_FROM_BYTES},
            {"TO", LIVE_TO_PACKETS},
            {"TO_BYTES", LIVE_TO_BYTES},
            {"FROM_MULTI", LIVE_FROM_MULTICAST},
            {"FROM_BROAD", LIVE_FROM_BROADCAST},
            {"TO_MULTI", LIVE_TO_MULTICAST},
            {"TO_BROAD", LIVE_TO_BROADCAST},
            {"LEARNED", LIVE_LEARNED},
            {"REFUSED", LIVE_REFUSED},
            {"FAILOVERS", LIVE_FAILOVERS},
            {"FAILBACKS", LIVE_FAILBACKS},
        };
        LiveCounters counters;
        ASSERT_EQ(run.path.Tables().ReadCounters(Number(words[1]), counters), vshost::STATUS_OK);
        for (size_t i = 2; i < words.size(); i++) {
            const size_t equals = words[i].find('=');
            EXPECT_EQ(counters.values[NAMES.at(words[i].substr(0, equals))],
                      Number(words[i].substr(equals + 1)))
                << words[i];
        }
    }

    // "session m SENT=3": counters of a mirror session.
    void CheckSession(const std::vector<std::string> &words)
    {
        static const std::map<std::string, uint32_t> NAMES = {
            {"FROM", LIVE_MIRROR_FROM_PACKETS},       {"FROM_BYTES", LIVE_MIRROR_FROM_BYTES},
            {"TO", LIVE_MIRROR_TO_PACKETS},           {"TO_BYTES", LIVE_MIRROR_TO_BYTES},
            {"SENT", LIVE_MIRROR_SENT_PACKETS},       {"SENT_BYTES", LIVE_MIRROR_SENT_BYTES},
            {"DROPPED", LIVE_MIRROR_DROPPED_PACKETS}, {"DROPPED_BYTES", LIVE_MIRROR_DROPPED_BYTES},
            {"TRUNCATED", LIVE_MIRROR_TRUNCATED},     {"UNREACHABLE", LIVE_MIRROR_UNREACHABLE},
        };
        std::vector<MirrorEntry> entries;
        ASSERT_EQ(run.path.Tables().ReadMirrors("switch", entries), vshost::STATUS_OK);
        const auto isIt = [&](const MirrorEntry &entry) { return entry.id == words[1]; };
        const auto session = std::find_if(entries.begin(), entries.end(), isIt);
        ASSERT_NE(session, entries.end());
        for (size_t i = 2; i < words.size(); i++) {
            const size_t equals = words[i].find('=');
            EXPECT_EQ(session->counters.values[NAMES.at(words[i].substr(0, equals))],
                      Number(words[i].substr(equals + 1)))
                << words[i];
        }
    }

    // The address table as "port:vlan:address", a static one with "!".
    std::string Table()
    {
        std::vector<AddressEntry> entries;
        EXPECT_EQ(run.path.Tables().ReadAddresses("switch", entries), vshost::STATUS_OK);
        std::vector<std::string> words;
        for (const AddressEntry &entry : entries)
            words.push_back(std::to_string(entry.portNumber) + ":" + std::to_string(entry.vlan) + ":" +
                            static_cast<char>(entry.mac[5]) + (entry.isStatic ? "!" : ""));
        std::sort(words.begin(), words.end());
        return Join(words);
    }

    void CheckGroups(const std::vector<std::string> &words)
    {
        EXPECT_EQ(Groups(), Join({words.begin() + 1, words.end()}));
    }

    // "rooms 1 2 0": how many groups, sources and queriers of ports take room.
    void CheckRooms(const std::vector<std::string> &words)
    {
        uint32_t groups = 0, sources = 0, queriers = 0;
        for (const PortConfig &port : config.ports) {
            uint32_t slot = 0;
            ASSERT_EQ(run.path.SlotOfPort(port.number, slot), vshost::STATUS_OK);
            groups += run.path.Kernel().ports[slot].groups;
            sources += run.path.Kernel().ports[slot].groupSources;
            queriers += run.path.Kernel().ports[slot].queriers;
        }
        EXPECT_EQ("rooms " + std::to_string(groups) + " " + std::to_string(sources) + " " +
                      std::to_string(queriers),
                  Join(words));
    }

    // The groups as "VLAN:4G:2-x": IPv4, members, sources. With "+" the sources are wanted, with "-" all
    // others.
    std::string Groups()
    {
        std::vector<GroupEntry> entries;
        EXPECT_EQ(run.path.Tables().ReadGroups("switch", entries), vshost::STATUS_OK);
        std::vector<std::string> words;
        for (const GroupEntry &entry : entries) {
            const bool isIpv6 = entry.family != 0x0800;
            std::string &word = words.emplace_back(std::to_string(entry.vlan) + (isIpv6 ? ":6" : ":4"));
            word += GroupLetter(isIpv6, entry.group.data());
            word += ":" + std::to_string(entry.ports) + (entry.excludes ? "-" : "+");
            for (const GroupAddress &source : entry.sources)
                word += static_cast<char>(source[isIpv6 ? 15 : 3]);
        }
        return Join(words);
    }

    const Row &row;
    SwitchConfig config;
    uint64_t now = 1000000000;
    Medium &run;
};

}

void Play(Medium &medium, const Row &row) { Scenario(medium, row).Play(); }

bool NeedsTestRun(const Row &row)
{
    return std::any_of(row.lines.begin(), row.lines.end(), [](const std::string line) {
        return line.starts_with("wait") || line.starts_with("link") || line.find("len=") != std::string::npos;
    });
}

}
