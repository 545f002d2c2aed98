#include "tests/live_fixture.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include "vswitch_test_run.skel.h"

namespace live_test {

Sandbox &Sandbox::Get()
{
    static Sandbox sandbox;
    return sandbox;
}

Sandbox::Sandbox()
{
    char path[] = "/tmp/live-test-XXXXXX";
    const char *step = "directory";
    setenv("PATH", (std::string(getenv("PATH") ? getenv("PATH") : "/usr/bin") + ":/usr/sbin:/sbin").c_str(),
           1);
    bool works = mkdtemp(path) != nullptr;
    if (works) directory = path;
    const auto attempt = [&](const char *name, auto function) {
        if (!works) return;
        step = name;
        works = function();
    };
    attempt("namespaces", [] { return unshare(CLONE_NEWNET | CLONE_NEWNS) == 0; });
    attempt("mounts", [] { return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0; });
    // What the kernel says of its own accord is not among the frames of a test.
    attempt("sysctl", [] {
        return system("echo 1 | tee /proc/sys/net/ipv6/conf/*/disable_ipv6 >/dev/null 2>&1; "
                      "ip link set lo up") == 0;
    });
    attempt("bpf file system", [&] { return mount("bpf", path, "bpf", 0, nullptr) == 0; });
    attempt("bpf", [] {
        return static_cast<bool>(Descriptor(bpf_map_create(BPF_MAP_TYPE_ARRAY, "probe", 4, 4, 1, nullptr)));
    });
    if (!works) problem = std::string(step) + ": " + strerror(errno);
}

Sandbox::~Sandbox()
{
    umount2(directory.c_str(), MNT_DETACH);
    rmdir(directory.c_str());
}

void LiveTest::SetUp()
{
    const Sandbox &sandbox = Sandbox::Get();
    if (sandbox.IsReady()) return;
    if (getenv("VSWITCHCTL_REQUIRE_LIVE"))
        FAIL() << "the machine can't run live tests: " << sandbox.Problem();
    GTEST_SKIP() << "needs root and bpf (" << sandbox.Problem() << ")";
}

void LiveTest::TearDown()
{
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(Sandbox::Get().Bpffs(), error))
        if (entry.is_directory()) std::filesystem::remove_all(entry.path(), error);
}

LoadOptions LiveTest::Options()
{
    LoadOptions options;
    options.bpffs = Sandbox::Get().Bpffs();
    options.identity = "host";
    options.capacity = {.ports = 256, .switches = 16, .addresses = 16384, .groups = 4096};
    return options;
}

Sent MakeSent(uint32_t port, const Bytes &frame)
{
    const auto end = frame.begin() + static_cast<ptrdiff_t>(std::min<size_t>(frame.size(), LIVE_TEST_HEAD));
    return {port, static_cast<uint32_t>(frame.size()), Bytes(frame.begin(), end)};
}

Numbers Ports(const std::vector<Sent> &sent)
{
    Numbers ports;
    for (const Sent &one : sent)
        ports.push_back(one.port);
    return ports;
}

namespace {

// The kernel keeps the outer tag beside the bytes.
Sent OnTheWire(const LiveTestCopy &copy)
{
    Bytes bytes(copy.head, copy.head + std::min(copy.length, LIVE_TEST_HEAD));
    bytes.resize(copy.length);
    if (copy.tagType) {
        const uint8_t tag[] = {static_cast<uint8_t>(copy.tagType >> 8), static_cast<uint8_t>(copy.tagType),
                               static_cast<uint8_t>(copy.tci >> 8), static_cast<uint8_t>(copy.tci)};
        bytes.insert(bytes.begin() + 12, tag, tag + sizeof(tag));
    }
    return MakeSent(copy.ifindex, bytes);
}

}

Medium::Medium(const LoadOptions &options)
{
    EXPECT_EQ(path.Open(options), vshost::STATUS_OK) << path.Message();
    path.SetHost({});
}

void Medium::Clear()
{
    for (const std::string &id : path.SwitchIds()) {
        Change change;
        ASSERT_EQ(path.PrepareRemoval(id, change), vshost::STATUS_OK) << path.Message();
        path.Publish(change);
    }
    path.SetHost({});
    path.Kernel().host[0].servedUntil = 0;
    LiveAddressKey key;
    const int unlisted = path.Kernel().MapDescriptor("unlisted");
    while (bpf_map_get_next_key(unlisted, nullptr, &key) == 0)
        bpf_map_delete_elem(unlisted, &key);
}

void Medium::Publish(SwitchConfig config)
{
    for (PortConfig &port : config.ports)
        if (port.ifindex == ANY_INTERFACE) port.ifindex = InterfaceOf(port.number);
    Change change;
    ASSERT_EQ(path.PrepareSwitch(config, change), vshost::STATUS_OK) << path.Message();
    path.Publish(change);
}

void Medium::Publish(PortConfig port)
{
    if (port.ifindex == ANY_INTERFACE) port.ifindex = InterfaceOf(port.number);
    Change change;
    ASSERT_EQ(path.PreparePort(port, change), vshost::STATUS_OK) << path.Message();
    path.Publish(change);
}

namespace {

LoadOptions WithTestObject(LoadOptions options)
{
    size_t size = 0;
    const void *bytes = vswitch_test_run_bpf__elf_bytes(&size);
    options.object = {static_cast<const uint8_t *>(bytes), size};
    return options;
}

}

TestRun::TestRun(const LoadOptions &options) : Medium(WithTestObject(options))
{
    void *memory = mmap(nullptr, sizeof(LiveTestRun), PROT_READ | PROT_WRITE, MAP_SHARED,
                        path.Kernel().MapDescriptor("test_run"), 0);
    run = static_cast<LiveTestRun *>(memory);
    run->now = 1000000000;
}

void TestRun::Clear()
{
    Medium::Clear();
    std::fill(std::begin(run->linkResults), std::end(run->linkResults), 0);
}

TestRun::~TestRun() { munmap(run, sizeof(LiveTestRun)); }

std::vector<Sent> TestRun::Run(uint32_t port, const Bytes &frame, uint32_t segmentSize)
{
    run->ifindex = port;
    run->count = 0;
    __sk_buff context = {};
    context.gso_size = segmentSize;
    bpf_test_run_opts options = {};
    options.sz = sizeof(options);
    options.data_in = frame.data();
    options.data_size_in = static_cast<uint32_t>(frame.size());
    options.ctx_in = &context;
    options.ctx_size_in = sizeof(context);
    options.repeat = 1;
    EXPECT_EQ(bpf_prog_test_run_opts(path.Kernel().Program(), &options), 0) << strerror(errno);
    EXPECT_EQ(options.retval, 2u) << "a frame reached the machine's network stack";
    return Copies();
}

std::vector<Sent> TestRun::Announce(const Announcement &announcement, int &result)
{
    run->count = 0;
    result = path.Kernel().Announce(announcement);
    return Copies();
}

std::vector<Sent> TestRun::Copies() const
{
    std::vector<Sent> sent;
    for (uint32_t i = 0; i < std::min(run->count, LIVE_TEST_COPIES); i++)
        sent.push_back(OnTheWire(run->copies[i]));
    std::sort(sent.begin(), sent.end());
    return sent;
}

}
