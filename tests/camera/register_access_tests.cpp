// Register access through request 0x12 (which registers, which way, blocks,
// bytes, reset, short reads) and the message window.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

TEST(Registers, ReadsReturnPowerUpValuesOrStallAsAWhole) {
    Camera camera;
    // SPEED, FPGA_MODE, FPGA_VERSION, SPEC_VERSION in one go.
    EXPECT_EQ(ReadRegisters(camera, reg::kSpeed, 16).data,
              (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 3, 2, 1, 0, 1, 0, 0, 0}));
    // Byte-granular: the middle two bytes of FPGA_VERSION and the next one.
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaVersion + 1, 4).data, (Bytes{2, 1, 0, 1}));
    EXPECT_EQ(Probe(camera, reg::kSpecVersion, 0), kAck);

    // Unknown and write-only registers stall, and so does a block over either or past the end.
    EXPECT_EQ(Probe(camera, 0x0014), kStall);
    EXPECT_EQ(Probe(camera, reg::kStreamControl), kStall);
    EXPECT_EQ(Probe(camera, reg::kReset, 0), kStall);
    EXPECT_EQ(Probe(camera, reg::kSpecVersion, 8), kStall);
    EXPECT_EQ(Probe(camera, reg::kSpecVersion, 5), kStall);
    EXPECT_EQ(Probe(camera, reg::kReset, 8), kStall);
    EXPECT_EQ(Probe(camera, 0xFFFC, 8), kStall);
    // The register request carries wValue 0.
    EXPECT_EQ(In(camera, 0xC0, 0x12, 1, reg::kSpecVersion, 4).handshake(), kStall);
}

TEST(Registers, WritesStoreBytesAcrossRegistersOrNoneIfRefused) {
    Camera camera;
    const uint16_t record = reg::kPropertyBlockFirst + 16 * 5;
    ASSERT_EQ(WriteRegisters(camera, record, {1, 2, 3, 4, 5, 6, 7, 8, 9}), kAck);
    EXPECT_EQ(camera.PeekRegister(record), 0x04030201u);
    EXPECT_EQ(camera.PeekRegister(record + 8), 0x00000009u);
    // An unaligned write merges into the registers it touches.
    ASSERT_EQ(WriteRegisters(camera, record + 3, {0xAA, 0xBB}), kAck);
    EXPECT_EQ(ReadRegisters(camera, record, 8).data, (Bytes{1, 2, 3, 0xAA, 0xBB, 6, 7, 8}));
    // A zero-length write has no data stage and changes nothing.
    EXPECT_EQ(WriteRegisters(camera, record, {}), kAck);
    EXPECT_EQ(camera.PeekRegister(record), 0xAA030201u);
    // The whole property block is one read/write window.
    EXPECT_EQ(WriteRegisters(camera, reg::kPropertyBlockFirst,
                             Bytes(16 * reg::kPropertyRecordCount, 0x5A)),
              kAck);
    EXPECT_EQ(WriteRegister(camera, reg::kPropertyBlockLast + 1, 0), kStall);

    // Refused writes change nothing.
    EXPECT_EQ(WriteRegister(camera, reg::kSpeed, 0), kStall);
    EXPECT_EQ(camera.PeekRegister(reg::kSpeed), 1u);
    EXPECT_EQ(WriteRegister(camera, 0x0014, 0), kStall);
    EXPECT_EQ(WriteRegisters(camera, 0x0014, {}), kStall);
    // A block touching a refused register writes none of its bytes, wherever it sits.
    camera.PokeRegister(reg::kStreamControl, 0x11);
    EXPECT_EQ(WriteRegisters(camera, reg::kStreamControl - 4, Bytes(8, 0)), kStall);
    EXPECT_EQ(WriteRegisters(camera, reg::kStreamControl, Bytes(16, 0)), kStall);
    EXPECT_EQ(camera.PeekRegister(reg::kStreamControl), 0x11u);
}

TEST(Registers, ProfileCanChangeOrRemoveThem) {
    Camera camera(ParseProfile(R"({"registerAccess": {
        "0x0010": "write", "0x4FF8": "none", "0x0014": "readWrite"},
        "registers": {"0x0014": "0xCAFE"}})"));
    EXPECT_EQ(Probe(camera, reg::kSpecVersion), kStall);
    EXPECT_EQ(WriteRegister(camera, reg::kSpecVersion, 2), kAck);
    EXPECT_EQ(Probe(camera, reg::kSupport0), kStall);
    EXPECT_EQ(Read(camera, 0x0014), 0xCAFEu);
    EXPECT_THROW(camera.PeekRegister(reg::kSupport0), std::out_of_range);
}

TEST(Registers, ResetRestoresSettingsOnlyForTheMagicValue) {
    Camera camera;
    const uint16_t property = reg::kPropertyBlockFirst + 4,
                   size = reg::CaptureBank(0, reg::fmt::kSize);
    WriteRegister(camera, property, 200);
    WriteRegister(camera, size, 0x00100010);
    WriteRegister(camera, reg::CaptureBank(0, reg::fmt::kValidate), 0);
    WriteRegister(camera, reg::kStillTrigger, 1);
    WriteRegister(camera, reg::kEventEnable, 0xFF);  // only supported events (0x7) are enabled
    EXPECT_EQ(camera.EnabledEvents(), 0x7u);
    WriteRegister(camera, reg::kEventDisable, 0x2);
    EXPECT_EQ(camera.EnabledEvents(), 0x5u);
    camera.PokeRegister(reg::kFpgaVersion, 0x00090000);  // not a setting

    ASSERT_EQ(WriteRegister(camera, reg::kReset, 1), kAck);
    EXPECT_EQ(camera.PeekRegister(property), 200u);
    EXPECT_EQ(Read(camera, size), 0x00100010u);

    ASSERT_EQ(WriteRegister(camera, reg::kReset, reg::kResetMagic), kAck);
    EXPECT_EQ(camera.PeekRegister(property), 32750u);
    EXPECT_EQ(Read(camera, size), 1024u << 16 | 1280);
    EXPECT_EQ(camera.PeekRegister(reg::kStillTrigger), 0u);
    EXPECT_EQ(camera.EnabledEvents(), 0u);
    EXPECT_EQ(camera.PeekRegister(reg::kFpgaVersion), 0x00090000u);
}

TEST(Registers, ShortReadsCutTheDataStageAndConsumeOnlyWhatWasSent) {
    Camera camera(ParseProfile(R"({"quirks": {"shortReads": {"0x0010": 2}}})"));
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 4).data, (Bytes{1, 0}));
    EXPECT_EQ(ReadRegisters(camera, reg::kSpeed, 4).data.size(), 4u);
    camera.SetShortRead(reg::kSpecVersion, std::nullopt);
    EXPECT_EQ(ReadRegisters(camera, reg::kSpecVersion, 4).data, Le32(1));

    const uint16_t frequencies = reg::CaptureBank(0, reg::fmt::kFrequencyArray);
    uint32_t next = 10;
    camera.SetReadHook(frequencies, [&](uint16_t, uint32_t) { return next++; });
    EXPECT_EQ(Read(camera, frequencies), 10u);
    camera.SetShortRead(frequencies, 0);
    EXPECT_EQ(ReadRegisters(camera, frequencies, 4).result.actual, 0u);
    EXPECT_EQ(next, 11u);
}

// Writes `header`, then `count` counting bytes to the window in pieces of 64.
void SendMessage(Camera& camera, uint32_t header, size_t count) {
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, header), kAck);
    for (size_t at = 0; at < count; at += 64) {
        const Bytes piece = Counting(at, std::min<size_t>(64, count - at));
        ASSERT_EQ(WriteRegisters(camera, static_cast<uint16_t>(0x5000 + at), piece), kAck);
    }
}

TEST(MessageWindow, AssemblesAHeaderAndItsPieces) {
    Camera camera;
    std::vector<size_t> bodySizesSeen;
    camera.SetMessageHandler([&](const Message& m) { bodySizesSeen.push_back(m.body.size()); });
    SendMessage(camera, 0x00070000, 150);
    EXPECT_EQ(camera.LastMessage(), (Message{0x00070000, Counting(0, 150)}));
    EXPECT_EQ(bodySizesSeen, (std::vector<size_t>{0, 64, 128, 150}));
    // A look-up table travels with header 0: the header is no length.
    SendMessage(camera, 0, 128);
    EXPECT_EQ(camera.LastMessage(), (Message{0, Counting(0, 128)}));

    // Header and body may come in one write; a zero-length write is a piece with no data.
    ASSERT_EQ(WriteRegisters(camera, reg::kMessageHeader, {5, 0, 0, 0, 9, 8, 7, 6, 5}), kAck);
    EXPECT_EQ(camera.LastMessage(), (Message{5, {9, 8, 7, 6, 5}}));
    SendMessage(camera, 9, 0);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, {}), kAck);
    EXPECT_EQ(camera.LastMessage(), (Message{9, {}}));
}

TEST(MessageWindow, RefusesBodyBytesThatDoNotFollowOnOrPassTheEnd) {
    Camera camera;
    EXPECT_EQ(WriteRegisters(camera, 0x5000, {1, 2}), kStall);  // no header yet
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 100), kAck);
    EXPECT_EQ(WriteRegisters(camera, 0x5040, Counting(0, 64)), kStall);  // skips a piece
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Counting(0, 64)), kAck);
    EXPECT_EQ(WriteRegisters(camera, 0x5000, Counting(0, 36)), kStall);  // repeats a piece
    // A new header starts over.
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 2), kAck);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, {0xA, 0xB}), kAck);
    EXPECT_EQ(camera.LastMessage(), (Message{2, {0xA, 0xB}}));
    // The window is write-only and ends at 0x53FF.
    EXPECT_EQ(Probe(camera, 0x5000), kStall);
    EXPECT_EQ(Probe(camera, reg::kMessageHeader), kStall);
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 0x400), kAck);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Counting(0, 0x400)), kAck);
    EXPECT_EQ(camera.LastMessage()->body.size(), 0x400u);
    EXPECT_EQ(WriteRegister(camera, 0x5400, 0), kStall);
}

}  // namespace
}  // namespace ornixcam
