// Ports with interfaces: the data path's real filters at veth pairs and taps.
#pragma once

#include <memory>
#include <optional>

#include "tests/live_fixture.h"

namespace live_test {

// Runs a command of the system; the test fails if it does.
void Shell(const std::string &command);

// Keeps this thread on the first or the second of the processors that the process may use. The frames that
// come from one processor pass one after the other.
constexpr size_t PROCESSORS = 2;
void StayOnProcessor(size_t index);

// The far end of an interface, where a guest or the network is.
class Wire {
public:
    virtual ~Wire() = default;
    uint32_t Interface() const { return ifindex; }
    const std::string &Name() const { return name; }

    virtual void Send(const Bytes &frame) = 0;
    // The next frame that has arrived, as it is on a wire.
    virtual std::optional<Bytes> Receive() = 0;
    // Sends a frame straight out of the near end, past the data path.
    void Mark(const Bytes &frame);

protected:
    explicit Wire(const std::string &name) : name(name) {}
    void Opened();

    std::string name;
    uint32_t ifindex = 0;

private:
    Descriptor nearEnd;
};

// The wires of ports 1 to 9: veth pairs, but taps at those in `taps`.
using WireSet = std::vector<std::unique_ptr<Wire>>;
WireSet MakeWires(const std::vector<uint32_t> &taps = {});

// Every wire has the filter from the beginning, also those that no port is at.
class Wires : public Medium {
public:
    Wires(const LoadOptions &options, WireSet &wires);
    ~Wires() override; // removes the pins too

    std::vector<Sent> Run(uint32_t port, const Bytes &frame, uint32_t segmentSize = 0) override;
    std::vector<Sent> Announce(const Announcement &announcement, int &result) override;
    void Serve() override { path.Kernel().host[0].servedUntil = UINT64_MAX / 2; }
    uint32_t InterfaceOf(uint32_t port) const override { return At(port).Interface(); }
    Wire &At(uint32_t port) const { return *wires.at(port - 1); }

    // What has arrived at the far ends once everything that was sent has passed.
    std::vector<Sent> Settle();

private:
    void WaitForMarkers(const Bytes &marker, std::vector<Sent> &sent);

    WireSet &wires;
};

}
