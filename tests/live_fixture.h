// Tests of the data path in the kernel. They need root and a kernel that permits bpf. Without these they are
// skipped, unless VSWITCHCTL_REQUIRE_LIVE is set.
#pragma once

#include <cstring>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <vector>

#include "platform/live/data_path.h"
#include "platform/live/test_run.h"

namespace live_test {

using namespace live;

// A private network namespace and bpf file system, for as long as the process runs.
class Sandbox {
public:
    static Sandbox &Get();

    bool IsReady() const { return problem.empty(); }
    const std::string &Problem() const { return problem; }
    const std::string &Bpffs() const { return directory; }

private:
    Sandbox();
    ~Sandbox();
    std::string directory;
    std::string problem;
};

class LiveTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override; // removes all pins
    // Options for a data path of this test alone.
    LoadOptions Options();
};

// A frame as it is on a wire, with its tags.
using Bytes = std::vector<uint8_t>;

// A frame that left by a port.
struct Sent {
    uint32_t port;
    uint32_t length;
    Bytes head; // the first LIVE_TEST_HEAD bytes, or fewer
    auto operator<=>(const Sent &) const = default;
};

Sent MakeSent(uint32_t port, const Bytes &frame);

using Numbers = std::vector<uint32_t>;
Numbers Ports(const std::vector<Sent> &sent);

// PortConfig.ifindex of a port whose interface the medium chooses.
inline constexpr uint32_t ANY_INTERFACE = UINT32_MAX;

// A data path with a way to put frames into it: the kernel's test run, or interfaces.
class Medium {
public:
    explicit Medium(const LoadOptions &options);
    virtual ~Medium() = default;

    // The frames that leave when a frame enters by a port, in the order of the ports.
    virtual std::vector<Sent> Run(uint32_t port, const Bytes &frame, uint32_t segmentSize = 0) = 0;
    // The same for a frame that tells the network of an address.
    virtual std::vector<Sent> Announce(const Announcement &announcement, int &result) = 0;
    virtual uint32_t InterfaceOf(uint32_t port) const { return port; }
    virtual void SetTime(uint64_t) {}
    virtual void SetLink(uint32_t, int) {}
    // A daemon follows links, for the rest of the test or as long as a daemon has to say so.
    virtual void Serve() { EXPECT_EQ(path.ShowLife(), vshost::STATUS_OK) << path.Message(); }
    virtual void Clear(); // removes all switches and settings

    // Both expect to succeed. Ports with ANY_INTERFACE get one of the medium's.
    void Publish(SwitchConfig config);
    void Publish(PortConfig port);

    DataPath path;
};

// Ports have interfaces with their own number, unless the configuration names another.
class TestRun : public Medium {
public:
    explicit TestRun(const LoadOptions &options);
    ~TestRun() override;

    std::vector<Sent> Run(uint32_t port, const Bytes &frame, uint32_t segmentSize = 0) override;
    std::vector<Sent> Announce(const Announcement &announcement, int &result) override;
    void SetTime(uint64_t ns) override { run->now = ns; }
    void Clear() override;
    void SetLink(uint32_t port, int result) override { run->linkResults[port % LIVE_TEST_LINKS] = result; }

private:
    std::vector<Sent> Copies() const;

    LiveTestRun *run = nullptr;
};

}
