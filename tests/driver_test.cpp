// The embedded host's driver and the preload in front of it, with requests made by hand: their behaviour
// towards any caller.
#include <functional>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <vswitch_policy.h>

#include "core/store.h"
#include "tests/driver_calls.h"

namespace {

constexpr char GUARD = '\x5A';
using Words = std::vector<std::string>;

VSwitchInput MacInput(const VSwitchMacEntry &entry, const char *portId = PORT)
{
    VSwitchInput input = PortInput(portId);
    input.args.mac = entry;
    return input;
}

template<typename Record> Record Query(uint32_t number, const VSwitchInput &input)
{
    Record record = {};
    EXPECT_EQ(Ask(number, &input, sizeof(input), &record, sizeof(record)), 0) << number;
    return record;
}

int Change(uint32_t number, const VSwitchInput &input)
{
    return Ask(number, &input, sizeof(input), nullptr, 0);
}

// The bytes of each entry of a list.
template<typename Input> Words List(uint32_t number, const Input &input, size_t entry)
{
    std::vector<char> answer(65536);
    const auto room = static_cast<uint32_t>(answer.size());
    EXPECT_EQ(Ask(number, &input, sizeof(input), answer.data(), room), 0) << number;
    uint32_t count;
    memcpy(&count, answer.data(), sizeof(count));
    Words entries;
    for (size_t i = 0; i < count; i++)
        entries.emplace_back(&answer[sizeof(VSwitchListHeader) + i * entry], entry);
    return entries;
}

// The texts that the entries of a list begin with.
template<typename Input> Words Names(uint32_t number, const Input &input, size_t entry)
{
    Words names;
    for (const std::string &bytes : List(number, input, entry))
        names.emplace_back(bytes.c_str());
    return names;
}

Words Uplinks(const char *portset = LAB_PORTSET)
{
    return Names(VSWITCH_GET_UPLINKS, Input(portset), sizeof(VSwitchUplink));
}

std::string UplinkPort(const char *uplink)
{
    return Query<UplinkPortId>(VSWITCH_GET_UPLINK_PORT, UplinkInput(uplink)).text;
}

class Driver : public LabTest {};

TEST_F(Driver, RefusesWhatIsMalformedOrUnknown)
{
    const auto full = [](VSwitchInput input, auto VSwitchInput::*field) {
        memset(&(input.*field), 'x', sizeof(input.*field));
        return input;
    };
    const auto with = [](auto edit) {
        VSwitchInput input = Input();
        edit(input);
        return input;
    };
    const struct {
        const char *name;
        uint32_t number;
        VSwitchInput input;
        int error;
        uint32_t inLength = 212;
    } cases[] = {
        {"no such command", 4110, Input(), ENOTTY},
        {"nor a change", 8199, Input(), ENOTTY},
        {"input one byte short", VSWITCH_GET_UPLINKS, Input(), EINVAL, 211},
        {"input one byte long", VSWITCH_GET_UPLINKS, Input(), EINVAL, 213},
        {"no input", VSWITCH_SET_UPLINK_ADMIN, Input(), EINVAL, 0},
        {"kind of 3 bytes", VSWITCH_GET_SWITCHES, Input(), EINVAL, 3},
        {"input beyond all bounds", VSWITCH_SET_OPTIONS, Input(), EINVAL, 0x80000000},
        {"half an option id", VSWITCH_GET_OPTIONS, Input(), EINVAL, 3},
        {"portset without end", VSWITCH_GET_INFO, full(Input(), &VSwitchInput::name), EINVAL},
        {"switch id without end", VSWITCH_GET_PORT_MACS, full(Input(), &VSwitchInput::name), EINVAL},
        {"port without end", VSWITCH_GET_PORT_MACS, full(PortInput(""), &VSwitchInput::port), EINVAL},
        {"uplink without end", VSWITCH_GET_UPLINK_LINK, full(Input(), &VSwitchInput::args), EINVAL},
        {"session without end", VSWITCH_GET_MIRROR_STATS, full(Input(), &VSwitchInput::args), EINVAL},
        {"unknown portset", VSWITCH_GET_UPLINKS, Input("other"), ENOENT},
        {"an alias for it", VSWITCH_GET_UPLINKS, Input(LAB), ENOENT},
        {"no portset", VSWITCH_REFRESH_NUMA, Input(""), ENOENT},
        {"unknown switch", VSWITCH_GET_PORT_MACS, PortInput(PORT, "other"), ENOENT},
        {"unknown port", VSWITCH_GET_PORT_MACS, PortInput("port9"), ENODEV},
        {"unknown uplink", VSWITCH_GET_UPLINK_LACP, UplinkInput("nic9"), ENODEV},
        {"no uplink", VSWITCH_GET_UPLINK_PORT, Input(), ENODEV},
        {"unknown number", VSWITCH_GET_UPLINK_HINT,
         with([](VSwitchInput &input) { input.port.portId = 999; }), ENODEV},
        {"unknown session", VSWITCH_GET_MIRROR_STATS, UplinkInput("session"), ENOENT},
        {"unknown group", VSWITCH_GET_MCAST_STATS,
         with([](VSwitchInput &input) { input.args.mcast.addressKind = VSWITCH_ADDRESS_IPV4; }), ENOENT},
        {"neither up nor down", VSWITCH_SET_UPLINK_ADMIN, with([](VSwitchInput &input) {
             input = UplinkInput("nic0");
             input.args.uplink.adminUp = 2;
         }),
         EINVAL},
        {"group address", VSWITCH_SET_PORT_MAC, MacInput({{1, 0, 0, 0, 0, 1}, 1, 0, 0, 0, 0}), EINVAL},
        {"no address", VSWITCH_SET_PORT_MAC, MacInput({{}, 1, 0, 0, 0, 0}), EINVAL},
        {"VLAN 4095", VSWITCH_SET_PORT_MAC, MacInput({{2, 0, 0, 0, 0, 1}, 1, 0, 4095, 0, 0}), EINVAL},
        {"unknown type", VSWITCH_SET_PORT_MAC, MacInput({{2, 0, 0, 0, 0, 1}, 3, 0, 0, 0, 0}), EINVAL},
        {"no such entry", VSWITCH_CLEAR_PORT_MAC, MacInput({{2, 0, 0, 0, 0, 1}, 1, 0, 0, 0, 0}), ENOENT},
        {"learning neither on nor off", VSWITCH_SET_LEARNING_PROPS,
         with([](VSwitchInput &input) { input.args.learning.enabled = 2; }), EINVAL},
    };
    for (const auto &row : cases) {
        std::string output(64, GUARD);
        const uint64_t before = vshost_fingerprint();
        EXPECT_EQ(Ask(row.number, &row.input, row.inLength, output.data(), 64), row.error) << row.name;
        EXPECT_EQ(vshost_fingerprint(), before) << row.name;
        EXPECT_EQ(output, std::string(64, GUARD)) << row.name;
    }
}

TEST_F(Driver, BadAddressesAreFaultsOfTheRequest)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *memory = static_cast<char *>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    ASSERT_EQ(mprotect(memory + page, page, PROT_NONE), 0);
    ASSERT_EQ(mprotect(memory + 2 * page, page, PROT_READ), 0);
    const VSwitchInput input = Input();
    char output[sizeof(VSwitchInfo)];
    const struct {
        const char *name;
        const void *input;
        void *output;
    } cases[] = {
        {"input is null", nullptr, output},
        {"input isn't mapped", memory + page, output},
        {"input ends in a hole", memory + page - 100, output},
        {"output is null", &input, nullptr},
        {"output isn't mapped", &input, memory + page},
        {"output is read-only", &input, memory + 2 * page},
    };
    for (const auto &row : cases)
        EXPECT_EQ(Ask(VSWITCH_GET_INFO, row.input, sizeof(input), row.output, sizeof(output)), EFAULT)
            << row.name;
    const int descriptor = open(VSWITCH_DRIVER_DEVICE, O_RDWR);
    for (void *header : {static_cast<void *>(nullptr), static_cast<void *>(memory + page)})
        EXPECT_TRUE(ioctl(descriptor, VSWITCH_GET_INFO, header) == -1 && errno == EFAULT);
    close(descriptor);
    munmap(memory, 3 * page);
}

TEST_F(Driver, WritesNoMoreThanThereIsRoomFor)
{
    const VSwitchInput input = Input();
    const struct {
        uint32_t number, room, written;
    } cases[] = {
        {VSWITCH_GET_UPLINKS, 0, 0},   {VSWITCH_GET_UPLINKS, 7, 7},   {VSWITCH_GET_UPLINKS, 8, 8},
        {VSWITCH_GET_UPLINKS, 43, 8},  {VSWITCH_GET_UPLINKS, 44, 44}, {VSWITCH_GET_UPLINKS, 79, 44},
        {VSWITCH_GET_UPLINKS, 80, 80}, {VSWITCH_GET_UPLINKS, 99, 80}, {VSWITCH_GET_INFO, 100, 100},
        {VSWITCH_GET_INFO, 300, 208},
    };
    for (const auto &row : cases) {
        std::string output(400, GUARD);
        EXPECT_EQ(Ask(row.number, &input, sizeof(input), output.data(), row.room), 0);
        EXPECT_EQ(output.find_last_not_of(GUARD) + 1, row.written) << row.number << " in " << row.room;
        if (row.number == VSWITCH_GET_UPLINKS && row.room >= 8) {
            EXPECT_EQ(output[0], 2);
        }
    }
}

TEST_F(Driver, DescriptorsMayTravel)
{
    const VSwitchInput input = Input();
    const int device = open(VSWITCH_DRIVER_DEVICE, O_RDWR);
    const auto works = [&](int descriptor) {
        uint32_t mode;
        return Ioctl(descriptor, VSWITCH_GET_MCAST_MODE, &input, sizeof(input), &mode, sizeof(mode)) == 0;
    };
    const int copy = dup(device), over = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(device, over), over);
    const int high = fcntl(device, F_DUPFD, 100);
    close(device);
    for (int descriptor : {copy, over, high})
        EXPECT_TRUE(works(descriptor)) << descriptor;

    EXPECT_EQ(Wait(Fork([&] { return works(copy); })), 0) << "in a forked child";

    setenv("INHERITED_DEVICE", std::to_string(copy).c_str(), 1);
    const char *arguments[] = {"driver_test", "--gtest_also_run_disabled_tests", "--gtest_brief=1",
                               "--gtest_filter=*InheritedDevice", nullptr};
    pid_t started;
    ASSERT_EQ(
        posix_spawn(&started, "/proc/self/exe", nullptr, nullptr, const_cast<char **>(arguments), environ),
        0);
    EXPECT_EQ(Wait(started), 0) << "in another program";

    const int null = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(null, high), high);
    EXPECT_FALSE(works(high)) << "what was a device no longer is one";
    for (int descriptor : {copy, over, high, null})
        close(descriptor);
}

// DescriptorsMayTravel runs this in another process.
TEST(Program, DISABLED_InheritedDevice)
{
    const char *inherited = getenv("INHERITED_DEVICE");
    if (!inherited) GTEST_SKIP();
    const VSwitchInput input = Input();
    uint32_t mode;
    EXPECT_EQ(Ioctl(atoi(inherited), VSWITCH_GET_MCAST_MODE, &input, sizeof(input), &mode, sizeof(mode)), 0);
}

// Another thread may read the environment at any time, so only a start and a stop of the host change it. A
// program that starts learns from the host itself that its allocations must fail.
TEST_F(Driver, FaultsReachProgramsWithoutTheEnvironment)
{
    const auto environment = [] {
        Words variables;
        for (char **variable = environ; *variable; variable++)
            variables.emplace_back(*variable);
        return variables;
    };
    const auto failsInAProgram = [] {
        return system("exec /proc/$PPID/exe --gtest_also_run_disabled_tests --gtest_brief=1 "
                      "--gtest_filter=*AllocationThatFails >/dev/null") == 0;
    };
    const Words before = environment();
    EXPECT_FALSE(failsInAProgram());
    ASSERT_EQ(vshost_fail(VSHOST_ALLOCATION, nullptr, 1, 0, 0), 0);
    EXPECT_EQ(environment(), before);
    EXPECT_TRUE(failsInAProgram());
    vshost_clear();
    EXPECT_FALSE(failsInAProgram());
    ASSERT_EQ(vshost_scenario(R"({"faults": [{"kind": "allocation", "times": 0}]})"), 0) << vshost_error();
    EXPECT_EQ(environment(), before);
    EXPECT_TRUE(failsInAProgram());
    ASSERT_EQ(vshost_reset(), 0);
    EXPECT_EQ(environment(), before);
}

// FaultsReachProgramsWithoutTheEnvironment runs this in another process.
TEST(Program, DISABLED_AllocationThatFails)
{
    void *uplinks = nullptr;
    EXPECT_EQ(VSZOR_GetUplinks(LAB_PORTSET, &uplinks), STATUS_NO_MEMORY);
    VSZOR_FreeMemory(uplinks);
    vshost_clear(); // a library that counts its lines allocates at the program's end
}

TEST_F(Driver, OtherFilesAreLeftAlone)
{
    errno = EDOM;
    const int file = open("/dev/null", O_RDWR);
    EXPECT_EQ(close(file), 0);
    EXPECT_EQ(errno, EDOM);
    EXPECT_TRUE(open("/dev/vswitch2", O_RDWR) < 0 && errno == ENOENT);
    EXPECT_TRUE(close(-1) < 0 && errno == EBADF);
    EXPECT_TRUE(ioctl(-1, VSWITCH_GET_INFO, nullptr) < 0 && errno == EBADF);

    const std::string path = std::string(vshost_directory()) + "/made";
    const int made = openat(AT_FDCWD, path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0640);
    struct stat status = {};
    EXPECT_EQ(fstat(made, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_TRUE(ioctl(made, VSWITCH_GET_INFO, nullptr) < 0 && errno == ENOTTY) << "an empty file";
    close(made);
    int ends[2], waiting = -1;
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(write(ends[1], "four", 4), 4);
    EXPECT_TRUE(ioctl(ends[0], FIONREAD, &waiting) == 0 && waiting == 4);
    close(ends[0]);
    close(ends[1]);

    vshost_stop();
    EXPECT_TRUE(open(VSWITCH_DRIVER_DEVICE, O_RDWR) < 0 && errno == ENOENT) << "without a host";
    StartHost();
}

TEST_F(Driver, FaultsAnswersAndRecording)
{
    const VSwitchInput input = Input();
    uint32_t mode = 7;
    const auto ask = [&] { return Ask(VSWITCH_GET_MCAST_MODE, &input, sizeof(input), &mode, sizeof(mode)); };
    vshost_fail(VSHOST_DRIVER, "4103", 2, 1, EBUSY);
    vshost_fail(VSHOST_OPEN, VSWITCH_DRIVER_RTM_DEVICE, 1, 0, ENXIO);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(ask(), EBUSY);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(Ask(1, &input, 9, nullptr, 0, VSWITCH_DRIVER_RTM_DEVICE), ENXIO);
    EXPECT_EQ(vshost_failed(), 2u);
    vshost_clear();

    const uint32_t answer[] = {5, 6};
    vshost_answer(VSWITCH_GET_MCAST_MODE, 1, answer, sizeof(answer));
    vshost_record(1);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(mode, 5u);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(mode, 0u);
    vshost_record(0);
    const std::vector<Call> calls = Calls();
    ASSERT_EQ(calls.size(), 6u);
    const uint32_t kinds[] = {VSHOST_OPEN, VSHOST_DRIVER, VSHOST_CLOSE};
    for (size_t i = 0; i < calls.size(); i++) {
        EXPECT_EQ(calls[i].kind, kinds[i % 3]);
        EXPECT_STREQ(calls[i].text, VSWITCH_DRIVER_DEVICE);
    }
    EXPECT_STREQ(calls[1].operation, "4103");
    EXPECT_EQ(calls[1].length, sizeof(input));
    EXPECT_EQ(calls[1].flags, sizeof(mode));
    EXPECT_EQ(memcmp(calls[1].input, &input, sizeof(input)), 0);
}

TEST_F(Driver, WhatTestsAskForHasLimits)
{
    const std::string bytes(1048577, 'x');
    const auto fail = [](vshost_kind kind, const char *operation, unsigned nth) {
        return vshost_fail(kind, operation, nth, 1, EBUSY);
    };
    const std::pair<int, int> refused[] = {
        {vshost_answer(4106, 1, bytes.data(), 65537), EINVAL},
        {vshost_answer(4106, 1, nullptr, 1), EINVAL},
        {vshost_shell_output("get", bytes.data(), 1048577), EINVAL},
        {vshost_shell_output("get", nullptr, 1), EINVAL},
        {vshost_shell_output(nullptr, bytes.data(), 1), EINVAL},
        {vshost_shell_output("gett", bytes.data(), 1), EINVAL},
        {fail(VSHOST_DRIVER, nullptr, 0), EINVAL},
        {fail(VSHOST_DRIVER, "4294967296", 1), EINVAL},
        {fail(VSHOST_CLOSE, nullptr, 1), EINVAL},
        {fail(static_cast<vshost_kind>(0), nullptr, 1), EINVAL},
    };
    for (size_t i = 0; i < std::size(refused); i++)
        EXPECT_EQ(refused[i].first, refused[i].second) << i;
    EXPECT_NE(std::string(vshost_error()).find("out of range"), std::string::npos);
    for (int round = 0; round < 2; round++) {
        for (int i = 0; i < 65; i++)
            EXPECT_EQ(fail(VSHOST_DRIVER, "4294967295", 1), i < 64 ? 0 : ENOSPC) << i;
        for (int i = 0; i < 17; i++)
            EXPECT_EQ(vshost_answer(4106, 1, bytes.data(), 65536), i < 16 ? 0 : ENOSPC) << i;
        for (int i = 0; i < 5; i++)
            EXPECT_EQ(vshost_shell_output("ls", bytes.data(), 1048576), i < 4 ? 0 : ENOSPC) << i;
        vshost_clear();
    }
    // When there are more calls than the host keeps, it keeps the newest.
    constexpr size_t KEPT = 65536;
    vshost_record(1);
    for (size_t i = 0; i < KEPT / 2; i++)
        close(open(VSWITCH_DRIVER_DEVICE, O_RDWR));
    open(VSWITCH_DRIVER_RTM_DEVICE, O_RDWR | O_CREAT | O_EXCL, 0600);
    Call call = {};
    EXPECT_EQ(vshost_call_count(), KEPT + 1);
    EXPECT_EQ(vshost_call(0, &call), ENOENT);
    EXPECT_EQ(vshost_call(1, &call), 0);
    EXPECT_EQ(vshost_call(KEPT, &call), 0);
    EXPECT_STREQ(call.text, VSWITCH_DRIVER_RTM_DEVICE);
    EXPECT_EQ(call.outcome, static_cast<uint32_t>(EEXIST));
    EXPECT_EQ(vshost_call(KEPT + 1, &call), ENOENT);
    vshost_record(1);
    EXPECT_EQ(vshost_call_count(), 0u);
}

TEST_F(Driver, RtmTakesAnyCommandOfTheRightLength)
{
    std::vector<unsigned char> record(9 + 2 * 128);
    record[0] = 2;
    const auto ask = [&](uint32_t number, uint32_t length) {
        return Ask(number, record.data(), length, nullptr, 0, VSWITCH_DRIVER_RTM_DEVICE);
    };
    for (uint32_t number : {0u, 4106u, 0x80000001u})
        EXPECT_EQ(ask(number, 265), 0) << number;
    for (uint32_t length : {0u, 8u, 9u, 137u, 264u})
        EXPECT_EQ(ask(1, length), EINVAL) << length;
    record[3] = 2; // 0x02000002 entries, whose length is 265 when it is cut to 32 bits
    EXPECT_EQ(ask(1, 265), EINVAL);
}

TEST_F(Driver, UplinksFollowTheStore)
{
    const uint64_t before = vshost_fingerprint();
    EXPECT_EQ(VSDVS_CreateVSwitch("second", nullptr, nullptr, 1, 0, 8, 12, 0), STATUS_OK);
    EXPECT_EQ(Uplinks("second").size(), 12u);
    EXPECT_EQ(Uplinks("second").back(), "nic13") << "in the order of the uplink ports";
    EXPECT_EQ(Change(VSWITCH_GET_UPLINK_LINK, UplinkInput("nic1", "second")), ENODEV);
    EXPECT_EQ(VSDVS_DestroyVSwitch("second"), STATUS_OK);
    EXPECT_EQ(vshost_fingerprint(), before) << "the NICs made for it are removed with it";

    EXPECT_EQ(vshost_scenario(R"({"nics": {"eth7": {},
        "kept": {"bind": {"switch": "third", "port": "uplink1"}}}})"),
              0)
        << vshost_error();
    EXPECT_EQ(VSDVS_CreateVSwitch("third", nullptr, nullptr, 1, 0, 8, 3, 0), STATUS_OK);
    EXPECT_EQ(Uplinks("third"), (Words{"eth7", "kept", "nic2"})) << "free ones first, claimed ones in place";
    EXPECT_EQ(VSDVS_DestroyVSwitch("third"), STATUS_OK);
    EXPECT_EQ(UplinkPort("eth7"), "") << "a plugged-in NIC stays";
}

TEST_F(Driver, APortsetUnderTheAliasOfAnotherSwitchHasNone)
{
    ASSERT_EQ(system("tybel -e set /net/create lab 8 vswitch"), 0); // the switch "lab" names "lab-portset"
    EXPECT_EQ(Uplinks(LAB), Words{});
    EXPECT_STREQ(Query<VSwitchInfo>(VSWITCH_GET_INFO, Input(LAB)).switchId, "");
}

uint32_t NumberOf(const char *portId)
{
    uint32_t number = 0;
    EXPECT_EQ(VSDVS_DvPortIDToPortID(LAB, portId, &number), STATUS_OK);
    return number;
}

// A text about a port.
template<size_t SIZE> std::string TextOf(uint32_t command, const char *portId)
{
    VSwitchInput input = {};
    input.port.portId = NumberOf(portId);
    struct Name {
        char text[SIZE];
    };
    return Query<Name>(command, input).text;
}

std::string Hint(const char *portId) { return TextOf<32>(VSWITCH_GET_UPLINK_HINT, portId); }

std::string Followed(const char *portId) { return TextOf<136>(VSWITCH_GET_PORT_LS_POLICY, portId); }

// In explicit order: active ones, and a standby one.
std::string Policy(std::initializer_list<const char *> active, const char *standby, uint32_t version = 1)
{
    VSwitchTeamingPolicy policy = {};
    policy.version = version;
    policy.algorithm = VSWITCH_TEAMING_ORDER;
    policy.activeCount = static_cast<uint32_t>(active.size());
    policy.standbyCount = 1;
    size_t count = 0;
    for (const char *name : active)
        strcpy(policy.uplinks[count++], name);
    strcpy(policy.uplinks[count], standby);
    return Bytes(policy);
}

const TeamingPolicy *AsRecord(const std::string &bytes)
{
    return reinterpret_cast<const TeamingPolicy *>(bytes.data());
}

// The policy that is nearest to the port decides; a record that is not known counts as absent.
TEST_F(Driver, TheUplinkOfAPortFollowsItsTeamingPolicy)
{
    const auto link = [](const std::string &nic, bool isUp) {
        const std::string scenario =
            R"({"nics": {")" + nic + R"(": {"link": )" + (isUp ? "true}}}" : "false}}}");
        return vshost_scenario(scenario.c_str()) ? STATUS_FAILURE : STATUS_OK;
    };
    const auto ofSwitch = [](const std::string &policy) {
        return VSDVS_SetTeamingPolicy(LAB, AsRecord(policy));
    };
    const auto ofPort = [](const std::string &policy) {
        return VSDVS_SetPortTeamingPolicy(LAB, PORT, AsRecord(policy));
    };
    const auto name = [](const char *text) { return VSDVS_SetPortLSTeamingPolicy(LAB, PORT, text); };
    const auto gold = [](const std::string &policy) {
        std::string table(sizeof(uint32_t) + sizeof(VSwitchNamedTeaming), '\0');
        table[0] = 1;
        table.replace(sizeof(uint32_t), 4, "gold");
        table.replace(table.size() - policy.size(), policy.size(), policy);
        return VSDVS_SetLSTeamingPolicy(LAB, reinterpret_cast<LSTeamingPolicyTable *>(table.data()));
    };
    const uint32_t number = NumberOf(PORT);
    const std::string byNumber = number % 2 ? "nic1" : "nic0", other = number % 2 ? "uplink0" : "uplink1";
    const struct {
        const char *step;
        std::function<VsStatus()> run;
        std::string hint;
        std::string followed = {}; // the name of the logical switch's policy
    } steps[] = {
        {"none", [] { return STATUS_OK; }, byNumber},
        {"the switch's", [&] { return ofSwitch(Policy({other.c_str()}, "none")); },
         byNumber == "nic0" ? "nic1" : "nic0"},
        {"its first that there is",
         [&] {
             return ofSwitch(Policy({"none", "uplink1"}, "uplink0"));
         },
         "nic1"},
        {"its standby one", [&] { return link("nic1", false); }, "nic0"},
        {"back again", [&] { return link("nic1", true); }, "nic1"},
        {"a name without a policy", [&] { return name("gold"); }, "nic1"},
        {"the logical switch's", [&] { return gold(Policy({"uplink0"}, "none")); }, "nic0", "gold"},
        {"which has no other uplink", [&] { return link("nic0", false); }, "", "gold"},
        {"but may use any", [] { return VSDVS_SetTxUplinkAlways(LAB, PORT, 1); }, "nic1", "gold"},
        {"its link is back", [&] { return link("nic0", true); }, "nic0", "gold"},
        {"its own", [&] { return ofPort(Policy({"uplink1"}, "uplink0")); }, "nic1"},
        {"the override", [] { return VSDVS_SetPortTeamingOverride(LAB, PORT, "uplink0"); }, "nic0"},
        {"an override without an uplink", [] { return VSDVS_SetPortTeamingOverride(LAB, PORT, "none"); },
         "nic1"},
        {"its own of another version", [&] { return ofPort(Policy({"uplink1"}, "none", 2)); }, "nic0",
         "gold"},
        {"another name", [&] { return name("tin"); }, "nic1"},
        {"the switch's goes", [] { return VSDVS_ClearTeamingPolicy(LAB); }, byNumber},
    };
    for (const auto &row : steps) {
        EXPECT_EQ(row.run(), STATUS_OK) << row.step;
        EXPECT_EQ(Hint(PORT), row.hint) << row.step;
        EXPECT_EQ(Followed(PORT), row.followed) << row.step;
    }
}

TEST_F(Driver, ARefreshReadsTheNumaNodesOfTheDevices)
{
    const auto isOnNode = [](const std::string &node) {
        return system(("test $(tybel -e get /net/pNics/nic0/numaNode) = " + node).c_str()) == 0;
    };
    ASSERT_EQ(vshost_scenario(R"({"nics": {"nic0": {"numa-node": 1}}})"), 0) << vshost_error();
    EXPECT_TRUE(isOnNode("0"));
    EXPECT_EQ(Change(VSWITCH_REFRESH_NUMA, Input()), 0);
    EXPECT_TRUE(isOnNode("1"));
}

// Also those that another program adds with their policies.
TEST_F(Driver, CountsFollowThePorts)
{
    const auto addBundle = [](uint8_t learns) {
        const unsigned char management[11] = {1, learns};
        DataBundle *bundle = nullptr;
        void *buffer = nullptr;
        uint32_t length = 0;
        DVSData_Alloc(&bundle, malloc, free);
        DVSData_Update(bundle, "com.talpex.vswitch.port.macManagement", management, sizeof(management), 0x10);
        DVSData_Serialize(bundle, &buffer, &length, 5);
        DVSData_Free(bundle);
        const VsStatus status = DVSZOR_PortAdd(LAB_ID, "made", buffer, length);
        free(buffer);
        return status;
    };
    const uint32_t plain = VSWITCH_INFO_ASSOCIATED, learns = plain | VSWITCH_INFO_MAC_LEARNING;
    const struct {
        const char *step;
        VsStatus status;
        std::function<VsStatus()> run;
        uint32_t ports, flags;
    } steps[] = {
        {"a bundle that learns", STATUS_OK, [&] { return addBundle(1); }, 5, learns},
        {"is there", STATUS_EXISTS, [&] { return addBundle(1); }, 5, learns},
        {"goes", STATUS_OK, [&] { return VSDVS_RemoveDVPort(LAB, "made"); }, 4, plain},
        {"a bundle that doesn't", STATUS_OK, [&] { return addBundle(0); }, 5, plain},
    };
    for (const auto &row : steps) {
        EXPECT_EQ(row.run(), row.status) << row.step;
        const auto info = Query<VSwitchInfo>(VSWITCH_GET_INFO, Input());
        EXPECT_EQ(info.usedPorts, row.ports) << row.step;
        EXPECT_EQ(info.flags, row.flags) << row.step;
    }
}

TEST_F(Driver, MacEntriesComeFromScenariosToo)
{
    const auto macs = [](VSwitchInput input, uint8_t type, uint32_t number = VSWITCH_GET_PORT_MACS) {
        input.args.mac.type = type;
        return List(number, input, sizeof(VSwitchMacEntry)).size();
    };
    EXPECT_EQ(vshost_scenario(R"({"portsets": {"lab-portset": {"ports": {
        "uplink0": {"macs": [{"address": "02:00:00:00:00:02", "type": "learned", "age": 3}]},
        "port1": {"macs": [{"address": "02:00:00:00:00:03", "vlan": 5}], "learning": {"learned": 9}}}}}})"),
              0)
        << vshost_error();
    EXPECT_EQ(macs(PortInput("port1"), VSWITCH_MAC_LEARNED), 0u);
    EXPECT_EQ(macs(PortInput("port1"), VSWITCH_MAC_STATIC), 1u);
    EXPECT_EQ(macs(Input(), VSWITCH_MAC_LEARNED, VSWITCH_GET_TEAM_MACS), 1u) << "what is behind the uplinks";
    const auto info = Query<VSwitchLearningInfo>(VSWITCH_GET_LEARNING_INFO, Input());
    EXPECT_EQ(info.entries, 2u);
    EXPECT_EQ(info.learnedEntries, 1u);
    EXPECT_EQ(info.learned, 9u);
}

TEST_F(Driver, OptionsHaveALimit)
{
    struct [[gnu::packed]] Options {
        VSwitchOptions header;
        VSwitchOption options[VSWITCH_OPTIONS_MAX + 1];
    };
    static Options all, answer;
    const auto set = [](uint32_t count) {
        all.header = {8 + 8 * count, count};
        return Ask(VSWITCH_SET_OPTIONS, &all, 8 + 8 * count, nullptr, 0);
    };
    for (uint32_t i = 0; i <= VSWITCH_OPTIONS_MAX; i++)
        all.options[i] = {static_cast<uint16_t>(i + 1), 0, 1000 + i};
    EXPECT_EQ(set(VSWITCH_OPTIONS_MAX + 1), EINVAL);
    EXPECT_EQ(set(VSWITCH_OPTIONS_MAX), 0);
    EXPECT_EQ(Ask(VSWITCH_GET_OPTIONS, nullptr, 0, &answer, 4096), 0);
    EXPECT_EQ(memcmp(&answer, &all, 8 + 8 * VSWITCH_OPTIONS_MAX), 0);
    all.options[0].id = 9999;
    EXPECT_EQ(set(1), ENOSPC);
}

Words Portsets() { return Names(VSWITCH_GET_SWITCHES, uint32_t{VSWITCH_LIST_PORTSETS}, 128); }

// A reboot ends all running switches, and starts each switch of this host as it is stored.
TEST_F(Driver, AResetStartsTheSwitchesOfThisHost)
{
    const uint32_t wrongMtu = 70000, mtu = 4000;
    const auto put = [](const char *id, uint32_t ports, const char *portset) {
        EXPECT_EQ(DVSZOR_SwitchAdd(id, "vswitch", ports, 1), STATUS_OK);
        EXPECT_EQ(DVSZOR_SwitchAssociate(id), STATUS_OK);
        Write({"com.talpex.common.host.portset", StoreLevel::HOST, 0x10}, Text(portset), "", id);
    };
    put("no-mtu", 8, "a");
    Write({"com.talpex.vswitch.mtu", StoreLevel::GLOBAL, 0x10}, Bytes(wrongMtu), "", "no-mtu");
    put("without-ports", 0, "b");
    put("no-node", 8, "c/d");
    put("of-another-host", 8, "e");
    EXPECT_EQ(DVSZOR_SwitchDissociate("of-another-host"), STATUS_OK);
    put("the-same-again", 8, "a"); // sorts after "no-mtu"
    ASSERT_EQ(VSDVS_SetMTU(LAB, mtu), STATUS_OK);
    ASSERT_EQ(system("/bin/tybel -e set /net/create stray 8 vswitch"), 0);
    ASSERT_EQ(vshost_scenario(R"({"nics": {"eth0": {}}, "options": {"7": 1}})"), 0) << vshost_error();
    const auto store = [] {
        size_t ports = 0, properties = 0;
        EXPECT_EQ(vshost_list_ports(LAB_ID, nullptr, 0, &ports), 0);
        EXPECT_EQ(vshost_list_properties(LAB_ID, nullptr, nullptr, 0, &properties), 0);
        return std::pair(ports, properties);
    };
    const auto before = store();
    ASSERT_EQ(vshost_reset(), 0) << vshost_error();
    EXPECT_EQ(store(), before);
    EXPECT_EQ(Portsets(), (Words{"a", LAB_PORTSET}));
    EXPECT_EQ(+Query<VSwitchInfo>(VSWITCH_GET_INFO, Input("a")).mtu, 1500u);
    EXPECT_STREQ(Query<VSwitchInfo>(VSWITCH_GET_INFO, Input("a")).switchId, "no-mtu");
    const auto info = Query<VSwitchInfo>(VSWITCH_GET_INFO, Input());
    EXPECT_EQ(+info.mtu, mtu);
    EXPECT_EQ(+info.ports, 128u);
    EXPECT_EQ(+info.usedPorts, 4u);
    EXPECT_EQ(Uplinks(), (Words{"nic0", "nic1"})) << "eth0 is gone as well";
    for (const auto &port : {"uplink0", "uplink1"})
        EXPECT_TRUE(UplinkPort("nic0") == port || UplinkPort("nic1") == port) << port;
    size_t count = 0;
    struct vshost_port ports[4];
    ASSERT_EQ(vshost_list_ports(LAB_ID, ports, 4, &count), 0);
    EXPECT_EQ(+ports[0].nicMtu, mtu);
    EXPECT_EQ(+ports[1].nicMtu, mtu);
    uint16_t none = 7;
    EXPECT_EQ(Ask(VSWITCH_GET_OPTIONS, &none, sizeof(none), nullptr, 0), ENOENT);
    const uint64_t once = vshost_fingerprint();
    ASSERT_EQ(vshost_reset(), 0);
    EXPECT_EQ(vshost_fingerprint(), once) << "it comes back the same each time";
}

TEST_F(Driver, GroupsByVlanAndKind)
{
    EXPECT_EQ(vshost_scenario(R"({"portsets": {"lab-portset": {"groups": [
        {"group": "239.1.1.1", "vlan": 5, "joins": 4, "sources": ["10.0.0.1", "10.0.0.2"]},
        {"group": "239.1.1.1", "vlan": 6}, {"group": "ff02::1"}, {"group": "01:00:5e:00:00:01"}],
        "rarp": {"sent": 3}, "teaming": {"failovers": 2}}}, "mac-learning": {"aging": 5}})"),
              0)
        << vshost_error();
    const struct {
        uint32_t vlan, kind, width;
        size_t count;
    } cases[] = {{0, 0, 6, 1}, {0, 2, 4, 1}, {5, 2, 4, 1}, {7, 2, 4, 0}, {0, 3, 16, 1}, {0, 1, 0, 0}};
    for (const auto &row : cases)
        EXPECT_EQ(List(VSWITCH_GET_MCAST_GROUPS, GroupInput(row.vlan, row.kind), row.width).size(), row.count)
            << row.vlan << ' ' << row.kind;
    struct [[gnu::packed]] Stats {
        VSwitchMcastStats header;
        uint8_t sources[2][4];
    };
    const auto stats = Query<Stats>(VSWITCH_GET_MCAST_STATS, GroupInput(0, VSWITCH_ADDRESS_IPV4));
    EXPECT_EQ(+stats.header.joins, 4u);
    EXPECT_EQ(+stats.header.count, 2u);
    EXPECT_EQ(stats.sources[1][3], 2);
    EXPECT_EQ(+Query<VSwitchRarpStats>(VSWITCH_GET_RARP_STATS, Input()).sent, 3u);
    EXPECT_EQ(+Query<VSwitchTeamingStats>(VSWITCH_GET_SERVICE_TEAMING_STATS, Input()).failovers, 2u);
    EXPECT_EQ(+Query<VSwitchLearningProps>(VSWITCH_GET_LEARNING_PROPS, Input()).agingSeconds, 5u);
    EXPECT_EQ(vshost_scenario(R"({"mac-learning": {"enabled": false}})"), 0) << vshost_error();
    const auto learning = Query<VSwitchLearningProps>(VSWITCH_GET_LEARNING_PROPS, Input());
    EXPECT_EQ(+learning.enabled, 0u);
    EXPECT_EQ(+learning.agingSeconds, 5u) << "a setting that the scenario does not name stays";
}

}
