#include "tests/live_wires.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace live_test {
namespace {

constexpr int BUFFER = 64 << 20; // for all frames of a test that nobody has taken yet
constexpr int PATIENCE = 10000;  // ms, for what is sure to come
constexpr uint32_t PORTS = 9;

Descriptor PacketSocket(uint32_t ifindex)
{
    Descriptor packets(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1, fd = packets.Get();
    setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on));
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on));
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &BUFFER, sizeof(BUFFER));
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(ifindex);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0) << strerror(errno);
    return packets;
}

// The kernel tells of the outer tag beside the bytes.
std::optional<Bytes> ReceivePacket(int fd)
{
    Bytes frame(4096);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    iovec vector = {frame.data(), frame.size()};
    msghdr message = {};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t length = recvmsg(fd, &message, 0);
    if (length < 0) return std::nullopt;
    frame.resize(static_cast<size_t>(length));
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_PACKET || part->cmsg_type != PACKET_AUXDATA) continue;
        tpacket_auxdata details;
        std::memcpy(&details, CMSG_DATA(part), sizeof(details));
        if (!(details.tp_status & TP_STATUS_VLAN_VALID)) continue;
        const uint16_t tag[] = {htons(details.tp_vlan_tpid), htons(details.tp_vlan_tci)};
        const auto *bytes = reinterpret_cast<const uint8_t *>(tag);
        frame.insert(frame.begin() + 12, bytes, bytes + sizeof(tag));
    }
    return frame;
}

class Veth : public Wire {
public:
    explicit Veth(const std::string &name) : Wire(name)
    {
        Shell("ip link add " + name + " type veth peer name far-" + name);
        Shell("ip link set " + name + " up && ip link set far-" + name + " up");
        Opened();
        far = PacketSocket(if_nametoindex(("far-" + name).c_str()));
    }

    ~Veth() override
    {
        [[maybe_unused]] const int gone = system(("ip link del " + name + " 2>/dev/null").c_str());
    }

    void Send(const Bytes &frame) override
    {
        EXPECT_EQ(send(far.Get(), frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()))
            << strerror(errno);
    }

    std::optional<Bytes> Receive() override { return ReceivePacket(far.Get()); }

private:
    Descriptor far;
};

class Tap : public Wire {
public:
    explicit Tap(const std::string &name)
        : Wire(name), far(open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK))
    {
        ifreq request = {};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        request.ifr_flags = IFF_TAP | IFF_NO_PI;
        EXPECT_EQ(ioctl(far.Get(), TUNSETIFF, &request), 0) << strerror(errno);
        Shell("ip link set " + name + " up");
        Opened();
    }

    void Send(const Bytes &frame) override
    {
        EXPECT_EQ(write(far.Get(), frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    }

    std::optional<Bytes> Receive() override
    {
        Bytes frame(4096);
        const ssize_t length = read(far.Get(), frame.data(), frame.size());
        if (length < 0) return std::nullopt;
        frame.resize(static_cast<size_t>(length));
        return frame;
    }

private:
    Descriptor far;
};

Bytes Marker(uint8_t round)
{
    Bytes marker(64, 0xa5);
    marker[13] = round;
    return marker;
}

}

void Shell(const std::string &command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

void StayOnProcessor(size_t index)
{
    static const std::vector<size_t> ALLOWED = [] {
        std::vector<size_t> allowed;
        cpu_set_t processors;
        sched_getaffinity(0, sizeof(processors), &processors);
        for (size_t i = 0; i < CPU_SETSIZE; i++)
            if (CPU_ISSET(i, &processors)) allowed.push_back(i);
        return allowed;
    }();
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(ALLOWED[index % ALLOWED.size()], &processors);
    sched_setaffinity(0, sizeof(processors), &processors);
}

void Wire::Opened()
{
    ifindex = if_nametoindex(name.c_str());
    nearEnd = PacketSocket(ifindex);
}

void Wire::Mark(const Bytes &frame)
{
    EXPECT_EQ(send(nearEnd.Get(), frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
}

WireSet MakeWires(const std::vector<uint32_t> &taps)
{
    WireSet wires;
    for (uint32_t port = 1; port <= PORTS; port++) {
        const std::string name = "port" + std::to_string(port);
        if (std::count(taps.begin(), taps.end(), port))
            wires.push_back(std::make_unique<Tap>(name));
        else
            wires.push_back(std::make_unique<Veth>(name));
    }
    return wires;
}

Wires::Wires(const LoadOptions &options, WireSet &wires) : Medium(options), wires(wires)
{
    StayOnProcessor(0);
    for (const auto &wire : wires)
        EXPECT_EQ(path.Attach(wire->Interface()), vshost::STATUS_OK) << path.Message();
}

Wires::~Wires()
{
    for (const auto &wire : wires)
        path.Detach(wire->Interface());
    path.RemovePins();
}

void Wires::WaitForMarkers(const Bytes &marker, std::vector<Sent> &sent)
{
    for (uint32_t port = 1; port <= PORTS; port++) {
        for (int waited = 0; waited < PATIENCE;) {
            const std::optional<Bytes> frame = At(port).Receive();
            if (frame == marker) break;
            if (frame) {
                sent.push_back(MakeSent(port, *frame));
                continue;
            }
            poll(nullptr, 0, 1);
            if (++waited == PATIENCE) ADD_FAILURE() << "the marker did not come to port " << port;
        }
    }
}

// A processor passes frames on in the order in which they came to it. When the first markers have arrived,
// all that was sent before them has been through the data path; when the second ones have, its copies are
// there.
std::vector<Sent> Wires::Settle()
{
    std::vector<Sent> sent;
    for (size_t processor = PROCESSORS; processor-- > 0;) {
        StayOnProcessor(processor);
        for (size_t round = 0; round < 2; round++) {
            const Bytes marker = Marker(static_cast<uint8_t>(2 * processor + round));
            for (const auto &wire : wires)
                wire->Mark(marker);
            WaitForMarkers(marker, sent);
        }
    }
    std::sort(sent.begin(), sent.end());
    return sent;
}

std::vector<Sent> Wires::Run(uint32_t port, const Bytes &frame, uint32_t)
{
    At(port).Send(frame);
    return Settle();
}

std::vector<Sent> Wires::Announce(const Announcement &announcement, int &result)
{
    result = path.Kernel().Announce(announcement);
    return Settle();
}

}
