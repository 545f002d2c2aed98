#include "tests/fixture.h"

#include <cerrno>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

void StartHost()
{
    vshost_clear();
    ASSERT_EQ(vshost_start(nullptr, 0), 0) << vshost_error();
    vshost_shell_in_process(1);
}

VsStatus CreateLab() { return VSDVS_CreateVSwitch(LAB, LAB_ID, LAB_PORTSET, 1, 0, 0, 2, 2); }

void ExpectNothingLeft()
{
    EXPECT_EQ(vshost_values_lent(), 0);
    errno = 0;
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD) << "a child process is left";
    const std::string devices = std::string(vshost_directory()) + "/dev/";
    for (const auto &descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(descriptor, gone).string();
        EXPECT_NE(target.substr(0, devices.size()), devices) << "a device is open";
    }
}

void HostTest::SetUp() { StartHost(); }

void HostTest::TearDown()
{
    vshost_clear();
    ExpectNothingLeft();
    vshost_shell_in_process(0);
    vshost_stop();
}

void LabTest::SetUp()
{
    HostTest::SetUp();
    ASSERT_EQ(CreateLab(), STATUS_OK);
}

pid_t Fork(const std::function<bool()> &body)
{
    const pid_t child = fork();
    if (child == 0) _exit(body() ? 0 : 1);
    return child;
}

int Wait(pid_t child)
{
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

std::optional<Stored> Read(StoreLevel level, const char *key, const char *portId, const char *switchId)
{
    const auto read = [&](void *value, uint32_t capacity, uint32_t *length, uint32_t *flags) {
        return vshost_property(static_cast<vshost_level>(level), switchId, portId, key, value, capacity,
                               length, flags);
    };
    Stored stored = {};
    uint32_t length = 0;
    if (read(nullptr, 0, &length, &stored.flags) != 0) return std::nullopt;
    stored.bytes.resize(length);
    EXPECT_EQ(read(stored.bytes.data(), length, &length, nullptr), 0);
    return stored;
}

std::optional<Stored> Read(const Property &property, const char *portId, const char *switchId)
{
    return Read(property.level, property.key, portId, switchId);
}

void Write(const Property &property, std::string_view bytes, const char *portId, const char *switchId)
{
    const auto length = static_cast<uint32_t>(bytes.size());
    VsStatus status = STATUS_FAILURE;
    if (property.level == StoreLevel::GLOBAL)
        status = DVSZOR_GlobalPropSet(switchId, property.key, bytes.data(), length, property.flags);
    else if (property.level == StoreLevel::HOST)
        status = DVSZOR_HostPropSet(switchId, property.key, bytes.data(), length, property.flags);
    else
        status = DVSZOR_PortDataSet(switchId, portId, property.key, bytes.data(), length, property.flags);
    ASSERT_EQ(status, STATUS_OK) << property.key;
}

void Remove(const Property &property, const char *portId, const char *switchId)
{
    if (property.level == StoreLevel::GLOBAL)
        DVSZOR_GlobalPropClear(switchId, property.key);
    else if (property.level == StoreLevel::HOST)
        DVSZOR_HostPropClear(switchId, property.key);
    else
        DVSZOR_PortDataClear(switchId, portId, property.key);
}

std::vector<Call> Calls(int kind)
{
    std::vector<Call> calls;
    const size_t count = vshost_call_count();
    for (size_t i = 0; i < count; i++) {
        Call call = {};
        EXPECT_EQ(vshost_call(i, &call), 0);
        if (kind == 0 || call.kind == static_cast<uint32_t>(kind)) calls.push_back(call);
    }
    return calls;
}

std::vector<std::string> CallTexts(int kind)
{
    std::vector<std::string> texts;
    for (const Call &call : Calls(kind))
        texts.push_back(std::string(call.operation) + ' ' + call.text);
    return texts;
}
