// PROPSETID_VIDCAP_VIDEOCONTROL: the still stream's trigger capabilities and
// mode, and the capture stream's frame intervals from the selected format
// and the camera's frame-rate chart.
#include "property_requests.h"
#include "stream_fixture.h"

namespace ornixtest {
namespace {

// A short buffer that reaches the driver fails an ASSERT first (checked builds).
const size_t kAssertsFired = ornixtest::DriverChecksAsserts() ? 1 : 0;

constexpr ULONG kCapture = ORNIX_CAPTURE_STREAM, kStill = ORNIX_STILL_STREAM;

// Sizes of the request records.
constexpr ULONG kCapsSize = 32, kModeSize = 32, kActualRateSize = 56, kRatesSize = 40;

// Bank 0 of the default camera: 1280 x 1024, 8 bits; 10^7 x W x H x B / 8192
// is the frame interval at frequency 1, in 100 ns units.
constexpr int64_t kFullFrameTicks = 12'800'000'000;
constexpr int64_t kChart[] = {12000, 16000, 20000, 24000, 32000, 40000, 48000};

class VideoControlPropertyTest : public StreamingTest {
  protected:
    PropertyClient Props() { return PropertyClient(Class()); }

    // The request record of `recordSize` bytes: StreamIndex, then `second`.
    PropertyAnswer Get(ULONG id, ULONG stream, ULONG size, ULONG recordSize, uint32_t second = 0) {
        Bytes extra = Words({stream, second});
        extra.resize(recordSize - sizeof(KSPROPERTY));
        return Props().Get(OrnixPropSetVideoControl, id, size, extra);
    }
    PropertyAnswer SetMode(ULONG stream, uint32_t mode, size_t recordSize = kModeSize) {
        Bytes extra = Words({stream, mode});
        extra.resize(recordSize - sizeof(KSPROPERTY));
        return Props().Set(OrnixPropSetVideoControl, KSPROPERTY_VIDEOCONTROL_MODE,
                           Bytes(kModeSize, 0), extra);
    }
    std::vector<std::pair<uint16_t, uint32_t>> TriggerWrites() {
        std::vector<std::pair<uint16_t, uint32_t>> writes = RegisterWrites(VendorRequests());
        std::erase_if(writes, [](const auto& w) { return w.first != ORNIX_STILL_TRIGGER; });
        return writes;
    }
    int64_t CurrentFrequency() { return Camera().PeekRegister(ORNIX_FMT_CUR_FREQ); }
};

TEST_F(VideoControlPropertyTest, TriggerCapabilitiesBelongToTheStillStream) {
    PropertyAnswer capture = Get(KSPROPERTY_VIDEOCONTROL_CAPS, kCapture, 32, kCapsSize);
    EXPECT_EQ(capture.status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(capture.returned, 0u);
    PropertyAnswer still = Get(KSPROPERTY_VIDEOCONTROL_CAPS, kStill, 48, kCapsSize);
    EXPECT_EQ(still.status, STATUS_SUCCESS);
    EXPECT_EQ(still.returned, 32u);
    EXPECT_EQ(WordAt(still.data, 28),
              ULONG(KS_VideoControlFlag_ExternalTriggerEnable | KS_VideoControlFlag_Trigger));
    EXPECT_EQ(Bytes(still.data.begin() + 32, still.data.end()), Bytes(16, 0));
    EXPECT_TRUE(still.guardIntact);
    // Short buffers never pass the framework; here they are asserted and refused.
    for (ULONG size : {0u, 1u, 31u}) {
        PropertyAnswer answer = Get(KSPROPERTY_VIDEOCONTROL_CAPS, kStill, size, kCapsSize);
        EXPECT_EQ(answer.status, size == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(answer.returned, size == 0 ? 32u : 0u);
        EXPECT_TRUE(answer.guardIntact);
        EXPECT_EQ(TakeViolations("ASSERT").size(), kAssertsFired) << size;
    }
    EXPECT_EQ(Get(4, kStill, 32, kCapsSize).status, STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(VendorRequests().empty());
}

// The answer is always for the format selected last, at the camera's
// current and highest frequency; binning asked for applies at the next selection.
TEST_F(VideoControlPropertyTest, ActualFrameRateFollowsTheSelectedFormatAndBinning) {
    Negotiate(kCapture);
    const int64_t frequency = CurrentFrequency();
    ASSERT_GT(frequency, 0);
    PropertyAnswer rate =
        Get(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, kCapture, 64, kActualRateSize);
    ASSERT_EQ(rate.status, STATUS_SUCCESS);
    EXPECT_EQ(rate.returned, 56u);
    EXPECT_EQ(QuadAt(rate.data, 40), kFullFrameTicks / frequency);
    EXPECT_EQ(QuadAt(rate.data, 48), 266666);
    EXPECT_EQ(Bytes(rate.data.begin() + 56, rate.data.end()), Bytes(8, 0));
    EXPECT_TRUE(rate.guardIntact);

    ASSERT_EQ(Props()
                  .Set(OrnixPropSetOxCustom, KSPROPERTY_OXCUSTOM_BINNING, Words({0, 0x00020002}))
                  .status,
              STATUS_SUCCESS);
    rate = Get(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, kCapture, 56, kActualRateSize);
    EXPECT_EQ(QuadAt(rate.data, 48), 266666) << "binning waits for the next selection";

    Negotiate(kCapture, 0, std::pair{640, 512});
    EXPECT_EQ(Camera().PeekRegister(ORNIX_FMT_BINNING), 0x00020002u);
    EXPECT_EQ(Camera().PeekRegister(ORNIX_FMT_SIZE), 1280u | 1024u << 16);
    rate = Get(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, kCapture, 56, kActualRateSize);
    ASSERT_EQ(rate.status, STATUS_SUCCESS);
    EXPECT_EQ(QuadAt(rate.data, 40), kFullFrameTicks / 4 / CurrentFrequency());
    EXPECT_EQ(QuadAt(rate.data, 48), 66666);

    // The still stream has no frame rate; buffers below the record are refused.
    EXPECT_EQ(Get(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, kStill, 56, kActualRateSize).status,
              STATUS_NOT_SUPPORTED);
    PropertyAnswer query =
        Get(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, kCapture, 0, kActualRateSize);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.returned, 56u);
    PropertyAnswer short_ =
        Get(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, kCapture, 55, kActualRateSize);
    EXPECT_EQ(short_.status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(short_.data, Bytes(55, 0));
    EXPECT_TRUE(short_.guardIntact);
}

TEST_F(VideoControlPropertyTest, FrameRateListHoldsOneIntervalPerChartEntry) {
    Negotiate(kCapture);
    const ULONG needed = 8 + 8 * std::size(kChart);
    PropertyAnswer list =
        Get(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, kCapture, needed + 16, kRatesSize);
    ASSERT_EQ(list.status, STATUS_SUCCESS);
    EXPECT_EQ(list.returned, needed);
    EXPECT_EQ(WordAt(list.data, 0), 8 * std::size(kChart));  // the intervals only
    EXPECT_EQ(WordAt(list.data, 4), std::size(kChart));
    for (size_t i = 0; i < std::size(kChart); ++i) {
        EXPECT_EQ(QuadAt(list.data, 8 + 8 * i), kFullFrameTicks / kChart[i]) << i;
    }
    EXPECT_EQ(Bytes(list.data.begin() + needed, list.data.end()), Bytes(16, 0));
    EXPECT_TRUE(list.guardIntact);

    PropertyAnswer query = Get(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, kStill, 0, kRatesSize);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW) << "any stream gets the capture list";
    EXPECT_EQ(query.returned, needed);
    for (ULONG size : {1u, needed - 1}) {
        PropertyAnswer answer =
            Get(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, kCapture, size, kRatesSize);
        EXPECT_EQ(answer.status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(answer.data, Bytes(size, 0));
        EXPECT_TRUE(answer.guardIntact);
    }
    EXPECT_EQ(Get(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, kCapture, needed, kRatesSize).status,
              STATUS_SUCCESS);

    // Writing the exposure record drops the chart; the next list reads it again.
    ASSERT_EQ(Props().Set(OrnixPropSetOxCustom, 31, Words({ORNIX_PROPERTY_PRESENT, 10000})).status,
              STATUS_SUCCESS);
    EXPECT_EQ(Ext()->KFreqChart, nullptr);
    EXPECT_EQ(Ext()->FreqMax, 0u);
    list = Get(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, kCapture, needed, kRatesSize);
    ASSERT_EQ(list.status, STATUS_SUCCESS);
    EXPECT_EQ(QuadAt(list.data, 8 * std::size(kChart)), 266666);
}

// Nothing to compute from: the answer is refused rather than divided by zero.
TEST_F(VideoControlPropertyTest, WithoutAFormatOrAFactorThereIsNoInterval) {
    Negotiate(kCapture);
    const ULONG saved = Ext()->BinningX;
    Ext()->BinningX = 0x0100;  // factor 0
    for (ULONG id :
         {KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, KSPROPERTY_VIDEOCONTROL_FRAME_RATES}) {
        PropertyAnswer answer = Get(id, kCapture, 128, kActualRateSize);
        EXPECT_EQ(answer.status, STATUS_NOT_SUPPORTED) << id;
        EXPECT_EQ(answer.data, Bytes(128, 0));
    }
    Ext()->BinningX = saved;
    PORNIX_FORMAT_RECORD format = Ext()->CaptureFormat;
    Ext()->CaptureFormat = nullptr;
    EXPECT_EQ(Get(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, kCapture, 128, kRatesSize).status,
              STATUS_NOT_SUPPORTED);
    Ext()->CaptureFormat = format;
}

TEST_F(VideoControlPropertyTest, ModeGetReadsTheTriggerRegister) {
    struct Case {
        uint32_t reg;
        uint32_t mode;
    } cases[] = {{0, 0}, {1, 4}, {2, 8}, {3, 12}, {0xFFFFFFFC, 0}};
    for (const Case& c : cases) {
        Camera().PokeRegister(ORNIX_STILL_TRIGGER, c.reg);
        PropertyAnswer answer = Get(KSPROPERTY_VIDEOCONTROL_MODE, kStill, 32, kModeSize);
        EXPECT_EQ(answer.status, STATUS_SUCCESS);
        EXPECT_EQ(answer.returned, 32u);
        EXPECT_EQ(WordAt(answer.data, 28), c.mode) << c.reg;
    }
    EXPECT_EQ(Get(KSPROPERTY_VIDEOCONTROL_MODE, kCapture, 32, kModeSize).status,
              STATUS_NOT_SUPPORTED);
    PropertyAnswer query = Get(KSPROPERTY_VIDEOCONTROL_MODE, kStill, 0, kModeSize);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.returned, 32u);
    for (ULONG size : {1u, 31u}) {
        PropertyAnswer answer = Get(KSPROPERTY_VIDEOCONTROL_MODE, kStill, size, kModeSize);
        EXPECT_EQ(answer.status, STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(answer.guardIntact);
    }
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 1});
    PropertyAnswer failed = Get(KSPROPERTY_VIDEOCONTROL_MODE, kStill, 32, kModeSize);
    EXPECT_FALSE(NT_SUCCESS(failed.status));
    EXPECT_EQ(failed.returned, 0u);
}

// Bit 2 tells the camera the still stream is open.
TEST_F(VideoControlPropertyTest, ModeSetWritesTheTriggerRegisterForTheStillStreamOnly) {
    using Writes = std::vector<std::pair<uint16_t, uint32_t>>;
    EXPECT_EQ(SetMode(kStill, 0xC).status, STATUS_SUCCESS);
    EXPECT_EQ(SetMode(kCapture, 0xC).status, STATUS_SUCCESS);
    EXPECT_EQ(TriggerWrites(), (Writes{{ORNIX_STILL_TRIGGER, 3}})) << "still stream closed";
    std::unique_ptr<winsim::Pin> still = OpenPin(kStill);
    ASSERT_TRUE(still);
    Camera().ClearRequests();
    EXPECT_EQ(SetMode(kStill, 0xC).status, STATUS_SUCCESS);
    EXPECT_EQ(SetMode(kStill, KS_VideoControlFlag_Trigger).status, STATUS_SUCCESS);
    EXPECT_EQ(SetMode(kStill, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(SetMode(kCapture, 0xC).status, STATUS_SUCCESS);
    EXPECT_EQ(
        TriggerWrites(),
        (Writes{{ORNIX_STILL_TRIGGER, 7}, {ORNIX_STILL_TRIGGER, 6}, {ORNIX_STILL_TRIGGER, 4}}));
    still.reset();

    // Only the mode can be set; a record too short for it is asserted and refused.
    Camera().ClearRequests();
    EXPECT_EQ(Props()
                  .Set(OrnixPropSetVideoControl, KSPROPERTY_VIDEOCONTROL_CAPS, Bytes(32, 0),
                       Words({kStill, 0}))
                  .status,
              STATUS_NOT_SUPPORTED);
    EXPECT_EQ(SetMode(kStill, 0xC, 31).status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(TakeViolations("ASSERT").size(), kAssertsFired);
    EXPECT_TRUE(TriggerWrites().empty());
}

}  // namespace
}  // namespace ornixtest
