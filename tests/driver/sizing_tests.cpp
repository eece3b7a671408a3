// Frame sizes on the bulk pipe and their caps; format discovery covers every colour id.
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

class SizingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        winsim::ResetKernel();
        ext_.HighSpeed = TRUE;
    }
    ULONG FrameSize(ULONG colourId, ULONG width, ULONG height) {
        return GetUsbFrameSize(&ext_, ORNIX_CAPTURE_STREAM, colourId, width, height);
    }

    ORNIX_DEVICE_CONTEXT ext_{};
};

TEST_F(SizingTest, SizeIsBitsTimesPixelsOverEightStatusWordIsFourVariableSizeIsCapped) {
    EXPECT_EQ(FrameSize(1, 101, 3), 454u);      // 3636 / 8
    EXPECT_EQ(FrameSize(31, 2, 2), 8u);         // the last of the 16-bit ids
    EXPECT_EQ(FrameSize(32, 640, 480), 0u);     // unknown colour ids
    EXPECT_EQ(FrameSize(0x100, 640, 480), 0u);  // not truncated to 8 bits
    // 32-bit arithmetic, as the camera's registers are: a product beyond 32 bits wraps.
    EXPECT_EQ(FrameSize(3, 0x10000, 0x1000), (24u * 0x10000u * 0x1000u) / 8u);
    EXPECT_EQ(FrameSize(3, 65535, 65535), (24u * 65535u * 65535u) / 8u);
    EXPECT_EQ(FrameSize(12, 32768, 32768), 0u);
    EXPECT_TRUE(winsim::DebugLog().empty());
    // Zero width or height is refused.
    EXPECT_EQ(FrameSize(0, 0, 480), 0u);
    EXPECT_EQ(FrameSize(128, 640, 0), 0u);
    EXPECT_EQ(winsim::DebugLog(),
              (std::vector<std::string>{"ORNIX: GetUsbFrameSize: BAD parameters, w:0, h:480",
                                        "ORNIX: GetUsbFrameSize: BAD parameters, w:640, h:0"}));
    EXPECT_EQ(FrameSize(128, 4000, 3000), 4u);
    EXPECT_EQ(FrameSize(129, 4000, 3000), 0x200000u);
    EXPECT_EQ(FrameSize(129, 640, 480), 307200u);  // below the cap
    ext_.HighSpeed = FALSE;
    EXPECT_EQ(FrameSize(129, 4000, 3000), 0x40000u);
    // The other ids are not capped at either speed.
    EXPECT_EQ(FrameSize(0, 4000, 3000), 12000000u);
}

// The selected formats of both streams, as format selection leaves them.
TEST_F(SizingTest, EachStreamUsesItsOwnSelectionAndZeroBinningGivesNoSize) {
    ORNIX_FORMAT_RECORD capture{};
    capture.ColourId = capture.ColourId2 = 1;
    ext_.CaptureFormat = &capture;
    ext_.WindowWidth = 202;
    ext_.WindowHeight = 9;
    ext_.BinningX = 0x302;  // only the low byte is the factor
    ext_.BinningY = 3;
    ORNIX_FORMAT_RECORD still{};
    still.ColourId = still.ColourId2 = 129;
    ext_.StillFormat = &still;
    ext_.StillWindowWidth = 4000;
    ext_.StillWindowHeight = 3000;
    ext_.StillBinningX = ext_.StillBinningY = 1;
    BOOLEAN variable = TRUE;
    EXPECT_EQ(GetStreamUsbFrameSize(&ext_, ORNIX_CAPTURE_STREAM, &variable), 454u);  // 101 x 3
    EXPECT_FALSE(variable);
    EXPECT_EQ(GetStreamUsbFrameSize(&ext_, 5, nullptr), 454u);  // any other number: capture
    EXPECT_EQ(GetStreamUsbFrameSize(&ext_, ORNIX_STILL_STREAM, &variable), 0x200000u);
    EXPECT_TRUE(variable);
    EXPECT_TRUE(winsim::DebugLog().empty());
    ext_.BinningX = 0x100;  // low byte 0
    EXPECT_EQ(GetStreamUsbFrameSize(&ext_, ORNIX_CAPTURE_STREAM, nullptr), 0u);
    ext_.StillBinningY = 0;
    EXPECT_EQ(GetStreamUsbFrameSize(&ext_, ORNIX_STILL_STREAM, nullptr), 0u);
    EXPECT_EQ(winsim::DebugLog(),
              (std::vector<std::string>{"ORNIX: GetUsbFrameSize: BAD parameters, w:0, h:3",
                                        "ORNIX: GetUsbFrameSize: BAD parameters, w:4000, h:0"}));
}

TEST_F(SizingTest, MaximumFrameIsTheLargestOfferedFormat) {
    EXPECT_EQ(OrnixGetMaximumFrameSize(&ext_), 4096u);  // no formats yet
    const LONG sizes[3][3] = {{640, 480, 8}, {1280, 1024, 12}, {320, 240, 24}};
    KS_DATARANGE_VIDEO ranges[3] = {};
    PKSDATAFORMAT formats[3];
    for (int i = 0; i < 3; ++i) {
        ranges[i].ConfigCaps.MaxOutputSize = {sizes[i][0], sizes[i][1]};
        ranges[i].VideoInfoHeader.bmiHeader.biBitCount = WORD(sizes[i][2]);
        formats[i] = &ranges[i].DataRange;
    }
    ext_.CaptureFormats = formats;
    ext_.CaptureFormatCount = 3;
    EXPECT_EQ(OrnixGetMaximumFrameSize(&ext_), 1966080u);  // 1280 x 1024 x 12 / 8
    // A largest window of 0 adds nothing; one whose frame wraps in 32 bits counts
    // with its wrapped size.
    ranges[1].ConfigCaps.MaxOutputSize = {0, 1024};
    EXPECT_EQ(OrnixGetMaximumFrameSize(&ext_), 307200u);
    ranges[1].ConfigCaps.MaxOutputSize = {32768, 32768};
    ranges[1].VideoInfoHeader.bmiHeader.biBitCount = 16;
    EXPECT_EQ(OrnixGetMaximumFrameSize(&ext_), 307200u);  // 2 GiB: 0 in 32 bits
    ranges[2].ConfigCaps.MaxOutputSize = {65535, 65535};
    EXPECT_EQ(OrnixGetMaximumFrameSize(&ext_),
              65535u * 65535u * ULONG(ranges[2].VideoInfoHeader.bmiHeader.biBitCount) / 8u);
    ext_.CaptureFormatCount = 0;
    EXPECT_EQ(OrnixGetMaximumFrameSize(&ext_), 0u);
}

}  // namespace
}  // namespace ornixtest
