// What holds for every operation.
#include "tests/fixture.h"

namespace {

TEST_F(LabTest, ANewSwitchHasItsNames)
{
    char switchId[SWITCH_ID_SIZE] = {};
    EXPECT_EQ(DVSAliasToSwitchId(LAB, switchId), STATUS_OK);
    EXPECT_STREQ(switchId, LAB_ID);
    EXPECT_EQ(Read(SWITCH_PORTSET)->bytes, Text(LAB_PORTSET));
}

}
