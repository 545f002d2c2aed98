// A writer is killed at a random moment, many times: every acknowledged write is stored, and no write is
// half done. VSWITCHCTL_CRASH_ROUNDS sets the number of rounds.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vshost.h>

#include "tests/files.h"
#include "vswitchctl.h"

namespace {

constexpr char SWITCH[] = "lab";
constexpr uint32_t KEPT = 8;
constexpr uint32_t FIRST_PROPERTIES = 6; // of a new port, its status record included

std::string PortName(uint32_t number) { return "p" + std::to_string(number); }

uint16_t VLANOf(uint32_t number) { return static_cast<uint16_t>(number % 4095); }

// Adds port after port, keeps the last eight, and acknowledges each number once its three writes are done.
[[noreturn]] void WriteUntilKilled(const std::string &directory, uint32_t number, int acknowledge)
{
    if (vshost_start(directory.c_str(), 1) != 0) _exit(1);
    VSDVS_RemoveDVPort(SWITCH, PortName(number).c_str());
    for (;; number++) {
        if (VSDVS_AddDVPort(SWITCH, PortName(number).c_str(), number) != STATUS_OK) _exit(2);
        if (VSDVS_SetPortVLANPolicy(SWITCH, "port0", VLANOf(number), VLAN_PRIORITY_NONE, 0, 0, nullptr, 0) !=
            STATUS_OK)
            _exit(3);
        if (number >= KEPT) VSDVS_RemoveDVPort(SWITCH, PortName(number - KEPT).c_str());
        if (write(acknowledge, &number, sizeof(number)) != sizeof(number)) _exit(4);
    }
}

uint32_t CountProperties(uint32_t number)
{
    constexpr const char *KEYS[FIRST_PROPERTIES] = {
        "com.talpex.common.port.alias", "com.talpex.common.port.connectid",
        "com.talpex.common.port.block", "com.talpex.common.port.statistics",
        "com.talpex.vswitch.port.vlan", "com.talpex.common.port.volatile.status"};
    uint32_t found = 0;
    for (const char *key : KEYS) {
        uint32_t length = 0;
        if (vshost_property(VSHOST_PORT, SWITCH, PortName(number).c_str(), key, nullptr, 0, &length,
                            nullptr) == 0)
            found++;
    }
    return found;
}

void ExpectIntact(const std::string &directory)
{
    EXPECT_EQ(Sql(directory + "/host.db", "PRAGMA integrity_check"), "ok");
}

// The state after `last` was acknowledged, while the next number may have been written.
void ExpectState(uint32_t last)
{
    for (uint32_t number = std::max(KEPT + 1, last - KEPT + 2); number <= last; number++)
        EXPECT_EQ(CountProperties(number), FIRST_PROPERTIES) << "acknowledged port " << number;
    const uint32_t unacknowledged = CountProperties(last + 1);
    EXPECT_TRUE(unacknowledged == 0 || unacknowledged == FIRST_PROPERTIES) << unacknowledged << " properties";
    PortVLANRecord *record = nullptr;
    uint32_t priority = 0;
    ASSERT_EQ(VSDVS_GetPortVLANPolicy(SWITCH, "port0", &record, &priority), STATUS_OK);
    EXPECT_TRUE(record->vlanId == VLANOf(last) || record->vlanId == VLANOf(last + 1))
        << record->vlanId << " " << last;
    VSDVS_FreeMemory(record);
}

// Runs a writer, kills it after `delay`, and returns the last number that it acknowledged.
uint32_t KillAWriter(const std::string &directory, uint32_t first, std::chrono::microseconds delay)
{
    int pipeEnds[2];
    EXPECT_EQ(pipe(pipeEnds), 0);
    const pid_t writer = fork();
    if (writer == 0) WriteUntilKilled(directory, first, pipeEnds[1]);
    close(pipeEnds[1]);
    uint32_t last = 0;
    const auto next = [&] { return read(pipeEnds[0], &last, sizeof(last)) == sizeof(last); };
    EXPECT_TRUE(next()) << "the writer never wrote";
    std::this_thread::sleep_for(delay);
    kill(writer, SIGKILL);
    while (next())
        continue;
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "exit code " << WEXITSTATUS(status);
    close(pipeEnds[0]);
    return last;
}

TEST(Crash, AcknowledgedWritesSurviveTheirWriter)
{
    const char *text = getenv("VSWITCHCTL_CRASH_ROUNDS");
    const int rounds = text ? atoi(text) : 200;
    const Folder folder;
    const std::string &directory = folder.path;
    ASSERT_EQ(vshost_start(directory.c_str(), 1), 0) << vshost_error();
    ASSERT_EQ(VSDVS_CreateVSwitch(SWITCH, SWITCH, nullptr, 1, 0, 0, 0, 1), STATUS_OK);

    std::mt19937 random(20260101);
    uint32_t last = KEPT;
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        last = KillAWriter(directory, last + 1, std::chrono::microseconds(random() % 6000));
        ExpectState(last);
        if (round % 20 == 0) ExpectIntact(directory);
    }
    ExpectIntact(directory);
    vshost_stop();
    printf("%d rounds, %u numbers acknowledged\n", rounds, last);
}

}
