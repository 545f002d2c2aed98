// The tables of frames in the kernel's test run.
#include "tests/live_scenario.h"

namespace live_test {
namespace {

class LiveFrames : public LiveTest, public testing::WithParamInterface<Table> {};

TEST_P(LiveFrames, LeaveAsTheTableSays)
{
    for (const Row &row : GetParam().rows) {
        TestRun run(Options());
        Play(run, row);
        TearDown();
    }
}

INSTANTIATE_TEST_SUITE_P(Tables, LiveFrames, testing::ValuesIn(FrameTables()),
                         [](const auto &info) { return info.param.name; });

}
}
