// The tables of frames in the kernel's test run.
#include "tests/live_scenario.h"

namespace live_test {
namespace {

class LiveFrames : public LiveTest, public testing::WithParamInterface<Table> {};

TEST_P(LiveFrames, LeaveAsTheTableSays)
{
    TestRun run(Options());
    for (const Row &row : GetParam().rows) {
        Play(run, row);
        run.Clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Tables, LiveFrames, testing::ValuesIn(FrameTables()),
                         [](const auto &info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(MoreTables, LiveFrames, testing::ValuesIn(MulticastTables()),
                         [](const auto &info) { return info.param.name; });

}
}
