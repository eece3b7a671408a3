// A camera without a bulk-in endpoint has nothing to stream: the adapter still
// starts, as a filter without pins that keeps its controls and events.
#include "camera/profile.h"
#include "driver_harness.h"

namespace ornixtest {
namespace {

// Events on interrupt IN 0x83 in setting 0, the FPGA pipe in setting 1; no bulk IN.
constexpr const char* kNoBulkInProfile = R"({
  "name": "camera without a bulk-in endpoint",
  "configuration": {
    "alternateSettings": [
      {"endpoints": [{"address": "0x83", "type": "interrupt", "maxPacketSize": 8, "interval": 4}]},
      {"endpoints": [{"address": "0x02", "type": "bulk", "maxPacketSize": 512}]}
    ]
  }
})";

class PinlessCameraTest : public DriverTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        return ornixcam::ParseProfile(kNoBulkInProfile);
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
