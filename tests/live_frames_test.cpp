// Frames through the data path, in the kernel's test run: which ports get them, with which bytes and tags.
#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <sstream>

#include "tests/live_fixture.h"

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
        {"access", [&] { port.trunk = false; }},
        {"trunk", [&] { port.trunk = true, port.ranges = Ranges(value); }},
        {"vlan", [&] { port.vlanId = static_cast<uint16_t>(Number(value)); }},
        {"prio", [&] { port.priority = Number(value); }},
        {"block", [&] { port.blocked = true; }},
        {"learn", [&] { port.learning = true, port.addressLimit = Number(value); }},
        {"limit", [&] { port.addressLimit = Number(value); }},
        {"over", [&] { port.forwardsOverLimit = true; }},
        {"unknown", [&] { port.takesUnknown = true; }},
        {"sink", [&] { port.sink = true; }},
    };
    policies.at(word.substr(0, equals))();
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
                if (word.starts_with("limit=")) config.addressLimit = Number(value);
                if (word.starts_with("age=")) config.ageingSeconds = Number(value);
            }
            continue;
        }
        PortConfig port;
        port.number = port.ifindex = Number(words[0]);
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

    // Without the outer tag.
    Bytes Inner() const
    {
        Bytes bytes;
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

    // With this outer tag; empty: none.
    Bytes With(const std::string &outer) const
    {
        Bytes bytes = Inner(), tag;
        if (!outer.empty()) Append(tag, Tag(outer), 4);
        bytes.insert(bytes.begin() + 12, tag.begin(), tag.end());
        return bytes;
    }
};

// "a>b 10/3,7 len=1000 seg=500 tcp": source, destination, tags, and what else is to be said.
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
        } else
            for (const std::string &tag : Split(word, ','))
                frame.tags.push_back(tag);
    }
    return frame;
}

const std::map<std::string, uint32_t> DROPS = {
    {"BLOCKED", LIVE_DROP_BLOCKED},   {"VLAN", LIVE_DROP_VLAN},     {"LIMIT", LIVE_DROP_LEARNING_LIMIT},
    {"FILTER", LIVE_DROP_FILTER},     {"LENGTH", LIVE_DROP_LENGTH}, {"FLOOD", LIVE_DROP_FLOOD_LIMIT},
    {"NOT_SENT", LIVE_DROP_NOT_SENT},
};

// A row of a table: a switch, and what happens on it, line by line.
struct Row {
    const char *name;
    const char *ports;
    std::vector<const char *> lines;
};

// "1 a>b 10 => 2 9:10/3 !VLAN": a frame into port 1; it leaves by port 2 untagged and by port 9 with a tag,
// and counts as dropped at port 1 ("2!VLAN": at port 2). Other lines change something, see Do().
class Scenario {
public:
    Scenario(const LoadOptions &options, const Row &row) : row(row), config(Config(row.ports)), run(options)
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
            EXPECT_EQ(run.path.ReadCounters(port.number, counters), vshost::STATUS_OK);
            for (const auto &[name, counter] : DROPS)
                drops[{port.number, counter}] = counters.values[counter];
        }
        return drops;
    }

    // What was sent, as a row would say it.
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
            const std::string tag = colon == std::string::npos ? "" : word.substr(colon + 1);
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
            {"wait", &Scenario::Wait},        {"link", &Scenario::SetLink},
            {"set", &Scenario::SetPort},      {"add", &Scenario::AddTo},
            {"switch", &Scenario::Rewrite},   {"ports", &Scenario::Replug},
            {"host", &Scenario::SetHost},     {"sweep", &Scenario::Sweep},
            {"forget", &Scenario::Forget},    {"static", &Scenario::Static},
            {"remove", &Scenario::Remove},    {"count", &Scenario::CheckCounters},
            {"table", &Scenario::CheckTable},
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

    // "set 1 vlan=10": the port has these policies and no others.
    void SetPort(const std::vector<std::string> &words)
    {
        const PortConfig port = Config(words[1]).ports[0];
        Port(port.number) = port;
        AddTo(words);
    }

    // "add 1 block": these policies besides.
    void AddTo(const std::vector<std::string> &words)
    {
        PortConfig &port = Port(Number(words[1]));
        for (size_t i = 2; i < words.size(); i++)
            SetPolicy(port, words[i]);
        Change change;
        Expect(run.path.PreparePort(port, change));
        run.path.Publish(change);
    }

    // "switch mtu=1000": the row's ports with other policies of the switch.
    void Rewrite(const std::vector<std::string> &words)
    {
        run.Publish(config = Config(std::string(row.ports) + "; " + Join(words)));
    }

    // "ports 1; 9 up": these ports instead.
    void Replug(const std::vector<std::string> &words)
    {
        run.Publish(config = Config(Join({words.begin() + 1, words.end()})));
    }

    // "host off limit=5 flood=2": what holds for all switches.
    void SetHost(const std::vector<std::string> &words)
    {
        HostConfig host;
        for (const std::string &word : words) {
            if (word == "off") host.learningEnabled = false;
            if (word.starts_with("limit=")) host.addressLimit = Number(word.substr(6));
            if (word.starts_with("flood=")) host.floodLimit = Number(word.substr(6));
        }
        run.path.SetHost(host);
    }

    void Sweep(const std::vector<std::string> &) { Expect(run.path.Sweep()); }

    void Forget(const std::vector<std::string> &words) { Expect(run.path.ForgetLearned(Number(words[1]))); }

    // "static 1 10 s": port, VLAN, address.
    void Static(const std::vector<std::string> &words)
    {
        const auto vlan = static_cast<uint16_t>(Number(words[2]));
        Expect(run.path.AddStaticAddress(Number(words[1]), vlan, Mac(words[3][0]).data()));
    }

    void Remove(const std::vector<std::string> &words)
    {
        const auto vlan = static_cast<uint16_t>(Number(words[2]));
        Expect(run.path.RemoveAddress(Number(words[1]), vlan, Mac(words[3][0]).data()));
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
            {"MOVED", LIVE_MOVED},
            {"AGED", LIVE_AGED},
            {"REFUSED", LIVE_REFUSED},
            {"REFLECTED", LIVE_REFLECTED},
            {"FAILOVERS", LIVE_FAILOVERS},
            {"FAILBACKS", LIVE_FAILBACKS},
        };
        LiveCounters counters;
        ASSERT_EQ(run.path.ReadCounters(Number(words[1]), counters), vshost::STATUS_OK);
        for (size_t i = 2; i < words.size(); i++) {
            const size_t equals = words[i].find('=');
            EXPECT_EQ(counters.values[NAMES.at(words[i].substr(0, equals))],
                      Number(words[i].substr(equals + 1)))
                << words[i];
        }
    }

    // The address table as "port:vlan:address", a static one with "!".
    std::string Table()
    {
        std::vector<AddressEntry> entries;
        EXPECT_EQ(run.path.ReadAddresses("switch", entries), vshost::STATUS_OK);
        std::vector<std::string> words;
        for (const AddressEntry &entry : entries)
            words.push_back(std::to_string(entry.portNumber) + ":" + std::to_string(entry.vlan) + ":" +
                            static_cast<char>(entry.mac[5]) + (entry.isStatic ? "!" : ""));
        std::sort(words.begin(), words.end());
        return Join(words);
    }

    const Row &row;
    SwitchConfig config;
    uint64_t now = 1000000000;
    TestRun run;
};

class LiveFrames : public LiveTest {
protected:
    void Play(const std::vector<Row> &rows)
    {
        for (const Row &row : rows) {
            Scenario(Options(), row).Play();
            TearDown();
        }
    }
};

// ---- Tables ----

TEST_F(LiveFrames, Vlans)
{
    Play({
        {"access VLANs are apart, tagged on uplinks",
         "1 vlan=10; 2 vlan=10; 3 vlan=20; 9 up",
         {"1 a>* => 2 9:10", "3 c>* => 9:20", "2 b>a => 1", "9 z>* 10 => 1 2", "9 z>a 10/5 => 1",
          "9 z>* 20 => 3", "9 z>* 30 =>", "3 c>a => 9:20"}},
        {"VLAN 0 is untagged everywhere",
         "1 vlan=0; 2 vlan=0; 3 vlan=10; 9 up",
         {"1 a>* => 2 9", "9 z>* => 1 2", "9 z>* 0/3 => 1 2", "9 z>* 10 => 3"}},
        {"an access port takes no tags but priority tags, which count as none",
         "1 vlan=10; 2 vlan=10; 3; 9 up",
         {"1 a>* 10 => !VLAN", "1 a>* 11 => !VLAN", "1 a>* s10 => !VLAN", "1 a>* 0 => 2 9:10",
          "1 a>* 0/7 => 2 9:10", "1 a>* 0,20 => !VLAN", "3 a>* 0,20 => !VLAN", "3 a>* 0,s20 => !VLAN",
          "1 a>* 4095 => !VLAN"}},
        {"access VLANs that there are not",
         "1 vlan=4094; 2 vlan=4095; 3 vlan=4096; 4 vlan=65535; 5 trunk=0-4095; 9 up",
         {"1 a>* => 5:4094 9:4094", "2 b>* => !VLAN", "3 c>* => !VLAN", "4 d>* => !VLAN",
          "9 z>* 4094 => 1 5:4094", "9 z>* 4095 => !VLAN", "9 z>* => 5", "5 e>* 4095 => !VLAN"}},
        {"a trunk keeps tags and carries its ranges alone",
         "1 trunk=5-7,9-9; 2 trunk=7-5; 3 trunk=0,7; 4 vlan=7; 5 trunk=; 9 up",
         {"1 a>* 7/3/1 => 3:7/3/1 4 9:7/3/1", "1 a>* 4 => !VLAN", "1 a>* 5 => 9:5", "1 a>* 9 => 9:9",
          "1 a>* 8 => !VLAN", "1 a>* => !VLAN", "2 b>* 6 => !VLAN", "3 c>* => 9", "3 c>* 0/5 => 9:0/5",
          "4 d>* => 1:7 3:7 9:7", "5 e>* => !VLAN", "1 a>* s7 => !VLAN", "9 z>* 7,8 => 1:7 3:7 4"}},
        {"a whole trunk",
         "1 trunk=0-4094; 2 vlan=0; 3 vlan=1; 4 vlan=4094; 9 up",
         {"1 a>* => 2 9", "1 a>* 1 => 3 9:1", "1 a>* 4094 => 4 9:4094", "1 a>* 2,3 => 9:2"}},
        {"an inner tag is payload",
         "1 trunk=100; 2 trunk=100; 3 vlan=100; 9 up",
         {"1 a>* 100,200,s300 => 2:100 3 9:100", "9 z>a 100,5 => 1:100",
          "9 z>* 100/2,s5 => 1:100/2 2:100/2 3"}},
        {"uplinks carry untagged frames beside their ranges",
         "1; 2 vlan=5; 3 vlan=6; 8 up trunk=5-5; 9 up trunk=6-6",
         {"1 a>* => 9", "2 b>* => 8:5", "3 c>* => 9:6", "9 z>* => 1", "8 y>* 6 => !VLAN", "8 y>* 5 => 2"}},
        {"an uplink that is no trunk has one VLAN, untagged",
         "1 vlan=5; 2; 9 up access vlan=5",
         {"1 a>* => 9", "2 b>* => !NOT_SENT", "9 z>* => 1", "9 z>* 5 => !VLAN"}},
        {"ranges of a port that is no trunk have no effect",
         "1 trunk=10-20 access vlan=3; 2 vlan=10; 9 up",
         {"1 a>* => 9:3", "1 a>* 10 => !VLAN", "2 b>* => 9:10"}},
        {"priorities",
         "1 vlan=10 prio=5; 2 vlan=10 prio=0; 3 vlan=10 prio=8; 4 trunk=10,0 prio=6; 5 prio=7; 6 trunk=10; 9 "
         "up",
         {"1 a>* 0/3 => 2 3 4:10/5 6:10/5 9:10/5", "2 b>* => 1 3 4:10 6:10 9:10",
          "3 c>* => 1 2 4:10 6:10 9:10", "4 d>* 10/1/1 => 1 2 3 6:10/6/1 9:10/6/1", "4 d>* => 5 9",
          "4 d>* 0/1 => 5 9:0/6", "5 e>* => 4 9", "6 f>* 10/2 => 1 2 3 4:10/2 9:10/2"}},
        {"changes of VLANs are true at once and forget addresses",
         "1 vlan=10; 2 vlan=10; 3 trunk=20; 9 up",
         {"1 a>* => 2 9:10", "2 b>a => 1", "set 1 vlan=20", "2 b>a => 9:10", "1 a>* => 3:20 9:20",
          "set 1 trunk=10,20", "1 a>* => !VLAN", "1 a>* 10 => 2 9:10", "2 b>a => 1:10", "set 1 trunk=20",
          "2 b>a => 9:10", "1 a>* 10 => !VLAN", "add 1 prio=3", "1 a>* 20/1 => 3:20/3 9:20/3"}},
    });
}

TEST_F(LiveFrames, PortBlock)
{
    Play({
        {"nothing in, nothing out",
         "1; 2; 3; 9 up",
         {"1 a>* => 2 3 9", "add 1 block", "1 a>* => !BLOCKED", "2 b>* => 3 9", "2 b>a => 1!BLOCKED", "set 1",
          "2 b>a => 1", "1 a>b => 2"}},
        {"a blocked uplink is not chosen",
         "1; 8 up block; 9 up",
         {"1 a>z => 9", "8 z>* => !BLOCKED", "add 9 block", "1 a>z => !NOT_SENT", "1 a>* => !NOT_SENT"}},
    });
}

TEST_F(LiveFrames, Addresses)
{
    Play({
        {"a port without learning has the address last seen",
         "1; 2; 9 up",
         {"1 a>* => 2 9", "2 b>a => 1", "1 c>* => 2 9", "2 b>a => 9", "2 b>c => 1", "1 a>* => 2 9",
          "2 b>a => 1", "2 b>c => 9", "table 1:0:a 2:0:b", "count 1 LEARNED=3 REFUSED=0"}},
        {"on a trunk it has it in each VLAN",
         "1 trunk=0-30; 2 vlan=10; 3 vlan=20; 9 up",
         {"1 a>* 10 => 2 9:10", "1 a>* 20 => 3 9:20", "2 b>a => 1:10", "3 c>a => 1:20", "1 d>* 10 => 2 9:10",
          "2 b>a => 9:10", "3 c>a => 9:20", "2 b>d => 1:10", "sweep", "table 1:10:d 2:10:b 3:20:c",
          "1 a>* 20 => 3 9:20", "3 c>a => 1:20", "2 b>d => 9:10"}},
        {"a port with learning has as many as its limit",
         "1 learn=2; 2; 9 up",
         {"1 a>* => 2 9", "1 c>* => 2 9", "1 d>* => !LIMIT", "1 a>* => 2 9", "2 b>a => 1", "2 b>c => 1",
          "2 b>d => 9", "count 1 LEARNED=2 REFUSED=1", "add 1 over", "1 d>* => 2 9", "2 b>d => 9",
          "count 1 REFUSED=2", "add 1 learn=3", "1 d>* => 2 9", "2 b>d => 1"}},
        {"no address at all is over a limit of 0", "1 learn=0; 2; 9 up", {"1 a>* => !LIMIT", "2 b>a => 9"}},
        {"limits of the switch and of the host",
         "1 learn=10; 2 learn=10 over; 3; 9 up; switch limit=3",
         {"1 a>* => 2 3 9", "1 b>* => 2 3 9", "2 c>* => 1 3 9", "1 d>* => !LIMIT", "2 d>* => 1 3 9",
          "3 e>* => 1 2 9", "count 3 REFUSED=1", "2 c>e => 9", "switch limit=4", "host limit=4",
          "2 d>* => 1 3 9", "1 c>d => 2", "switch limit=9", "3 e>* => 1 2 9", "2 c>e => 9", "host limit=5",
          "3 e>* => 1 2 9", "2 c>e => 3", "table 1:0:a 1:0:b 2:0:c 2:0:d 3:0:e"}},
        {"nobody learns",
         "1; 2 learn=5; 9 up",
         {"1 a>* => 2 9", "host off", "2 b>* => 1 9", "1 c>b => 9", "2 b>a => 1", "2 b>c => 9", "host",
          "2 b>* => 1 9", "1 a>b => 2"}},
        {"addresses move between ports, within limits",
         "1 learn=5; 2 learn=1; 3; 9 up",
         {"1 a>* => 2 3 9", "2 a>* => 1 3 9", "3 c>a => 2", "count 2 MOVED=1", "1 b>* => 2 3 9",
          "2 b>* => !LIMIT", "3 c>b => 1", "3 b>* => 1 2 9", "1 a>* => 2 3 9", "3 b>a => 1",
          "table 1:0:a 3:0:b"}},
        {"an address at its own port goes nowhere",
         "1 learn=5 unknown; 2; 9 up",
         {"1 a>* => 2 9", "1 b>a =>", "1 a>a =>"}},
        {"the same address in two VLANs is two addresses",
         "1 vlan=10; 2 vlan=20; 3 vlan=10; 4 vlan=20; 9 up",
         {"1 a>* => 3 9:10", "2 a>* => 4 9:20", "3 b>a => 1", "4 b>a => 2"}},
        {"static addresses",
         "1; 2 learn=1; 3; 9 up",
         {"static 1 0 s",
          "2 b>s => 1",
          "3 s>* => 1 2 9",
          "2 b>s => 1",
          "1 a>* => 2 3 9",
          "2 b>a => 1",
          "2 b>s => 1",
          "1 s>* => 2 3 9",
          "3 c>a => 1",
          "forget 1",
          "3 c>a => 9",
          "3 c>s => 1",
          "table 1:0:s! 2:0:b 3:0:c",
          "remove 1 0 s",
          "3 c>s => 9",
          "2 d>* => !LIMIT",
          "static 2 0 b",
          "2 d>* => 1 3 9",
          "3 c>b => 2",
          "static 3 0 d",
          "table 2:0:b! 3:0:c 3:0:d!",
          "3 c>d =>"}},
        {"ageing",
         "1 learn=9; 2; 9 up; switch age=5",
         {"1 a>* => 2 9",
          "2 b>* => 1 9",
          "static 1 0 s",
          "wait 3000",
          "1 c>* => 2 9",
          "2 b>* => 1 9",
          "sweep",
          "table 1:0:a 1:0:c 1:0:s! 2:0:b",
          "wait 1999",
          "sweep",
          "table 1:0:a 1:0:c 1:0:s! 2:0:b",
          "wait 1",
          "sweep",
          "table 1:0:c 1:0:s! 2:0:b",
          "count 1 AGED=1",
          "2 b>a => 9",
          "switch age=0",
          "wait 4000000",
          "sweep",
          "table 1:0:c 1:0:s! 2:0:b"}},
        {"a port that loses its link or learning forgets",
         "1 learn=9; 2; 9 up",
         {"1 a>* => 2 9", "1 c>* => 2 9", "forget 1", "2 b>a => 9", "table 2:0:b", "1 a>* => 2 9",
          "1 c>* => 2 9", "set 1", "2 b>a => 9", "2 b>c => 9", "1 a>* => 2 9", "2 b>a => 1"}},
        {"a port that is removed forgets, also static addresses",
         "1 learn=9; 2; 9 up",
         {"1 a>* => 2 9", "static 1 0 s", "ports 2; 9 up", "2 b>a => 9", "2 b>s => 9", "ports 1; 2; 9 up",
          "table 2:0:b", "1 c>b => 2", "2 b>a => 9"}},
        {"sources that are no station's",
         "1; 2; 9 up",
         {"1 +>* => !FILTER", "1 *>b => !FILTER", "1 0>b => !FILTER", "1 a>0 => 9"}},
    });
}

TEST_F(LiveFrames, UnknownUnicast)
{
    Play({
        {"to the uplink, ports that ask for it, and sink ports",
         "1; 2 unknown; 3 sink; 4; 5 vlan=7 unknown; 6 unknown block; 9 up",
         {"1 a>x => 2 3 9", "9 z>x => 2 3", "2 b>x => 3 9", "9 z>x 7 => 5", "9 z>x 8 =>", "add 4 unknown",
          "1 a>x => 2 3 4 9", "set 2", "1 a>x => 3 4 9"}},
        {"without an uplink",
         "1; 2 unknown; 3 vlan=5",
         {"1 a>x => 2", "2 b>x => !NOT_SENT", "3 c>x => !NOT_SENT", "3 c>* =>", "2 b>a => 1"}},
        {"to an address that its port does not carry any more",
         "1 trunk=5,6; 2 vlan=6; 3 vlan=6 unknown; 9 up",
         {"static 1 6 s", "2 b>s => 1:6", "set 1 trunk=5", "2 b>s => 3 9:6"}},
    });
}

TEST_F(LiveFrames, Floods)
{
    Play({
        {"multicast and broadcast to every port of the VLAN and one uplink",
         "1; 2; 3 trunk=0-9; 4 vlan=2; 7 up; 8 up; 9 up",
         {"1 a>+ => 2 3 8", "9 z>+ => 1 2 3", "3 c>+ 2 => 4 7:2",
          "count 1 FROM=1 FROM_BYTES=64 FROM_MULTI=1 FROM_BROAD=0 TO=1 TO_BYTES=64 TO_MULTI=1 TO_BROAD=0",
          "count 3 FROM=1 FROM_BYTES=68 FROM_MULTI=1 TO=2 TO_BYTES=128 TO_MULTI=2", "1 a>* => 2 3 8",
          "count 1 FROM=2 FROM_BYTES=128 FROM_MULTI=1 FROM_BROAD=1", "count 2 TO=3 TO_MULTI=2 TO_BROAD=1",
          "count 7 TO=1 TO_BYTES=68", "count 8 TO=2"}},
        {"a limit of flooded frames",
         "1; 2; 9 up",
         {"host flood=2", "1 a>* => 2 9", "1 a>+ => 2 9", "1 a>* => !FLOOD", "2 b>* => 1 9", "1 a>b => 2",
          "wait 1000", "1 a>* => 2 9", "host", "1 a>* => 2 9", "1 a>* => 2 9"}},
        {"a port whose interface refuses does not keep the others from getting it",
         "1; 2; 3; 9 up",
         {"link 2 -100", "1 a>* => 3 9 2!NOT_SENT", "link 2 0", "1 a>* => 2 3 9"}},
    });
}

TEST_F(LiveFrames, Uplinks)
{
    Play({
        {"a port keeps one by its number, and goes to the next while that fails",
         "1; 2; 3; 7 up; 8 up; 9 up",
         {"1 a>x => 8",
          "2 b>x => 9",
          "3 c>x => 7",
          "link 8 2",
          "1 a>x => 9",
          "1 a>* => 2 3 9",
          "link 9 -19",
          "1 a>x => 7",
          "2 b>x => 7",
          "count 9 FAILOVERS=1",
          "count 7 FAILOVERS=2",
          "link 9 0",
          "link 8 0",
          "1 a>x => 8",
          "2 b>x => 9",
          "count 8 FAILBACKS=1",
          "count 9 FAILBACKS=1 FAILOVERS=1",
          "link 7 2",
          "link 8 2",
          "link 9 2",
          "1 a>x => !NOT_SENT",
          "1 a>* => 2 3 !NOT_SENT",
          "1 a>b => 2"}},
        {"a full queue is no reason to change",
         "1; 8 up; 9 up",
         {"1 a>x => 9", "link 9 1", "1 a>x => !NOT_SENT", "link 9 0", "1 a>x => 9", "count 8 FAILOVERS=0"}},
        {"uplinks known not to work come last",
         "1; 2; 8 up; 9 up idle",
         {"1 a>x => 8", "2 b>x => 8", "link 8 2", "1 a>x => 9", "link 8 0", "set 9 up", "1 a>x => 9"}},
        {"an uplink that does not carry the VLAN is not chosen",
         "1 vlan=5; 2 vlan=6; 8 up trunk=6; 9 up trunk=5",
         {"1 a>x => 9:5", "2 b>x => 8:6", "link 9 2", "1 a>x => !NOT_SENT"}},
        {"nothing that came by an uplink leaves by one",
         "1; 8 up; 9 up unknown",
         {"8 y>* => 1", "8 y>x =>", "9 z>y =>", "8 y>z =>"}},
        {"addresses behind uplinks",
         "1 ; 2 unknown; 8 up; 9 up",
         {"1 a>y => 2 9", "8 y>* => 1 2", "1 a>y => 9", "9 y>* => 1 2", "table 1:0:a 8:0:y", "forget 8",
          "1 a>y => 2 9", "9 y>* => 1 2", "table 1:0:a 9:0:y", "count 8 MOVED=0", "count 9 MOVED=0"}},
        {"frames that come back",
         "1; 2; 8 up; 9 up",
         {"1 a>* => 2 9", "8 a>* => !FILTER", "count 8 REFLECTED=1", "wait 999", "8 a>* => !FILTER",
          "2 b>a => 1", "wait 1", "8 a>* => 1 2", "2 b>a => 8", "count 8 MOVED=1", "1 a>* => 2 9",
          "2 b>a => 1", "count 1 MOVED=1", "8 a>b => !FILTER"}},
        {"a static address comes back, but does not move",
         "1; 2; 9 up",
         {"static 1 0 s", "9 s>* => 1 2", "1 s>* => 2 9", "9 s>* => !FILTER", "wait 1000", "9 s>* => 1 2",
          "2 b>s => 1"}},
        {"addresses of the network take half of the room and refuse nothing",
         "1 learn=9; 2; 9 up limit=9; switch limit=4",
         {"9 u>* => 1 2", "9 v>* => 1 2", "9 w>* => 1 2", "count 9 LEARNED=2 REFUSED=1", "1 a>* => 2 9",
          "1 c>* => 2 9", "1 d>* => !LIMIT", "wait 1000", "9 a>* => 1 2", "table 1:0:c 9:0:u 9:0:v",
          "1 d>* => 2 9", "2 b>a => 9"}},
    });
}

TEST_F(LiveFrames, Lengths)
{
    Play({
        {"the MTU is without header and tag",
         "1; 2; 3 trunk=7; 9 up; switch mtu=1000",
         {"1 a>* len=1014 => 2 9", "1 a>* len=1015 => !LENGTH", "3 c>* 7 len=1014 => 9:7",
          "3 c>* 7 len=1015 => !LENGTH", "9 z>* len=1015 => !LENGTH", "switch mtu=1500",
          "1 a>* len=1514 => 2 9", "1 a>* len=14 => 2 9"}},
        {"of offloaded frames the segments count",
         "1; 2; switch mtu=1000",
         {"1 a>* tcp4 len=3000 seg=944 => 2", "1 a>* tcp4 len=3000 seg=945 => !LENGTH",
          "1 a>* udp4 len=3000 seg=968 => 2", "1 a>* udp4 len=3000 seg=969 => !LENGTH",
          "1 a>* tcp6 len=3000 seg=940 => 2", "1 a>* tcp6 len=3000 seg=941 => !LENGTH",
          "1 a>* len=3000 seg=960 => 2", "1 a>* len=3000 seg=961 => !LENGTH",
          "1 a>* tcp4 len=1000 seg=5000 => 2"}},
    });
}

}
}
