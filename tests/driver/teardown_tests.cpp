// Adapter teardown: what it releases, what it tells the camera, and that
// running it again finds nothing left to do.
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using TeardownTest = DriverTest;

PVOID DriverBlock(SIZE_T size) {
    return ExAllocatePoolWithTag(NonPagedPool, size, kDriverTag);
}

TEST_F(TeardownTest, UnconfiguresAConfiguredCamera) {
    EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);

    EXPECT_EQ(ControlRequests(),
              std::vector<WireRequest>{(WireRequest{0x00, kSetConfiguration, 0, 0, 0, {}})});
    EXPECT_EQ(Camera().Configuration(), 0);
    EXPECT_EQ(Log(), (std::vector<std::string>{
                         "ORNIX: SRB_UNINITIALIZE_DEVICE", "ORNIX: OrnixUninitializeDevice",
                         "ORNIX: Unconfiguring device", "ORNIX: Done unconfiguring device"}));
}

TEST_F(TeardownTest, RunningTwiceFreesEachBlockOnce) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    ASSERT_NE(ext->DeviceDescriptor, nullptr);
    ASSERT_NE(ext->ConfigurationDescriptor, nullptr);
    ASSERT_NE(ext->InterfaceInfoTable, nullptr);
    ext->Lut8Buffer = static_cast<PUCHAR>(DriverBlock(256));
    ext->Lut8Length = 256;
    ASSERT_EQ(OrnixDeferFree(ext, DriverBlock(32)), STATUS_SUCCESS);

    EXPECT_EQ(OrnixUninitializeDevice(ext), STATUS_SUCCESS);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
    winsim::ClearDebugLog();
    Camera().ClearRequests();

    EXPECT_EQ(OrnixUninitializeDevice(ext), STATUS_SUCCESS);

    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixUninitializeDevice"});
    EXPECT_TRUE(ControlRequests().empty());
    EXPECT_EQ(ext->Uninitializing, 1);
    EXPECT_EQ(ext->InterfaceInfoTable, nullptr);
    EXPECT_EQ(ext->ConfigurationHandle, nullptr);
    EXPECT_EQ(ext->DeviceDescriptor, nullptr);
    EXPECT_EQ(ext->ConfigurationDescriptor, nullptr);
    EXPECT_EQ(ext->DeferredFreeList, nullptr);
    EXPECT_EQ(ext->Lut8Buffer, nullptr);
    EXPECT_EQ(ext->Lut8Length, 0u);
}

TEST_F(TeardownTest, StopsAndReleasesOpenStreams) {
    Ext()->StreamCount = 2;
    FakeStreams streams(Ext());
    streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_RUN);
    streams.Open(ORNIX_STILL_STREAM, KSSTATE_PAUSE);

    Class().Stop();

    EXPECT_TRUE(Logged("ORNIX: S# 0 is paused."));
    EXPECT_TRUE(Logged("ORNIX: S# 0 is stopped."));
    EXPECT_TRUE(Logged("ORNIX: S# 1 is stopped."));
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());
}

TEST_F(TeardownTest, AfterFailedBringUpLeavesStreamsAndInterruptPipeAlone) {
    Ext()->Initialized = FALSE;
    Ext()->StreamCount = 1;
    FakeStreams streams(Ext());
    PORNIX_STREAM_CONTEXT capture = streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_RUN);

    Class().Stop();

    EXPECT_EQ(capture->State, KSSTATE_RUN);
    EXPECT_FALSE(InterruptMutexTakenUnderRequestMutex());
}

}  // namespace
}  // namespace ornixtest
