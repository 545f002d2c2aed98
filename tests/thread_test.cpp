// Eight threads in one process: each has its own switch, and all read a shared switch while another one is
// created and destroyed. Callers serialize only the changes to one switch.
#include <atomic>
#include <thread>

#include "tests/fixture.h"

namespace {

constexpr int THREADS = 8;
constexpr int ROUNDS = 40;

class Threads : public HostTest {
protected:
    template<typename Body> void Run(Body body)
    {
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; i++)
            threads.emplace_back(body, i);
        for (std::thread &thread : threads)
            thread.join();
    }
};

uint16_t VLANOf(const char *alias, const char *port)
{
    PortVLANRecord *record = nullptr;
    uint32_t priority = 0;
    if (VSDVS_GetPortVLANPolicy(alias, port, &record, &priority) != STATUS_OK) return 0xFFFF;
    const uint16_t vlan = record->vlanId;
    VSDVS_FreeMemory(record);
    return vlan;
}

TEST_F(Threads, SwitchesOfTheirOwn)
{
    std::atomic<int> failures = 0;
    Run([&](int thread) {
        const std::string alias = "own" + std::to_string(thread);
        const auto expect = [&](bool holds) { failures += !holds; };
        for (int round = 0; round < ROUNDS / 4; round++) {
            expect(VSDVS_CreateVSwitch(alias.c_str(), nullptr, nullptr, 1, 0, 0, 2, 2) == STATUS_OK);
            const auto vlan = static_cast<uint16_t>(1 + thread * 100 + round);
            expect(VSDVS_SetPortVLANPolicy(alias.c_str(), PORT, vlan, 3, 0, 0, nullptr, 0) == STATUS_OK);
            expect(VLANOf(alias.c_str(), PORT) == vlan);
            expect(VSDVS_AddSwitchUplinkPort(alias.c_str(), "more") == STATUS_OK);
            UplinkNameList *names = nullptr;
            UplinkPortIdList *ids = nullptr;
            expect(VSDVS_GetSwitchUplinkPorts(alias.c_str(), &names, &ids) == STATUS_OK && ids->count == 3);
            VSDVS_FreeMemory(names);
            VSDVS_FreeMemory(ids);
            void *uplinks = nullptr;
            expect(VSZOR_GetUplinks(alias.c_str(), &uplinks) == STATUS_OK &&
                   static_cast<ZorListHeader *>(uplinks)->count == 3);
            VSZOR_FreeMemory(uplinks);
            expect(VSDVS_DestroyVSwitch(alias.c_str()) == STATUS_OK);
        }
    });
    EXPECT_EQ(failures, 0);
}

// Every port belongs to one thread: no change is lost, whatever other threads write to other ports.
TEST_F(Threads, PortsOfASharedSwitchLoseNoUpdate)
{
    ASSERT_EQ(VSDVS_CreateVSwitch(LAB, LAB_ID, nullptr, 1, 0, 0, 0, THREADS), STATUS_OK);
    std::atomic<int> failures = 0;
    Run([&](int thread) {
        const std::string port = "port" + std::to_string(thread);
        for (uint16_t round = 1; round <= ROUNDS; round++) {
            const uint32_t security = round % 8u;
            failures +=
                VSDVS_SetPortVLANPolicy(LAB, port.c_str(), round, VLAN_PRIORITY_NONE, 0, 0, nullptr, 0) != 0;
            failures += VSDVS_SetPortSecurity(LAB, port.c_str(), &security) != STATUS_OK;
            uint32_t read = 99;
            failures += VSDVS_GetPortSecurity(LAB, port.c_str(), &read) != STATUS_OK || read != security;
            failures += VLANOf(LAB, port.c_str()) != round;
        }
    });
    EXPECT_EQ(failures, 0);
}

// A reader sees the whole switch or none of it.
TEST_F(Threads, ReadersWhileASwitchComesAndGoes)
{
    ASSERT_EQ(VSDVS_CreateVSwitch(LAB, LAB_ID, LAB_PORTSET, 1, 0, 0, 0, 1), STATUS_OK);
    std::atomic<int> failures = 0;
    std::atomic<bool> over = false;
    Run([&](int thread) {
        const auto expect = [&](bool holds) { failures += !holds; };
        if (thread == 0) {
            for (int round = 0; round < ROUNDS; round++) {
                expect(VSDVS_CreateVSwitch("guest", "guest-id", nullptr, 1, 0, 0, 1, 1) == STATUS_OK);
                expect(VSDVS_DestroyVSwitch("guest") == STATUS_OK);
            }
            over = true;
        }
        while (!over) {
            char text[PORTSET_NAME_SIZE];
            expect(DVSAliasToPortsetName(LAB, text) == STATUS_OK && std::string(text) == LAB_PORTSET);
            expect(DVSPortsetNameToAlias(LAB_PORTSET, text) == STATUS_OK && std::string(text) == LAB);
            const VsStatus status = DVSAliasToSwitchId("guest", text);
            expect(status == STATUS_NOT_FOUND || (status == STATUS_OK && std::string(text) == "guest-id"));
            expect(VLANOf(LAB, PORT) == 0);
            void *switches = nullptr;
            expect(VSZOR_GetSwitches(1, &switches) == STATUS_OK);
            VSZOR_FreeMemory(switches);
        }
    });
    EXPECT_EQ(failures, 0);
}

}
