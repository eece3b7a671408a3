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

// Selects the download setting, enters program mode and sends the transfers.
void Program(Camera& camera, std::vector<Bytes> transfers) {
    ASSERT_EQ(Out(camera, 0x00, 9, 1, 0), kAck);
    ASSERT_EQ(Out(camera, 0x01, 11, 1, 0), kAck);
    ASSERT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaEnterProgramMode), kAck);
    EXPECT_TRUE(camera.FpgaProgramMode());
    for (Bytes& transfer : transfers) {
        ASSERT_EQ(camera.Transfer(kFpgaEndpoint, transfer).handshake, kAck);
    }
}

void Leave(Camera& camera) {
    ASSERT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaLeaveProgramMode), kAck);
    EXPECT_FALSE(camera.FpgaProgramMode());
}

TEST(Fpga, TheRightImageConfiguresAfterTheBusyPolls) {
    Camera camera(ParseProfile(R"({"fpga": {"busyPolls": 2, "version": "0x00020001"}})"));
    Program(camera, {Image()});
    // The driver's order: busy polls while still in program mode, then leave it.
    EXPECT_EQ(Read(camera, reg::kFpgaMode), reg::kFpgaBusy);
    EXPECT_EQ(Read(camera, reg::kFpgaMode), reg::kFpgaBusy);
    EXPECT_EQ(Read(camera, reg::kFpgaMode), 0u);
    Leave(camera);
    EXPECT_EQ(Read(camera, reg::kFpgaMode), reg::kFpgaConfigured);
    EXPECT_EQ(Read(camera, reg::kFpgaVersion), 0x00020001u);
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
        Program(camera, transfers);
        Leave(camera);
        EXPECT_EQ(Read(camera, reg::kFpgaMode), 0u);
    }
}

TEST(Fpga, OnlyImagesSentInProgramModeCountAndAnAbsentFpgaRefusesAll) {
    Camera camera;
    Program(camera, {});
    Leave(camera);
    Bytes image = Image();
    ASSERT_EQ(camera.Transfer(kFpgaEndpoint, image).handshake, kAck);
    EXPECT_EQ(camera.FpgaImageTransfers(), 0u);
    Program(camera, {});
    // Other values written to the mode register are not commands.
    WriteRegister(camera, reg::kFpgaMode, 0x1234);
    EXPECT_TRUE(camera.FpgaProgramMode());
    Leave(camera);
    EXPECT_EQ(Read(camera, reg::kFpgaMode), 0u);

    Camera none(ParseProfile(R"({"fpga": {"present": false}})"));
    EXPECT_EQ(Probe(none, reg::kFpgaMode), kStall);
    EXPECT_EQ(WriteRegister(none, reg::kFpgaMode, reg::kFpgaEnterProgramMode), kStall);
    EXPECT_EQ(Probe(none, reg::kFpgaVersion), kStall);
}

// A complete download: program mode, the image, leaving it.
void Download(Camera& camera) {
    Program(camera, {Image()});
    Leave(camera);
}

TEST(Fpga, LosingPowerUnconfiguresItOnlyWithTheProfileFlagAndAReloadCounts) {
    for (const bool loses : {false, true}) {
        SCOPED_TRACE(loses ? "losesFpgaInD3" : "keeps its configuration");
        Camera camera(ParseProfile(loses ? R"({"power": {"losesFpgaInD3": true}})" : "{}"));
        EXPECT_EQ(camera.FpgaConfigurations(), 0u);
        Download(camera);
        ASSERT_EQ(Read(camera, reg::kFpgaMode), reg::kFpgaConfigured);
        EXPECT_EQ(camera.FpgaConfigurations(), 1u);

        camera.SetPowered(false);
        EXPECT_FALSE(camera.Powered());
        camera.SetPowered(true);
        EXPECT_EQ(camera.PowerLosses(), 1u);
        EXPECT_EQ(camera.FpgaConfigured(), !loses);
        EXPECT_EQ(Read(camera, reg::kFpgaMode), loses ? 0u : reg::kFpgaConfigured);
        // The registers live in the USB controller and stay.
        EXPECT_EQ(Read(camera, reg::kFpgaVersion), 0x00010203u);

        Download(camera);
        EXPECT_EQ(Read(camera, reg::kFpgaMode), reg::kFpgaConfigured);
        EXPECT_EQ(camera.FpgaConfigurations(), 2u);
    }
}

TEST(Fpga, PowerLostInProgramModeEndsTheDownloadAndAFailedOneIsNoConfiguration) {
    Camera camera(ParseProfile(R"({"power": {"losesFpgaInD3": true}})"));
    Program(camera, {Image()});
    camera.SetPowered(false);
    camera.SetPowered(true);
    EXPECT_FALSE(camera.FpgaProgramMode());
    EXPECT_EQ(camera.FpgaImageTransfers(), 0u);
    // Leaving a program mode the FPGA no longer is in configures nothing.
    ASSERT_EQ(WriteRegister(camera, reg::kFpgaMode, reg::kFpgaLeaveProgramMode), kAck);
    EXPECT_EQ(Read(camera, reg::kFpgaMode), 0u);
    Bytes corrupt = Image();
    corrupt[10] ^= 1;
    Program(camera, {corrupt});
    Leave(camera);
    EXPECT_EQ(camera.FpgaConfigurations(), 0u);
}

}  // namespace
}  // namespace ornixcam
