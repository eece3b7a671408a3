// The FPGA download as the driver performs it: program mode, the image, busy polls, leaving.
#include "camera/fpga.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

constexpr uint8_t kFpgaEndpoint = 0x02;

Bytes Image() {
    const auto image = ExpectedFpgaImage();
    return {image.begin(), image.end()};
}

void SelectDownloadSetting(Camera& camera) {
    ASSERT_EQ(SetConfiguration(camera), kAck);
    ASSERT_EQ(SetInterface(camera, 1), kAck);
}

// Enters program mode and sends the transfers.
void Program(Camera& camera, const std::vector<Bytes>& transfers, uint8_t to = kFpgaEndpoint) {
    ASSERT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaEnterProgramMode), kAck);
    EXPECT_TRUE(camera.FpgaProgramMode());
    for (const Bytes& transfer : transfers) {
        ASSERT_EQ(TransferOut(camera, to, transfer).handshake, kAck);
    }
}

void Leave(Camera& camera) {
    ASSERT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaLeaveProgramMode), kAck);
    EXPECT_FALSE(camera.FpgaProgramMode());
}

uint32_t Mode(Camera& camera) {
    return Read(camera, reg::kFpgaMode);
}

TEST(Fpga, TheRightImageConfiguresAfterTheBusyPolls) {
    EXPECT_EQ(ExpectedFpgaImage().size(), 97991u);
    Camera camera(ParseProfile(R"({"fpga": {"busyPolls": 2, "version": "0x00020001"}})"));
    EXPECT_EQ(camera.FpgaEndpoint(), (std::pair<uint8_t, uint8_t>{1, kFpgaEndpoint}));
    SelectDownloadSetting(camera);
    EXPECT_EQ(Mode(camera), 0u);
    Program(camera, {Image()});
    // The driver's order: busy polls while still in program mode, then leave it.
    EXPECT_EQ(Mode(camera), reg::kFpgaBusy);
    EXPECT_EQ(Mode(camera), reg::kFpgaBusy);
    EXPECT_EQ(Mode(camera), 0u);
    Leave(camera);
    EXPECT_EQ(Mode(camera), reg::kFpgaConfigured);
    EXPECT_EQ(Read(camera, reg::kFpgaVersion), 0x00020001u);
    // The configuration survives a settings reset.
    WriteRegister(camera, reg::kReset, reg::kResetMagic);
    EXPECT_EQ(Mode(camera), reg::kFpgaConfigured);

    // Busy polls not used in program mode show after leaving it.
    Camera early(ParseProfile(R"({"fpga": {"busyPolls": 3}})"));
    SelectDownloadSetting(early);
    Program(early, {Image()});
    Leave(early);
    EXPECT_FALSE(early.FpgaConfigured());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Mode(early), reg::kFpgaBusy);
    }
    EXPECT_EQ(Mode(early), reg::kFpgaConfigured);
    EXPECT_TRUE(early.FpgaConfigured());
}

TEST(Fpga, AWrongShortSplitOrRepeatedImageLeavesItUnconfigured) {
    Bytes corrupt = Image(), longer = Image();
    corrupt[50000] ^= 1;
    longer.push_back(0);
    const Bytes image = Image(), first(image.begin(), image.begin() + 50000),
                second(image.begin() + 50000, image.end());
    const std::pair<const char*, std::vector<Bytes>> downloads[] = {
        {"one bit flipped", {corrupt}},    {"one byte more", {longer}},    {"first part", {first}},
        {"split in two", {first, second}}, {"sent twice", {image, image}}, {"nothing", {}}};
    for (const auto& [what, transfers] : downloads) {
        SCOPED_TRACE(what);
        Camera camera;
        SelectDownloadSetting(camera);
        Program(camera, transfers);
        Leave(camera);
        EXPECT_EQ(Mode(camera), 0u);
    }
}

TEST(Fpga, OnlyImagesSentInProgramModeCountAndEnteringItStartsOver) {
    Camera camera;
    SelectDownloadSetting(camera);
    ASSERT_EQ(TransferOut(camera, kFpgaEndpoint, Image()).handshake, kAck);
    EXPECT_EQ(camera.FpgaImageTransfers(), 0u);
    Program(camera, {});
    Leave(camera);
    EXPECT_EQ(Mode(camera), 0u);
    // Other values written to the mode register are not commands.
    Program(camera, {Image()});
    WriteRegister(camera, reg::kFpgaMode, 0x1234);
    EXPECT_TRUE(camera.FpgaProgramMode());

    // Entering program mode drops a configuration.
    Camera configured(ParseProfile(R"({"fpga": {"startsConfigured": true}})"));
    EXPECT_EQ(Mode(configured), reg::kFpgaConfigured);
    Program(configured, {});
    EXPECT_EQ(Mode(configured), 0u);
    Leave(configured);
    EXPECT_EQ(Mode(configured), 0u);
}

TEST(Fpga, ProfileChoosesALenientFpgaNoneOrTheEndpoint) {
    Camera lenient(ParseProfile(R"({"fpga": {"image": "any"}})"));
    SelectDownloadSetting(lenient);
    Program(lenient, {Bytes(512, 0xAB)});
    Leave(lenient);
    EXPECT_EQ(Mode(lenient), reg::kFpgaConfigured);

    Camera none(ParseProfile(R"({"fpga": {"present": false}})"));
    EXPECT_EQ(Probe(none, reg::kFpgaMode), kStall);
    EXPECT_EQ(WriteRegister(none, reg::kFpgaMode, reg::kFpgaEnterProgramMode), kStall);
    EXPECT_EQ(Probe(none, reg::kFpgaVersion), kStall);

    // The first bulk-out endpoint in any setting carries the image.
    Camera camera(ParseProfile(R"({"configuration": {"alternateSettings": [
        {"endpoints": [{"address": "0x81", "type": "bulk", "maxPacketSize": 64},
                       {"address": "0x05", "type": "bulk", "maxPacketSize": 64},
                       {"address": "0x06", "type": "bulk", "maxPacketSize": 64}]}]}})"));
    EXPECT_EQ(camera.FpgaEndpoint(), (std::pair<uint8_t, uint8_t>{0, 0x05}));
    ASSERT_EQ(SetConfiguration(camera), kAck);
    Program(camera, {Image()}, 0x06);
    EXPECT_EQ(camera.FpgaImageTransfers(), 0u);
    ASSERT_EQ(TransferOut(camera, 0x05, Image()).handshake, kAck);
    Leave(camera);
    EXPECT_TRUE(camera.FpgaConfigured());
}

}  // namespace
}  // namespace ornixcam
