// Traffic between two network namespaces, sent and received by one process. Each run prints one number.
//
//   live_traffic tcp|udp SENDER RECEIVER ADDRESS SECONDS      nanoseconds for one byte there and back
//   live_traffic frames SENDER RECEIVER INTERFACE SECONDS     frames of 60 bytes received in a second
//   live_traffic group SENDER RECEIVER INTERFACE SECONDS      the same, to the group 239.1.2.3
//   live_traffic flood SENDER RECEIVER INTERFACE FRAMES PORTS nanoseconds for one broadcast frame to PORTS
//   ports
//
// SENDER and RECEIVER are files of network namespaces. Both stay on one processor: waking up another one
// costs more than all the rest of a round trip.
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <netinet/tcp.h>
#include <netpacket/packet.h>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint16_t PORT = 9000;
constexpr unsigned BATCH = 64;
constexpr timeval PATIENCE = {10, 0};

void Require(bool fine, const char *what)
{
    if (fine) return;
    perror(what);
    exit(1);
}

double Nanoseconds(Clock::duration time) { return std::chrono::duration<double, std::nano>(time).count(); }

// A namespace belongs to a thread: this one is in it from now on.
void Enter(const char *path)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    Require(file >= 0 && setns(file, CLONE_NEWNET) == 0, path);
    close(file);
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(0, &processors);
    sched_setaffinity(0, sizeof(processors), &processors);
}

int MakeSocket(int family, int type, int protocol = 0)
{
    const int made = socket(family, type | SOCK_CLOEXEC, protocol);
    Require(made >= 0, "socket");
    setsockopt(made, SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof(PATIENCE));
    return made;
}

sockaddr_in AddressOf(const char *text)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(PORT);
    Require(inet_pton(AF_INET, text, &address.sin_addr) == 1, text);
    return address;
}

template<typename Address> const sockaddr *Any(const Address &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

struct Sides {
    const char *sender;
    const char *receiver;
    const char *address; // or the interface of the same name on both sides
    double seconds;
};

// A socket of the receiver's namespace, bound to the port.
int MakeReceiver(const Sides &sides, int type)
{
    const int receiver = MakeSocket(AF_INET, type);
    const int on = 1;
    setsockopt(receiver, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in address = AddressOf(sides.address);
    Require(bind(receiver, Any(address), sizeof(address)) == 0, "bind");
    if (type == SOCK_STREAM) Require(listen(receiver, 1) == 0, "listen");
    return receiver;
}

int MakeSender(const Sides &sides, int type)
{
    const int sender = MakeSocket(AF_INET, type);
    const int on = 1;
    if (type == SOCK_STREAM) setsockopt(sender, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    const sockaddr_in address = AddressOf(sides.address);
    Require(connect(sender, Any(address), sizeof(address)) == 0, "connect");
    return sender;
}

// ---- Round trips ----

void AnswerStream(int listener)
{
    const int peer = accept(listener, nullptr, nullptr);
    const int on = 1;
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    for (char byte; recv(peer, &byte, 1, 0) == 1;)
        send(peer, &byte, 1, MSG_NOSIGNAL);
}

// Until a packet of another length comes.
void AnswerPackets(int receiver)
{
    sockaddr_storage from = {};
    char bytes[2];
    for (;;) {
        socklen_t size = sizeof(from);
        if (recvfrom(receiver, bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr *>(&from), &size) != 1)
            return;
        sendto(receiver, bytes, 1, 0, reinterpret_cast<sockaddr *>(&from), size);
    }
}

void MeasureRoundTrips(const Sides &sides, int type)
{
    std::atomic<bool> listens = false;
    std::thread receiver([&] {
        Enter(sides.receiver);
        const int socket = MakeReceiver(sides, type);
        listens = true;
        type == SOCK_STREAM ? AnswerStream(socket) : AnswerPackets(socket);
    });
    while (!listens)
        std::this_thread::yield();
    Enter(sides.sender);
    const int sender = MakeSender(sides, type);
    const auto begin = Clock::now();
    auto now = begin;
    uint64_t trips = 0;
    for (; Nanoseconds(now - begin) < sides.seconds * 1e9; now = Clock::now()) {
        char byte = 'x';
        Require(send(sender, &byte, 1, 0) == 1 && recv(sender, &byte, 1, 0) == 1, "round trip");
        trips++;
    }
    printf("%.0f\n", Nanoseconds(now - begin) / static_cast<double>(trips));
    type == SOCK_STREAM ? shutdown(sender, SHUT_RDWR) : static_cast<int>(send(sender, "xx", 2, 0));
    receiver.join();
}

// ---- Frames ----

constexpr size_t SHORTEST = 60; // without the checksum of the frame

using Frame = std::array<unsigned char, SHORTEST>;

ifreq AddressOfInterface(const char *interface)
{
    ifreq request = {};
    strncpy(request.ifr_name, interface, sizeof(request.ifr_name) - 1);
    Require(ioctl(MakeSocket(AF_INET, SOCK_DGRAM), SIOCGIFHWADDR, &request) == 0, interface);
    return request;
}

// Of an EtherType that no receiver knows, so that what receiving costs counts for little.
Frame MakeFrame(const void *destination, const char *interface)
{
    Frame frame = {};
    memcpy(frame.data(), destination, 6);
    memcpy(frame.data() + 6, AddressOfInterface(interface).ifr_hwaddr.sa_data, 6);
    frame[12] = 0x88;
    frame[13] = 0xb5; // for local experiments
    return frame;
}

int MakeFrameSender(const char *interface)
{
    const int sender = MakeSocket(AF_PACKET, SOCK_RAW);
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    Require(address.sll_ifindex != 0 && bind(sender, Any(address), sizeof(address)) == 0, interface);
    return sender;
}

// Packets that the interfaces of this thread's namespace have received.
uint64_t ReceivedHere()
{
    std::ifstream file("/proc/thread-self/net/dev");
    uint64_t sum = 0;
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find(':');
        unsigned long long bytes = 0, packets = 0;
        if (colon == std::string::npos || line.find("lo:") != std::string::npos) continue;
        if (sscanf(line.c_str() + colon + 1, "%llu %llu", &bytes, &packets) == 2) sum += packets;
    }
    return sum;
}

Frame MakeFrameTo(const Sides &sides)
{
    Enter(sides.receiver);
    const ifreq receiver = AddressOfInterface(sides.address);
    Enter(sides.sender);
    return MakeFrame(receiver.ifr_hwaddr.sa_data, sides.address);
}

// UDP over IPv4. Its checksum is wrong, so that the receiver drops it at once, as a member and as none.
Frame MakeGroupFrame(const Sides &sides)
{
    constexpr unsigned char HEADER[] = {0x08, 0x00, 0x45, 0,  0, 46, 0, 0,   0, 0, 4,
                                        17,   0xff, 0xff, 10, 9, 0,  1, 239, 1, 2, 3};
    Enter(sides.sender);
    Frame frame = MakeFrame("\x01\x00\x5e\x01\x02\x03", sides.address);
    memcpy(frame.data() + 12, HEADER, sizeof(HEADER));
    return frame;
}

void MeasureFrames(const Sides &sides, Frame frame)
{
    Enter(sides.sender);
    const int sender = MakeFrameSender(sides.address);
    iovec part = {frame.data(), frame.size()};
    std::array<mmsghdr, BATCH> batch = {};
    for (mmsghdr &message : batch) {
        message.msg_hdr.msg_iov = &part;
        message.msg_hdr.msg_iovlen = 1;
    }
    Enter(sides.receiver);
    const uint64_t before = ReceivedHere();
    const auto begin = Clock::now();
    while (Nanoseconds(Clock::now() - begin) < sides.seconds * 1e9)
        sendmmsg(sender, batch.data(), BATCH, 0);
    const auto count = static_cast<double>(ReceivedHere() - before);
    printf("%.0f\n", count / (Nanoseconds(Clock::now() - begin) / 1e9));
}

// ---- Floods ----

struct Flood {
    Sides sides; // the address is the sender's interface
    uint64_t frames;
    uint64_t ports;
};

void MeasureFlood(const Flood &flood)
{
    Enter(flood.sides.sender);
    const int sender = MakeFrameSender(flood.sides.address);
    const Frame frame = MakeFrame("\xff\xff\xff\xff\xff\xff", flood.sides.address);
    Enter(flood.sides.receiver);
    const uint64_t expected = ReceivedHere() + flood.frames * flood.ports;
    const auto begin = Clock::now();
    for (uint64_t i = 0; i < flood.frames; i++)
        Require(send(sender, frame.data(), frame.size(), 0) > 0, "send");
    uint64_t received = 0;
    while ((received = ReceivedHere()) < expected && Nanoseconds(Clock::now() - begin) < 10e9)
        usleep(200);
    const double time = Nanoseconds(Clock::now() - begin);
    if (received < expected) {
        fprintf(stderr, "%llu of %llu copies were lost\n",
                static_cast<unsigned long long>(expected - received),
                static_cast<unsigned long long>(flood.frames * flood.ports));
        exit(1);
    }
    printf("%.0f\n", time / static_cast<double>(flood.frames));
}

}

int main(int count, char **arguments)
{
    const std::string_view what = count > 1 ? arguments[1] : "";
    if (count == 6 && what != "flood") {
        const Sides sides = {arguments[2], arguments[3], arguments[4], atof(arguments[5])};
        if (what == "frames") return MeasureFrames(sides, MakeFrameTo(sides)), 0;
        if (what == "group") return MeasureFrames(sides, MakeGroupFrame(sides)), 0;
        if (what == "tcp") return MeasureRoundTrips(sides, SOCK_STREAM), 0;
        if (what == "udp") return MeasureRoundTrips(sides, SOCK_DGRAM), 0;
    }
    if (count == 7 && what == "flood") {
        MeasureFlood({{arguments[2], arguments[3], arguments[4], 0},
                      strtoull(arguments[5], nullptr, 10),
                      strtoull(arguments[6], nullptr, 10)});
        return 0;
    }
    fputs("usage: live_traffic tcp|udp SENDER RECEIVER ADDRESS SECONDS\n"
          "       live_traffic frames|group SENDER RECEIVER INTERFACE SECONDS\n"
          "       live_traffic flood SENDER RECEIVER INTERFACE FRAMES PORTS\n",
          stderr);
    return 2;
}
