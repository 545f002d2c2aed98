// Switches and ports, created and destroyed: what is stored, in which order, and what a failure leaves.
#include "tests/command_lines.h"
#include "tests/family.h"

namespace {

using Lifecycle = HostTest;

constexpr char CREATE[] = "-e set /net/create lab 128\n vswitch";
constexpr char DESTROY[] = "-e set /net/portsets/lab/destroy destroy";

VsStatus CreateSmall() { return VSDVS_CreateVSwitch(LAB, "id", nullptr, 7, 1, 0, 1, 2); }

std::string Id(const char *alias)
{
    char id[SWITCH_ID_SIZE] = {};
    EXPECT_EQ(DVSAliasToSwitchId(alias, id), STATUS_OK) << alias;
    return id;
}

TEST_F(Lifecycle, AnIdIsMadeOfFifteenCharactersOfTheAlias)
{
    const std::pair<const char *, const char *> cases[] = {
        {"lab", "6c 61 62 00 00 00 00 00-00 00 00 00 00 00 00 00"},
        {"", "00 00 00 00 00 00 00 00-00 00 00 00 00 00 00 00"},
        {"J\x7f\xe9\xff!", "4a 7f e9 ff 21 00 00 00-00 00 00 00 00 00 00 00"},
        {"abcdefghijklmno", "61 62 63 64 65 66 67 68-69 6a 6b 6c 6d 6e 6f 00"},
        {"ABCDEFGHIJKLMNOP", "41 42 43 44 45 46 47 48-49 4a 4b 4c 4d 4e 4f 00"},
        {"0123456789abcdefghij", "30 31 32 33 34 35 36 37-38 39 61 62 63 64 65 00"}};
    for (const auto &[alias, id] : cases) {
        const std::string portset(id, 2);
        EXPECT_EQ(VSDVS_CreateVSwitch(alias, nullptr, portset.c_str(), 1, 0, 8, 0, 0), STATUS_OK) << alias;
        EXPECT_EQ(Id(alias), id);
    }
    EXPECT_EQ(VSDVS_CreateVSwitch("abcdefghijklmno 2", nullptr, "p", 1, 0, 8, 0, 0), STATUS_EXISTS);
}

TEST_F(Lifecycle, StepsAreTakenInOrder)
{
    TakeCommandLines();
    EXPECT_EQ(StepsOf([] { ASSERT_EQ(CreateSmall(), STATUS_OK); }),
              (Steps{CREATE, "SwitchAdd id - -", "GlobalPropSet id - com.talpex.common.alias",
                     "GlobalPropSet id - com.talpex.common.version",
                     "GlobalPropSet id - com.talpex.common.opaqueDvs",
                     "HostPropSet id - com.talpex.common.host.portset", "SwitchAssociate id - -",
                     "PortAdd id uplink0 -", "GlobalPropSet id - com.talpex.common.uplinkPorts",
                     "HostPropSet id - com.talpex.common.host.uplinkPorts", "PortAdd id port0 -",
                     "PortAdd id port1 -"}));
    EXPECT_EQ(StepsOf([] { ASSERT_EQ(VSDVS_DestroyVSwitch(LAB), STATUS_OK); }),
              (Steps{"SwitchDissociate id - -", "SwitchRemove id - -", DESTROY}));
    EXPECT_EQ(TakeCommandLines(),
              (Steps{"/bin/tybel -e set /net/create lab \"128\n\" vswitch 2>/dev/null",
                     "/bin/tybel -e set /net/portsets/lab/destroy destroy 2> /dev/null"}));
}

// Failures of the undo do not change the status and do not end the undo.
TEST_F(Lifecycle, EveryStepOfACreationIsUndone)
{
    vshost_fail(VSHOST_STORE, "DVSZOR_PortAdd", 3, 1, STATUS_BUSY);
    vshost_fail(VSHOST_STORE, "DVSZOR_SwitchDissociate", 1, 1, STATUS_IO_ERROR);
    vshost_fail(VSHOST_STORE, "DVSZOR_SwitchRemove", 1, 1, STATUS_IO_ERROR);
    vshost_fail(VSHOST_SHELL, "destroy", 1, 1, 1);
    const Steps steps = StepsOf([] { EXPECT_EQ(CreateSmall(), STATUS_BUSY); });
    EXPECT_EQ(Steps(steps.end() - 4, steps.end()),
              (Steps{"PortAdd id port1 -", "SwitchDissociate id - -", "SwitchRemove id - -", DESTROY}));
}

TEST_F(LabTest, APortComesAsABundle)
{
    vshost_record(1);
    ASSERT_EQ(VSDVS_AddDVPort(LAB, "p", 7), STATUS_OK);
    vshost_record(0);
    std::vector<uint32_t> bundleKinds;
    for (const Call &call : Calls(VSHOST_STORE))
        if (call.operation == "DVSData_Serialize"s) bundleKinds.push_back(call.flags);
    EXPECT_EQ(bundleKinds, std::vector<uint32_t>{5});
}

}
