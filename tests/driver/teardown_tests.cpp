// Adapter teardown: what it releases, what it tells the camera, and that running
// it again finds nothing left to do. The bring-up fault sweep covers failed bring-ups.
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using TeardownTest = DriverTest;

PVOID DriverBlock(SIZE_T size) {
    return ExAllocatePoolWithTag(NonPagedPool, size, kDriverTag);
}

// The first run frees every table and reference; the second finds nothing to free.
TEST_F(TeardownTest, RunningTwiceFreesEachBlockOnceAndClearsEveryReference) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
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
    const std::vector<const void*> pointers(
        {ext->InterfaceInfoTable, ext->ConfigurationHandle, ext->DeviceDescriptor,
         ext->ConfigurationDescriptor, ext->DeferredFreeList, ext->Lut8Buffer, ext->KFreqChart,
         ext->CaptureStreamInfo, ext->CaptureFormats, ext->CaptureFormat, ext->StillFormat,
         ext->NextCaptureFormat, ext->ExposureRange, ext->PropertySets, ext->EventSets,
         ext->VpdImage, ext->DefectSection, ext->Section4});
    EXPECT_EQ(pointers, std::vector<const void*>(pointers.size(), nullptr));
    const std::vector<ULONG> counts(
        {ext->Lut8Length, ULONG(ext->KFreqChartCount), ext->KFreqChartMin, ext->KFreqChartMax,
         ext->KFreqChartCur, ext->CaptureFormatCount, ext->PropertySetCount, ext->EventSetCount,
         ext->VpdLength, ext->DefectSectionLength, ext->Section4Length});
    EXPECT_EQ(counts, std::vector<ULONG>(counts.size(), 0));
}

// Halting streams is tested with surprise removal; teardown must do it too, and
// leave the camera unconfigured.
TEST_F(TeardownTest, StopsOpenStreamsAndUnconfiguresTheCamera) {
    FakeStreams streams(Ext());
    PORNIX_STREAM_CONTEXT capture = streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_PAUSE);
    Class().Stop();
    EXPECT_EQ(capture->State, KSSTATE_STOP);
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());
    EXPECT_EQ(Camera().Configuration(), 0);
}

}  // namespace
}  // namespace ornixtest
