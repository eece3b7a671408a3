// SRB_GET_STREAM_INFO: the stream descriptor, its pins and topology; a camera
// without pins.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "camera/profile.h"
#include "driver_harness.h"

namespace ornixtest {
namespace {

const std::string kCapturePin = "FB6C4281-0353-11D1-905F-0000C0CC16BA";
const std::string kStillPin = "FB6C428A-0353-11D1-905F-0000C0CC16BA";

class StreamInfoTest : public DriverTest {
  protected:
    // The descriptor for `streams` records, `slack` bytes more or less.
    SrbResult Query(ULONG streams, LONG slack = 0) {
        ULONG size =
            ULONG(sizeof(HW_STREAM_HEADER) + streams * sizeof(HW_STREAM_INFORMATION) + slack);
        buffer_.assign(size / 8 + 1, 0xA5A5A5A5A5A5A5A5ull);
        winsim::ClearDebugLog();
        return Class().SendAdapterSrb(SRB_GET_STREAM_INFO, buffer_.data(), size);
    }
    const HW_STREAM_HEADER& Header() const {
        return reinterpret_cast<const HW_STREAM_DESCRIPTOR*>(buffer_.data())->StreamHeader;
    }
    const HW_STREAM_INFORMATION& Stream(ULONG n) const {
        return (&reinterpret_cast<const HW_STREAM_DESCRIPTOR*>(buffer_.data())->StreamInfo)[n];
    }
    bool Untouched() const {
        return std::all_of(buffer_.begin(), buffer_.end(),
                           [](uint64_t word) { return word == 0xA5A5A5A5A5A5A5A5ull; });
    }

  private:
    std::vector<uint64_t> buffer_;
};

TEST_F(StreamInfoTest, EachPinOffersTheCaptureFormatsUnderItsOwnNameBelowTheDeviceTables) {
    const std::string names[] = {kCapturePin, kStillPin};
    for (ULONG streams : {2u, 1u}) {
        SCOPED_TRACE(streams);
        Ext()->StreamCount = streams;
        ASSERT_EQ(Query(streams).status, STATUS_SUCCESS);
        EXPECT_EQ(Header().NumberOfStreams, streams);
        EXPECT_EQ(Header().SizeOfHwStreamInformation, sizeof(HW_STREAM_INFORMATION));
        for (ULONG n = 0; n < streams; ++n) {
            const HW_STREAM_INFORMATION& s = Stream(n);
            // One instance, out, accessible; the default camera's 7 formats, 2 property sets.
            EXPECT_EQ(std::vector<ULONG>({s.NumberOfPossibleInstances, ULONG(s.DataFlow),
                                          ULONG(s.DataAccessible), s.NumberOfFormatArrayEntries,
                                          s.NumStreamPropArrayEntries, s.NumStreamEventArrayEntries,
                                          s.MediumsCount, ULONG(s.BridgeStream)}),
                      std::vector<ULONG>({1, KSPIN_DATAFLOW_OUT, TRUE, 7, 2, 0, 0, 0}));
            EXPECT_EQ(s.StreamFormatsArray, Ext()->CaptureFormats);
            EXPECT_EQ(s.StreamPropertiesArray, DriverAddress(OrnixStreamPropertySets));
            EXPECT_EQ(GuidText(s.Name), names[n]);
            EXPECT_EQ(GuidText(s.Category), names[n]);
        }
    }
    EXPECT_EQ(Header().NumDevPropArrayEntries, Ext()->PropertySetCount);
    EXPECT_EQ(Header().DevicePropertiesArray, Ext()->PropertySets);
    ASSERT_NE(Ext()->EventSetCount, 0u);
    EXPECT_EQ(Header().NumDevEventArrayEntries, Ext()->EventSetCount);
    EXPECT_EQ(Header().DeviceEventsArray, Ext()->EventSets);
    EXPECT_EQ(reinterpret_cast<const void*>(Header().DeviceEventRoutine),
              DriverAddress(reinterpret_cast<const void*>(&OrnixDeviceEventProc)));
    const KSTOPOLOGY* topology = Header().Topology;
    ASSERT_NE(topology, nullptr);
    ASSERT_EQ(topology->CategoriesCount, 3u);
    EXPECT_EQ(GuidText(&topology->Categories[0]), "6994AD05-93EF-11D0-A3CC-00A0C9223196");
    EXPECT_EQ(GuidText(&topology->Categories[1]), kStillPin);
    EXPECT_EQ(GuidText(&topology->Categories[2]), "65E8773D-8F56-11D0-A3B9-00A0C9223196");
    EXPECT_EQ(topology->TopologyNodesCount + topology->TopologyConnectionsCount, 0u);
    Ext()->EventSetCount = 0;  // no event routine without events
    ASSERT_EQ(Query(1).status, STATUS_SUCCESS);
    EXPECT_EQ(Header().DeviceEventRoutine, nullptr);
}

TEST_F(StreamInfoTest, AdapterNotReadyOrBufferTooSmallWritesNothing) {
    Ext()->StreamCount = 2;
    Ext()->Uninitializing = TRUE;
    EXPECT_EQ(Query(2).status, STATUS_DEVICE_NOT_READY);
    EXPECT_TRUE(Untouched());
    EXPECT_TRUE(Logged("ORNIX:  ext NOT Initialized "));
    Ext()->Uninitializing = FALSE;
    EXPECT_EQ(Query(2, -8).status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_TRUE(Untouched());
    EXPECT_EQ(TakeViolations("ASSERT").size(), 1u);  // the size check
}

// A camera without a bulk-in endpoint has nothing to stream: the adapter still
// starts, as a filter without pins that keeps its controls and events. Events on
// interrupt IN 0x83 in setting 0, the FPGA pipe in setting 1.
class PinlessCameraTest : public DriverTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        return ornixcam::ParseProfile(R"({
  "name": "camera without a bulk-in endpoint",
  "configuration": {
    "alternateSettings": [
      {"endpoints": [{"address": "0x83", "type": "interrupt", "maxPacketSize": 8, "interval": 4}]},
      {"endpoints": [{"address": "0x02", "type": "bulk", "maxPacketSize": 512}]}
    ]
  }
})");
    }
};

TEST_F(PinlessCameraTest, StartsAsAFilterWithoutPins) {
    EXPECT_EQ(Ext()->StreamCount, 0u);
    EXPECT_EQ(Class().StreamDescriptorSize(), sizeof(HW_STREAM_HEADER));
    ASSERT_NE(Class().StreamHeader(), nullptr);
    EXPECT_EQ(Class().StreamHeader()->NumberOfStreams, 0u);
    EXPECT_TRUE(Class().Filter().pins.empty());
    EXPECT_FALSE(Class().Filter().propertySets.empty());
    EXPECT_FALSE(Class().Filter().eventSets.empty());
}

}  // namespace
}  // namespace ornixtest
