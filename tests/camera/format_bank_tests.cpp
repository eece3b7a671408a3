// Format banks as the camera's registers show them to format discovery and
// the frame-rate chart.
#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera/register_map.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::Le32;
using test::ReadRegisters;
using test::WriteRegister;
using usbsim::Handshake;

uint32_t Read(Camera& camera, uint16_t index) {
    const auto reply = ReadRegisters(camera, index, 4);
    EXPECT_EQ(reply.handshake(), Handshake::Ack) << std::hex << index;
    return reply.data.size() == 4
               ? test::Le16At(reply.data, 0) | uint32_t{test::Le16At(reply.data, 2)} << 16
               : 0xBAD0BAD0;
}

uint32_t Capture(Camera& camera, unsigned bank, uint16_t offset) {
    return Read(camera, reg::CaptureBank(bank, offset));
}

TEST(FormatBanks, TheDefaultCameraOffersThreeBayerAndMonochromeBanks) {
    Camera camera;
    EXPECT_EQ(Read(camera, reg::kFormatCount), 3u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kMaxSize), 1024u << 16 | 1280);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kUnitSize), 2u << 16 | 8);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kSize), 1024u << 16 | 1280);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorId), 8u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorInquiry), 0x0308u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kBinning), 0x00010001u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyParameters), 48000u << 16 | 12000);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kCurrentFrequency), 24000u);
    EXPECT_EQ(Capture(camera, 1, reg::fmt::kColorInquiry), 12u);
    EXPECT_EQ(Capture(camera, 2, reg::fmt::kMaxSize), 512u << 16 | 640);
    EXPECT_EQ(Capture(camera, 2, reg::fmt::kColorInquiry), 5u);
}

TEST(FormatBanks, TheFrequencyArrayServesTheChartTwoEntriesPerRead) {
    Camera camera(ParseProfile(R"({"formatBanks": [
        {"frequency": {"min": 2000, "max": 10000}, "chart": [2000, 4000, 6000, 8000, 10000]}]})"));
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
}

TEST(FormatBanks, ColourIdsReadBackWithTheBankFlags) {
    Camera camera(ParseProfile(R"({"formatBanks": [
        {"colorId": 8, "interlaced": true, "bottomUp": true,
         "colorInquiry": {"base": 8, "extra": "0xFFFF", "interlaced": true}}]})"));
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorInquiry), 0x01FFFF08u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorId), 0x03000008u);
    ASSERT_EQ(WriteRegister(camera, reg::CaptureBank(0, reg::fmt::kColorId), 0x12345609),
              Handshake::Ack);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorId), 0x03000009u);
    ASSERT_EQ(WriteRegister(camera, reg::StillBank(0, reg::still::kColorId), 11), Handshake::Ack);
    EXPECT_EQ(Read(camera, reg::StillBank(0, reg::still::kColorId)), 0x0300000Bu);
}

TEST(FormatBanks, HostileValuesAreExpressible) {
    Camera camera(ParseProfile(R"({"formatBanks": [
        {"maxSize": [65535, 65535], "unitSize": [0, 0], "size": [0, 65535],
         "position": [-32768, 32767], "binning": [0, 255], "colorInquiry": "0xFE000001",
         "frequency": {"min": 0, "max": 65535, "current": "0xFFFFFFFF"},
         "chart": [0, 65535, 1], "chartCount": 1000}]})"));
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kMaxSize), 0xFFFFFFFFu);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kUnitSize), 0u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kSize), 0xFFFF0000u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kPosition), 0x7FFF8000u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kBinning), 0x00FF0000u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorInquiry), 0xFE000001u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyParameters), 0xFFFF0000u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kCurrentFrequency), 0xFFFFFFFFu);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyCount), 1000u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), 0xFFFF0000u);
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), 0x00000001u);
}

TEST(FormatBanks, TheCountFollowsTheListUnlessSetExplicitly) {
    Camera none(ParseProfile(R"({"formatBanks": []})"));
    EXPECT_EQ(Read(none, reg::kFormatCount), 0u);
    EXPECT_EQ(ReadRegisters(none, reg::kCaptureBankBase, 4).handshake(), Handshake::Stall);

    // A count above the list adds banks that read as zeros; one below hides banks.
    Camera more(ParseProfile(R"({"registers": {"0x019C": 5}})"));
    EXPECT_EQ(Capture(more, 4, reg::fmt::kMaxSize), 0u);
    EXPECT_EQ(Capture(more, 4, reg::fmt::kFrequencyArray), 0u);
    Camera fewer(ParseProfile(R"({"registers": {"0x019C": 1}})"));
    EXPECT_EQ(ReadRegisters(fewer, reg::CaptureBank(1, 0), 4).handshake(), Handshake::Stall);
}

TEST(FormatBanks, SettingsReturnToTheProfileValuesOnReset) {
    Camera camera;
    const uint16_t size = reg::CaptureBank(0, reg::fmt::kSize);
    ASSERT_EQ(WriteRegister(camera, size, 0x00100010), Handshake::Ack);
    ASSERT_EQ(WriteRegister(camera, reg::CaptureBank(0, reg::fmt::kValidate), 0), Handshake::Ack);
    EXPECT_EQ(Read(camera, size), 0x00100010u);
    WriteRegister(camera, reg::kReset, reg::kResetMagic);
    EXPECT_EQ(Read(camera, size), 1024u << 16 | 1280);
}

}  // namespace
}  // namespace ornixcam
