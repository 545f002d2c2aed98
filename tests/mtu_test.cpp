// The MTU: read from the running switch, set on each uplink and the portset, then recorded; undone whole.
#include <algorithm>

#include "tests/command_lines.h"
#include "tests/family.h"

namespace {

const std::string GET = "-e get /net/portsets/lab-portset/mtu",
                  LIST = "-e ls /net/portsets/lab-portset/uplinks";
const std::string RECORD = "GlobalPropSet lab-id - com.talpex.vswitch.mtu",
                  RECORD_TOO = "GlobalPropSet lab-id - com.talpex.etherswitch.mtu";

std::string SetPortset(int mtu) { return "-e set /net/portsets/lab-portset/mtu " + std::to_string(mtu); }
std::string SetUplink(const std::string &nic, int mtu)
{
    return "-e set /net/pNics/" + nic + "/mtu " + std::to_string(mtu);
}
std::string Nic(size_t number) { return "nic" + std::to_string(number); }

int32_t MTU()
{
    int32_t mtu = -1;
    EXPECT_EQ(VSDVS_GetMTU(LAB, &mtu), STATUS_OK);
    return mtu;
}

void ExpectRecorded(const std::optional<std::string> &mtu)
{
    const auto stored = mtu ? std::optional(Stored{*mtu, 0x10}) : std::nullopt;
    EXPECT_EQ(Read(StoreLevel::GLOBAL, "com.talpex.vswitch.mtu"), stored);
    EXPECT_EQ(Read(StoreLevel::GLOBAL, "com.talpex.etherswitch.mtu"), stored);
}

class MTUOf : public HostTest, public testing::WithParamInterface<uint32_t> {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        ASSERT_EQ(VSDVS_CreateVSwitch(LAB, LAB_ID, LAB_PORTSET, 1, 0, 0, GetParam(), 0), STATUS_OK);
    }
};
INSTANTIATE_TEST_SUITE_P(Uplinks, MTUOf, testing::Values(0, 1, 31, 32, 40));

TEST_P(MTUOf, IsSetEverywhereOrNowhere)
{
    const size_t uplinks = std::min(GetParam(), 32u);
    const uint64_t before = vshost_fingerprint();
    // The nth "set" fails: the uplinks set before it are restored, last first.
    for (size_t failing = 0; failing <= uplinks; failing++) {
        vshost_fail(VSHOST_SHELL, "set", static_cast<unsigned>(failing + 1), 1,
                    failing % 2 ? 1 : VSHOST_SHELL_KILLED);
        Steps steps = {GET, LIST};
        for (size_t i = 0; i < std::min(failing + 1, uplinks); i++)
            steps.push_back(SetUplink(Nic(i), 9000));
        if (failing == uplinks) steps.push_back(SetPortset(9000));
        for (size_t i = failing; i-- > 0;)
            steps.push_back(SetUplink(Nic(i), 1500));
        EXPECT_EQ(StepsOf([] { EXPECT_EQ(VSDVS_SetMTU(LAB, 9000), STATUS_FAILURE); }), steps) << failing;
        vshost_clear();
        EXPECT_EQ(vshost_fingerprint(), before) << failing;
    }
    Steps steps = {GET, LIST};
    for (size_t i = 0; i < uplinks; i++)
        steps.push_back(SetUplink(Nic(i), 1280));
    steps.insert(steps.end(), {SetPortset(1280), RECORD, RECORD_TOO});
    EXPECT_EQ(StepsOf([] { EXPECT_EQ(VSDVS_SetMTU(LAB, 1280), STATUS_OK); }), steps);
    EXPECT_EQ(MTU(), 1280);
    ExpectRecorded(Word(1280));
}

TEST_F(LabTest, TheLastNumberOfTheOutputIsTheMTU)
{
    const std::string mebibyte(1048570, 'x');
    const struct {
        std::string output;
        std::optional<int32_t> mtu;
    } cases[] = {
        {"1500\n", 1500},
        {"1500", 1500},
        {"1500\r\n", 1500},
        {"mtu: 1400\n", 1400},
        {"1400:1500\n", 1500},
        {"1400\n\n:\r1500\rword\n", 1500},
        {" -5 6 7\n", -5},
        {"9k", 9},
        {"", {}},
        {"\n", {}},
        {":::\r\n", {}},
        {"word\n", {}},
        {"mtu=1500\n", {}},
        {std::string(127, 'x') + ":1500", {}},
        {std::string(124, 'x') + ":1500", 150}, // cut after 128 bytes
        {"1500\n" + mebibyte, 1500},
        {mebibyte, {}},
        {"15\0 00\n"s, 15},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(&row - cases);
        vshost_clear();
        vshost_shell_output("get", row.output.data(), static_cast<uint32_t>(row.output.size()));
        int32_t mtu = 7;
        EXPECT_EQ(VSDVS_GetMTU(LAB, &mtu), row.mtu ? STATUS_OK : STATUS_FAILURE);
        EXPECT_EQ(mtu, row.mtu.value_or(7));
    }
}

TEST_F(LabTest, AListingIsReadLineByLine)
{
    const std::string longest(30, 'n'); // with its "/" the longest possible entry
    ASSERT_EQ(vshost_scenario(("{\"nics\": {\"" + longest + "\": {}}}").c_str()), 0) << vshost_error();
    const struct {
        std::string listing;
        Steps uplinks; // those that are set
        VsStatus status;
    } cases[] = {
        {"nic0/\nnic1/\n", {"nic0", "nic1"}, STATUS_OK},
        {"nic0\nnic1", {"nic0", "nic1"}, STATUS_OK},
        {"\n\r\nnic0/\r\n\n\nnic1//\r\n\n", {"nic0", "nic1"}, STATUS_OK},
        {"", {}, STATUS_OK},
        {"\n\n", {}, STATUS_OK},
        {"nic1/\n" + longest + "/\n", {"nic1", longest}, STATUS_OK},
        {longest, {longest}, STATUS_OK},
        {"nic1/\nnic0/\n" + longest + "//\n", {"nic1", "nic0"}, STATUS_FAILURE},
        {longest + longest + "\n", {}, STATUS_FAILURE},
        {"nic1/\nnic9/\nnic0/\n", {"nic1"}, STATUS_FAILURE},
        // A carriage return ends an entry: what follows it on the line is dropped, however long it is.
        {"nic0/\rnic1/\nnic1\r" + longest + longest + "\r\n", {"nic0", "nic1"}, STATUS_OK},
        {"\rnic9\nnic1\rnic9", {"nic1"}, STATUS_OK},
        {longest + "/\r\n", {longest}, STATUS_OK},
        {"nic1/\n/\n", {"nic1"}, STATUS_FAILURE},
        {"nic1/\nnic0 nic1\n", {"nic1"}, STATUS_FAILURE},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.listing);
        vshost_clear();
        ASSERT_EQ(VSDVS_SetMTU(LAB, 1400), STATUS_OK);
        vshost_shell_output("ls", row.listing.data(), static_cast<uint32_t>(row.listing.size()));
        const Steps steps = StepsOf([&] { EXPECT_EQ(VSDVS_SetMTU(LAB, 9000), row.status); });
        for (const std::string &uplink : row.uplinks) {
            EXPECT_EQ(std::count(steps.begin(), steps.end(), SetUplink(uplink, 9000)), 1) << uplink;
            EXPECT_EQ(std::count(steps.begin(), steps.end(), SetUplink(uplink, 1400)),
                      row.status != STATUS_OK);
        }
        EXPECT_EQ(MTU(), row.status == STATUS_OK ? 9000 : 1400);
    }
}

TEST_F(LabTest, TheShellItselfRunsTheCommands)
{
    vshost_shell_in_process(0);
    TakeCommandLines();
    EXPECT_EQ(VSDVS_SetMTU(LAB, 9000), STATUS_OK);
    EXPECT_EQ(
        TakeCommandLines(),
        (Steps{"/bin/tybel -e get /net/portsets/lab-portset/mtu",
               "tybel -e ls /net/portsets/lab-portset/uplinks", "tybel -e set /net/pNics/nic0/mtu 9000",
               "tybel -e set /net/pNics/nic1/mtu 9000", "tybel -e set /net/portsets/lab-portset/mtu 9000"}));
    EXPECT_EQ(MTU(), 9000);
    ASSERT_EQ(vshost_scenario(R"({"nics": {"nic1": {"refused-mtus": [1280]}}})"), 0) << vshost_error();
    TakeCommandLines();
    EXPECT_EQ(VSDVS_SetMTU(LAB, 1280), STATUS_FAILURE);
    EXPECT_EQ(TakeCommandLines().back(), "tybel -e set /net/pNics/nic0/mtu 9000");
    EXPECT_EQ(MTU(), 9000);
    ExpectRecorded(Word(9000));
    const std::string mebibyte(1048576, '7'); // more than a pipe holds
    vshost_shell_output("get", mebibyte.data(), 1048576);
    int32_t mtu = 0;
    EXPECT_EQ(VSDVS_GetMTU(LAB, &mtu), STATUS_OK);
}

}
