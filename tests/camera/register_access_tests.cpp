#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera/register_map.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::Le32;
using test::ReadRegisters;
using test::WriteRegister;
using test::WriteRegisters;
using usbsim::Handshake;

std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> all;
    for (const auto& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST(RegisterReads, ReturnPowerUpValuesSingleOrAsABlock) {
    Camera camera;
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 4).data, Le32(1));
    EXPECT_EQ(ReadRegisters(camera, reg::kFormatCount, 4).data, Le32(3));
    EXPECT_EQ(ReadRegisters(camera, reg::kInterruptEventSupport, 4).data, Le32(7));
    EXPECT_EQ(ReadRegisters(camera, reg::kSupport0, 4).data, Le32(1));

    // SPEED, FPGA_MODE, FPGA_VERSION, SPEC_VERSION in one go.
    EXPECT_EQ(ReadRegisters(camera, reg::kSpeed, 16).data,
              Concat({Le32(1), Le32(0), Le32(0x00010203), Le32(1)}));
    // Byte-granular: the middle two bytes of FPGA_VERSION and the next one.
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaVersion + 1, 4).data,
              (std::vector<uint8_t>{0x02, 0x01, 0x00, 0x01}));
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 0).handshake(), Handshake::Ack);
}

TEST(RegisterReads, StallOnUnknownOrWriteOnlyRegisters) {
    Camera camera;
    EXPECT_EQ(ReadRegisters(camera, 0x0014, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, reg::kStreamControl, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, reg::kReset, 0).handshake(), Handshake::Stall);
    // A block over a hole or a write-only register stalls as a whole.
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 8).handshake(), Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 5).handshake(), Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, reg::kReset, 8).handshake(), Handshake::Stall);
    // Past the end of the index space.
    EXPECT_EQ(ReadRegisters(camera, 0xFFFC, 8).handshake(), Handshake::Stall);
    // The register request carries wValue 0.
    EXPECT_EQ(test::In(camera, 0xC0, 0x12, 1, reg::kSpecVersion, 4).handshake(), Handshake::Stall);
}

TEST(RegisterWrites, StoreBytesAcrossRegistersAndReadBack) {
    Camera camera;
    const uint16_t record = reg::kPropertyBlockFirst + 16 * 5;
    ASSERT_EQ(WriteRegisters(camera, record, {1, 2, 3, 4, 5, 6, 7, 8, 9}), Handshake::Ack);
    EXPECT_EQ(camera.PeekRegister(record), 0x04030201u);
    EXPECT_EQ(camera.PeekRegister(record + 8), 0x00000009u);

    // An unaligned write merges into the registers it touches.
    ASSERT_EQ(WriteRegisters(camera, record + 3, {0xAA, 0xBB}), Handshake::Ack);
    EXPECT_EQ(ReadRegisters(camera, record, 8).data,
              (std::vector<uint8_t>{1, 2, 3, 0xAA, 0xBB, 6, 7, 8}));

    // A zero-length write has no data stage and changes nothing.
    EXPECT_EQ(WriteRegisters(camera, record, {}), Handshake::Ack);
    EXPECT_EQ(camera.PeekRegister(record), 0xAA030201u);

    // The whole property block is one read/write window.
    EXPECT_EQ(WriteRegisters(camera, reg::kPropertyBlockFirst,
                             std::vector<uint8_t>(16 * reg::kPropertyRecordCount, 0x5A)),
              Handshake::Ack);
    EXPECT_EQ(WriteRegister(camera, reg::kPropertyBlockLast + 1, 0), Handshake::Stall);
}

TEST(RegisterWrites, RefusedWritesChangeNothing) {
    Camera camera;
    EXPECT_EQ(WriteRegister(camera, reg::kSpeed, 0), Handshake::Stall);
    EXPECT_EQ(camera.PeekRegister(reg::kSpeed), 1u);
    EXPECT_EQ(WriteRegister(camera, 0x0014, 0), Handshake::Stall);
    EXPECT_EQ(WriteRegisters(camera, 0x0014, {}), Handshake::Stall);

    // A block touching a refused register writes none of its bytes, wherever
    // the refused register sits.
    camera.PokeRegister(reg::kStreamControl, 0x11);
    EXPECT_EQ(WriteRegisters(camera, reg::kStreamControl - 4, std::vector<uint8_t>(8, 0)),
              Handshake::Stall);
    EXPECT_EQ(camera.PeekRegister(reg::kStreamControl), 0x11u);
    EXPECT_EQ(WriteRegisters(camera, reg::kStreamControl, std::vector<uint8_t>(16, 0)),
              Handshake::Stall);
    EXPECT_EQ(camera.PeekRegister(reg::kStreamControl), 0x11u);
}

TEST(FormatBanks, ExistOnlyBelowTheFormatCount) {
    Camera camera;  // three formats
    EXPECT_EQ(ReadRegisters(camera, reg::CaptureBank(2, reg::fmt::kMaxSize), 4).handshake(),
              Handshake::Ack);
    EXPECT_EQ(ReadRegisters(camera, reg::CaptureBank(3, reg::fmt::kMaxSize), 4).handshake(),
              Handshake::Stall);
    EXPECT_EQ(WriteRegister(camera, reg::StillBank(2, reg::still::kSize), 1), Handshake::Ack);
    EXPECT_EQ(WriteRegister(camera, reg::StillBank(3, reg::still::kSize), 1), Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, reg::StillBank(0, reg::still::kSize), 4).handshake(),
              Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, reg::kBinningStatus, 4).handshake(), Handshake::Ack);
    EXPECT_EQ(WriteRegister(camera, reg::CaptureBank(0, reg::fmt::kValidate), 1), Handshake::Ack);

    Camera single(ParseProfile(R"({"registers": {"0x019C": 1}})"));
    EXPECT_EQ(ReadRegisters(single, reg::CaptureBank(1, reg::fmt::kMaxSize), 4).handshake(),
              Handshake::Stall);
    // A camera claiming absurdly many formats still has only the banks that fit.
    Camera greedy(ParseProfile(R"({"registers": {"0x019C": 1000}})"));
    EXPECT_EQ(ReadRegisters(greedy, reg::CaptureBank(31, reg::fmt::kSize), 4).handshake(),
              Handshake::Ack);
    EXPECT_EQ(ReadRegisters(greedy, reg::CaptureBank(32, reg::fmt::kSize), 4).handshake(),
              Handshake::Stall);
    EXPECT_EQ(ReadRegisters(greedy, reg::kSupport0, 4).data, Le32(1));
}

TEST(ShortReadQuirk, AnswersFewerBytesThanAsked) {
    Camera camera(ParseProfile(R"({"quirks": {"shortReads": {"0x0010": 2}}})"));
    const auto reply = ReadRegisters(camera, reg::kSpecVersion, 4);
    ASSERT_EQ(reply.handshake(), Handshake::Ack);
    EXPECT_EQ(reply.data, (std::vector<uint8_t>{1, 0}));
    EXPECT_EQ(ReadRegisters(camera, reg::kSpeed, 4).data.size(), 4u);

    camera.SetShortRead(reg::kFormatCount, 0);
    EXPECT_EQ(ReadRegisters(camera, reg::kFormatCount, 4).result.actual, 0u);
    camera.SetShortRead(reg::kSpecVersion, std::nullopt);
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 4).data, Le32(1));
}

TEST(ResetRegister, RestoresSettingsOnlyForTheMagicValue) {
    Camera camera;
    const uint16_t property = reg::kPropertyBlockFirst;
    WriteRegister(camera, property, 0x1234);
    WriteRegister(camera, reg::kStillTrigger, 1);
    WriteRegister(camera, reg::kEventEnable, 0x3);
    camera.PokeRegister(reg::kFpgaVersion, 0x00090000);  // not a setting

    ASSERT_EQ(WriteRegister(camera, reg::kReset, 1), Handshake::Ack);
    EXPECT_EQ(camera.PeekRegister(property), 0x1234u);

    ASSERT_EQ(WriteRegister(camera, reg::kReset, reg::kResetMagic), Handshake::Ack);
    EXPECT_EQ(camera.PeekRegister(property), DefaultProfile().PowerUpValue(property));
    EXPECT_EQ(camera.PeekRegister(reg::kStillTrigger), 0u);
    EXPECT_EQ(camera.EnabledEvents(), 0u);
    EXPECT_EQ(camera.PeekRegister(reg::kFpgaVersion), 0x00090000u);
}

TEST(EventMask, EnablesOnlySupportedEventsAndDisablesAny) {
    Camera camera;  // supports events 0x7
    WriteRegister(camera, reg::kEventEnable, 0xFF);
    EXPECT_EQ(camera.EnabledEvents(), 0x7u);
    WriteRegister(camera, reg::kEventDisable, 0x2);
    EXPECT_EQ(camera.EnabledEvents(), 0x5u);
}

TEST(RegisterHooks, GiveRegistersBehaviour) {
    Camera camera;
    const uint16_t frequencies = reg::CaptureBank(0, reg::fmt::kFrequencyArray);
    uint32_t next = 10;
    camera.SetReadHook(frequencies, [&](uint16_t, uint32_t) { return next++; });
    EXPECT_EQ(ReadRegisters(camera, frequencies, 4).data, Le32(10));
    EXPECT_EQ(ReadRegisters(camera, frequencies, 4).data, Le32(11));

    // A short read consumes only what the host received.
    camera.SetShortRead(frequencies, 0);
    ReadRegisters(camera, frequencies, 4);
    EXPECT_EQ(next, 12u);

    const uint16_t binning = reg::CaptureBank(0, reg::fmt::kBinning);
    camera.SetWriteHook(binning, [](const RegisterWrite& w) {
        if (w.value > 4)
            return WriteOutcome::Stall;
        return w.value == 3 ? WriteOutcome::Discard : WriteOutcome::Store;
    });
    EXPECT_EQ(WriteRegister(camera, binning, 2), Handshake::Ack);
    EXPECT_EQ(WriteRegister(camera, binning, 3), Handshake::Ack);
    EXPECT_EQ(WriteRegister(camera, binning, 5), Handshake::Stall);
    EXPECT_EQ(camera.PeekRegister(binning), 2u);
}

TEST(RegisterAccessOverrides, ChangeOrRemoveRegisters) {
    Camera camera(ParseProfile(R"({"registerAccess": {
        "0x0010": "write", "0x4FF8": "none", "0x0014": "readWrite"},
        "registers": {"0x0014": "0xCAFE"}})"));
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(WriteRegister(camera, reg::kSpecVersion, 2), Handshake::Ack);
    EXPECT_EQ(ReadRegisters(camera, reg::kSupport0, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(ReadRegisters(camera, 0x0014, 4).data, Le32(0xCAFE));
    EXPECT_THROW(camera.PeekRegister(reg::kSupport0), std::out_of_range);
}

TEST(PassThrough, AHandlerReplacesTheTwoWireBusUntilRemoved) {
    Camera camera;
    // 7-bit address 0x20 has no device on the bus.
    EXPECT_EQ(test::In(camera, 0xC0, vendor_request::kPassThrough, 0xA0, 0, 8).handshake(),
              Handshake::Stall);

    usbsim::SetupPacket seen;
    camera.SetPassThroughHandler([&](const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
        seen = setup;
        data[0] = 0x77;
        return usbsim::TransferResult::Ack(1);
    });
    const auto reply = test::In(camera, 0xC0, vendor_request::kPassThrough, 0xA0, 0x12, 8);
    EXPECT_EQ(reply.data, std::vector<uint8_t>{0x77});
    EXPECT_EQ(seen.wValue, 0xA0);
    EXPECT_EQ(seen.wIndex, 0x12);
    EXPECT_EQ(seen.wLength, 8);

    camera.SetPassThroughHandler({});
    EXPECT_EQ(test::In(camera, 0xC0, vendor_request::kPassThrough, 0xA0, 0x12, 8).handshake(),
              Handshake::Stall);
    EXPECT_EQ(test::In(camera, 0xC0, vendor_request::kPassThrough, 0, 12, 4).data, Le32(1));
}

}  // namespace
}  // namespace ornixcam
