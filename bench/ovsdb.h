// A connection to an OVSDB server: JSON-RPC over its Unix socket, one request at a time. Requests and answers
// are texts, so that the peer pays for no more JSON here than it must.
#pragma once

#include <string>
#include <vector>

class Ovsdb {
public:
    explicit Ovsdb(const char *socketPath);
    Ovsdb(const Ovsdb &) = delete;
    Ovsdb &operator=(const Ovsdb &) = delete;
    ~Ovsdb();

    // Runs the operations (JSON objects, joined by commas) as one transaction. A failure ends the program.
    const std::string &Transact(const std::string &operations);

private:
    void Send(const std::string &text);
    void Receive();
    bool ReceivedWhole();

    int socket;
    std::string answer;
    size_t looked = 0; // how much of the answer has been looked at, and what was found there
    int depth = 0;
    bool inText = false;
    bool escaped = false;
};

// A switch as that server's schema keeps one: a bridge and, for each port, a port and an interface.
struct OvsdbSwitch {
    std::string bridge; // the ids of the rows
    std::vector<std::string> ports;
};

OvsdbSwitch CreateOvsdbSwitch(Ovsdb &server, const std::string &name, unsigned ports);
void DestroyOvsdbSwitch(Ovsdb &server, const OvsdbSwitch &removed);
