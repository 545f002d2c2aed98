#include "tenant.h"

#include <gtest/gtest.h>
#include <vshost.h>

class Tenant : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(vshost_start(nullptr, 0), 0) << vshost_error(); // a throw-away host for this test
        ASSERT_EQ(VSDVS_CreateVSwitch("lab", nullptr, nullptr, 1, 0, 64, 2, 0), STATUS_OK);
    }
    void TearDown() override
    {
        vshost_clear();
        vshost_stop();
    }
};

TEST_F(Tenant, GetsAllItsPorts)
{
    EXPECT_EQ(AddTenant("lab", "blue", 3, 100), STATUS_OK);
    uint32_t number = 0;
    EXPECT_EQ(VSDVS_DvPortIDToPortID("lab", "blue-2", &number), STATUS_OK);
}

TEST_F(Tenant, LeavesNothingWhicheverWriteFails)
{
    const uint64_t before = vshost_fingerprint();
    for (unsigned nth = 1;; nth++) {
        vshost_fail(VSHOST_STORE, "DVSZOR_PortDataSet", nth, 1, STATUS_IO_ERROR);
        const VsStatus status = AddTenant("lab", "blue", 3, 100);
        const bool failed = vshost_failed() > 0;
        vshost_clear();
        if (!failed) break; // fewer than n writes
        EXPECT_EQ(status, STATUS_IO_ERROR);
        EXPECT_EQ(vshost_fingerprint(), before) << "after write " << nth;
    }
}

TEST_F(Tenant, SeesADeadUplink)
{
    EXPECT_EQ(LiveUplinks("lab"), 2);
    ASSERT_EQ(vshost_scenario(R"({"nics": {"nic0": {"link": false}}})"), 0) << vshost_error();
    EXPECT_EQ(LiveUplinks("lab"), 1);
}
