// The storage engine from inside: work that throws.
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

#include "platform/host/engine.h"
#include "platform/host/guard.h"
#include "platform/host/host.h"

namespace {

using namespace vshost;

class EngineTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(StartHost(nullptr, false), 0) << LastError(); }
    void TearDown() override { StopHost(); }
};

VsStatus Put(Transaction &transaction) { return transaction.Put("key", "value"); }

// Beside the work of other threads: each call keeps its own status and changes, and none waits for ever.
TEST_F(EngineTest, AWorkThatThrowsIsUndoneAndTheNextOneRuns)
{
    const struct {
        VsStatus (*work)(Transaction &);
        VsStatus status;
    } cases[] = {
        {[](Transaction &transaction) -> VsStatus {
             throw std::out_of_range(std::to_string(Put(transaction)));
         },
         STATUS_IO_ERROR},
        {[](Transaction &) -> VsStatus { throw std::bad_alloc(); }, STATUS_NO_MEMORY},
        {[](Transaction &) -> VsStatus { throw 1; }, STATUS_IO_ERROR},
    };
    HostUse host;
    std::string value;
    for (const auto &row : cases) {
        EXPECT_EQ(host->GetEngine().Write(row.work), row.status);
        EXPECT_EQ(host->GetEngine().Get("key", value), STATUS_NOT_FOUND);
    }
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 50; round++) {
                HostUse use;
                const auto &row = cases[(i + round) % std::size(cases)];
                const std::string key = std::to_string(i);
                wrong += use->GetEngine().Write(row.work) != row.status;
                wrong += use->GetEngine().Write([&](Transaction &transaction) {
                    return transaction.Put(key, key);
                }) != STATUS_OK;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(host->GetEngine().Get("7", value), STATUS_OK);
    EXPECT_EQ(host->GetEngine().Get("key", value), STATUS_NOT_FOUND);
}

TEST(Status, AnErrnoComesBackAsItWasGiven)
{
    for (int error : {ENOSPC, EROFS, ENOMEM, EIO})
        EXPECT_EQ(ErrnoOf(StatusOfErrno(error)), error);
    EXPECT_EQ(ErrnoOf(StatusOfErrno(EACCES)), EROFS);
    EXPECT_EQ(ErrnoOf(STATUS_NOT_FOUND, ENODEV), ENODEV);
}

int ThrowErrno(int) { throw std::bad_alloc(); }
VsStatus ThrowStatus() { throw std::length_error("too long"); }
const char *ThrowText() { throw 1; }
int Length(const char *text) { return static_cast<int>(std::string(text).size()); }

TEST(Guard, TurnsExceptionsIntoWhatTheFunctionReturns)
{
    EXPECT_EQ(Guarded<ThrowErrno>(1), ENOMEM);
    EXPECT_EQ(Guarded<ThrowStatus>(), STATUS_IO_ERROR);
    EXPECT_EQ(Guarded<ThrowText>(), nullptr);
    EXPECT_EQ(Guarded<Length>("four"), 4);
}

}
