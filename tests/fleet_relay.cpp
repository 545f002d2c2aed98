#include "tests/fleet_relay.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace vsfleet;

namespace {

constexpr int TURN = 20; // ms

sockaddr_in AddressOf(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

int NewSocket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

}

Relay::Relay(const std::string &address) : to(address), listener(NewSocket())
{
    sockaddr_in own = AddressOf(0);
    socklen_t size = sizeof(own);
    if (bind(listener, reinterpret_cast<sockaddr *>(&own), size) || listen(listener, 16) ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&own), &size))
        abort();
    port = ntohs(own.sin_port);
    thread = std::thread([this] { Run(); });
}

Relay::~Relay()
{
    ends = true;
    thread.join();
    close(listener);
    for (const auto &[socket, side] : sides)
        close(socket);
}

std::string Relay::Address() const { return fmt::format("127.0.0.1:{}", port); }

void Relay::Accept()
{
    const sockaddr_in member = AddressOf(atoi(to.substr(to.find(':') + 1).c_str()));
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), server = NewSocket();
    if (!takesNew || connect(server, reinterpret_cast<const sockaddr *>(&member), sizeof(member))) {
        close(client);
        close(server);
        return;
    }
    sides[client] = {.other = server, .isClient = true};
    sides[server] = {.other = client};
}

void Relay::Read(int socket, Side &side)
{
    char bytes[65536];
    const ssize_t length = read(socket, bytes, sizeof(bytes));
    side.hasEnded = length <= 0;
    side.parts.emplace_back(Clock::now() + side.delay,
                            std::string(bytes, static_cast<size_t>(std::max<ssize_t>(length, 0))));
    held += side.parts.back().second.size();
}

// False: the connection has ended.
bool Relay::Pass(Side &side)
{
    while (!side.parts.empty() && side.parts.front().first <= Clock::now()) {
        const std::string part = std::move(side.parts.front().second);
        side.parts.pop_front();
        if (part.empty()) return false;
        for (size_t done = 0; done < part.size();) {
            const ssize_t sent = send(side.other, part.data() + done, part.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) break; // the other side has gone; what it has sent still arrives
            done += static_cast<size_t>(sent);
        }
        held -= part.size();
    }
    return true;
}

void Relay::Close(int socket)
{
    for (const int end : {socket, sides[socket].other}) {
        for (const auto &[due, part] : sides[end].parts)
            held -= part.size();
        sides.erase(end);
        close(end);
    }
}

void Relay::Run()
{
    while (!ends) {
        if (const int64_t delay = newDelay.exchange(-1); delay >= 0) {
            for (auto &[socket, side] : sides)
                side.delay = Milliseconds(side.isClient ? delay : 0);
        }
        std::vector<pollfd> sockets = {{listener, POLLIN, 0}};
        std::vector<int> ended;
        for (auto &[socket, side] : sides) {
            if (!Pass(side))
                ended.push_back(socket);
            else if (!side.hasEnded)
                sockets.push_back({socket, POLLIN, 0});
        }
        for (const int socket : ended) {
            if (sides.contains(socket)) Close(socket);
        }
        if (!ended.empty()) continue;
        poll(sockets.data(), sockets.size(), TURN);
        for (const pollfd &ready : sockets) {
            if (!ready.revents) continue;
            if (ready.fd == listener)
                Accept();
            else
                Read(ready.fd, sides[ready.fd]);
        }
    }
}
