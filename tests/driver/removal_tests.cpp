// SRB_SURPRISE_REMOVAL and SRB_PAGING_OUT_DRIVER: the interrupt pipe and the
// open streams are shut down, and a removed camera gets no more USB work.
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using RemovalTest = DriverTest;

TEST_F(RemovalTest, PagingOutLeavesAnInterruptPipeThatNeverRanAlone) {
    SrbResult result = Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER);

    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_FALSE(InterruptMutexTakenUnderRequestMutex());
}

TEST_F(RemovalTest, PagingOutStopsAnInterruptPipeThatWasSetUp) {
    URB interruptUrb{};
    Ext()->InterruptUrb = &interruptUrb;

    SrbResult result = Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER);

    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());
    Ext()->InterruptUrb = nullptr;
}

TEST_F(RemovalTest, StopsTheInterruptPipeEvenWhenItNeverRan) {
    SrbResult result = Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);

    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(Ext()->Removed, 1);
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());
}

TEST_F(RemovalTest, RunningStreamIsPausedThenStoppedAndPausedStreamStopped) {
    Ext()->StreamCount = 2;
    FakeStreams streams(Ext());
    PORNIX_STREAM_CONTEXT capture = streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_RUN);
    PORNIX_STREAM_CONTEXT still = streams.Open(ORNIX_STILL_STREAM, KSSTATE_PAUSE);

    SrbResult result = Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);

    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(capture->State, KSSTATE_STOP);
    EXPECT_EQ(still->State, KSSTATE_STOP);
    EXPECT_EQ(Log(),
              (std::vector<std::string>{"ORNIX: SRB_SURPRISE_REMOVAL", "ORNIX: S# 0 is paused.",
                                        "ORNIX: S# 0 is stopped.", "ORNIX: S# 1 is stopped."}));
}

TEST_F(RemovalTest, AcquiringAndStoppedStreamsAreLeftAlone) {
    Ext()->StreamCount = 2;
    FakeStreams streams(Ext());
    PORNIX_STREAM_CONTEXT capture = streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_ACQUIRE);
    PORNIX_STREAM_CONTEXT still = streams.Open(ORNIX_STILL_STREAM, KSSTATE_STOP);

    Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);

    EXPECT_EQ(capture->State, KSSTATE_ACQUIRE);
    EXPECT_EQ(still->State, KSSTATE_STOP);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: SRB_SURPRISE_REMOVAL"});
}

TEST_F(RemovalTest, OnlyStreamsTheAdapterOffersAreVisited) {
    Ext()->StreamCount = 1;
    FakeStreams streams(Ext());
    PORNIX_STREAM_CONTEXT still = streams.Open(ORNIX_STILL_STREAM, KSSTATE_RUN);

    Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);

    EXPECT_EQ(still->State, KSSTATE_RUN);
}

TEST_F(RemovalTest, PipeResetAfterRemovalFailsWithoutTraffic) {
    Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);
    winsim::ClearDebugLog();

    EXPECT_EQ(OrnixResetPipe(Ext(), Ext()->CapturePipe), STATUS_DEVICE_REMOVED);

    EXPECT_EQ(Log(), (std::vector<std::string>{"ORNIX: OrnixResetPipe: 0",
                                               "ORNIX: OrnixResetPipe: Removed"}));
    EXPECT_TRUE(ControlRequests().empty());
}

TEST_F(RemovalTest, TeardownOfARemovedCameraSendsNothingAndFreesEverything) {
    Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);

    EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);

    EXPECT_TRUE(ControlRequests().empty());
    EXPECT_FALSE(Logged("ORNIX: Unconfiguring device"));
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
}

}  // namespace
}  // namespace ornixtest
