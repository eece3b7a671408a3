// Format banks and property records as the camera's registers show them,
// built from the profile.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

uint32_t Capture(Camera& camera, unsigned bank, uint16_t offset) {
    return Read(camera, reg::CaptureBank(bank, offset));
}

TEST(FormatBanks, ExistOnlyBelowTheFormatCount) {
    Camera camera;  // three formats
    EXPECT_EQ(Capture(camera, 2, reg::fmt::kMaxSize), 512u << 16 | 640);
    EXPECT_EQ(Probe(camera, reg::CaptureBank(3, reg::fmt::kMaxSize)), kStall);
    EXPECT_EQ(WriteRegister(camera, reg::StillBank(2, reg::still::kSize), 1), kAck);
    EXPECT_EQ(WriteRegister(camera, reg::StillBank(3, reg::still::kSize), 1), kStall);
    EXPECT_EQ(Probe(camera, reg::StillBank(0, reg::still::kSize)), kStall);  // write-only

    Camera none(ParseProfile(R"({"formatBanks": []})"));
    EXPECT_EQ(Read(none, reg::kFormatCount), 0u);
    EXPECT_EQ(Probe(none, reg::kCaptureBankBase), kStall);
    // A count below the list hides banks.
    Camera fewer(ParseProfile(R"({"registers": {"0x019C": 1}})"));
    EXPECT_EQ(Probe(fewer, reg::CaptureBank(1, 0)), kStall);
    // A camera claiming absurdly many formats still has only the banks that fit.
    Camera greedy(ParseProfile(R"({"registers": {"0x019C": 1000}})"));
    EXPECT_EQ(Probe(greedy, reg::CaptureBank(31, reg::fmt::kSize)), kAck);
    EXPECT_EQ(Probe(greedy, reg::CaptureBank(32, reg::fmt::kSize)), kStall);
    EXPECT_EQ(Read(greedy, reg::kSupport0), 1u);
}

TEST(FormatBanks, TheChartComesTwoEntriesPerReadAndColourIdsKeepTheirFlags) {
    Camera camera(ParseProfile(R"({"formatBanks": [
        {"frequency": {"min": 2000, "max": 10000}, "chart": [2000, 4000, 6000, 8000, 10000],
         "colorId": 8, "interlaced": true, "bottomUp": true,
         "colorInquiry": {"base": 8, "extra": "0xFFFF", "interlaced": true}}]})"));
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyCount), 5u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), 0x0FA007D0u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), 0x1F401770u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), 0x00002710u);
    // Past the end it starts over, and so does every count read.
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), 0x0FA007D0u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyCount), 5u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), 0x0FA007D0u);
    // The current frequency defaults to the minimum.
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kCurrentFrequency), 2000u);

    // A write of the colour id keeps the bank's flags.
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorInquiry), 0x01FFFF08u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorId), 0x03000008u);
    ASSERT_EQ(WriteRegister(camera, reg::CaptureBank(0, reg::fmt::kColorId), 0x12345609), kAck);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorId), 0x03000009u);
}

constexpr uint32_t kPresent = 1u << 31, kAutoAvailable = 1u << 30, kAutoOn = 1u << 14;

using Words = std::array<uint32_t, 4>;  // control, value, minimum, maximum
Words Record(Camera& camera, unsigned record) {
    const auto first = static_cast<uint16_t>(reg::kPropertyBlockFirst + 16 * record);
    return {Read(camera, first), Read(camera, first + 4), Read(camera, first + 8),
            Read(camera, first + 12)};
}

TEST(PropertyRecords, AreSetByNameOrNumberAndMergeWithTheDefault) {
    Camera camera(ParseProfile(R"({"properties": {
        "brightness": {"value": -10, "min": -255, "max": 255, "auto": true},
        "record56": {"value": 7, "max": "0xFFFFFFFF"}, "hue": {"present": false, "value": 3},
        "record13": {"control": "0x12345678"}, "contrast": null}})"));
    EXPECT_EQ(Record(camera, 0),
              (Words{kPresent | kAutoAvailable | kAutoOn, 0xFFFFFFF6, 0xFFFFFF01, 255}));
    EXPECT_EQ(Record(camera, 56), (Words{kPresent, 7, 0, 0xFFFFFFFF}));
    EXPECT_EQ(Record(camera, 2), (Words{0, 3, 0, 0}));
    EXPECT_EQ(Record(camera, 13), (Words{0x12345678, 0, 0, 0}));
    EXPECT_EQ(Record(camera, 10), (Words{kPresent | kAutoAvailable, 10000, 100, 2000000}));
}

}  // namespace
}  // namespace ornixcam
