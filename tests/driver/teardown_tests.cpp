// Adapter teardown: what it releases, what it tells the camera, that running
// it again finds nothing left to do, and what a failed bring-up leaves.
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::RequestKind;

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

// Every table bring-up built, and every reference into them, goes with the
// first run; the second finds nothing (the verifier catches double frees).
TEST_F(TeardownTest, RunningTwiceFreesEachBlockOnceAndClearsEveryReference) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    ASSERT_NE(ext->DeviceDescriptor, nullptr);
    ASSERT_NE(ext->ConfigurationDescriptor, nullptr);
    ASSERT_NE(ext->InterfaceInfoTable, nullptr);
    ASSERT_NE(ext->VpdImage, nullptr);
    ASSERT_NE(ext->DefectSection, nullptr);
    ASSERT_NE(ext->Section4, nullptr);
    ASSERT_NE(ext->PropertySets, nullptr);
    ASSERT_NE(ext->EventSets, nullptr);
    ASSERT_GE(ext->CaptureFormatCount, 2u);
    ext->CaptureFormat = ext->NextCaptureFormat =
        CONTAINING_RECORD(ext->CaptureFormats[0], ORNIX_FORMAT_RECORD, DataRange);
    ext->StillFormat = CONTAINING_RECORD(ext->CaptureFormats[1], ORNIX_FORMAT_RECORD, DataRange);
    ext->KFreqChart = static_cast<PUSHORT>(DriverBlock(3 * sizeof(USHORT)));
    ext->KFreqChartCount = 3;
    ext->KFreqChartMin = 10;
    ext->KFreqChartMax = 30;
    ext->KFreqChartCur = 20;
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
    const std::vector<const void*> pointers = {
        ext->InterfaceInfoTable, ext->ConfigurationHandle,
        ext->DeviceDescriptor,   ext->ConfigurationDescriptor,
        ext->DeferredFreeList,   ext->Lut8Buffer,
        ext->KFreqChart,         ext->CaptureStreamInfo,
        ext->CaptureFormats,     ext->CaptureFormat,
        ext->StillFormat,        ext->NextCaptureFormat,
        ext->ExposureRange,      ext->PropertySets,
        ext->EventSets,          ext->VpdImage,
        ext->DefectSection,      ext->Section4};
    EXPECT_EQ(pointers, std::vector<const void*>(pointers.size(), nullptr));
    const std::vector<ULONG> counts = {
        ext->Lut8Length,    ULONG(ext->KFreqChartCount), ext->KFreqChartMin,    ext->KFreqChartMax,
        ext->KFreqChartCur, ext->CaptureFormatCount,     ext->PropertySetCount, ext->EventSetCount,
        ext->VpdLength,     ext->DefectSectionLength,    ext->Section4Length};
    EXPECT_EQ(counts, std::vector<ULONG>(counts.size(), 0));
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

class FailedBringUpTest : public DriverTest {
  protected:
    bool StartsAdapterInSetUp() const override { return false; }
};

TEST_F(FailedBringUpTest, IsTornDownOnceAndLeavesTheCameraUnconfigured) {
    // The second selection, after the formats are known.
    Stack().AddFault({.kind = RequestKind::SelectConfiguration, .occurrence = 2});
    AddAdapter();

    EXPECT_EQ(StartAdapter(), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Ext()->Initialized, 0);
    EXPECT_EQ(Ext()->Uninitializing, 1);
    EXPECT_EQ(Stack().Counts(RequestKind::AbortPipe).submitted, 0u);
    EXPECT_FALSE(InterruptMutexTakenUnderRequestMutex());
    // Unconfigured once more, and only once per teardown that found a handle.
    EXPECT_EQ(CountLogged("ORNIX: Unconfiguring device"), 1u);
    EXPECT_EQ(Camera().Configuration(), 0);
    EXPECT_TRUE(
        Logged("ORNIX: Selecting the Configuration fialed with 0xc0000001, USBD 0xc0000005"));
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
}

}  // namespace
}  // namespace ornixtest
