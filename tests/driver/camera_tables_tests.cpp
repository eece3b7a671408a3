// Release of the per-camera tables: every reference into the start-up tables
// cleared, the product data and the deferred blocks freed, and a second
// release finding nothing left to free.
#include <cstdint>
#include <vector>

#include "vpd_fixture.h"

namespace ornixtest {
namespace {

using CameraTablesTest = VpdTest;

TEST_F(CameraTablesTest, ReleasingTwiceFreesEachTableOnce) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    OrnixReleaseCameraTables(ext);  // whatever start-up built
    StoreVpd(Concat({VpdSection(1, {1, 0, 2, 0}), VpdSection(4, {4}), VpdEnd()}));
    ASSERT_EQ(OrnixReadVpd(ext), STATUS_SUCCESS);

    void* propertyTable = OrnixAllocatePool(64);
    void* eventTable = OrnixAllocatePool(32);
    ASSERT_EQ(OrnixDeferFree(ext, propertyTable), STATUS_SUCCESS);
    ASSERT_EQ(OrnixDeferFree(ext, eventTable), STATUS_SUCCESS);
    ext->PropertySets = static_cast<PKSPROPERTY_SET>(propertyTable);
    ext->PropertySetCount = 3;
    ext->EventSets = static_cast<PKSEVENT_SET>(eventTable);
    ext->EventSetCount = 2;
    void* formatTable = OrnixAllocatePool(96);
    ASSERT_EQ(OrnixDeferFree(ext, formatTable), STATUS_SUCCESS);
    ext->CaptureStreamInfo = static_cast<PHW_STREAM_INFORMATION>(formatTable);
    ext->CaptureFormats = reinterpret_cast<PKSDATAFORMAT*>(ext->CaptureStreamInfo + 1);
    ext->CaptureFormatCount = 2;
    auto* record = reinterpret_cast<struct _ORNIX_FORMAT_RECORD*>(ext->CaptureFormats + 2);
    ext->CaptureFormat = record;
    ext->StillFormat = record;
    ext->NextCaptureFormat = record;
    ext->ExposureRange = reinterpret_cast<PKSPROPERTY_STEPPING_LONG>(ext->PropertySets + 1);
    ext->KFreqChart = static_cast<PUSHORT>(OrnixAllocatePool(3 * sizeof(USHORT)));
    ASSERT_NE(ext->KFreqChart, nullptr);
    ext->KFreqChartCount = 3;
    ext->KFreqChartMin = 10;
    ext->KFreqChartMax = 30;
    ext->KFreqChartCur = 20;

    OrnixReleaseCameraTables(ext);
    OrnixReleaseCameraTables(ext);

    EXPECT_EQ(ext->KFreqChart, nullptr);
    EXPECT_EQ(ext->KFreqChartCount, 0);
    EXPECT_EQ(ext->KFreqChartMin, 0);
    EXPECT_EQ(ext->KFreqChartMax, 0);
    EXPECT_EQ(ext->KFreqChartCur, 0);
    EXPECT_EQ(ext->CaptureStreamInfo, nullptr);
    EXPECT_EQ(ext->CaptureFormats, nullptr);
    EXPECT_EQ(ext->CaptureFormatCount, 0u);
    EXPECT_EQ(ext->CaptureFormat, nullptr);
    EXPECT_EQ(ext->StillFormat, nullptr);
    EXPECT_EQ(ext->NextCaptureFormat, nullptr);
    EXPECT_EQ(ext->ExposureRange, nullptr);
    EXPECT_EQ(ext->PropertySets, nullptr);
    EXPECT_EQ(ext->PropertySetCount, 0u);
    EXPECT_EQ(ext->EventSets, nullptr);
    EXPECT_EQ(ext->EventSetCount, 0u);
    EXPECT_EQ(ext->VpdImage, nullptr);
    EXPECT_EQ(ext->VpdLength, 0u);
    EXPECT_EQ(ext->DefectSection, nullptr);
    EXPECT_EQ(ext->DefectSectionLength, 0u);
    EXPECT_EQ(ext->Section4, nullptr);
    EXPECT_EQ(ext->Section4Length, 0u);
    EXPECT_EQ(ext->DeferredFreeList, nullptr);
    // Nothing of the driver's is left in the pool (TearDown checks it again
    // after the adapter is gone, with the verifier catching double frees).
}

}  // namespace
}  // namespace ornixtest
