// The FPGA download as the driver performs it: program mode, one bulk-out
// transfer of the image, busy polls, leaving program mode.
#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera/fpga.h"
#include "camera/register_map.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::Le32;
using test::ReadRegisters;
using test::WriteRegister;
using usbsim::Handshake;

constexpr uint8_t kFpgaEndpoint = 0x02;

std::vector<uint8_t> Image() {
    const auto image = ExpectedFpgaImage();
    return {image.begin(), image.end()};
}

class FpgaDownload : public ::testing::Test {
  protected:
    void Open(Camera& camera) {
        ASSERT_EQ(test::SetConfiguration(camera), Handshake::Ack);
        ASSERT_EQ(test::SetInterface(camera, 1), Handshake::Ack);
    }
    void EnterProgramMode(Camera& camera) {
        ASSERT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaEnterProgramMode),
                  Handshake::Ack);
    }
    void LeaveProgramMode(Camera& camera) {
        ASSERT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaLeaveProgramMode),
                  Handshake::Ack);
    }
    void Send(Camera& camera, std::vector<uint8_t> bytes) {
        ASSERT_EQ(test::TransferOut(camera, kFpgaEndpoint, std::move(bytes)).handshake,
                  Handshake::Ack);
    }
};

TEST_F(FpgaDownload, TheExpectedImageIsTheCommittedReleaseZeroFile) {
    EXPECT_EQ(ExpectedFpgaImage().size(), 97991u);
    EXPECT_EQ(Camera().FpgaEndpoint(), (std::pair<uint8_t, uint8_t>{1, kFpgaEndpoint}));
}

TEST_F(FpgaDownload, TheRightImageConfiguresAfterTheBusyPolls) {
    Camera camera(ParseProfile(R"({"fpga": {"busyPolls": 2, "version": "0x00020001"}})"));
    Open(camera);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(0));
    EnterProgramMode(camera);
    EXPECT_TRUE(camera.FpgaProgramMode());
    Send(camera, Image());
    // The driver's order: busy polls while still in program mode, then leave it.
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaBusy));
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaBusy));
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(0));
    LeaveProgramMode(camera);
    EXPECT_FALSE(camera.FpgaProgramMode());
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaConfigured));
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaVersion, 4).data, Le32(0x00020001));

    // The configuration survives a settings reset.
    WriteRegister(camera, reg::kReset, reg::kResetMagic);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaConfigured));
}

TEST_F(FpgaDownload, BusyPollsNotUsedInProgramModeShowAfterLeavingIt) {
    Camera camera(ParseProfile(R"({"fpga": {"busyPolls": 3}})"));
    Open(camera);
    EnterProgramMode(camera);
    Send(camera, Image());
    LeaveProgramMode(camera);
    EXPECT_FALSE(camera.FpgaConfigured());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaBusy));
    }
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaConfigured));
    EXPECT_TRUE(camera.FpgaConfigured());
}

TEST_F(FpgaDownload, AWrongShortSplitOrMisplacedImageLeavesItUnconfigured) {
    std::vector<uint8_t> corrupt = Image();
    corrupt[50000] ^= 1;
    std::vector<uint8_t> longer = Image();
    longer.push_back(0);
    const std::vector<uint8_t> image = Image();
    const std::vector<uint8_t> firstHalf(image.begin(), image.begin() + 50000);
    const std::vector<uint8_t> secondHalf(image.begin() + 50000, image.end());

    const std::vector<std::vector<std::vector<uint8_t>>> downloads = {
        {corrupt}, {longer}, {firstHalf}, {firstHalf, secondHalf}, {image, image}, {}};
    for (const auto& transfers : downloads) {
        Camera camera;
        Open(camera);
        EnterProgramMode(camera);
        for (const auto& transfer : transfers) {
            Send(camera, transfer);
        }
        LeaveProgramMode(camera);
        EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(0))
            << transfers.size() << " transfers";
    }
}

TEST_F(FpgaDownload, AnImageOutsideProgramModeIsIgnored) {
    Camera camera;
    Open(camera);
    Send(camera, Image());
    EXPECT_EQ(camera.FpgaImageTransfers(), 0u);
    EnterProgramMode(camera);
    LeaveProgramMode(camera);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(0));
    // Other values written to the mode register are not commands.
    EnterProgramMode(camera);
    Send(camera, Image());
    WriteRegister(camera, reg::kFpgaMode, 0x1234);
    EXPECT_TRUE(camera.FpgaProgramMode());
}

TEST_F(FpgaDownload, EnteringProgramModeDropsAConfiguration) {
    Camera camera(ParseProfile(R"({"fpga": {"startsConfigured": true}})"));
    Open(camera);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaConfigured));
    EnterProgramMode(camera);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(0));
    LeaveProgramMode(camera);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(0));
}

TEST_F(FpgaDownload, ALenientFpgaTakesAnyImage) {
    Camera camera(ParseProfile(R"({"fpga": {"image": "any"}})"));
    Open(camera);
    EnterProgramMode(camera);
    Send(camera, std::vector<uint8_t>(512, 0xAB));
    LeaveProgramMode(camera);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).data, Le32(reg::kFpgaConfigured));
}

TEST_F(FpgaDownload, ACameraWithoutFpgaHasNoFpgaRegisters) {
    Camera camera(ParseProfile(R"({"fpga": {"present": false}})"));
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaMode, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaEnterProgramMode), Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaVersion, 4).handshake(), Handshake::Stall);
}

TEST_F(FpgaDownload, TheFirstBulkOutEndpointInAnySettingCarriesTheImage) {
    Camera camera(ParseProfile(R"({"configuration": {"alternateSettings": [
        {"endpoints": [{"address": "0x81", "type": "bulk", "maxPacketSize": 64},
                       {"address": "0x05", "type": "bulk", "maxPacketSize": 64},
                       {"address": "0x06", "type": "bulk", "maxPacketSize": 64}]}]}})"));
    EXPECT_EQ(camera.FpgaEndpoint(), (std::pair<uint8_t, uint8_t>{0, 0x05}));
    ASSERT_EQ(test::SetConfiguration(camera), Handshake::Ack);
    EnterProgramMode(camera);
    ASSERT_EQ(test::TransferOut(camera, 0x06, Image()).handshake, Handshake::Ack);
    EXPECT_EQ(camera.FpgaImageTransfers(), 0u);
    ASSERT_EQ(test::TransferOut(camera, 0x05, Image()).handshake, Handshake::Ack);
    LeaveProgramMode(camera);
    EXPECT_TRUE(camera.FpgaConfigured());
}

}  // namespace
}  // namespace ornixcam
