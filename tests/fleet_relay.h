// A way to one member of etcd that fails as a test says.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <string>
#include <thread>

#include "fleet/etcd/client.h"

class Relay {
public:
    explicit Relay(const std::string &address);
    Relay(const Relay &) = delete;
    Relay &operator=(const Relay &) = delete;
    ~Relay();

    std::string Address() const;
    // What clients send over the connections that there are now arrives that much later, each part for
    // itself, also when the client has closed its connection meanwhile. New connections are as fast as
    // before.
    void Delay(vsfleet::Milliseconds time) { newDelay = time.count(); }
    // Bytes that are under way.
    size_t Held() const { return held; }
    // Connections from before live on when it is false.
    std::atomic<bool> takesNew = true;

private:
    struct Side {
        int other = -1;
        bool isClient = false, hasEnded = false;
        vsfleet::Milliseconds delay{0};
        std::deque<std::pair<vsfleet::Clock::time_point, std::string>> parts = {}; // an empty one ends it
    };

    void Run();
    void Accept();
    void Read(int socket, Side &side);
    bool Pass(Side &side);
    void Close(int socket);

    const std::string to;
    int listener = -1, port = 0;
    std::map<int, Side> sides;
    std::atomic<int64_t> newDelay = -1;
    std::atomic<size_t> held = 0;
    std::atomic<bool> ends = false;
    std::thread thread;
};
