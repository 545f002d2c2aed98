// Nanoseconds that the live host's data path takes for a frame to a known address, by the kernel's own clock
// around the program. Usage: live_unicast DIRECTORY, which is on a bpf file system.
//
// "hot" repeats one frame in one test run, so that all it touches is in the caches. "spread" sends to each of
// up to 4,096 addresses once, a test run each: what the clock and the system call cost is in it. The first
// row, of 0 ports, is of a frame that is dropped at once for its source, and shows that cost.
#include <bpf/bpf.h>
#include <cstdio>
#include <cstring>

#include "platform/live/data_path.h"

namespace {

using namespace live;

constexpr uint32_t REPEAT = 1000000;
constexpr uint32_t SPREAD = 4096;

struct TestFrame {
    uint8_t bytes[64] = {};

    static void SetAddress(uint8_t *mac, uint32_t number)
    {
        mac[0] = 2;
        std::memcpy(mac + 2, &number, sizeof(number));
    }

    TestFrame(uint32_t destination, uint32_t source)
    {
        SetAddress(bytes, destination);
        SetAddress(bytes + 6, source);
        bytes[12] = 0x12;
    }
};

double Nanoseconds(int program, const TestFrame &frame, uint32_t repeat)
{
    bpf_test_run_opts options = {};
    options.sz = sizeof(options);
    options.data_in = frame.bytes;
    options.data_size_in = sizeof(frame.bytes);
    options.repeat = static_cast<int>(repeat);
    if (bpf_prog_test_run_opts(program, &options) != 0) perror("test run");
    return options.duration;
}

SwitchConfig MakeSwitch(uint32_t ports)
{
    SwitchConfig config;
    config.id = "bench";
    for (uint32_t i = 1; i <= ports; i++) {
        PortConfig port;
        port.number = port.ifindex = i;
        port.vlanId = 10;
        port.learning = true;
        config.ports.push_back(port);
    }
    return config;
}

void MeasureDropped(DataPath &path)
{
    Change change, removal;
    if (path.PrepareSwitch(MakeSwitch(2), change)) return void(puts(path.Message().c_str()));
    path.Publish(change);
    const int program = path.Kernel().Program();
    TestFrame frame(0, 0);
    frame.bytes[6] |= 1; // a group's address is not a source
    double single = 0;
    for (uint32_t i = 0; i < SPREAD; i++)
        single += Nanoseconds(program, frame, 1);
    printf("%8u %10u %8.0f %8.0f\n", 0, 0, Nanoseconds(program, frame, REPEAT), single / SPREAD);
    path.PrepareRemoval("bench", removal);
    path.Publish(removal);
}

void Measure(DataPath &path, uint32_t ports, uint32_t addresses)
{
    Change change;
    if (path.PrepareSwitch(MakeSwitch(ports), change)) return void(puts(path.Message().c_str()));
    path.Publish(change);
    for (uint32_t i = 0; i < addresses; i++) {
        const TestFrame frame(i, 0);
        if (path.AddStaticAddress(2 + i % (ports - 1), 10, frame.bytes))
            return void(puts(path.Message().c_str()));
    }
    const int program = path.Kernel().Program();
    const TestFrame hot(addresses / 2, 0xffffff);
    Nanoseconds(program, hot, REPEAT / 10);
    const double hotTime = Nanoseconds(program, hot, REPEAT);
    double spreadTime = 0;
    const uint32_t step = addresses > SPREAD ? addresses / SPREAD : 1;
    for (uint32_t i = 0; i < SPREAD; i++)
        spreadTime += Nanoseconds(program, TestFrame(i * step % addresses, 0xffffff), 1);
    printf("%8u %10u %8.0f %8.0f\n", ports, addresses, hotTime, spreadTime / SPREAD);

    Change removal;
    path.PrepareRemoval("bench", removal);
    path.Publish(removal);
}

}

int main(int argc, char **argv)
{
    if (argc != 2) return fputs("usage: live_unicast DIRECTORY\n", stderr), 2;
    DataPath path;
    if (path.Open({.bpffs = argv[1], .identity = "bench", .object = {}, .capacity = {}})) {
        fprintf(stderr, "%s\n", path.Message().c_str());
        return 1;
    }
    path.SetHost({});
    printf("%8s %10s %8s %8s\n", "ports", "addresses", "hot ns", "spread ns");
    MeasureDropped(path);
    for (uint32_t ports : {2u, 64u, 1024u, 4096u})
        for (uint32_t addresses : {10u, 4096u, 65536u})
            Measure(path, ports, addresses);
    path.RemovePins();
}
